#include "platforms/vdir/VdirFileNames.h"

#include <cstdint>

namespace vesp::vdir {

namespace {

constexpr std::size_t kLongestUidName = 200;

bool isSafeUid(std::string_view uid) {
  if (uid.empty() || uid.size() > kLongestUidName || uid.front() == '.') return false;
  for (char c : uid) {
    bool safe = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
                c == '.' || c == '+' || c == '-';
    if (!safe) return false;
  }
  return true;
}

// One 64-bit lane of the name hash: FNV-1a from `seed`, then a final mix so that every input bit
// reaches every output bit. Two lanes with different seeds make the 128 bits of a name.
std::uint64_t lane(std::string_view bytes, std::uint64_t seed) {
  std::uint64_t hash = seed;
  for (char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
  hash ^= bytes.size();
  hash ^= hash >> 33;
  hash *= 0xFF51AFD7ED558CCDull;
  hash ^= hash >> 33;
  hash *= 0xC4CEB9FE1A85EC53ull;
  return hash ^ (hash >> 33);
}

void appendHex(std::string& out, std::uint64_t value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (int shift = 60; shift >= 0; shift -= 4) out.append(1, kDigits[(value >> shift) & 0xF]);
}

}  // namespace

std::string fileNameForUid(std::string_view uid) {
  if (isSafeUid(uid)) return std::string(uid) + ".ics";
  std::string name;
  appendHex(name, lane(uid, 0xCBF29CE484222325ull));
  appendHex(name, lane(uid, 0x84222325CBF29CE4ull ^ 0x9E3779B97F4A7C15ull));
  return name + ".ics";
}

}  // namespace vesp::vdir
