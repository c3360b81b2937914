// Where the connections of an iCalendar-backed platform get their data: the latest snapshot of its
// collections, the queries over it, and word of each new snapshot. The directory store is one
// source; another iCalendar-backed platform would be another, under the same connections.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platforms/vdir/VdirQueries.h"
#include "platforms/vdir/VdirSnapshot.h"

namespace vesp::vdir {

class VdirSnapshotSource {
 public:
  virtual ~VdirSnapshotSource() = default;

  // The latest snapshot; it stays whole for as long as it is held.
  virtual std::shared_ptr<const VdirSnapshot> snapshot() const = 0;
  // The queries, to be asked with a snapshot of this source.
  virtual VdirQueries& queries() = 0;
  // Called with the kinds of items that changed (EKEntityMaskEvent, EKEntityMaskReminder or both).
  using ChangeListener = std::function<void(platform::EKEntityMask changed)>;
  // Calls `listener` after each new snapshot that changed something, on a thread of the source's
  // choosing. Returns a token for removeChangeListener.
  virtual std::uint64_t addChangeListener(ChangeListener listener) = 0;
  virtual void removeChangeListener(std::uint64_t token) = 0;
  // False when the source exists but cannot be read at all.
  virtual bool readable() const = 0;
  // What the source is, for descriptions ("vdir /home/me/.calendars").
  virtual std::string description() const = 0;
};

}  // namespace vesp::vdir
