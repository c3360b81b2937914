// The vdir store: its layout rules, bad data, watching, reminders, access, and that it never
// writes to the tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>

#include "Vesp/VespEventInstance.h"
#include "Vesp/VespReminder.h"
#include "platforms/vdir/VdirEventStore.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirPlatform.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using platform::Date;
using testing::simpleEvent;
using testing::TemporaryDirectory;
using testing::testData;
using testing::utc;
using testing::writeFile;
namespace fs = std::filesystem;

// Counts the store-changed notifications posted for one connection. The count lives in shared
// state, so a notification still being delivered while the counter goes away finds it alive.
class ChangeCounter {
 public:
  ChangeCounter(const std::shared_ptr<platform::NSNotificationCenter>& center,
                const std::shared_ptr<platform::EKEventStore>& store)
      : state_(std::make_shared<State>()) {
    center->addObserver(state_, "storeChanged:", [state = state_](const platform::Notification&) {
      std::lock_guard lock(state->mutex);
      ++state->count;
      state->changed.notify_all();
    }, platform::EKEventStoreChangedNotification, store.get());
  }
  int count() {
    std::lock_guard lock(state_->mutex);
    return state_->count;
  }
  bool waitFor(int count, std::chrono::milliseconds limit) {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, limit, [&] { return state_->count >= count; });
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
  };
  std::shared_ptr<State> state_;
};

std::vector<std::string> identifiers(const std::vector<std::shared_ptr<platform::EKCalendar>>& calendars) {
  std::vector<std::string> result;
  for (const auto& calendar : calendars) result.push_back(calendar->calendarIdentifier());
  return result;
}

const std::string kTodo =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:t\r\nSUMMARY:Todo\r\n"
    "END:VTODO\r\nEND:VCALENDAR\r\n";

TEST(VdirStoreTest, AccountsAreSourcesAndCollectionsAreCalendarsByWhatTheyHold) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "work/meetings/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "work/meetings/displayname", "Meetings\n");
  writeFile(root.path() / "work/tasks/t.ics", kTodo);
  writeFile(root.path() / "work/mixed/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "work/mixed/t.ics", kTodo);
  fs::create_directories(root.path() / "work/empty");
  writeFile(root.path() / "local/color", "#FF0000");
  writeFile(root.path() / ".hidden/x/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto store = platform->makeEventStore();
  EXPECT_THAT(identifiers(store->calendarsForEntityType(platform::EKEntityTypeEvent)),
              ::testing::ElementsAre("local", "work/empty", "work/meetings", "work/mixed"));
  EXPECT_THAT(identifiers(store->calendarsForEntityType(platform::EKEntityTypeReminder)),
              ::testing::ElementsAre("work/mixed", "work/tasks"));
  auto calendars = store->calendarsForEntityType(platform::EKEntityTypeEvent);
  EXPECT_EQ(calendars[0]->source()->sourceIdentifier(), ".");
  EXPECT_EQ(calendars[0]->source()->title(), root.path().filename().string());
  EXPECT_EQ(calendars[0]->CGColor()->red(), 1.0);
  EXPECT_EQ(calendars[2]->title(), "Meetings");
  EXPECT_EQ(calendars[1]->title(), "empty");  // no displayname: the directory's name
  EXPECT_EQ(calendars[2]->source()->sourceIdentifier(), "work");
  EXPECT_EQ(calendars[2]->source()->sourceType(), 2);
  EXPECT_EQ(calendars[2]->type(), 1);
  // A store hands out the same calendar object for the same calendar.
  EXPECT_EQ(store->calendarsForEntityType(platform::EKEntityTypeEvent)[2], calendars[2]);
}

TEST(VdirStoreTest, ACollectionWithoutColourGetsAStableDefaultAndABadColourIsReported) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "a/x.ics", simpleEvent("x", "X", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "b/color", "red");
  auto first = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto second = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto a1 = first->makeEventStore()->calendarsForEntityType(platform::EKEntityTypeEvent)[0];
  auto a2 = second->makeEventStore()->calendarsForEntityType(platform::EKEntityTypeEvent)[0];
  ASSERT_NE(a1->CGColor(), nullptr);
  EXPECT_TRUE(platform::CGColorEqualToColor(a1->CGColor(), a2->CGColor()));
  auto b = first->makeEventStore()->calendarsForEntityType(platform::EKEntityTypeEvent)[1];
  EXPECT_NE(b->CGColor(), nullptr);
  EXPECT_THAT(first->diagnostics(),
              ::testing::Contains(::testing::Field(&VdirDiagnostic::path, "b/color")));
}

TEST(VdirStoreTest, BrokenFilesAreReportedAndEverythingElseIsServed) {
  TemporaryDirectory config;
  auto platform = VdirPlatform::make(testing::platformOptions(testData("broken"), config.path() / "access.json"));
  std::set<std::string> titles;
  for (const auto& event : platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt))
    titles.insert(*event->title());
  EXPECT_THAT(titles, ::testing::ElementsAre("No end", "bad-rrule", "bad-weekday", "good", "huge-line", "unknown-zone"));
  std::set<std::string> reported;
  for (const auto& diagnostic : platform->diagnostics()) reported.insert(diagnostic.path);
  for (const char* file : {"bad-date.ics", "bad-rrule.ics", "bad-weekday.ics", "binary.ics", "empty.ics",
                           "huge-line.ics", "missing-end.ics", "no-dtstart.ics", "not-calendar.ics", "truncated.ics",
                           "unknown-zone.ics"})
    EXPECT_TRUE(reported.count(std::string("cal/") + file)) << file;
  EXPECT_FALSE(reported.count("cal/good.ics"));
}

TEST(VdirStoreTest, AnEventWithoutSummaryOrUidIsRepairedAndReported) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/bare.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nDTSTART:20260310T090000Z\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto event = platform->store()->firstOccurrence("c/bare.ics");
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->title(), "");
  EXPECT_EQ(event->calendarItemExternalIdentifier(), "bare.ics");
  EXPECT_EQ(event->endDate(), event->startDate());
  EXPECT_EQ(platform->diagnostics().size(), 2u);
}

TEST(VdirStoreTest, AFileWithSeveralEventsAndToDosServesThemAllUnderTheirOwnIdentifiers) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/export.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n"
            "BEGIN:VEVENT\r\nUID:one\r\nSUMMARY:One\r\nDTSTART:20260310T090000Z\r\nEND:VEVENT\r\n"
            "BEGIN:VEVENT\r\nUID:two\r\nSUMMARY:Two\r\nDTSTART:20260310T100000Z\r\nEND:VEVENT\r\n"
            "BEGIN:VTODO\r\nUID:three\r\nSUMMARY:Three\r\nEND:VTODO\r\n"
            "BEGIN:VEVENT\r\nUID:two\r\nSUMMARY:Two again\r\nDTSTART:20260310T110000Z\r\nEND:VEVENT\r\n"
            "END:VCALENDAR\r\n");
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0]->eventIdentifier(), "c/export.ics");
  EXPECT_EQ(events[1]->eventIdentifier(), "c/export.ics#two");
  EXPECT_EQ(platform->store()->firstOccurrence("c/export.ics#two")->title(), "Two");
  ASSERT_NE(platform->store()->reminder("c/export.ics#three"), nullptr);
  EXPECT_EQ(platform->store()->reminder("c/export.ics#three")->title(), "Three");
  // The repeated master of "two" cannot be served beside the first, and says so.
  ASSERT_EQ(platform->diagnostics().size(), 1u);
  EXPECT_THAT(platform->diagnostics()[0].problem, ::testing::HasSubstr("only the first is served"));
  auto calendar = platform->makeEventStore()->calendarsForEntityType(platform::EKEntityTypeReminder);
  EXPECT_EQ(calendar.size(), 1u);  // a collection holding both kinds is also a reminder list
}

TEST(VdirStoreTest, BytesThatAreNotUtf8AreReplacedAndNamesAreEscapedInIdentifiers) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "caf\xE9/100%.ics", simpleEvent("u\xFF", "Caf\xE9 \xF0\x9F\x8E\x82", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "caf\xE9/displayname", "Bistro \xC3");
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->title(), "Caf\xEF\xBF\xBD \xF0\x9F\x8E\x82");  // the valid emoji stays
  EXPECT_EQ(events[0]->calendarItemExternalIdentifier(), "u\xEF\xBF\xBD");
  EXPECT_EQ(events[0]->eventIdentifier(), "caf%E9/100%25.ics");
  EXPECT_EQ(events[0]->calendar()->calendarIdentifier(), "caf%E9");
  EXPECT_EQ(events[0]->calendar()->title(), "Bistro \xEF\xBF\xBD");
  EXPECT_NE(platform->store()->firstOccurrence("caf%E9/100%25.ics"), nullptr);
  EXPECT_THAT(platform->diagnostics(), ::testing::Contains(::testing::Field(&VdirDiagnostic::path, "caf%E9/100%25.ics")));
}

TEST(VdirStoreTest, TheSameUidInTwoCollectionsGivesTwoIdentifiers) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "a/same.ics", simpleEvent("same", "One", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "b/same.ics", simpleEvent("same", "Two", "20260310T090000Z", "20260310T100000Z"));
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_NE(events[0]->eventIdentifier(), events[1]->eventIdentifier());
  EXPECT_EQ(events[0]->calendarItemExternalIdentifier(), events[1]->calendarItemExternalIdentifier());
}

TEST(VdirStoreTest, FilesOutsideCollectionsLinksOutOfTheRootAndHugeFilesAreSkippedAndReported) {
  TemporaryDirectory root, outside, config;
  writeFile(root.path() / "stray.ics", simpleEvent("s", "Stray", "20260310T090000Z", "20260310T100000Z"));
  writeFile(outside.path() / "secret.ics", simpleEvent("x", "Secret", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "c/ok.ics", simpleEvent("ok", "Ok", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "c/big.ics", simpleEvent("big", "Big", "20260310T090000Z", "20260310T100000Z",
                                                    "DESCRIPTION:" + std::string(5000, 'x') + "\r\n"));
  fs::create_symlink(outside.path() / "secret.ics", root.path() / "c/link.ics");
  auto options = testing::platformOptions(root.path(), config.path() / "access.json");
  options.store.maximumFileSize = 4096;
  auto platform = VdirPlatform::make(options);
  auto events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->title(), "Ok");
  std::set<std::string> reported;
  for (const auto& diagnostic : platform->diagnostics()) reported.insert(diagnostic.path);
  EXPECT_THAT(reported, ::testing::ElementsAre("c/big.ics", "c/link.ics", "stray.ics"));
}

TEST(VdirStoreTest, ARescanRereadsOnlyTheFilesThatChanged) {
  TemporaryDirectory root, config;
  for (int i = 0; i < 10; ++i)
    writeFile(root.path() / "c" / (std::to_string(i) + ".ics"),
              simpleEvent(std::to_string(i), "E" + std::to_string(i), "20260310T090000Z", "20260310T100000Z"));
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  EXPECT_EQ(platform->store()->parseCount(), 10u);
  EXPECT_FALSE(platform->store()->refresh());
  EXPECT_EQ(platform->store()->parseCount(), 10u);
  // Same size, same second: the change is still seen (nanoseconds, change time and inode count).
  writeFile(root.path() / "c/3.ics", simpleEvent("3", "F3", "20260310T090000Z", "20260310T100000Z"));
  fs::remove(root.path() / "c/4.ics");
  fs::rename(root.path() / "c/5.ics", root.path() / "c/renamed.ics");
  EXPECT_TRUE(platform->store()->refresh());
  EXPECT_EQ(platform->store()->parseCount(), 12u);  // the changed file and the renamed one
  std::set<std::string> titles;
  for (const auto& event : platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt))
    titles.insert(*event->title());
  EXPECT_EQ(titles.size(), 9u);
  EXPECT_TRUE(titles.count("F3"));
  EXPECT_FALSE(titles.count("E4"));
  EXPECT_NE(platform->store()->firstOccurrence("c/renamed.ics"), nullptr);
  EXPECT_EQ(platform->store()->firstOccurrence("c/5.ics"), nullptr);
}

TEST(VdirStoreTest, AWatchedChangeReachesEveryConnectionWithinASecond) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "Before", "20260310T090000Z", "20260310T100000Z"));
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json", true));
  auto first = platform->makeEventStore();
  auto second = platform->makeEventStore();
  ChangeCounter firstCount(platform->defaultCenter(), first), secondCount(platform->defaultCenter(), second);
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "After", "20260310T090000Z", "20260310T100000Z"));
  ASSERT_TRUE(firstCount.waitFor(1, std::chrono::milliseconds(1000)));
  ASSERT_TRUE(secondCount.waitFor(1, std::chrono::milliseconds(1000)));
  auto events = first->eventsMatchingPredicate(first->predicateForEventsWithStartDate(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->title(), "After");
}

TEST(VdirStoreTest, ABurstOfWritesBecomesFewNotificationsAndTheFinalStateIsServed) {
  TemporaryDirectory root, config;
  fs::create_directories(root.path() / "c");
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json", true));
  auto store = platform->makeEventStore();
  ChangeCounter counter(platform->defaultCenter(), store);
  for (int i = 0; i < 500; ++i)
    writeFile(root.path() / "c" / (std::to_string(i % 250) + ".ics"),
              simpleEvent(std::to_string(i % 250), "Write " + std::to_string(i), "20260310T090000Z", "20260310T100000Z"));
  ASSERT_TRUE(counter.waitFor(1, std::chrono::milliseconds(2000)));
  // Let the last burst settle: the store converges on the last write of every file.
  for (int attempt = 0; attempt < 50; ++attempt) {
    auto events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
    std::size_t last = 0;
    for (const auto& event : events)
      if (event->title()->rfind("Write 2", 0) == 0 || event->title()->rfind("Write 3", 0) == 0 ||
          event->title()->rfind("Write 4", 0) == 0)
        ++last;
    if (events.size() == 250 && last == 250) break;
    counter.waitFor(counter.count() + 1, std::chrono::milliseconds(200));
  }
  auto events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
  ASSERT_EQ(events.size(), 250u);
  for (const auto& event : events) {
    int written = std::stoi(event->title()->substr(6));
    EXPECT_GE(written, 250) << *event->title();
  }
  EXPECT_LT(counter.count(), 50);
}

TEST(VdirStoreTest, TheStoreRootRemovedAndRecreatedIsServedAgain) {
  TemporaryDirectory parent, config;
  fs::path root = parent.path() / "store";
  writeFile(root / "c/a.ics", simpleEvent("a", "First", "20260310T090000Z", "20260310T100000Z"));
  auto platform = VdirPlatform::make(testing::platformOptions(root, config.path() / "access.json", true));
  auto store = platform->makeEventStore();
  ChangeCounter counter(platform->defaultCenter(), store);
  fs::remove_all(root);
  ASSERT_TRUE(counter.waitFor(1, std::chrono::milliseconds(2000)));
  EXPECT_TRUE(platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt).empty());
  writeFile(root / "c/a.ics", simpleEvent("a", "Second", "20260310T090000Z", "20260310T100000Z"));
  // The root is looked for again every second; each rescan that finds more posts again.
  std::vector<std::shared_ptr<platform::EKEvent>> events;
  for (int notification = 2; notification < 10 && events.empty(); ++notification) {
    if (!counter.waitFor(notification, std::chrono::milliseconds(4000))) break;
    events = platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt);
  }
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->title(), "Second");
}

TEST(VdirStoreTest, TheStoreRootMovedAwayAndReplacedIsServedFromItsPath) {
  TemporaryDirectory parent, config;
  const fs::path root = parent.path() / "store", moved = parent.path() / "store.old", copy = parent.path() / "copy";
  writeFile(root / "c/a.ics", simpleEvent("a", "First", "20260310T090000Z", "20260310T100000Z"));
  fs::copy(root, copy, fs::copy_options::recursive);
  auto platform = VdirPlatform::make(testing::platformOptions(root, config.path() / "access.json", true));
  auto titles = [&] {
    std::vector<std::string> seen;
    for (const auto& event : platform->store()->events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt))
      seen.push_back(*event->title());
    return seen;
  };
  fs::rename(root, moved);
  fs::copy(copy, root, fs::copy_options::recursive);
  // Once the rescans the move caused are over, the directory moved away is written, then the new one.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  writeFile(moved / "c/a.ics", simpleEvent("a", "Moved away", "20260310T090000Z", "20260310T100000Z"));
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_THAT(titles(), ::testing::ElementsAre("First"));
  writeFile(root / "c/a.ics", simpleEvent("a", "Second", "20260310T090000Z", "20260310T100000Z"));
  for (int i = 0; i < 50 && titles() != std::vector<std::string>{"Second"}; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_THAT(titles(), ::testing::ElementsAre("Second"));
}

// The sorted titles of the reminders `predicate` selects, fetched (on a platform thread) from `store`.
std::vector<std::string> fetchedTitles(platform::EKEventStore& store,
                                       const std::shared_ptr<platform::EKPredicate>& predicate) {
  std::mutex mutex;
  std::condition_variable done;
  std::optional<std::vector<std::string>> titles;
  std::thread::id thread;
  store.fetchRemindersMatchingPredicate(predicate, [&](auto reminders) {
    std::lock_guard lock(mutex);
    titles.emplace();
    for (const auto& reminder : *reminders) titles->push_back(*reminder->title());
    thread = std::this_thread::get_id();
    done.notify_all();
  });
  std::unique_lock lock(mutex);
  done.wait(lock, [&] { return titles.has_value(); });
  EXPECT_NE(thread, std::this_thread::get_id());
  std::sort(titles->begin(), titles->end());
  return *titles;
}

TEST(VdirStoreTest, ReminderPredicatesSelectByDueAndCompletionDatesOnAPlatformThread) {
  TemporaryDirectory config;
  auto platform = VdirPlatform::make(testing::platformOptions(testData("mapping"), config.path() / "access.json"));
  auto store = platform->makeEventStore();
  auto fetch = [&](const std::shared_ptr<platform::EKPredicate>& predicate) {
    return fetchedTitles(*store, predicate);
  };
  // A due date without a time falls at local midnight (Europe/Berlin here).
  EXPECT_THAT(fetch(store->predicateForIncompleteRemindersWithDueDateStarting(utc(2026, 3, 9, 23), utc(2026, 3, 10, 23), std::nullopt)),
              ::testing::ElementsAre("Call back"));
  EXPECT_THAT(fetch(store->predicateForIncompleteRemindersWithDueDateStarting(utc(2026, 3, 10, 23), utc(2026, 3, 11, 23), std::nullopt)),
              ::testing::ElementsAre("Buy milk"));
  EXPECT_THAT(fetch(store->predicateForIncompleteRemindersWithDueDateStarting(utc(2026, 3, 10), std::nullopt, std::nullopt)),
              ::testing::ElementsAre("Buy milk", "Call back"));
  EXPECT_THAT(fetch(store->predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt, std::nullopt)),
              ::testing::ElementsAre("Buy milk", "Call back", "Someday"));
  EXPECT_THAT(fetch(store->predicateForCompletedRemindersWithCompletionDateStarting(utc(2026, 3, 5), utc(2026, 3, 6), std::nullopt)),
              ::testing::ElementsAre("File taxes"));
  EXPECT_THAT(fetch(store->predicateForCompletedRemindersWithCompletionDateStarting(utc(2026, 3, 6), std::nullopt, std::nullopt)),
              ::testing::ElementsAre());
  auto none = std::vector<std::shared_ptr<platform::EKCalendar>>{};
  EXPECT_THAT(fetch(store->predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt, none)),
              ::testing::ElementsAre());
  EXPECT_NE(store->calendarItemWithIdentifier("tasks/due-date.ics"), nullptr);
  EXPECT_NE(store->calendarItemWithIdentifier("home/summary.ics"), nullptr);
  EXPECT_EQ(store->calendarItemWithIdentifier("tasks/none.ics"), nullptr);
}

TEST(VdirStoreTest, ListenersHearWhichKindsOfItemsChanged) {
  TemporaryDirectory parent, config;
  const fs::path root = parent.path() / "store";
  auto todo = [](const std::string& uid, const std::string& summary) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:" + uid +
           "\r\nSUMMARY:" + summary + "\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  };
  writeFile(root / "c/a.ics", simpleEvent("a", "Event", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root / "t/x.ics", todo("x", "To-do"));
  auto store = VdirStore::make(testing::platformOptions(root, config.path() / "access.json").store);
  std::vector<platform::EKEntityMask> heard;
  store->addChangeListener([&](platform::EKEntityMask kinds) { heard.push_back(kinds); });
  auto refreshed = [&] {
    heard.clear();
    store->refresh();
    return heard;
  };
  constexpr platform::EKEntityMask events = platform::EKEntityMaskEvent, reminders = platform::EKEntityMaskReminder;

  EXPECT_THAT(refreshed(), ::testing::IsEmpty());
  writeFile(root / "c/a.ics", simpleEvent("a", "Event changed", "20260310T090000Z", "20260310T100000Z"));
  EXPECT_THAT(refreshed(), ::testing::ElementsAre(events));
  writeFile(root / "t/x.ics", todo("x", "To-do changed"));
  EXPECT_THAT(refreshed(), ::testing::ElementsAre(reminders));
  writeFile(root / "t/y.ics", todo("y", "Another"));
  EXPECT_THAT(refreshed(), ::testing::ElementsAre(reminders));
  // A new list of to-dos, and a file removed from the calendar at the same time.
  writeFile(root / "u/z.ics", todo("z", "Elsewhere"));
  fs::remove(root / "c/a.ics");
  EXPECT_THAT(refreshed(), ::testing::ElementsAre(events | reminders));
  fs::remove_all(root / "u");
  EXPECT_THAT(refreshed(), ::testing::ElementsAre(reminders));
  // A save tells its listeners as a rescan does.
  heard.clear();
  auto toEdit = store->readToEdit("t", "x.ics");
  ASSERT_TRUE(toEdit) << toEdit.error().message();
  auto saved = store->save({{"t", "x.ics", todo("x", "Saved"), toEdit->basis}});
  ASSERT_TRUE(saved) << saved.error().message();
  EXPECT_THAT(heard, ::testing::ElementsAre(reminders));
  fs::remove_all(root);
  EXPECT_THAT(refreshed(), ::testing::ElementsAre(events | reminders));
}

TEST(VdirStoreTest, ACancelledToDoIsNeitherOpenNorCompletedAndHasAPredicateOfItsOwn) {
  TemporaryDirectory root, config;
  auto todo = [](const std::string& uid, const std::string& lines) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:" + uid +
           "\r\nSUMMARY:" + uid + "\r\n" + lines + "END:VTODO\r\nEND:VCALENDAR\r\n";
  };
  writeFile(root.path() / "t/open.ics", todo("Open", "DUE;VALUE=DATE:20260311\r\n"));
  writeFile(root.path() / "t/cancelled.ics", todo("Cancelled", "DUE;VALUE=DATE:20260311\r\nSTATUS:CANCELLED\r\n"));
  writeFile(root.path() / "t/dropped.ics", todo("Dropped", "STATUS:CANCELLED\r\n"));
  writeFile(root.path() / "t/done.ics", todo("Done", "STATUS:COMPLETED\r\nCOMPLETED:20260305T101500Z\r\n"));
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto connection = platform->makeEventStore();
  auto& store = dynamic_cast<VdirEventStore&>(*connection);
  auto fetch = [&](const std::shared_ptr<platform::EKPredicate>& predicate) { return fetchedTitles(store, predicate); };
  EXPECT_THAT(fetch(store.predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt, std::nullopt)),
              ::testing::ElementsAre("Open"));
  EXPECT_THAT(
      fetch(store.predicateForCompletedRemindersWithCompletionDateStarting(std::nullopt, std::nullopt, std::nullopt)),
      ::testing::ElementsAre("Done"));
  EXPECT_THAT(fetch(store.predicateForCancelledRemindersWithDueDateStarting(std::nullopt, std::nullopt, std::nullopt)),
              ::testing::ElementsAre("Cancelled", "Dropped"));
  // Bounded, by due date as for open ones: one without a due date is then left out.
  EXPECT_THAT(fetch(store.predicateForCancelledRemindersWithDueDateStarting(utc(2026, 3, 10, 23), utc(2026, 3, 11, 23),
                                                                           std::nullopt)),
              ::testing::ElementsAre("Cancelled"));
  EXPECT_THAT(fetch(store.predicateForCancelledRemindersWithDueDateStarting(utc(2026, 3, 11, 23), std::nullopt,
                                                                           std::nullopt)),
              ::testing::ElementsAre());
  auto cancelled = std::dynamic_pointer_cast<VdirReminder>(store.calendarItemWithIdentifier("t/cancelled.ics"));
  ASSERT_NE(cancelled, nullptr);
  EXPECT_TRUE(cancelled->isCancelled());
  EXPECT_FALSE(cancelled->isCompleted());
  EXPECT_EQ(cancelled->dueInstant(), utc(2026, 3, 10, 23));  // local midnight in Berlin
  auto open = std::dynamic_pointer_cast<VdirReminder>(store.calendarItemWithIdentifier("t/open.ics"));
  ASSERT_NE(open, nullptr);
  EXPECT_FALSE(open->isCancelled());
}

struct AccessAnswer {
  std::mutex mutex;
  std::condition_variable done;
  std::optional<std::pair<bool, std::optional<platform::NSError>>> result;
  std::thread::id thread;
  platform::EKEventStore::AccessCompletion completion() {
    return [this](bool granted, std::optional<platform::NSError> error) {
      std::lock_guard lock(mutex);
      result.emplace(granted, error);
      thread = std::this_thread::get_id();
      done.notify_all();
    };
  }
  std::pair<bool, std::optional<platform::NSError>> wait() {
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return result.has_value(); });
    return *result;
  }
};

TEST(VdirStoreTest, AccessIsNotDeterminedUntilTheUserAnswersAndTheAnswerIsKept) {
  TemporaryDirectory config;
  auto options = testing::platformOptions(testData("mapping"), config.path() / "vesp/access.json");
  std::vector<std::pair<platform::EKEntityType, std::optional<std::string>>> asked;
  options.consentHandler = [&](platform::EKEntityType type, const std::optional<std::string>& usage) {
    asked.emplace_back(type, usage);
    return type == platform::EKEntityTypeEvent;
  };
  auto platform = VdirPlatform::make(options);
  platform->setInfoDictionaryValue("NSCalendarsUsageDescription", platform::AnyObject("To show your week"));
  EXPECT_EQ(platform->authorizationStatusForEntityType(platform::EKEntityTypeEvent),
            platform::EKAuthorizationStatusNotDetermined);
  auto store = platform->makeEventStore();
  AccessAnswer events, reminders;
  store->requestAccessToEntityType(platform::EKEntityTypeEvent, events.completion());
  EXPECT_EQ(events.wait().first, true);
  EXPECT_NE(events.thread, std::this_thread::get_id());
  store->requestAccessToEntityType(platform::EKEntityTypeReminder, reminders.completion());
  EXPECT_EQ(reminders.wait().first, false);
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[0].second, "To show your week");
  EXPECT_EQ(asked[1].second, std::nullopt);
  EXPECT_EQ(platform->authorizationStatusForEntityType(platform::EKEntityTypeEvent),
            platform::EKAuthorizationStatusAuthorized);
  EXPECT_EQ(platform->authorizationStatusForEntityType(platform::EKEntityTypeReminder),
            platform::EKAuthorizationStatusDenied);
  // Kept in the file, readable by its owner only, and read by a new platform.
  struct stat status {};
  ASSERT_EQ(::stat((config.path() / "vesp/access.json").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  auto again = VdirPlatform::make(testing::platformOptions(testData("mapping"), config.path() / "vesp/access.json"));
  EXPECT_EQ(again->authorizationStatusForEntityType(platform::EKEntityTypeEvent),
            platform::EKAuthorizationStatusAuthorized);
  // A decided question is not asked again.
  AccessAnswer repeat;
  again->makeEventStore()->requestAccessToEntityType(platform::EKEntityTypeReminder, repeat.completion());
  EXPECT_EQ(repeat.wait().first, false);
  EXPECT_EQ(asked.size(), 2u);
}

TEST(VdirStoreTest, WithoutAConsentHandlerARequestFailsAndDecidesNothing) {
  TemporaryDirectory config;
  auto platform = VdirPlatform::make(testing::platformOptions(testData("mapping"), config.path() / "access.json"));
  AccessAnswer answer;
  platform->makeEventStore()->requestAccessToEntityType(platform::EKEntityTypeEvent, answer.completion());
  auto [granted, error] = answer.wait();
  EXPECT_FALSE(granted);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), VdirErrorDomain);
  EXPECT_EQ(platform->authorizationStatusForEntityType(platform::EKEntityTypeEvent),
            platform::EKAuthorizationStatusNotDetermined);
  EXPECT_FALSE(fs::exists(config.path() / "access.json"));
}

TEST(VdirStoreTest, AStoreRootThatIsNoReadableDirectoryIsRestricted) {
  TemporaryDirectory config;
  writeFile(config.path() / "not-a-directory", "x");
  auto platform = VdirPlatform::make(testing::platformOptions(config.path() / "not-a-directory", config.path() / "access.json"));
  EXPECT_EQ(platform->authorizationStatusForEntityType(platform::EKEntityTypeEvent),
            platform::EKAuthorizationStatusRestricted);
  AccessAnswer answer;
  platform->makeEventStore()->requestAccessToEntityType(platform::EKEntityTypeEvent, answer.completion());
  EXPECT_FALSE(answer.wait().first);
}

TEST(VdirStoreTest, ReadingWatchingAndAskingNeverChangeTheTree) {
  TemporaryDirectory root, config;
  fs::copy(testData("series"), root.path(), fs::copy_options::recursive);
  fs::copy(testData("mapping"), root.path() / "account", fs::copy_options::recursive);
  auto before = testing::treeState(root.path());
  {
    auto options = testing::platformOptions(root.path(), config.path() / "access.json", true);
    options.consentHandler = [](platform::EKEntityType, const std::optional<std::string>&) { return true; };
    auto platform = VdirPlatform::make(options);
    auto store = platform->makeEventStore();
    AccessAnswer answer;
    store->requestAccessToEntityType(platform::EKEntityTypeEvent, answer.completion());
    answer.wait();
    for (int year = 1990; year < 2040; year += 7)
      store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(utc(year, 1, 1), utc(year + 1, 1, 1), std::nullopt));
    for (const auto& calendar : store->calendarsForEntityType(platform::EKEntityTypeReminder)) (void)calendar->title();
    store->eventWithIdentifier("cal/moved.ics");
    store->calendarItemWithIdentifier("account/tasks/due-date.ics");
    platform->store()->refresh();
  }
  EXPECT_EQ(testing::treeState(root.path()), before);
}

TEST(VdirStoreTest, AStoreLetGoOfOnItsWatchersThreadEndsCleanly) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  auto options = testing::platformOptions(root.path(), config.path() / "access.json", true).store;
  auto store = VdirStore::make(options);
  std::weak_ptr<VdirStore> weak = store;
  // The only other reference is held by a listener, which lets it go when called.
  auto holder = std::make_shared<std::shared_ptr<VdirStore>>(store);
  auto released = std::make_shared<std::promise<void>>();
  // Dies with the last copy of the listener, which the store keeps until it is destroyed.
  struct OnDestruction {
    std::promise<void> gone;
    ~OnDestruction() { gone.set_value(); }
  };
  auto sentinel = std::make_shared<OnDestruction>();
  auto destroyed = sentinel->gone.get_future();
  store->addChangeListener([holder, released, sentinel = std::move(sentinel)](platform::EKEntityMask) {
    if (*holder) {
      holder->reset();
      released->set_value();
    }
  });
  store.reset();
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "B", "20260310T090000Z", "20260310T100000Z"));
  ASSERT_EQ(released->get_future().wait_for(std::chrono::seconds(3)), std::future_status::ready);
  ASSERT_EQ(destroyed.wait_for(std::chrono::seconds(3)), std::future_status::ready);
  EXPECT_TRUE(weak.expired());
}

// A file of version `version`: a daily series and one moved occurrence, both titled by the version.
std::string versionedSeries(int file, int version) {
  std::string uid = "series-" + std::to_string(file);
  std::string title = "v" + std::to_string(version);
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:" + uid + "\r\nSUMMARY:" + title +
         "\r\nDTSTART:20260301T090000Z\r\nDTEND:20260301T100000Z\r\nRRULE:FREQ=DAILY;COUNT=20\r\nEND:VEVENT\r\n"
         "BEGIN:VEVENT\r\nUID:" + uid + "\r\nSUMMARY:" + title +
         "\r\nRECURRENCE-ID:20260305T090000Z\r\nDTSTART:20260305T150000Z\r\nDTEND:20260305T160000Z\r\nEND:VEVENT\r\n"
         "END:VCALENDAR\r\n";
}

// Fetches every incomplete reminder and waits for the answer; returns how many there were.
std::size_t incompleteReminderCount(platform::EKEventStore& store) {
  std::mutex mutex;
  std::condition_variable done;
  std::optional<std::size_t> count;
  store.fetchRemindersMatchingPredicate(
      store.predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt, std::nullopt),
      [&](auto reminders) {
        std::lock_guard lock(mutex);
        count = reminders ? reminders->size() : 0;
        done.notify_all();
      });
  std::unique_lock lock(mutex);
  done.wait(lock, [&] { return count.has_value(); });
  return *count;
}

// Titles of the events of 10 March 2026.
std::set<std::string> titlesOn10March(VdirStore& store) {
  std::set<std::string> titles;
  for (const auto& event : store.events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt)) titles.insert(*event->title());
  return titles;
}

// Closed from several threads at once while it answers: the watcher is stopped and joined once,
// and later changes reach the store only when it is asked to look again.
TEST(VdirStoreTest, ClosingAWatchedStoreStopsItsWatcherAndLeavesItAnswering) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "Before", "20260310T090000Z", "20260310T100000Z"));
  std::atomic<int> heard{0};
  auto store = VdirStore::make(testing::platformOptions(root.path(), config.path() / "access.json", true).store);
  ASSERT_TRUE(store->isWatching());
  store->addChangeListener([&heard](platform::EKEntityMask) { ++heard; });
  std::vector<std::thread> threads;
  std::atomic<bool> closing{true};
  threads.emplace_back([&] {
    do EXPECT_EQ(titlesOn10March(*store), std::set<std::string>{"Before"});
    while (closing);
  });
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { store->close(); });
  for (std::size_t i = 1; i < threads.size(); ++i) threads[i].join();
  closing = false;
  threads[0].join();
  EXPECT_FALSE(store->isWatching());

  writeFile(root.path() / "c/a.ics", simpleEvent("a", "After", "20260310T090000Z", "20260310T100000Z"));
  // Longer than a watcher waits before it looks (at most 400 ms with these options).
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  EXPECT_EQ(heard.load(), 0);
  EXPECT_EQ(titlesOn10March(*store), std::set<std::string>{"Before"});
  EXPECT_TRUE(store->refresh());
  EXPECT_EQ(heard.load(), 1);
  EXPECT_EQ(titlesOn10March(*store), std::set<std::string>{"After"});
}

TEST(VdirStoreTest, AFileDeletedBetweenListingAndReadingIsLeftOutWithoutAProblem) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "c/b.ics", simpleEvent("b", "B", "20260310T090000Z", "20260310T100000Z"));
  auto options = testing::platformOptions(root.path(), config.path() / "access.json");
  std::atomic<bool> armed{false};  // read on every thread that lists (the cache writer's too)
  auto env = std::make_shared<testing::TestEnv>();
  env->afterListing = [&](const std::string& directory) {
    if (armed && fs::path(directory) == root.path() / "c") fs::remove(root.path() / "c/b.ics");
  };
  auto store = VdirStore::make(options.store, env);
  writeFile(root.path() / "c/b.ics", simpleEvent("b", "B2", "20260310T090000Z", "20260310T100000Z"));
  armed = true;
  store->refresh();
  EXPECT_THAT(titlesOn10March(*store), ::testing::ElementsAre("A"));
  EXPECT_TRUE(store->diagnostics().empty());
}

TEST(VdirStoreTest, AFileRenamedBetweenListingAndReadingIsServedByTheNextRescan) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  auto options = testing::platformOptions(root.path(), config.path() / "access.json");
  int renames = 0;
  auto env = std::make_shared<testing::TestEnv>();
  env->afterListing = [&](const std::string& directory) {
    if (fs::path(directory) == root.path() / "c" && fs::exists(root.path() / "c/new.ics") && renames++ == 0)
      fs::rename(root.path() / "c/new.ics", root.path() / "c/z-renamed.ics");
  };
  auto store = VdirStore::make(options.store, env);
  writeFile(root.path() / "c/new.ics", simpleEvent("n", "New", "20260310T090000Z", "20260310T100000Z"));
  store->refresh();  // lists new.ics, finds it gone, and does not list z-renamed.ics yet
  store->refresh();  // the next rescan sees the truth
  EXPECT_THAT(titlesOn10March(*store), ::testing::ElementsAre("A", "New"));
  EXPECT_NE(store->firstOccurrence("c/z-renamed.ics"), nullptr);
}

TEST(VdirStoreTest, AFileTruncatedWhileBeingReadIsRepairedOrReportedAndItsWholeVersionIsServedNext) {
  TemporaryDirectory root, config;
  std::string whole = simpleEvent("a", "Whole", "20260310T090000Z", "20260310T100000Z");
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "Old", "20260310T090000Z", "20260310T100000Z"));
  auto options = testing::platformOptions(root.path(), config.path() / "access.json");
  std::atomic<bool> truncate{false};  // read on every thread that lists (the cache writer's too)
  auto env = std::make_shared<testing::TestEnv>();
  env->afterListing = [&](const std::string& directory) {
    if (fs::path(directory) == root.path() / "c" && truncate.exchange(false))
      writeFile(root.path() / "c/a.ics", whole.substr(0, whole.size() / 2));
  };
  auto store = VdirStore::make(options.store, env);
  truncate = true;
  writeFile(root.path() / "c/a.ics", whole);
  store->refresh();
  EXPECT_FALSE(store->diagnostics().empty());  // what the half file lacked is said
  writeFile(root.path() / "c/a.ics", whole);   // the writer finishes
  store->refresh();
  EXPECT_THAT(titlesOn10March(*store), ::testing::ElementsAre("Whole"));
  EXPECT_TRUE(store->diagnostics().empty());
}

TEST(VdirStoreTest, ACollectionThatBecomesUnreadableLeavesTheRestServedAndComesBack) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "a/x.ics", simpleEvent("x", "X", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "b/y.ics", simpleEvent("y", "Y", "20260310T090000Z", "20260310T100000Z"));
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  // Permissions do not bind the superuser; there the directory is swapped for a file instead.
  const bool superuser = ::geteuid() == 0;
  if (superuser) {
    fs::rename(root.path() / "b", root.path() / ".b-away");
    writeFile(root.path() / "b", "not a directory");
  } else {
    fs::permissions(root.path() / "b", fs::perms::none);
  }
  platform->store()->refresh();
  EXPECT_THAT(titlesOn10March(*platform->store()), ::testing::ElementsAre("X"));
  if (!superuser) {
    EXPECT_FALSE(platform->diagnostics().empty());
  }
  if (superuser) {
    fs::remove(root.path() / "b");
    fs::rename(root.path() / ".b-away", root.path() / "b");
  } else {
    fs::permissions(root.path() / "b", fs::perms::owner_all);
  }
  platform->store()->refresh();
  EXPECT_THAT(titlesOn10March(*platform->store()), ::testing::ElementsAre("X", "Y"));
}

TEST(VdirStoreTest, AnOverflowedEventQueueLeadsToAFullRescan) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "Before", "20260310T090000Z", "20260310T100000Z"));
  // Declared before the store, so that they outlive its watcher.
  std::mutex mutex;
  std::condition_variable changed;
  int changes = 0;
  auto env = std::make_shared<testing::TestEnv>();
  auto store = VdirStore::make(testing::platformOptions(root.path(), config.path() / "access.json", true).store, env);
  store->addChangeListener([&](platform::EKEntityMask) {
    std::lock_guard<std::mutex> lock(mutex);
    ++changes;
    changed.notify_all();
  });
  // The events of this write are lost; only the overflow reaches the watcher.
  env->loseNextChanges = true;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "After", "20260310T090000Z", "20260310T100000Z"));
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(2), [&] { return changes >= 1; }));
  }
  EXPECT_EQ(store->overflowCount(), 1u);
  EXPECT_THAT(titlesOn10March(*store), ::testing::ElementsAre("After"));
}

TEST(VdirStoreTest, AFileThatFailsToBeReadIsReportedAndTheRestIsServed) {
  TemporaryDirectory root, config;
  writeFile(root.path() / "c/a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "c/b.ics", simpleEvent("b", "B", "20260310T090000Z", "20260310T100000Z"));
  auto env = std::make_shared<testing::TestEnv>();
  bool failing = true;
  env->failRead = [&](const std::string& name) -> std::optional<std::string> {
    if (failing && name == "b.ics") return "file cannot be read: Input/output error";
    return std::nullopt;
  };
  auto store = VdirStore::make(testing::platformOptions(root.path(), config.path() / "access.json").store, env);
  EXPECT_THAT(titlesOn10March(*store), ::testing::ElementsAre("A"));
  ASSERT_EQ(store->diagnostics().size(), 1u);
  EXPECT_EQ(store->diagnostics()[0].path, "c/b.ics");
  EXPECT_EQ(store->diagnostics()[0].problem, "file cannot be read: Input/output error");
  // Once the disk answers again, the file is read at the next scan although it did not change.
  failing = false;
  store->refresh();
  EXPECT_THAT(titlesOn10March(*store), ::testing::ElementsAre("A", "B"));
  EXPECT_TRUE(store->diagnostics().empty());
}

// Eight threads query events and reminders while another rewrites, adds and deletes files for a
// while (VESP_LOAD_SECONDS, default 15; scripts/soak runs it longer): every answer must show each
// file wholly in one version.
TEST(VdirStoreTest, UnderLoadEveryAnswerIsAConsistentViewOfWholeFiles) {
  const char* configured = std::getenv("VESP_LOAD_SECONDS");
  const double seconds = configured ? std::atof(configured) : 15.0;
  TemporaryDirectory root, config;
  const int files = 200;
  for (int file = 0; file < files; ++file)
    writeFile(root.path() / "c" / (std::to_string(file) + ".ics"), versionedSeries(file, 0));
  writeFile(root.path() / "t/todo.ics", kTodo);
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json", true));
  std::atomic<bool> running{true};
  std::atomic<long> answers{0}, writes{0};
  std::thread writer([&] {
    std::mt19937 random(7);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int version = 1; std::chrono::steady_clock::now() < end; ++version) {
      int file = static_cast<int>(random() % (files + 50));  // some beyond the first 200: added, then deleted
      fs::path path = root.path() / "c" / (std::to_string(file) + ".ics");
      if (file >= files && fs::exists(path)) {
        fs::remove(path);
      } else {
        writeFile(root.path() / "c" / ".tmp", versionedSeries(file, version));
        fs::rename(root.path() / "c" / ".tmp", path);
      }
      ++writes;
      // Every so often the readers get a turn: at least one more answer before writing on.
      if (version % 50 == 0)
        for (long seen = answers; answers == seen && std::chrono::steady_clock::now() < end;) std::this_thread::yield();
    }
    running = false;
  });
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 8; ++reader)
    readers.emplace_back([&, reader] {
      auto store = platform->makeEventStore();
      while (running) {
        if (reader % 2 == 0) {
          auto events = store->eventsMatchingPredicate(
              store->predicateForEventsWithStartDate(utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt));
          std::map<std::string, std::set<std::string>> versions;
          std::map<std::string, int> counts;
          for (const auto& event : events) {
            versions[*event->eventIdentifier()].insert(*event->title());
            ++counts[*event->eventIdentifier()];
          }
          for (const auto& [identifier, seen] : versions) {
            EXPECT_EQ(seen.size(), 1u) << identifier;
            EXPECT_EQ(counts[identifier], 20) << identifier;
          }
          EXPECT_GE(versions.size(), static_cast<std::size_t>(files));
        } else {
          EXPECT_EQ(incompleteReminderCount(*store), 1u);
        }
        ++answers;
      }
    });
  writer.join();
  for (auto& reader : readers) reader.join();
  EXPECT_GT(answers.load(), 8);
  EXPECT_GT(writes.load(), 100);
  // Once the last burst is read, the store serves exactly what is on disk.
  platform->store()->refresh();
  std::map<std::string, std::string> expected;
  for (const auto& entry : fs::directory_iterator(root.path() / "c")) {
    if (entry.path().filename().string()[0] == '.') continue;
    auto text = testing::readFile(entry.path());
    auto at = text.find("SUMMARY:") + 8;
    expected["c/" + entry.path().filename().string()] = text.substr(at, text.find('\r', at) - at);
  }
  std::map<std::string, std::string> served;
  for (const auto& event : platform->store()->events(utc(2026, 3, 1), utc(2026, 3, 2), std::nullopt))
    served[*event->eventIdentifier()] = *event->title();
  EXPECT_EQ(served, expected);
}

TEST(VdirStoreTest, QueriesWhileFilesChangeSeeEachFileWhollyOldOrWhollyNew) {
  TemporaryDirectory root, config;
  const int files = 12;
  for (int file = 0; file < files; ++file) writeFile(root.path() / "c" / (std::to_string(file) + ".ics"), versionedSeries(file, 0));
  writeFile(root.path() / "t/todo.ics", kTodo);
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json", true));
  std::atomic<bool> writing{true};
  std::atomic<int> answers{0};
  std::thread writer([&] {
    for (int version = 1; version <= 40; ++version) {
      for (int file = 0; file < files; ++file) {
        // Written beside and renamed into place, as sync tools do.
        fs::path target = root.path() / "c" / (std::to_string(file) + ".ics");
        writeFile(root.path() / "c" / ".tmp", versionedSeries(file, version));
        fs::rename(root.path() / "c" / ".tmp", target);
      }
      if (version % 4 == 0) platform->store()->refresh();
    }
    writing = false;
  });
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 4; ++reader)
    readers.emplace_back([&, reader] {
      auto store = platform->makeEventStore();
      while (writing || answers < 40) {
        auto events = store->eventsMatchingPredicate(
            store->predicateForEventsWithStartDate(utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt));
        std::map<std::string, std::set<std::string>> versions;
        for (const auto& event : events) versions[*event->eventIdentifier()].insert(*event->title());
        EXPECT_EQ(versions.size(), static_cast<std::size_t>(files));
        for (const auto& [identifier, seen] : versions) EXPECT_EQ(seen.size(), 1u) << identifier;
        EXPECT_EQ(events.size(), static_cast<std::size_t>(files * 20));
        if (reader % 2) {
          EXPECT_EQ(incompleteReminderCount(*store), 1u);
        }
        ++answers;
      }
    });
  writer.join();
  for (auto& reader : readers) reader.join();
  platform->store()->refresh();
  for (const auto& event : platform->store()->events(utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt))
    EXPECT_EQ(event->title(), "v40");
}

// The calendar files two Debian packages ship for their own tests, each file its own collection:
// every file is served or diagnosed, and serving them converts into records without a stop.
// Without the packages the test skips, except in CI, which must have installed them.
TEST(VdirStoreTest, EveryFileOfThePublicTestCorporaIsServedOrDiagnosed) {
  const char* packages[] = {"evolution-data-server-tests", "python3-icalendar"};
  std::string missing;
  for (const char* package : packages) {
    std::string query = std::string("dpkg-query -W -f='${Status}' ") + package + " 2>/dev/null";
    FILE* status = ::popen(query.c_str(), "r");
    ASSERT_NE(status, nullptr);
    char text[256] = {};
    std::size_t length = std::fread(text, 1, sizeof text - 1, status);
    ::pclose(status);
    if (std::string(text, length).find("install ok installed") == std::string::npos)
      missing += std::string(missing.empty() ? "" : ", ") + package;
  }
  if (!missing.empty()) {
    const char* ci = std::getenv("CI");
    ASSERT_FALSE(ci && std::string(ci) == "true") << "CI must install the Debian packages " << missing;
    GTEST_SKIP() << "the public test corpora need the Debian packages " << missing
                 << " (scripts/test installs them)";
  }
  TemporaryDirectory root, config;
  std::size_t copied = 0;
  for (const char* package : packages) {
    FILE* list = ::popen((std::string("dpkg-query -L ") + package + " 2>/dev/null").c_str(), "r");
    ASSERT_NE(list, nullptr);
    char line[4096];
    std::size_t found = 0;
    while (std::fgets(line, sizeof line, list)) {
      std::string path(line);
      while (!path.empty() && (path.back() == '\n' || path.back() == '\r')) path.pop_back();
      if (path.size() < 4 || path.compare(path.size() - 4, 4, ".ics") != 0 || !fs::is_regular_file(path)) continue;
      fs::path collection = root.path() / package / (std::to_string(++found) + "-" + fs::path(path).stem().string());
      fs::create_directories(collection);
      fs::copy_file(path, collection / "item.ics");
    }
    ::pclose(list);
    EXPECT_GT(found, 5u) << package << " ships fewer calendar files than it used to";
    copied += found;
  }
  auto platform = VdirPlatform::make(testing::platformOptions(root.path(), config.path() / "access.json"));
  auto snapshot = platform->store()->snapshot();
  std::set<std::string> diagnosed;
  for (const auto& diagnostic : platform->diagnostics()) diagnosed.insert(diagnostic.path);
  std::size_t served = 0;
  for (const auto& collection : snapshot->collections) {
    std::string path = collection.identifier + "/item.ics";
    bool isServed = std::any_of(collection.items.begin(), collection.items.end(),
                                [&](const auto& item) { return item->relativePath == path; });
    served += isServed;
    EXPECT_TRUE(isServed || diagnosed.count(path)) << path << " is neither served nor diagnosed";
  }
  EXPECT_EQ(snapshot->collections.size(), copied);
  EXPECT_GT(served, copied / 2);
  // Everything served converts into the data model's records.
  std::size_t records = 0;
  for (int decade = 1970; decade < 2040; decade += 10)
    for (const auto& event : platform->store()->events(utc(decade, 1, 1), utc(decade + 10, 1, 1), std::nullopt)) {
      VespEventInstance instance(*event);
      records += !instance.eventIdentifier().empty();
    }
  for (const auto& reminder : platform->store()->reminders(std::nullopt, [](const auto&) { return true; })) {
    VespReminder record(*reminder);
    records += !record.calendarItemIdentifier().empty();
  }
  EXPECT_GT(records, 0u);
}

}  // namespace
}  // namespace vesp::vdir
