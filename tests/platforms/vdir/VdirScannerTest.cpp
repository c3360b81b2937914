// One scan of a tree, step by step and without a store: what is listed and in which order, which
// records a scan takes over from the one before and which files it reads again, and what it says
// about what it cannot serve.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirScanner.h"
#include "platforms/vdir/VdirTime.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::simpleEvent;
using testing::TemporaryDirectory;
using testing::writeFile;

class VdirScannerTest : public ::testing::Test {
 protected:
  VdirScannerTest() {
    options_.root = root_.path().string();
    options_.localTimeZone = "Europe/Berlin";
  }

  // One whole scan over the records and calendars of the scan before (kept for the next one);
  // `afterListing` runs between its first two steps.
  VdirScanResult scan(std::size_t* parsed = nullptr, const std::function<void()>& afterListing = {}) {
    VdirScanner scanner(options_, *env_, zones_, clock_, 2);
    scanner.list(sources_);
    if (afterListing) afterListing();
    scanner.look(records_);
    std::size_t count = scanner.read();
    if (parsed) *parsed = count;
    VdirScanResult result = scanner.finish(calendars_);
    records_ = result.records;
    calendars_ = result.calendars;
    return result;
  }

  static std::vector<std::string> identifiers(const VdirSnapshot& snapshot) {
    std::vector<std::string> names;
    for (const auto& collection : snapshot.collections) names.push_back(collection.identifier);
    return names;
  }

  static std::vector<std::string> problems(const VdirSnapshot& snapshot) {
    std::vector<std::string> lines;
    for (const auto& diagnostic : snapshot.diagnostics) lines.push_back(diagnostic.path + ": " + diagnostic.problem);
    return lines;
  }

  std::string event(const std::string& uid) { return simpleEvent(uid, uid, "20270105T100000Z", "20270105T110000Z"); }

  TemporaryDirectory root_;
  VdirStoreOptions options_;
  std::shared_ptr<VdirEnv> env_ = VdirEnv::posix();
  VdirZones zones_;
  VdirClock clock_{"Europe/Berlin"};
  VdirSources sources_;
  VdirCalendars calendars_;
  VdirFileRecords records_;
};

TEST_F(VdirScannerTest, CollectionsAndAccountsAreListedByNameWithTheirFilesInOrder) {
  writeFile(root_.path() / "zeta" / "b.ics", event("b"));
  writeFile(root_.path() / "zeta" / "a.ics", event("a"));
  writeFile(root_.path() / "alpha" / "displayname", "Alpha\n");
  writeFile(root_.path() / "account" / "tasks" / "t.ics", event("t"));
  writeFile(root_.path() / "account" / "home" / "h.ics", event("h"));

  VdirScanResult result = scan();

  EXPECT_THAT(identifiers(*result.snapshot), ElementsAre("account/home", "account/tasks", "alpha", "zeta"));
  std::vector<std::string> paths;
  for (const auto& [path, record] : result.records) paths.push_back(path);
  // Records follow the listing: collections as met (accounts' inner ones in order), files by name.
  EXPECT_THAT(paths, ElementsAre("account/home/h.ics", "account/tasks/t.ics", "zeta/a.ics", "zeta/b.ics"));
  const auto& home = result.snapshot->collections[0];
  EXPECT_EQ(home.calendar->fields().type, platform::EKCalendarTypeCalDAV);
  EXPECT_EQ(home.calendar->fields().source->title(), "account");
  const auto& alpha = result.snapshot->collections[2];
  EXPECT_EQ(alpha.calendar->fields().type, platform::EKCalendarTypeLocal);
  EXPECT_EQ(alpha.calendar->fields().title, "Alpha");
  EXPECT_THAT(alpha.items, IsEmpty());
  EXPECT_EQ(result.snapshot->entries.size(), 4u);
  EXPECT_THAT(problems(*result.snapshot), IsEmpty());
}

// vdirsyncer keeps the item of UID ".abc" in ".abc.ics"; sync tools' state and writers' temporary
// files are hidden too, and stay unread.
TEST_F(VdirScannerTest, HiddenItemFilesAreReadAndOtherHiddenEntriesAreNot) {
  writeFile(root_.path() / "home" / "a.ics", event("a"));
  writeFile(root_.path() / "home" / ".abc.ics", event(".abc"));
  writeFile(root_.path() / "home" / ".a.ics.4242-17.tmp", event("temporary"));
  writeFile(root_.path() / "home" / ".state" / "s.ics", event("state"));
  std::filesystem::create_directories(root_.path() / "home" / ".folder.ics");
  std::filesystem::create_symlink(".state", root_.path() / "home" / ".linked.ics");
  writeFile(root_.path() / ".sync" / "x.ics", event("x"));
  writeFile(root_.path() / ".named.ics" / "z.ics", event("z"));  // a hidden directory named like an item file
  writeFile(root_.path() / ".hidden-account" / "cal" / "y.ics", event("y"));

  VdirScanResult result = scan();

  EXPECT_THAT(identifiers(*result.snapshot), ElementsAre("home"));
  std::vector<std::string> paths;
  for (const auto& [path, record] : result.records) paths.push_back(path);
  EXPECT_THAT(paths, ElementsAre("home/.abc.ics", "home/a.ics"));
  EXPECT_EQ(result.snapshot->entries.size(), 2u);
  EXPECT_THAT(problems(*result.snapshot), IsEmpty());
}

TEST_F(VdirScannerTest, ADisplayNameTooLongToBeOneIsReportedAndNotCutShort) {
  writeFile(root_.path() / "long" / "a.ics", event("a"));
  // A blank just past the 64 KiB limit must not make the cut look like the file's end.
  writeFile(root_.path() / "long" / "displayname", std::string(65536, 'x') + " more\n");
  writeFile(root_.path() / "fits" / "displayname", std::string(65535, 'y') + "\n");

  VdirScanResult result = scan();

  ASSERT_THAT(identifiers(*result.snapshot), ElementsAre("fits", "long"));
  EXPECT_EQ(result.snapshot->collections[0].calendar->fields().title, std::string(65535, 'y'));
  EXPECT_EQ(result.snapshot->collections[1].calendar->fields().title, "long");
  EXPECT_THAT(problems(*result.snapshot),
              ElementsAre("long/displayname: longer than 65536 bytes: the directory's name stands in"));
}

TEST_F(VdirScannerTest, AnUnchangedFileKeepsItsRecordAndIsNotReadAgain) {
  writeFile(root_.path() / "cal" / "a.ics", event("a"));
  writeFile(root_.path() / "cal" / "b.ics", event("b"));
  std::size_t parsed = 0;
  VdirScanResult first = scan(&parsed);
  EXPECT_EQ(parsed, 2u);
  EXPECT_EQ(first.reread, 2u);

  VdirScanResult second = scan(&parsed);
  EXPECT_EQ(parsed, 0u);
  EXPECT_EQ(second.reread, 0u);
  ASSERT_EQ(second.records.size(), 2u);
  EXPECT_EQ(second.records[0].second.item, first.records[0].second.item);
  EXPECT_EQ(second.records[1].second.item, first.records[1].second.item);
  // Nothing about the collection changed, so it is the same calendar object.
  EXPECT_EQ(second.snapshot->collections[0].calendar, first.snapshot->collections[0].calendar);
}

TEST_F(VdirScannerTest, OnlyTheChangedAndNewFilesAreReadAgain) {
  writeFile(root_.path() / "cal" / "a.ics", event("a"));
  writeFile(root_.path() / "cal" / "b.ics", event("b"));
  VdirScanResult first = scan();

  writeFile(root_.path() / "cal" / "b.ics", event("b-changed"));
  writeFile(root_.path() / "cal" / "c.ics", event("c"));
  std::size_t parsed = 0;
  VdirScanResult second = scan(&parsed);

  EXPECT_EQ(parsed, 2u);
  ASSERT_EQ(second.records.size(), 3u);
  EXPECT_EQ(second.records[0].second.item, first.records[0].second.item);
  EXPECT_NE(second.records[1].second.item, first.records[1].second.item);
  EXPECT_EQ(second.records[1].second.item->series.at(0).master->uid, "b-changed");
  EXPECT_EQ(second.records[2].first, "cal/c.ics");
}

TEST_F(VdirScannerTest, AFileRemovedBetweenListingAndLookingIsLeftOutWithoutAProblem) {
  writeFile(root_.path() / "cal" / "a.ics", event("a"));
  writeFile(root_.path() / "cal" / "b.ics", event("b"));
  scan();
  VdirScanResult result = scan(nullptr, [&] { std::filesystem::remove(root_.path() / "cal" / "a.ics"); });

  ASSERT_EQ(result.records.size(), 1u);
  EXPECT_EQ(result.records[0].first, "cal/b.ics");
  EXPECT_THAT(problems(*result.snapshot), IsEmpty());
}

TEST_F(VdirScannerTest, WhatCannotBeServedIsSaidWhereItIsInTheListing) {
  options_.maximumFileSize = 400;
  writeFile(root_.path() / "stray.ics", event("stray"));
  writeFile(root_.path() / "cal" / "a.ics", event("a"));
  writeFile(root_.path() / "cal" / "big.ics", event(std::string(500, 'x')));
  writeFile(root_.path() / "cal" / "color", "blue\n");
  writeFile(root_.path() / "cal" / "z.ics", "BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n");
  TemporaryDirectory outside;
  writeFile(outside.path() / "elsewhere.ics", event("elsewhere"));
  std::filesystem::create_symlink(outside.path() / "elsewhere.ics", root_.path() / "cal" / "link.ics");

  VdirScanResult result = scan();

  const auto lines = problems(*result.snapshot);
  ASSERT_EQ(lines.size(), 5u) << ::testing::PrintToString(lines);
  EXPECT_EQ(lines[0], "cal/big.ics: file of " + std::to_string(std::filesystem::file_size(root_.path() / "cal" / "big.ics")) +
                          " bytes exceeds the limit of 400 bytes");
  EXPECT_EQ(lines[1], "cal/link.ics: symbolic link leaves the store root");
  EXPECT_EQ(lines[2].rfind("cal/z.ics: ", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3], "cal/color: colour \"blue\" is not #RRGGBB: a default colour stands in");
  EXPECT_EQ(lines[4], "stray.ics: file outside any collection");
  // The calendar still has a colour, and the file it could read is served.
  ASSERT_EQ(result.snapshot->collections.size(), 1u);
  EXPECT_NE(result.snapshot->collections[0].calendar->fields().color, nullptr);
  EXPECT_EQ(result.snapshot->collections[0].items.size(), 1u);
}

TEST_F(VdirScannerTest, AMissingRootGivesAnEmptySnapshotThatSaysSo) {
  options_.root = (root_.path() / "absent").string();

  VdirScanResult result = scan();

  EXPECT_FALSE(result.snapshot->rootExists);
  EXPECT_FALSE(result.snapshot->rootReadable);
  EXPECT_THAT(result.snapshot->collections, IsEmpty());
  EXPECT_THAT(result.records, IsEmpty());
}

}  // namespace
}  // namespace vesp::vdir
