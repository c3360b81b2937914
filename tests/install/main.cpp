// Uses the installed headers by their repository paths and links the installed libraries.
#include <iostream>

#include "Vesp/VespEventInstance.h"
#include "platforms/memory/MemoryPlatform.h"

int main() {
  auto platform = vesp::memory::MemoryPlatform::make();
  auto calendar = platform->addCalendar("Work", platform->addSource("Local"));
  platform->addEvent(calendar, "Standup", platform::Date(0), platform::Date(900));
  auto store = platform->makeEventStore();
  auto events = store->eventsMatchingPredicate(
      store->predicateForEventsWithStartDate(platform::Date(0), platform::Date(3600), std::nullopt));
  if (events.size() != 1) return 1;
  vesp::VespEventInstance event(*events[0]);
  std::cout << "installed Vesp read " << event.title() << ": "
            << vesp::VespJSONEncoder().encode(event.eventInstanceIdentifier()) << "\n";
  return 0;
}
