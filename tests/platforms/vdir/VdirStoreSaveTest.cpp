// Saving through the vdir store: what a save writes, what it refuses, and that every query sees
// it when the save returns, from re-reading only the files it wrote.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirStore.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::codeOf;
using ::testing::HasSubstr;
using testing::readFile;
using testing::simpleEvent;
using testing::TemporaryDirectory;
using testing::utc;
using testing::writeFile;
namespace fs = std::filesystem;

std::string event(int i, const std::string& title) {
  return simpleEvent("e" + std::to_string(i), title, "20260310T090000Z", "20260310T100000Z");
}

std::set<std::string> titlesOn10March(VdirStore& store) {
  std::set<std::string> titles;
  for (const auto& found : store.events(utc(2026, 3, 10), utc(2026, 3, 11), std::nullopt)) titles.insert(*found->title());
  return titles;
}

std::string todoFile(const std::string& uid, const std::string& title) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:" + uid +
         "\r\nSUMMARY:" + title + "\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
}

// One file holding two events, each its own series.
std::string twoEvents(const std::string& first, const std::string& second, const std::string& title) {
  auto one = simpleEvent(first, title, "20260310T090000Z", "20260310T100000Z");
  auto two = simpleEvent(second, title + " too", "20260310T110000Z", "20260310T120000Z");
  const std::string end = "END:VCALENDAR\r\n";
  const auto begin = two.find("BEGIN:VEVENT");
  return one.substr(0, one.size() - end.size()) + two.substr(begin);
}

VdirFileChange replacing(const VdirFileToEdit& file, std::string bytes) {
  return {file.collection, file.name, std::move(bytes), file.basis};
}

class VdirStoreSaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 10; ++i) writeFile(root.path() / "c" / ("e" + std::to_string(i) + ".ics"), event(i, "E" + std::to_string(i)));
    writeFile(root.path() / "d/displayname", "Other\n");  // an empty collection
  }
  std::shared_ptr<VdirPlatform> open(bool watch = false) {
    auto options = testing::platformOptions(root.path(), config.path() / "access.json", watch);
    options.store.cacheDirectory = (config.path() / "cache").string();
    return VdirPlatform::make(options);
  }
  TemporaryDirectory root, config;
};

TEST_F(VdirStoreSaveTest, ASaveIsServedWhenItReturnsFromReadingOnlyTheFilesItWrote) {
  auto platform = open();
  auto& store = *platform->store();
  ASSERT_EQ(store.parseCount(), 10u);
  const auto rescans = store.rescanCount();

  auto file = store.readToEdit("c", "e3.ics");
  ASSERT_TRUE(file.has_value()) << file.error().message();
  ASSERT_TRUE(file->basis.status.has_value());
  EXPECT_EQ(file->basis.text, event(3, "E3"));
  auto saved = store.save({replacing(*file, event(3, "Changed"))});
  ASSERT_TRUE(saved.has_value()) << saved.error().message();
  EXPECT_EQ(readFile(root.path() / "c/e3.ics"), event(3, "Changed"));
  EXPECT_TRUE(titlesOn10March(store).count("Changed"));
  EXPECT_FALSE(titlesOn10March(store).count("E3"));
  EXPECT_EQ(store.parseCount(), 11u);
  EXPECT_EQ(store.rescanCount(), rescans);
  EXPECT_EQ((*saved)->generation, store.snapshot()->generation);

  // A new file, then a removal.
  auto fresh = store.readToEdit("d", "new.ics");
  ASSERT_TRUE(fresh.has_value());
  EXPECT_FALSE(fresh->basis.status.has_value());
  ASSERT_TRUE(store.save({replacing(*fresh, event(20, "New"))}).has_value());
  auto gone = store.readToEdit("c", "e4.ics");
  ASSERT_TRUE(gone.has_value());
  ASSERT_TRUE(store.save({{"c", "e4.ics", std::nullopt, gone->basis}}).has_value());
  EXPECT_FALSE(fs::exists(root.path() / "c/e4.ics"));
  auto titles = titlesOn10March(store);
  EXPECT_EQ(titles.size(), 10u);
  EXPECT_TRUE(titles.count("New"));
  EXPECT_FALSE(titles.count("E4"));
  EXPECT_NE(store.firstOccurrence("d/new.ics"), nullptr);
  EXPECT_EQ(store.firstOccurrence("c/e4.ics"), nullptr);
  EXPECT_EQ(store.parseCount(), 12u);  // the removed file was looked for, not parsed
  EXPECT_EQ(store.saveCount(), 3u);

  // What the saves left is what a full scan finds: nothing new, nothing read again.
  EXPECT_FALSE(store.refresh());
  EXPECT_EQ(store.parseCount(), 12u);
  EXPECT_EQ(titlesOn10March(store), titles);
  // And a store opened afresh serves the same.
  platform.reset();
  auto reopened = open();
  EXPECT_EQ(titlesOn10March(*reopened->store()), titles);
}

TEST_F(VdirStoreSaveTest, EveryConnectionHearsOfASaveOnceAndTheWatcherAddsNothing) {
  auto platform = open(true);
  auto first = platform->makeEventStore(), second = platform->makeEventStore();
  std::mutex mutex;
  int count = 0;
  for (const auto& connection : {first, second})
    platform->defaultCenter()->addObserver(
        connection, "storeChanged:",
        [&](const platform::Notification&) {
          std::lock_guard lock(mutex);
          ++count;
        },
        platform::EKEventStoreChangedNotification, connection.get());
  auto file = platform->store()->readToEdit("c", "e1.ics");
  ASSERT_TRUE(file.has_value());
  ASSERT_TRUE(platform->store()->save({replacing(*file, event(1, "Changed"))}).has_value());
  {
    // Told on the saving thread, before the save returns.
    std::lock_guard lock(mutex);
    EXPECT_EQ(count, 2);
  }
  // Long past the watcher's quiet period and longest delay: its rescan found nothing new.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  for (const auto& connection : {first, second})
    platform->defaultCenter()->removeObserver(connection.get(), std::nullopt, nullptr);
  std::lock_guard lock(mutex);
  EXPECT_EQ(count, 2);
}

TEST_F(VdirStoreSaveTest, AFileChangedOnDiskSinceItWasReadIsLeftAsTheOtherProgramWroteIt) {
  auto platform = open();
  auto& store = *platform->store();
  auto file = store.readToEdit("c", "e2.ics");
  ASSERT_TRUE(file.has_value());
  writeFile(root.path() / "c/e2.ics", event(2, "Theirs"));
  auto saved = store.save({replacing(*file, event(2, "Ours"))});
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(codeOf(saved.error()), VdirErrorCode::changedOnDisk);
  EXPECT_EQ(saved.error().message(), "c/e2.ics changed on disk since it was read: nothing was saved");
  EXPECT_EQ(readFile(root.path() / "c/e2.ics"), event(2, "Theirs"));
  EXPECT_EQ(store.saveCount(), 0u);
  EXPECT_TRUE(store.refresh());
  EXPECT_TRUE(titlesOn10March(store).count("Theirs"));
}

TEST_F(VdirStoreSaveTest, AMoveWhoseRemovalFailsTakesItsNewFileBack) {
  auto platform = open();
  auto& store = *platform->store();
  auto from = store.readToEdit("c", "e5.ics");
  auto to = store.readToEdit("d", "e5.ics");
  ASSERT_TRUE(from.has_value() && to.has_value());
  writeFile(root.path() / "c/e5.ics", event(5, "Changed meanwhile"));
  auto saved = store.save({{"c", "e5.ics", std::nullopt, from->basis}, replacing(*to, event(5, "E5"))});
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(codeOf(saved.error()), VdirErrorCode::changedOnDisk);
  EXPECT_FALSE(fs::exists(root.path() / "d/e5.ics"));
  EXPECT_EQ(readFile(root.path() / "c/e5.ics"), event(5, "Changed meanwhile"));

  // The same move over what is there now goes through, new file first.
  from = store.readToEdit("c", "e5.ics");
  ASSERT_TRUE(from.has_value());
  ASSERT_TRUE(store.save({{"c", "e5.ics", std::nullopt, from->basis}, replacing(*to, from->basis.text)}).has_value());
  EXPECT_FALSE(fs::exists(root.path() / "c/e5.ics"));
  EXPECT_EQ(readFile(root.path() / "d/e5.ics"), event(5, "Changed meanwhile"));
  EXPECT_NE(store.firstOccurrence("d/e5.ics"), nullptr);
  EXPECT_EQ(store.firstOccurrence("c/e5.ics"), nullptr);
}

TEST_F(VdirStoreSaveTest, AFileThatWasNotReadWholeIsRefusedAndSaysWhy) {
  // No UID: served with one made up, so writing it back would not be the same item.
  writeFile(root.path() / "c/repaired.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nSUMMARY:No UID\r\nDTSTART:20260310T090000Z\r\n"
            "END:VEVENT\r\nEND:VCALENDAR\r\n");
  auto platform = open();
  auto file = platform->store()->readToEdit("c", "repaired.ics");
  ASSERT_FALSE(file.has_value());
  EXPECT_EQ(codeOf(file.error()), VdirErrorCode::notReadWhole);
  EXPECT_NE(file.error().message().find("c/repaired.ics was not read whole (repaired: "), std::string::npos)
      << file.error().message();
  EXPECT_NE(file.error().message().find("writing it back would lose what could not be read"), std::string::npos);
}

TEST_F(VdirStoreSaveTest, ACollectionWhoseDirectoryIsNotWritableRefusesEverySave) {
  auto platform = open();
  auto& store = *platform->store();
  auto file = store.readToEdit("c", "e1.ics");
  ASSERT_TRUE(file.has_value());
  ASSERT_EQ(::chmod((root.path() / "c").c_str(), 0555), 0);
  auto refused = store.readToEdit("c", "e1.ics");
  auto saved = store.save({replacing(*file, event(1, "Changed"))});
  const bool allowedBefore = store.snapshot()->collections[0].calendar->allowsContentModifications();
  store.refresh();
  const bool allowedAfter = store.snapshot()->collections[0].calendar->allowsContentModifications();
  ::chmod((root.path() / "c").c_str(), 0755);
  EXPECT_TRUE(allowedBefore);
  EXPECT_FALSE(allowedAfter);  // seen by the next scan
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(codeOf(refused.error()), VdirErrorCode::readOnlyCalendar);
  EXPECT_EQ(refused.error().message(), "the calendar \"c\" is read-only: its directory cannot be written");
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(codeOf(saved.error()), VdirErrorCode::readOnlyCalendar);
  EXPECT_EQ(readFile(root.path() / "c/e1.ics"), event(1, "E1"));

  auto unknown = store.readToEdit("nowhere", "x.ics");
  ASSERT_FALSE(unknown.has_value());
  EXPECT_EQ(codeOf(unknown.error()), VdirErrorCode::noCalendar);
}

TEST_F(VdirStoreSaveTest, SavingWithoutAChangeWritesNothing) {
  auto platform = open();
  auto& store = *platform->store();
  struct stat before {};
  ASSERT_EQ(::stat((root.path() / "c/e1.ics").c_str(), &before), 0);
  auto file = store.readToEdit("c", "e1.ics");
  ASSERT_TRUE(file.has_value());
  auto saved = store.save({replacing(*file, file->basis.text)});
  ASSERT_TRUE(saved.has_value());
  struct stat after {};
  ASSERT_EQ(::stat((root.path() / "c/e1.ics").c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(store.saveCount(), 0u);
  EXPECT_EQ(store.parseCount(), 10u);
}

TEST_F(VdirStoreSaveTest, ASaveReplacesOrRemovesOneFileAtMost) {
  auto platform = open();
  auto& store = *platform->store();
  auto a = store.readToEdit("c", "e1.ics"), b = store.readToEdit("c", "e2.ics");
  ASSERT_TRUE(a.has_value() && b.has_value());
  auto saved = store.save({replacing(*a, event(1, "A")), replacing(*b, event(2, "B"))});
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(codeOf(saved.error()), VdirErrorCode::invalidChange);
  EXPECT_EQ(readFile(root.path() / "c/e1.ics"), event(1, "E1"));
}

TEST_F(VdirStoreSaveTest, OnlyFilesAScanReadsAreSaved) {
  auto platform = open();
  auto& store = *platform->store();
  const auto before = testing::treeState(root.path());
  for (const std::string name : {"notes.txt", ".e1.ics.4242-17.tmp", "e1.ics#x", "ics"}) {
    auto file = store.readToEdit("c", name);
    ASSERT_TRUE(file.has_value()) << name;
    auto saved = store.save({replacing(*file, event(40, "Stray"))});
    ASSERT_FALSE(saved.has_value()) << name;
    EXPECT_EQ(codeOf(saved.error()), VdirErrorCode::invalidChange);
    EXPECT_THAT(saved.error().message(), HasSubstr("\"" + name + "\" is not the name of an item's file"));
  }
  EXPECT_EQ(testing::treeState(root.path()), before);
}

TEST_F(VdirStoreSaveTest, AnItemsPathGivesItsCollectionAndTheFileNameOnDisk) {
  writeFile(root.path() / "c" / "caf\xE9 100%.ics", event(30, "Latin-1"));
  auto platform = open();
  auto& store = *platform->store();
  auto item = store.firstOccurrence("c/caf%E9 100%25.ics");
  ASSERT_NE(item, nullptr);
  auto file = store.fileOf("c/caf%E9 100%25.ics");
  ASSERT_TRUE(file.has_value());
  EXPECT_EQ(file->first, "c");
  EXPECT_EQ(file->second, "caf\xE9 100%.ics");
  auto read = store.readToEdit(file->first, file->second);
  ASSERT_TRUE(read.has_value());
  ASSERT_TRUE(store.save({replacing(*read, event(30, "Saved"))}).has_value());
  EXPECT_TRUE(titlesOn10March(store).count("Saved"));
  EXPECT_EQ(store.fileOf("no-slash"), std::nullopt);
  EXPECT_EQ(store.fileOf("c/100%.ics"), std::nullopt);
}

// Everything a snapshot serves, as lines of text: the collections with their calendars' fields and
// items, the look-up table and the problems found.
std::vector<std::string> served(const VdirSnapshot& snapshot) {
  std::vector<std::string> lines{"root " + std::to_string(snapshot.rootExists) + std::to_string(snapshot.rootReadable)};
  auto title = [](const VdirComponentData& data) { return data.details->summary.value_or("-"); };
  for (const auto& collection : snapshot.collections) {
    const auto& fields = collection.calendar->fields();
    lines.push_back("collection " + collection.identifier + " \"" + fields.title + "\" types " +
                    std::to_string(fields.entityTypes) + (fields.writable ? " writable" : ""));
    for (const auto& item : collection.items) {
      std::string line = "  " + item->relativePath;
      for (const auto& series : item->series)
        line += " series " + series.identifier + " " + (series.master ? title(*series.master) : "(overrides)");
      for (const auto& todo : item->todos) line += " to-do " + todo.todoData->identifier + " " + title(todo);
      lines.push_back(line);
    }
  }
  std::vector<std::string> entries;
  snapshot.entries.forEach([&](std::string_view identifier, const VdirSnapshot::Entry& entry) {
    const auto& items = snapshot.collections.at(entry.collection).items;
    const bool inCollection = std::find(items.begin(), items.end(), entry.item) != items.end();
    entries.push_back("entry " + std::string(identifier) + " " + entry.item->relativePath +
                      (entry.todo ? " to-do " : " series ") + std::to_string(entry.index) +
                      (inCollection ? "" : " (not in its collection)"));
  });
  std::sort(entries.begin(), entries.end());
  lines.insert(lines.end(), entries.begin(), entries.end());
  lines.push_back("entries " + std::to_string(snapshot.entries.size()));
  std::vector<std::string> problems;
  for (const auto& diagnostic : snapshot.diagnostics)
    problems.push_back("problem " + diagnostic.path + ": " + diagnostic.problem);
  std::sort(problems.begin(), problems.end());
  lines.insert(lines.end(), problems.begin(), problems.end());
  return lines;
}

// The occurrences of March 2026, as lines of text, each with the file it was read from.
std::vector<std::string> march(VdirStore& store) {
  std::vector<std::string> lines;
  for (const auto& event : store.events(utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt)) {
    auto read = std::dynamic_pointer_cast<VdirEvent>(event);
    lines.push_back(event->eventIdentifier().value_or("-") + " " + event->title().value_or("-") + " " +
                    event->startDate().value().iso8601() + " " + event->calendar()->calendarIdentifier() + " from " +
                    (read ? read->fields().item->relativePath : "?"));
  }
  return lines;
}

// Random creations, replacements, removals and moves of whole files, each checked against a scan
// of the tree from nothing: a save patches the snapshot before it (and a query after it, the time
// index and the expansions it keeps), and must serve what a scan would.
TEST_F(VdirStoreSaveTest, WhatASaveServesIsWhatAScanOfTheTreeServes) {
  writeFile(root.path() / "t/t.ics", todoFile("t", "Todo"));  // a reminder list, until events come into it
  auto platform = open();
  auto& store = *platform->store();
  const std::vector<std::string> collections{"c", "d", "t"};
  std::mt19937 random(20261126);
  auto below = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); };
  // What a file may hold: an event, a daily one, a to-do, two events (two series) or what is no
  // iCalendar at all. The second of two events has the UID "x.ics", so the file "f0.ics#x.ics" and
  // the second series of "f0.ics" name the same identifier.
  auto content = [&](std::size_t step) {
    const std::string n = std::to_string(step);
    switch (below(9)) {
      case 0: return std::string("not a calendar ") + n;
      case 1: case 2: return todoFile("t" + n, "To-do " + n);
      case 3: case 4: return twoEvents("a" + n, "x.ics", "Pair " + n);
      case 5: {
        const std::string day = "2026030" + std::to_string(1 + below(9));
        return simpleEvent("d" + n, "Daily " + n, day + "T080000Z", day + "T090000Z",
                           "RRULE:FREQ=DAILY;COUNT=" + std::to_string(2 + below(40)) + "\r\n");
      }
      default: return simpleEvent("e" + n, "Event " + n, "20260310T090000Z", "20260310T100000Z");
    }
  };
  std::set<std::string> broken;  // files that cannot be read to edit them
  std::size_t saves = 0;
  for (std::size_t step = 0; step < 200; ++step) {
    const std::string collection = collections[below(3)];
    const std::string name = below(3) == 0 ? "f0.ics#x.ics" : "f" + std::to_string(below(5)) + ".ics";
    if (broken.count(collection + "/" + name)) continue;
    auto file = store.readToEdit(collection, name);
    ASSERT_TRUE(file.has_value()) << file.error().message();
    std::vector<VdirFileChange> changes;
    std::string text = content(step);
    if (!file->basis.status) {
      changes.push_back(replacing(*file, text));
    } else if (const auto choice = below(3); choice == 0) {
      changes.push_back(replacing(*file, text));
    } else if (choice == 1) {
      changes.push_back({collection, name, std::nullopt, file->basis});
    } else {
      // A move: the file's text into another collection, under the same name when it is free there.
      const std::string other = collections[(std::find(collections.begin(), collections.end(), collection) -
                                             collections.begin() + 1 + below(2)) % 3];
      if (broken.count(other + "/" + name)) continue;
      auto target = store.readToEdit(other, name);
      ASSERT_TRUE(target.has_value()) << target.error().message();
      if (target->basis.status) continue;
      text = file->basis.text;
      changes.push_back(replacing(*target, text));
      changes.push_back({collection, name, std::nullopt, file->basis});
    }
    auto saved = store.save(changes);
    ASSERT_TRUE(saved.has_value()) << saved.error().message();
    ++saves;
    for (const auto& change : changes)
      if (change.bytes && change.bytes->rfind("not a calendar", 0) == 0)
        broken.insert(change.collection + "/" + change.name);
    VdirStoreOptions options = platform->store()->options();
    options.cacheDirectory = "";
    auto scanned = VdirStore::make(options);
    ASSERT_EQ(served(*store.snapshot()), served(*scanned->snapshot())) << "after save " << saves;
    ASSERT_EQ(march(store), march(*scanned)) << "after save " << saves;
  }
  EXPECT_GT(saves, 100u);
  // The records kept for the files written are those of the files on disk: a rescan reads nothing.
  const auto parses = store.parseCount();
  EXPECT_FALSE(store.refresh());
  EXPECT_EQ(store.parseCount(), parses);
}

}  // namespace
}  // namespace vesp::vdir
