// Fuzzes writing through the platform: the bytes of one .ics file are served by a vdir store, and
// each series it serves is retitled from its first occurrence for it and every later one, then one
// later occurrence alone. A save may be refused (and must then leave the tree as it was); a save
// that succeeds must leave a file that still reads back, the same occurrences served at the same
// times, the changed occurrence with its new title, and (for a whole series) every content line
// but the items' SUMMARY, stamps and SEQUENCE as it was. Nothing may crash, hang, leak or trip a
// sanitizer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirTime.h"

namespace {

namespace fs = std::filesystem;
using vesp::platform::Date;
using vesp::platform::EKEvent;

const std::string kSeriesTitle = "Fuzzed, series; \xC3\xA9t\xC3\xA9", kAloneTitle = "Fuzzed alone";

void fail(const char* what) {
  std::fprintf(stderr, "save fuzzer: %s\n", what);
  std::abort();
}

Date utc(int year, int month, int day) {
  return Date::fromTimeIntervalSince1970(vesp::vdir::civilSecondsSince1970(year, month, day, 0, 0, 0));
}

struct World {
  World() {
    char pattern[] = "/tmp/vesp-save-fuzz-XXXXXX";
    base = ::mkdtemp(pattern);
    collection = base / "root/account/calendar";
    fs::create_directories(collection);
    std::ofstream(base / "access.json")
        << R"({"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "authorized"}}})";
    vesp::vdir::VdirPlatformOptions options;
    options.accessFile = (base / "access.json").string();
    options.store.root = (base / "root").string();
    options.store.localTimeZone = "Europe/Berlin";
    options.store.watch = false;
    options.store.cacheDirectory = "";
    // Tight limits, so that each input runs in milliseconds.
    options.store.limits.maximumOccurrencesPerSeries = 60;
    options.store.limits.maximumIteratorStepsPerSeries = 5000;
    options.store.limits.maximumOccurrencesPerQuery = 200;
    options.store.limits.maximumSecondsPerSeries = 1.0;
    options.store.limits.maximumSecondsPerQuery = 3.0;
    options.store.maximumCountedOccurrences = 1000;
    options.store.maximumFileSize = 1 << 20;
    platform = vesp::vdir::VdirPlatform::make(std::move(options));
    store = platform->makeEventStore();
  }
  ~World() {
    std::error_code error;
    fs::remove_all(base, error);
  }
  fs::path base, collection;
  std::shared_ptr<vesp::vdir::VdirPlatform> platform;
  std::shared_ptr<vesp::platform::EKEventStore> store;
};

World& world() {
  static World* instance = new World;  // kept for the whole run
  return *instance;
}

std::string readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Every file of the collection with its bytes.
std::map<std::string, std::string> tree(const fs::path& collection) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::directory_iterator(collection)) files[entry.path().filename()] = readBytes(entry.path());
  return files;
}

// The unfolded content lines of `text` but SUMMARY, DTSTAMP, LAST-MODIFIED and SEQUENCE (an
// override's is raised to its master's when it changes), read without the code under test.
std::vector<std::string> untouchedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!lines.empty() && !line.empty() && (line[0] == ' ' || line[0] == '\t')) {
      lines.back() += line.substr(1);
    } else {
      lines.push_back(line);
    }
  }
  std::erase_if(lines, [](const std::string& l) {
    for (const char* name : {"SUMMARY", "DTSTAMP", "LAST-MODIFIED", "SEQUENCE"}) {
      const std::size_t n = std::char_traits<char>::length(name);
      if (l.size() > n && l.compare(0, n, name) == 0 && (l[n] == ':' || l[n] == ';')) return true;
    }
    return false;
  });
  return lines;
}

std::vector<std::shared_ptr<EKEvent>> served(World& w) {
  return w.store->eventsMatchingPredicate(
      w.store->predicateForEventsWithStartDate(utc(2020, 1, 1), utc(2030, 1, 1), std::nullopt));
}

// The times of every served occurrence, as a multiset.
std::multiset<std::pair<double, double>> times(const std::vector<std::shared_ptr<EKEvent>>& events) {
  std::multiset<std::pair<double, double>> found;
  for (const auto& event : events)
    found.emplace(event->startDate().value_or(Date()).timeIntervalSinceReferenceDate(),
                  event->endDate().value_or(Date()).timeIntervalSinceReferenceDate());
  return found;
}

// Whether an occurrence starting at `start` (served within a day of it) shows `title`.
bool showsTitleAt(World& w, std::optional<Date> start, const std::string& title) {
  if (!start) return false;
  const auto near = w.store->eventsMatchingPredicate(w.store->predicateForEventsWithStartDate(
      start->addingTimeInterval(-86400), start->addingTimeInterval(86400), std::nullopt));
  return std::any_of(near.begin(), near.end(),
                     [&](const auto& event) { return event->startDate() == start && event->title() == title; });
}

enum class Outcome { refused, inPlace, split };

// Saves `event` with `span`. A refusal must change nothing. A save must show `title` where the event
// was, and serve every occurrence at the time it was: a save in place changes no time at all; a series
// split in two may serve more, since each part is expanded up to the limits.
Outcome saveChecked(World& w, const std::shared_ptr<EKEvent>& event, vesp::platform::EKSpan span,
                    const std::string& title) {
  const auto before = tree(w.collection);
  const auto timesBefore = times(served(w));
  const auto start = event->startDate();
  event->setTitle(title);
  if (w.store->saveEvent(event, span)) {
    if (tree(w.collection) != before) fail("a refused save changed the collection");
    return Outcome::refused;
  }
  const auto after = served(w);
  const auto timesAfter = times(after);
  const bool split = tree(w.collection).size() > before.size();
  // (A series that reached the limit of 60 occurrences in a query is cut where the limit falls,
  // which an override may move.)
  if (!split && timesBefore.size() < 60 && timesAfter != timesBefore)
    fail("a save changed which occurrences are served");
  if (split && after.size() < 200 &&
      !std::includes(timesAfter.begin(), timesAfter.end(), timesBefore.begin(), timesBefore.end()))
    fail("a split lost an occurrence");
  if (!showsTitleAt(w, start, title)) fail("the saved occurrence does not show its new title");
  return split ? Outcome::split : Outcome::inPlace;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& w = world();
  for (const auto& entry : fs::directory_iterator(w.collection)) fs::remove(entry.path());
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::ofstream(w.collection / "item.ics", std::ios::binary) << bytes;
  w.platform->refresh();

  std::set<std::string> identifiers;
  for (const auto& event : served(w))
    if (auto identifier = event->eventIdentifier(); identifier && identifiers.size() < 4)
      identifiers.insert(*identifier);
  for (const std::string& identifier : identifiers) {
    // The series from its first occurrence: the whole series, or (when that occurrence is gone) a split.
    const auto first = w.store->eventWithIdentifier(identifier);
    if (!first) continue;
    const std::string text = readBytes(w.collection / "item.ics");
    if (saveChecked(w, first, vesp::platform::EKSpanFutureEvents, kSeriesTitle) == Outcome::inPlace &&
        fs::exists(w.collection / "item.ics") &&
        untouchedLines(readBytes(w.collection / "item.ics")) != untouchedLines(text))
      fail("a retitled series changed more than its title and stamps");
    // Then its second served occurrence alone.
    std::vector<std::shared_ptr<EKEvent>> occurrences;
    for (const auto& event : served(w))
      if (event->eventIdentifier() == first->eventIdentifier()) occurrences.push_back(event);
    if (occurrences.size() > 1) saveChecked(w, occurrences[1], vesp::platform::EKSpanThisEvent, kAloneTitle);
  }
  return 0;
}
