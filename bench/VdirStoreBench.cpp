// Opens a vdir store with the vdir platform's store and times its queries (see BenchSupport.h).
//
// Options: --cache DIR (the persistent cache's directory; "none" for no cache), --threads N
// (parsing threads; 0: one per core), --max-occurrences N (a query's occurrence limit, 1,000,000 by
// default). The report counts what the queries reported cut short by a limit ("cut": the query's
// own limits, or a series' limits met while it expanded): such an answer is incomplete.
#include <cmath>

#include "bench/BenchSupport.h"
#include "platforms/vdir/VdirStore.h"

namespace {

// The problems of the store that say something was cut short.
std::size_t cuts(vesp::vdir::VdirStore& store) {
  std::size_t count = 0;
  for (const auto& problem : store.diagnostics())
    count += problem.action == vesp::vdir::VdirDiagnostic::Action::truncated;
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vesp;
  return bench::guarded([&] {
    auto arguments = bench::parseArguments(argc, argv, {"--cache", "--threads", "--max-occurrences"});
    vdir::VdirStoreOptions options;
    options.root = arguments.store;
    options.watch = false;
    for (const auto& [name, value] : arguments.options) {
      if (name == "--cache") options.cacheDirectory = value == "none" ? "" : value;
      if (name == "--threads") options.parseThreads = static_cast<unsigned>(std::stoul(value));
      if (name == "--max-occurrences") options.limits.maximumOccurrencesPerQuery = std::stoull(value);
    }
    auto began = std::chrono::steady_clock::now();
    auto store = vdir::VdirStore::make(options);
    double open = bench::secondsSince(began);
    const std::size_t cutByOpening = cuts(*store);
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
    const std::size_t cut = cuts(*store) - cutByOpening;
    std::string extra = ", \"parsed\": " + std::to_string(store->parseCount()) +
                        ", \"cacheLoaded\": " + (cache.loaded ? "true" : "false") +
                        ", \"cacheWrites\": " + std::to_string(cache.writes) + ", \"cacheProblem\": \"" +
                        (cache.loaded ? "" : cache.loadProblem) + "\"" +
                        ", \"expansions\": " + std::to_string(store->expansionCount()) +
                        ", \"adoptedPeriods\": " + std::to_string(cache.adoptedPeriods) +
                        ", \"cut\": " + std::to_string(cut);
    bench::report(open, results, extra);
    return 0;
  });
}
