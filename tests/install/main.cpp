// Uses the installed headers by their repository paths and links the installed libraries: the
// memory platform, and the vdir platform over a one-file store, beside a host's own `platform` and
// `rivet` names.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string_view>

#include "Vesp/VespEventInstance.h"
#include "Vesp/VespJSONCoder.h"
#include "platforms/memory/MemoryPlatform.h"
#include "platforms/vdir/VdirPlatform.h"

// A host's own names, as Vesp's support libraries once had them at global scope. Each function
// here has the signature of one Vesp's libraries define, now under `vesp`: neither the compiler
// nor the linker may find two of anything.
namespace platform {
struct Date {
  static Date now();
  double seconds = 0;
};
Date Date::now() { return Date{42}; }
}  // namespace platform
namespace rivet {
void fatalError(std::string_view message) { std::cerr << message; }
}  // namespace rivet

int main() {
  rivet::fatalError("");
  if (platform::Date::now().seconds != 42) return 1;
  auto platform = vesp::memory::MemoryPlatform::make();
  auto calendar = platform->addCalendar("Work", platform->addSource("Local"));
  platform->addEvent(calendar, "Standup", vesp::platform::Date(0), vesp::platform::Date(900));
  auto store = platform->makeEventStore();
  auto events = store->eventsMatchingPredicate(
      store->predicateForEventsWithStartDate(vesp::platform::Date(0), vesp::platform::Date(3600), std::nullopt));
  if (events.size() != 1) return 1;
  vesp::VespEventInstance event(*events[0]);
  std::cout << "installed Vesp read " << event.title() << ": "
            << vesp::VespJSONEncoder().encode(event.eventInstanceIdentifier()) << "\n";

  char pattern[] = "/tmp/vesp-install-check-XXXXXX";
  std::filesystem::path root = mkdtemp(pattern);
  std::filesystem::create_directories(root / "home");
  std::ofstream(root / "home/dentist.ics")
      << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:d\r\nSUMMARY:Dentist\r\n"
         "DTSTART:20010101T000000Z\r\nDTEND:20010101T010000Z\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
  vesp::vdir::VdirPlatformOptions options;
  options.store.root = root.string();
  options.store.watch = false;
  options.accessFile = (root / "access.json").string();
  options.store.cacheDirectory = "";  // no cache
  auto vdir = vesp::vdir::VdirPlatform::make(options);
  auto vdirStore = vdir->makeEventStore();
  // A host that does not watch rescans on demand; nothing changed since opening.
  bool changed = vdir->refresh();
  vdir->flushCache();
  bool cached = !vdir->cacheStatus().path.empty();
  auto found = vdirStore->eventsMatchingPredicate(
      vdirStore->predicateForEventsWithStartDate(vesp::platform::Date(0), vesp::platform::Date(3600), std::nullopt));
  std::filesystem::remove_all(root);
  if (found.size() != 1 || changed || cached || !vdir->diagnostics().empty()) return 1;
  std::cout << "installed Vesp read " << vesp::VespEventInstance(*found[0]).title() << " from a vdir store\n";
  return 0;
}
