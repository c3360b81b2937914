// Fuzzes the decoding of the periods a store saves beside its cache: a payload (after the header,
// which the harness seals so that the payload's own checks are what is tested) is decoded against
// the records of one fixed file, a weekly series with a moved occurrence, under the key the payload
// names. Whatever decodes is used as a store would use it: kept by a time index over that file and
// answered from it for a month and a year, every occurrence turned into the data model's record.
// Nothing may crash, hang, leak or trip a sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/VdirFuzzSupport.h"
#include "platforms/vdir/VdirExpansionCache.h"
#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirSnapshot.h"
#include "platforms/vdir/VdirTimeIndex.h"
#include "platforms/vdir/VdirZones.h"

namespace {

using namespace vesp::vdir;

constexpr const char* kPath = "cal/series.ics";
constexpr const char* kFile =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp fuzz//EN\r\n"
    "BEGIN:VEVENT\r\nUID:series\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Weekly\r\n"
    "DTSTART:20260105T090000Z\r\nDTEND:20260105T100000Z\r\nRRULE:FREQ=WEEKLY\r\nEXDATE:20260112T090000Z\r\n"
    "END:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:series\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Moved\r\n"
    "RECURRENCE-ID:20260119T090000Z\r\nDTSTART:20260120T150000Z\r\nDTEND:20260120T160000Z\r\n"
    "END:VEVENT\r\nEND:VCALENDAR\r\n";

// The fixed file as the store would hold it: read once, at the version of all zeros.
struct Fixture {
  VdirZones zones;
  VdirClock clock{"Europe/Berlin"};
  std::vector<std::string> addresses;
  VdirFileRecords records;
  std::shared_ptr<VdirSnapshot> snapshot = std::make_shared<VdirSnapshot>();
  std::shared_ptr<VdirCalendar> calendar;

  Fixture() {
    VdirParseContext context{&zones, &clock, &addresses, 1000};
    VdirParseResult parsed = parseItem(kPath, "series.ics", kFile, context);
    if (!parsed.item || parsed.item->series.size() != 1) {
      std::fprintf(stderr, "expansion cache fuzzer: the fixed file does not read as one series\n");
      std::abort();
    }
    VdirFileRecord record;
    record.item = parsed.item;
    records.emplace_back(kPath, record);
    calendar = fuzz::makeCalendar("cal");
    auto& collection = snapshot->collections.emplace_back();
    collection.identifier = "cal";
    collection.calendar = calendar;
    collection.items.push_back(parsed.item);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture* fixture = new Fixture;  // kept for the whole run, as a store keeps its zones
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  auto adopted = decodeExpansionCache(sealExpansionCachePayload(payload), fuzz::keyOf(payload), {}, fixture->records);
  if (!adopted) return 0;
  VdirTimeIndex index(fixture->snapshot);
  index.adopt(std::move(adopted).value());
  const auto& item = fixture->records[0].second.item;
  const VdirSeriesData& series = item->series[0];
  // A month and a year of 2026, answered from what was adopted when it covers them.
  for (auto [from, to] : {std::pair{1772323200.0, 1775001600.0}, std::pair{1767225600.0, 1798761600.0}}) {
    std::vector<VdirOccurrence> occurrences;
    if (index.keptOccurrences(series, from, to, occurrences) != VdirTimeIndex::Kept::answered) continue;
    for (const auto& occurrence : occurrences)
      static_cast<void>(fuzz::recordOf(item, series, fixture->calendar, occurrence));
  }
  return 0;
}
