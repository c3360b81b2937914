// A connection to an iCalendar-backed store (the platform's EKEventStore), over any source of
// snapshots (the vdir platform's is its directory store). Connections of one platform share the
// source's data; each posts its own store-changed notification, with itself as object, after
// each burst of changes. Access-request and reminder-fetch completions run on the connection's
// own thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platforms/vdir/VdirAccess.h"
#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirSnapshotSource.h"
#include "support/platform/EKEventStore.h"
#include "support/platform/NSBundle.h"
#include "support/platform/NSNotificationCenter.h"
#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetSerialQueue.h"

namespace vesp::vdir {

class VdirStore;

// What the connections of one platform share.
struct VdirServices {
  std::shared_ptr<VdirSnapshotSource> source;
  std::shared_ptr<VdirStore> store;  // what saves write to (the source itself); null: nothing is saved
  std::shared_ptr<VdirAccess> access;
  std::shared_ptr<platform::NSNotificationCenter> center;
  std::shared_ptr<platform::NSBundle> bundle;
  VdirConsentHandler consentHandler;
  rivet::RivetMutex consentMutex;  // one question at a time

  // The authorisation status: restricted when the store root exists but cannot be read.
  platform::EKAuthorizationStatus authorizationStatus(platform::EKEntityType entityType) const;
};

class VdirEventStore : public platform::EKEventStore {
 public:
  static std::shared_ptr<VdirEventStore> make(std::shared_ptr<VdirServices> services);
  ~VdirEventStore() override;

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
  // To-dos with STATUS:CANCELLED (and not completed), which neither predicate above selects, by due
  // date; fetched like them.
  std::shared_ptr<platform::EKPredicate> predicateForCancelledRemindersWithDueDateStarting(
      std::optional<platform::Date> starting, std::optional<platform::Date> ending, const CalendarList& calendars);
  std::string fetchRemindersMatchingPredicate(const std::shared_ptr<platform::EKPredicate>& predicate,
                                              ReminderFetchCompletion completion) override;
  std::shared_ptr<platform::EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) override;
  // Saves and removals write the directory store (VdirSaves.h); errors are VdirErrorDomain's.
  std::optional<platform::NSError> saveEvent(const std::shared_ptr<platform::EKEvent>& event,
                                             platform::EKSpan span) override;
  std::optional<platform::NSError> removeEvent(const std::shared_ptr<platform::EKEvent>& event,
                                               platform::EKSpan span) override;
  std::optional<platform::NSError> saveReminder(const std::shared_ptr<platform::EKReminder>& reminder) override;
  std::optional<platform::NSError> removeReminder(const std::shared_ptr<platform::EKReminder>& reminder) override;
  void requestAccessToEntityType(platform::EKEntityType entityType, AccessCompletion completion) override;
  std::string description() const override;

 private:
  explicit VdirEventStore(std::shared_ptr<VdirServices> services);
  std::shared_ptr<VdirServices> services_;
  std::uint64_t listenerToken_ = 0;
  std::unique_ptr<rivet::RivetSerialQueue> queue_;
  rivet::RivetMutex mutex_;
  std::uint64_t nextFetch_ RIVET_GUARDED_BY(mutex_) = 1;
};

}  // namespace vesp::vdir
