// Fuzzes the occurrence identifier's JSON decoding: every input either decodes or fails with a
// decoding error, under each date strategy; with the default coders (dates as seconds since 2001)
// what decodes re-encodes to text that decodes equal. The other strategies convert dates through
// another epoch or text, which need not give back the same double, so only their safety is checked.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Vesp/VespCodingError.h"
#include "Vesp/VespEventInstanceIdentifier.h"
#include "Vesp/VespJSONCoder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (auto strategy : {vesp::VespDateCodingStrategy::deferredToDate, vesp::VespDateCodingStrategy::secondsSince1970,
                        vesp::VespDateCodingStrategy::iso8601}) {
    vesp::VespJSONDecoder decoder;
    decoder.dateDecodingStrategy = strategy;
    std::optional<vesp::VespEventInstanceIdentifier> decoded;
    try {
      decoded = decoder.decode<vesp::VespEventInstanceIdentifier>(text);
    } catch (const vesp::VespDecodingError&) {
      continue;
    }
    vesp::VespJSONEncoder encoder;
    encoder.dateEncodingStrategy = strategy;
    std::string again;
    try {
      again = encoder.encode(*decoded);
    } catch (const vesp::VespEncodingError&) {
      // A date the strategy cannot write (not finite) is an encoding error, not a crash.
      continue;
    }
    auto redecoded = decoder.decode<vesp::VespEventInstanceIdentifier>(again);
    if (strategy == vesp::VespDateCodingStrategy::deferredToDate && !(redecoded == *decoded)) {
      std::fprintf(stderr, "round trip changed the identifier: %s -> %s\n", text.c_str(), again.c_str());
      std::abort();
    }
  }
  return 0;
}
