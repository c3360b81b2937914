// Fuzzes recurrence rules and their start: the input's first line follows "DTSTART" (";TZID=...:"
// or ":" and a value), its other lines are added to the VEVENT as they are (RRULE, EXRULE, EXDATE,
// RDATE, DURATION, ...). Every series read from it must give, in each of several windows, exactly
// the occurrences of its whole expansion that overlap that window, and the same occurrences after
// a trip through the persistent cache. A difference aborts, as a crash does.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/VdirFuzzSupport.h"
#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirZones.h"

namespace {

using namespace vesp::vdir;

struct Occurrences {
  std::vector<std::pair<double, double>> spans;  // start, end
  bool complete = true;
};

Occurrences expand(const VdirSeriesData& series, const VdirClock& clock, double from, double to) {
  VdirExpansionLimits limits;
  limits.maximumOccurrencesPerSeries = 2000;
  limits.maximumIteratorStepsPerSeries = 20000;
  limits.maximumSecondsPerSeries = 1.0;
  std::vector<VdirOccurrence> found;
  Occurrences result;
  result.complete = expandSeries(series, clock, from, to, limits, found).has_value();
  for (const auto& occurrence : found) result.spans.emplace_back(occurrence.start, occurrence.end);
  std::sort(result.spans.begin(), result.spans.end());
  return result;
}

bool overlaps(const std::pair<double, double>& span, double a, double b) {
  if (span.second <= span.first) return span.first >= a && span.first < b;
  return span.first < b && span.second > a;
}

[[noreturn]] void differ(const char* what, const std::string& text, double a, double b) {
  std::fprintf(stderr, "%s in [%.0f, %.0f) for:\n%s\n", what, a, b, text.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  if (size > 4096) return 0;
  const auto cut = input.find('\n');
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp fuzz//EN\r\nBEGIN:VEVENT\r\nUID:fuzz\r\n"
                     "SUMMARY:fuzz\r\nDTSTART";
  text += input.substr(0, cut);
  text += "\r\n";
  if (cut != std::string_view::npos) {
    text += input.substr(cut + 1);
    text += "\r\n";
  }
  text += "END:VEVENT\r\nEND:VCALENDAR\r\n";

  VdirZones zones;
  VdirClock clock("Europe/Berlin");
  VdirParseContext context;
  context.zones = &zones;
  context.clock = &clock;
  context.maximumCountedOccurrences = 2000;
  auto parsed = parseItem("cal/fuzz.ics", "fuzz.ics", text, context);
  if (!parsed.item) return 0;

  // The same item through the cache, trusted as if its file were long unchanged.
  std::size_t left = 0;
  VdirZones cachedZones;
  std::shared_ptr<const VdirItem> cached;
  const std::string bytes = fuzz::cacheOfOneFile("cal/fuzz.ics", parsed, zones, left);
  if (left == 0) {
    auto decoded = decodeCache(bytes, "fuzz", cachedZones, 1);
    if (!decoded) differ(("the cache did not read back what it wrote: " + decoded.error().message()).c_str(), text, 0, 0);
    if (decoded->size() != 1) differ("the cache did not read back one file", text, 0, 0);
    cached = decoded->front().second.item;
    if (!cached || cached->series.size() != parsed.item->series.size() || decoded->front().second.diagnostics != parsed.diagnostics)
      differ("the cache read back another item", text, 0, 0);
  }

  // Windows drawn from the input itself, so that a finding replays.
  std::uint64_t seed = 1469598103934665603ull;
  for (unsigned char c : input) seed = (seed ^ c) * 1099511628211ull;
  auto draw = [&](double below) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>(seed >> 11) / 9007199254740992.0 * below;
  };
  for (std::size_t s = 0; s < parsed.item->series.size(); ++s) {
    const auto& series = parsed.item->series[s];
    const double from = std::max(series.firstStart, -62135596800.0), horizon = 2 * 366 * 86400.0, to = from + horizon;
    Occurrences whole = expand(series, clock, from, to);
    if (cached) {
      Occurrences again = expand(cached->series[s], clock, from, to);
      if (whole.complete && again.complete && again.spans != whole.spans)
        differ("the cached series gives other occurrences", text, from, to);
    }
    if (!whole.complete) continue;
    for (int w = 0; w < 4; ++w) {
      const double a = from + draw(horizon);
      const double b = std::min(to, a + draw(w < 2 ? 3 * 86400.0 : 120 * 86400.0) + 1.0);
      Occurrences window = expand(series, clock, a, b);
      if (!window.complete) continue;
      std::vector<std::pair<double, double>> expected;
      for (const auto& span : whole.spans)
        if (overlaps(span, a, b)) expected.push_back(span);
      if (window.spans != expected) differ("a window disagrees with the whole expansion", text, a, b);
    }
  }
  return 0;
}
