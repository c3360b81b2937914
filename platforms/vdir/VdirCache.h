// The persistent cache of a store's compact data, so that opening an unchanged (or slightly
// changed) store re-reads only the files that changed.
//
// One cache file per store (and per setting that changes what is read from the files: local
// zone, user addresses, limits) in the user's cache directory. Each file's entry is valid for the
// file's device, inode, size, modification time and change time; files changed so recently that a
// further change could leave all of these as they are (within the file system's timestamp
// granularity) are not cached. The file is written beside its final name and renamed into place,
// so readers (other processes included) see a whole old or a whole new cache. A cache that is
// damaged, cut short, of another format or libical version, or for another store is ignored
// whole, never partly trusted.
//
// Entries are written field by field, each field under a tag of its own, by walks of the compact
// structs that the encoder and the decoder share (the schema is written once, in VdirCache.cpp).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirOptions.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

class VdirEnv;
class VdirZones;
struct VdirFileStatus;

// What the store knows of one file: the version read and what reading it gave.
struct VdirFileRecord {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified = 0, changed = 0;  // nanoseconds since 1970
  std::shared_ptr<const VdirItem> item;
  std::vector<VdirDiagnostic> diagnostics;

  // Makes this record valid for the version of its file that `status` describes.
  void setVersion(const VdirFileStatus& status);

  bool sameVersion(const VdirFileRecord& other) const {
    return device == other.device && inode == other.inode && size == other.size && modified == other.modified &&
           changed == other.changed;
  }
};

// By path within the store, in the order the store lists them (so that a scan of an unchanged store
// finds each file's record where it expects it).
using VdirFileRecords = std::vector<std::pair<std::string, VdirFileRecord>>;

// The format's version; a cache of any other version is ignored. It changes with the schema and
// with what the reader makes of a file (6: UIDs are read as text, their escapes undone; 11: PERIOD
// RDATEs last as their periods say; 12: rules with COUNT are counted on the wall clock; 13: a time
// that occurs twice is the first, one in a gap takes the offset before it; 14: a DATE UNTIL ends
// with its day on the days of a clock change too, and a date its month does not have is read as
// the day it runs into; 15: a component's details are a block of their own, decoded when read,
// and a 60th second is read as the next minute's first).
inline constexpr std::uint32_t kVdirCacheFormat = 15;

// The default directory for caches: $XDG_CACHE_HOME/vesp, else ~/.cache/vesp; empty when neither
// can be found.
std::string defaultCacheDirectory();

// The key of a store's cache: every setting that changes what is read from its files.
std::string cacheKey(const std::string& root, const std::string& localZone, std::size_t maximumCountedOccurrences,
                     std::uintmax_t maximumFileSize, const std::vector<std::string>& userAddresses);

// The cache file of the store described by `key`.
std::string cacheFilePath(const std::string& directory, const std::string& key);
// The file beside the cache file at `cacheFile` that keeps its store's expanded periods (see
// VdirExpansionCache): "store-<hash>.expansions".
std::string expansionCachePath(const std::string& cacheFile);

// What the start of a file in the cache directory says of it.
struct VdirCacheIdentity {
  enum class Kind { cache, foreign, cutShort };
  Kind kind = Kind::foreign;  // cutShort: the start ends before the key does
  std::string root;           // of a cache of this format
};
VdirCacheIdentity cacheIdentityOf(std::string_view start);

// Prunes `directory` after `kept` (the store's own cache) was written, within `limits` (see
// VdirCacheDirectoryLimits); returns how many files it removed.
std::size_t pruneCaches(VdirEnv& env, const std::string& directory, const std::string& kept,
                        const VdirCacheDirectoryLimits& limits);

// The bytes of a cache holding `records`, except those that cannot be trusted yet and those whose
// data cannot be stored; `left` counts them. A record is trusted when its modification and change
// times are older than `scannedAt` (when its file was looked at, nanoseconds since 1970) by more
// than the file system's timestamp granularity: a file changed again within that granularity could
// keep its size and times. Timestamps without a fraction of a second suggest a file system that
// keeps whole seconds (or two), so such records must be older by more than two seconds; others
// by more than 50 ms (the kernel's coarse clock, which stamps files, ticks every 1-10 ms).
std::string encodeCache(const std::string& key, const VdirFileRecords& records, const VdirZones& zones,
                        std::int64_t scannedAt, std::size_t& left);

// Whether a record with these times, looked at `scannedAt`, can be trusted (see encodeCache).
bool trustedRecord(std::int64_t modified, std::int64_t changed, std::int64_t scannedAt);

// The records of a cache's bytes; a failure (whose message says why) when the bytes are not a
// whole, undamaged cache of this format for `key`. Zones are rebuilt into `zones`. Decoding runs on
// up to `threads` threads; `release` (when given) is called with each part of `bytes` it is done
// with, from any of them.
rivet::RivetResult<VdirFileRecords> decodeCache(std::string_view bytes, const std::string& key, VdirZones& zones,
                                                unsigned threads,
                                                const std::function<void(std::string_view)>& release = {});

// A cache's bytes around `payload`: the header with the payload's length and hash (for tests and
// fuzzing, which need caches whose payload is damaged but whose header is right).
std::string sealCachePayload(std::string_view payload);

// Reads and decodes the cache file at `path`; a failure when it is absent ("no cache yet") or
// unusable.
rivet::RivetResult<VdirFileRecords> readCache(VdirEnv& env, const std::string& path, const std::string& key,
                                              VdirZones& zones, unsigned threads);

// Writes `bytes` to `path` through a file beside it and an atomic rename, creating the directory
// when needed.
rivet::RivetResult<void> writeCacheFile(VdirEnv& env, const std::string& path, std::string_view bytes);

}  // namespace vesp::vdir
