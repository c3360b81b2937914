#include "Vesp/VespCalendarManager.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <limits>

#include "support/gnom/Gnom.h"
#include "support/rivet/RivetFatal.h"

namespace vesp {

using platform::Date;
using platform::EKEntityType;
using rivet::RivetArgs;
using rivet::RivetError;
using rivet::RivetImpetus;
using rivet::RivetResult;
using rivet::RivetResultVoidSuccess;
using rivet::RivetValue;
using rivet::RivetVia;

namespace {

constexpr const char* kFile = "VespCalendarManager";
constexpr double kReminderWaitSeconds = 5.0;

template <class T>
RivetValue describing(const T& value) {
  return RivetValue::describing(value);
}

template <class T>
RivetValue objectValue(const std::shared_ptr<T>& object) {
  return object ? RivetValue::object(object, object->description()) : RivetValue();
}

// The half-widths of the recurrence-instance search, in seconds, computed once in unsigned 32-bit
// arithmetic where an overflow is fatal.
const std::array<double, 10>& searchHalfWidths() {
  static const std::array<double, 10> table = [] {
    auto add = [](std::uint32_t a, std::uint32_t b) {
      std::uint32_t sum;
      if (__builtin_add_overflow(a, b, &sum)) rivet::fatalError("Overflow computing the recurrence search spans");
      return sum;
    };
    auto multiply = [](std::uint32_t a, std::uint32_t b) {
      std::uint32_t product;
      if (__builtin_mul_overflow(a, b, &product)) rivet::fatalError("Overflow computing the recurrence search spans");
      return product;
    };
    const std::uint32_t day = Gnom::SecondsIn::Gregorian::Day::count;
    const std::uint32_t week = Gnom::SecondsIn::Gregorian::Week::count;
    const std::uint32_t thirtyDays = multiply(30, day);
    std::array<std::uint32_t, 10> spans = {day,           add(day, day),          multiply(3, day),
                                           multiply(4, day), multiply(5, day),    week,
                                           add(week, week), thirtyDays,           add(thirtyDays, thirtyDays),
                                           multiply(365, day)};
    std::array<double, 10> widths{};
    for (std::size_t i = 0; i < spans.size(); ++i) widths[i] = static_cast<double>(spans[i]);
    return widths;
  }();
  return table;
}

}  // namespace

struct VespCalendarManager::Lifeline {
  rivet::RivetMutex mutex;
  std::condition_variable condition;
  bool released RIVET_GUARDED_BY(mutex) = false;
};

// Where the event and reminder paths differ: stores, flags, machines, keys, texts and lines.
struct VespCalendarManager::EntityTwin {
  EKEntityType entityType;
  std::shared_ptr<platform::EKEventStore> VespCalendarManager::*store;
  std::atomic<bool> VespCalendarManager::*observing;
  std::unique_ptr<AuthorisationStateMachine> VespCalendarManager::*machine;
  const char* selector;
  void (VespCalendarManager::*entryPoint)(const platform::Notification&);
  const char* statusKey;
  const char* usageKey;
  const char* usageMessage;
  const char* queryFunction;
  std::uint64_t queryForkLine, queryFailureLine;
  const char* receivedFunction;
  std::uint64_t receivedForkLine, receivedFailureLine;
  std::uint64_t stepForkLine, noChangeLine, deniedLine, notDeterminedLine, usageLine, contactsLine, authorisedLine,
      unknownReportLine, unknownTransitionLine;
  const char* completionImpetusName;
  const char* completionFunction;
  std::uint64_t completionLine;
  const char* changedImpetusName;
  const char* changedFunction;
  std::uint64_t changedLine;
  const char* changedInternalFunction;
  std::uint64_t changedInternalLine;
  void (*publish)(VespCalendarManager& manager, const RivetVia& via);
};

const VespCalendarManager::EntityTwin& VespCalendarManager::twin(EKEntityType entityType) const {
  static const EntityTwin events{
      .entityType = platform::EKEntityTypeEvent,
      .store = &VespCalendarManager::eventStore_,
      .observing = &VespCalendarManager::isObservingEventStore_,
      .machine = &VespCalendarManager::authorisationStateMachineEvents_,
      .selector = "eventStoreChangedWithNotification:",
      .entryPoint = &VespCalendarManager::eventStoreChangedWithNotification,
      .statusKey = "eventAuthorisationStatus",
      .usageKey = "NSCalendarsUsageDescription",
      .usageMessage = "No NSCalendarsUsageDescription key in info.plist",
      .queryFunction = "queryEventAuthorisation(requestIfNotDetermined:via:)",
      .queryForkLine = 820,
      .queryFailureLine = 828,
      .receivedFunction = "received(eventAuthorisationStatus:requestIfNotDetermined:via:)",
      .receivedForkLine = 216,
      .receivedFailureLine = 360,
      .stepForkLine = 228,
      .noChangeLine = 237,
      .deniedLine = 255,
      .notDeterminedLine = 270,
      .usageLine = 285,
      .contactsLine = 299,
      .authorisedLine = 329,
      .unknownReportLine = 341,
      .unknownTransitionLine = 352,
      .completionImpetusName = "Calendar manager event access request completion handler",
      .completionFunction = "requestEventAccessCompletionHandler(granted:error:)",
      .completionLine = 536,
      .changedImpetusName = "calendar manager received 'event store changed' notification",
      .changedFunction = "eventStoreChanged(notification:)",
      .changedLine = 151,
      .changedInternalFunction = "eventStoreChangedInternal(via:)",
      .changedInternalLine = 162,
      .publish = [](VespCalendarManager& manager, const RivetVia& via) {
        manager.eventStoreChangedEventBus_->beginPublish(VespEventStoreChangedEvent{}, via);
      }
  };
  static const EntityTwin reminders{
      .entityType = platform::EKEntityTypeReminder,
      .store = &VespCalendarManager::reminderStore_,
      .observing = &VespCalendarManager::isObservingReminderStore_,
      .machine = &VespCalendarManager::authorisationStateMachineReminders_,
      .selector = "reminderStoreChangedWithNotification:",
      .entryPoint = &VespCalendarManager::reminderStoreChangedWithNotification,
      .statusKey = "reminderAuthorisationStatus",
      .usageKey = "NSRemindersUsageDescription",
      .usageMessage = "No NSRemindersUsageDescription key in info.plist",
      .queryFunction = "queryReminderAuthorisation(requestIfNotDetermined:via:)",
      .queryForkLine = 843,
      .queryFailureLine = 851,
      .receivedFunction = "received(reminderAuthorisationStatus:requestIfNotDetermined:via:)",
      .receivedForkLine = 378,
      .receivedFailureLine = 522,
      .stepForkLine = 390,
      .noChangeLine = 399,
      .deniedLine = 417,
      .notDeterminedLine = 432,
      .usageLine = 447,
      .contactsLine = 461,
      .authorisedLine = 491,
      .unknownReportLine = 503,
      .unknownTransitionLine = 514,
      .completionImpetusName = "Calendar manager reminder access request completion handler",
      .completionFunction = "requestReminderAccessCompletionHandler(granted:error:)",
      .completionLine = 552,
      .changedImpetusName = "calendar manager received 'reminder store changed' notification",
      .changedFunction = "reminderStoreChanged(notification:)",
      .changedLine = 176,
      .changedInternalFunction = "reminderStoreChangedInternal(via:)",
      .changedInternalLine = 187,
      .publish = [](VespCalendarManager& manager, const RivetVia& via) {
        manager.reminderStoreChangedEventBus_->beginPublish(VespReminderStoreChangedEvent{}, via);
      }
  };
  return entityType == platform::EKEntityTypeEvent ? events : reminders;
}

// Construction and identity.

std::shared_ptr<VespCalendarManager> VespCalendarManager::make(std::shared_ptr<rivet::RivetLogging> logger) {
  return make(std::move(logger), platform::Platform::Default());
}

std::shared_ptr<VespCalendarManager> VespCalendarManager::make(std::shared_ptr<rivet::RivetLogging> logger,
                                                               std::shared_ptr<platform::Platform> platform) {
  return std::make_shared<VespCalendarManager>(std::move(logger), std::move(platform));
}

VespCalendarManager::VespCalendarManager(std::shared_ptr<rivet::RivetLogging> logger,
                                         std::shared_ptr<platform::Platform> platform)
    : platform_(platform ? std::move(platform) : platform::Platform::Default()),
      calendarChooser_(nullptr),
      eventStore_(platform_->makeEventStore()),
      eventViewDelegate_(std::make_shared<VespEventViewDelegate>()),
      logger_(logger),
      reminderStore_(platform_->makeEventStore()),
      authorisationStateMachineEvents_(std::make_unique<AuthorisationStateMachine>(
          VespAuthorisationStatus::unknown, logger, nullptr, 60.0)),
      authorisationStateMachineReminders_(std::make_unique<AuthorisationStateMachine>(
          VespAuthorisationStatus::unknown, logger, nullptr, 60.0)),
      eventStoreChangedEventBus_(std::make_unique<rivet::RivetEventBus<VespEventStoreChangedEvent>>(logger)),
      reminderStoreChangedEventBus_(std::make_unique<rivet::RivetEventBus<VespReminderStoreChangedEvent>>(logger)),
      lifeline_(std::make_shared<Lifeline>()) {
  // An aliasing pointer: one made from `this` directly would claim enable_shared_from_this.
  std::shared_ptr<Lifeline> guard(lifeline_.get(), [lifeline = lifeline_](Lifeline*) {
    rivet::RivetMutexLock lock(lifeline->mutex);
    lifeline->released = true;
    lifeline->condition.notify_all();
  });
  anchor_ = std::shared_ptr<VespCalendarManager>(std::move(guard), this);
}

VespCalendarManager::VespCalendarManager() {
  rivet::fatalError("Use of unimplemented initializer 'init()' for class 'VespCalendarManager'");
}

// Observers are not removed: the centre holds them weakly and skips them once the manager is gone.
// A manager that no std::shared_ptr owns first waits for whoever is still running inside it.
VespCalendarManager::~VespCalendarManager() {
  if (!lifeline_) return;
  anchor_.reset();
  rivet::RivetMutexLock lock(lifeline_->mutex);
  while (!lifeline_->released) lock.wait(lifeline_->condition);
}

std::weak_ptr<VespCalendarManager> VespCalendarManager::weakSelf() const {
  if (auto owned = const_cast<VespCalendarManager*>(this)->weak_from_this(); !owned.expired()) return owned;
  return anchor_;
}

std::string VespCalendarManager::identifier() const { return "com.ambrel.vesp.managers.calendar"; }

std::vector<std::shared_ptr<keel::KeelManagerBase>> VespCalendarManager::managersDirectlyDependedUpon() const {
  return {};
}

RivetValue VespCalendarManager::selfValue() const {
  return RivetValue(rivet::RivetObjectReference{"VespCalendarManager", weakSelf()});
}

std::shared_ptr<VespCalendarPicker> VespCalendarManager::calendarChooser() const {
  rivet::RivetMutexLock lock(chooserMutex_);
  return calendarChooser_;
}

// Life cycle.

RivetResult<void> VespCalendarManager::applicationDidBecomeActive(const RivetVia& via) {
  auto junction = via.fork(std::nullopt, std::nullopt, kFile, "applicationDidBecomeActive(via:)", 71);
  if (auto base = KeelManagerBase::applicationDidBecomeActive(*junction); !base)
    return RivetResult<void>(base.error(), RivetArgs{{"self", selfValue()}}, kFile, "applicationDidBecomeActive(via:)",
                             75);
  if (auto events = queryEventAuthorisation(false, *junction); !events)
    return RivetResult<void>(events.error(), RivetArgs{{"self", selfValue()}}, kFile,
                             "applicationDidBecomeActive(via:)", 83);
  if (auto reminders = queryReminderAuthorisation(false, *junction); !reminders)
    return RivetResult<void>(reminders.error(), RivetArgs{{"self", selfValue()}}, kFile,
                             "applicationDidBecomeActive(via:)", 89);
  return RivetResultVoidSuccess;
}

RivetResult<void> VespCalendarManager::applicationDidEnterBackground(const RivetVia& via) {
  auto junction =
      via.fork(RivetArgs{{"self", selfValue()}}, std::nullopt, kFile, "applicationDidEnterBackground(via:)", 96);
  if (auto base = KeelManagerBase::applicationDidEnterBackground(*junction); !base)
    return RivetResult<void>(base.error(), RivetArgs{{"self", selfValue()}}, kFile,
                             "applicationDidEnterBackground(via:)", 100);
  // Only the event store: reminder-store changes are still published in the background.
  stopObserving(twin(platform::EKEntityTypeEvent));
  return RivetResultVoidSuccess;
}

// Authorisation.

RivetResult<void> VespCalendarManager::queryEventAuthorisation(bool requestIfNotDetermined, const RivetVia& via) {
  return queryAuthorisation(twin(platform::EKEntityTypeEvent), requestIfNotDetermined, via);
}

RivetResult<void> VespCalendarManager::queryReminderAuthorisation(bool requestIfNotDetermined, const RivetVia& via) {
  return queryAuthorisation(twin(platform::EKEntityTypeReminder), requestIfNotDetermined, via);
}

RivetResult<void> VespCalendarManager::queryAuthorisation(const EntityTwin& twin, bool requestIfNotDetermined,
                                                          const RivetVia& via) {
  RivetArgs args{{"self", selfValue()}, {"requestIfNotDetermined", requestIfNotDetermined}};
  auto junction = via.fork(args, std::nullopt, kFile, twin.queryFunction, twin.queryForkLine);
  auto status = platform_->authorizationStatusForEntityType(twin.entityType);
  auto result = received(twin, status, requestIfNotDetermined, *junction);
  if (result) return result;
  return RivetResult<void>(result.error(), args, kFile, twin.queryFunction, twin.queryFailureLine);
}

// One step of an authorisation machine: what it was given, and the moves it may make.
struct VespCalendarManager::AuthorisationStep {
  const EntityTwin& twin;
  platform::EKAuthorizationStatus status;
  bool requestIfNotDetermined;
  const VespAuthorisationStatus& current;
  const AuthorisationStateMachine::Transition& transition;
  std::shared_ptr<rivet::RivetJunction> junction;

  RivetArgs args() const { return RivetArgs{{"currentStatus", describing(current)}, {twin.statusKey, status}}; }
  // Moves to `next`; a failure is wrapped with the step's args at `line`.
  RivetResult<void> moveTo(VespAuthorisationStatus next, std::uint64_t line) const {
    auto moved = transition(next, *junction);
    if (moved) return moved;
    return RivetResult<void>(moved.error(), args(), kFile, twin.receivedFunction, line);
  }
};

RivetResult<void> VespCalendarManager::received(const EntityTwin& twin, platform::EKAuthorizationStatus status,
                                                bool requestIfNotDetermined, const RivetVia& via) {
  auto junction = via.fork(RivetArgs{{twin.statusKey, status}, {"requestIfNotDetermined", requestIfNotDetermined}},
                           std::nullopt, kFile, twin.receivedFunction, twin.receivedForkLine);
  // The step holds the manager for as long as it runs.
  auto self = weakSelf().lock();
  auto step = [this, self, &twin, status, requestIfNotDetermined](
                  const VespAuthorisationStatus& current, const AuthorisationStateMachine::Transition& transition,
                  const RivetVia& stepVia) -> RivetResult<void> {
    AuthorisationStep step{twin,       status,     requestIfNotDetermined,
                           current,    transition, stepVia.fork(std::nullopt, std::nullopt, kFile,
                                                                 twin.receivedFunction, twin.stepForkLine)};
    switch (status) {
      case platform::EKAuthorizationStatusNotDetermined: return stepNotDetermined(step, self);
      case platform::EKAuthorizationStatusRestricted:
      case platform::EKAuthorizationStatusDenied: return stepDenied(step);
      case platform::EKAuthorizationStatusAuthorized: return stepAuthorised(step);
      default: return stepUnknown(step);
    }
  };
  auto result = (this->*twin.machine)->begin(*junction, step);
  if (result) return result;
  return RivetResult<void>(
      result.error(),
      RivetArgs{{"self", selfValue()}, {twin.statusKey, status}, {"requestIfNotDetermined", requestIfNotDetermined}},
      kFile, twin.receivedFunction, twin.receivedFailureLine);
}

RivetResult<void> VespCalendarManager::stepNotDetermined(const AuthorisationStep& step,
                                                         const std::shared_ptr<VespCalendarManager>& self) {
  const EntityTwin& twin = step.twin;
  stopObserving(twin);
  if (auto moved = step.moveTo(VespAuthorisationStatus::notDetermined, twin.notDeterminedLine); !moved) return moved;
  if (!step.requestIfNotDetermined) return RivetResultVoidSuccess;
  auto bundle = platform_->mainBundle();
  RivetArgs missingArgs{{"currentStatus", describing(step.current)},
                        {"serialTrail", RivetValue::object(step.junction, step.junction->description())}};
  if (!bundle->objectForInfoDictionaryKey(twin.usageKey))
    return RivetResult<void>(twin.usageMessage, missingArgs, kFile, twin.receivedFunction, twin.usageLine);
  if (!bundle->objectForInfoDictionaryKey("NSContactsUsageDescription"))
    return RivetResult<void>("No NSContactsUsageDescription key in info.plist", missingArgs, kFile,
                             twin.receivedFunction, twin.contactsLine);
  // A shared manager is held until the platform answers; any other is reached only while it is
  // alive, so that its destruction does not wait for the user.
  auto held = ownedByShared() ? self : nullptr;
  (this->*twin.store)->requestAccessToEntityType(
      twin.entityType, [held, weak = weakSelf(), &twin](bool granted, std::optional<platform::NSError> error) {
        if (auto manager = weak.lock()) manager->accessCompletionHandler(twin, granted, error);
      });
  return RivetResultVoidSuccess;
}

RivetResult<void> VespCalendarManager::stepDenied(const AuthorisationStep& step) {
  if (step.current == VespAuthorisationStatus::denied) return step.moveTo(step.current, step.twin.noChangeLine);
  stopObserving(step.twin);
  return step.moveTo(VespAuthorisationStatus::denied, step.twin.deniedLine);
}

RivetResult<void> VespCalendarManager::stepAuthorised(const AuthorisationStep& step) {
  if (step.current == VespAuthorisationStatus::authorised) return step.moveTo(step.current, step.twin.noChangeLine);
  startObserving(step.twin);
  return step.moveTo(VespAuthorisationStatus::authorised, step.twin.authorisedLine);
}

// A status this code does not know: reported, and the state kept.
RivetResult<void> VespCalendarManager::stepUnknown(const AuthorisationStep& step) {
  if (logger_)
    logger_->reportAnomaly(
        RivetError("Unknown CLAuthorizationStatus", step.args(), kFile, step.twin.receivedFunction,
                   step.twin.unknownReportLine),
        *step.junction);
  auto moved = step.transition(step.current, *step.junction);
  if (moved) return moved;
  return RivetResult<void>(moved.error(), std::nullopt, kFile, step.twin.receivedFunction,
                           step.twin.unknownTransitionLine);
}

void VespCalendarManager::accessCompletionHandler(const EntityTwin& twin, bool granted,
                                                  const std::optional<platform::NSError>& error) {
  RivetImpetus impetus(
      twin.completionImpetusName,
      RivetArgs{{"granted", granted}, {"error", error ? describing(*error) : RivetValue()}}, kFile,
      twin.completionFunction, twin.completionLine);
  // The answer itself steers nothing: the platform's status is read afresh.
  auto status = platform_->authorizationStatusForEntityType(twin.entityType);
  auto result = received(twin, status, false, impetus);
  if (!result && logger_) logger_->reportFailure(result.error(), impetus);
}

void VespCalendarManager::startObserving(const EntityTwin& twin) {
  auto store = this->*twin.store;
  platform_->defaultCenter()->addObserver(
      std::weak_ptr<const void>(weakSelf()), twin.selector,
      [this, &twin](const platform::Notification& notification) { (this->*twin.entryPoint)(notification); },
      platform::EKEventStoreChangedNotification, store.get());
  (this->*twin.observing).store(true);
}

void VespCalendarManager::stopObserving(const EntityTwin& twin) {
  if (!(this->*twin.observing).load()) return;
  platform_->defaultCenter()->removeObserver(static_cast<const void*>(this), platform::EKEventStoreChangedNotification,
                                             (this->*twin.store).get());
  (this->*twin.observing).store(false);
}

// Store-change notifications.

void VespCalendarManager::eventStoreChangedWithNotification(const platform::Notification& notification) {
  storeChanged(twin(platform::EKEntityTypeEvent), notification);
}

void VespCalendarManager::reminderStoreChangedWithNotification(const platform::Notification& notification) {
  storeChanged(twin(platform::EKEntityTypeReminder), notification);
}

void VespCalendarManager::storeChanged(const EntityTwin& twin, const platform::Notification& notification) {
  RivetImpetus impetus(twin.changedImpetusName, RivetArgs{{"notification", notification.description()}}, kFile,
                       twin.changedFunction, twin.changedLine);
  auto result = storeChangedInternal(twin, impetus);
  if (!result && logger_) logger_->reportFailure(result.error(), impetus);
}

RivetResult<void> VespCalendarManager::storeChangedInternal(const EntityTwin& twin, const RivetVia& via) {
  auto junction = via.fork(std::nullopt, std::nullopt, kFile, twin.changedInternalFunction, twin.changedInternalLine);
  // The platform's status at this moment decides, not the state machine.
  if (authorised(twin.entityType)) twin.publish(*this, *junction);
  return RivetResultVoidSuccess;
}

// Queries.

bool VespCalendarManager::authorised(EKEntityType entityType) const {
  return platform_->authorizationStatusForEntityType(entityType) == platform::EKAuthorizationStatusAuthorized;
}

platform::EKEventStore::CalendarList VespCalendarManager::calendarList(const VespCalendarQuery& query) {
  if (!query.calendarIdentifiers()) return std::nullopt;
  std::vector<std::shared_ptr<platform::EKCalendar>> selected;
  for (auto& calendar : eventStore_->calendarsForEntityType(platform::EKEntityTypeEvent))
    if (query.calendarIdentifiers()->contains(calendar->calendarIdentifier())) selected.push_back(std::move(calendar));
  return selected;
}

RivetResult<std::vector<VespCalendar>> VespCalendarManager::getAllEventCalendars() {
  if (!authorised(platform::EKEntityTypeEvent))
    return RivetResult<std::vector<VespCalendar>>("Not authorised to query events", RivetArgs{{"self", selfValue()}},
                                                  kFile, "getAllEventCalendars()", 659);
  std::vector<VespCalendar> calendars;
  for (const auto& calendar : eventStore_->calendarsForEntityType(platform::EKEntityTypeEvent))
    calendars.emplace_back(*calendar);
  return calendars;
}

RivetResult<std::vector<VespCalendar>> VespCalendarManager::getAllReminderLists() {
  if (!authorised(platform::EKEntityTypeReminder))
    return RivetResult<std::vector<VespCalendar>>("Not authorised to query reminders",
                                                  RivetArgs{{"self", selfValue()}}, kFile, "getAllReminderLists()", 670);
  std::vector<VespCalendar> calendars;
  for (const auto& calendar : reminderStore_->calendarsForEntityType(platform::EKEntityTypeReminder))
    calendars.emplace_back(*calendar);
  return calendars;
}

RivetResult<std::vector<VespEventInstance>> VespCalendarManager::getEventInstances(Date startDateInc, Date endDateEx,
                                                                                   const VespCalendarQuery& calendars) {
  if (!authorised(platform::EKEntityTypeEvent))
    return RivetResult<std::vector<VespEventInstance>>("Not authorised to query events",
                                                       RivetArgs{{"self", selfValue()}}, kFile,
                                                       "getEventInstances(startDateInc:endDateEx:calendars:)", 699);
  auto predicate = eventStore_->predicateForEventsWithStartDate(startDateInc, endDateEx, calendarList(calendars));
  std::vector<VespEventInstance> instances;
  for (const auto& event : eventStore_->eventsMatchingPredicate(predicate)) instances.emplace_back(*event);
  return instances;
}

RivetResult<std::shared_ptr<platform::EKEvent>> VespCalendarManager::getEventStoreEventInstance(
    const VespEventInstanceIdentifier& eventInstanceIdentifier) {
  using Result = RivetResult<std::shared_ptr<platform::EKEvent>>;
  const char* function = "getEventStoreEventInstance(eventInstanceIdentifier:)";
  auto identifierValue = describing(eventInstanceIdentifier);
  if (!authorised(platform::EKEntityTypeEvent))
    return Result("Not authorised to query events", RivetArgs{{"eventInstanceIdentifier", identifierValue}}, kFile,
                  function, 571);
  const std::string& eventIdentifier = eventInstanceIdentifier.eventIdentifier();
  auto naive = eventStore_->eventWithIdentifier(eventIdentifier);
  if (!naive) return Result("No such event", RivetArgs{{"eventInstanceIdentifier", identifierValue}}, kFile, function, 580);
  if (!eventInstanceIdentifier.originalOccurrenceDate()) return naive;

  // Widening spans around the occurrence date, each limited to the naive event's calendar; the
  // first occurrence with the same identifier and exactly the same occurrence date wins.
  Date occurrenceDate = *eventInstanceIdentifier.originalOccurrenceDate();
  for (double halfWidth : searchHalfWidths()) {
    auto calendar = naive->calendar();
    if (!calendar) rivet::fatalError("Broken platform invariant: the event being searched for has no calendar");
    auto predicate = eventStore_->predicateForEventsWithStartDate(
        occurrenceDate.addingTimeInterval(-halfWidth), occurrenceDate.addingTimeInterval(halfWidth),
        std::vector<std::shared_ptr<platform::EKCalendar>>{calendar});
    for (auto& event : eventStore_->eventsMatchingPredicate(predicate)) {
      auto candidateIdentifier = event->eventIdentifier();
      if (!candidateIdentifier || *candidateIdentifier != eventIdentifier) continue;
      auto candidateDate = event->occurrenceDate();
      if (candidateDate && *candidateDate == occurrenceDate) return event;
    }
  }
  return Result("Cannot find specified recurrence instance",
                RivetArgs{{"eventInstanceIdentifier", identifierValue},
                          {"naiveEventStoreEvent", objectValue(naive)},
                          {"eventIdentifier", eventIdentifier},
                          {"originalOccurrenceDate", describing(occurrenceDate)}},
                kFile, function, 611);
}

RivetResult<VespEventInstance> VespCalendarManager::getEventInstance(
    const VespEventInstanceIdentifier& eventInstanceIdentifier) {
  auto found = getEventStoreEventInstance(eventInstanceIdentifier);
  if (!found)
    return RivetResult<VespEventInstance>(
        found.error(), RivetArgs{{"self", selfValue()}, {"eventInstanceIdentifier", describing(eventInstanceIdentifier)}},
        kFile, "getEventInstance(eventInstanceIdentifier:)", 684);
  return VespEventInstance(*found.value());
}

RivetResult<std::vector<VespReminder>> VespCalendarManager::getReminders(Date startDateInc, Date endDateEx,
                                                                         const VespCalendarQuery& calendars) {
  if (!authorised(platform::EKEntityTypeReminder))
    return RivetResult<std::vector<VespReminder>>("Not authorised to query reminders",
                                                  RivetArgs{{"self", selfValue()}}, kFile,
                                                  "getReminders(startDateInc:endDateEx:calendars:)", 749);
  // A some-query is matched against the event calendars, as it always has been.
  auto list = calendarList(calendars);
  auto incomplete = eventStore_->predicateForIncompleteRemindersWithDueDateStarting(startDateInc, endDateEx, list);
  auto completed = eventStore_->predicateForCompletedRemindersWithCompletionDateStarting(startDateInc, endDateEx, list);

  // Each fetch writes its own cell; a completion arriving after the wait still may, whole.
  struct Cell {
    rivet::RivetMutex mutex;
    std::vector<std::shared_ptr<platform::EKReminder>> reminders RIVET_GUARDED_BY(mutex);
  };
  auto group = platform_->dispatch_group_create();
  auto fetch = [&](const std::shared_ptr<platform::EKPredicate>& predicate) {
    auto cell = std::make_shared<Cell>();
    group->enter();
    (void)reminderStore_->fetchRemindersMatchingPredicate(
        predicate, [cell, group](std::optional<std::vector<std::shared_ptr<platform::EKReminder>>> delivered) {
          {
            rivet::RivetMutexLock lock(cell->mutex);
            cell->reminders = delivered ? std::move(*delivered) : std::vector<std::shared_ptr<platform::EKReminder>>{};
          }
          group->leave();
        });
    return cell;
  };
  auto cellA = fetch(incomplete);
  auto cellB = fetch(completed);
  (void)group->wait(kReminderWaitSeconds);  // a time-out is not reported

  std::vector<std::shared_ptr<platform::EKReminder>> combined;
  for (const auto& cell : {cellA, cellB}) {
    rivet::RivetMutexLock lock(cell->mutex);
    combined.insert(combined.end(), cell->reminders.begin(), cell->reminders.end());
  }
  std::vector<VespReminder> reminders;
  reminders.reserve(combined.size());
  for (const auto& reminder : combined) reminders.emplace_back(*reminder);
  return reminders;
}

RivetResult<std::shared_ptr<platform::EKReminder>> VespCalendarManager::getEventStoreReminder(
    const std::string& calendarItemIdentifier) {
  using Result = RivetResult<std::shared_ptr<platform::EKReminder>>;
  const char* function = "getEventStoreReminder(calendarItemIdentifier:)";
  if (!authorised(platform::EKEntityTypeReminder))
    return Result("Not authorised to query reminders", RivetArgs{{"calendarItemIdentifier", calendarItemIdentifier}},
                  kFile, function, 629);
  auto reminder = std::dynamic_pointer_cast<platform::EKReminder>(
      reminderStore_->calendarItemWithIdentifier(calendarItemIdentifier));
  if (!reminder)
    return Result("No such reminder", RivetArgs{{"calendarItemIdentifier", calendarItemIdentifier}}, kFile, function,
                  638);
  return reminder;
}

RivetResult<VespReminder> VespCalendarManager::getReminder(const std::string& calendarItemIdentifier) {
  auto found = getEventStoreReminder(calendarItemIdentifier);
  if (!found)
    return RivetResult<VespReminder>(
        found.error(), RivetArgs{{"self", selfValue()}, {"calendarItemIdentifier", calendarItemIdentifier}}, kFile,
        "getReminder(calendarItemIdentifier:)", 734);
  return VespReminder(*found.value());
}

// Screens.

RivetResult<void> VespCalendarManager::createCalendarEvent(
    Date startDate, bool isAllDayEvent, const std::optional<std::string>& calendarIdentifier,
    const std::shared_ptr<platform::UIViewController>& presentingViewController) {
  // No authorisation check: the editor is shown whatever the state.
  auto event = platform_->eventWithEventStore(eventStore_);
  event->setStartDate(startDate);
  // One hour, also for all-day events.
  event->setEndDate(startDate.addingTimeInterval(static_cast<double>(Gnom::SecondsIn::Gregorian::Hour::count)));
  event->setAllDay(isAllDayEvent);
  if (calendarIdentifier) {
    std::shared_ptr<platform::EKCalendar> chosen;
    for (auto& calendar : eventStore_->calendarsForEntityType(platform::EKEntityTypeEvent))
      if (calendar->calendarIdentifier() == *calendarIdentifier) {
        chosen = std::move(calendar);
        break;
      }
    event->setCalendar(chosen);
  }
  auto editor = platform_->makeEventEditViewController();
  editor->setEditViewDelegate(eventViewDelegate_);
  editor->setEventStore(eventStore_);
  editor->setEvent(event);
  presentingViewController->presentViewController(editor, true, nullptr);
  return RivetResultVoidSuccess;
}

RivetResult<std::shared_ptr<platform::EKEvent>> VespCalendarManager::eventForScreen(
    const VespEventInstanceIdentifier& eventInstanceIdentifier,
    const std::shared_ptr<platform::UIViewController>& presentingViewController, const char* function,
    std::uint64_t line) {
  auto found = getEventStoreEventInstance(eventInstanceIdentifier);
  if (found) return found;
  return RivetResult<std::shared_ptr<platform::EKEvent>>(
      found.error(),
      RivetArgs{{"self", selfValue()},
                {"eventInstanceIdentifier", describing(eventInstanceIdentifier)},
                {"presentingViewController", objectValue(presentingViewController)}},
      kFile, function, line);
}

RivetResult<void> VespCalendarManager::viewCalendarEvent(
    const VespEventInstanceIdentifier& eventInstanceIdentifier,
    const std::shared_ptr<platform::UIViewController>& presentingViewController) {
  auto found = eventForScreen(eventInstanceIdentifier, presentingViewController,
                              "viewCalendarEvent(eventInstanceIdentifier:presentingViewController:)", 898);
  if (!found) return found.error();
  auto viewer = platform_->makeEventViewController();
  viewer->setEvent(found.value());
  viewer->setDelegate(eventViewDelegate_);
  presentingViewController->presentViewController(platform_->makeNavigationController(viewer), true, nullptr);
  return RivetResultVoidSuccess;
}

RivetResult<void> VespCalendarManager::editCalendarEvent(
    const VespEventInstanceIdentifier& eventInstanceIdentifier,
    const std::shared_ptr<platform::UIViewController>& presentingViewController) {
  auto found = eventForScreen(eventInstanceIdentifier, presentingViewController,
                              "editCalendarEvent(eventInstanceIdentifier:presentingViewController:)", 933);
  if (!found) return found.error();
  auto editor = platform_->makeEventEditViewController();
  editor->setEvent(found.value());
  editor->setEventStore(eventStore_);
  editor->setEditViewDelegate(eventViewDelegate_);
  presentingViewController->presentViewController(editor, true, nullptr);
  return RivetResultVoidSuccess;
}

RivetResult<void> VespCalendarManager::pickEventCalendars(
    const VespCalendarQuery& initiallySelected, VespCalendarPickCallback callback,
    const std::shared_ptr<platform::UIViewController>& presentingViewController) {
  const char* function = "pickEventCalendars(initiallySelected:callback:presentingViewController:)";
  RivetArgs args{{"self", selfValue()},
                 {"initiallySelected", describing(initiallySelected)},
                 {"presentingViewController", objectValue(presentingViewController)}};
  if (!authorised(platform::EKEntityTypeEvent)) return RivetResult<void>("No authorised", args, kFile, function, 965);
  platform::EKCalendarSet selection;
  for (auto& calendar : eventStore_->calendarsForEntityType(platform::EKEntityTypeEvent))
    if (!initiallySelected.calendarIdentifiers() ||
        initiallySelected.calendarIdentifiers()->contains(calendar->calendarIdentifier()))
      selection.insert(std::move(calendar));
  auto picker = std::make_shared<VespCalendarPicker>(std::move(callback), logger_, platform_);
  std::shared_ptr<VespCalendarPicker> replaced;
  {
    rivet::RivetMutexLock lock(chooserMutex_);
    replaced = std::exchange(calendarChooser_, picker);
  }
  replaced.reset();  // the earlier picker goes, whatever its screen is doing
  auto chosen = picker->chooseForEvents(presentingViewController, selection, eventStore_);
  if (chosen) return RivetResultVoidSuccess;
  RivetValue::List selectionValues;
  for (const auto& calendar : selection) selectionValues.push_back(objectValue(calendar));
  args.set("initiallySelectedCalendars", RivetValue(std::move(selectionValues)));
  args.set("newCalendarPicker", objectValue(picker));
  return RivetResult<void>(chosen.error(), args, kFile, function, 993);
}

}  // namespace vesp
