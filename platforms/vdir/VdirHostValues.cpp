#include "platforms/vdir/VdirHostValues.h"

#include <cmath>
#include <cstdlib>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirErrors.h"

namespace vesp::vdir {
namespace {

rivet::RivetError refused(const std::string& why, const char* function, int line) {
  return vdirFailure(VdirErrorCode::invalidChange, why, __FILE__, function, line);
}

// The platform's frequencies, then the sub-daily ones the store reports past them.
const char* frequencyName(platform::EKRecurrenceFrequency frequency) {
  static const char* const kNames[] = {"DAILY", "WEEKLY", "MONTHLY", "YEARLY", "HOURLY", "MINUTELY", "SECONDLY"};
  if (frequency < 0 || frequency >= static_cast<platform::EKRecurrenceFrequency>(std::size(kNames))) return nullptr;
  return kNames[frequency];
}

const char* weekdayName(platform::EKWeekday day) {
  static const char* const kNames[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
  if (day < platform::EKWeekdaySunday || day > platform::EKWeekdaySaturday) return nullptr;
  return kNames[day - platform::EKWeekdaySunday];
}

// ";NAME=a,b,c" of a number list whose every value is a whole number from `low` to `high` (or, when
// `signedRange`, from -high to -low as well); empty when the list is absent or empty.
rivet::RivetResult<std::string> numberPart(const char* name, const platform::EKRecurrenceRule::NumberList& list,
                                           std::int64_t low, std::int64_t high, bool signedRange) {
  if (!list || list->empty()) return std::string();
  std::string part = std::string(";") + name + "=";
  for (std::size_t i = 0; i < list->size(); ++i) {
    const platform::NSNumber* number = (*list)[i].number();
    const std::int64_t value = number ? number->integerValue() : 0;
    const std::int64_t magnitude = signedRange ? std::llabs(value) : value;
    if (!number || number->isFloatingPoint() || magnitude < low || magnitude > high)
      return refused(std::string("the repeat rule's ") + name + " values must be whole numbers from " +
                         (signedRange ? "-" + std::to_string(high) + " to -" + std::to_string(low) + " or " : "") +
                         std::to_string(low) + " to " + std::to_string(high),
                     "numberPart", __LINE__);
    part += (i ? "," : "") + std::to_string(value);
  }
  return part;
}

rivet::RivetResult<std::string> dayPart(const platform::EKRecurrenceRule& rule) {
  const auto days = rule.daysOfTheWeek();
  if (!days || days->empty()) return std::string();
  std::string part = ";BYDAY=";
  for (std::size_t i = 0; i < days->size(); ++i) {
    const auto& day = (*days)[i];
    const char* name = day ? weekdayName(day->dayOfTheWeek()) : nullptr;
    const std::int64_t week = day ? day->weekNumber() : 0;
    if (!name || week < -53 || week > 53)
      return refused("a day of the repeat rule is not a weekday (1 Sunday to 7 Saturday) in week -53 to 53",
                     "dayPart", __LINE__);
    part += (i ? "," : "") + (week ? std::to_string(week) : std::string()) + name;
  }
  return part;
}

}  // namespace

rivet::RivetResult<std::string> ruleValue(const platform::EKRecurrenceRule& rule, const VdirClock& clock) {
  const char* frequency = frequencyName(rule.frequency());
  if (!frequency) return refused("unknown repeat frequency " + std::to_string(rule.frequency()), "ruleValue", __LINE__);
  if (rule.interval() < 1 || rule.interval() > 100000)
    return refused("a repeat interval is 1 to 100000, not " + std::to_string(rule.interval()), "ruleValue", __LINE__);
  std::string value = std::string("FREQ=") + frequency;
  if (rule.interval() != 1) value += ";INTERVAL=" + std::to_string(rule.interval());
  for (auto part : {dayPart(rule), numberPart("BYMONTHDAY", rule.daysOfTheMonth(), 1, 31, true),
                    numberPart("BYYEARDAY", rule.daysOfTheYear(), 1, 366, true),
                    numberPart("BYWEEKNO", rule.weeksOfTheYear(), 1, 53, true),
                    numberPart("BYMONTH", rule.monthsOfTheYear(), 1, 12, false),
                    numberPart("BYSETPOS", rule.setPositions(), 1, 366, true)}) {
    if (!part) return part.error();
    value += *part;
  }
  if (const char* start = weekdayName(rule.firstDayOfTheWeek())) value += std::string(";WKST=") + start;
  if (const auto end = rule.recurrenceEnd()) {
    if (end->endDate()) {
      VdirTime utc;
      utc.kind = VdirTime::Kind::utc;
      value += ";UNTIL=" + timeValue(timeLike(*end->endDate(), utc, clock));
    } else if (end->occurrenceCount() > 0) {
      value += ";COUNT=" + std::to_string(end->occurrenceCount());
    } else {
      return refused("a repeat rule's end names neither a date nor a number of occurrences", "ruleValue", __LINE__);
    }
  }
  return value;
}

rivet::RivetResult<std::vector<std::string>> alarmTriggers(
    const std::vector<std::shared_ptr<platform::EKAlarm>>& alarms) {
  std::vector<std::string> triggers;
  for (const auto& alarm : alarms) {
    if (!alarm || alarm->absoluteDate() || alarm->proximity() != platform::EKAlarmProximityNone)
      return refused("only alarms relative to the item's start can be saved", "alarmTriggers", __LINE__);
    const double offset = alarm->relativeOffset();
    if (!std::isfinite(offset) || offset != std::floor(offset) || std::fabs(offset) > 1e9)
      return refused("an alarm's offset is a whole number of seconds", "alarmTriggers", __LINE__);
    auto seconds = static_cast<std::int64_t>(std::fabs(offset));
    std::string text = offset < 0 ? "-P" : "P";
    if (seconds >= 86400) text += std::to_string(seconds / 86400) + "D";
    seconds %= 86400;
    if (seconds > 0 || text.back() == 'P') {
      text += "T";
      if (seconds >= 3600) text += std::to_string(seconds / 3600) + "H";
      if (seconds % 3600 >= 60) text += std::to_string(seconds % 3600 / 60) + "M";
      if (seconds % 60 > 0 || text.back() == 'T') text += std::to_string(seconds % 60) + "S";
    }
    triggers.push_back(std::move(text));
  }
  return triggers;
}

}  // namespace vesp::vdir
