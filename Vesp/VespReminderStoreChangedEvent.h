// Published on the manager's reminder bus when the calendar store's reminders change. It carries no
// data.
#pragma once

#include <string_view>

namespace vesp {

struct VespReminderStoreChangedEvent {
  static std::string_view identifier() { return "com.ambrel.vesp.event.reminder-store-changed"; }
  friend bool operator==(const VespReminderStoreChangedEvent&, const VespReminderStoreChangedEvent&) = default;
};

}  // namespace vesp
