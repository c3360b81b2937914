// Saving through the platform interface over a tree on disk: what the host set on an occurrence of
// a recurring event goes to that occurrence alone or to it and every later one, and a save that
// meets a file changed by another program fails and writes nothing.
#include "platforms/vdir/VdirSaves.h"

#include <sys/stat.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <map>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platforms/vdir/VdirPlatform.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::utc;
using testing::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// A weekly event on Mondays 2, 9, 16 and 23 March 2026, 09:00-10:00 UTC.
constexpr const char* kWeekly =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VEVENT\r\nUID:weekly\r\n"
    "DTSTAMP:20260101T000000Z\r\nDTSTART:20260302T090000Z\r\nDTEND:20260302T100000Z\r\n"
    "RRULE:FREQ=WEEKLY;COUNT=4\r\nSUMMARY:Weekly\r\nX-KEPT:yes\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";

constexpr const char* kSeed =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VTODO\r\nUID:seed\r\n"
    "DTSTAMP:20260101T000000Z\r\nSUMMARY:Seed\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";

// `date` as whole seconds since 1970, for occurrences compared as text.
std::string secondsText(platform::Date date) {
  return std::to_string(static_cast<long long>(date.timeIntervalSince1970()));
}

// Each of `errors` is there, and is the vdir store's `code`.
void expectEachRefusedWith(std::initializer_list<std::optional<platform::NSError>> errors, VdirErrorCode code) {
  for (const auto& error : errors) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), VdirErrorDomain);
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(code)) << error->localizedDescription();
  }
}

class VdirSavesTest : public ::testing::Test {
 protected:
  VdirSavesTest() {
    writeFile(root.path() / "work/weekly.ics", kWeekly);
    writeFile(config.path() / "access.json",
              R"({"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "authorized"}}})");
    auto options = testing::platformOptions(root.path(), config.path() / "access.json");
    options.store.cacheDirectory = "";
    vdirPlatform = VdirPlatform::make(std::move(options));
    store = vdirPlatform->makeEventStore();
  }

  std::vector<std::shared_ptr<platform::EKEvent>> march() {
    return store->eventsMatchingPredicate(
        store->predicateForEventsWithStartDate(utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt));
  }
  std::vector<std::string> titles() {
    std::vector<std::string> found;
    for (const auto& event : march()) found.push_back(event->title().value_or(""));
    return found;
  }

  // Writes work/NAME.ics, one event with the UID NAME and `lines` (its times and more), and reads it.
  void writeEvent(const std::string& name, const std::string& lines) {
    writeFile(root.path() / "work" / (name + ".ics"),
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VEVENT\r\nUID:" + name +
                  "\r\nDTSTAMP:20260101T000000Z\r\n" + lines + "END:VEVENT\r\nEND:VCALENDAR\r\n");
    EXPECT_TRUE(vdirPlatform->refresh());
  }
  // The event of work/NAME.ics, as the store serves it now.
  std::shared_ptr<platform::EKEvent> storedEvent(const std::string& name) {
    return std::dynamic_pointer_cast<platform::EKEvent>(store->calendarItemWithIdentifier("work/" + name + ".ics"));
  }

  // work/until.ics: Tuesdays 3 to 24 March 2026, 09:00-10:00 UTC, ending with an UNTIL; the 10th
  // excluded, the 17th an override titled "Moved".
  void writeTuesdays() {
    writeFile(root.path() / "work/until.ics",
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VEVENT\r\nUID:until\r\n"
              "DTSTAMP:20260101T000000Z\r\nDTSTART:20260303T090000Z\r\nDTEND:20260303T100000Z\r\n"
              "RRULE:FREQ=WEEKLY;UNTIL=20260324T090000Z\r\nEXDATE:20260310T090000Z\r\nSUMMARY:Tuesday\r\n"
              "END:VEVENT\r\nBEGIN:VEVENT\r\nUID:until\r\nDTSTAMP:20260101T000000Z\r\n"
              "RECURRENCE-ID:20260317T090000Z\r\nDTSTART:20260317T090000Z\r\nDTEND:20260317T100000Z\r\n"
              "SUMMARY:Moved\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
    EXPECT_TRUE(vdirPlatform->refresh());
  }
  // Its occurrences in March: start, end (seconds since 1970), whether all day, and title.
  std::vector<std::string> tuesdays() {
    std::vector<std::string> found;
    for (const auto& event : march())
      if (event->calendarItemIdentifier() == "work/until.ics")
        found.push_back(secondsText(*event->startDate()) + " " + secondsText(*event->endDate()) +
                        (event->isAllDay() ? " all day " : " ") + event->title().value_or(""));
    return found;
  }
  std::shared_ptr<platform::EKEvent> firstTuesday() {
    for (const auto& event : march())
      if (event->calendarItemIdentifier() == "work/until.ics") return event;
    return nullptr;
  }

  // The stored to-do "seed" in a reminder list "Tasks", read by the platform.
  std::shared_ptr<platform::EKReminder> seed() {
    if (!fs::exists(root.path() / "tasks/seed.ics")) {
      writeFile(root.path() / "tasks/displayname", "Tasks");
      writeFile(root.path() / "tasks/seed.ics", kSeed);
      EXPECT_TRUE(vdirPlatform->refresh());
    }
    return std::dynamic_pointer_cast<platform::EKReminder>(store->calendarItemWithIdentifier("tasks/seed.ics"));
  }

  testing::TemporaryDirectory root, config;
  std::shared_ptr<VdirPlatform> vdirPlatform;
  std::shared_ptr<platform::EKEventStore> store;
};

TEST_F(VdirSavesTest, AnOccurrenceChangesAloneOrWithEveryLaterOne) {
  auto second = march().at(1);
  second->setTitle("Moved");
  second->setStartDate(utc(2026, 3, 9, 11));
  second->setEndDate(utc(2026, 3, 9, 12));
  ASSERT_EQ(store->saveEvent(second, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Weekly", "Moved", "Weekly", "Weekly"));
  EXPECT_EQ(march().at(1)->startDate(), utc(2026, 3, 9, 11));
  const std::string text = readFile(root.path() / "work/weekly.ics");
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID:20260309T090000Z\r\n"));
  EXPECT_THAT(text, HasSubstr("X-KEPT:yes\r\n"));

  auto third = march().at(2);
  third->setTitle("Later");
  ASSERT_EQ(store->saveEvent(third, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Weekly", "Moved", "Later", "Later"));
  // The future is a series of its own; the old one ends before it.
  EXPECT_NE(march().at(2)->eventIdentifier(), march().at(0)->eventIdentifier());
  EXPECT_EQ(march().at(3)->eventIdentifier(), march().at(2)->eventIdentifier());

  auto last = march().at(3);
  ASSERT_EQ(store->removeEvent(last, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Weekly", "Moved", "Later"));
}

TEST_F(VdirSavesTest, TheFirstOccurrenceWithFutureEventsIsTheWholeSeries) {
  auto first = march().at(0);
  first->setTitle("Renamed");
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Renamed", "Renamed", "Renamed", "Renamed"));
  EXPECT_EQ(march().at(3)->eventIdentifier(), first->eventIdentifier());
  ASSERT_EQ(store->removeEvent(march().at(0), platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_TRUE(march().empty());
  EXPECT_FALSE(fs::exists(root.path() / "work/weekly.ics"));
}

// An occurrence changed alone is an override; changed again with every later one, it shows the new
// change too, while the other overrides keep what was set on them alone.
TEST_F(VdirSavesTest, AnOverriddenOccurrenceChangedWithTheLaterOnesShowsTheChange) {
  for (int at : {0, 2, 3}) {
    auto occurrence = march().at(at);
    occurrence->setTitle("Alone " + std::to_string(at));
    ASSERT_EQ(store->saveEvent(occurrence, platform::EKSpanThisEvent), std::nullopt);
  }
  auto first = march().at(0);
  first->setTitle("Series");
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Series", "Series", "Alone 2", "Alone 3"));

  auto third = march().at(2);
  third->setTitle("Later");
  third->setStartDate(utc(2026, 3, 16, 10));
  third->setEndDate(utc(2026, 3, 16, 11));
  ASSERT_EQ(store->saveEvent(third, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Series", "Series", "Later", "Alone 3"));
  EXPECT_EQ(march().at(2)->startDate(), utc(2026, 3, 16, 10));
  EXPECT_EQ(march().at(3)->startDate(), utc(2026, 3, 23, 10));
  EXPECT_EQ(march().at(3)->eventIdentifier(), march().at(2)->eventIdentifier());
}

// Some clients leave an override beside an event that does not repeat; it is served as an occurrence
// of its own, and changing or removing it leaves the event as it was.
TEST_F(VdirSavesTest, AnOverrideOfAnEventThatDoesNotRepeatIsAnOccurrenceOfItsOwn) {
  writeFile(root.path() / "work/weekly.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VEVENT\r\nUID:single\r\n"
            "DTSTAMP:20260101T000000Z\r\nDTSTART:20260302T090000Z\r\nDTEND:20260302T100000Z\r\nSUMMARY:Event\r\n"
            "END:VEVENT\r\nBEGIN:VEVENT\r\nUID:single\r\nDTSTAMP:20260101T000000Z\r\n"
            "RECURRENCE-ID:20260309T090000Z\r\nDTSTART:20260309T110000Z\r\nDTEND:20260309T120000Z\r\n"
            "SUMMARY:Stray\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  ASSERT_TRUE(vdirPlatform->refresh());
  ASSERT_THAT(titles(), ElementsAre("Event", "Stray"));
  for (auto span : {platform::EKSpanThisEvent, platform::EKSpanFutureEvents}) {
    auto stray = march().at(1);
    stray->setTitle(span == platform::EKSpanThisEvent ? "Stray alone" : "Stray on");
    ASSERT_EQ(store->saveEvent(stray, span), std::nullopt);
  }
  EXPECT_THAT(titles(), ElementsAre("Event", "Stray on"));
  ASSERT_EQ(store->removeEvent(march().at(1), platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Event"));
  EXPECT_EQ(march().at(0)->startDate(), utc(2026, 3, 2, 9));
  EXPECT_THAT(readFile(root.path() / "work/weekly.ics"), Not(HasSubstr("RECURRENCE-ID")));
}

TEST_F(VdirSavesTest, ASaveThatMeetsAFileChangedByAnotherProgramFailsAndWritesNothing) {
  auto first = march().at(0);
  first->setTitle("Mine");
  std::string theirs = kWeekly;
  theirs.replace(theirs.find("SUMMARY:Weekly"), 14, "SUMMARY:Theirs, longer");
  writeFile(root.path() / "work/weekly.ics", theirs);
  expectEachRefusedWith({store->saveEvent(first, platform::EKSpanThisEvent)}, VdirErrorCode::changedOnDisk);
  EXPECT_EQ(readFile(root.path() / "work/weekly.ics"), theirs);
}

// The store has seen their version (a rescan), but the host's occurrence was read from the one before.
TEST_F(VdirSavesTest, AnOccurrenceReadBeforeTheStoreRescannedAChangedFileIsNotSavedOverIt) {
  auto first = march().at(0);
  std::string theirs = kWeekly;
  theirs.replace(theirs.find("SUMMARY:Weekly"), 14, "SUMMARY:Theirs");
  writeFile(root.path() / "work/weekly.ics", theirs);
  ASSERT_TRUE(vdirPlatform->refresh());
  ASSERT_EQ(march().at(0)->title(), "Theirs");
  first->setTitle("Mine");
  const auto saved = store->saveEvent(first, platform::EKSpanFutureEvents);
  const auto removed = store->removeEvent(first, platform::EKSpanThisEvent);
  expectEachRefusedWith({saved, removed}, VdirErrorCode::changedOnDisk);
  EXPECT_EQ(readFile(root.path() / "work/weekly.ics"), theirs);
  // Read again, it saves.
  auto again = march().at(0);
  again->setTitle("Mine");
  EXPECT_EQ(store->saveEvent(again, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Mine", "Mine", "Mine", "Mine"));
}

TEST_F(VdirSavesTest, NothingIsSavedIntoACollectionWhoseDirectoryIsNotWritable) {
  const fs::path work = root.path() / "work";
  ASSERT_EQ(::chmod(work.c_str(), 0555), 0);
  const auto before = testing::treeState(root.path());
  const bool refreshed = vdirPlatform->refresh();
  auto first = march().at(0);
  const bool allowed = first->calendar()->allowsContentModifications();
  first->setTitle("Mine");
  const auto changed = store->saveEvent(first, platform::EKSpanThisEvent);
  const auto removed = store->removeEvent(march().at(1), platform::EKSpanFutureEvents);
  auto added = vdirPlatform->eventWithEventStore(store);
  added->setTitle("New");
  added->setStartDate(utc(2026, 3, 5, 9));
  added->setEndDate(utc(2026, 3, 5, 10));
  added->setCalendar(first->calendar());
  const auto created = store->saveEvent(added, platform::EKSpanThisEvent);
  const auto after = testing::treeState(root.path());
  ::chmod(work.c_str(), 0755);
  EXPECT_TRUE(refreshed);
  EXPECT_FALSE(allowed);
  expectEachRefusedWith({changed, removed, created}, VdirErrorCode::readOnlyCalendar);
  EXPECT_EQ(readFile(work / "weekly.ics"), kWeekly);
  EXPECT_THAT(titles(), ElementsAre("Weekly", "Weekly", "Weekly", "Weekly"));
  EXPECT_EQ(after, before);
}

TEST_F(VdirSavesTest, AReminderReadBeforeTheStoreRescannedAChangedFileIsNotSavedOverIt) {
  auto mine = seed();
  ASSERT_TRUE(mine);
  std::string theirs = kSeed;
  theirs.replace(theirs.find("SUMMARY:Seed"), 12, "SUMMARY:Theirs");
  writeFile(root.path() / "tasks/seed.ics", theirs);
  ASSERT_TRUE(vdirPlatform->refresh());
  mine->setTitle("Mine");
  const auto saved = store->saveReminder(mine);
  const auto removed = store->removeReminder(mine);
  expectEachRefusedWith({saved, removed}, VdirErrorCode::changedOnDisk);
  EXPECT_EQ(readFile(root.path() / "tasks/seed.ics"), theirs);
  // Read again, it saves.
  auto again = seed();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->title(), "Theirs");
  again->setTitle("Mine");
  EXPECT_EQ(store->saveReminder(again), std::nullopt);
  EXPECT_EQ(seed()->title(), "Mine");
}

TEST_F(VdirSavesTest, NoReminderIsSavedIntoAListWhoseDirectoryIsNotWritable) {
  auto stored = seed();
  ASSERT_TRUE(stored);
  const fs::path tasks = root.path() / "tasks";
  ASSERT_EQ(::chmod(tasks.c_str(), 0555), 0);
  const auto before = testing::treeState(root.path());
  const bool refreshed = vdirPlatform->refresh();
  stored = seed();
  ASSERT_TRUE(stored);
  const bool allowed = stored->calendar()->allowsContentModifications();
  stored->setCompleted(true);
  const auto changed = store->saveReminder(stored);
  const auto removed = store->removeReminder(stored);
  auto added = vdirPlatform->reminderWithEventStore(store);
  added->setTitle("New");
  added->setCalendar(stored->calendar());
  const auto created = store->saveReminder(added);
  const auto after = testing::treeState(root.path());
  ::chmod(tasks.c_str(), 0755);
  EXPECT_TRUE(refreshed);
  EXPECT_FALSE(allowed);
  expectEachRefusedWith({changed, removed, created}, VdirErrorCode::readOnlyCalendar);
  EXPECT_EQ(readFile(tasks / "seed.ics"), kSeed);
  EXPECT_FALSE(seed()->isCompleted());
  EXPECT_EQ(after, before);
}

TEST_F(VdirSavesTest, ARepeatRuleAndAlarmsSetOnASeriesAreWrittenAsOtherClientsReadThem) {
  auto first = march().at(0);
  first->setRecurrenceRules(std::vector{platform::EKRecurrenceRule::recurrenceWithFrequency(
      platform::EKRecurrenceFrequencyWeekly, 1,
      std::vector{platform::EKRecurrenceDayOfWeek::dayOfWeek(platform::EKWeekdayMonday),
                  platform::EKRecurrenceDayOfWeek::dayOfWeek(platform::EKWeekdayThursday)},
      std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
      platform::EKRecurrenceEnd::recurrenceEndWithEndDate(utc(2026, 3, 26, 9)))});
  first->setAlarms(std::vector{platform::EKAlarm::alarmWithRelativeOffset(-(90 * 60)),
                               platform::EKAlarm::alarmWithRelativeOffset(0)});
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  const std::string text = readFile(root.path() / "work/weekly.ics");
  EXPECT_THAT(text, HasSubstr("RRULE:FREQ=WEEKLY;BYDAY=MO,TH;UNTIL=20260326T090000Z\r\n"));
  EXPECT_THAT(text, HasSubstr("TRIGGER:-PT1H30M\r\n"));
  EXPECT_THAT(text, HasSubstr("TRIGGER:PT0S\r\n"));
  EXPECT_THAT(text, HasSubstr("X-KEPT:yes\r\n"));
  std::vector<platform::Date> starts;
  for (const auto& event : march()) starts.push_back(*event->startDate());
  EXPECT_THAT(starts, ElementsAre(utc(2026, 3, 2, 9), utc(2026, 3, 5, 9), utc(2026, 3, 9, 9), utc(2026, 3, 12, 9),
                                  utc(2026, 3, 16, 9), utc(2026, 3, 19, 9), utc(2026, 3, 23, 9), utc(2026, 3, 26, 9)));
}

// Without its repeat rules a series is the occurrence it was saved from, as that occurrence stood.
TEST_F(VdirSavesTest, ASeriesWithoutItsRulesIsTheOccurrenceItWasSavedFrom) {
  for (int at : {0, 2}) {
    auto occurrence = march().at(at);
    occurrence->setTitle("Alone " + std::to_string(at));
    ASSERT_EQ(store->saveEvent(occurrence, platform::EKSpanThisEvent), std::nullopt);
  }
  ASSERT_EQ(store->removeEvent(march().at(1), platform::EKSpanThisEvent), std::nullopt);
  auto first = march().at(0);
  first->setRecurrenceRules(std::nullopt);
  first->setLocation("Room 2");
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Alone 0"));
  EXPECT_EQ(march().at(0)->startDate(), utc(2026, 3, 2, 9));
  EXPECT_EQ(march().at(0)->location(), "Room 2");
  EXPECT_FALSE(march().at(0)->recurrenceRules().has_value());
  const std::string text = readFile(root.path() / "work/weekly.ics");
  for (const char* gone : {"RRULE", "EXDATE", "RECURRENCE-ID", "Alone 2"}) EXPECT_THAT(text, Not(HasSubstr(gone)));
  EXPECT_THAT(text, HasSubstr("X-KEPT:yes\r\n"));
  EXPECT_EQ(text.find("BEGIN:VEVENT"), text.rfind("BEGIN:VEVENT"));
  // Raised once by the occurrence removed and once by the repeats stopped.
  EXPECT_THAT(text, HasSubstr("SEQUENCE:2\r\n"));
  // Saved again without rules, it is unchanged.
  auto single = march().at(0);
  single->setRecurrenceRules(std::vector<std::shared_ptr<platform::EKRecurrenceRule>>{});
  ASSERT_EQ(store->saveEvent(single, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_EQ(readFile(root.path() / "work/weekly.ics"), text);
}

TEST_F(VdirSavesTest, ALaterOccurrenceWithoutRulesEndsTheSeriesAndStandsAlone) {
  auto third = march().at(2);
  third->setRecurrenceRules(std::nullopt);
  ASSERT_EQ(store->saveEvent(third, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(titles(), ElementsAre("Weekly", "Weekly", "Weekly"));
  EXPECT_FALSE(march().at(2)->recurrenceRules().has_value());
  EXPECT_TRUE(march().at(0)->recurrenceRules().has_value());
  EXPECT_EQ(march().at(2)->startDate(), utc(2026, 3, 16, 9));
  // Alone, it takes no rule removal: the rules are the series'.
  auto second = march().at(1);
  second->setRecurrenceRules(std::nullopt);
  expectEachRefusedWith({store->saveEvent(second, platform::EKSpanThisEvent)}, VdirErrorCode::invalidChange);
}

TEST_F(VdirSavesTest, AnAlarmAtASetTimeIsWrittenAsAUtcTriggerAndReadBack) {
  auto first = march().at(0);
  const platform::Date at = utc(2026, 3, 1, 18, 30).addingTimeInterval(0.75);
  first->setAlarms(std::vector{platform::EKAlarm::alarmWithAbsoluteDate(at),
                               platform::EKAlarm::alarmWithRelativeOffset(-600)});
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  const std::string text = readFile(root.path() / "work/weekly.ics");
  EXPECT_THAT(text, HasSubstr("TRIGGER;VALUE=DATE-TIME:20260301T183000Z\r\n"));
  EXPECT_THAT(text, HasSubstr("TRIGGER:-PT10M\r\n"));
  const auto alarms = march().at(2)->alarms();
  ASSERT_TRUE(alarms);
  ASSERT_EQ(alarms->size(), 2u);
  EXPECT_EQ((*alarms)[0]->absoluteDate(), utc(2026, 3, 1, 18, 30)) << "to the second";
  EXPECT_EQ((*alarms)[1]->relativeOffset(), -600);
  // Saved again as read, nothing is written.
  auto again = march().at(0);
  again->setAlarms(again->alarms());
  ASSERT_EQ(store->saveEvent(again, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_EQ(readFile(root.path() / "work/weekly.ics"), text);
}

TEST_F(VdirSavesTest, SubDailyRulesAreWrittenByTheirNames) {
  using platform::EKRecurrenceRule;
  const std::vector<std::pair<platform::EKRecurrenceFrequency, std::string>> frequencies = {
      {platform::EKRecurrenceFrequencyHourly, "HOURLY"},
      {platform::EKRecurrenceFrequencyMinutely, "MINUTELY"},
      {platform::EKRecurrenceFrequencySecondly, "SECONDLY"}};
  for (const auto& [frequency, name] : frequencies) {
    auto first = march().at(0);
    first->setRecurrenceRules(std::vector{EKRecurrenceRule::recurrenceWithFrequency(
        frequency, 2, platform::EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(3))});
    ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt) << name;
    EXPECT_THAT(readFile(root.path() / "work/weekly.ics"), HasSubstr("RRULE:FREQ=" + name + ";INTERVAL=2;COUNT=3\r\n"));
    const auto rules = march().at(0)->recurrenceRules();
    ASSERT_TRUE(rules && rules->size() == 1) << name;
    EXPECT_EQ(rules->front()->frequency(), frequency);
  }
}

TEST_F(VdirSavesTest, RulesAndAlarmsThatCannotBeWrittenAreRefusedAndNothingChanges) {
  using platform::EKRecurrenceRule;
  const auto before = testing::treeState(root.path());
  auto refusedCode = [&](auto set) {
    auto first = march().at(0);
    set(*first);
    const auto error = store->saveEvent(first, platform::EKSpanFutureEvents);
    return error ? std::optional<std::int64_t>(error->code()) : std::nullopt;
  };
  const auto invalid = static_cast<std::int64_t>(VdirErrorCode::invalidChange);
  auto weekly = [](std::int64_t interval, platform::EKWeekday day, std::vector<platform::AnyObject> months) {
    return EKRecurrenceRule::recurrenceWithFrequency(
        platform::EKRecurrenceFrequencyWeekly, interval,
        std::vector{platform::EKRecurrenceDayOfWeek::dayOfWeek(day)}, std::nullopt, std::move(months),
        std::nullopt, std::nullopt, std::nullopt, nullptr);
  };
  using platform::NSNumber;
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) { e.setRecurrenceRules(std::vector{weekly(0, 2, {})}); }), invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) { e.setRecurrenceRules(std::vector{weekly(1, 9, {})}); }), invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) {
              e.setRecurrenceRules(std::vector{weekly(1, 2, {platform::AnyObject(NSNumber(13))})});
            }),
            invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) {
              e.setRecurrenceRules(std::vector{weekly(1, 2, {platform::AnyObject("March")})});
            }),
            invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) {
              e.setRecurrenceRules(std::vector{weekly(1, 2, {}), weekly(2, 3, {})});
            }),
            invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) {
              e.setRecurrenceRules(std::vector<std::shared_ptr<EKRecurrenceRule>>{nullptr});
            }),
            invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) {
              e.setAlarms(std::vector{platform::EKAlarm::alarmWithAbsoluteDate(
                  platform::Date::fromTimeIntervalSince1970(253402300800.0))});  // the year 10000
            }),
            invalid);
  EXPECT_EQ(refusedCode([&](platform::EKEvent& e) {
              e.setAlarms(std::vector{platform::EKAlarm::alarmWithRelativeOffset(-0.5)});
            }),
            invalid);
  // A rule belongs to the whole series, not to one occurrence.
  auto second = march().at(1);
  second->setRecurrenceRules(std::vector{weekly(1, 2, {})});
  const auto alone = store->saveEvent(second, platform::EKSpanThisEvent);
  ASSERT_TRUE(alone);
  EXPECT_EQ(alone->code(), invalid);
  EXPECT_EQ(testing::treeState(root.path()), before);
}

TEST_F(VdirSavesTest, AvailabilityIsWrittenAsOtherClientsReadIt) {
  auto availabilities = [&] {
    std::vector<platform::EKEventAvailability> found;
    for (const auto& event : march()) found.push_back(event->availability());
    return found;
  };
  const fs::path file = root.path() / "work/weekly.ics";
  auto first = march().at(0);
  first->setAvailability(platform::EKEventAvailabilityTentative);
  EXPECT_EQ(first->availability(), platform::EKEventAvailabilityTentative);  // read back before the save
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(readFile(file), HasSubstr("X-MICROSOFT-CDO-BUSYSTATUS:TENTATIVE\r\n"));
  EXPECT_THAT(readFile(file), Not(HasSubstr("TRANSP")));  // an opaque event needs no TRANSP
  EXPECT_THAT(availabilities(), ElementsAre(2, 2, 2, 2));

  auto second = march().at(1);
  second->setAvailability(platform::EKEventAvailabilityFree);
  ASSERT_EQ(store->saveEvent(second, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(readFile(file), HasSubstr("TRANSP:TRANSPARENT\r\n"));
  EXPECT_THAT(readFile(file), HasSubstr("X-MICROSOFT-CDO-BUSYSTATUS:FREE\r\n"));
  EXPECT_THAT(availabilities(), ElementsAre(2, 1, 2, 2));

  auto fourth = march().at(3);
  fourth->setAvailability(platform::EKEventAvailabilityUnavailable);
  ASSERT_EQ(store->saveEvent(fourth, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(readFile(file), HasSubstr("X-MICROSOFT-CDO-BUSYSTATUS:OOF\r\n"));
  EXPECT_THAT(availabilities(), ElementsAre(2, 1, 2, 3));

  // The same availability again writes nothing.
  const auto before = testing::treeState(root.path());
  auto third = march().at(2);
  third->setAvailability(platform::EKEventAvailabilityTentative);
  ASSERT_EQ(store->saveEvent(third, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_EQ(testing::treeState(root.path()), before);

  for (const platform::EKEventAvailability refused : {platform::EKEventAvailabilityNotSupported, std::int64_t{4}}) {
    third->setAvailability(refused);
    auto error = store->saveEvent(third, platform::EKSpanThisEvent);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(VdirErrorCode::invalidChange));
    EXPECT_THAT(error->localizedDescription(), HasSubstr("an availability is 0 (busy) to 3 (unavailable)"));
  }
  EXPECT_EQ(testing::treeState(root.path()), before);
}

TEST_F(VdirSavesTest, WhatCannotBeSavedIsRefusedWithItsCode) {
  auto first = march().at(0);
  EXPECT_EQ(store->saveEvent(first, 7), vdirError(VdirErrorCode::invalidChange, "unknown span 7"));
  // Saving what was not changed writes nothing.
  const auto before = testing::treeState(root.path());
  EXPECT_EQ(store->saveEvent(first, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_EQ(testing::treeState(root.path()), before);
  EXPECT_EQ(readFile(root.path() / "work/weekly.ics"), kWeekly);
}

TEST_F(VdirSavesTest, AStoredEventComesToLastAllDayOverTheDaysItTouchesAndBack) {
  // 23:30 to 00:30 in Berlin: two days.
  writeEvent("late", "DTSTART:20260311T223000Z\r\nDTEND:20260311T233000Z\r\nSUMMARY:Late\r\nX-KEPT:yes\r\n");
  auto late = [&] { return storedEvent("late"); };
  auto event = late();
  ASSERT_TRUE(event);
  ASSERT_FALSE(event->isAllDay());
  event->setAllDay(true);
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  std::string text = readFile(root.path() / "work/late.ics");
  EXPECT_THAT(text, HasSubstr("DTSTART;VALUE=DATE:20260311\r\n"));
  EXPECT_THAT(text, HasSubstr("DTEND;VALUE=DATE:20260313\r\n"));
  EXPECT_THAT(text, HasSubstr("X-KEPT:yes\r\n"));
  event = late();
  EXPECT_TRUE(event->isAllDay());
  EXPECT_EQ(event->startDate(), utc(2026, 3, 10, 23));  // midnight in Berlin
  EXPECT_EQ(event->endDate(), utc(2026, 3, 12, 23));

  // Back to times: the bounds of those days in the local zone, with its definition.
  event->setAllDay(false);
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  text = readFile(root.path() / "work/late.ics");
  EXPECT_THAT(text, HasSubstr("DTSTART;TZID=Europe/Berlin:20260311T000000\r\n"));
  EXPECT_THAT(text, HasSubstr("DTEND;TZID=Europe/Berlin:20260313T000000\r\n"));
  EXPECT_THAT(text, HasSubstr("BEGIN:VTIMEZONE\r\n"));
  EXPECT_THAT(text, HasSubstr("TZID:Europe/Berlin\r\n"));
  event = late();
  EXPECT_FALSE(event->isAllDay());
  EXPECT_EQ(event->startDate(), utc(2026, 3, 10, 23));

  // An all-day end given as the last second of its day ends that day; an end on the start's day
  // lasts the day.
  for (const auto& [end, written] : {std::pair{utc(2026, 3, 13, 22, 59, 59), "20260314"},
                                     std::pair{utc(2026, 3, 11, 23), "20260313"}}) {
    event = late();
    event->setAllDay(true);
    event->setStartDate(utc(2026, 3, 11, 23));
    event->setEndDate(end);
    ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
    text = readFile(root.path() / "work/late.ics");
    EXPECT_THAT(text, HasSubstr("DTSTART;VALUE=DATE:20260312\r\n"));
    EXPECT_THAT(text, HasSubstr(std::string("DTEND;VALUE=DATE:") + written + "\r\n"));
  }
}

TEST_F(VdirSavesTest, OneOccurrenceOfASeriesComesToLastAllDay) {
  auto second = march().at(1);
  second->setAllDay(true);
  ASSERT_EQ(store->saveEvent(second, platform::EKSpanThisEvent), std::nullopt);
  const std::string text = readFile(root.path() / "work/weekly.ics");
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID:20260309T090000Z\r\n"));  // in the form of the series' start
  EXPECT_THAT(text, HasSubstr("DTSTART;VALUE=DATE:20260309\r\n"));
  EXPECT_THAT(text, HasSubstr("DTEND;VALUE=DATE:20260310\r\n"));
  EXPECT_THAT(text, HasSubstr("DTSTART:20260302T090000Z\r\n"));
  std::vector<bool> allDay;
  for (const auto& event : march()) allDay.push_back(event->isAllDay());
  EXPECT_THAT(allDay, ElementsAre(false, true, false, false));
  EXPECT_THAT(titles(), ElementsAre("Weekly", "Weekly", "Weekly", "Weekly"));
}

TEST_F(VdirSavesTest, AnEventTakesTheZoneSetOnItAndKeepsItsInstants) {
  writeEvent("call", "DTSTART:20260311T090000Z\r\nDTEND:20260311T100000Z\r\nSUMMARY:Call\r\n");
  const fs::path file = root.path() / "work/call.ics";
  auto call = [&] { return storedEvent("call"); };
  auto event = call();
  ASSERT_TRUE(event);
  // New York keeps summer time from 8 March: 09:00 UTC is 05:00 there.
  event->setTimeZone(platform::TimeZone("America/New_York"));
  EXPECT_EQ(event->timeZone(), platform::TimeZone("America/New_York"));
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  std::string text = readFile(file);
  EXPECT_THAT(text, HasSubstr("DTSTART;TZID=America/New_York:20260311T050000\r\n"));
  EXPECT_THAT(text, HasSubstr("DTEND;TZID=America/New_York:20260311T060000\r\n"));
  EXPECT_THAT(text, HasSubstr("TZID:America/New_York\r\n"));  // its VTIMEZONE
  event = call();
  EXPECT_EQ(event->timeZone(), platform::TimeZone("America/New_York"));
  EXPECT_EQ(event->startDate(), utc(2026, 3, 11, 9));
  EXPECT_EQ(event->endDate(), utc(2026, 3, 11, 10));

  // No zone: floating, the same wall-clock time in the local zone (Berlin, 10:00).
  event->setTimeZone(std::nullopt);
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(readFile(file), HasSubstr("DTSTART:20260311T100000\r\n"));
  event = call();
  EXPECT_EQ(event->timeZone(), std::nullopt);
  EXPECT_EQ(event->startDate(), utc(2026, 3, 11, 9));

  event->setTimeZone(platform::TimeZone("UTC"));
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(readFile(file), HasSubstr("DTSTART:20260311T090000Z\r\nDTEND:20260311T100000Z\r\n"));

  const std::string before = readFile(file);
  event = call();
  event->setTimeZone(platform::TimeZone("Mars/Olympus_Mons"));
  const auto error = store->saveEvent(event, platform::EKSpanThisEvent);
  expectEachRefusedWith({error}, VdirErrorCode::unknownTimeZone);
  EXPECT_THAT(error->localizedDescription(), HasSubstr("unknown time zone \"Mars/Olympus_Mons\""));
  EXPECT_EQ(readFile(file), before);
}

TEST_F(VdirSavesTest, ASeriesTakesItsNewZoneWithItsEndExclusionsAndOverrides) {
  writeTuesdays();
  const auto before = tuesdays();
  ASSERT_EQ(before.size(), 3u);
  auto first = firstTuesday();
  ASSERT_TRUE(first);
  // Floating: the UNTIL, the exclusion and the override's times all become Berlin wall-clock times.
  first->setTimeZone(std::nullopt);
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  const std::string text = readFile(root.path() / "work/until.ics");
  EXPECT_THAT(text, HasSubstr("DTSTART:20260303T100000\r\nDTEND:20260303T110000\r\n"));
  EXPECT_THAT(text, HasSubstr("RRULE:FREQ=WEEKLY;UNTIL=20260324T100000\r\n"));
  EXPECT_THAT(text, HasSubstr("EXDATE:20260310T100000\r\n"));
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID:20260317T100000\r\n"));
  EXPECT_EQ(tuesdays(), before);

  // And back to UTC.
  first = firstTuesday();
  ASSERT_TRUE(first);
  first->setTimeZone(platform::TimeZone("UTC"));
  ASSERT_EQ(store->saveEvent(first, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_THAT(readFile(root.path() / "work/until.ics"), HasSubstr("RRULE:FREQ=WEEKLY;UNTIL=20260324T090000Z\r\n"));
  EXPECT_EQ(tuesdays(), before);
}

// vdirsyncer keeps the item of UID ".abc" in ".abc.ics".
TEST_F(VdirSavesTest, AnItemInAHiddenFileIsServedAndSavedInPlace) {
  writeEvent(".abc", "DTSTART:20260311T090000Z\r\nDTEND:20260311T100000Z\r\nSUMMARY:Hidden\r\n");
  auto event = storedEvent(".abc");
  ASSERT_TRUE(event);
  EXPECT_EQ(event->title(), "Hidden");
  event->setTitle("Found");
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(readFile(root.path() / "work/.abc.ics"), HasSubstr("SUMMARY:Found\r\n"));
  EXPECT_EQ(storedEvent(".abc")->title(), "Found");
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(root.path() / "work")) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  EXPECT_THAT(names, ElementsAre(".abc.ics", "weekly.ics"));
}

TEST_F(VdirSavesTest, AWholeSeriesComesToLastAllDayOnTheDaysOfItsOccurrencesAndBack) {
  writeTuesdays();
  auto line = [](platform::Date start, platform::Date end, const std::string& rest) {
    return secondsText(start) + " " + secondsText(end) + rest;
  };
  const auto before = tuesdays();
  ASSERT_EQ(before.size(), 3u);
  auto event = firstTuesday();
  event->setAllDay(true);
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt);
  std::string text = readFile(root.path() / "work/until.ics");
  EXPECT_THAT(text, HasSubstr("DTSTART;VALUE=DATE:20260303\r\nDTEND;VALUE=DATE:20260304\r\n"));
  EXPECT_THAT(text, HasSubstr("RRULE:FREQ=WEEKLY;UNTIL=20260324\r\n"));
  EXPECT_THAT(text, HasSubstr("EXDATE;VALUE=DATE:20260310\r\n"));
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID;VALUE=DATE:20260317\r\nDTSTART;VALUE=DATE:20260317\r\n"
                              "DTEND;VALUE=DATE:20260318\r\n"));
  // Midnight to midnight in Berlin, on the same Tuesdays.
  EXPECT_THAT(tuesdays(), ElementsAre(line(utc(2026, 3, 2, 23), utc(2026, 3, 3, 23), " all day Tuesday"),
                                      line(utc(2026, 3, 16, 23), utc(2026, 3, 17, 23), " all day Moved"),
                                      line(utc(2026, 3, 23, 23), utc(2026, 3, 24, 23), " all day Tuesday")));

  // Back at 09:00 to 10:00 UTC (10:00 in the local zone): every occurrence as it was.
  event = firstTuesday();
  event->setAllDay(false);
  event->setStartDate(utc(2026, 3, 3, 9));
  event->setEndDate(utc(2026, 3, 3, 10));
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt);
  text = readFile(root.path() / "work/until.ics");
  EXPECT_THAT(text, HasSubstr("DTSTART;TZID=Europe/Berlin:20260303T100000\r\n"));
  EXPECT_THAT(text, HasSubstr("RRULE:FREQ=WEEKLY;UNTIL=20260324T090000Z\r\n"));
  EXPECT_THAT(text, HasSubstr("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"));
  EXPECT_EQ(tuesdays(), before);
}

TEST_F(VdirSavesTest, LaterOccurrencesComeToLastAllDayAsASeriesOfTheirOwn) {
  auto third = march().at(2);
  third->setAllDay(true);
  ASSERT_EQ(store->saveEvent(third, platform::EKSpanFutureEvents), std::nullopt);
  std::vector<std::string> found;
  for (const auto& event : march())
    found.push_back(secondsText(*event->startDate()) + (event->isAllDay() ? " all day" : ""));
  auto at = [](platform::Date date, const char* rest) { return secondsText(date) + rest; };
  EXPECT_THAT(found, ElementsAre(at(utc(2026, 3, 2, 9), ""), at(utc(2026, 3, 9, 9), ""),
                                 at(utc(2026, 3, 15, 23), " all day"), at(utc(2026, 3, 22, 23), " all day")));
  EXPECT_NE(march().at(2)->eventIdentifier(), march().at(1)->eventIdentifier());
}

TEST_F(VdirSavesTest, AMovedOccurrenceDoesNotChangeTheZoneOfTheLaterOnes) {
  auto second = march().at(1);
  second->setStartDate(utc(2026, 3, 9, 11));
  second->setEndDate(utc(2026, 3, 9, 12));
  ASSERT_EQ(store->saveEvent(second, platform::EKSpanThisEvent), std::nullopt);
  const std::string before = readFile(root.path() / "work/weekly.ics");
  second = march().at(1);
  second->setTimeZone(platform::TimeZone("Europe/Berlin"));
  EXPECT_EQ(store->saveEvent(second, platform::EKSpanFutureEvents),
            vdirError(VdirErrorCode::invalidChange, "the zone of a repeating event, or whether it lasts all day, is "
                                                    "changed from an occurrence at its usual time"));
  EXPECT_EQ(readFile(root.path() / "work/weekly.ics"), before);
  // From an occurrence at its usual time, the later ones take the zone.
  auto third = march().at(2);
  third->setTimeZone(platform::TimeZone("Europe/Berlin"));
  ASSERT_EQ(store->saveEvent(third, platform::EKSpanFutureEvents), std::nullopt);
  EXPECT_EQ(march().at(2)->timeZone(), platform::TimeZone("Europe/Berlin"));
  EXPECT_EQ(march().at(3)->startDate(), utc(2026, 3, 23, 9));
  EXPECT_EQ(march().at(0)->timeZone(), platform::TimeZone("UTC"));
}

TEST_F(VdirSavesTest, AReminderKeepsTheFormOfItsDueDateAndCompletesAsOtherClientsExpect) {
  writeFile(root.path() / "tasks/displayname", "Tasks");
  writeFile(root.path() / "tasks/seed.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VTODO\r\nUID:seed\r\n"
            "DTSTAMP:20260101T000000Z\r\nSUMMARY:Seed\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
  ASSERT_TRUE(vdirPlatform->refresh());
  std::shared_ptr<platform::EKCalendar> tasks;
  for (const auto& calendar : store->calendarsForEntityType(platform::EKEntityTypeReminder))
    if (calendar->title() == "Tasks") tasks = calendar;
  ASSERT_TRUE(tasks);
  auto make = [&](const std::string& title, platform::DateComponents due) {
    auto reminder = vdirPlatform->reminderWithEventStore(store);
    reminder->setTitle(title);
    reminder->setCalendar(tasks);
    reminder->setDueDateComponents(due);
    EXPECT_EQ(store->saveReminder(reminder), std::nullopt);
    return reminder;
  };
  platform::DateComponents zoned;
  zoned.year = 2026, zoned.month = 3, zoned.day = 6, zoned.hour = 17, zoned.minute = 30;
  zoned.timeZone = platform::TimeZone("Europe/Berlin");
  auto berlin = make("Call", zoned);
  platform::DateComponents floating = zoned;
  floating.timeZone = std::nullopt;
  auto local = make("Stretch", floating);
  const auto file = [&](const std::shared_ptr<platform::EKReminder>& reminder) {
    const std::string& identifier = reminder->calendarItemIdentifier();
    return readFile(root.path() / identifier);
  };
  EXPECT_THAT(file(berlin), HasSubstr("DUE;TZID=Europe/Berlin:20260306T173000\r\n"));
  EXPECT_THAT(file(berlin), HasSubstr("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"));
  EXPECT_THAT(file(local), HasSubstr("DUE:20260306T173000\r\n"));

  auto stored = std::dynamic_pointer_cast<platform::EKReminder>(
      store->calendarItemWithIdentifier(berlin->calendarItemIdentifier()));
  ASSERT_TRUE(stored);
  platform::DateComponents readBack = zoned;  // a stored date-time states its seconds
  readBack.second = 0;
  EXPECT_EQ(stored->dueDateComponents(), readBack);
  stored->setCompleted(true);
  ASSERT_EQ(store->saveReminder(stored), std::nullopt);
  const std::string done = file(berlin);
  EXPECT_THAT(done, HasSubstr("STATUS:COMPLETED\r\n"));
  EXPECT_THAT(done, HasSubstr("PERCENT-COMPLETE:100\r\n"));
  EXPECT_THAT(done, HasSubstr("\r\nCOMPLETED:"));

  platform::DateComponents nowhere = zoned;
  nowhere.timeZone = platform::TimeZone("Mars/Olympus");
  auto lost = vdirPlatform->reminderWithEventStore(store);
  lost->setCalendar(tasks);
  lost->setDueDateComponents(nowhere);
  auto error = store->saveReminder(lost);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), static_cast<std::int64_t>(VdirErrorCode::unknownTimeZone));
  platform::DateComponents february = floating;
  february.month = 2, february.day = 30;
  lost->setDueDateComponents(february);
  error = store->saveReminder(lost);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), static_cast<std::int64_t>(VdirErrorCode::invalidChange));
  platform::DateComponents leap = floating;
  leap.second = 60;
  lost->setDueDateComponents(leap);
  error = store->saveReminder(lost);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), static_cast<std::int64_t>(VdirErrorCode::invalidChange));
  EXPECT_THAT(error->localizedDescription(), HasSubstr("60th second"));
}

TEST_F(VdirSavesTest, AReminderTakesAlarmsAtASetTimeAndRefusesOffsetsRulesAndAZone) {
  auto reminder = seed();
  ASSERT_TRUE(reminder);
  reminder->setAlarms(std::vector{platform::EKAlarm::alarmWithAbsoluteDate(utc(2026, 12, 1, 8, 30))});
  ASSERT_EQ(store->saveReminder(reminder), std::nullopt);
  const fs::path file = root.path() / "tasks/seed.ics";
  const std::string text = readFile(file);
  EXPECT_THAT(text, HasSubstr("BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Seed\r\n"
                              "TRIGGER;VALUE=DATE-TIME:20261201T083000Z\r\nEND:VALARM\r\n"));
  reminder = seed();
  const auto alarms = reminder->alarms();
  ASSERT_TRUE(alarms);
  ASSERT_EQ(alarms->size(), 1u);
  EXPECT_EQ((*alarms)[0]->absoluteDate(), utc(2026, 12, 1, 8, 30));

  // An offset, or a repeat rule, is refused and nothing is written.
  auto offset = seed();
  offset->setAlarms(std::vector{platform::EKAlarm::alarmWithRelativeOffset(-900)});
  auto repeating = seed();
  repeating->setRecurrenceRules(std::vector{platform::EKRecurrenceRule::recurrenceWithFrequency(
      platform::EKRecurrenceFrequencyDaily, 1, nullptr)});
  auto zoned = seed();
  zoned->setTimeZone(platform::TimeZone("Europe/Berlin"));
  expectEachRefusedWith({store->saveReminder(offset), store->saveReminder(repeating), store->saveReminder(zoned)},
                        VdirErrorCode::invalidChange);
  EXPECT_EQ(readFile(file), text);

  // No alarms removes them.
  reminder->setAlarms(std::nullopt);
  ASSERT_EQ(store->saveReminder(reminder), std::nullopt);
  EXPECT_THAT(readFile(file), Not(HasSubstr("VALARM")));
  EXPECT_THAT(seed()->alarms().value_or(std::vector<std::shared_ptr<platform::EKAlarm>>()), ::testing::IsEmpty());
}

TEST_F(VdirSavesTest, AReminderMovesToTheListSetOnIt) {
  auto stored = seed();
  ASSERT_TRUE(stored);
  writeFile(root.path() / "chores/displayname", "Chores");
  ASSERT_TRUE(vdirPlatform->refresh());
  std::shared_ptr<platform::EKCalendar> chores;
  for (const auto& calendar : store->calendarsForEntityType(platform::EKEntityTypeReminder))
    if (calendar->title() == "Chores") chores = calendar;
  for (const auto& calendar : store->calendarsForEntityType(platform::EKEntityTypeEvent))
    if (calendar->title() == "Chores") chores = calendar;
  ASSERT_TRUE(chores);
  stored = seed();
  stored->setCalendar(chores);
  stored->setCompleted(true);
  ASSERT_EQ(store->saveReminder(stored), std::nullopt);
  EXPECT_FALSE(fs::exists(root.path() / "tasks/seed.ics"));
  const std::string moved = readFile(root.path() / "chores/seed.ics");
  EXPECT_THAT(moved, HasSubstr("UID:seed\r\n"));
  EXPECT_THAT(moved, HasSubstr("STATUS:COMPLETED\r\n"));
  auto read = std::dynamic_pointer_cast<platform::EKReminder>(store->calendarItemWithIdentifier("chores/seed.ics"));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->calendar()->calendarIdentifier(), chores->calendarIdentifier());
  EXPECT_TRUE(read->isCompleted());
  // A list that is not the store's is refused, and nothing moves.
  read->setCalendar(nullptr);
  expectEachRefusedWith({store->saveReminder(read)}, VdirErrorCode::noCalendar);
  EXPECT_EQ(readFile(root.path() / "chores/seed.ics"), moved);
}

// A move takes the item's own file name in the new list, or the first of name-1 ... name-99 that is
// free; when all hundred are taken it is refused and both lists stay as they were.
TEST_F(VdirSavesTest, AMoveIsRefusedWhenEveryFileNameItCouldTakeIsTaken) {
  ASSERT_TRUE(seed());
  writeFile(root.path() / "chores/displayname", "Chores");
  auto other = [](int n) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VTODO\r\nUID:other-" + std::to_string(n) +
           "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Other\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  };
  writeFile(root.path() / "chores/seed.ics", other(0));
  for (int n = 1; n < 100; ++n) writeFile(root.path() / ("chores/seed-" + std::to_string(n) + ".ics"), other(n));
  ASSERT_TRUE(vdirPlatform->refresh());
  std::shared_ptr<platform::EKCalendar> chores;
  for (const auto& calendar : store->calendarsForEntityType(platform::EKEntityTypeReminder))
    if (calendar->title() == "Chores") chores = calendar;
  ASSERT_TRUE(chores);

  auto stored = seed();
  stored->setCalendar(chores);
  auto error = store->saveReminder(stored);
  expectEachRefusedWith({error}, VdirErrorCode::invalidChange);
  EXPECT_THAT(error->localizedDescription(), HasSubstr("every file name like \"seed.ics\" is taken in chores"));
  EXPECT_EQ(readFile(root.path() / "tasks/seed.ics"), kSeed);
  EXPECT_EQ(readFile(root.path() / "chores/seed-99.ics"), other(99));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path() / "chores"), fs::directory_iterator()), 101);

  // The last name freed is the one the move takes.
  fs::remove(root.path() / "chores/seed-99.ics");
  ASSERT_TRUE(vdirPlatform->refresh());
  stored = seed();
  stored->setCalendar(chores);
  ASSERT_EQ(store->saveReminder(stored), std::nullopt);
  EXPECT_FALSE(fs::exists(root.path() / "tasks/seed.ics"));
  EXPECT_THAT(readFile(root.path() / "chores/seed-99.ics"), HasSubstr("UID:seed\r\n"));
  EXPECT_EQ(readFile(root.path() / "chores/seed.ics"), other(0));
}

TEST_F(VdirSavesTest, AStoredReminderLosesItsDueDateUnlessSomethingIsCountedFromIt) {
  const std::string head = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VTODO\r\n";
  const std::string tail = "END:VTODO\r\nEND:VCALENDAR\r\n";
  const std::map<std::string, std::string> files = {
      {"dated", "UID:dated\r\nDTSTAMP:20260101T000000Z\r\nDUE;VALUE=DATE:20261201\r\nSUMMARY:Dated\r\n"},
      {"lasting",
       "UID:lasting\r\nDTSTAMP:20260101T000000Z\r\nDTSTART:20261201T090000Z\r\nDURATION:PT2H\r\n"
       "SUMMARY:Lasting\r\n"},
      {"repeating",
       "UID:repeating\r\nDTSTAMP:20260101T000000Z\r\nDUE:20261201T090000Z\r\nRRULE:FREQ=WEEKLY;COUNT=3\r\n"
       "SUMMARY:Repeating\r\n"},
      {"alarmed",
       "UID:alarmed\r\nDTSTAMP:20260101T000000Z\r\nDUE:20261201T090000Z\r\nSUMMARY:Alarmed\r\n"
       "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:x\r\nTRIGGER;RELATED=end:-PT15M\r\nEND:VALARM\r\n"},
  };
  writeFile(root.path() / "tasks/displayname", "Tasks");
  for (const auto& [name, body] : files) writeFile(root.path() / ("tasks/" + name + ".ics"), head + body + tail);
  ASSERT_TRUE(vdirPlatform->refresh());
  auto reminder = [&](const std::string& name) {
    return std::dynamic_pointer_cast<platform::EKReminder>(store->calendarItemWithIdentifier("tasks/" + name + ".ics"));
  };
  auto clear = [&](const std::string& name) {
    auto stored = reminder(name);
    EXPECT_TRUE(stored) << name;
    if (!stored) return std::optional<platform::NSError>();
    stored->setDueDateComponents(std::nullopt);
    EXPECT_EQ(stored->dueDateComponents(), std::nullopt) << name;
    return store->saveReminder(stored);
  };
  ASSERT_TRUE(reminder("dated")->dueDateComponents());
  EXPECT_EQ(clear("dated"), std::nullopt);
  EXPECT_EQ(clear("lasting"), std::nullopt);
  expectEachRefusedWith({clear("repeating"), clear("alarmed")}, VdirErrorCode::invalidChange);

  const std::string dated = readFile(root.path() / "tasks/dated.ics");
  EXPECT_THAT(dated, Not(HasSubstr("DUE")));
  EXPECT_THAT(dated, HasSubstr("SUMMARY:Dated\r\n"));
  const std::string lasting = readFile(root.path() / "tasks/lasting.ics");
  EXPECT_THAT(lasting, Not(HasSubstr("DURATION")));
  EXPECT_THAT(lasting, HasSubstr("DTSTART:20261201T090000Z\r\n"));
  EXPECT_EQ(reminder("dated")->dueDateComponents(), std::nullopt);
  EXPECT_EQ(reminder("lasting")->dueDateComponents(), std::nullopt);
  EXPECT_TRUE(reminder("lasting")->startDateComponents());
  for (const char* name : {"repeating", "alarmed"}) {
    EXPECT_EQ(readFile(root.path() / ("tasks/" + std::string(name) + ".ics")), head + files.at(name) + tail) << name;
    EXPECT_TRUE(reminder(name)->dueDateComponents()) << name;
  }
}

}  // namespace
}  // namespace vesp::vdir
