#include "platforms/vdir/VdirTimeIndex.h"

#include <cmath>
#include <limits>
#include <string>

namespace vesp::vdir {

VdirTimeIndex::VdirTimeIndex(std::shared_ptr<const VdirSnapshot> snapshot) : snapshot_(std::move(snapshot)) {
  for (std::size_t c = 0; c < snapshot_->collections.size(); ++c) {
    const auto& items = snapshot_->collections[c].items;
    for (std::size_t i = 0; i < items.size(); ++i)
      for (const auto& series : items[i]->series) {
        Entry entry{series.firstStart, series.lastEnd.value_or(std::numeric_limits<double>::infinity()),
                    static_cast<std::uint32_t>(c), static_cast<std::uint32_t>(i), &series};
        if (!series.lastEnd) {
          unbounded_.push_back(entry);
          continue;
        }
        std::size_t lengthClass = 0;
        for (double span = kLengthUnit; span < entry.last - entry.first && lengthClass < 62; span *= 2) ++lengthClass;
        if (bounded_.size() <= lengthClass) bounded_.resize(lengthClass + 1);
        bounded_[lengthClass].push_back(entry);
      }
  }
  auto byFirst = [](const Entry& a, const Entry& b) { return a.first < b.first; };
  for (auto& list : bounded_) std::sort(list.begin(), list.end(), byFirst);
  std::sort(unbounded_.begin(), unbounded_.end(), byFirst);
}

void VdirTimeIndex::carryOver(VdirTimeIndex& previous) {
  auto carry = [&](const Entry& entry) {
    auto found = previous.periods_.find(entry.series);
    if (found == previous.periods_.end()) return;
    for (const auto& [period, data] : found->second) cachedOccurrences_ += data.occurrences.size();
    periods_.emplace(entry.series, std::move(found->second));
    previous.periods_.erase(found);
  };
  for (const auto& entry : unbounded_) carry(entry);
  for (const auto& list : bounded_)
    for (const auto& entry : list) carry(entry);
}

bool VdirTimeIndex::occurrencesThroughPeriods(const VdirSeriesData& series, double a, double b,
                                              const VdirClock& clock, const VdirExpansionLimits& limits,
                                              std::atomic<std::uint64_t>& expansions,
                                              std::vector<VdirOccurrence>& out) {
  const auto p0 = static_cast<std::int64_t>(std::floor(a / kPeriod));
  const auto p1 = std::max(p0, static_cast<std::int64_t>(std::ceil(b / kPeriod)) - 1);
  // Windows of many periods (years) are expanded as they are, not kept.
  if (p1 - p0 >= kMaximumCachedPeriodsPerQuery) return false;
  auto& cache = periods_[&series];
  if (!fill(series, cache, p0, p1, clock, limits, expansions)) return false;
  // Each occurrence is taken from the first period of the window it overlaps.
  for (std::int64_t p = p0; p <= p1; ++p) {
    const double periodStart = static_cast<double>(p) * kPeriod;
    for (const auto& occurrence : cache[p].occurrences) {
      if (p > p0 && occurrence.start < periodStart) continue;
      bool overlapping = occurrence.end <= occurrence.start ? occurrence.start >= a && occurrence.start < b
                                                            : occurrence.start < b && occurrence.end > a;
      if (overlapping) out.push_back(occurrence);
    }
  }
  return true;
}

// Expands the periods p0..p1 of `series` not in `cache`, each run of them with one iterator.
// False when a limit cut one of them short (now or before).
bool VdirTimeIndex::fill(const VdirSeriesData& series, Periods& cache, std::int64_t p0, std::int64_t p1,
                         const VdirClock& clock, const VdirExpansionLimits& limits,
                         std::atomic<std::uint64_t>& expansions) {
  std::vector<VdirOccurrence> occurrences;
  for (std::int64_t p = p0; p <= p1;) {
    if (auto have = cache.find(p); have != cache.end()) {
      if (have->second.cut) return false;
      ++p;
      continue;
    }
    std::int64_t q = p;
    while (q + 1 <= p1 && !cache.count(q + 1)) ++q;
    if (cachedOccurrences_ > kMaximumCachedOccurrences) forgetAllBut(cache);
    occurrences.clear();
    std::string problem;
    ++expansions;
    bool complete = expandSeries(series, clock, static_cast<double>(p) * kPeriod, static_cast<double>(q + 1) * kPeriod,
                                 limits, occurrences, problem);
    for (std::int64_t k = p; k <= q; ++k) cache[k].cut = !complete;
    if (!complete) return false;
    for (const auto& occurrence : occurrences) {
      auto first = static_cast<std::int64_t>(std::floor(occurrence.start / kPeriod));
      auto last = occurrence.end > occurrence.start ? static_cast<std::int64_t>(std::ceil(occurrence.end / kPeriod)) - 1
                                                    : first;
      for (std::int64_t k = std::max(first, p); k <= std::min(last, q); ++k) {
        cache[k].occurrences.push_back(occurrence);
        ++cachedOccurrences_;
      }
    }
    p = q + 1;
  }
  return true;
}

// Memory is bounded: the kept expansions start over rather than grow without end.
void VdirTimeIndex::forgetAllBut(const Periods& keep) {
  for (auto& [other, list] : periods_)
    if (&list != &keep) list.clear();
  cachedOccurrences_ = 0;
  for (const auto& [period, data] : keep) cachedOccurrences_ += data.occurrences.size();
}

}  // namespace vesp::vdir
