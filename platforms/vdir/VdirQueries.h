// The platform's questions answered over snapshots of iCalendar collections, wherever the
// snapshots come from: the occurrences of events in a window, a series' first occurrence, to-dos.
//
// Window queries go through a time index over each snapshot (only series that can overlap the
// window are looked at) whose kept expansions of recurring series carry over to the index of the
// next snapshot. A query or an expansion cut short by a limit (VdirExpansionLimits) still answers
// with what it found, and reports the cut to the problem sink. A query cut by its occurrence limit
// answers whole series, in the order of their first possible start (then of their identifier),
// until the limit is met: the same answer whatever its threads, their timing and the periods kept
// (but for a series its own limits cut, whose cut depends on how its periods were expanded).
//
// Thread safety: every member function may be called from any thread. Queries share the index:
// they wait for each other only while taking the index of their snapshot and while taking or
// keeping expansions, never while libical expands. A query spreads its series over threads of
// its own; the problem sink is called on the querying thread only.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirSnapshot.h"
#include "platforms/vdir/VdirTimeIndex.h"
#include "support/platform/EKEvent.h"
#include "support/platform/EKReminder.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::vdir {

class VdirQueries {
 public:
  // Where a problem met while answering goes (the path it concerns, or "." for a whole query).
  using ProblemSink = std::function<void(VdirDiagnostic)>;

  // `clock` must outlive the queries. A window's series are expanded on up to `threads` threads
  // (the querying one included), a thread for every few hundred series.
  VdirQueries(const VdirClock& clock, VdirExpansionLimits limits, ProblemSink problems, unsigned threads = 1);
  ~VdirQueries();
  VdirQueries(const VdirQueries&) = delete;
  VdirQueries& operator=(const VdirQueries&) = delete;

  // Occurrences overlapping [start, end) in the given collections (absent: all), by start date;
  // an occurrence of no length overlaps when it starts inside the window.
  std::vector<std::shared_ptr<platform::EKEvent>> events(const std::shared_ptr<const VdirSnapshot>& snapshot,
                                                         platform::Date start, platform::Date end,
                                                         const std::optional<std::set<std::string>>& calendars)
      RIVET_EXCLUDES(indexMutex_);
  // The first occurrence of the event series with this identifier, or null.
  std::shared_ptr<platform::EKEvent> firstOccurrence(const VdirSnapshot& snapshot,
                                                     const std::string& eventIdentifier) const;
  // The to-do with this identifier, or null.
  static std::shared_ptr<platform::EKReminder> reminder(const VdirSnapshot& snapshot, const std::string& identifier);
  // To-dos of the given lists (absent: all), selected by `accept`.
  static std::vector<std::shared_ptr<platform::EKReminder>> reminders(
      const VdirSnapshot& snapshot, const std::optional<std::set<std::string>>& calendars,
      const std::function<bool(const VdirComponentData&)>& accept);

  // The event of one occurrence of `series` (of `item`), as every answer makes it. `item` may own
  // the item through what holds it (the snapshot of a query), as long as it points to the item.
  static std::shared_ptr<platform::EKEvent> makeEvent(std::shared_ptr<const VdirItem> item,
                                                      const VdirSeriesData& series,
                                                      const std::shared_ptr<VdirCalendar>& calendar,
                                                      const VdirOccurrence& occurrence);

  // libical iterator runs for recurring series (one per series and run of periods not kept).
  std::uint64_t expansionCount() const { return expansions_.load(); }
  // Lets go of the index and the expansions it keeps.
  void forget() RIVET_EXCLUDES(indexMutex_);

  // Takes over periods expanded earlier for series of `snapshot` (see VdirTimeIndex::adopt);
  // returns how many it took over.
  std::size_t adoptKept(const std::shared_ptr<const VdirSnapshot>& snapshot,
                        std::vector<VdirTimeIndex::Adopted> periods) RIVET_EXCLUDES(indexMutex_);
  // Periods expanded and kept by queries so far (adopted ones aside).
  std::uint64_t newlyKept() RIVET_EXCLUDES(indexMutex_);
  // Calls `use` with the periods kept, by series, under the index's lock; not at all before the
  // first query or adoption.
  template <typename Use>
  void withKept(Use&& use) RIVET_EXCLUDES(indexMutex_) {
    std::shared_ptr<VdirTimeIndex> index;
    {
      rivet::RivetMutexLock lock(indexMutex_);
      index = index_;
    }
    if (index) index->withKept(std::forward<Use>(use));
  }

 private:
  std::shared_ptr<VdirTimeIndex> indexFor(const std::shared_ptr<const VdirSnapshot>& snapshot)
      RIVET_REQUIRES(indexMutex_);
  void report(VdirDiagnostic problem) const;

  // Constant after construction.
  const VdirClock& clock_;
  const VdirExpansionLimits limits_;
  const ProblemSink problems_;
  const unsigned threads_;

  rivet::RivetMutex indexMutex_;
  std::shared_ptr<VdirTimeIndex> index_ RIVET_GUARDED_BY(indexMutex_);  // with the expansions it keeps
  std::atomic<std::uint64_t> expansions_{0};
};

}  // namespace vesp::vdir
