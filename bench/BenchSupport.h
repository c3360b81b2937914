// What the store benchmark programs share: their command line, a clock, and their report.
//
//   PROGRAM --store DIR [--window START END]... [--repeat N] [--occurrences FILE] [options]
//
// START and END are seconds since 1970. The program opens the store once, then runs each window's
// query N times. It prints one JSON object: the open time, each window's first and median query
// time and occurrence count, and the peak resident memory. With --occurrences, it writes every
// window's occurrences as "window<TAB>identifier<TAB>start" lines, sorted, for comparison.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vesp::bench {

struct Window {
  long long start = 0, end = 0;
};

struct Arguments {
  std::string store;
  std::vector<Window> windows;
  int repeat = 5;
  std::string occurrences;
  std::vector<std::pair<std::string, std::string>> options;  // program-specific --name value
};

inline Arguments parseArguments(int argc, char** argv, const std::vector<std::string>& programOptions) {
  Arguments arguments;
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    auto value = [&] {
      if (i + 1 >= argc) throw std::runtime_error(name + " needs a value");
      return std::string(argv[++i]);
    };
    if (name == "--store") {
      arguments.store = value();
    } else if (name == "--window") {
      Window window;
      window.start = std::stoll(value());
      window.end = std::stoll(value());
      arguments.windows.push_back(window);
    } else if (name == "--repeat") {
      arguments.repeat = std::max(1, std::stoi(value()));
    } else if (name == "--occurrences") {
      arguments.occurrences = value();
    } else if (std::find(programOptions.begin(), programOptions.end(), name) != programOptions.end()) {
      arguments.options.emplace_back(name, value());
    } else {
      throw std::runtime_error("unknown option " + name);
    }
  }
  if (arguments.store.empty()) throw std::runtime_error("--store is required");
  return arguments;
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
}

inline long peakResidentKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

struct WindowResult {
  Window window;
  std::size_t count = 0;
  double first = 0.0;
  double median = 0.0;
};

inline void report(double open, const std::vector<WindowResult>& windows, const std::string& extra) {
  std::printf("{\"open\": %.6f, \"peakKB\": %ld%s, \"windows\": [", open, peakResidentKilobytes(), extra.c_str());
  for (std::size_t i = 0; i < windows.size(); ++i)
    std::printf("%s{\"start\": %lld, \"end\": %lld, \"count\": %zu, \"first\": %.6f, \"median\": %.6f}", i ? ", " : "",
                windows[i].window.start, windows[i].window.end, windows[i].count, windows[i].first, windows[i].median);
  std::printf("]}\n");
}

// Runs `query` (which returns the window's occurrences as (identifier, start) pairs) `repeat`
// times per window; keeps the first run's occurrences for the comparison file.
template <typename Query>
std::vector<WindowResult> runWindows(const Arguments& arguments, Query&& query) {
  std::vector<WindowResult> results;
  std::ofstream out;
  if (!arguments.occurrences.empty()) out.open(arguments.occurrences);
  for (std::size_t w = 0; w < arguments.windows.size(); ++w) {
    WindowResult result;
    result.window = arguments.windows[w];
    std::vector<double> times;
    for (int r = 0; r < arguments.repeat; ++r) {
      auto began = std::chrono::steady_clock::now();
      auto occurrences = query(result.window);
      double elapsed = secondsSince(began);
      times.push_back(elapsed);
      if (r == 0) {
        result.first = elapsed;
        result.count = occurrences.size();
        if (out) {
          std::sort(occurrences.begin(), occurrences.end());
          for (const auto& [identifier, start] : occurrences) out << w << '\t' << identifier << '\t' << start << '\n';
        }
      }
    }
    result.median = median(times);
    results.push_back(result);
  }
  return results;
}

template <typename Main>
int guarded(Main&& main) {
  try {
    return main();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 2;
  }
}

}  // namespace vesp::bench
