// A thousand random writes through the platform (events created, retitled, moved in time and removed
// with each span, series moved between calendars, made to stop repeating or to last all day and
// back, reminders created, completed, retitled, moved and removed), each also applied to a plain
// model of what the store should then answer. After every step the store's answers equal the model's, and every hundred
// steps so do those of a store opened cold.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platforms/vdir/VdirPlatform.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::utc;
using testing::writeFile;

constexpr std::int64_t kHour = 3600, kWeek = 7 * 24 * kHour;
const std::vector<std::string> kCalendars = {"Home", "Work"}, kLists = {"Tasks", "Chores"};

// What the store should answer for one occurrence. `instant` is where its series puts it; `start`
// is where it is (an occurrence moved alone is detached from the series and keeps what was set on it).
struct ModelOccurrence {
  int series = 0;
  std::int64_t instant = 0, start = 0;
  std::string title;
  bool detached = false;
};

struct ModelSeries {
  bool recurring = false;
  std::int64_t firstInstant = 0;  // the series' own start: from there a span covers the whole series
  int calendar = 0;
};

struct ModelReminder {
  std::string title;
  int list = 0;
  bool completed = false;
};

// An occurrence or reminder as the store or the model answers it, for comparing the two.
using EventRow = std::tuple<std::string, std::string, std::int64_t, std::int64_t>;  // calendar, title, start, end
using ReminderRow = std::tuple<std::string, std::string, bool>;                     // list, title, completed

// New events are written in the store's zone, Europe/Berlin, so a weekly series keeps its wall-clock
// time across the change to summer time on 29 March 2026 (01:00 UTC) and back on 25 October.
std::int64_t berlinOffset(std::int64_t seconds) { return seconds >= 1774746000 && seconds < 1792890000 ? 7200 : 3600; }
std::int64_t weeksLater(std::int64_t first, int weeks) {
  const std::int64_t naive = first + weeks * kWeek;
  return naive + berlinOffset(first) - berlinOffset(naive);
}

// The midnight in Berlin that starts the day of `seconds`, `days` later. The clocks change at 01:00
// UTC, after midnight: two hours before the midnight read in local seconds is still on its offset.
std::int64_t berlinMidnight(std::int64_t seconds, int days) {
  const std::int64_t local = (seconds + berlinOffset(seconds)) / 86400 * 86400 + days * 86400;
  return local - berlinOffset(local - 7200);
}

std::int64_t secondsOf(platform::Date date) { return static_cast<std::int64_t>(date.timeIntervalSince1970()); }
platform::Date dateOf(std::int64_t seconds) {
  return platform::Date::fromTimeIntervalSince1970(static_cast<double>(seconds));
}

class VdirModelTest : public ::testing::Test {
 protected:
  VdirModelTest() {
    for (const std::string& name : kCalendars) writeFile(root.path() / name / "displayname", name);
    // Each list keeps a to-do of its own, so that it stays a reminder list when the others leave it.
    for (const std::string& name : kLists) {
      writeFile(root.path() / name / "displayname", name);
      writeFile(root.path() / name / "keep.ics",
                "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VTODO\r\nUID:keep-" + name +
                    "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Keep " + name + "\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
      reminders.push_back({"Keep " + name, static_cast<int>(reminders.size()), false});
    }
    writeFile(config.path() / "access.json",
              R"({"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "authorized"}}})");
    platform = open();
    store = platform->makeEventStore();
  }

  std::shared_ptr<VdirPlatform> open() {
    auto options = testing::platformOptions(root.path(), config.path() / "access.json");
    options.store.cacheDirectory = cache.path().string();
    return VdirPlatform::make(std::move(options));
  }

  // The calendar (or list) titled `title`, whichever kind the store takes it for.
  std::shared_ptr<platform::EKCalendar> calendarTitled(const std::string& title) {
    for (auto type : {platform::EKEntityTypeEvent, platform::EKEntityTypeReminder})
      for (const auto& calendar : store->calendarsForEntityType(type))
        if (calendar->title() == title) return calendar;
    return nullptr;
  }

  static std::vector<std::shared_ptr<platform::EKEvent>> allEvents(platform::EKEventStore& from) {
    return from.eventsMatchingPredicate(
        from.predicateForEventsWithStartDate(utc(2025, 12, 1), utc(2027, 6, 1), std::nullopt));
  }

  static std::vector<EventRow> eventRows(platform::EKEventStore& from) {
    std::vector<EventRow> rows;
    for (const auto& event : allEvents(from))
      rows.emplace_back(event->calendar()->title(), event->title().value_or(""), secondsOf(*event->startDate()),
                        secondsOf(*event->endDate()));
    std::sort(rows.begin(), rows.end());
    return rows;
  }

  static std::vector<std::shared_ptr<platform::EKReminder>> allReminders(platform::EKEventStore& from) {
    std::vector<std::shared_ptr<platform::EKReminder>> found;
    for (const auto& predicate :
         {from.predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt, std::nullopt),
          from.predicateForCompletedRemindersWithCompletionDateStarting(std::nullopt, std::nullopt, std::nullopt)}) {
      std::mutex mutex;
      std::condition_variable done;
      bool fetched = false;
      from.fetchRemindersMatchingPredicate(predicate, [&](auto reminders) {
        std::lock_guard lock(mutex);
        if (reminders) found.insert(found.end(), reminders->begin(), reminders->end());
        fetched = true;
        done.notify_all();
      });
      std::unique_lock lock(mutex);
      done.wait(lock, [&] { return fetched; });
    }
    return found;
  }

  static std::vector<ReminderRow> reminderRows(platform::EKEventStore& from) {
    std::vector<ReminderRow> rows;
    for (const auto& reminder : allReminders(from))
      rows.emplace_back(reminder->calendar()->title(), reminder->title().value_or(""), reminder->isCompleted());
    std::sort(rows.begin(), rows.end());
    return rows;
  }

  // The model's answers; with `allDay`, that series lasts all day: each occurrence at its usual time
  // from midnight to midnight in Berlin on its day, each moved alone where it was moved.
  std::vector<EventRow> modelEventRows(std::optional<int> allDay = std::nullopt) const {
    std::vector<EventRow> rows;
    for (const ModelOccurrence& o : occurrences) {
      const std::string& calendar = kCalendars[series.at(o.series).calendar];
      if (o.series == allDay && o.start == o.instant)
        rows.emplace_back(calendar, o.title, berlinMidnight(o.instant, 0), berlinMidnight(o.instant, 1));
      else
        rows.emplace_back(calendar, o.title, o.start, o.start + kHour);
    }
    std::sort(rows.begin(), rows.end());
    return rows;
  }

  std::vector<ReminderRow> modelReminderRows() const {
    std::vector<ReminderRow> rows;
    for (const ModelReminder& r : reminders) rows.emplace_back(kLists[r.list], r.title, r.completed);
    std::sort(rows.begin(), rows.end());
    return rows;
  }

  // The store's occurrence that the model's occurrence `o` stands for: titles are unique to a series.
  std::shared_ptr<platform::EKEvent> served(const ModelOccurrence& o) {
    for (const auto& event : allEvents(*store))
      if (event->title() == o.title && secondsOf(*event->startDate()) == o.start) return event;
    return nullptr;
  }

  std::shared_ptr<platform::EKReminder> served(const ModelReminder& r) {
    for (const auto& reminder : allReminders(*store))
      if (reminder->title() == r.title) return reminder;
    return nullptr;
  }

  static std::uint32_t seed() {
    const char* given = std::getenv("VESP_MODEL_SEED");
    return given ? static_cast<std::uint32_t>(std::stoul(given)) : 20261126u;
  }
  std::string nextTitle(const char* kind) { return kind + std::to_string(++titles); }
  template <typename T>
  std::size_t any(const std::vector<T>& from) {
    return indexBelow(from.size());
  }
  std::size_t indexBelow(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); }
  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); }

  void createEvent();
  void retitle(platform::EKSpan span);
  void shiftAlone();
  void remove(platform::EKSpan span);
  void moveSeries();
  void stopRepeating();
  void allDayAndBack();
  void createReminder();
  void changeReminder();
  void removeReminder();
  void step(int kind);

  testing::TemporaryDirectory root, config, cache;
  std::shared_ptr<VdirPlatform> platform;
  std::shared_ptr<platform::EKEventStore> store;
  // Another seed explores other histories: VESP_MODEL_SEED=n.
  std::mt19937 random{seed()};
  std::vector<ModelOccurrence> occurrences;
  std::map<int, ModelSeries> series;
  std::vector<ModelReminder> reminders;
  int titles = 0;
  std::string done;  // what the last step did, for a failure's message
};

void VdirModelTest::createEvent() {
  const int id = static_cast<int>(series.size());
  ModelSeries made;
  made.calendar = below(2);
  made.firstInstant = secondsOf(utc(2026, 1, 5, 6 + below(12))) + below(150) * 24 * kHour;
  const int count = below(3) == 0 ? 1 : 2 + below(5);
  made.recurring = count > 1;
  const std::string title = nextTitle("E");
  auto event = platform->eventWithEventStore(store);
  event->setTitle(title);
  event->setStartDate(dateOf(made.firstInstant));
  event->setEndDate(dateOf(made.firstInstant + kHour));
  event->setCalendar(calendarTitled(kCalendars[made.calendar]));
  if (made.recurring)
    event->setRecurrenceRules(std::vector{platform::EKRecurrenceRule::recurrenceWithFrequency(
        platform::EKRecurrenceFrequencyWeekly, 1, platform::EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(count))});
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  series[id] = made;
  for (int k = 0; k < count; ++k)
    occurrences.push_back({id, weeksLater(made.firstInstant, k), weeksLater(made.firstInstant, k), title, false});
  done = "created " + title + " with " + std::to_string(count) + " occurrences";
}

void VdirModelTest::retitle(platform::EKSpan span) {
  if (occurrences.empty()) return createEvent();
  ModelOccurrence& chosen = occurrences[any(occurrences)];
  auto event = served(chosen);
  ASSERT_TRUE(event) << chosen.title;
  const std::string title = nextTitle("T");
  event->setTitle(title);
  ASSERT_EQ(store->saveEvent(event, span), std::nullopt) << "retitling " << chosen.title;
  done = "retitled " + chosen.title + (span == platform::EKSpanThisEvent ? " alone" : " and later") + " as " + title;
  const ModelSeries& of = series.at(chosen.series);
  if (!of.recurring || span == platform::EKSpanThisEvent) {
    chosen.detached = of.recurring;
    chosen.title = title;
    return;
  }
  // This and every later occurrence: from the series' start the whole series, else a new series.
  // Occurrences detached before keep their own titles; the one the change was made on takes it.
  const int from = chosen.series;
  const std::int64_t at = chosen.instant;
  int to = from;
  if (at != of.firstInstant) {
    to = static_cast<int>(series.size());
    series[to] = {true, at, of.calendar};
  }
  for (ModelOccurrence& o : occurrences) {
    if (o.series != from || o.instant < at) continue;
    o.series = to;
    if (!o.detached || o.instant == at) o.title = title;
  }
}

void VdirModelTest::shiftAlone() {
  if (occurrences.empty()) return createEvent();
  ModelOccurrence& chosen = occurrences[any(occurrences)];
  auto event = served(chosen);
  ASSERT_TRUE(event) << chosen.title;
  const std::int64_t start = chosen.instant + (1 + below(3)) * kHour;
  event->setStartDate(dateOf(start));
  event->setEndDate(dateOf(start + kHour));
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt) << "moving " << chosen.title;
  done = "moved " + chosen.title + " alone by " + std::to_string((start - chosen.instant) / kHour) + " hours";
  if (chosen.start != start) chosen.detached = series.at(chosen.series).recurring;
  chosen.start = start;
}

void VdirModelTest::remove(platform::EKSpan span) {
  if (occurrences.empty()) return createEvent();
  const ModelOccurrence chosen = occurrences[any(occurrences)];
  auto event = served(chosen);
  ASSERT_TRUE(event) << chosen.title;
  ASSERT_EQ(store->removeEvent(event, span), std::nullopt) << "removing " << chosen.title;
  done = "removed " + chosen.title + (span == platform::EKSpanThisEvent ? " alone" : " and later");
  const bool alone = span == platform::EKSpanThisEvent && series.at(chosen.series).recurring;
  std::erase_if(occurrences, [&](const ModelOccurrence& o) {
    return o.series == chosen.series && (alone ? o.instant == chosen.instant : o.instant >= chosen.instant);
  });
}

// An occurrence saved without repeat rules for it and every later one: the series stops before it,
// and it stands alone as it was (from the series' start, the series is that occurrence alone).
void VdirModelTest::stopRepeating() {
  if (occurrences.empty()) return createEvent();
  ModelOccurrence& chosen = occurrences[any(occurrences)];
  auto event = served(chosen);
  ASSERT_TRUE(event) << chosen.title;
  event->setRecurrenceRules(std::nullopt);
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt) << "stopping " << chosen.title;
  done = "stopped the repeats of " + chosen.title;
  const ModelSeries of = series.at(chosen.series);
  if (!of.recurring) return;
  const int from = chosen.series, alone = static_cast<int>(series.size());
  const std::int64_t at = chosen.instant;
  series[alone] = {false, at, of.calendar};
  chosen.series = alone;
  chosen.detached = false;
  std::erase_if(occurrences, [&](const ModelOccurrence& o) { return o.series == from && o.instant >= at; });
}

// A whole series moves: the host changes the calendar of its first occurrence, for it and every later one.
void VdirModelTest::moveSeries() {
  std::vector<std::size_t> firsts;
  for (std::size_t i = 0; i < occurrences.size(); ++i)
    if (occurrences[i].instant == series.at(occurrences[i].series).firstInstant) firsts.push_back(i);
  if (firsts.empty()) return createEvent();
  const ModelOccurrence chosen = occurrences[firsts[any(firsts)]];
  ModelSeries& of = series.at(chosen.series);
  auto event = served(chosen);
  ASSERT_TRUE(event) << chosen.title;
  of.calendar = 1 - of.calendar;
  event->setCalendar(calendarTitled(kCalendars[of.calendar]));
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt) << "moving " << chosen.title;
  done = "moved the series of " + chosen.title + " to " + kCalendars[of.calendar];
}

// A whole series comes to last all day, from its first occurrence, and then back to its hour: in
// between, the store serves each of its occurrences on its own day; after, all as they were.
void VdirModelTest::allDayAndBack() {
  std::vector<std::size_t> firsts;
  for (std::size_t i = 0; i < occurrences.size(); ++i)
    if (occurrences[i].instant == series.at(occurrences[i].series).firstInstant &&
        occurrences[i].start == occurrences[i].instant)
      firsts.push_back(i);
  if (firsts.empty()) return createEvent();
  const ModelOccurrence chosen = occurrences[firsts[any(firsts)]];
  auto event = served(chosen);
  ASSERT_TRUE(event) << chosen.title;
  event->setAllDay(true);
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt) << "all day: " << chosen.title;
  done = "made the series of " + chosen.title + " last all day";
  ASSERT_EQ(eventRows(*store), modelEventRows(chosen.series)) << done;
  event = nullptr;
  for (const auto& found : allEvents(*store))
    if (found->title() == chosen.title && secondsOf(*found->startDate()) == berlinMidnight(chosen.instant, 0))
      event = found;
  ASSERT_TRUE(event) << chosen.title;
  ASSERT_TRUE(event->isAllDay());
  event->setAllDay(false);
  event->setStartDate(dateOf(chosen.instant));
  event->setEndDate(dateOf(chosen.instant + kHour));
  ASSERT_EQ(store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt) << "timed: " << chosen.title;
  done += ", and back";
}

void VdirModelTest::createReminder() {
  ModelReminder made{nextTitle("R"), below(2), false};
  auto reminder = platform->reminderWithEventStore(store);
  reminder->setTitle(made.title);
  reminder->setCalendar(calendarTitled(kLists[made.list]));
  ASSERT_EQ(store->saveReminder(reminder), std::nullopt);
  reminders.push_back(made);
  done = "created " + made.title;
}

// Completes or reopens, retitles or moves to the other list one reminder.
void VdirModelTest::changeReminder() {
  ModelReminder& chosen = reminders[any(reminders)];
  auto reminder = served(chosen);
  ASSERT_TRUE(reminder) << chosen.title;
  const int change = below(3);
  done = "changed " + chosen.title;
  if (change == 0) {
    chosen.completed = !chosen.completed;
    reminder->setCompleted(chosen.completed);
  } else if (change == 1) {
    chosen.title = nextTitle("R");
    reminder->setTitle(chosen.title);
  } else {
    chosen.list = 1 - chosen.list;
    reminder->setCalendar(calendarTitled(kLists[chosen.list]));
  }
  ASSERT_EQ(store->saveReminder(reminder), std::nullopt) << done;
}

void VdirModelTest::removeReminder() {
  // The lists' own to-dos stay, so that the lists stay lists.
  if (reminders.size() <= kLists.size()) return createReminder();
  const std::size_t chosen = kLists.size() + indexBelow(reminders.size() - kLists.size());
  auto reminder = served(reminders[chosen]);
  ASSERT_TRUE(reminder) << reminders[chosen].title;
  ASSERT_EQ(store->removeReminder(reminder), std::nullopt);
  done = "removed " + reminders[chosen].title;
  reminders.erase(reminders.begin() + static_cast<std::ptrdiff_t>(chosen));
}

void VdirModelTest::step(int kind) {
  switch (kind) {
    case 0:
    case 1:
      return createEvent();
    case 2: return retitle(platform::EKSpanThisEvent);
    case 3: return retitle(platform::EKSpanFutureEvents);
    case 4: return shiftAlone();
    case 5: return remove(platform::EKSpanThisEvent);
    case 6: return remove(platform::EKSpanFutureEvents);
    case 7: return moveSeries();
    case 8:
    case 9:
      return createReminder();
    case 10: return changeReminder();
    case 11: return removeReminder();
    case 12: return allDayAndBack();
    default: return stopRepeating();
  }
}

TEST_F(VdirModelTest, AThousandRandomWritesLeaveTheStoreAnsweringAsTheModelDoes) {
  for (int n = 1; n <= 1000; ++n) {
    step(below(14));
    if (HasFatalFailure()) return;
    SCOPED_TRACE("step " + std::to_string(n) + ": " + done);
    ASSERT_EQ(eventRows(*store), modelEventRows());
    ASSERT_EQ(reminderRows(*store), modelReminderRows());
    if (n % 100 != 0) continue;
    // A store opened cold (with the cache the last one left) answers the same.
    auto cold = open()->makeEventStore();
    ASSERT_EQ(eventRows(*cold), modelEventRows());
    ASSERT_EQ(reminderRows(*cold), modelReminderRows());
  }
  EXPECT_GT(occurrences.size(), 10u);
  EXPECT_GT(reminders.size(), 5u);
}

}  // namespace
}  // namespace vesp::vdir
