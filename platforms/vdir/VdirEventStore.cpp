#include "platforms/vdir/VdirEventStore.h"

#include <utility>

#include "platforms/vdir/VdirSaves.h"

namespace vesp::vdir {

namespace {

using CalendarSet = std::optional<std::set<std::string>>;

CalendarSet identifiersOf(const platform::EKEventStore::CalendarList& calendars) {
  if (!calendars) return std::nullopt;
  std::set<std::string> identifiers;
  for (const auto& calendar : *calendars)
    if (calendar) identifiers.insert(calendar->calendarIdentifier());
  return identifiers;
}

class VdirEventPredicate : public platform::EKPredicate {
 public:
  VdirEventPredicate(platform::Date start, platform::Date end, CalendarSet calendars)
      : start(start), end(end), calendars(std::move(calendars)) {}
  std::string description() const override {
    return "<EKPredicate events " + start.iso8601() + " to " + end.iso8601() + ">";
  }
  platform::Date start, end;
  CalendarSet calendars;
};

// Open to-dos by due date, completed ones by completion date, cancelled ones (neither open nor
// completed) by due date.
class VdirReminderPredicate : public platform::EKPredicate {
 public:
  enum class Kind { incomplete, completed, cancelled };
  VdirReminderPredicate(Kind kind, std::optional<platform::Date> start, std::optional<platform::Date> end,
                        CalendarSet calendars)
      : kind(kind), start(start), end(end), calendars(std::move(calendars)) {}
  std::string description() const override {
    static constexpr const char* kNames[] = {"incomplete", "completed", "cancelled"};
    return std::string("<EKPredicate ") + kNames[static_cast<int>(kind)] + " reminders>";
  }
  bool accepts(const VdirComponentData& component) const {
    const VdirTodoData& todo = *component.todoData;
    const Kind its = todo.isCompleted ? Kind::completed : todo.isCancelled ? Kind::cancelled : Kind::incomplete;
    if (its != kind) return false;
    if (!start && !end) return true;
    const auto& date = kind == Kind::completed ? todo.completed : todo.dueInstant;
    if (!date) return false;
    return (!start || *date >= *start) && (!end || *date < *end);
  }
  Kind kind;
  std::optional<platform::Date> start, end;
  CalendarSet calendars;
};

// A write through `store`, refused when the store is only read.
template <typename Write>
std::optional<platform::NSError> writeTo(const std::shared_ptr<VdirStore>& store, Write&& write) {
  if (!store) return vdirError(VdirErrorCode::readOnlyCalendar, "this store is only read");
  return std::forward<Write>(write)(*store);
}

}  // namespace

platform::EKAuthorizationStatus VdirServices::authorizationStatus(platform::EKEntityType entityType) const {
  // A source that exists but cannot be read cannot be served at all.
  if (!source->readable()) return platform::EKAuthorizationStatusRestricted;
  return access->status(entityType);
}

std::shared_ptr<VdirEventStore> VdirEventStore::make(std::shared_ptr<VdirServices> services) {
  std::shared_ptr<VdirEventStore> connection(new VdirEventStore(std::move(services)));
  std::weak_ptr<VdirEventStore> weak = connection;
  auto center = connection->services_->center;
  connection->listenerToken_ = connection->services_->source->addChangeListener([weak, center](platform::EKEntityMask) {
    if (auto self = weak.lock()) center->postNotificationName(platform::EKEventStoreChangedNotification, self);
  });
  return connection;
}

VdirEventStore::VdirEventStore(std::shared_ptr<VdirServices> services)
    : services_(std::move(services)), queue_(std::make_unique<rivet::RivetSerialQueue>("vesp.vdir.store")) {}

VdirEventStore::~VdirEventStore() { services_->source->removeChangeListener(listenerToken_); }

std::vector<std::shared_ptr<platform::EKCalendar>> VdirEventStore::calendarsForEntityType(
    platform::EKEntityType entityType) {
  platform::EKEntityMask wanted =
      entityType == platform::EKEntityTypeReminder ? platform::EKEntityMaskReminder : platform::EKEntityMaskEvent;
  if (entityType != platform::EKEntityTypeEvent && entityType != platform::EKEntityTypeReminder) return {};
  std::vector<std::shared_ptr<platform::EKCalendar>> calendars;
  for (const auto& collection : services_->source->snapshot()->collections)
    if (collection.calendar->allowedEntityTypes() & wanted) calendars.push_back(collection.calendar);
  return calendars;
}

std::shared_ptr<platform::EKPredicate> VdirEventStore::predicateForEventsWithStartDate(platform::Date startDate,
                                                                                       platform::Date endDate,
                                                                                       const CalendarList& calendars) {
  return std::make_shared<VdirEventPredicate>(startDate, endDate, identifiersOf(calendars));
}

std::vector<std::shared_ptr<platform::EKEvent>> VdirEventStore::eventsMatchingPredicate(
    const std::shared_ptr<platform::EKPredicate>& predicate) {
  auto events = std::dynamic_pointer_cast<VdirEventPredicate>(predicate);
  if (!events) return {};
  const auto& source = services_->source;
  return source->queries().events(source->snapshot(), events->start, events->end, events->calendars);
}

std::shared_ptr<platform::EKEvent> VdirEventStore::eventWithIdentifier(const std::string& identifier) {
  const auto& source = services_->source;
  return source->queries().firstOccurrence(*source->snapshot(), identifier);
}

std::shared_ptr<platform::EKPredicate> VdirEventStore::predicateForIncompleteRemindersWithDueDateStarting(
    std::optional<platform::Date> starting, std::optional<platform::Date> ending, const CalendarList& calendars) {
  return std::make_shared<VdirReminderPredicate>(VdirReminderPredicate::Kind::incomplete, starting, ending,
                                                 identifiersOf(calendars));
}

std::shared_ptr<platform::EKPredicate> VdirEventStore::predicateForCompletedRemindersWithCompletionDateStarting(
    std::optional<platform::Date> starting, std::optional<platform::Date> ending, const CalendarList& calendars) {
  return std::make_shared<VdirReminderPredicate>(VdirReminderPredicate::Kind::completed, starting, ending,
                                                 identifiersOf(calendars));
}

std::shared_ptr<platform::EKPredicate> VdirEventStore::predicateForCancelledRemindersWithDueDateStarting(
    std::optional<platform::Date> starting, std::optional<platform::Date> ending, const CalendarList& calendars) {
  return std::make_shared<VdirReminderPredicate>(VdirReminderPredicate::Kind::cancelled, starting, ending,
                                                 identifiersOf(calendars));
}

std::string VdirEventStore::fetchRemindersMatchingPredicate(const std::shared_ptr<platform::EKPredicate>& predicate,
                                                            ReminderFetchCompletion completion) {
  std::string identifier;
  {
    rivet::RivetMutexLock lock(mutex_);
    identifier = "fetch-" + std::to_string(nextFetch_++);
  }
  auto reminders = std::dynamic_pointer_cast<VdirReminderPredicate>(predicate);
  queue_->async([reminders, source = services_->source, completion = std::move(completion)] {
    if (!reminders) return completion(std::nullopt);
    completion(VdirQueries::reminders(*source->snapshot(), reminders->calendars,
                                      [&](const VdirComponentData& todo) { return reminders->accepts(todo); }));
  });
  return identifier;
}

std::shared_ptr<platform::EKCalendarItem> VdirEventStore::calendarItemWithIdentifier(const std::string& identifier) {
  const auto& source = services_->source;
  auto snapshot = source->snapshot();
  if (auto reminder = VdirQueries::reminder(*snapshot, identifier)) return reminder;
  return source->queries().firstOccurrence(*snapshot, identifier);
}

std::optional<platform::NSError> VdirEventStore::saveEvent(const std::shared_ptr<platform::EKEvent>& event,
                                                           platform::EKSpan span) {
  return writeTo(services_->store, [&](VdirStore& store) { return vdir::saveEvent(store, event, span); });
}

std::optional<platform::NSError> VdirEventStore::removeEvent(const std::shared_ptr<platform::EKEvent>& event,
                                                             platform::EKSpan span) {
  return writeTo(services_->store, [&](VdirStore& store) { return vdir::removeEvent(store, event, span); });
}

std::optional<platform::NSError> VdirEventStore::saveReminder(const std::shared_ptr<platform::EKReminder>& reminder) {
  return writeTo(services_->store, [&](VdirStore& store) { return vdir::saveReminder(store, reminder); });
}

std::optional<platform::NSError> VdirEventStore::removeReminder(const std::shared_ptr<platform::EKReminder>& reminder) {
  return writeTo(services_->store, [&](VdirStore& store) { return vdir::removeReminder(store, reminder); });
}

void VdirEventStore::requestAccessToEntityType(platform::EKEntityType entityType, AccessCompletion completion) {
  auto services = services_;
  queue_->async([services, entityType, completion = std::move(completion)] {
    auto status = services->authorizationStatus(entityType);
    if (status == platform::EKAuthorizationStatusRestricted)
      return completion(false, vdirError(VdirErrorCode::storeUnreadable, "The calendar store cannot be read"));
    if (status == platform::EKAuthorizationStatusAuthorized) return completion(true, std::nullopt);
    if (status == platform::EKAuthorizationStatusDenied) return completion(false, std::nullopt);
    if (!services->consentHandler)
      return completion(false, vdirError(VdirErrorCode::noConsentHandler, "No consent handler: the user cannot be asked"));
    bool granted = false;
    {
      rivet::RivetMutexLock lock(services->consentMutex);
      // Another connection may have asked while this one waited.
      status = services->access->status(entityType);
      if (status != platform::EKAuthorizationStatusNotDetermined)
        return completion(status == platform::EKAuthorizationStatusAuthorized, std::nullopt);
      const char* key = entityType == platform::EKEntityTypeReminder ? "NSRemindersUsageDescription"
                                                                      : "NSCalendarsUsageDescription";
      std::optional<std::string> usage;
      if (auto value = services->bundle->objectForInfoDictionaryKey(key); value && value->string())
        usage = *value->string();
      granted = services->consentHandler(entityType, usage);
      if (auto recorded = services->access->record(entityType, granted); !recorded)
        return completion(granted, vdirError(VdirErrorCode::consentNotRecorded, recorded.error().message()));
    }
    completion(granted, std::nullopt);
  });
}

std::string VdirEventStore::description() const {
  return "<EKEventStore " + services_->source->description() + ">";
}

}  // namespace vesp::vdir
