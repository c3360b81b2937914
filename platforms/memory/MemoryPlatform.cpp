#include "platforms/memory/MemoryPlatform.h"

namespace vesp::memory {

using platform::Date;

std::shared_ptr<MemoryPlatform> MemoryPlatform::make() { return std::make_shared<MemoryPlatform>(); }

MemoryPlatform::MemoryPlatform()
    : world_(std::make_shared<MemoryWorld>()), bundle_(std::make_shared<platform::NSBundle>()) {}

MemoryPlatform::~MemoryPlatform() = default;

std::shared_ptr<platform::EKEventStore> MemoryPlatform::makeEventStore() { return MemoryEventStore::make(world_); }

platform::EKAuthorizationStatus MemoryPlatform::authorizationStatusForEntityType(platform::EKEntityType entityType) {
  return world_->authorizationStatus(entityType);
}

std::shared_ptr<platform::EKEvent> MemoryPlatform::eventWithEventStore(
    const std::shared_ptr<platform::EKEventStore>&) {
  MemoryEventFields fields;
  fields.item.creationDate = Date::now();
  return std::make_shared<MemoryEvent>(std::move(fields));
}

std::shared_ptr<platform::EKReminder> MemoryPlatform::reminderWithEventStore(
    const std::shared_ptr<platform::EKEventStore>&) {
  MemoryReminderFields fields;
  fields.item.creationDate = Date::now();
  return std::make_shared<MemoryReminder>(std::move(fields));
}

std::shared_ptr<platform::NSNotificationCenter> MemoryPlatform::defaultCenter() {
  return world_->notificationCenter();
}

std::shared_ptr<platform::NSBundle> MemoryPlatform::mainBundle() { return bundle_; }

std::shared_ptr<platform::EKEventViewController> MemoryPlatform::makeEventViewController() {
  return std::make_shared<MemoryEventViewController>(world_->screenLog(), world_);
}

std::shared_ptr<platform::EKEventEditViewController> MemoryPlatform::makeEventEditViewController() {
  return std::make_shared<MemoryEventEditViewController>(world_->screenLog());
}

std::shared_ptr<platform::UINavigationController> MemoryPlatform::makeNavigationController(
    std::shared_ptr<platform::UIViewController> rootViewController) {
  return MemoryNavigationController::make(world_->screenLog(), std::move(rootViewController));
}

std::shared_ptr<platform::EKCalendarChooser> MemoryPlatform::makeCalendarChooser(
    platform::EKCalendarChooserSelectionStyle selectionStyle, platform::EKCalendarChooserDisplayStyle displayStyle,
    platform::EKEntityType entityType, std::shared_ptr<platform::EKEventStore> eventStore) {
  return std::make_shared<MemoryCalendarChooser>(world_->screenLog(), selectionStyle, displayStyle, entityType,
                                                 std::move(eventStore));
}

std::shared_ptr<MemorySource> MemoryPlatform::addSource(std::string title, platform::EKSourceType sourceType) {
  auto source = std::make_shared<MemorySource>(
      MemorySourceFields{world_->nextIdentifier("source"), sourceType, std::move(title)});
  world_->addSource(source);
  return source;
}

std::shared_ptr<MemoryCalendar> MemoryPlatform::addCalendar(std::string title, std::shared_ptr<MemorySource> source,
                                                            platform::EKEntityMask allowedEntityTypes) {
  MemoryCalendarFields fields;
  fields.allowedEntityTypes = allowedEntityTypes;
  fields.calendarIdentifier = world_->nextIdentifier("calendar");
  fields.color = platform::CGColorCreate(0.2, 0.4, 0.8);
  fields.source = std::move(source);
  fields.supportedEventAvailabilities =
      platform::EKCalendarEventAvailabilityBusy | platform::EKCalendarEventAvailabilityFree;
  fields.title = std::move(title);
  auto calendar = std::make_shared<MemoryCalendar>(std::move(fields));
  world_->addCalendar(calendar);
  return calendar;
}

std::shared_ptr<MemoryEvent> MemoryPlatform::addEvent(std::shared_ptr<MemoryCalendar> calendar, std::string title,
                                                      Date startDate, Date endDate) {
  MemoryEventFields fields;
  std::string eventIdentifier = world_->nextIdentifier("event");
  fields.item.calendar = std::move(calendar);
  fields.item.calendarItemIdentifier = world_->nextIdentifier("item");
  fields.item.calendarItemExternalIdentifier = eventIdentifier + "@memory";
  fields.item.creationDate = startDate.addingTimeInterval(-86400.0);
  fields.item.title = std::move(title);
  fields.endDate = endDate;
  fields.eventIdentifier = eventIdentifier;
  fields.occurrenceDate = startDate;
  fields.startDate = startDate;
  return addEvent(std::move(fields));
}

std::shared_ptr<MemoryEvent> MemoryPlatform::addOccurrence(const std::shared_ptr<MemoryEvent>& series,
                                                           Date occurrenceDate, std::optional<Date> startDate) {
  MemoryEventFields fields = series->fields();
  double length = fields.startDate && fields.endDate ? fields.endDate->timeIntervalSince(*fields.startDate) : 0.0;
  Date start = startDate.value_or(occurrenceDate);
  fields.occurrenceDate = occurrenceDate;
  fields.startDate = start;
  fields.endDate = start.addingTimeInterval(length);
  fields.isDetached = startDate.has_value() && *startDate != occurrenceDate;
  return addEvent(std::move(fields));
}

std::shared_ptr<MemoryEvent> MemoryPlatform::addEvent(MemoryEventFields fields) {
  auto event = std::make_shared<MemoryEvent>(std::move(fields));
  world_->addEvent(event);
  return event;
}

std::shared_ptr<MemoryReminder> MemoryPlatform::addReminder(std::shared_ptr<MemoryCalendar> calendar,
                                                            std::string title,
                                                            std::optional<platform::DateComponents> dueDateComponents) {
  MemoryReminderFields fields;
  fields.item.calendar = std::move(calendar);
  fields.item.calendarItemIdentifier = world_->nextIdentifier("item");
  fields.item.calendarItemExternalIdentifier = world_->nextIdentifier("reminder") + "@memory";
  fields.item.title = std::move(title);
  fields.dueDateComponents = std::move(dueDateComponents);
  return addReminder(std::move(fields));
}

std::shared_ptr<MemoryReminder> MemoryPlatform::addReminder(MemoryReminderFields fields) {
  auto reminder = std::make_shared<MemoryReminder>(std::move(fields));
  world_->addReminder(reminder);
  return reminder;
}

void MemoryPlatform::setAuthorizationStatus(platform::EKEntityType entityType, platform::EKAuthorizationStatus status) {
  world_->setAuthorizationStatus(entityType, status);
}

void MemoryPlatform::setAccessAnswer(platform::EKEntityType entityType, MemoryAccessAnswer answer) {
  world_->setAccessAnswer(entityType, std::move(answer));
}

void MemoryPlatform::setInfoDictionaryValue(const std::string& key, std::optional<platform::AnyObject> value) {
  bundle_->setObjectForInfoDictionaryKey(key, std::move(value));
}

std::shared_ptr<MemoryHostViewController> MemoryPlatform::makeHostViewController() {
  return std::make_shared<MemoryHostViewController>(world_->screenLog());
}

}  // namespace vesp::memory
