// The periods a store's time index expanded and kept, saved beside the store's cache, so that the
// first query of a later process over the same periods costs what a later query costs.
//
// Each series' periods are saved with the path and version (device, inode, size, modification and
// change times) of the file the series came from, and the series' place in it; they are taken
// over only for a file whose version the store still holds, so a changed file loses its periods
// with it. Only complete periods are saved (a period a limit cut short is expanded again), and only
// those of files the store's cache itself may keep (see trustedRecord). What else an expansion
// depends on is the cache's: the key (local zone, limits) names the file, and libical's version
// is checked; the per-series limits an expansion is cut by are saved and must be the same. A file
// that is damaged, cut short, of another format or for another store is ignored whole; it is
// written whole, beside its name, and renamed into place.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirTimeIndex.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// The format's version; a file of any other version is ignored (2: occurrences of PERIOD RDATEs
// end as their periods do; 3: rules are walked on the wall clock; 4: times that occur twice or in
// a gap are placed as a stated time is; 5: a DATE UNTIL ends with its day on the days of a clock
// change too, and a date its month does not have is read as the day it runs into; 6: a 60th
// second is read as the next minute's first).
inline constexpr std::uint32_t kVdirExpansionCacheFormat = 6;

// The bytes holding the periods of `kept` of the series of `records`, for the store of `key`,
// expanded within `limits`. `scannedAt`: when the records' files were last looked at (nanoseconds
// since 1970).
std::string encodeExpansionCache(const std::string& key, const VdirExpansionLimits& limits,
                                 const VdirFileRecords& records, const VdirTimeIndex::KeptBySeries& kept,
                                 std::int64_t scannedAt);

// The periods `bytes` holds for series of `records` whose files are at the version saved; a
// failure (whose message says why) when the bytes are not a whole, undamaged expansions file of
// this format for `key`, expanded within the same per-series `limits` (a period complete within
// one limit may be cut short by a lower one).
rivet::RivetResult<std::vector<VdirTimeIndex::Adopted>> decodeExpansionCache(std::string_view bytes,
                                                                             const std::string& key,
                                                                             const VdirExpansionLimits& limits,
                                                                             const VdirFileRecords& records);

// An expansions file's bytes around `payload`: the header with the payload's length and hash (for
// tests and fuzzing, which need files whose payload is wrong but whose header is right).
std::string sealExpansionCachePayload(std::string_view payload);

}  // namespace vesp::vdir
