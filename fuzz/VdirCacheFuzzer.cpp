// Fuzzes the decoding of the store's persistent cache: a payload (after the header, which the
// harness seals so that the payload's own checks are what is tested) is decoded, and whatever
// decodes is used as the store would use it: every series expanded over a month and ten years,
// every occurrence and to-do turned into the data model's records. The start of the file (cut
// anywhere) is also read as pruning reads it. Nothing may crash, hang, leak or trip a sanitizer; a
// payload that is not a cache must be refused.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Vesp/VespReminder.h"
#include "fuzz/VdirFuzzSupport.h"
#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirZones.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesp::vdir;
  std::string_view payload(reinterpret_cast<const char*>(data), size);
  VdirZones zones;
  VdirClock clock("Europe/Berlin");
  const std::string sealed = sealCachePayload(payload);
  // What pruning the cache directory reads of a file: only its start, which may be cut anywhere.
  static_cast<void>(cacheIdentityOf(std::string_view(sealed).substr(0, size % (sealed.size() + 1))));
  auto records = decodeCache(sealed, fuzz::keyOf(payload), zones, 1);
  if (!records) return 0;
  auto calendar = fuzz::makeCalendar("account/calendar");
  // Low limits, as in the store-road harness: the limits are exercised, not their size.
  VdirExpansionLimits limits;
  limits.maximumOccurrencesPerSeries = 60;
  limits.maximumIteratorStepsPerSeries = 20000;
  limits.maximumSecondsPerSeries = 0.2;
  for (const auto& [path, record] : *records) {
    if (!record.item) continue;
    for (const auto& series : record.item->series) {
      for (auto [from, to] : {std::pair{1793491200.0, 1796083200.0}, std::pair{1577836800.0, 1893456000.0}}) {
        std::vector<VdirOccurrence> occurrences;
        // A cut expansion still converts what it found.
        static_cast<void>(expandSeries(series, clock, from, to, limits, occurrences));
        std::size_t converted = 0;
        for (const auto& occurrence : occurrences) {
          if (++converted > 50) break;
          static_cast<void>(fuzz::recordOf(record.item, series, calendar, occurrence));
        }
      }
    }
    for (const auto& todo : record.item->todos) {
      VdirReminder reminder(record.item, &todo, calendar);
      vesp::VespReminder converted(reminder);
      (void)converted;
    }
  }
  return 0;
}
