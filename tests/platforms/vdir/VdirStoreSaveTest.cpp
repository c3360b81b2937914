// Saving through the vdir store: what a save writes, what it refuses, and that every query sees
// it when the save returns, from re-reading only the files it wrote.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <mutex>
#include <set>
#include <thread>

#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirStore.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::codeOf;
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

}  // namespace
}  // namespace vesp::vdir
