#include "Vesp/VespRecurrenceDayOfWeek.h"

namespace vesp {

VespRecurrenceDayOfWeek::VespRecurrenceDayOfWeek(VespWeekday dayOfTheWeek, std::int64_t weekNumber)
    : dayOfTheWeek_(dayOfTheWeek), weekNumber_(weekNumber) {}

VespRecurrenceDayOfWeek::VespRecurrenceDayOfWeek(const platform::EKRecurrenceDayOfWeek& day)
    : dayOfTheWeek_(vespWeekday(day.dayOfTheWeek())), weekNumber_(day.weekNumber()) {}

std::ostream& operator<<(std::ostream& out, const VespRecurrenceDayOfWeek& day) {
  return out << "(" << day.dayOfTheWeek() << ", " << day.weekNumber() << ")";
}

}  // namespace vesp
