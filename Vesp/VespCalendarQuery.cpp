#include "Vesp/VespCalendarQuery.h"

namespace vesp {

VespCalendarQuery VespCalendarQuery::some(std::set<std::string> calendarIdentifiers) {
  return VespCalendarQuery(std::move(calendarIdentifiers));
}

VespCalendarQuery VespCalendarQuery::all() { return VespCalendarQuery(std::nullopt); }

std::ostream& operator<<(std::ostream& out, const VespCalendarQuery& query) {
  if (!query.calendarIdentifiers()) return out << "all";
  out << "some([";
  bool first = true;
  for (const auto& identifier : *query.calendarIdentifiers()) {
    out << (first ? "" : ", ") << '"' << identifier << '"';
    first = false;
  }
  return out << "])";
}

}  // namespace vesp
