// The bytes of the store's cache files: numbers and texts written in this machine's byte order
// (a cache never leaves the machine that wrote it), and the header that seals a file's payload.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platforms/vdir/VdirText.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// Every cache file starts with a header: an eight-byte magic, the format's version, four bytes
// unused, then the payload's length and hash.
inline constexpr std::size_t kCacheHeaderSize = 8 + 4 + 4 + 8 + 8;

// A 64-bit hash of a payload, eight bytes at a time (a damaged cache is caught by it; it is not a
// defence against a cache forged on purpose, which the decoders' checks are for).
std::uint64_t cachePayloadHash(std::string_view bytes);

class VdirCacheWriter {
 public:
  explicit VdirCacheWriter(std::string& out) : out_(out) {}
  void raw(const void* data, std::size_t size) { out_.append(static_cast<const char*>(data), size); }
  void u8(std::uint8_t value) { raw(&value, 1); }
  void u16(std::uint16_t value) { raw(&value, 2); }
  void u32(std::uint32_t value) { raw(&value, 4); }
  void u64(std::uint64_t value) { raw(&value, 8); }
  void i64(std::int64_t value) { raw(&value, 8); }
  void f64(double value) { raw(&value, 8); }
  void text(std::string_view value) {
    u32(static_cast<std::uint32_t>(value.size()));
    raw(value.data(), value.size());
  }
  void flag(bool value) { u8(value ? 1 : 0); }

 private:
  std::string& out_;
};

// Appends a header for `magic` and `format` whose length and hash sealCacheHeader fills in.
void openCacheHeader(VdirCacheWriter& w, std::string_view magic, std::uint32_t format);
// Fills in the header at the start of `out` for the payload that follows it.
void sealCacheHeader(std::string& out);
// `payload` under a header for `magic` and `format`.
std::string sealedCachePayload(std::string_view magic, std::uint32_t format, std::string_view payload);

// Reads what VdirCacheWriter wrote. The first problem is kept, and from then on every read gives
// nothing (zero, empty, no elements), so that decoding runs to its end and says what was wrong.
class VdirCacheReader {
 public:
  explicit VdirCacheReader(std::string_view bytes) : bytes_(bytes) {}
  bool atEnd() const { return at_ == bytes_.size(); }
  bool failed() const { return problem_.has_value(); }
  const std::string& problem() const { return *problem_; }
  void fail(std::string problem) {
    if (!problem_) problem_ = std::move(problem);
    at_ = bytes_.size();
  }
  std::string_view take(std::size_t size) {
    if (size > bytes_.size() - at_) [[unlikely]]
      return failWith("the cache ends early");
    const std::string_view part(bytes_.data() + at_, size);
    at_ += size;
    return part;
  }
  template <typename T>
  T number() {
    T value{};
    if (auto part = take(sizeof value); part.size() == sizeof value) std::memcpy(&value, part.data(), sizeof value);
    return value;
  }
  std::uint8_t u8() { return number<std::uint8_t>(); }
  std::uint16_t u16() { return number<std::uint16_t>(); }
  std::uint32_t u32() { return number<std::uint32_t>(); }
  std::uint64_t u64() { return number<std::uint64_t>(); }
  std::int64_t i64() { return number<std::int64_t>(); }
  // `value` when it lies in [lowest, highest], else a failure (and `lowest`).
  std::int64_t within(std::int64_t lowest, std::int64_t highest, std::int64_t value) {
    if (value >= lowest && value <= highest) [[likely]]
      return value;
    failWith("a value out of range");
    return lowest;
  }
  // Seconds since 1970 (or a span): finite and within years 1-9999 give or take.
  double f64() {
    double value = number<double>();
    if (std::isfinite(value) && std::fabs(value) <= 1e13) [[likely]]
      return value;
    failWith("a time out of range");
    return 0.0;
  }
  bool flag() { return within(0, 1, u8()) == 1; }
  std::string text() {
    auto part = take(u32());
    if (isValidUtf8(part)) [[likely]]
      return std::string(part);
    failWith("a text that is not UTF-8");
    return {};
  }
  // A count of things each at least `least` bytes long, checked against what is left.
  std::size_t count(std::size_t least) {
    std::uint32_t value = u32();
    if (value <= (bytes_.size() - at_) / least) [[likely]]
      return value;
    failWith("a count larger than the cache");
    return 0;
  }

 private:
  // Every read is checked; the failures are kept out of line, so that the checks stay small
  // enough to be inlined into the decoders' loops.
  [[gnu::cold, gnu::noinline]] std::string_view failWith(const char* problem) {
    fail(problem);
    return {};
  }

  std::string_view bytes_;
  std::size_t at_ = 0;
  std::optional<std::string> problem_;
};

// The payload of a file sealed with `magic` and `format`; a failure, raised in `function`, saying
// why it cannot be trusted (another kind of file, another format, cut short, grown or damaged).
rivet::RivetResult<std::string_view> cachePayload(std::string_view bytes, std::string_view magic,
                                                  std::uint32_t format, const char* function);

}  // namespace vesp::vdir
