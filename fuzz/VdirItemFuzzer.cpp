// Fuzzes the whole road of one calendar file: its bytes as an .ics file in a vdir store, read by
// the store, queried over windows, converted to the data model's records and printed as vesp's
// JSON. Nothing may crash, hang, leak or trip a sanitizer; whatever cannot be served must be in
// the diagnostics. The JSON is written strictly: a text that is not UTF-8 would stop the run.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "Vesp/VespEventInstance.h"
#include "Vesp/VespReminder.h"
#include "platforms/vdir/VdirStore.h"
#include "tools/vesp/VespOutput.h"

namespace {

namespace fs = std::filesystem;

struct World {
  World() {
    char pattern[] = "/tmp/vesp-fuzz-XXXXXX";
    root = ::mkdtemp(pattern);
    fs::create_directories(root / "account/calendar");
    vesp::vdir::VdirStoreOptions options;
    options.root = root.string();
    options.localTimeZone = "Europe/Berlin";
    options.watch = false;
    options.userAddresses = {"me@example.org"};
    // Tighter than the defaults, so that each input runs in milliseconds: the limits are what is
    // exercised, not their size.
    options.limits.maximumOccurrencesPerSeries = 60;
    options.limits.maximumIteratorStepsPerSeries = 5000;
    options.limits.maximumOccurrencesPerQuery = 200;
    options.limits.maximumSecondsPerSeries = 1.0;
    options.limits.maximumSecondsPerQuery = 3.0;
    options.maximumCountedOccurrences = 1000;
    options.maximumFileSize = 1 << 20;
    store = vesp::vdir::VdirStore::make(options);
  }
  ~World() {
    std::error_code error;
    fs::remove_all(root, error);
  }
  fs::path root;
  std::shared_ptr<vesp::vdir::VdirStore> store;
};

World& world() {
  static World* instance = new World;  // kept for the whole run
  return *instance;
}

vesp::platform::Date utc(int year, int month, int day) {
  return vesp::platform::Date::fromTimeIntervalSince1970(vesp::vdir::civilSecondsSince1970(year, month, day, 0, 0, 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& w = world();
  {
    std::ofstream out(w.root / "account/calendar/item.ics", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  w.store->refresh();
  std::ostringstream printed;
  {
    vesp::tool::VespJsonWriter out(printed, false);
    out.beginArray();
    for (auto [start, end] : {std::pair{utc(2026, 3, 1), utc(2026, 3, 2)}, std::pair{utc(2020, 1, 1), utc(2030, 1, 1)},
                              std::pair{utc(1, 1, 1), utc(9999, 12, 31)}}) {
      for (const auto& event : w.store->events(start, end, std::nullopt))
        vesp::tool::writeJSON(out, vesp::VespEventInstance(*event));
    }
    if (auto first = w.store->firstOccurrence("account/calendar/item.ics"))
      vesp::tool::writeJSON(out, vesp::VespEventInstance(*first));
    for (const auto& reminder : w.store->reminders(std::nullopt, [](const auto&) { return true; }))
      vesp::tool::writeJSON(out, vesp::VespReminder(*reminder));
    for (const auto& diagnostic : w.store->diagnostics()) out.value(vesp::tool::toJSON(diagnostic));
    out.endArray();
  }
  // What the writer wrote is valid JSON, laid out as the JSON library lays out the same document.
  const std::string text = printed.str();
  if (nlohmann::json::parse(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) != text)
    __builtin_trap();
  return 0;
}
