#include "platforms/memory/MemoryEventStore.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "platforms/memory/MemoryScreens.h"

namespace vesp::memory {

using platform::Date;
using platform::EKEntityType;

MemoryWorld::MemoryWorld()
    : center_(std::make_shared<platform::NSNotificationCenter>()), screenLog_(std::make_shared<MemoryScreenLog>()) {}

MemoryWorld::~MemoryWorld() = default;

void MemoryWorld::addSource(std::shared_ptr<MemorySource> source) {
  rivet::RivetMutexLock lock(mutex_);
  sources_.push_back(std::move(source));
}
void MemoryWorld::addCalendar(std::shared_ptr<MemoryCalendar> calendar) {
  rivet::RivetMutexLock lock(mutex_);
  calendars_.push_back(std::move(calendar));
}
void MemoryWorld::addEvent(std::shared_ptr<MemoryEvent> event) {
  rivet::RivetMutexLock lock(mutex_);
  if (std::find(events_.begin(), events_.end(), event) == events_.end()) events_.push_back(std::move(event));
}
void MemoryWorld::addReminder(std::shared_ptr<MemoryReminder> reminder) {
  rivet::RivetMutexLock lock(mutex_);
  if (std::find(reminders_.begin(), reminders_.end(), reminder) == reminders_.end())
    reminders_.push_back(std::move(reminder));
}
bool MemoryWorld::removeEvent(const platform::EKEvent* event) {
  rivet::RivetMutexLock lock(mutex_);
  return std::erase_if(events_, [&](const auto& e) { return e.get() == event; }) > 0;
}
bool MemoryWorld::removeReminder(const platform::EKReminder* reminder) {
  rivet::RivetMutexLock lock(mutex_);
  return std::erase_if(reminders_, [&](const auto& r) { return r.get() == reminder; }) > 0;
}
void MemoryWorld::removeCalendar(const std::string& calendarIdentifier) {
  rivet::RivetMutexLock lock(mutex_);
  std::erase_if(calendars_, [&](const auto& c) { return c->fields().calendarIdentifier == calendarIdentifier; });
}
std::vector<std::shared_ptr<MemorySource>> MemoryWorld::sources() const {
  rivet::RivetMutexLock lock(mutex_);
  return sources_;
}
std::vector<std::shared_ptr<MemoryCalendar>> MemoryWorld::calendars() const {
  rivet::RivetMutexLock lock(mutex_);
  return calendars_;
}
std::vector<std::shared_ptr<MemoryEvent>> MemoryWorld::events() const {
  rivet::RivetMutexLock lock(mutex_);
  return events_;
}
std::vector<std::shared_ptr<MemoryReminder>> MemoryWorld::reminders() const {
  rivet::RivetMutexLock lock(mutex_);
  return reminders_;
}

void MemoryWorld::setAuthorizationStatus(EKEntityType entityType, platform::EKAuthorizationStatus status) {
  rivet::RivetMutexLock lock(mutex_);
  statuses_[entityType] = status;
}
platform::EKAuthorizationStatus MemoryWorld::authorizationStatus(EKEntityType entityType) const {
  rivet::RivetMutexLock lock(mutex_);
  auto found = statuses_.find(entityType);
  return found == statuses_.end() ? platform::EKAuthorizationStatusNotDetermined : found->second;
}

void MemoryWorld::setAccessAnswer(EKEntityType entityType, MemoryAccessAnswer answer) {
  rivet::RivetMutexLock lock(mutex_);
  accessAnswers_[entityType] = std::move(answer);
}
MemoryAccessAnswer MemoryWorld::accessAnswer(EKEntityType entityType) const {
  rivet::RivetMutexLock lock(mutex_);
  auto found = accessAnswers_.find(entityType);
  return found == accessAnswers_.end() ? MemoryAccessAnswer{} : found->second;
}
std::vector<MemoryAccessRequest> MemoryWorld::accessRequests() const {
  rivet::RivetMutexLock lock(mutex_);
  return accessRequests_;
}
std::size_t MemoryWorld::recordAccessRequest(EKEntityType entityType) {
  rivet::RivetMutexLock lock(mutex_);
  accessRequests_.push_back(MemoryAccessRequest{entityType, false});
  return accessRequests_.size() - 1;
}
void MemoryWorld::markAccessRequestAnswered(std::size_t index) {
  rivet::RivetMutexLock lock(mutex_);
  accessRequests_.at(index).answered = true;
}

void MemoryWorld::scriptReminderFetches(std::vector<MemoryFetchScript> scripts) {
  rivet::RivetMutexLock lock(mutex_);
  fetchScripts_.assign(scripts.begin(), scripts.end());
}
void MemoryWorld::setDefaultFetchScript(MemoryFetchScript script) {
  rivet::RivetMutexLock lock(mutex_);
  defaultFetchScript_ = script;
}
std::size_t MemoryWorld::reminderFetchCount() const {
  rivet::RivetMutexLock lock(mutex_);
  return fetchCount_;
}
MemoryFetchScript MemoryWorld::takeFetchScript() {
  rivet::RivetMutexLock lock(mutex_);
  ++fetchCount_;
  if (fetchScripts_.empty()) return defaultFetchScript_;
  MemoryFetchScript script = fetchScripts_.front();
  fetchScripts_.pop_front();
  return script;
}

void MemoryWorld::registerStore(const std::shared_ptr<MemoryEventStore>& store) {
  rivet::RivetMutexLock lock(mutex_);
  std::erase_if(stores_, [](const auto& weak) { return weak.expired(); });
  stores_.push_back(store);
}
std::vector<std::shared_ptr<MemoryEventStore>> MemoryWorld::stores() const {
  rivet::RivetMutexLock lock(mutex_);
  std::vector<std::shared_ptr<MemoryEventStore>> alive;
  for (const auto& weak : stores_)
    if (auto store = weak.lock()) alive.push_back(std::move(store));
  return alive;
}
void MemoryWorld::postStoreChanged() {
  for (const auto& store : stores()) store->postChanged();
}

std::string MemoryWorld::nextIdentifier(const std::string& prefix) {
  rivet::RivetMutexLock lock(mutex_);
  return prefix + "-" + std::to_string(++counters_[prefix]);
}

// The store.

std::shared_ptr<MemoryEventStore> MemoryEventStore::make(std::shared_ptr<MemoryWorld> world) {
  auto store = std::shared_ptr<MemoryEventStore>(new MemoryEventStore(world));
  world->registerStore(store);
  return store;
}

namespace {

bool calendarSelected(const platform::EKEventStore::CalendarList& calendars,
                      const std::shared_ptr<platform::EKCalendar>& calendar) {
  if (!calendars) return true;
  if (!calendar) return false;
  std::string identifier = calendar->calendarIdentifier();
  return std::any_of(calendars->begin(), calendars->end(),
                     [&](const auto& wanted) { return wanted && wanted->calendarIdentifier() == identifier; });
}

bool withinBounds(const std::optional<Date>& date, const std::optional<Date>& starting,
                  const std::optional<Date>& ending) {
  if (!date) return !starting && !ending;
  if (starting && *date < *starting) return false;
  if (ending && !(*date < *ending)) return false;
  return true;
}

}  // namespace

std::optional<Date> memoryDueDate(const platform::DateComponents& c) {
  if (!c.year) return std::nullopt;
  using namespace std::chrono;
  auto ymd = year{static_cast<int>(*c.year)} / month{static_cast<unsigned>(c.month.value_or(1))} /
             day{static_cast<unsigned>(c.day.value_or(1))};
  double days = static_cast<double>(sys_days{ymd}.time_since_epoch().count());
  double seconds = days * 86400.0 + static_cast<double>(c.hour.value_or(0) * 3600 + c.minute.value_or(0) * 60 +
                                                        c.second.value_or(0));
  return Date::fromTimeIntervalSince1970(seconds);
}

std::vector<std::shared_ptr<platform::EKCalendar>> MemoryEventStore::calendarsForEntityType(EKEntityType entityType) {
  std::vector<std::shared_ptr<platform::EKCalendar>> list;
  if (entityType != platform::EKEntityTypeEvent && entityType != platform::EKEntityTypeReminder) return list;
  platform::EKEntityMask bit = entityType == platform::EKEntityTypeEvent ? platform::EKEntityMaskEvent
                                                                          : platform::EKEntityMaskReminder;
  for (const auto& calendar : world_->calendars())
    if (calendar->fields().allowedEntityTypes & bit) list.push_back(calendar);
  return list;
}

std::shared_ptr<platform::EKPredicate> MemoryEventStore::predicateForEventsWithStartDate(Date startDate, Date endDate,
                                                                                       const CalendarList& calendars) {
  return std::make_shared<MemoryEventPredicate>(startDate, endDate, calendars);
}

std::vector<std::shared_ptr<platform::EKEvent>> MemoryEventStore::eventsMatchingPredicate(
    const std::shared_ptr<platform::EKPredicate>& predicate) {
  std::vector<std::shared_ptr<platform::EKEvent>> matches;
  auto query = std::dynamic_pointer_cast<MemoryEventPredicate>(predicate);
  if (!query) return matches;
  std::vector<std::pair<std::optional<Date>, std::shared_ptr<platform::EKEvent>>> found;
  for (const auto& event : world_->events()) {
    auto f = event->fields();
    if (!calendarSelected(query->calendars, f.item.calendar)) continue;
    if (f.startDate && f.endDate) {
      bool overlaps = *f.endDate == *f.startDate
                          ? !(*f.startDate < query->start) && *f.startDate < query->end
                          : *f.startDate < query->end && query->start < *f.endDate;
      if (!overlaps) continue;
    }
    found.emplace_back(f.startDate, event);
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    if (!a.first || !b.first) return !a.first && b.first;
    return *a.first < *b.first;
  });
  for (auto& entry : found) matches.push_back(std::move(entry.second));
  return matches;
}

std::shared_ptr<platform::EKEvent> MemoryEventStore::eventWithIdentifier(const std::string& identifier) {
  std::shared_ptr<MemoryEvent> best;
  std::optional<Date> bestDate;
  for (const auto& event : world_->events()) {
    auto f = event->fields();
    if (f.eventIdentifier != identifier) continue;
    bool better = !best || (f.occurrenceDate && (!bestDate || *f.occurrenceDate < *bestDate));
    if (better) {
      best = event;
      bestDate = f.occurrenceDate;
    }
  }
  return best;
}

std::shared_ptr<platform::EKPredicate> MemoryEventStore::predicateForIncompleteRemindersWithDueDateStarting(
    std::optional<Date> starting, std::optional<Date> ending, const CalendarList& calendars) {
  return std::make_shared<MemoryReminderPredicate>(MemoryReminderPredicate::Kind::incompleteByDueDate, starting,
                                                   ending, calendars);
}

std::shared_ptr<platform::EKPredicate> MemoryEventStore::predicateForCompletedRemindersWithCompletionDateStarting(
    std::optional<Date> starting, std::optional<Date> ending, const CalendarList& calendars) {
  return std::make_shared<MemoryReminderPredicate>(MemoryReminderPredicate::Kind::completedByCompletionDate, starting,
                                                   ending, calendars);
}

std::vector<std::shared_ptr<platform::EKReminder>> MemoryEventStore::remindersMatchingPredicate(
    const std::shared_ptr<platform::EKPredicate>& predicate) const {
  std::vector<std::shared_ptr<platform::EKReminder>> matches;
  auto query = std::dynamic_pointer_cast<MemoryReminderPredicate>(predicate);
  if (!query) return matches;
  for (const auto& reminder : world_->reminders()) {
    auto f = reminder->fields();
    if (!calendarSelected(query->calendars, f.item.calendar)) continue;
    bool selected = query->kind == MemoryReminderPredicate::Kind::incompleteByDueDate
                        ? !f.isCompleted && withinBounds(f.dueDateComponents ? memoryDueDate(*f.dueDateComponents)
                                                                             : std::nullopt,
                                                         query->starting, query->ending)
                        : f.isCompleted && withinBounds(f.completionDate, query->starting, query->ending);
    if (selected) matches.push_back(reminder);
  }
  return matches;
}

std::string MemoryEventStore::fetchRemindersMatchingPredicate(const std::shared_ptr<platform::EKPredicate>& predicate,
                                                              ReminderFetchCompletion completion) {
  std::string identifier = world_->nextIdentifier("memory-fetch");
  MemoryFetchScript script = world_->takeFetchScript();
  std::optional<std::vector<std::shared_ptr<platform::EKReminder>>> answer;
  if (!script.deliversNil && std::dynamic_pointer_cast<MemoryReminderPredicate>(predicate))
    answer = remindersMatchingPredicate(predicate);
  world_->deliveries().deliver(script.delivery, [completion = std::move(completion), answer = std::move(answer)] {
    completion(answer);
  });
  return identifier;
}

std::shared_ptr<platform::EKCalendarItem> MemoryEventStore::calendarItemWithIdentifier(const std::string& identifier) {
  for (const auto& event : world_->events())
    if (event->fields().item.calendarItemIdentifier == identifier) return event;
  for (const auto& reminder : world_->reminders())
    if (reminder->fields().item.calendarItemIdentifier == identifier) return reminder;
  return nullptr;
}

void MemoryEventStore::requestAccessToEntityType(EKEntityType entityType, AccessCompletion completion) {
  std::size_t request = world_->recordAccessRequest(entityType);
  MemoryAccessAnswer answer = world_->accessAnswer(entityType);
  // The task holds the world weakly: a held answer must not keep the world alive.
  std::weak_ptr<MemoryWorld> weakWorld = world_;
  world_->deliveries().deliver(answer.delivery, [weakWorld, entityType, request, answer,
                                                 completion = std::move(completion)] {
    if (auto world = weakWorld.lock()) {
      if (answer.updatesStatus)
        world->setAuthorizationStatus(entityType, answer.granted ? platform::EKAuthorizationStatusAuthorized
                                                                 : platform::EKAuthorizationStatusDenied);
      world->markAccessRequestAnswered(request);
    }
    completion(answer.granted, answer.error);
  });
}

void MemoryEventStore::saveEvent(const std::shared_ptr<MemoryEvent>& event) {
  event->update([&](MemoryEventFields& f) {
    if (!f.eventIdentifier) f.eventIdentifier = world_->nextIdentifier("event");
    if (f.item.calendarItemIdentifier.empty()) f.item.calendarItemIdentifier = world_->nextIdentifier("item");
    if (!f.item.calendarItemExternalIdentifier) f.item.calendarItemExternalIdentifier = *f.eventIdentifier;
    if (!f.occurrenceDate) f.occurrenceDate = f.startDate;
  });
  world_->addEvent(event);
  world_->postStoreChanged();
}

void MemoryEventStore::removeEvent(const std::shared_ptr<platform::EKEvent>& event) {
  if (world_->removeEvent(event.get())) world_->postStoreChanged();
}

namespace {

platform::NSError memoryError(MemoryErrorCode code, std::string description) {
  return platform::NSError(MemoryErrorDomain, static_cast<std::int64_t>(code), std::move(description));
}

// Why the world cannot keep an item with `f` in its calendar, if it cannot.
std::optional<platform::NSError> refusal(const MemoryItemFields& f, const MemoryWorld& world) {
  const auto calendars = world.calendars();
  const bool held = f.calendar && std::any_of(calendars.begin(), calendars.end(), [&](const auto& calendar) {
                      return calendar == f.calendar;
                    });
  if (!held) return memoryError(MemoryErrorCode::noCalendar, "the item has no calendar of this store");
  if (!f.calendar->allowsContentModifications())
    return memoryError(MemoryErrorCode::readOnlyCalendar,
                       "the calendar \"" + f.calendar->title() + "\" does not allow changes");
  return std::nullopt;
}

// A repeat rule set on the item that no calendar could keep.
std::optional<platform::NSError> ruleRefusal(const MemoryItemFields& f) {
  if (f.recurrenceRules)
    for (const auto& rule : *f.recurrenceRules) {
      if (!rule) return memoryError(MemoryErrorCode::invalidChange, "a repeat rule of the item is missing");
      if (auto problem = platform::recurrenceRuleProblem(*rule))
        return memoryError(MemoryErrorCode::invalidChange, *problem);
    }
  return std::nullopt;
}

// The later occurrences of the event `f` is an occurrence of.
std::vector<std::shared_ptr<MemoryEvent>> laterOccurrences(const MemoryEventFields& f, const MemoryWorld& world) {
  std::vector<std::shared_ptr<MemoryEvent>> later;
  if (!f.eventIdentifier || !f.occurrenceDate) return later;
  for (const auto& other : world.events()) {
    const MemoryEventFields o = other->fields();
    if (o.eventIdentifier == f.eventIdentifier && o.occurrenceDate && *f.occurrenceDate < *o.occurrenceDate)
      later.push_back(other);
  }
  return later;
}

}  // namespace

std::optional<platform::NSError> MemoryEventStore::saveEvent(const std::shared_ptr<platform::EKEvent>& event,
                                                             platform::EKSpan span) {
  auto memoryEvent = std::dynamic_pointer_cast<MemoryEvent>(event);
  if (!memoryEvent)
    return memoryError(MemoryErrorCode::invalidChange, "the event was not made by the memory platform");
  const MemoryEventFields f = memoryEvent->fields();
  if (auto refused = refusal(f.item, *world_)) return refused;
  if (auto refused = ruleRefusal(f.item)) return refused;
  if (!f.startDate || !f.endDate)
    return memoryError(MemoryErrorCode::invalidChange, "an event needs a start and an end");
  if (*f.endDate < *f.startDate)
    return memoryError(MemoryErrorCode::endBeforeStart, "the event ends before it starts");
  if (f.availability < platform::EKEventAvailabilityNotSupported || f.availability > platform::EKEventAvailabilityLast)
    return memoryError(MemoryErrorCode::invalidChange,
                       "unknown availability " + std::to_string(f.availability) + " (-1 to 3)");
  if (span == platform::EKSpanFutureEvents)
    for (const auto& later : laterOccurrences(f, *world_))
      later->update([&](MemoryEventFields& o) {
        o.item.title = f.item.title;
        o.item.location = f.item.location;
        o.item.notes = f.item.notes;
        o.item.url = f.item.url;
        o.item.calendar = f.item.calendar;
        o.availability = f.availability;
      });
  saveEvent(memoryEvent);
  return std::nullopt;
}

std::optional<platform::NSError> MemoryEventStore::removeEvent(const std::shared_ptr<platform::EKEvent>& event,
                                                               platform::EKSpan span) {
  auto memoryEvent = std::dynamic_pointer_cast<MemoryEvent>(event);
  const auto events = world_->events();
  if (!memoryEvent || std::find(events.begin(), events.end(), memoryEvent) == events.end())
    return memoryError(MemoryErrorCode::noSuchItem, "the event is not in the store");
  const MemoryEventFields f = memoryEvent->fields();
  if (auto refused = refusal(f.item, *world_)) return refused;
  if (span == platform::EKSpanFutureEvents)
    for (const auto& later : laterOccurrences(f, *world_)) world_->removeEvent(later.get());
  world_->removeEvent(memoryEvent.get());
  world_->postStoreChanged();
  return std::nullopt;
}

std::optional<platform::NSError> MemoryEventStore::saveReminder(const std::shared_ptr<platform::EKReminder>& reminder) {
  auto memoryReminder = std::dynamic_pointer_cast<MemoryReminder>(reminder);
  if (!memoryReminder)
    return memoryError(MemoryErrorCode::invalidChange, "the reminder was not made by the memory platform");
  const MemoryReminderFields f = memoryReminder->fields();
  if (auto refused = refusal(f.item, *world_)) return refused;
  if (!(f.item.calendar->allowedEntityTypes() & platform::EKEntityMaskReminder))
    return memoryError(MemoryErrorCode::noCalendar,
                       "the calendar \"" + f.item.calendar->title() + "\" holds no reminders");
  if (f.priority < 0 || f.priority > 9)
    return memoryError(MemoryErrorCode::invalidChange, "a priority is 0 (none) to 9");
  if (auto refused = ruleRefusal(f.item)) return refused;
  memoryReminder->update([&](MemoryReminderFields& fields) {
    if (fields.item.calendarItemIdentifier.empty())
      fields.item.calendarItemIdentifier = world_->nextIdentifier("reminder");
    if (!fields.item.calendarItemExternalIdentifier)
      fields.item.calendarItemExternalIdentifier = fields.item.calendarItemIdentifier;
  });
  world_->addReminder(memoryReminder);
  world_->postStoreChanged();
  return std::nullopt;
}

std::optional<platform::NSError> MemoryEventStore::removeReminder(
    const std::shared_ptr<platform::EKReminder>& reminder) {
  auto memoryReminder = std::dynamic_pointer_cast<MemoryReminder>(reminder);
  const auto reminders = world_->reminders();
  if (!memoryReminder || std::find(reminders.begin(), reminders.end(), memoryReminder) == reminders.end())
    return memoryError(MemoryErrorCode::noSuchItem, "the reminder is not in the store");
  if (auto refused = refusal(memoryReminder->fields().item, *world_)) return refused;
  world_->removeReminder(memoryReminder.get());
  world_->postStoreChanged();
  return std::nullopt;
}

void MemoryEventStore::postChanged() {
  world_->notificationCenter()->postNotificationName(platform::EKEventStoreChangedNotification,
                                                     std::static_pointer_cast<platform::NSObject>(shared_from_this()));
}

std::string MemoryEventStore::description() const { return "<EKEventStore memory>"; }

}  // namespace vesp::memory
