// The look-up table of a snapshot, changed a file at a time as saves change it: after every change
// it answers as a table built afresh from the same collections, past the points where it is rebuilt,
// and when two files name one identifier.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platforms/vdir/VdirSnapshot.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::simpleEvent;

// Every entry of `entries`, by identifier: collection, item, kind and index.
std::map<std::string, std::string> listed(const VdirEntries& entries) {
  std::map<std::string, std::string> result;
  entries.forEach([&](std::string_view identifier, const VdirEntries::Entry& entry) {
    const bool first = result.emplace(std::string(identifier), std::to_string(entry.collection) + " " +
                                          entry.item->relativePath + (entry.todo ? " to-do " : " series ") +
                                          std::to_string(entry.index)).second;
    EXPECT_TRUE(first) << identifier << " is visited twice";
  });
  return result;
}

class VdirEntriesTest : public ::testing::Test {
 protected:
  // An item at `path`: an event, a to-do or a file of two events.
  std::shared_ptr<const VdirItem> item(const std::string& path, int kind) {
    std::string text;
    if (kind == 0) {
      text = simpleEvent("e", "E", "20260310T090000Z", "20260310T100000Z");
    } else if (kind == 1) {
      text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:t\r\nSUMMARY:T\r\n"
             "END:VTODO\r\nEND:VCALENDAR\r\n";
    } else {
      auto one = simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z");
      auto two = simpleEvent("b", "B", "20260310T110000Z", "20260310T120000Z");
      text = one.substr(0, one.find("END:VCALENDAR")) + two.substr(two.find("BEGIN:VEVENT"));
    }
    auto parsed = parseItem(path, path.substr(path.rfind('/') + 1), text, {&zones_, &clock_, &addresses_, 100000});
    EXPECT_TRUE(parsed.item && parsed.diagnostics.empty()) << text;
    return parsed.item;
  }

  VdirZones zones_;
  VdirClock clock_{"UTC"};
  std::vector<std::string> addresses_;
};

TEST_F(VdirEntriesTest, ATableChangedAFileAtATimeAnswersAsOneBuiltAfresh) {
  std::vector<VdirCollection> collections(2);
  collections[0].identifier = "a";
  collections[1].identifier = "b";
  for (int i = 0; i < 40; ++i) collections[0].items.push_back(item("a/" + std::to_string(100 + i) + ".ics", i % 3));
  VdirEntries entries = VdirEntries::of(collections);
  std::mt19937 random(7);
  auto below = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
  // Far more changes than are kept beside the shared table before it is built again.
  for (int step = 0; step < 5000; ++step) {
    const std::size_t c = below(2);
    auto& items = collections[c].items;
    // Some names hold the identifier of the second series of another file ("100.ics#b").
    const std::string path =
        collections[c].identifier + "/" + std::to_string(100 + below(60)) + ".ics" + (below(4) == 0 ? "#b" : "");
    auto at = std::lower_bound(items.begin(), items.end(), path,
                               [](const auto& item, const std::string& p) { return item->relativePath < p; });
    std::shared_ptr<const VdirItem> removed, added;
    if (at != items.end() && (*at)->relativePath == path) removed = *at;
    if (!removed || below(3) > 0) added = item(path, below(3));
    if (removed && added) *at = added;
    else if (removed) items.erase(at);
    else items.insert(at, added);
    entries = entries.replaced(removed.get(), added, c, collections);

    const VdirEntries fresh = VdirEntries::of(collections);
    ASSERT_EQ(entries.size(), fresh.size()) << "step " << step;
    ASSERT_EQ(listed(entries), listed(fresh)) << "step " << step;
    if (removed && !added) {
      // A removed file's identifiers are gone, or belong to the other file that names them.
      for (const auto& series : removed->series) {
        const auto* found = entries.find(series.identifier);
        if (series.identifier.find('#') == std::string::npos) {
          EXPECT_EQ(found, nullptr) << series.identifier;
        } else if (found) {
          EXPECT_NE(found->item, removed) << series.identifier;
        }
      }
    }
    if (added) {
      const auto* found = entries.find(added->relativePath);
      ASSERT_NE(found, nullptr);
      // A file named "100.ics#b" yields its identifier to "100.ics" when that has a series "b".
      EXPECT_EQ(found->item, path.find('#') == std::string::npos ? added : fresh.find(path)->item);
    }
  }
  EXPECT_EQ(entries.find("a/none.ics"), nullptr);
}

// The table is built when first asked, from the items it was made with: asked after its
// collections are gone, and by many threads at once, it answers as one built at once. Under
// AddressSanitizer and ThreadSanitizer this also checks that it keeps its items and builds once.
TEST_F(VdirEntriesTest, ATableBuiltWhenFirstAskedAnswersEveryThreadAfterItsCollectionsAreGone) {
  std::map<std::string, std::string> expected;
  std::vector<std::string> identifiers;
  VdirEntries entries;
  {
    std::vector<VdirCollection> collections(3);
    for (std::size_t c = 0; c < collections.size(); ++c) {
      collections[c].identifier = std::string(1, static_cast<char>('a' + c));
      for (int i = 0; i < 60; ++i)
        collections[c].items.push_back(
            item(collections[c].identifier + "/" + std::to_string(100 + i) + ".ics", (i + static_cast<int>(c)) % 3));
    }
    expected = listed(VdirEntries::of(collections));
    entries = VdirEntries::of(collections);
    for (const auto& [identifier, where] : expected) identifiers.push_back(identifier);
  }
  ASSERT_GT(identifiers.size(), 200u);  // files of two series add a second identifier each
  std::vector<std::map<std::string, std::string>> found(8);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < found.size(); ++t)
    threads.emplace_back([&, t] {
      for (std::size_t at = 0; at < identifiers.size(); ++at) {
        const auto& identifier = identifiers[(at + t * 37) % identifiers.size()];
        if (const auto* entry = entries.find(identifier))
          found[t][identifier] = std::to_string(entry->collection) + " " + entry->item->relativePath +
                                 (entry->todo ? " to-do " : " series ") + std::to_string(entry->index);
      }
    });
  for (auto& thread : threads) thread.join();
  for (const auto& answers : found) EXPECT_EQ(answers, expected);
  EXPECT_EQ(entries.size(), expected.size());
  EXPECT_EQ(listed(entries), expected);
  EXPECT_EQ(entries.find("a/none.ics"), nullptr);
}

}  // namespace
}  // namespace vesp::vdir
