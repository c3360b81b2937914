// The library's service object. A host makes one with a logger (and, in tests, a platform),
// registers it with the manager framework and calls its operations; see VespCalendarManaging.
//
// A manager may be owned by a std::shared_ptr (make) or built anywhere else with the public
// constructor: either way it observes the store once authorised. One that no std::shared_ptr owns
// waits, when destroyed, for notification calls and authorisation steps already running inside it;
// it must not be destroyed from inside one of them.
// Thread safety: queries and authorisation queries may be called from any thread; screen
// operations on the main thread. Authorisation steps run on each state machine's serial queue.
#pragma once

#include <atomic>
#include <memory>

#include "Vesp/VespCalendarManaging.h"
#include "Vesp/VespCalendarPicker.h"
#include "Vesp/VespEventViewDelegate.h"
#include "support/keel/KeelManagerBase.h"
#include "support/platform/Platform.h"
#include "support/rivet/RivetLogging.h"
#include "support/rivet/RivetMutex.h"

namespace vesp {

class VespCalendarManager final : public keel::KeelManagerBase,
                                  public VespCalendarManaging,
                                  public std::enable_shared_from_this<VespCalendarManager> {
 public:
  // On the process default platform.
  static std::shared_ptr<VespCalendarManager> make(std::shared_ptr<rivet::RivetLogging> logger);
  static std::shared_ptr<VespCalendarManager> make(std::shared_ptr<rivet::RivetLogging> logger,
                                                   std::shared_ptr<platform::Platform> platform);

  VespCalendarManager(std::shared_ptr<rivet::RivetLogging> logger, std::shared_ptr<platform::Platform> platform);
  // Unusable: stops the process naming init().
  VespCalendarManager();
  ~VespCalendarManager() override;

  // keel::KeelManaging
  std::string identifier() const override;
  std::vector<std::shared_ptr<keel::KeelManagerBase>> managersDirectlyDependedUpon() const override;
  // keel::KeelManagerBase
  rivet::RivetResult<void> applicationDidBecomeActive(const rivet::RivetVia& via) override;
  rivet::RivetResult<void> applicationDidEnterBackground(const rivet::RivetVia& via) override;

  // VespCalendarManaging
  AuthorisationStateMachine& authorisationStateMachineEvents() override { return *authorisationStateMachineEvents_; }
  AuthorisationStateMachine& authorisationStateMachineReminders() override {
    return *authorisationStateMachineReminders_;
  }
  rivet::RivetEventBus<VespEventStoreChangedEvent>& eventStoreChangedEventBus() override {
    return *eventStoreChangedEventBus_;
  }
  rivet::RivetEventBus<VespReminderStoreChangedEvent>& reminderStoreChangedEventBus() override {
    return *reminderStoreChangedEventBus_;
  }
  rivet::RivetResult<std::vector<VespCalendar>> getAllEventCalendars() override;
  rivet::RivetResult<std::vector<VespCalendar>> getAllReminderLists() override;
  rivet::RivetResult<VespEventInstance> getEventInstance(
      const VespEventInstanceIdentifier& eventInstanceIdentifier) override;
  rivet::RivetResult<std::vector<VespEventInstance>> getEventInstances(platform::Date startDateInc,
                                                                       platform::Date endDateEx,
                                                                       const VespCalendarQuery& calendars) override;
  rivet::RivetResult<VespReminder> getReminder(const std::string& calendarItemIdentifier) override;
  rivet::RivetResult<std::vector<VespReminder>> getReminders(platform::Date startDateInc, platform::Date endDateEx,
                                                             const VespCalendarQuery& calendars) override;
  rivet::RivetResult<void> queryEventAuthorisation(bool requestIfNotDetermined, const rivet::RivetVia& via) override;
  rivet::RivetResult<void> queryReminderAuthorisation(bool requestIfNotDetermined, const rivet::RivetVia& via) override;
  rivet::RivetResult<void> createCalendarEvent(
      platform::Date startDate, bool isAllDayEvent, const std::optional<std::string>& calendarIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) override;
  rivet::RivetResult<void> viewCalendarEvent(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) override;
  rivet::RivetResult<void> editCalendarEvent(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) override;
  rivet::RivetResult<void> pickEventCalendars(
      const VespCalendarQuery& initiallySelected, VespCalendarPickCallback callback,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) override;

  // The entry points the notification centre calls for store changes.
  void eventStoreChangedWithNotification(const platform::Notification& notification);
  void reminderStoreChangedWithNotification(const platform::Notification& notification);

  // What tests inspect: the two store connections, the observer flags, the delegate and the
  // latest picker.
  const std::shared_ptr<platform::EKEventStore>& eventStore() const { return eventStore_; }
  const std::shared_ptr<platform::EKEventStore>& reminderStore() const { return reminderStore_; }
  bool isObservingEventStore() const { return isObservingEventStore_.load(); }
  bool isObservingReminderStore() const { return isObservingReminderStore_.load(); }
  const std::shared_ptr<VespEventViewDelegate>& eventViewDelegate() const { return eventViewDelegate_; }
  std::shared_ptr<VespCalendarPicker> calendarChooser() const;

 private:
  struct EntityTwin;  // the values in which the event and reminder paths differ
  struct Lifeline;    // the anchor of a manager that no std::shared_ptr owns

  // A weak reference through which the centre, steps and completions reach the manager: its
  // owner's where a std::shared_ptr owns it, otherwise the lifeline's.
  std::weak_ptr<VespCalendarManager> weakSelf() const;
  bool ownedByShared() const { return !weak_from_this().expired(); }

  rivet::RivetValue selfValue() const;
  rivet::RivetResult<void> queryAuthorisation(const EntityTwin& twin, bool requestIfNotDetermined,
                                              const rivet::RivetVia& via);
  rivet::RivetResult<void> received(const EntityTwin& twin, platform::EKAuthorizationStatus status,
                                    bool requestIfNotDetermined, const rivet::RivetVia& via);
  // The cases of an authorisation step, by the platform's status.
  struct AuthorisationStep;
  rivet::RivetResult<void> stepNotDetermined(const AuthorisationStep& step,
                                             const std::shared_ptr<VespCalendarManager>& self);
  rivet::RivetResult<void> stepDenied(const AuthorisationStep& step);
  rivet::RivetResult<void> stepAuthorised(const AuthorisationStep& step);
  rivet::RivetResult<void> stepUnknown(const AuthorisationStep& step);
  void accessCompletionHandler(const EntityTwin& twin, bool granted, const std::optional<platform::NSError>& error);
  void storeChanged(const EntityTwin& twin, const platform::Notification& notification);
  rivet::RivetResult<void> storeChangedInternal(const EntityTwin& twin, const rivet::RivetVia& via);
  void stopObserving(const EntityTwin& twin);
  void startObserving(const EntityTwin& twin);
  bool authorised(platform::EKEntityType entityType) const;
  platform::EKEventStore::CalendarList calendarList(const VespCalendarQuery& query);
  rivet::RivetResult<std::shared_ptr<platform::EKEvent>> getEventStoreEventInstance(
      const VespEventInstanceIdentifier& eventInstanceIdentifier);
  // The lookup of the view and edit screens, its failure wrapped with the screen's context.
  rivet::RivetResult<std::shared_ptr<platform::EKEvent>> eventForScreen(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController, const char* function,
      std::uint64_t line);
  rivet::RivetResult<std::shared_ptr<platform::EKReminder>> getEventStoreReminder(
      const std::string& calendarItemIdentifier);
  const EntityTwin& twin(platform::EKEntityType entityType) const;

  std::shared_ptr<platform::Platform> platform_;
  mutable rivet::RivetMutex chooserMutex_;
  std::shared_ptr<VespCalendarPicker> calendarChooser_ RIVET_GUARDED_BY(chooserMutex_);
  std::shared_ptr<platform::EKEventStore> eventStore_;
  std::shared_ptr<VespEventViewDelegate> eventViewDelegate_;
  std::atomic<bool> isObservingEventStore_{false};
  std::atomic<bool> isObservingReminderStore_{false};
  std::shared_ptr<rivet::RivetLogging> logger_;
  std::shared_ptr<platform::EKEventStore> reminderStore_;
  std::unique_ptr<AuthorisationStateMachine> authorisationStateMachineEvents_;
  std::unique_ptr<AuthorisationStateMachine> authorisationStateMachineReminders_;
  std::unique_ptr<rivet::RivetEventBus<VespEventStoreChangedEvent>> eventStoreChangedEventBus_;
  std::unique_ptr<rivet::RivetEventBus<VespReminderStoreChangedEvent>> reminderStoreChangedEventBus_;
  std::shared_ptr<VespCalendarManager> anchor_;  // non-owning; handed out only when no std::shared_ptr owns us
  std::shared_ptr<Lifeline> lifeline_;           // signalled when the last copy of anchor_ is gone
};

}  // namespace vesp
