// Published on the manager's event bus when the calendar store's events change. It carries no data.
#pragma once

#include <string_view>

namespace vesp {

struct VespEventStoreChangedEvent {
  static std::string_view identifier() { return "com.ambrel.vesp.event.event-store-changed"; }
  friend bool operator==(const VespEventStoreChangedEvent&, const VespEventStoreChangedEvent&) = default;
};

}  // namespace vesp
