#include "platforms/vdir/VdirHostValues.h"

#include <cmath>
#include <iterator>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirErrors.h"

namespace vesp::vdir {
namespace {

rivet::RivetError refused(const std::string& why, const char* function, int line) {
  return vdirFailure(VdirErrorCode::invalidChange, why, __FILE__, function, line);
}

// The platform's frequencies, then the sub-daily ones the store reports past them; `frequency` is
// one of them (recurrenceRuleProblem checked it).
const char* frequencyName(platform::EKRecurrenceFrequency frequency) {
  static const char* const kNames[] = {"DAILY", "WEEKLY", "MONTHLY", "YEARLY", "HOURLY", "MINUTELY", "SECONDLY"};
  static_assert(std::size(kNames) == platform::EKRecurrenceFrequencySecondly + 1);
  return kNames[frequency];
}

const char* weekdayName(platform::EKWeekday day) {
  static const char* const kNames[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
  if (day < platform::EKWeekdaySunday || day > platform::EKWeekdaySaturday) return nullptr;
  return kNames[day - platform::EKWeekdaySunday];
}

// ";NAME=a,b,c" of a number list already checked; empty when the list is absent or empty.
std::string numberPart(const char* name, const platform::EKRecurrenceRule::NumberList& list) {
  if (!list || list->empty()) return std::string();
  std::string part = std::string(";") + name + "=";
  for (std::size_t i = 0; i < list->size(); ++i)
    part += (i ? "," : "") + std::to_string((*list)[i].number()->integerValue());
  return part;
}

// ";BYDAY=..." of days already checked: each weekday with its week number, when it has one.
std::string dayPart(const platform::EKRecurrenceRule& rule) {
  const auto days = rule.daysOfTheWeek();
  if (!days || days->empty()) return std::string();
  std::string part = ";BYDAY=";
  for (std::size_t i = 0; i < days->size(); ++i) {
    const auto& day = (*days)[i];
    part += (i ? "," : "") + (day->weekNumber() ? std::to_string(day->weekNumber()) : std::string()) +
            weekdayName(day->dayOfTheWeek());
  }
  return part;
}

}  // namespace

rivet::RivetResult<std::string> ruleValue(const platform::EKRecurrenceRule& rule, const VdirClock& clock) {
  if (auto problem = platform::recurrenceRuleProblem(rule)) return refused(*problem, "ruleValue", __LINE__);
  std::string value = std::string("FREQ=") + frequencyName(rule.frequency());
  if (rule.interval() != 1) value += ";INTERVAL=" + std::to_string(rule.interval());
  value += dayPart(rule) + numberPart("BYMONTHDAY", rule.daysOfTheMonth()) +
           numberPart("BYYEARDAY", rule.daysOfTheYear()) + numberPart("BYWEEKNO", rule.weeksOfTheYear()) +
           numberPart("BYMONTH", rule.monthsOfTheYear()) + numberPart("BYSETPOS", rule.setPositions());
  if (const char* start = weekdayName(rule.firstDayOfTheWeek())) value += std::string(";WKST=") + start;
  if (const auto end = rule.recurrenceEnd()) {
    if (end->endDate()) {
      VdirTime utc;
      utc.kind = VdirTime::Kind::utc;
      value += ";UNTIL=" + timeValue(timeLike(*end->endDate(), utc, clock));
    } else {
      value += ";COUNT=" + std::to_string(end->occurrenceCount());
    }
  }
  return value;
}

rivet::RivetResult<std::vector<std::string>> alarmTriggers(
    const std::vector<std::shared_ptr<platform::EKAlarm>>& alarms) {
  std::vector<std::string> triggers;
  for (const auto& alarm : alarms) {
    if (!alarm || alarm->proximity() != platform::EKAlarmProximityNone)
      return refused("only alarms at a time, or relative to the item's start, can be saved", "alarmTriggers",
                     __LINE__);
    if (const auto at = alarm->absoluteDate()) {
      // Years 1 to 9999, which an iCalendar date-time can state.
      const double seconds = at->timeIntervalSince1970();
      if (!std::isfinite(seconds) || seconds < -62135596800.0 || seconds >= 253402300800.0)
        return refused("an alarm's time is in the years 1 to 9999", "alarmTriggers", __LINE__);
      triggers.push_back(utcText(*at));
      continue;
    }
    const double offset = alarm->relativeOffset();
    if (!std::isfinite(offset) || offset != std::floor(offset) || std::fabs(offset) > 1e9)
      return refused("an alarm's offset is a whole number of seconds", "alarmTriggers", __LINE__);
    triggers.push_back(durationValue(static_cast<std::int64_t>(offset)));
  }
  return triggers;
}

}  // namespace vesp::vdir
