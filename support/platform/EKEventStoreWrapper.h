// Forwards every call to a target store, so that a host's double overrides only what it changes
// (a fetch that never completes, a count of queries), as PlatformWrapper does for the platform.
//
// Observers of a wrapper watch the wrapper, while the platform posts its change notifications with
// the target as object. Once forwardChanges(center) is called, each change of the target is posted
// again on `center` with the wrapper as object. A PlatformWrapper that hands out wrapped stores
// calls it with its own defaultCenter().
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/platform/EKEventStore.h"
#include "support/platform/NSNotificationCenter.h"

namespace vesp::platform {

class EKEventStoreWrapper : public EKEventStore {
 public:
  // REQUIRES: target is not null.
  explicit EKEventStoreWrapper(std::shared_ptr<EKEventStore> target);
  const std::shared_ptr<EKEventStore>& target() const { return target_; }

  // The store under every wrapper around `store` (`store` itself when it is not a wrapper).
  static std::shared_ptr<EKEventStore> innermost(std::shared_ptr<EKEventStore> store);

  // Re-posts the target's change notifications on `center` as this wrapper's, for as long as the
  // wrapper lives. REQUIRES: the wrapper is owned by a std::shared_ptr.
  void forwardChanges(const std::shared_ptr<NSNotificationCenter>& center);

  std::vector<std::shared_ptr<EKCalendar>> calendarsForEntityType(EKEntityType entityType) override {
    return target_->calendarsForEntityType(entityType);
  }
  std::shared_ptr<EKPredicate> predicateForEventsWithStartDate(Date startDate, Date endDate,
                                                               const CalendarList& calendars) override {
    return target_->predicateForEventsWithStartDate(startDate, endDate, calendars);
  }
  std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(const std::shared_ptr<EKPredicate>& predicate) override {
    return target_->eventsMatchingPredicate(predicate);
  }
  std::shared_ptr<EKEvent> eventWithIdentifier(const std::string& identifier) override {
    return target_->eventWithIdentifier(identifier);
  }
  std::shared_ptr<EKPredicate> predicateForIncompleteRemindersWithDueDateStarting(
      std::optional<Date> starting, std::optional<Date> ending, const CalendarList& calendars) override {
    return target_->predicateForIncompleteRemindersWithDueDateStarting(starting, ending, calendars);
  }
  std::shared_ptr<EKPredicate> predicateForCompletedRemindersWithCompletionDateStarting(
      std::optional<Date> starting, std::optional<Date> ending, const CalendarList& calendars) override {
    return target_->predicateForCompletedRemindersWithCompletionDateStarting(starting, ending, calendars);
  }
  std::string fetchRemindersMatchingPredicate(const std::shared_ptr<EKPredicate>& predicate,
                                              ReminderFetchCompletion completion) override {
    return target_->fetchRemindersMatchingPredicate(predicate, std::move(completion));
  }
  std::shared_ptr<EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) override {
    return target_->calendarItemWithIdentifier(identifier);
  }
  std::optional<NSError> saveEvent(const std::shared_ptr<EKEvent>& event, EKSpan span) override {
    return target_->saveEvent(event, span);
  }
  std::optional<NSError> removeEvent(const std::shared_ptr<EKEvent>& event, EKSpan span) override {
    return target_->removeEvent(event, span);
  }
  std::optional<NSError> saveReminder(const std::shared_ptr<EKReminder>& reminder) override {
    return target_->saveReminder(reminder);
  }
  std::optional<NSError> removeReminder(const std::shared_ptr<EKReminder>& reminder) override {
    return target_->removeReminder(reminder);
  }
  void requestAccessToEntityType(EKEntityType entityType, AccessCompletion completion) override {
    target_->requestAccessToEntityType(entityType, std::move(completion));
  }
  std::string description() const override;

 private:
  std::shared_ptr<EKEventStore> target_;
};

}  // namespace vesp::platform
