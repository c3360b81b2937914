// Times saves through the vdir store: each changes the title of one event (a different file each
// time, picked evenly over the store) with the item editor and saves it, as `vesp edit` does. The
// store is opened first (with its cache, as a user's is); every save is checked to be served.
// After each save, a month's query is timed twice: the first pays for what the save left to do
// (the time index of the new snapshot), the second is what a query costs with nothing changed.
//
//     vesp_save_bench STORE [--saves N] [--cache DIR|none]
//
// Prints one JSON object: the open time; the median, 90th percentile and largest save time; and
// the median times of the month's query after a save and again.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "platforms/vdir/VdirItemEditor.h"
#include "platforms/vdir/VdirStore.h"

int main(int argc, char** argv) {
  using namespace vesp;
  if (argc < 2) {
    std::fprintf(stderr, "usage: vesp_save_bench STORE [--saves N] [--cache DIR|none]\n");
    return 2;
  }
  vdir::VdirStoreOptions options;
  options.root = argv[1];
  options.watch = false;
  std::size_t saves = 50;
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string name = argv[i], value = argv[i + 1];
    if (name == "--saves") saves = std::stoul(value);
    else if (name == "--cache") options.cacheDirectory = value == "none" ? "" : value;
    else {
      std::fprintf(stderr, "vesp_save_bench: unknown option %s\n", name.c_str());
      return 2;
    }
  }
  using clock = std::chrono::steady_clock;
  auto since = [](clock::time_point began) { return std::chrono::duration<double>(clock::now() - began).count(); };
  auto began = clock::now();
  auto store = vdir::VdirStore::make(options);
  const double open = since(began);
  std::vector<std::string> events;
  store->snapshot()->entries.forEach([&](std::string_view identifier, const vdir::VdirSnapshot::Entry& entry) {
    if (!entry.todo && identifier.find('#') == std::string_view::npos) events.emplace_back(identifier);
  });
  std::sort(events.begin(), events.end());
  if (events.empty()) {
    std::fprintf(stderr, "vesp_save_bench: the store holds no events\n");
    return 1;
  }
  vdir::VdirItemEditor editor(store);
  const auto runStamp = std::chrono::system_clock::now().time_since_epoch().count();
  std::vector<double> times, queriesAfterSave, queriesAgain;
  auto median = [](std::vector<double>& values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  };
  for (std::size_t i = 0; i < saves; ++i) {
    const std::string& identifier = events[(i * events.size()) / saves];
    // A title no earlier run gave it, so that every save writes.
    const std::string title = "Saved " + std::to_string(runStamp) + " " + std::to_string(i);
    auto started = clock::now();
    auto plan = editor.changeEvent(identifier, std::nullopt, vdir::VdirSpan::thisOccurrence, {.title = title});
    if (!plan || !editor.apply(*plan)) {
      std::fprintf(stderr, "vesp_save_bench: saving %s failed: %s\n", identifier.c_str(),
                   plan ? "the save" : plan.error().message().c_str());
      return 1;
    }
    times.push_back(since(started));
    for (auto* kept : {&queriesAfterSave, &queriesAgain}) {
      auto queried = clock::now();
      auto month = store->events(platform::Date(1767225600.0), platform::Date(1769904000.0), std::nullopt);  // 2026-01
      kept->push_back(since(queried));
      if (month.empty()) {
        std::fprintf(stderr, "vesp_save_bench: January 2026 has no occurrences\n");
        return 1;
      }
    }
    auto served = store->firstOccurrence(identifier);
    if (!served || served->title() != title) {
      std::fprintf(stderr, "vesp_save_bench: %s is not served as saved\n", identifier.c_str());
      return 1;
    }
  }
  std::sort(times.begin(), times.end());
  std::printf("{\"events\": %zu, \"open\": %.4f, \"saves\": %zu, \"medianSave\": %.5f, \"p90Save\": %.5f, "
              "\"largestSave\": %.5f, \"medianQueryAfterSave\": %.5f, \"medianQueryAgain\": %.5f, "
              "\"parsed\": %llu, \"rescans\": %llu}\n",
              events.size(), open, times.size(), times[times.size() / 2], times[(times.size() * 9) / 10],
              times.back(), median(queriesAfterSave), median(queriesAgain),
              static_cast<unsigned long long>(store->parseCount()),
              static_cast<unsigned long long>(store->rescanCount()));
  return 0;
}
