#include "platforms/vdir/VdirTimeIndex.h"

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

namespace vesp::vdir {

namespace {

bool byFirst(const VdirTimeIndex::Entry& a, const VdirTimeIndex::Entry& b) { return a.first < b.first; }

}  // namespace

VdirTimeIndex::VdirTimeIndex(std::shared_ptr<const VdirSnapshot> snapshot) : snapshot_(std::move(snapshot)) {
  for (std::size_t c = 0; c < snapshot_->collections.size(); ++c) {
    const auto& items = snapshot_->collections[c].items;
    for (std::size_t i = 0; i < items.size(); ++i)
      add(*items[i], static_cast<std::uint32_t>(c), static_cast<std::uint32_t>(i), false);
  }
  for (auto& list : bounded_) std::sort(list.begin(), list.end(), byFirst);
  std::sort(unbounded_.begin(), unbounded_.end(), byFirst);
}

VdirTimeIndex::VdirTimeIndex(std::shared_ptr<const VdirSnapshot> snapshot, VdirTimeIndex& previous)
    : snapshot_(std::move(snapshot)), bounded_(previous.bounded_), unbounded_(previous.unbounded_) {
  // The new index is not shared yet: no one else can hold its lock while the previous one's is taken.
  rivet::RivetMutexLock lock(mutex_);
  rivet::RivetMutexLock lockPrevious(previous.mutex_);
  periods_ = std::move(previous.periods_);
  previous.periods_.clear();
  cachedOccurrences_ = std::exchange(previous.cachedOccurrences_, 0);
  newlyKept_ = std::exchange(previous.newlyKept_, 0);
  for (const auto& patch : snapshot_->patches) apply(patch);
}

void VdirTimeIndex::add(const VdirItem& item, std::uint32_t collection, std::uint32_t position, bool inPlace) {
  for (const auto& series : item.series) {
    Entry entry{series.firstStart, series.lastEnd.value_or(std::numeric_limits<double>::infinity()), collection,
                position, &series};
    std::vector<Entry>* list = &unbounded_;
    if (series.lastEnd) {
      std::size_t lengthClass = 0;
      for (double span = kLengthUnit; span < entry.last - entry.first && lengthClass < 62; span *= 2) ++lengthClass;
      if (bounded_.size() <= lengthClass) bounded_.resize(lengthClass + 1);
      list = &bounded_[lengthClass];
    }
    if (inPlace) list->insert(std::upper_bound(list->begin(), list->end(), entry, byFirst), entry);
    else list->push_back(entry);
  }
}

void VdirTimeIndex::apply(const VdirSnapshot::Patch& patch) {
  const auto collection = static_cast<std::uint32_t>(patch.collection);
  const auto position = static_cast<std::uint32_t>(patch.position);
  // The removed item's series leave; the items after the file's place move down (a file gone) or
  // up (a file new) by one.
  const bool gone = patch.removed && !patch.added, fresh = !patch.removed && patch.added;
  auto follow = [&](std::vector<Entry>& list) {
    if (patch.removed)
      std::erase_if(list, [&](const Entry& entry) { return entry.collection == collection && entry.item == position; });
    if (!gone && !fresh) return;
    for (Entry& entry : list)
      if (entry.collection == collection && entry.item >= position) entry.item = gone ? entry.item - 1 : entry.item + 1;
  };
  follow(unbounded_);
  for (auto& list : bounded_) follow(list);
  if (patch.removed)
    for (const auto& series : patch.removed->series)
      if (auto found = periods_.find(&series); found != periods_.end()) {
        for (const auto& [period, data] : found->second) cachedOccurrences_ -= data.occurrences.size();
        periods_.erase(found);
      }
  if (patch.added) add(*patch.added, collection, position, true);
}

std::size_t VdirTimeIndex::cachedOccurrences() const {
  rivet::RivetMutexLock lock(mutex_);
  return cachedOccurrences_;
}

void VdirTimeIndex::carryOver(VdirTimeIndex& previous) {
  // The new index is not shared yet: no one else can hold its lock while the previous one's is taken.
  rivet::RivetMutexLock lock(mutex_);
  rivet::RivetMutexLock lockPrevious(previous.mutex_);
  std::vector<const Entry*> entries;
  for (const auto& entry : unbounded_) entries.push_back(&entry);
  for (const auto& list : bounded_)
    for (const auto& entry : list) entries.push_back(&entry);
  newlyKept_ += std::exchange(previous.newlyKept_, 0);
  for (const Entry* entry : entries) {
    auto found = previous.periods_.find(entry->series);
    if (found == previous.periods_.end()) continue;
    for (const auto& [period, data] : found->second) cachedOccurrences_ += data.occurrences.size();
    periods_.emplace(entry->series, std::move(found->second));
    previous.periods_.erase(found);
  }
}

namespace {

std::int64_t firstPeriod(double a) { return static_cast<std::int64_t>(std::floor(a / VdirTimeIndex::kPeriod)); }

std::int64_t lastPeriod(double a, double b) {
  return std::max(firstPeriod(a), static_cast<std::int64_t>(std::ceil(b / VdirTimeIndex::kPeriod)) - 1);
}

}  // namespace

std::int64_t VdirTimeIndex::firstPeriodOf(const VdirOccurrence& occurrence) { return firstPeriod(occurrence.start); }

std::int64_t VdirTimeIndex::lastPeriodOf(const VdirOccurrence& occurrence) {
  return lastPeriod(occurrence.start, occurrence.end);
}

std::uint64_t VdirTimeIndex::newlyKept() const {
  rivet::RivetMutexLock lock(mutex_);
  return newlyKept_;
}

std::size_t VdirTimeIndex::adopt(std::vector<Adopted> periods) {
  rivet::RivetMutexLock lock(mutex_);
  std::size_t taken = 0;
  for (auto& adopted : periods) {
    if (cachedOccurrences_ + adopted.occurrences.size() > kMaximumCachedOccurrences) break;
    auto [period, isNew] = periods_[adopted.series].try_emplace(adopted.period);
    if (!isNew) continue;
    cachedOccurrences_ += adopted.occurrences.size();
    period->second.occurrences = std::move(adopted.occurrences);
    ++taken;
  }
  return taken;
}

VdirTimeIndex::Kept VdirTimeIndex::keptOccurrences(const VdirSeriesData& series, double a, double b,
                                                   std::vector<VdirOccurrence>& out, Expansion* missing) const {
  const std::int64_t p0 = firstPeriod(a), p1 = lastPeriod(a, b);
  // Windows of many periods (years) are expanded as they are, not kept.
  if (p1 - p0 >= kMaximumCachedPeriodsPerQuery) return Kept::direct;
  rivet::RivetMutexLock lock(mutex_);
  auto found = periods_.find(&series);
  const Periods* cache = found == periods_.end() ? nullptr : &found->second;
  bool lacking = false;
  std::array<const Period*, kMaximumCachedPeriodsPerQuery> kept{};
  if (cache)
    for (std::int64_t p = p0; p <= p1; ++p)
      if (auto period = cache->find(p); period != cache->end()) {
        if (period->second.cut) return Kept::direct;
        kept[static_cast<std::size_t>(p - p0)] = &period->second;
      }
  auto isKept = [&](std::int64_t p) { return kept[static_cast<std::size_t>(p - p0)] != nullptr; };
  for (std::int64_t p = p0; p <= p1;) {
    if (isKept(p)) {
      ++p;
      continue;
    }
    lacking = true;
    std::int64_t q = p;
    while (q + 1 <= p1 && !isKept(q + 1)) ++q;
    if (missing) missing->runs.push_back({p, q, true, {}});
    p = q + 1;
  }
  if (lacking) {
    if (missing) missing->series = &series;
    return Kept::missing;
  }
  // Each occurrence is taken from the first period of the window it overlaps.
  for (std::int64_t p = p0; p <= p1; ++p) {
    const double periodStart = static_cast<double>(p) * kPeriod;
    for (const auto& occurrence : kept[static_cast<std::size_t>(p - p0)]->occurrences) {
      if (p > p0 && occurrence.start < periodStart) continue;
      bool overlapping = occurrence.end <= occurrence.start ? occurrence.start >= a && occurrence.start < b
                                                            : occurrence.start < b && occurrence.end > a;
      if (overlapping) out.push_back(occurrence);
    }
  }
  return Kept::answered;
}

void VdirTimeIndex::expandPeriods(Expansion& missing, const VdirClock& clock, const VdirExpansionLimits& limits,
                                  std::atomic<std::uint64_t>& expansions) {
  for (auto& run : missing.runs) {
    ++expansions;
    run.complete = expandSeries(*missing.series, clock, static_cast<double>(run.first) * kPeriod,
                                static_cast<double>(run.last + 1) * kPeriod, limits, run.occurrences)
                       .has_value();
    if (!run.complete) {
      missing.runs.resize(static_cast<std::size_t>(&run - missing.runs.data()) + 1);
      return;
    }
  }
}

void VdirTimeIndex::keep(const Expansion& expansion) {
  rivet::RivetMutexLock lock(mutex_);
  auto& cache = periods_[expansion.series];
  std::vector<Period*> added;
  for (const auto& run : expansion.runs) {
    if (cachedOccurrences_ > kMaximumCachedOccurrences) forgetAllBut(cache);
    added.assign(static_cast<std::size_t>(run.last - run.first + 1), nullptr);
    for (std::int64_t k = run.first; k <= run.last; ++k) {
      auto [period, isNew] = cache.try_emplace(k);
      if (!isNew) continue;
      period->second.cut = !run.complete;
      ++newlyKept_;
      added[static_cast<std::size_t>(k - run.first)] = &period->second;
    }
    if (!run.complete) continue;
    // An occurrence is kept in every period it overlaps (one of no length where it starts).
    for (const auto& occurrence : run.occurrences) {
      const std::int64_t first = firstPeriod(occurrence.start), last = lastPeriod(occurrence.start, occurrence.end);
      for (std::int64_t k = std::max(first, run.first); k <= std::min(last, run.last); ++k)
        if (Period* period = added[static_cast<std::size_t>(k - run.first)]) {
          period->occurrences.push_back(occurrence);
          ++cachedOccurrences_;
        }
    }
  }
}

bool VdirTimeIndex::occurrencesThroughPeriods(const VdirSeriesData& series, double a, double b,
                                              const VdirClock& clock, const VdirExpansionLimits& limits,
                                              std::atomic<std::uint64_t>& expansions,
                                              std::vector<VdirOccurrence>& out) {
  Expansion missing;
  switch (keptOccurrences(series, a, b, out, &missing)) {
    case Kept::answered: return true;
    case Kept::direct: return false;
    case Kept::missing: break;
  }
  expandPeriods(missing, clock, limits, expansions);
  keep(missing);
  return keptOccurrences(series, a, b, out) == Kept::answered;
}

// Memory is bounded: the kept expansions start over rather than grow without end.
void VdirTimeIndex::forgetAllBut(const Periods& keep) {
  for (auto& [other, list] : periods_)
    if (&list != &keep) list.clear();
  cachedOccurrences_ = 0;
  for (const auto& [period, data] : keep) cachedOccurrences_ += data.occurrences.size();
}

}  // namespace vesp::vdir
