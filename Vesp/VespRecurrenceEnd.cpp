#include "Vesp/VespRecurrenceEnd.h"

namespace vesp {

VespRecurrenceEnd::VespRecurrenceEnd(std::optional<platform::Date> endDate, std::int64_t occurrenceCount)
    : endDate_(endDate), occurrenceCount_(occurrenceCount) {}

VespRecurrenceEnd::VespRecurrenceEnd(const platform::EKRecurrenceEnd& end)
    : endDate_(end.endDate()), occurrenceCount_(end.occurrenceCount()) {}

std::ostream& operator<<(std::ostream& out, const VespRecurrenceEnd& end) {
  out << "VespRecurrenceEnd(";
  if (end.endDate()) out << *end.endDate() << ", ";
  return out << "count " << end.occurrenceCount() << ")";
}

}  // namespace vesp
