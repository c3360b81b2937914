// Which calendars a query covers: some, by their identifiers, or all of the entity type.
#pragma once

#include <optional>
#include <ostream>
#include <set>
#include <string>

namespace vesp {

class VespCalendarQuery {
 public:
  enum class Case { some, all };

  // Only the calendars whose calendarIdentifier is in `calendarIdentifiers` (an empty set: none).
  static VespCalendarQuery some(std::set<std::string> calendarIdentifiers);
  // Every calendar of the entity type.
  static VespCalendarQuery all();

  Case kind() const { return identifiers_ ? Case::some : Case::all; }
  // The identifiers of a `some` query; nothing for `all`.
  const std::optional<std::set<std::string>>& calendarIdentifiers() const { return identifiers_; }

  friend bool operator==(const VespCalendarQuery&, const VespCalendarQuery&) = default;

 private:
  explicit VespCalendarQuery(std::optional<std::set<std::string>> identifiers) : identifiers_(std::move(identifiers)) {}
  std::optional<std::set<std::string>> identifiers_;
};

std::ostream& operator<<(std::ostream& out, const VespCalendarQuery& query);

}  // namespace vesp
