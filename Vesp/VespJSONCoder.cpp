#include "Vesp/VespJSONCoder.h"

#include <chrono>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace vesp {

using Json = nlohmann::ordered_json;

// A node is a JSON value seen through an opaque pointer type; it is never used as anything else.
namespace {
Json& json(VespCodingNode* node) { return *reinterpret_cast<Json*>(node); }
const Json& json(const VespCodingNode* node) { return *reinterpret_cast<const Json*>(node); }
VespCodingNode* asNode(Json& value) { return reinterpret_cast<VespCodingNode*>(&value); }
const VespCodingNode* asNode(const Json& value) { return reinterpret_cast<const VespCodingNode*>(&value); }

VespCodingPath appended(const VespCodingPath& path, const VespCodingKey& key) {
  VespCodingPath longer = path;
  longer.push_back(key);
  return longer;
}

// A number that is a whole value within the exact range of a double is written as an integer.
Json number(double value) {
  if (std::trunc(value) == value && std::fabs(value) <= 9007199254740992.0) return static_cast<std::int64_t>(value);
  return value;
}

const char* kindOf(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null: return "null";
    case Json::value_t::object: return "a dictionary";
    case Json::value_t::array: return "an array";
    case Json::value_t::string: return "a string";
    case Json::value_t::boolean: return "bool";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float: return "a number";
    default: return "data";
  }
}

[[noreturn]] void mismatch(const char* expected, const Json& found, const VespCodingPath& path) {
  if (found.is_null())
    throw VespDecodingError::valueNotFound(
        expected, {path, std::string("Expected ") + expected + " value but found null instead.", nullptr});
  throw VespDecodingError::typeMismatch(
      expected, {path, std::string("Expected to decode ") + expected + " but found " + kindOf(found) + " instead.",
                 nullptr});
}

// ISO 8601 text of a date in UTC, whole seconds (2023-01-01T00:00:00Z); absent when its year is
// outside 0000-9999, which the basic format cannot write.
std::optional<std::string> iso8601(platform::Date date) {
  double since1970 = std::floor(date.timeIntervalSince1970());
  // Years 0000-9999 span these seconds since 1970.
  if (!(since1970 >= -62167219200.0 && since1970 < 253402300800.0)) return std::nullopt;
  double days = std::floor(since1970 / 86400.0);
  auto secondOfDay = static_cast<long long>(since1970 - days * 86400.0);
  std::chrono::year_month_day civil{std::chrono::sys_days{std::chrono::days{static_cast<long long>(days)}}};
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02lld:%02lld:%02lldZ", static_cast<int>(civil.year()),
                static_cast<unsigned>(civil.month()), static_cast<unsigned>(civil.day()), secondOfDay / 3600,
                secondOfDay / 60 % 60, secondOfDay % 60);
  return std::string(buffer);
}

// Reads 2023-01-01T00:00:00Z, with optional fraction of a second and a Z or +hh:mm / -hh:mm zone.
std::optional<platform::Date> parseIso8601(const std::string& text) {
  // Exactly YYYY-MM-DDTHH:MM:SS: digits where digits belong, no signs or spaces.
  static const char pattern[] = "dddd-dd-ddTdd:dd:dd";
  if (text.size() < 19) return std::nullopt;
  for (std::size_t i = 0; i < 19; ++i) {
    bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
    if (pattern[i] == 'd' ? !digit : text[i] != pattern[i]) return std::nullopt;
  }
  auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    for (std::size_t i = at; i < at + length; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  int year = number(0, 4), month = number(5, 2), day = number(8, 2), hour = number(11, 2), minute = number(14, 2),
      second = number(17, 2);
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  std::size_t at = 19;
  double fraction = 0;
  if (at < text.size() && text[at] == '.') {
    std::size_t start = ++at;
    double scale = 0.1;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
      fraction += (text[at] - '0') * scale;
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  int offsetSeconds = 0;
  if (at < text.size() && text[at] == 'Z') {
    ++at;
  } else if (at + 6 == text.size() && (text[at] == '+' || text[at] == '-') && text[at + 3] == ':') {
    for (std::size_t i : {at + 1, at + 2, at + 4, at + 5})
      if (!std::isdigit(static_cast<unsigned char>(text[i]))) return std::nullopt;
    int offsetHours = (text[at + 1] - '0') * 10 + (text[at + 2] - '0');
    int offsetMinutes = (text[at + 4] - '0') * 10 + (text[at + 5] - '0');
    offsetSeconds = (text[at] == '+' ? 1 : -1) * (offsetHours * 3600 + offsetMinutes * 60);
    at += 6;
  } else {
    return std::nullopt;
  }
  if (at != text.size()) return std::nullopt;
  std::chrono::year_month_day civil{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                                    std::chrono::day{static_cast<unsigned>(day)}};
  if (!civil.ok()) return std::nullopt;
  double days = static_cast<double>(std::chrono::sys_days{civil}.time_since_epoch().count());
  double since1970 = days * 86400.0 + hour * 3600.0 + minute * 60.0 + second + fraction - offsetSeconds;
  return platform::Date::fromTimeIntervalSince1970(since1970);
}

void writeDate(Json& target, platform::Date date, VespDateCodingStrategy strategy, const VespCodingPath& path) {
  double seconds = strategy == VespDateCodingStrategy::secondsSince1970 ? date.timeIntervalSince1970()
                                                                         : date.timeIntervalSinceReferenceDate();
  if (!std::isfinite(seconds))
    throw VespEncodingError::invalidValue(
        std::to_string(seconds), {path, "Unable to encode Double." + std::string(std::isnan(seconds) ? "nan" : "infinity") +
                                            " directly in JSON.",
                                  nullptr});
  if (strategy == VespDateCodingStrategy::iso8601) {
    auto text = iso8601(date);
    if (!text)
      throw VespEncodingError::invalidValue(
          date.iso8601(), {path, "Unable to encode a date outside the years 0000-9999 as ISO 8601 text.", nullptr});
    target = *text;
  } else
    target = number(seconds);
}

platform::Date readDate(const Json& value, VespDateCodingStrategy strategy, const VespCodingPath& path) {
  if (strategy == VespDateCodingStrategy::iso8601) {
    if (!value.is_string()) mismatch("String", value, path);
    auto date = parseIso8601(value.get<std::string>());
    if (!date)
      throw VespDecodingError::dataCorrupted({path, "Expected date string to be ISO8601-formatted.", nullptr});
    return *date;
  }
  if (!value.is_number()) mismatch("Double", value, path);
  double seconds = value.get<double>();
  return strategy == VespDateCodingStrategy::secondsSince1970 ? platform::Date::fromTimeIntervalSince1970(seconds)
                                                               : platform::Date(seconds);
}

}  // namespace

// Encoding.

VespEncoder::VespEncoder(VespCodingNode* node, VespCodingPath codingPath, VespDateCodingStrategy dateStrategy)
    : node_(node), codingPath_(std::move(codingPath)), dateStrategy_(dateStrategy) {}

VespKeyedEncodingContainer VespEncoder::container() {
  Json& value = json(node_);
  if (!value.is_object()) value = Json::object();
  return VespKeyedEncodingContainer(*this);
}

void VespEncoder::beginArray(std::size_t size) { json(node_) = Json::array_t(size); }

VespEncoder VespEncoder::element(int index) const {
  return VespEncoder(asNode(json(node_)[static_cast<std::size_t>(index)]), appended(codingPath_, VespCodingKey::index(index)),
                     dateStrategy_);
}

VespEncoder VespEncoder::member(const VespCodingKey& key) const {
  return VespEncoder(asNode(json(node_)[key.stringValue]), appended(codingPath_, key), dateStrategy_);
}

void VespEncoder::encodeSingle(platform::Date value) { writeDate(json(node_), value, dateStrategy_, codingPath_); }
void VespEncoder::encodeSingle(const std::string& value) { json(node_) = value; }

VespKeyedEncodingContainer::VespKeyedEncodingContainer(const VespEncoder& encoder) : encoder_(encoder) {}
const VespCodingPath& VespKeyedEncodingContainer::codingPath() const { return encoder_.codingPath(); }

VespEncoder VespKeyedEncodingContainer::nestedEncoder(const VespCodingKey& key) { return encoder_.member(key); }

void VespKeyedEncodingContainer::encode(const std::string& value, const VespCodingKey& key) {
  json(encoder_.node())[key.stringValue] = value;
}

void VespKeyedEncodingContainer::encode(double value, const VespCodingKey& key) {
  if (!std::isfinite(value))
    throw VespEncodingError::invalidValue(
        std::to_string(value), {appended(codingPath(), key),
                                "Unable to encode Double." + std::string(std::isnan(value) ? "nan" : "infinity") +
                                    " directly in JSON.",
                                nullptr});
  json(encoder_.node())[key.stringValue] = number(value);
}

void VespKeyedEncodingContainer::encode(platform::Date value, const VespCodingKey& key) {
  // Validate before the member exists, so a failure leaves nothing half written.
  Json written;
  writeDate(written, value, encoder_.dateEncodingStrategy(), appended(codingPath(), key));
  json(encoder_.node())[key.stringValue] = std::move(written);
}

std::shared_ptr<VespCodingNode> VespJSONEncoder::makeRoot() {
  auto root = std::make_shared<Json>();
  return std::shared_ptr<VespCodingNode>(root, asNode(*root));
}

std::string VespJSONEncoder::dump(const VespCodingNode& root) {
  return json(&root).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Decoding.

VespDecoder::VespDecoder(const VespCodingNode* node, VespCodingPath codingPath, VespDateCodingStrategy dateStrategy)
    : node_(node), codingPath_(std::move(codingPath)), dateStrategy_(dateStrategy) {}

VespKeyedDecodingContainer VespDecoder::container() const {
  if (!json(node_).is_object()) mismatch("Dictionary<String, Any>", json(node_), codingPath_);
  return VespKeyedDecodingContainer(*this);
}

std::size_t VespDecoder::arraySize() const {
  if (!json(node_).is_array()) mismatch("Array<Any>", json(node_), codingPath_);
  return json(node_).size();
}

VespDecoder VespDecoder::element(std::size_t index) const {
  return VespDecoder(asNode(json(node_)[index]), appended(codingPath_, VespCodingKey::index(static_cast<int>(index))),
                     dateStrategy_);
}

std::vector<std::string> VespDecoder::memberNames() const {
  if (!json(node_).is_object()) mismatch("Dictionary<String, Any>", json(node_), codingPath_);
  std::vector<std::string> names;
  for (const auto& item : json(node_).items()) names.push_back(item.key());
  return names;
}

VespDecoder VespDecoder::member(const std::string& name) const {
  const Json& object = json(node_);
  auto found = object.find(name);
  if (found == object.end())
    throw VespDecodingError::keyNotFound(
        VespCodingKey::named(name),
        {codingPath_, "No value associated with key \"" + name + "\".", nullptr});
  return VespDecoder(asNode(*found), appended(codingPath_, VespCodingKey::named(name)), dateStrategy_);
}

platform::Date VespDecoder::decodeSingleDate() const { return readDate(json(node_), dateStrategy_, codingPath_); }

std::string VespDecoder::decodeSingleString() const {
  if (!json(node_).is_string()) mismatch("String", json(node_), codingPath_);
  return json(node_).get<std::string>();
}

VespKeyedDecodingContainer::VespKeyedDecodingContainer(const VespDecoder& decoder) : decoder_(decoder) {}
const VespCodingPath& VespKeyedDecodingContainer::codingPath() const { return decoder_.codingPath(); }

bool VespKeyedDecodingContainer::contains(const VespCodingKey& key) const {
  return json(decoder_.node()).contains(key.stringValue);
}

VespDecoder VespKeyedDecodingContainer::nestedDecoder(const VespCodingKey& key) const {
  return decoder_.member(key.stringValue);
}

std::string VespKeyedDecodingContainer::decodeString(const VespCodingKey& key) const {
  return nestedDecoder(key).decodeSingleString();
}

double VespKeyedDecodingContainer::decodeDouble(const VespCodingKey& key) const {
  VespDecoder member = nestedDecoder(key);
  const Json& value = json(member.node());
  if (!value.is_number()) mismatch("Double", value, member.codingPath());
  return value.get<double>();
}

platform::Date VespKeyedDecodingContainer::decodeDate(const VespCodingKey& key) const {
  return nestedDecoder(key).decodeSingleDate();
}

std::shared_ptr<VespCodingNode> VespJSONDecoder::parse(std::string_view text) {
  auto root = std::make_shared<Json>();
  try {
    *root = Json::parse(text.begin(), text.end());
  } catch (const Json::exception&) {
    throw VespDecodingError::dataCorrupted({{}, "The given data was not valid JSON.", std::current_exception()});
  }
  return std::shared_ptr<VespCodingNode>(root, asNode(*root));
}

}  // namespace vesp
