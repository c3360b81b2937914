// Uses the installed headers by their repository paths and links the installed libraries.
#include <iostream>

#include "platforms/memory/MemoryPlatform.h"
#include "support/rivet/RivetResult.h"

int main() {
  auto platform = vesp::memory::MemoryPlatform::make();
  auto calendar = platform->addCalendar("Work", platform->addSource("Local"));
  platform->addEvent(calendar, "Standup", platform::Date(0), platform::Date(900));
  auto store = platform->makeEventStore();
  auto events =
      store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(platform::Date(0), platform::Date(3600), std::nullopt));
  rivet::RivetResult<std::size_t> count(events.size());
  std::cout << "installed Vesp found " << count.value() << " event\n";
  return count.value() == 1 ? 0 : 1;
}
