// Opens a vdir store with the vdir platform's store and times its queries (see BenchSupport.h).
//
// Options: --cache DIR (the persistent cache's directory; "none" for no cache), --threads N
// (parsing threads; 0: one per core).
#include <cmath>

#include "bench/BenchSupport.h"
#include "platforms/vdir/VdirStore.h"

int main(int argc, char** argv) {
  using namespace vesp;
  return bench::guarded([&] {
    auto arguments = bench::parseArguments(argc, argv, {"--cache", "--threads"});
    vdir::VdirStoreOptions options;
    options.root = arguments.store;
    options.watch = false;
    for (const auto& [name, value] : arguments.options) {
      if (name == "--cache") options.cacheDirectory = value == "none" ? "" : value;
      if (name == "--threads") options.parseThreads = static_cast<unsigned>(std::stoul(value));
    }
    auto began = std::chrono::steady_clock::now();
    auto store = vdir::VdirStore::make(options);
    double open = bench::secondsSince(began);
    auto results = bench::runWindows(arguments, [&](const bench::Window& window) {
      std::vector<std::pair<std::string, long long>> occurrences;
      auto events = store->events(vesp::platform::Date::fromTimeIntervalSince1970(static_cast<double>(window.start)),
                                  vesp::platform::Date::fromTimeIntervalSince1970(static_cast<double>(window.end)),
                                  std::nullopt);
      occurrences.reserve(events.size());
      for (const auto& event : events)
        occurrences.emplace_back(event->eventIdentifier().value_or(""),
                                 std::llround(event->startDate()->timeIntervalSince1970()));
      return occurrences;
    });
    auto cache = store->cacheStatus();
    std::string extra = ", \"parsed\": " + std::to_string(store->parseCount()) +
                        ", \"cacheLoaded\": " + (cache.loaded ? "true" : "false") +
                        ", \"cacheWrites\": " + std::to_string(cache.writes) + ", \"cacheProblem\": \"" +
                        (cache.loaded ? "" : cache.loadProblem) + "\"" +
                        ", \"expansions\": " + std::to_string(store->expansionCount()) +
                        ", \"adoptedPeriods\": " + std::to_string(cache.adoptedPeriods);
    bench::report(open, results, extra);
    return 0;
  });
}
