// The index over time of one snapshot's event series, and the occurrences of its recurring series
// kept by period.
//
// Every series is bounded by its first possible start and last possible end (none for a rule
// without end). Bounded series are kept by the length of those bounds, in classes of powers of
// two, each sorted by first start: a window [a, b) looks in class k only at series starting in
// [a - 2^k hours, b). Unbounded series are sorted by first start.
//
// A recurring series is expanded by libical's iterator one period (kPeriod seconds, from 1970) at
// a time, for a run of uncached periods at once, and what it gave is kept: later queries over those
// periods do not run the iterator again. A period whose expansion a limit cut short is marked, and
// such a series is expanded for each query's own window instead (nothing is lost to caching). At
// most kMaximumCachedOccurrences are kept; past that the kept expansions start over. The store
// saves the complete periods for the next process, whose index adopts them (VdirExpansionCache).
//
// Thread-safe: the series lists are constant after construction, and the kept periods are guarded
// by the index's own lock, which is never held while libical expands. Queries on one index thus
// expand at the same time; two that lack the same period may both expand it, and the first to
// keep it wins.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirSnapshot.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::vdir {

class VdirTimeIndex {
 public:
  static constexpr double kPeriod = 32 * 86400.0;
  static constexpr double kLengthUnit = 3600.0;
  static constexpr std::size_t kMaximumCachedOccurrences = 2000000;
  static constexpr std::int64_t kMaximumCachedPeriodsPerQuery = 16;

  // One series, with its bounds and where it is in the snapshot.
  struct Entry {
    double first = 0.0, last = 0.0;  // last: +inf for no end
    std::uint32_t collection = 0, item = 0;
    const VdirSeriesData* series = nullptr;
  };

  explicit VdirTimeIndex(std::shared_ptr<const VdirSnapshot> snapshot);
  // The index of a snapshot a save made from the snapshot of `previous` (see VdirSnapshot::patches):
  // previous's lists with the saved files' series taken out and put in, and the periods previous
  // kept, taken over (less those of the series taken out). Costs a copy of the lists, not a sort.
  VdirTimeIndex(std::shared_ptr<const VdirSnapshot> snapshot, VdirTimeIndex& previous)
      RIVET_EXCLUDES(previous.mutex_);

  const std::shared_ptr<const VdirSnapshot>& snapshot() const { return snapshot_; }
  // Occurrences kept, over all series.
  std::size_t cachedOccurrences() const RIVET_EXCLUDES(mutex_);

  // Takes over what `previous` kept for the series this snapshot still has (the same items, kept
  // alive by both snapshots).
  void carryOver(VdirTimeIndex& previous) RIVET_EXCLUDES(mutex_, previous.mutex_);

  // Calls `visit` with every series that can have an occurrence overlapping [a, b), by the same
  // test expandSeries makes.
  template <typename Visit>
  void candidates(double a, double b, Visit&& visit) const {
    auto byFirst = [](const Entry& entry, double value) { return entry.first < value; };
    double length = kLengthUnit;
    for (const auto& list : bounded_) {
      auto from = std::lower_bound(list.begin(), list.end(), a - length, byFirst);
      auto to = std::lower_bound(from, list.end(), b, byFirst);
      for (auto it = from; it != to; ++it)
        if (it->last > a) visit(*it);
      length *= 2;
    }
    auto to = std::lower_bound(unbounded_.begin(), unbounded_.end(), b, byFirst);
    for (auto it = unbounded_.begin(); it != to; ++it) visit(*it);
  }

  // One period of a series as kept.
  struct Period {
    std::vector<VdirOccurrence> occurrences;  // every occurrence overlapping the period
    bool cut = false;                         // a limit cut its expansion short
  };
  using Periods = std::map<std::int64_t, Period>;
  using KeptBySeries = std::unordered_map<const VdirSeriesData*, Periods>;

  // Calls `use` with the periods kept, by series, under the index's lock.
  template <typename Use>
  void withKept(Use&& use) const RIVET_EXCLUDES(mutex_) {
    rivet::RivetMutexLock lock(mutex_);
    use(static_cast<const KeptBySeries&>(periods_));
  }
  // Periods expanded and kept by this index and the indexes it followed (adopted ones aside):
  // whether it holds anything a saved copy of its periods lacks.
  std::uint64_t newlyKept() const RIVET_EXCLUDES(mutex_);

  // Takes over periods expanded earlier (by another process, from a saved copy): each complete
  // period of a series of this snapshot that the index does not keep yet. Stops at
  // kMaximumCachedOccurrences. Returns how many it took over.
  struct Adopted {
    const VdirSeriesData* series = nullptr;
    std::int64_t period = 0;
    std::vector<VdirOccurrence> occurrences;
  };
  std::size_t adopt(std::vector<Adopted> periods) RIVET_EXCLUDES(mutex_);

  // The periods an occurrence is kept in: from the one it starts in to the one it ends in (only
  // the first for one of no length).
  static std::int64_t firstPeriodOf(const VdirOccurrence& occurrence);
  static std::int64_t lastPeriodOf(const VdirOccurrence& occurrence);

  // What the kept periods say about a recurring series over a window.
  enum class Kept {
    answered,  // every period of the window is kept: its occurrences were added
    missing,   // some periods are not kept yet: expand them (expandPeriods), keep them, ask again
    direct,    // the window is too wide to keep, or a limit cut a kept period: expand the window itself
  };

  // The periods of one series that a window lacked, expanded: runs of consecutive periods, each
  // expanded by one iterator run. Made without the index, so without its owner's lock.
  struct Expansion {
    struct Run {
      std::int64_t first = 0, last = 0;
      bool complete = true;  // false: a limit cut it short, and later runs were not expanded
      std::vector<VdirOccurrence> occurrences;
    };
    const VdirSeriesData* series = nullptr;
    std::vector<Run> runs;
  };

  // Adds to `out` the kept occurrences of `series` overlapping [a, b) when the window is answered
  // from kept periods; otherwise adds nothing and, when periods are missing, names them in
  // `missing` (when given).
  Kept keptOccurrences(const VdirSeriesData& series, double a, double b, std::vector<VdirOccurrence>& out,
                       Expansion* missing = nullptr) const RIVET_EXCLUDES(mutex_);

  // Expands the runs `missing` names (`expansions` counts the iterator runs). Reads only the series
  // and the clock: safe to call on any thread, without the index.
  static void expandPeriods(Expansion& missing, const VdirClock& clock, const VdirExpansionLimits& limits,
                            std::atomic<std::uint64_t>& expansions);

  // Keeps what expandPeriods gave. Periods kept meanwhile (by another query) stay as they are.
  void keep(const Expansion& expansion) RIVET_EXCLUDES(mutex_);

  // The three steps above in one (the lock taken around the first and last): adds the occurrences
  // of a recurring series that overlap [a, b), from its kept periods, expanding those not kept yet.
  // False (and nothing added) when the window is too wide to keep or a limit cut an expansion
  // short: the caller then expands the window itself.
  bool occurrencesThroughPeriods(const VdirSeriesData& series, double a, double b, const VdirClock& clock,
                                 const VdirExpansionLimits& limits, std::atomic<std::uint64_t>& expansions,
                                 std::vector<VdirOccurrence>& out) RIVET_EXCLUDES(mutex_);

 private:
  void forgetAllBut(const Periods& keep) RIVET_REQUIRES(mutex_);
  // Adds the series of `item`, the item at `position` in collection `collection`: appended, for a
  // sort to follow, or `inPlace`, in order.
  void add(const VdirItem& item, std::uint32_t collection, std::uint32_t position, bool inPlace);
  // Follows one file's change in the snapshot (see VdirSnapshot::Patch).
  void apply(const VdirSnapshot::Patch& patch) RIVET_REQUIRES(mutex_);

  // Constant after construction.
  std::shared_ptr<const VdirSnapshot> snapshot_;
  std::vector<std::vector<Entry>> bounded_;  // by length class
  std::vector<Entry> unbounded_;

  mutable rivet::RivetMutex mutex_;
  KeptBySeries periods_ RIVET_GUARDED_BY(mutex_);
  std::size_t cachedOccurrences_ RIVET_GUARDED_BY(mutex_) = 0;
  std::uint64_t newlyKept_ RIVET_GUARDED_BY(mutex_) = 0;
};

}  // namespace vesp::vdir
