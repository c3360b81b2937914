// A platform event that forwards every read to another one, so that a test overrides just the
// reads it changes (an attribute that is there at its first read and gone at its second, say).
#pragma once

#include <memory>

#include "support/platform/EKEvent.h"

namespace vesp::testing {

class ForwardingEvent : public platform::EKEvent {
 public:
  explicit ForwardingEvent(std::shared_ptr<platform::EKEvent> target) : target_(std::move(target)) {}

  std::shared_ptr<platform::EKCalendar> calendar() const override { return target_->calendar(); }
  std::string calendarItemIdentifier() const override { return target_->calendarItemIdentifier(); }
  std::optional<std::string> calendarItemExternalIdentifier() const override {
    return target_->calendarItemExternalIdentifier();
  }
  std::optional<platform::Date> creationDate() const override { return target_->creationDate(); }
  std::optional<platform::Date> lastModifiedDate() const override { return target_->lastModifiedDate(); }
  std::optional<std::string> location() const override { return target_->location(); }
  std::optional<std::string> notes() const override { return target_->notes(); }
  std::optional<platform::URL> URL() const override { return target_->URL(); }
  std::optional<platform::TimeZone> timeZone() const override { return target_->timeZone(); }
  std::optional<std::string> title() const override { return target_->title(); }
  std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms() const override { return target_->alarms(); }
  std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendees() const override {
    return target_->attendees();
  }
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> recurrenceRules() const override {
    return target_->recurrenceRules();
  }
  platform::EKEventAvailability availability() const override { return target_->availability(); }
  std::optional<std::string> birthdayContactIdentifier() const override { return target_->birthdayContactIdentifier(); }
  std::optional<platform::Date> endDate() const override { return target_->endDate(); }
  std::optional<std::string> eventIdentifier() const override { return target_->eventIdentifier(); }
  std::optional<platform::Date> occurrenceDate() const override { return target_->occurrenceDate(); }
  bool isAllDay() const override { return target_->isAllDay(); }
  bool isDetached() const override { return target_->isDetached(); }
  std::shared_ptr<platform::EKParticipant> organizer() const override { return target_->organizer(); }
  std::optional<platform::Date> startDate() const override { return target_->startDate(); }
  platform::EKEventStatus status() const override { return target_->status(); }
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation() const override {
    return target_->structuredLocation();
  }
  std::optional<platform::AnyObject> valueForKey(const std::string& key) const override {
    return target_->valueForKey(key);
  }
  void setTitle(std::optional<std::string> title) override { target_->setTitle(std::move(title)); }
  void setLocation(std::optional<std::string> location) override { target_->setLocation(std::move(location)); }
  void setNotes(std::optional<std::string> notes) override { target_->setNotes(std::move(notes)); }
  void setURL(std::optional<platform::URL> url) override { target_->setURL(std::move(url)); }
  void setTimeZone(std::optional<platform::TimeZone> timeZone) override { target_->setTimeZone(std::move(timeZone)); }
  void setStartDate(platform::Date startDate) override { target_->setStartDate(startDate); }
  void setEndDate(platform::Date endDate) override { target_->setEndDate(endDate); }
  void setAllDay(bool allDay) override { target_->setAllDay(allDay); }
  void setAvailability(platform::EKEventAvailability availability) override {
    target_->setAvailability(availability);
  }
  void setCalendar(std::shared_ptr<platform::EKCalendar> calendar) override { target_->setCalendar(std::move(calendar)); }
  void setAlarms(std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms) override {
    target_->setAlarms(std::move(alarms));
  }
  void setRecurrenceRules(std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> rules) override {
    target_->setRecurrenceRules(std::move(rules));
  }

 private:
  std::shared_ptr<platform::EKEvent> target_;
};

}  // namespace vesp::testing
