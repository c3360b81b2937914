// A keyed JSON encoder and decoder for the library's coded values. A codable type writes itself
// through a keyed container of a VespEncoder (`void encode(VespEncoder&) const`) and reads itself
// from a VespDecoder (`static T decode(const VespDecoder&)`); arrays and text-keyed objects of
// codable values code as JSON arrays and objects, with coding paths that name where each value
// stands. Failures are thrown as VespEncodingError and VespDecodingError.
//
// Dates: by default a date is written as its own coded form, the seconds since 2001-01-01
// 00:00:00 UTC as a 64-bit floating-point number; the coders can instead write seconds since 1970
// or ISO 8601 text in UTC (whole seconds).
#pragma once

#include <concepts>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Vesp/VespCodingError.h"
#include "support/platform/Date.h"

namespace vesp {

enum class VespDateCodingStrategy { deferredToDate, secondsSince1970, iso8601 };

struct VespCodingNode;  // the JSON value being written or read
class VespEncoder;
class VespDecoder;

template <class T>
concept VespEncodable = requires(const T& value, VespEncoder& encoder) { value.encode(encoder); };
template <class T>
concept VespDecodable = requires(const VespDecoder& decoder) {
  { T::decode(decoder) } -> std::same_as<T>;
};

class VespKeyedEncodingContainer {
 public:
  const VespCodingPath& codingPath() const;
  void encode(const std::string& value, const VespCodingKey& key);
  // REQUIRES: a finite value; a non-finite one throws invalidValue.
  void encode(double value, const VespCodingKey& key);
  void encode(platform::Date value, const VespCodingKey& key);
  template <VespEncodable T>
  void encode(const T& value, const VespCodingKey& key);
  VespEncoder nestedEncoder(const VespCodingKey& key);

 private:
  friend class VespEncoder;
  explicit VespKeyedEncodingContainer(const VespEncoder& encoder);
  const VespEncoder& encoder_;
};

class VespEncoder {
 public:
  const VespCodingPath& codingPath() const { return codingPath_; }
  VespDateCodingStrategy dateEncodingStrategy() const { return dateStrategy_; }
  // Makes this value an object and returns a container that writes its members in order.
  VespKeyedEncodingContainer container();
  // Makes this value an array of the given values.
  template <class T>
  void encodeArray(const std::vector<T>& values);
  // Writes a single date or text as this value.
  void encodeSingle(platform::Date value);
  void encodeSingle(const std::string& value);

  // Internal: an encoder writing into `node` at `codingPath`.
  VespEncoder(VespCodingNode* node, VespCodingPath codingPath, VespDateCodingStrategy dateStrategy);
  VespEncoder element(int index) const;
  VespEncoder member(const VespCodingKey& key) const;
  VespCodingNode* node() const { return node_; }

 private:
  void beginArray(std::size_t size);
  VespCodingNode* node_;
  VespCodingPath codingPath_;
  VespDateCodingStrategy dateStrategy_;
};

class VespKeyedDecodingContainer {
 public:
  const VespCodingPath& codingPath() const;
  bool contains(const VespCodingKey& key) const;
  std::string decodeString(const VespCodingKey& key) const;
  double decodeDouble(const VespCodingKey& key) const;
  platform::Date decodeDate(const VespCodingKey& key) const;
  template <VespDecodable T>
  T decode(const VespCodingKey& key) const;
  // The decoder for a member; throws keyNotFound when it is missing.
  VespDecoder nestedDecoder(const VespCodingKey& key) const;

 private:
  friend class VespDecoder;
  explicit VespKeyedDecodingContainer(const VespDecoder& decoder);
  const VespDecoder& decoder_;
};

class VespDecoder {
 public:
  const VespCodingPath& codingPath() const { return codingPath_; }
  VespDateCodingStrategy dateDecodingStrategy() const { return dateStrategy_; }
  // Throws typeMismatch unless this value is an object.
  VespKeyedDecodingContainer container() const;
  // Throws typeMismatch unless this value is an array.
  template <class T>
  std::vector<T> decodeArray() const;
  platform::Date decodeSingleDate() const;
  std::string decodeSingleString() const;

  // Internal: a decoder reading `node` at `codingPath`.
  VespDecoder(const VespCodingNode* node, VespCodingPath codingPath, VespDateCodingStrategy dateStrategy);
  std::size_t arraySize() const;  // throws typeMismatch unless an array
  VespDecoder element(std::size_t index) const;
  std::vector<std::string> memberNames() const;  // throws typeMismatch unless an object
  VespDecoder member(const std::string& name) const;
  const VespCodingNode* node() const { return node_; }

 private:
  const VespCodingNode* node_;
  VespCodingPath codingPath_;
  VespDateCodingStrategy dateStrategy_;
};

// What can be coded at the top level or nested: codable values, arrays and text-keyed maps of them.
template <class T>
struct VespCoding {
  static void encode(const T& value, VespEncoder& encoder) { value.encode(encoder); }
  static T decode(const VespDecoder& decoder) { return T::decode(decoder); }
};
template <class T>
struct VespCoding<std::vector<T>> {
  static void encode(const std::vector<T>& values, VespEncoder& encoder) { encoder.encodeArray(values); }
  static std::vector<T> decode(const VespDecoder& decoder) { return decoder.decodeArray<T>(); }
};
template <class T>
struct VespCoding<std::map<std::string, T>> {
  static void encode(const std::map<std::string, T>& values, VespEncoder& encoder) {
    auto container = encoder.container();
    for (const auto& [name, value] : values) {
      VespEncoder member = container.nestedEncoder(VespCodingKey::named(name));
      VespCoding<T>::encode(value, member);
    }
  }
  static std::map<std::string, T> decode(const VespDecoder& decoder) {
    std::map<std::string, T> values;
    for (const auto& name : decoder.memberNames()) values.emplace(name, VespCoding<T>::decode(decoder.member(name)));
    return values;
  }
};

template <VespEncodable T>
void VespKeyedEncodingContainer::encode(const T& value, const VespCodingKey& key) {
  VespEncoder member = nestedEncoder(key);
  value.encode(member);
}

template <class T>
void VespEncoder::encodeArray(const std::vector<T>& values) {
  beginArray(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    VespEncoder item = element(static_cast<int>(i));
    VespCoding<T>::encode(values[i], item);
  }
}

template <VespDecodable T>
T VespKeyedDecodingContainer::decode(const VespCodingKey& key) const {
  return T::decode(nestedDecoder(key));
}

template <class T>
std::vector<T> VespDecoder::decodeArray() const {
  std::size_t size = arraySize();
  std::vector<T> values;
  values.reserve(size);
  for (std::size_t i = 0; i < size; ++i) values.push_back(VespCoding<T>::decode(element(i)));
  return values;
}

class VespJSONEncoder {
 public:
  VespDateCodingStrategy dateEncodingStrategy = VespDateCodingStrategy::deferredToDate;

  // The JSON text of `value`, members in the order written. Throws VespEncodingError.
  template <class T>
  std::string encode(const T& value) const {
    auto root = makeRoot();
    VespEncoder encoder(root.get(), {}, dateEncodingStrategy);
    VespCoding<T>::encode(value, encoder);
    return dump(*root);
  }

 private:
  static std::shared_ptr<VespCodingNode> makeRoot();
  static std::string dump(const VespCodingNode& root);
};

class VespJSONDecoder {
 public:
  VespDateCodingStrategy dateDecodingStrategy = VespDateCodingStrategy::deferredToDate;

  // Reads a value from JSON text. Text that is not JSON is dataCorrupted at the top level, with
  // the parser's error as underlying error. Throws VespDecodingError.
  template <class T>
  T decode(std::string_view json) const {
    auto root = parse(json);
    return VespCoding<T>::decode(VespDecoder(root.get(), {}, dateDecodingStrategy));
  }

 private:
  static std::shared_ptr<VespCodingNode> parse(std::string_view json);
};

}  // namespace vesp
