#include "platforms/vdir/VdirExpansionCache.h"

#include <libical/ical.h>

#include <cstring>
#include <limits>
#include <optional>
#include <unordered_map>
#include <utility>

#include "platforms/vdir/VdirCacheBytes.h"

namespace vesp::vdir {

namespace {

// Layout: the header (see VdirCacheBytes.h), then the payload: libical's version, the key, the
// period's length, the per-series limits, the number of series, and each series: the file's place in the store's list,
// its path and version, the series' place in the file, and its periods, each with its occurrences.
constexpr std::string_view kMagic = "VESPEXPN";
// The fewest bytes a series, a period and an occurrence take, which bound the counts a file may claim.
constexpr std::size_t kSeriesBytes = 4 + 4 + 5 * 8 + 4 + 4, kPeriodBytes = 8 + 4, kOccurrenceBytes = 4 + 3 * 8 + 1;

// Where an occurrence's component is in its series: 0 for the master, k for the override k - 1;
// absent when it is neither.
std::optional<std::uint32_t> componentPlace(const VdirSeriesData& series, const VdirComponentData* component) {
  if (series.master && component == &*series.master) return 0;
  for (std::size_t k = 0; k < series.overrides.size(); ++k)
    if (component == &series.overrides[k]) return static_cast<std::uint32_t>(k + 1);
  return std::nullopt;
}

bool savable(const VdirSeriesData& series, const VdirTimeIndex::Period& period) {
  if (period.cut) return false;
  for (const auto& occurrence : period.occurrences)
    if (!componentPlace(series, occurrence.component)) return false;
  return true;
}

// Writes the series `s` of the file at place `at` with its savable periods; false (and nothing
// written) when it has none.
bool writeSeries(VdirCacheWriter& w, std::size_t at, const std::string& path, const VdirFileRecord& file,
                 std::size_t s, const VdirTimeIndex::Periods& periods) {
  const VdirSeriesData& series = file.item->series[s];
  std::uint32_t saved = 0;
  for (const auto& [number, period] : periods) saved += savable(series, period) ? 1 : 0;
  if (saved == 0) return false;
  w.u32(static_cast<std::uint32_t>(at));
  w.text(path);
  w.u64(static_cast<std::uint64_t>(file.device));
  w.u64(static_cast<std::uint64_t>(file.inode));
  w.i64(file.size);
  w.i64(file.modified);
  w.i64(file.changed);
  w.u32(static_cast<std::uint32_t>(s));
  w.u32(saved);
  for (const auto& [number, period] : periods) {
    if (!savable(series, period)) continue;
    w.i64(number);
    w.u32(static_cast<std::uint32_t>(period.occurrences.size()));
    for (const auto& occurrence : period.occurrences) {
      w.u32(*componentPlace(series, occurrence.component));
      w.f64(occurrence.start);
      w.f64(occurrence.end);
      w.f64(occurrence.occurrence);
      w.flag(occurrence.detached);
    }
  }
  return true;
}

// Finds a saved file's record: at its saved place when the store still lists it there, else by path.
class FileFinder {
 public:
  explicit FileFinder(const VdirFileRecords& records) : records_(records) {}
  const VdirFileRecord* find(std::uint32_t at, std::string_view path) {
    if (at < records_.size() && records_[at].first == path) return &records_[at].second;
    if (byPath_.empty())
      for (const auto& [name, file] : records_) byPath_.emplace(name, &file);
    auto found = byPath_.find(path);
    return found == byPath_.end() ? nullptr : found->second;
  }

 private:
  const VdirFileRecords& records_;
  std::unordered_map<std::string_view, const VdirFileRecord*> byPath_;
};

const VdirComponentData* componentAt(VdirCacheReader& r, const VdirSeriesData& series, std::uint32_t place) {
  if (place == 0 && series.master) return &*series.master;
  if (place > 0 && place <= series.overrides.size()) return &series.overrides[place - 1];
  r.fail("an occurrence of a component the series does not have");
  return nullptr;
}

// Reads one series' periods; keeps them in `out` when its file is still at the version saved.
void readSeries(VdirCacheReader& r, FileFinder& files, std::vector<VdirTimeIndex::Adopted>& out) {
  const std::uint32_t at = r.u32();
  const std::string_view path = r.take(r.u32());
  VdirFileRecord version;
  version.device = static_cast<dev_t>(r.u64());
  version.inode = static_cast<ino_t>(r.u64());
  version.size = static_cast<off_t>(r.i64());
  version.modified = r.i64();
  version.changed = r.i64();
  const std::uint32_t s = r.u32();
  const std::size_t periods = r.count(kPeriodBytes);
  if (r.failed()) return;
  const VdirFileRecord* file = files.find(at, path);
  const VdirSeriesData* series =
      file && file->item && file->sameVersion(version) && s < file->item->series.size() ? &file->item->series[s]
                                                                                        : nullptr;
  std::int64_t previous = std::numeric_limits<std::int64_t>::min();
  for (std::size_t p = 0; p < periods && !r.failed(); ++p) {
    VdirTimeIndex::Adopted period{series, r.i64(), {}};
    if (period.period <= previous && !r.failed()) r.fail("periods out of order");
    previous = period.period;
    period.occurrences.resize(r.count(kOccurrenceBytes));
    for (auto& occurrence : period.occurrences) {
      const std::uint32_t place = r.u32();
      occurrence.start = r.f64();
      occurrence.end = r.f64();
      occurrence.occurrence = r.f64();
      occurrence.detached = r.flag();
      if (r.failed()) return;
      if (VdirTimeIndex::firstPeriodOf(occurrence) > period.period ||
          VdirTimeIndex::lastPeriodOf(occurrence) < period.period)
        return r.fail("an occurrence outside its period");
      if (series) occurrence.component = componentAt(r, *series, place);
    }
    if (series && !r.failed()) out.push_back(std::move(period));
  }
}

// The per-series limits, which decide which periods are cut short.
constexpr std::size_t kLimitsBytes = 3 * 8;
void writeLimits(VdirCacheWriter& w, const VdirExpansionLimits& limits) {
  w.u64(limits.maximumOccurrencesPerSeries);
  w.u64(limits.maximumIteratorStepsPerSeries);
  w.f64(limits.maximumSecondsPerSeries);
}
std::string limitsBytes(const VdirExpansionLimits& limits) {
  std::string bytes;
  VdirCacheWriter w(bytes);
  writeLimits(w, limits);
  return bytes;
}

rivet::RivetError expansionCacheFailure(std::string problem, std::uint64_t line) {
  return rivet::RivetError(std::move(problem), std::nullopt, "VdirExpansionCache", "decodeExpansionCache", line);
}

}  // namespace

std::string encodeExpansionCache(const std::string& key, const VdirExpansionLimits& limits,
                                 const VdirFileRecords& records, const VdirTimeIndex::KeptBySeries& kept,
                                 std::int64_t scannedAt) {
  std::string out;
  VdirCacheWriter w(out);
  openCacheHeader(w, kMagic, kVdirExpansionCacheFormat);
  w.text(ICAL_VERSION);
  w.text(key);
  w.f64(VdirTimeIndex::kPeriod);
  writeLimits(w, limits);
  const std::size_t countAt = out.size();
  w.u32(0);  // the number of series, filled in at the end
  std::uint32_t count = 0;
  for (std::size_t at = 0; at < records.size() && !kept.empty(); ++at) {
    const auto& [path, file] = records[at];
    if (!file.item || !trustedRecord(file.modified, file.changed, scannedAt)) continue;
    for (std::size_t s = 0; s < file.item->series.size(); ++s)
      if (auto found = kept.find(&file.item->series[s]); found != kept.end())
        count += writeSeries(w, at, path, file, s, found->second) ? 1 : 0;
  }
  std::memcpy(out.data() + countAt, &count, 4);
  sealCacheHeader(out);
  return out;
}

std::string sealExpansionCachePayload(std::string_view payload) {
  return sealedCachePayload(kMagic, kVdirExpansionCacheFormat, payload);
}

rivet::RivetResult<std::vector<VdirTimeIndex::Adopted>> decodeExpansionCache(std::string_view bytes,
                                                                             const std::string& key,
                                                                             const VdirExpansionLimits& limits,
                                                                             const VdirFileRecords& records) {
  auto sealed = cachePayload(bytes, kMagic, kVdirExpansionCacheFormat, "decodeExpansionCache");
  if (!sealed) return sealed.error();
  VdirCacheReader r(*sealed);
  if (r.text() != ICAL_VERSION && !r.failed()) return expansionCacheFailure("expansions of another libical", __LINE__);
  if (r.text() != key && !r.failed()) return expansionCacheFailure("expansions of another store", __LINE__);
  if (r.number<double>() != VdirTimeIndex::kPeriod && !r.failed())
    return expansionCacheFailure("expansions by periods of another length", __LINE__);
  if (r.take(kLimitsBytes) != limitsBytes(limits) && !r.failed())
    return expansionCacheFailure("expansions made within other limits", __LINE__);
  FileFinder files(records);
  std::vector<VdirTimeIndex::Adopted> adopted;
  const std::size_t series = r.count(kSeriesBytes);
  for (std::size_t s = 0; s < series && !r.failed(); ++s) readSeries(r, files, adopted);
  if (!r.failed() && !r.atEnd()) r.fail("data after the last series");
  if (r.failed()) return expansionCacheFailure(r.problem(), __LINE__);
  return adopted;
}

}  // namespace vesp::vdir
