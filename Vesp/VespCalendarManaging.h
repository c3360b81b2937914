// The calendar manager's whole public surface, in order. Every operation returns a RivetResult
// and never throws. "Authorised" below means the platform reports the entity type authorised at
// the moment of the call; the state machines follow it but do not decide.
//
// Queries may be called from any thread; screens on the main thread. A query that a platform limit
// cut short (a vdir store bounds the occurrences and time of one series and of one query) still
// succeeds, with the occurrences found before the limit: the platform records what it cut short
// among its diagnostics (VdirPlatform::diagnostics(), action "truncated"), never silently.
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

  // The authorisation state of each entity type: unknown until activation or a query moves it.
  // Every transition is published, in order, on its transitions() bus.
  virtual AuthorisationStateMachine& authorisationStateMachineEvents() = 0;
  virtual AuthorisationStateMachine& authorisationStateMachineReminders() = 0;
  // One data-less event per store-change notification that arrives while the entity type is
  // observed (from the move to authorised until access is lost) and authorised. Entering the
  // background ends the observation of events, until their authorisation next changes; reminders
  // stay observed. Delivered on the bus's own thread; a subscription lasts as long as its token.
  virtual rivet::RivetEventBus<VespEventStoreChangedEvent>& eventStoreChangedEventBus() = 0;
  virtual rivet::RivetEventBus<VespReminderStoreChangedEvent>& reminderStoreChangedEventBus() = 0;
  // Every event calendar (reminder list), in the platform's order. Fails with "Not authorised to
  // query events" ("... reminders") unless authorised.
  virtual rivet::RivetResult<std::vector<VespCalendar>> getAllEventCalendars() = 0;
  virtual rivet::RivetResult<std::vector<VespCalendar>> getAllReminderLists() = 0;
  // The occurrence an identifier names: with an occurrence date, the occurrence of that event whose
  // occurrence date is exactly that, looked for in its calendar in widening spans up to a year
  // either side. Fails with "Not authorised to query events", "No such event" or "Cannot find
  // specified recurrence instance".
  virtual rivet::RivetResult<VespEventInstance> getEventInstance(
      const VespEventInstanceIdentifier& eventInstanceIdentifier) = 0;
  // The occurrences that overlap [startDateInc, endDateEx) in the chosen calendars: all, or those
  // event calendars whose identifiers the query lists (unknown identifiers match nothing; an empty
  // list, no calendar). Fails with "Not authorised to query events". See above for limits.
  virtual rivet::RivetResult<std::vector<VespEventInstance>> getEventInstances(platform::Date startDateInc,
                                                                               platform::Date endDateEx,
                                                                               const VespCalendarQuery& calendars) = 0;
  // The reminder with this calendar-item identifier. Fails with "Not authorised to query
  // reminders" or "No such reminder".
  virtual rivet::RivetResult<VespReminder> getReminder(const std::string& calendarItemIdentifier) = 0;
  // Incomplete reminders due in [startDateInc, endDateEx), then completed reminders completed in it.
  // A list query is matched against the event calendars' identifiers. Each of the two fetches is
  // waited for up to five seconds; one that has not answered by then adds nothing, without failure.
  // Fails with "Not authorised to query reminders".
  virtual rivet::RivetResult<std::vector<VespReminder>> getReminders(platform::Date startDateInc,
                                                                     platform::Date endDateEx,
                                                                     const VespCalendarQuery& calendars) = 0;
  // Brings the state machine in line with the platform's status. When the status is not
  // determined and requestIfNotDetermined is set, asks the platform for access: this fails when the
  // information dictionary lacks the type's usage description or NSContactsUsageDescription, and
  // otherwise succeeds at once, the answer moving the machine later (on a platform thread). Fails
  // when called from inside a step of the same machine.
  virtual rivet::RivetResult<void> queryEventAuthorisation(bool requestIfNotDetermined, const rivet::RivetVia& via) = 0;
  virtual rivet::RivetResult<void> queryReminderAuthorisation(bool requestIfNotDetermined,
                                                              const rivet::RivetVia& via) = 0;
  // Presents the platform's edit screen on a new event starting at startDate, one hour long (also
  // when all-day), in the calendar with that identifier (none when it is unknown), whatever the
  // authorisation. Succeeds once presented.
  virtual rivet::RivetResult<void> createCalendarEvent(
      platform::Date startDate, bool isAllDayEvent, const std::optional<std::string>& calendarIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
  // Find the occurrence as getEventInstance does (and fail as it does), then present the view screen
  // (in a navigation container) or the edit screen on it.
  virtual rivet::RivetResult<void> viewCalendarEvent(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
  virtual rivet::RivetResult<void> editCalendarEvent(
      const VespEventInstanceIdentifier& eventInstanceIdentifier,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
  // Presents the calendar chooser with the initially selected calendars (all: every calendar). The
  // callback is called once, with the chosen identifiers, when the user taps Done; never on cancel.
  // A new pick replaces the earlier one, whose Done then reaches no callback. Fails with "No
  // authorised" unless events are authorised.
  virtual rivet::RivetResult<void> pickEventCalendars(
      const VespCalendarQuery& initiallySelected, VespCalendarPickCallback callback,
      const std::shared_ptr<platform::UIViewController>& presentingViewController) = 0;
};

}  // namespace vesp
