// Fuzzes the reading of one calendar file alone, in memory: its bytes parsed into an item (as the
// scanner does, without a store, a file or a query) and kept as a document, which must give its
// bytes back. Light enough to reach millions of inputs; the item fuzzer goes on from here through
// the whole store.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platforms/vdir/VdirDocument.h"
#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirZones.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesp::vdir;
  static const VdirClock clock("Europe/Berlin");
  static VdirZones* zones = new VdirZones;  // kept for the whole run, as a store keeps its zones
  static const std::vector<std::string> addresses{"mailto:me@example.org"};
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  VdirParseContext context{zones, &clock, &addresses, 1000};
  VdirParseResult parsed = parseItem("calendar/item.ics", "item.ics", bytes, context);
  if (!parsed.item && parsed.diagnostics.empty()) {
    std::fprintf(stderr, "parse fuzzer: a file was skipped without a reason\n");
    std::abort();
  }
  auto document = VdirDocument::parse(bytes);
  if (document && document->text() != bytes) {
    std::fprintf(stderr, "parse fuzzer: a document does not give its bytes back\n");
    std::abort();
  }
  return 0;
}
