#include "support/rivet/RivetValue.h"

#include <charconv>
#include <cmath>

namespace vesp::rivet {

RivetValue::RivetValue(List values) : storage_(std::make_shared<const List>(std::move(values))) {}
RivetValue::RivetValue(RivetArgs dictionary) : storage_(std::make_shared<const RivetArgs>(std::move(dictionary))) {}

std::optional<bool> RivetValue::boolean() const {
  if (auto v = std::get_if<bool>(&storage_)) return *v;
  return std::nullopt;
}
std::optional<std::int64_t> RivetValue::signedInteger() const {
  if (auto v = std::get_if<std::int64_t>(&storage_)) return *v;
  return std::nullopt;
}
std::optional<std::uint64_t> RivetValue::unsignedInteger() const {
  if (auto v = std::get_if<std::uint64_t>(&storage_)) return *v;
  return std::nullopt;
}
std::optional<double> RivetValue::floatingPoint() const {
  if (auto v = std::get_if<double>(&storage_)) return *v;
  return std::nullopt;
}
const std::string* RivetValue::text() const { return std::get_if<std::string>(&storage_); }
const RivetValue::List* RivetValue::list() const {
  auto v = std::get_if<std::shared_ptr<const List>>(&storage_);
  return v ? v->get() : nullptr;
}
const RivetArgs* RivetValue::dictionary() const {
  auto v = std::get_if<std::shared_ptr<const RivetArgs>>(&storage_);
  return v ? v->get() : nullptr;
}
const RivetObjectReference* RivetValue::object() const { return std::get_if<RivetObjectReference>(&storage_); }

namespace {

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  return out + "\"";
}

std::string shortestDouble(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char buffer[64];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, end);
  // Keep a floating-point number recognisable as one.
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

}  // namespace

std::string RivetValue::description() const {
  switch (kind()) {
    case Kind::null: return "nil";
    case Kind::boolean: return *boolean() ? "true" : "false";
    case Kind::signedInteger: return std::to_string(*signedInteger());
    case Kind::unsignedInteger: return std::to_string(*unsignedInteger());
    case Kind::floatingPoint: return shortestDouble(*floatingPoint());
    case Kind::text: return quoted(*text());
    case Kind::list: {
      std::string out = "[";
      bool first = true;
      for (const auto& element : *list()) {
        if (!first) out += ", ";
        first = false;
        out += element.description();
      }
      return out + "]";
    }
    case Kind::dictionary: return dictionary()->description();
    case Kind::object: return "<" + object()->description + ">";
  }
  return "nil";
}

bool operator==(const RivetValue& lhs, const RivetValue& rhs) {
  if (lhs.kind() != rhs.kind()) return false;
  switch (lhs.kind()) {
    case RivetValue::Kind::null: return true;
    case RivetValue::Kind::list: return *lhs.list() == *rhs.list();
    case RivetValue::Kind::dictionary: return *lhs.dictionary() == *rhs.dictionary();
    case RivetValue::Kind::object: {
      const auto& a = *lhs.object();
      const auto& b = *rhs.object();
      bool sameObject = !a.object.owner_before(b.object) && !b.object.owner_before(a.object);
      return sameObject && a.description == b.description;
    }
    default: return lhs.storage_ == rhs.storage_;
  }
}

RivetArgs::RivetArgs(std::initializer_list<Entry> entries) {
  for (const auto& [key, value] : entries) set(key, value);
}

void RivetArgs::set(std::string key, RivetValue value) {
  for (auto& entry : entries_) {
    if (entry.first == key) {
      entry.second = std::move(value);
      return;
    }
  }
  entries_.emplace_back(std::move(key), std::move(value));
}

const RivetValue* RivetArgs::find(std::string_view key) const {
  for (const auto& entry : entries_)
    if (entry.first == key) return &entry.second;
  return nullptr;
}

std::vector<std::string> RivetArgs::keys() const {
  std::vector<std::string> keys;
  keys.reserve(entries_.size());
  for (const auto& entry : entries_) keys.push_back(entry.first);
  return keys;
}

std::string RivetArgs::description() const {
  if (entries_.empty()) return "[:]";
  std::string out = "[";
  bool first = true;
  for (const auto& [key, value] : entries_) {
    if (!first) out += ", ";
    first = false;
    out += quoted(key) + ": " + value.description();
  }
  return out + "]";
}

std::ostream& operator<<(std::ostream& out, const RivetValue& value) { return out << value.description(); }
std::ostream& operator<<(std::ostream& out, const RivetArgs& args) { return out << args.description(); }

}  // namespace vesp::rivet
