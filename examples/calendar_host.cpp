// A host application's first twenty minutes with Vesp: set up the manager framework with the
// calendar manager on the in-memory platform, become active, ask for access, list calendars,
// print a week of occurrences and the reminders of a period, and watch a store change arrive on a
// bus.
#include <iostream>

#include "Vesp/VespCalendarManager.h"
#include "platforms/memory/MemoryPlatform.h"
#include "support/keel/KeelManagerFramework.h"
#include "support/rivet/RivetJsonLineLogger.h"

using vesp::platform::Date;

namespace {

// The platform a real host would get from its system; here, memory with a little content.
std::shared_ptr<vesp::memory::MemoryPlatform> samplePlatform(Date monday) {
  auto platform = vesp::memory::MemoryPlatform::make();
  platform->setInfoDictionaryValue("NSCalendarsUsageDescription", vesp::platform::AnyObject("Shows your week"));
  platform->setInfoDictionaryValue("NSRemindersUsageDescription", vesp::platform::AnyObject("Shows your to-dos"));
  platform->setInfoDictionaryValue("NSContactsUsageDescription", vesp::platform::AnyObject("Names your attendees"));
  auto source = platform->addSource("On this device");
  auto work = platform->addCalendar("Work", source);
  auto home = platform->addCalendar("Home", source);
  auto lists = platform->addCalendar("Errands", source, vesp::platform::EKEntityMaskReminder);
  auto standup = platform->addEvent(work, "Standup", monday.addingTimeInterval(9 * 3600), monday.addingTimeInterval(9.25 * 3600));
  for (int day = 1; day < 5; ++day) platform->addOccurrence(standup, monday.addingTimeInterval(day * 86400.0 + 9 * 3600));
  platform->addEvent(home, "Dinner with Sam", monday.addingTimeInterval(2 * 86400.0 + 19 * 3600),
                     monday.addingTimeInterval(2 * 86400.0 + 21 * 3600));
  vesp::platform::DateComponents due;
  due.year = 2026;
  due.month = 11;
  due.day = 25;
  platform->addReminder(lists, "Buy milk", due);
  // The user will say yes when asked.
  platform->setAccessAnswer(vesp::platform::EKEntityTypeEvent, {});
  platform->setAccessAnswer(vesp::platform::EKEntityTypeReminder, {});
  return platform;
}

void check(const vesp::rivet::RivetResult<void>& result, const char* what) {
  if (!result) std::cerr << what << " failed:\n" << result.error().description() << "\n";
}

}  // namespace

int main() {
  const Date monday = Date::fromTimeIntervalSince1970(1795392000);  // Monday 2026-11-23 00:00 UTC
  auto memory = samplePlatform(monday);
  vesp::platform::Platform::installDefault(memory);  // what a host does once at start-up

  auto logger = vesp::rivet::RivetJsonLineLogger::toStream(std::cerr);
  auto manager = vesp::VespCalendarManager::make(logger);
  vesp::keel::KeelManagerFramework framework;
  vesp::rivet::RivetImpetus launch("host application launched", std::nullopt, "calendar_host", "main()", 1);
  check(framework.registerManager(manager), "registering the calendar manager");
  check(framework.setUpAll(launch), "set-up");
  check(framework.applicationDidBecomeActive(launch), "activation");
  std::cout << "event access: " << manager->authorisationStateMachineEvents().state() << "\n";

  // Ask the user, then wait for the answer to move the state machine.
  std::mutex mutex;
  std::condition_variable answered;
  int authorised = 0;
  auto onAuthorised = [&](const auto& transition, const vesp::rivet::RivetVia&) {
    if (transition.newState != vesp::VespAuthorisationStatus::authorised) return;
    std::lock_guard lock(mutex);
    ++authorised;
    answered.notify_all();
  };
  // Each subscription lasts as long as its token.
  auto eventAccess = manager->authorisationStateMachineEvents().transitions().subscribe(onAuthorised);
  auto reminderAccess = manager->authorisationStateMachineReminders().transitions().subscribe(onAuthorised);
  check(manager->queryEventAuthorisation(true, launch), "asking for event access");
  check(manager->queryReminderAuthorisation(true, launch), "asking for reminder access");
  {
    std::unique_lock lock(mutex);
    answered.wait(lock, [&] { return authorised == 2; });
  }
  std::cout << "event access: " << manager->authorisationStateMachineEvents().state()
            << ", reminder access: " << manager->authorisationStateMachineReminders().state() << "\n";

  std::cout << "\ncalendars:\n";
  for (const auto& calendar : manager->getAllEventCalendars().value())
    std::cout << "  " << calendar.title() << " (" << calendar.source().title() << ")\n";

  std::cout << "\nthe week of " << monday << ":\n";
  auto week = manager->getEventInstances(monday, monday.addingTimeInterval(7 * 86400.0), vesp::VespCalendarQuery::all());
  for (const auto& event : week.value())
    std::cout << "  " << event.startDate() << "  " << event.title() << "  [" << event.calendar().title() << "]\n";

  std::cout << "\nreminders due this week:\n";
  for (const auto& reminder :
       manager->getReminders(monday, monday.addingTimeInterval(7 * 86400.0), vesp::VespCalendarQuery::all()).value())
    std::cout << "  " << reminder.title() << " (list " << reminder.calendar().title() << ")\n";

  // An occurrence's identifier travels as JSON and finds the same occurrence again.
  auto identifier = week.value().at(1).eventInstanceIdentifier();
  std::string coded = vesp::VespJSONEncoder().encode(identifier);
  auto again = manager->getEventInstance(vesp::VespJSONDecoder().decode<vesp::VespEventInstanceIdentifier>(coded));
  std::cout << "\n" << coded << "\n  -> " << again.value().title() << " at " << again.value().startDate() << "\n";

  // Another application changes the store; subscribers hear of it on the bus's thread.
  std::atomic<int> changes{0};
  auto storeChanges = manager->eventStoreChangedEventBus().subscribe([&](const vesp::VespEventStoreChangedEvent&, const vesp::rivet::RivetVia& via) {
    ++changes;
    std::cout << "\nstore changed, via " << via.provenance().back().name << "\n";
  });
  memory->postStoreChanged();
  manager->eventStoreChangedEventBus().waitUntilDelivered();

  check(framework.applicationDidEnterBackground(launch), "background");
  check(framework.tearDownAll(launch), "tear-down");
  vesp::platform::Platform::installDefault(nullptr);
  return changes == 1 ? 0 : 1;
}
