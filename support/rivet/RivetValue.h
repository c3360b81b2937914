// Dynamic values for error and provenance context, and the ordered argument dictionary.
//
// Thread safety: values are immutable once built and may be read from any thread.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vesp::rivet {

class RivetArgs;
class RivetValue;

// A reference to an object that appears in an error or a via ("self", a platform event, a picker).
// It keeps the object's description and a weak reference, never ownership.
struct RivetObjectReference {
  std::string description;
  std::weak_ptr<const void> object;
};

// A dynamic value that renders readably in logs: nothing, a Boolean, a signed or unsigned integer,
// a floating-point number, a text, a list, an ordered dictionary or an object reference.
class RivetValue {
 public:
  enum class Kind { null, boolean, signedInteger, unsignedInteger, floatingPoint, text, list, dictionary, object };
  using List = std::vector<RivetValue>;

  RivetValue() = default;
  RivetValue(std::nullptr_t) {}
  RivetValue(bool value) : storage_(value) {}
  template <std::signed_integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, char>)
  RivetValue(I value) : storage_(static_cast<std::int64_t>(value)) {}
  template <std::unsigned_integral I>
    requires(!std::same_as<I, bool>)
  RivetValue(I value) : storage_(static_cast<std::uint64_t>(value)) {}
  RivetValue(double value) : storage_(value) {}
  RivetValue(float value) : storage_(static_cast<double>(value)) {}
  RivetValue(std::string value) : storage_(std::move(value)) {}
  RivetValue(std::string_view value) : storage_(std::string(value)) {}
  RivetValue(const char* value) : storage_(std::string(value)) {}
  RivetValue(List values);
  RivetValue(RivetArgs dictionary);
  RivetValue(RivetObjectReference reference) : storage_(std::move(reference)) {}

  // An absent optional becomes null; a present one becomes its value.
  template <class T>
  static RivetValue optional(const std::optional<T>& value) {
    return value ? RivetValue(*value) : RivetValue();
  }
  // A reference to a shared object, described by the given text; only a weak reference is kept.
  template <class T>
  static RivetValue object(const std::shared_ptr<T>& object, std::string description) {
    return RivetValue(RivetObjectReference{std::move(description), std::weak_ptr<const void>(object)});
  }
  // The text that `operator<<` writes for the value.
  template <class T>
  static RivetValue describing(const T& value) {
    std::ostringstream out;
    out << value;
    return RivetValue(out.str());
  }

  Kind kind() const { return static_cast<Kind>(storage_.index()); }
  bool isNull() const { return kind() == Kind::null; }
  // Typed reads; each returns nothing when the value is of another kind.
  std::optional<bool> boolean() const;
  std::optional<std::int64_t> signedInteger() const;
  std::optional<std::uint64_t> unsignedInteger() const;
  std::optional<double> floatingPoint() const;
  const std::string* text() const;
  const List* list() const;
  const RivetArgs* dictionary() const;
  const RivetObjectReference* object() const;

  // Readable one-line rendering: nil, true, 42, 1.5, "text", [1, 2], ["key": 1], <description>.
  std::string description() const;

  // Structural equality; object references are equal when they name the same object (or both
  // objects are gone) and have the same description.
  friend bool operator==(const RivetValue& lhs, const RivetValue& rhs);

 private:
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, std::shared_ptr<const List>,
               std::shared_ptr<const RivetArgs>, RivetObjectReference>
      storage_;
};

// An ordered dictionary from text keys to dynamic values. Keys keep the order in which they were
// first added; adding a key again replaces its value in place.
class RivetArgs {
 public:
  using Entry = std::pair<std::string, RivetValue>;

  RivetArgs() = default;
  RivetArgs(std::initializer_list<Entry> entries);

  void set(std::string key, RivetValue value);
  const RivetValue* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  std::vector<std::string> keys() const;
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

  // ["key": value, ...] in key order; [:] when empty.
  std::string description() const;

  friend bool operator==(const RivetArgs&, const RivetArgs&) = default;

 private:
  std::vector<Entry> entries_;
};

std::ostream& operator<<(std::ostream& out, const RivetValue& value);
std::ostream& operator<<(std::ostream& out, const RivetArgs& args);

}  // namespace vesp::rivet
