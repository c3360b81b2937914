// The calendar manager's whole public surface, in order. Every operation returns a RivetResult
// and never throws.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Vesp/VespAuthorisationStatus.h"
#include "Vesp/VespCalendar.h"
#include "Vesp/VespCalendarQuery.h"
#include "Vesp/VespEventInstance.h"
#include "Vesp/VespEventInstanceIdentifier.h"
#include "Vesp/VespEventStoreChangedEvent.h"
#include "Vesp/VespReminder.h"
#include "Vesp/VespReminderStoreChangedEvent.h"
#include "support/keel/KeelManaging.h"
#include "support/platform/Date.h"
#include "support/platform/Screens.h"
#include "support/rivet/RivetEventBus.h"
#include "support/rivet/RivetResult.h"
#include "support/rivet/RivetStateMachine.h"

namespace vesp {

// What a calendar pick hands back: the chosen calendars' identifiers and the pick's provenance.
using VespCalendarPickCallback =
    std::function<rivet::RivetResult<void>(const std::set<std::string>& calendarIdentifiers, const rivet::RivetVia& via)>;

class VespCalendarManaging : public virtual keel::KeelManaging {
 public:
  using AuthorisationStateMachine = rivet::RivetStateMachine<VespAuthorisationStatus>;

  virtual AuthorisationStateMachine& authorisationStateMachineEvents() = 0;
  virtual AuthorisationStateMachine& authorisationStateMachineReminders() = 0;
  virtual rivet::RivetEventBus<VespEventStoreChangedEvent>& eventStoreChangedEventBus() = 0;
  virtual rivet::RivetEventBus<VespReminderStoreChangedEvent>& reminderStoreChangedEventBus() = 0;
  virtual rivet::RivetResult<std::vector<VespCalendar>> getAllEventCalendars() = 0;
  virtual rivet::RivetResult<std::vector<VespCalendar>> getAllReminderLists() = 0;
  virtual rivet::RivetResult<VespEventInstance> getEventInstance(
      const VespEventInstanceIdentifier& eventInstanceIdentifier) = 0;
  virtual rivet::RivetResult<std::vector<VespEventInstance>> getEventInstances(platform::Date startDateInc,
                                                                               platform::Date endDateEx,
                                                                               const VespCalendarQuery& calendars) = 0;
  virtual rivet::RivetResult<VespReminder> getReminder(const std::string& calendarItemIdentifier) = 0;
  virtual rivet::RivetResult<std::vector<VespReminder>> getReminders(platform::Date startDateInc,
                                                                     platform::Date endDateEx,
                                                                     const VespCalendarQuery& calendars) = 0;
  virtual rivet::RivetResult<void> queryEventAuthorisation(bool requestIfNotDetermined, const rivet::RivetVia& via) = 0;
  virtual rivet::RivetResult<void> queryReminderAuthorisation(bool requestIfNotDetermined,
                                                              const rivet::RivetVia& via) = 0;
  virtual rivet::RivetResult<void> createCalendarEvent(
      platform::Date startDate, bool isAllDayEvent, const std::optional<std::string>& calendarIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
  virtual rivet::RivetResult<void> viewCalendarEvent(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
  virtual rivet::RivetResult<void> editCalendarEvent(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
  virtual rivet::RivetResult<void> pickEventCalendars(
      const VespCalendarQuery& initiallySelected, VespCalendarPickCallback callback,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
};

}  // namespace vesp
