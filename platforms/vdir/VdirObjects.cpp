#include "platforms/vdir/VdirObjects.h"

#include <span>

#include "support/platform/NSNumber.h"

namespace vesp::vdir {

namespace {

class VdirStructuredLocation : public platform::EKStructuredLocation {
 public:
  explicit VdirStructuredLocation(std::shared_ptr<const VdirLocationData> data) : data_(std::move(data)) {}
  std::optional<platform::CLLocation> geoLocation() const override {
    if (!data_->latitude || !data_->longitude) return std::nullopt;
    return platform::CLLocation(*data_->latitude, *data_->longitude);
  }
  double radius() const override { return data_->radius; }
  std::optional<std::string> title() const override { return data_->title; }

 private:
  std::shared_ptr<const VdirLocationData> data_;
};

class VdirParticipant : public platform::EKParticipant {
 public:
  explicit VdirParticipant(VdirParticipantData data) : data_(std::move(data)) {}
  bool isCurrentUser() const override { return data_.isCurrentUser; }
  std::optional<std::string> name() const override { return data_.name; }
  platform::EKParticipantRole participantRole() const override { return data_.role; }
  platform::EKParticipantStatus participantStatus() const override { return data_.status; }
  platform::EKParticipantType participantType() const override { return data_.type; }
  platform::URL URL() const override { return platform::URL(data_.address); }
  std::string description() const override { return "<EKParticipant " + data_.address + ">"; }

 private:
  VdirParticipantData data_;
};

class VdirAlarm : public platform::EKAlarm {
 public:
  explicit VdirAlarm(VdirAlarmData data) : data_(std::move(data)) {}
  std::optional<platform::Date> absoluteDate() const override { return data_.absoluteDate; }
  platform::EKAlarmProximity proximity() const override { return data_.proximity; }
  double relativeOffset() const override { return data_.relativeOffset; }
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation() const override {
    return data_.location ? std::make_shared<VdirStructuredLocation>(data_.location) : nullptr;
  }
  platform::EKAlarmType type() const override { return data_.type; }

 private:
  VdirAlarmData data_;
};

class VdirRecurrenceEnd : public platform::EKRecurrenceEnd {
 public:
  VdirRecurrenceEnd(std::optional<platform::Date> endDate, std::int64_t count) : endDate_(endDate), count_(count) {}
  std::optional<platform::Date> endDate() const override { return endDate_; }
  std::int64_t occurrenceCount() const override { return count_; }

 private:
  std::optional<platform::Date> endDate_;
  std::int64_t count_;
};

class VdirRecurrenceDayOfWeek : public platform::EKRecurrenceDayOfWeek {
 public:
  VdirRecurrenceDayOfWeek(platform::EKWeekday day, std::int64_t week) : day_(day), week_(week) {}
  platform::EKWeekday dayOfTheWeek() const override { return day_; }
  std::int64_t weekNumber() const override { return week_; }

 private:
  platform::EKWeekday day_;
  std::int64_t week_;
};

// libical numbers the weekdays as the platform does, Sunday 1 to Saturday 7.
platform::EKWeekday weekdayFromIcal(icalrecurrencetype_weekday day) {
  static_assert(ICAL_SUNDAY_WEEKDAY == platform::EKWeekdaySunday &&
                ICAL_SATURDAY_WEEKDAY == platform::EKWeekdaySaturday);
  return static_cast<platform::EKWeekday>(day);
}

platform::EKRecurrenceFrequency frequencyFromIcal(icalrecurrencetype_frequency frequency) {
  switch (frequency) {
    case ICAL_WEEKLY_RECURRENCE: return platform::EKRecurrenceFrequencyWeekly;
    case ICAL_MONTHLY_RECURRENCE: return platform::EKRecurrenceFrequencyMonthly;
    case ICAL_YEARLY_RECURRENCE: return platform::EKRecurrenceFrequencyYearly;
    case ICAL_HOURLY_RECURRENCE: return platform::EKRecurrenceFrequencyHourly;
    case ICAL_MINUTELY_RECURRENCE: return platform::EKRecurrenceFrequencyMinutely;
    case ICAL_SECONDLY_RECURRENCE: return platform::EKRecurrenceFrequencySecondly;
    default: return platform::EKRecurrenceFrequencyDaily;
  }
}

platform::EKRecurrenceRule::NumberList numbers(std::span<const short> values) {
  if (values.empty()) return std::nullopt;
  std::vector<platform::AnyObject> list;
  list.reserve(values.size());
  for (short value : values) list.emplace_back(platform::NSNumber(static_cast<long long>(value)));
  return list;
}

class VdirRecurrenceRule : public platform::EKRecurrenceRule {
 public:
  VdirRecurrenceRule(std::shared_ptr<const VdirItem> item, const VdirRuleData* rule)
      : item_(std::move(item)), rule_(rule) {}
  std::string calendarIdentifier() const override { return rule_->rscaleName; }
  // Each question is answered from the compact rule in place: a record asks them all, for every
  // occurrence of a series.
  NumberList daysOfTheMonth() const override { return numbers(list(List::monthDay)); }
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>>> daysOfTheWeek() const override {
    const auto byDay = list(List::day);
    if (byDay.empty()) return std::nullopt;
    std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>> days;
    days.reserve(byDay.size());
    for (short day : byDay)
      days.push_back(std::make_shared<VdirRecurrenceDayOfWeek>(
          weekdayFromIcal(icalrecurrencetype_day_day_of_week(day)), icalrecurrencetype_day_position(day)));
    return days;
  }
  NumberList daysOfTheYear() const override { return numbers(list(List::yearDay)); }
  // The weekday, or 0 when the rule does not state WKST.
  std::int64_t firstDayOfTheWeek() const override {
    return rule_->statesWeekStart ? weekdayFromIcal(rule_->rule.weekStart()) : 0;
  }
  platform::EKRecurrenceFrequency frequency() const override { return frequencyFromIcal(rule_->rule.frequency()); }
  std::int64_t interval() const override { return rule_->rule.interval(); }
  NumberList monthsOfTheYear() const override { return numbers(list(List::month)); }
  std::shared_ptr<platform::EKRecurrenceEnd> recurrenceEnd() const override {
    if (rule_->rule.count() > 0) return std::make_shared<VdirRecurrenceEnd>(std::nullopt, rule_->rule.count());
    if (rule_->until) return std::make_shared<VdirRecurrenceEnd>(rule_->until, 0);
    return nullptr;
  }
  NumberList setPositions() const override { return numbers(list(List::setPosition)); }
  NumberList weeksOfTheYear() const override { return numbers(list(List::weekNumber)); }

 private:
  using List = VdirCompactRule::List;
  std::span<const short> list(List which) const { return rule_->rule.list(which); }

  std::shared_ptr<const VdirItem> item_;  // keeps rule_ alive
  const VdirRuleData* rule_;
};

std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarmsOf(const VdirComponentData& data) {
  if (data.details->alarms.empty()) return std::nullopt;
  std::vector<std::shared_ptr<platform::EKAlarm>> alarms;
  for (const auto& alarm : data.details->alarms) alarms.push_back(std::make_shared<VdirAlarm>(alarm));
  return alarms;
}

std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> rulesOf(
    const std::shared_ptr<const VdirItem>& item, const std::vector<VdirRuleData>& read) {
  if (read.empty()) return std::nullopt;
  std::vector<std::shared_ptr<platform::EKRecurrenceRule>> rules;
  for (const auto& rule : read) rules.push_back(std::make_shared<VdirRecurrenceRule>(item, &rule));
  return rules;
}

std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendeesOf(const VdirComponentData& data) {
  if (data.details->attendees.empty()) return std::nullopt;
  std::vector<std::shared_ptr<platform::EKParticipant>> attendees;
  for (const auto& attendee : data.details->attendees) attendees.push_back(std::make_shared<VdirParticipant>(attendee));
  return attendees;
}

std::optional<platform::URL> urlOf(const VdirComponentData& data) {
  if (!data.details->url) return std::nullopt;
  return platform::URL(*data.details->url);
}

std::optional<platform::TimeZone> zoneOf(const VdirComponentData& data) {
  if (!data.details->timeZoneName) return std::nullopt;
  return platform::TimeZone(*data.details->timeZoneName);
}

}  // namespace

std::string VdirSource::description() const { return "<EKSource '" + title_ + "' " + identifier_ + ">"; }
std::string VdirCalendar::description() const {
  return "<EKCalendar '" + fields_.title + "' " + fields_.identifier + ">";
}

std::optional<platform::URL> VdirEvent::URL() const { return set_.read(&VdirSetValues::url, urlOf(data())); }
std::optional<platform::TimeZone> VdirEvent::timeZone() const {
  return set_.read(&VdirSetValues::timeZone, zoneOf(data()));
}
std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> VdirEvent::alarms() const {
  return set_.readOr(&VdirSetValues::alarms, [this] { return alarmsOf(data()); });
}
std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> VdirEvent::attendees() const {
  return attendeesOf(data());
}
std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> VdirEvent::recurrenceRules() const {
  return set_.readOr(&VdirSetValues::rules, [this] { return rulesOf(fields_.item, fields_.series->rules); });
}
std::shared_ptr<platform::EKParticipant> VdirEvent::organizer() const {
  return details().organizer ? std::make_shared<VdirParticipant>(*details().organizer) : nullptr;
}
std::shared_ptr<platform::EKStructuredLocation> VdirEvent::structuredLocation() const {
  const auto& location = details().structuredLocation;
  return location ? std::make_shared<VdirStructuredLocation>(location) : nullptr;
}
std::optional<platform::AnyObject> VdirEvent::valueForKey(const std::string& key) const {
  if (key != "travelTime" || !details().travelTime) return std::nullopt;
  return platform::AnyObject(platform::NSNumber(*details().travelTime));
}
std::string VdirEvent::description() const {
  return "<EKEvent '" + details().summary.value_or("") + "' " + fields_.series->identifier + " " +
         fields_.start.iso8601() + ">";
}

std::optional<platform::URL> VdirReminder::URL() const { return set_.read(&VdirSetValues::url, urlOf(data())); }
std::optional<platform::TimeZone> VdirReminder::timeZone() const {
  return set_.read(&VdirSetValues::timeZone, zoneOf(data()));
}
std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> VdirReminder::alarms() const {
  return set_.readOr(&VdirSetValues::alarms, [this] { return alarmsOf(data()); });
}
std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> VdirReminder::attendees() const {
  return attendeesOf(data());
}
std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> VdirReminder::recurrenceRules() const {
  return set_.readOr(&VdirSetValues::rules, [this] { return rulesOf(item_, task().rules); });
}
std::optional<platform::DateComponents> VdirReminder::dueDateComponents() const {
  return set_.readOr(&VdirSetValues::due, [this]() -> std::optional<platform::DateComponents> {
    if (!task().due) return std::nullopt;
    return dateComponents(*task().due);
  });
}
std::optional<platform::DateComponents> VdirReminder::startDateComponents() const {
  if (!task().start) return std::nullopt;
  return dateComponents(*task().start);
}
std::string VdirReminder::description() const {
  return "<EKReminder '" + details().summary.value_or("") + "' " + task().identifier + ">";
}

std::optional<platform::Date> VdirNewEvent::endDate() const {
  return set_.read(&VdirSetValues::end, std::optional<platform::Date>());
}
bool VdirNewEvent::isAllDay() const { return set_.read(&VdirSetValues::allDay, false); }
std::optional<platform::Date> VdirNewEvent::startDate() const {
  return set_.read(&VdirSetValues::start, std::optional<platform::Date>());
}

std::string VdirNewReminder::description() const {
  return "<EKReminder (new) '" + title().value_or("") + "' " + savedIdentifier().value_or("unsaved") + ">";
}

// Completing keeps the stored completion date of a completed to-do, else takes now.
void VdirReminder::setCompleted(bool completed) {
  const std::optional<platform::Date> date =
      !completed ? std::nullopt : task().isCompleted && task().completed ? task().completed : platform::Date::now();
  set_.assign(&VdirSetValues::completed, completed);
  set_.assign(&VdirSetValues::completionDate, date);
}
void VdirNewReminder::setCompleted(bool completed) {
  set_.assign(&VdirSetValues::completed, completed);
  set_.assign(&VdirSetValues::completionDate,
              completed ? std::optional<platform::Date>(platform::Date::now()) : std::nullopt);
}

}  // namespace vesp::vdir
