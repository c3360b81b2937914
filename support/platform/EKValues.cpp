// The alarms, rule ends, days and rules a host makes to set on an item: plain immutable values.
#include <utility>

#include "support/platform/EKAlarm.h"
#include "support/platform/EKRecurrenceRule.h"

namespace vesp::platform {
namespace {

class AlarmValue final : public EKAlarm {
 public:
  AlarmValue(std::optional<Date> absoluteDate, double relativeOffset)
      : absoluteDate_(absoluteDate), relativeOffset_(relativeOffset) {}
  std::optional<Date> absoluteDate() const override { return absoluteDate_; }
  EKAlarmProximity proximity() const override { return EKAlarmProximityNone; }
  double relativeOffset() const override { return relativeOffset_; }
  std::shared_ptr<EKStructuredLocation> structuredLocation() const override { return nullptr; }
  EKAlarmType type() const override { return EKAlarmTypeDisplay; }
  std::string description() const override { return "<EKAlarm>"; }

 private:
  std::optional<Date> absoluteDate_;
  double relativeOffset_;
};

class RecurrenceEndValue final : public EKRecurrenceEnd {
 public:
  RecurrenceEndValue(std::optional<Date> endDate, std::int64_t occurrenceCount)
      : endDate_(endDate), occurrenceCount_(occurrenceCount) {}
  std::optional<Date> endDate() const override { return endDate_; }
  std::int64_t occurrenceCount() const override { return occurrenceCount_; }
  std::string description() const override { return "<EKRecurrenceEnd>"; }

 private:
  std::optional<Date> endDate_;
  std::int64_t occurrenceCount_;
};

class DayOfWeekValue final : public EKRecurrenceDayOfWeek {
 public:
  DayOfWeekValue(EKWeekday day, std::int64_t weekNumber) : day_(day), weekNumber_(weekNumber) {}
  EKWeekday dayOfTheWeek() const override { return day_; }
  std::int64_t weekNumber() const override { return weekNumber_; }
  std::string description() const override { return "<EKRecurrenceDayOfWeek>"; }

 private:
  EKWeekday day_;
  std::int64_t weekNumber_;
};

struct RuleFields {
  EKRecurrenceFrequency frequency = EKRecurrenceFrequencyDaily;
  std::int64_t interval = 1;
  std::optional<std::vector<std::shared_ptr<EKRecurrenceDayOfWeek>>> daysOfTheWeek;
  EKRecurrenceRule::NumberList daysOfTheMonth, monthsOfTheYear, weeksOfTheYear, daysOfTheYear, setPositions;
  std::shared_ptr<EKRecurrenceEnd> end;
};

class RuleValue final : public EKRecurrenceRule {
 public:
  explicit RuleValue(RuleFields fields) : f_(std::move(fields)) {}
  std::string calendarIdentifier() const override { return "gregorian"; }
  NumberList daysOfTheMonth() const override { return f_.daysOfTheMonth; }
  std::optional<std::vector<std::shared_ptr<EKRecurrenceDayOfWeek>>> daysOfTheWeek() const override {
    return f_.daysOfTheWeek;
  }
  NumberList daysOfTheYear() const override { return f_.daysOfTheYear; }
  std::int64_t firstDayOfTheWeek() const override { return 0; }
  EKRecurrenceFrequency frequency() const override { return f_.frequency; }
  std::int64_t interval() const override { return f_.interval; }
  NumberList monthsOfTheYear() const override { return f_.monthsOfTheYear; }
  std::shared_ptr<EKRecurrenceEnd> recurrenceEnd() const override { return f_.end; }
  NumberList setPositions() const override { return f_.setPositions; }
  NumberList weeksOfTheYear() const override { return f_.weeksOfTheYear; }
  std::string description() const override { return "<EKRecurrenceRule>"; }

 private:
  RuleFields f_;
};

// Why a number list of a rule is out of range: each value must be a whole number from `low` to
// `high` or, when `signedRange`, from -high to -low as well.
std::optional<std::string> listProblem(const char* name, const EKRecurrenceRule::NumberList& list, std::int64_t low,
                                       std::int64_t high, bool signedRange) {
  if (!list) return std::nullopt;
  for (const AnyObject& object : *list) {
    const NSNumber* number = object.number();
    const std::int64_t value = number ? number->integerValue() : 0;
    const bool inRange = (value >= low && value <= high) || (signedRange && value <= -low && value >= -high);
    if (!number || number->isFloatingPoint() || !inRange)
      return std::string("the repeat rule's ") + name + " values must be whole numbers from " +
             (signedRange ? "-" + std::to_string(high) + " to -" + std::to_string(low) + " or " : "") +
             std::to_string(low) + " to " + std::to_string(high);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> recurrenceRuleProblem(const EKRecurrenceRule& rule) {
  // The platform's four frequencies, then the sub-daily ones a store reports past them.
  if (rule.frequency() < EKRecurrenceFrequencyDaily || rule.frequency() > EKRecurrenceFrequencySecondly)
    return "unknown repeat frequency " + std::to_string(rule.frequency());
  if (rule.interval() < 1 || rule.interval() > 100000)
    return "a repeat interval is 1 to 100000, not " + std::to_string(rule.interval());
  if (rule.firstDayOfTheWeek() != 0 &&
      (rule.firstDayOfTheWeek() < EKWeekdaySunday || rule.firstDayOfTheWeek() > EKWeekdaySaturday))
    return "the repeat rule's first day of the week is not a weekday (1 Sunday to 7 Saturday)";
  if (const auto days = rule.daysOfTheWeek())
    for (const auto& day : *days)
      if (!day || day->dayOfTheWeek() < EKWeekdaySunday || day->dayOfTheWeek() > EKWeekdaySaturday ||
          day->weekNumber() < -53 || day->weekNumber() > 53)
        return std::string("a day of the repeat rule is not a weekday (1 Sunday to 7 Saturday) in week -53 to 53");
  for (auto problem : {listProblem("BYMONTHDAY", rule.daysOfTheMonth(), 1, 31, true),
                       listProblem("BYYEARDAY", rule.daysOfTheYear(), 1, 366, true),
                       listProblem("BYWEEKNO", rule.weeksOfTheYear(), 1, 53, true),
                       listProblem("BYMONTH", rule.monthsOfTheYear(), 1, 12, false),
                       listProblem("BYSETPOS", rule.setPositions(), 1, 366, true)})
    if (problem) return problem;
  if (const auto end = rule.recurrenceEnd(); end && !end->endDate() && end->occurrenceCount() <= 0)
    return std::string("a repeat rule's end names neither a date nor a number of occurrences");
  return std::nullopt;
}

std::shared_ptr<EKAlarm> EKAlarm::alarmWithRelativeOffset(double offset) {
  return std::make_shared<AlarmValue>(std::nullopt, offset);
}
std::shared_ptr<EKAlarm> EKAlarm::alarmWithAbsoluteDate(Date date) { return std::make_shared<AlarmValue>(date, 0.0); }

std::shared_ptr<EKRecurrenceEnd> EKRecurrenceEnd::recurrenceEndWithEndDate(Date endDate) {
  return std::make_shared<RecurrenceEndValue>(endDate, 0);
}
std::shared_ptr<EKRecurrenceEnd> EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(std::int64_t occurrenceCount) {
  return std::make_shared<RecurrenceEndValue>(std::nullopt, occurrenceCount);
}

std::shared_ptr<EKRecurrenceDayOfWeek> EKRecurrenceDayOfWeek::dayOfWeek(EKWeekday dayOfTheWeek,
                                                                        std::int64_t weekNumber) {
  return std::make_shared<DayOfWeekValue>(dayOfTheWeek, weekNumber);
}

std::shared_ptr<EKRecurrenceRule> EKRecurrenceRule::recurrenceWithFrequency(EKRecurrenceFrequency frequency,
                                                                            std::int64_t interval,
                                                                            std::shared_ptr<EKRecurrenceEnd> end) {
  return recurrenceWithFrequency(frequency, interval, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                 std::nullopt, std::nullopt, std::move(end));
}

std::shared_ptr<EKRecurrenceRule> EKRecurrenceRule::recurrenceWithFrequency(
    EKRecurrenceFrequency frequency, std::int64_t interval,
    std::optional<std::vector<std::shared_ptr<EKRecurrenceDayOfWeek>>> daysOfTheWeek, NumberList daysOfTheMonth,
    NumberList monthsOfTheYear, NumberList weeksOfTheYear, NumberList daysOfTheYear, NumberList setPositions,
    std::shared_ptr<EKRecurrenceEnd> end) {
  RuleFields fields;
  fields.frequency = frequency;
  fields.interval = interval;
  fields.daysOfTheWeek = std::move(daysOfTheWeek);
  fields.daysOfTheMonth = std::move(daysOfTheMonth);
  fields.monthsOfTheYear = std::move(monthsOfTheYear);
  fields.weeksOfTheYear = std::move(weeksOfTheYear);
  fields.daysOfTheYear = std::move(daysOfTheYear);
  fields.setPositions = std::move(setPositions);
  fields.end = std::move(end);
  return std::make_shared<RuleValue>(std::move(fields));
}

}  // namespace vesp::platform
