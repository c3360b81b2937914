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

}  // namespace

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
