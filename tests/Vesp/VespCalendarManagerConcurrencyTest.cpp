// Many threads using one manager at once: queries, authorisation queries, activation and
// background, store changes and access completions. Run under ThreadSanitizer in CI.
#include <thread>

#include "Vesp/VespCalendarManager.h"
#include "tests/support/ManagerFixture.h"

namespace vesp {
namespace {

using namespace vesp::testing;

class VespCalendarManagerConcurrencyTest : public ManagerFixture {};

TEST_F(VespCalendarManagerConcurrencyTest, EverythingAtOnceRacesNothingAndDeliversEveryEvent) {
  constexpr int iterations = 1500;
  declareUsage(true, true, true);
  authoriseAll();
  auto source = platform->addSource("Local");
  auto work = platform->addCalendar("Work", source);
  auto lists = platform->addCalendar("Lists", source, platform::EKEntityMaskReminder);
  const Date origin(694224000);
  auto series = platform->addEvent(work, "daily", origin, origin.addingTimeInterval(900));
  for (int day = 1; day < 10; ++day) platform->addOccurrence(series, origin.addingTimeInterval(day * 86400.0));
  platform->addReminder(lists, "open");
  activate();

  BusCounter eventsA(manager->eventStoreChangedEventBus()), eventsB(manager->eventStoreChangedEventBus());
  BusCounter remindersA(manager->reminderStoreChangedEventBus()), remindersB(manager->reminderStoreChangedEventBus());
  std::atomic<int> reminderPosts{0};
  std::atomic<int> failedQueries{0};

  std::vector<std::thread> threads;
  threads.emplace_back([&] {  // queries
    for (int i = 0; i < iterations; ++i) {
      (void)manager->getEventInstances(origin, origin.addingTimeInterval(5 * 86400.0), VespCalendarQuery::all());
      (void)manager->getAllEventCalendars();
      (void)manager->getEventInstance(
          VespEventInstanceIdentifier::withOccurrenceDate(*series->eventIdentifier(), origin.addingTimeInterval(86400)));
      if (!manager->getReminders(origin, origin.addingTimeInterval(86400), VespCalendarQuery::all())) ++failedQueries;
    }
  });
  const platform::EKAuthorizationStatus cycle[] = {platform::EKAuthorizationStatusNotDetermined,
                                                   platform::EKAuthorizationStatusDenied,
                                                   platform::EKAuthorizationStatusAuthorized};
  threads.emplace_back([&] {  // event statuses flip; authorisation queries, some asking the user
    for (int i = 0; i < iterations; ++i) {
      platform->setAuthorizationStatus(platform::EKEntityTypeEvent, cycle[i % 3]);
      (void)manager->queryEventAuthorisation(i % 2 == 0, impetus);
      (void)manager->queryReminderAuthorisation(false, impetus);
    }
  });
  threads.emplace_back([&] {  // activation and background
    for (int i = 0; i < iterations; ++i) {
      (void)manager->applicationDidBecomeActive(impetus);
      (void)manager->applicationDidEnterBackground(impetus);
    }
  });
  threads.emplace_back([&] {  // the stores change
    for (int i = 0; i < iterations; ++i) {
      eventStore()->postChanged();
      reminderStore()->postChanged();
      ++reminderPosts;
    }
  });
  for (auto& thread : threads) thread.join();
  platform->waitForDeliveries();

  // Reminders stay authorised and observed throughout: every change is published, and every
  // publication reaches each subscriber once.
  EXPECT_EQ(remindersA.delivered(), reminderPosts.load());
  EXPECT_EQ(remindersB.delivered(), reminderPosts.load());
  EXPECT_EQ(eventsA.delivered(), eventsB.delivered());
  EXPECT_LE(eventsA.delivered(), iterations);
  EXPECT_EQ(failedQueries.load(), 0);
  EXPECT_FALSE(platform->world()->accessRequests().empty());
}

}  // namespace
}  // namespace vesp
