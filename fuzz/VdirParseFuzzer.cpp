// Fuzzes the reading of one calendar file alone, in memory: its bytes parsed into an item (as the
// scanner does, without a store, a file or a query) and kept as a document, which must give its
// bytes back. The file is read twice with the same zones and known lines, as a scan reads the next
// file that writes the same zone definitions and calendar lines (the second reading leaves out of
// libical's parse what the first parsed cleanly), and both readings must give the same item and
// diagnostics. Light enough to reach millions of inputs; the item fuzzer goes on from here through
// the whole store.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/VdirFuzzSupport.h"
#include "platforms/vdir/VdirDocument.h"
#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirOutline.h"
#include "platforms/vdir/VdirZones.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesp::vdir;
  static const VdirClock clock("Europe/Berlin");
  static const std::vector<std::string> addresses{"mailto:me@example.org"};
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  VdirZones zones;
  VdirKnownLines knownLines;
  VdirParseContext context{&zones, &clock, &addresses, 1000, &knownLines};
  VdirParseResult parsed = parseItem("calendar/item.ics", "item.ics", bytes, context);
  if (!parsed.item && parsed.diagnostics.empty()) {
    std::fprintf(stderr, "parse fuzzer: a file was skipped without a reason\n");
    std::abort();
  }
  // Everything a reading gave, in the cache's bytes; empty when the item cannot be stored.
  auto encoded = [&](const VdirParseResult& reading) {
    std::size_t left = 0;
    std::string cache = fuzz::cacheOfOneFile("calendar/item.ics", reading, zones, left);
    return left == 0 ? cache : std::string();
  };
  VdirParseResult again = parseItem("calendar/item.ics", "item.ics", bytes, context);
  if (again.diagnostics != parsed.diagnostics || !again.item != !parsed.item || encoded(again) != encoded(parsed)) {
    std::fprintf(stderr, "parse fuzzer: a second reading with what the first taught gave another item\n");
    std::abort();
  }
  auto document = VdirDocument::parse(bytes);
  if (document && document->text() != bytes) {
    std::fprintf(stderr, "parse fuzzer: a document does not give its bytes back\n");
    std::abort();
  }
  return 0;
}
