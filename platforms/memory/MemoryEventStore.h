// The memory platform's calendar store. Every store made by one MemoryPlatform is a separate
// connection to the same MemoryWorld: what one store holds, all of them hold.
//
// Query rules:
// - An event predicate selects the occurrences that overlap [start, end): start < end of the
//   window and end > start of the window. A zero-length occurrence is the instant of its start,
//   selected when start of the window <= its start < end of the window. An occurrence whose start
//   or end is absent is selected by every window, so that broken occurrences reach the library.
// - An absent calendar list means every calendar; an empty list means none. Calendars are matched
//   by calendarIdentifier, so calendars from any store of the world can be passed. An item
//   without a calendar is selected only when the list is absent.
// - Matching occurrences are returned by start date (absent first), then in the order added.
// - eventWithIdentifier answers the occurrence with the earliest occurrence date among those with
//   that event identifier (the first added on a tie; those without an occurrence date last).
// - An incomplete-reminder predicate selects reminders not completed whose due date lies in
//   [starting, ending), a completed-reminder predicate those completed whose completion date lies
//   there; an absent bound is open. The due date is read from dueDateComponents in UTC (year
//   required; month and day default to 1, the time of day to midnight). A reminder without the
//   date in question is selected only when both bounds are absent.
// - Reminder fetches are evaluated when they are made and delivered as the world's next fetch
//   script says (see MemoryWorld::scriptReminderFetches).
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/memory/MemoryDelivery.h"
#include "platforms/memory/MemoryObjects.h"
#include "support/platform/EKEventStore.h"
#include "support/platform/NSNotificationCenter.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::memory {

class MemoryScreenLog;

// How the scripted user answers an access request.
struct MemoryAccessAnswer {
  bool granted = true;
  std::optional<platform::NSError> error;
  MemoryDelivery delivery = MemoryDelivery::immediately();
  // Whether answering also sets the entity type's status (authorised when granted, else denied),
  // as the platform does.
  bool updatesStatus = true;
};

// How one reminder fetch completes.
struct MemoryFetchScript {
  MemoryDelivery delivery = MemoryDelivery::immediately();
  bool deliversNil = false;  // the completion receives none instead of the reminders
};

// One access request, as the world recorded it.
struct MemoryAccessRequest {
  platform::EKEntityType entityType;
  bool answered;
};

class MemoryEventStore;

// The memory platform's errors when saving or removing; the codes mean what the vdir platform's
// codes of the same number mean.
inline const std::string MemoryErrorDomain = "VespMemoryErrorDomain";
enum class MemoryErrorCode : std::int64_t {
  readOnlyCalendar = 10,  // the calendar does not allow content modifications
  noCalendar = 11,        // the event has no calendar, or one this world does not hold
  endBeforeStart = 12,
  noSuchItem = 17,     // the event is not in the world
  invalidChange = 18,  // any other change the world cannot take (an event of another platform, no start)
};

// The state that every store, screen and service of one memory platform shares.
class MemoryWorld {
 public:
  MemoryWorld();
  ~MemoryWorld();

  // Contents.
  void addSource(std::shared_ptr<MemorySource> source);
  void addCalendar(std::shared_ptr<MemoryCalendar> calendar);
  void addEvent(std::shared_ptr<MemoryEvent> event);
  void addReminder(std::shared_ptr<MemoryReminder> reminder);
  bool removeEvent(const platform::EKEvent* event);
  bool removeReminder(const platform::EKReminder* reminder);
  void removeCalendar(const std::string& calendarIdentifier);
  std::vector<std::shared_ptr<MemorySource>> sources() const;
  std::vector<std::shared_ptr<MemoryCalendar>> calendars() const;
  std::vector<std::shared_ptr<MemoryEvent>> events() const;
  std::vector<std::shared_ptr<MemoryReminder>> reminders() const;

  // Authorisation statuses per entity type; not determined (0) until set.
  void setAuthorizationStatus(platform::EKEntityType entityType, platform::EKAuthorizationStatus status);
  platform::EKAuthorizationStatus authorizationStatus(platform::EKEntityType entityType) const;

  // The scripted user: how access requests for an entity type are answered.
  void setAccessAnswer(platform::EKEntityType entityType, MemoryAccessAnswer answer);
  std::vector<MemoryAccessRequest> accessRequests() const;

  // Scripts for the next reminder fetches, used one per fetch in order; when they run out, the
  // default script applies.
  void scriptReminderFetches(std::vector<MemoryFetchScript> scripts);
  void setDefaultFetchScript(MemoryFetchScript script);
  std::size_t reminderFetchCount() const;

  // The thread on which completions arrive.
  MemoryDeliveryThread& deliveries() { return deliveries_; }
  const std::shared_ptr<platform::NSNotificationCenter>& notificationCenter() const { return center_; }
  const std::shared_ptr<MemoryScreenLog>& screenLog() const { return screenLog_; }

  // Stores made so far that are still alive, in the order they were made.
  std::vector<std::shared_ptr<MemoryEventStore>> stores() const;
  // Posts EKEventStoreChangedNotification once for every live store, with that store as object.
  void postStoreChanged();

  // A fresh identifier text with the given prefix ("event-1", "event-2", ...).
  std::string nextIdentifier(const std::string& prefix);

 private:
  friend class MemoryEventStore;
  void registerStore(const std::shared_ptr<MemoryEventStore>& store);
  MemoryAccessAnswer accessAnswer(platform::EKEntityType entityType) const;
  std::size_t recordAccessRequest(platform::EKEntityType entityType);
  void markAccessRequestAnswered(std::size_t index);
  MemoryFetchScript takeFetchScript();

  mutable rivet::RivetMutex mutex_;
  std::vector<std::shared_ptr<MemorySource>> sources_ RIVET_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<MemoryCalendar>> calendars_ RIVET_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<MemoryEvent>> events_ RIVET_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<MemoryReminder>> reminders_ RIVET_GUARDED_BY(mutex_);
  std::map<platform::EKEntityType, platform::EKAuthorizationStatus> statuses_ RIVET_GUARDED_BY(mutex_);
  std::map<platform::EKEntityType, MemoryAccessAnswer> accessAnswers_ RIVET_GUARDED_BY(mutex_);
  std::vector<MemoryAccessRequest> accessRequests_ RIVET_GUARDED_BY(mutex_);
  std::deque<MemoryFetchScript> fetchScripts_ RIVET_GUARDED_BY(mutex_);
  MemoryFetchScript defaultFetchScript_ RIVET_GUARDED_BY(mutex_);
  std::size_t fetchCount_ RIVET_GUARDED_BY(mutex_) = 0;
  std::vector<std::weak_ptr<MemoryEventStore>> stores_ RIVET_GUARDED_BY(mutex_);
  std::map<std::string, std::uint64_t> counters_ RIVET_GUARDED_BY(mutex_);
  std::shared_ptr<platform::NSNotificationCenter> center_;
  std::shared_ptr<MemoryScreenLog> screenLog_;
  MemoryDeliveryThread deliveries_;  // last: destroyed first, before what its tasks may touch
};

class MemoryEventPredicate final : public platform::EKPredicate {
 public:
  MemoryEventPredicate(platform::Date start, platform::Date end, platform::EKEventStore::CalendarList calendars)
      : start(start), end(end), calendars(std::move(calendars)) {}
  platform::Date start;
  platform::Date end;
  platform::EKEventStore::CalendarList calendars;
};

class MemoryReminderPredicate final : public platform::EKPredicate {
 public:
  enum class Kind { incompleteByDueDate, completedByCompletionDate };
  MemoryReminderPredicate(Kind kind, std::optional<platform::Date> starting, std::optional<platform::Date> ending,
                          platform::EKEventStore::CalendarList calendars)
      : kind(kind), starting(starting), ending(ending), calendars(std::move(calendars)) {}
  Kind kind;
  std::optional<platform::Date> starting;
  std::optional<platform::Date> ending;
  platform::EKEventStore::CalendarList calendars;
};

class MemoryEventStore final : public platform::EKEventStore {
 public:
  // Made by MemoryPlatform::makeEventStore.
  static std::shared_ptr<MemoryEventStore> make(std::shared_ptr<MemoryWorld> world);

  std::vector<std::shared_ptr<platform::EKCalendar>> calendarsForEntityType(platform::EKEntityType entityType) override;
  std::shared_ptr<platform::EKPredicate> predicateForEventsWithStartDate(platform::Date startDate,
                                                                         platform::Date endDate,
                                                                         const CalendarList& calendars) override;
  std::vector<std::shared_ptr<platform::EKEvent>> eventsMatchingPredicate(
      const std::shared_ptr<platform::EKPredicate>& predicate) override;
  std::shared_ptr<platform::EKEvent> eventWithIdentifier(const std::string& identifier) override;
  std::shared_ptr<platform::EKPredicate> predicateForIncompleteRemindersWithDueDateStarting(
      std::optional<platform::Date> starting, std::optional<platform::Date> ending,
      const CalendarList& calendars) override;
  std::shared_ptr<platform::EKPredicate> predicateForCompletedRemindersWithCompletionDateStarting(
      std::optional<platform::Date> starting, std::optional<platform::Date> ending,
      const CalendarList& calendars) override;
  std::string fetchRemindersMatchingPredicate(const std::shared_ptr<platform::EKPredicate>& predicate,
                                              ReminderFetchCompletion completion) override;
  std::shared_ptr<platform::EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) override;
  void requestAccessToEntityType(platform::EKEntityType entityType, AccessCompletion completion) override;
  std::string description() const override;

  // The world's events are its own objects, so what a host sets on one is what every store reads
  // at once; a save checks it (a calendar that takes changes, a start and an end in order, an
  // availability of -1 to 3), keeps the event, and posts the store-changed notification on every
  // store. With EKSpanFutureEvents, the title, location, notes, URL, calendar and availability also
  // go to the later occurrences of its event (the world keeps occurrences, not rules). A refused
  // save posts nothing.
  std::optional<platform::NSError> saveEvent(const std::shared_ptr<platform::EKEvent>& event,
                                             platform::EKSpan span) override;
  // Removes the occurrence (with EKSpanFutureEvents also the later ones of its event).
  std::optional<platform::NSError> removeEvent(const std::shared_ptr<platform::EKEvent>& event,
                                               platform::EKSpan span) override;

  // Reminders likewise: the calendar must hold reminders and take changes, the priority be 0 to 9.
  // For both, every repeat rule set must be one RFC 5545 allows (recurrenceRuleProblem).
  std::optional<platform::NSError> saveReminder(const std::shared_ptr<platform::EKReminder>& reminder) override;
  std::optional<platform::NSError> removeReminder(const std::shared_ptr<platform::EKReminder>& reminder) override;

  // Writes a new or changed event to the world (giving a new one its identifiers and, if absent,
  // its occurrence date) and posts the store-changed notification on every store, unchecked.
  void saveEvent(const std::shared_ptr<MemoryEvent>& event);
  // Removes an event from the world and posts the store-changed notification on every store.
  void removeEvent(const std::shared_ptr<platform::EKEvent>& event);
  // Posts EKEventStoreChangedNotification with this store as object.
  void postChanged();

  // The reminders a predicate selects, at once.
  std::vector<std::shared_ptr<platform::EKReminder>> remindersMatchingPredicate(
      const std::shared_ptr<platform::EKPredicate>& predicate) const;

  const std::shared_ptr<MemoryWorld>& world() const { return world_; }

 private:
  explicit MemoryEventStore(std::shared_ptr<MemoryWorld> world) : world_(std::move(world)) {}
  std::shared_ptr<MemoryWorld> world_;
};

// The due date that dueDateComponents stand for, read in UTC; none without a year.
std::optional<platform::Date> memoryDueDate(const platform::DateComponents& components);

}  // namespace vesp::memory
