// Reading a file whole and replacing one atomically: the one way each is done in the vdir
// platform, so that every reader has the same limit and every writer the same guarantees.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// Reads the open file `fd` from where it stands to its end. `sizeHint` is what fstat said (to
// reserve); more than `limit` bytes stop the read one byte past the limit, for the caller to tell.
rivet::RivetResult<std::string> readOpenFile(int fd, std::size_t sizeHint, std::uintmax_t limit);

// How much a replacement must survive.
enum class VdirDurability {
  // The file and its directory are synced before the call returns: after a crash the path holds
  // the whole old or the whole new content. For what the user cannot get back (their decisions).
  synced,
  // Not synced: after a crash the path may hold the old, the new or a damaged file. For what is
  // checked when read and rebuilt when damaged (the cache).
  unsynced,
};

// Replaces (or creates) `path` with `bytes`: a hidden temporary file in the same directory
// (".NAME.PID-RANDOM.tmp", created exclusively with `mode`), written whole, then renamed over the
// old name. Readers see the old or the new file, never a part. The directory must exist. On
// failure the old file is as it was and no temporary is left.
rivet::RivetResult<void> replaceFile(const std::string& path, std::string_view bytes, mode_t mode,
                                     VdirDurability durability);

// Writes `bytes` to a new hidden temporary file beside `path` (".NAME.PID-RANDOM.tmp", created
// exclusively, so never a name a calendar reader takes for an item) and returns its path. Its mode
// is `mode` when given, else what the umask leaves of 0666. Nothing is left behind on failure.
rivet::RivetResult<std::string> writeTemporaryBeside(const std::string& path, std::string_view bytes,
                                                     std::optional<mode_t> mode, VdirDurability durability);

// Syncs the directory that holds `path`; 0 or the error number.
int syncDirectoryOf(const std::string& path);

// The local zone's IANA name from TZ, /etc/localtime or /etc/timezone; "UTC" when none is found.
std::string systemLocalZoneName();

}  // namespace vesp::vdir
