// The directory store's only way to the file system and the clock: list, look at, read whole under
// a limit, map, replace atomically, watch, and the time. `VdirEnv::posix()` is this machine's; a
// test wraps it in a `VdirEnvWrapper` and overrides what it wants to fail, delay or fake.
//
// A file that is not there is not a failure: lookups answer "absent" (an empty optional), and a
// failure is kept for what stops a file from being read (permissions, I/O errors, a directory
// where a file should be). Every member may be called from any thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platforms/vdir/VdirFiles.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

enum class VdirFileKind : std::uint8_t { file, directory, link, other, unknown };

struct VdirDirectoryEntry {
  std::string name;
  VdirFileKind kind = VdirFileKind::unknown;  // the entry itself: a link is a link
};

// What a file is and which version of it: the store re-reads a file when any of these changes.
struct VdirFileStatus {
  VdirFileKind kind = VdirFileKind::other;  // of what a link leads to
  std::uint64_t device = 0, inode = 0;
  std::int64_t size = 0;
  std::int64_t modified = 0, changed = 0;  // nanoseconds since 1970
};

// A file read whole under a limit: the status of what was read and its text, or, when it holds
// more than the limit, no text and `tooLong` (its status says whether it was that large to begin
// with or grew while it was read).
struct VdirFileText {
  VdirFileStatus status;
  std::string text;
  bool tooLong = false;
};

// What a write expects to find at its path: nothing (a new item's file), or the very file an edit
// was based on, as it was read.
struct VdirFileBasis {
  std::optional<VdirFileStatus> status;  // absent: nothing may be there
  std::string text;                      // the bytes the edit was based on
};

enum class VdirWriteOutcome : std::uint8_t {
  done,
  // The path no longer holds the basis (another program changed, removed or created the file):
  // nothing was written or removed.
  changedOnDisk,
};

// A directory held open while the files in it are looked at and read, so that each costs no walk
// of the path. Each environment subclasses it for its own handle.
class VdirDirectory {
 public:
  explicit VdirDirectory(std::string path) : path_(std::move(path)) {}
  virtual ~VdirDirectory() = default;
  VdirDirectory(const VdirDirectory&) = delete;
  VdirDirectory& operator=(const VdirDirectory&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The bytes of a file, held (mapped or read) for as long as this lives.
class VdirRegion {
 public:
  virtual ~VdirRegion() = default;
  virtual std::string_view bytes() const = 0;
  // Says that `part` of bytes() need not stay in memory: a mapped region gives back the whole pages
  // inside it, which are read from the file again if they are touched. The bytes do not change.
  // Safe to call from several threads at once.
  virtual void release(std::string_view part) const { (void)part; }
};

// Directories watched for changes under them. Used by one thread, except stop().
class VdirDirectoryWatch {
 public:
  enum class Event : std::uint8_t {
    changed,     // something in `directory` was created, removed, renamed, written or touched
    overflowed,  // changes were lost: look at everything again
    ended,       // `directory` is watched no more (removed or moved away)
  };
  struct Change {
    Event event = Event::changed;
    std::string directory;  // empty for an overflow
  };
  enum class Wake : std::uint8_t { changes, timeout, stop };

  virtual ~VdirDirectoryWatch() = default;
  // Starts watching `directory`; whether it is watched now.
  virtual bool add(const std::string& directory) = 0;
  // Stops watching `directory`, with no `ended` change for it; nothing when it is not watched.
  virtual void remove(const std::string& directory) = 0;
  // Waits until changes arrive (appended to `changes`), `timeout` passes (negative: no end) or
  // stop() was called.
  virtual Wake wait(std::chrono::milliseconds timeout, std::vector<Change>& changes) = 0;
  // Makes the current and every later wait() return Wake::stop. Any thread may call it.
  virtual void stop() = 0;
};

class VdirEnv {
 public:
  virtual ~VdirEnv() = default;
  // This machine's file system (POSIX calls, inotify) and its real-time clock.
  static std::shared_ptr<VdirEnv> posix();

  // The entries of `directory`, hidden ones included, in no order.
  virtual rivet::RivetResult<std::vector<VdirDirectoryEntry>> list(const std::string& directory) = 0;
  // The status of `path`, links followed; absent when nothing is there.
  virtual rivet::RivetResult<std::optional<VdirFileStatus>> status(const std::string& path) = 0;
  // Whether this process may list `directory` and open what is in it.
  virtual bool mayList(const std::string& directory) = 0;
  // `path` absolute, with links, "." and ".." resolved as far as it exists.
  virtual rivet::RivetResult<std::string> canonical(const std::string& path) = 0;
  // Reads `path` whole under `limit`; absent when nothing is there.
  virtual rivet::RivetResult<std::optional<VdirFileText>> read(const std::string& path, std::uintmax_t limit) = 0;

  // `path` held open, for the calls below.
  virtual rivet::RivetResult<std::unique_ptr<VdirDirectory>> openDirectory(const std::string& path) = 0;
  virtual rivet::RivetResult<std::optional<VdirFileStatus>> status(const VdirDirectory& directory,
                                                                   const std::string& name) = 0;
  // A regular file only: anything else reads as absent.
  virtual rivet::RivetResult<std::optional<VdirFileText>> read(const VdirDirectory& directory, const std::string& name,
                                                               std::uintmax_t limit) = 0;

  // The whole file, to be read in place; an error when it is not there.
  virtual rivet::RivetResult<std::unique_ptr<VdirRegion>> map(const std::string& path) = 0;
  // The directory and its missing parents.
  virtual rivet::RivetResult<void> createDirectories(const std::string& path) = 0;
  // Replaces (or creates) `path` with `bytes`, atomically (see replaceFile).
  virtual rivet::RivetResult<void> replace(const std::string& path, std::string_view bytes, mode_t mode,
                                           VdirDurability durability) = 0;
  // The first `limit` bytes of a file (all of a shorter one); an error when it is not there.
  virtual rivet::RivetResult<std::string> readStart(const std::string& path, std::size_t limit) = 0;
  // Removes a file of the store's own (a cache), whatever it holds; one already gone is no error.
  virtual rivet::RivetResult<void> discard(const std::string& path) = 0;

  // Writing the user's items. Each is durable when it returns (file and directory synced) and
  // atomic: the path holds the whole old or the whole new file, never a part, and never under a
  // name a calendar reader takes for an item while it is written.
  //
  // Writes `bytes` at `path` if what is there is still `basis`: checked (device, inode, size,
  // modification time and every byte) just before the new file takes the name. A new file is
  // created exclusively, never over one that appeared meanwhile; a replaced file keeps its mode.
  // Writers through this environment hold a lock on the collection from the check to the rename,
  // so of two that start from the same file one writes and the other is told it changed.
  virtual rivet::RivetResult<VdirWriteOutcome> write(const std::string& path, std::string_view bytes,
                                                     const VdirFileBasis& basis) = 0;
  // Removes `path` if it is still `basis` (which must be a file).
  virtual rivet::RivetResult<VdirWriteOutcome> remove(const std::string& path, const VdirFileBasis& basis) = 0;
  // Whether new files may be written in `directory`. The super-user, whom permissions do not
  // stop, still takes a directory without any write permission for a read-only one.
  virtual bool mayWrite(const std::string& directory) = 0;

  virtual rivet::RivetResult<std::unique_ptr<VdirDirectoryWatch>> watch() = 0;

  // Nanoseconds since 1970.
  virtual std::int64_t now() = 0;
};

// Forwards every call to another environment; a test overrides the calls it wants to change.
class VdirEnvWrapper : public VdirEnv {
 public:
  explicit VdirEnvWrapper(std::shared_ptr<VdirEnv> target) : target_(std::move(target)) {}
  VdirEnv& target() const { return *target_; }

  rivet::RivetResult<std::vector<VdirDirectoryEntry>> list(const std::string& directory) override {
    return target_->list(directory);
  }
  rivet::RivetResult<std::optional<VdirFileStatus>> status(const std::string& path) override {
    return target_->status(path);
  }
  bool mayList(const std::string& directory) override { return target_->mayList(directory); }
  rivet::RivetResult<std::string> canonical(const std::string& path) override { return target_->canonical(path); }
  rivet::RivetResult<std::optional<VdirFileText>> read(const std::string& path, std::uintmax_t limit) override {
    return target_->read(path, limit);
  }
  rivet::RivetResult<std::unique_ptr<VdirDirectory>> openDirectory(const std::string& path) override {
    return target_->openDirectory(path);
  }
  rivet::RivetResult<std::optional<VdirFileStatus>> status(const VdirDirectory& directory,
                                                           const std::string& name) override {
    return target_->status(directory, name);
  }
  rivet::RivetResult<std::optional<VdirFileText>> read(const VdirDirectory& directory, const std::string& name,
                                                       std::uintmax_t limit) override {
    return target_->read(directory, name, limit);
  }
  rivet::RivetResult<std::unique_ptr<VdirRegion>> map(const std::string& path) override {
    return target_->map(path);
  }
  rivet::RivetResult<void> createDirectories(const std::string& path) override {
    return target_->createDirectories(path);
  }
  rivet::RivetResult<void> replace(const std::string& path, std::string_view bytes, mode_t mode,
                                   VdirDurability durability) override {
    return target_->replace(path, bytes, mode, durability);
  }
  rivet::RivetResult<std::string> readStart(const std::string& path, std::size_t limit) override {
    return target_->readStart(path, limit);
  }
  rivet::RivetResult<void> discard(const std::string& path) override { return target_->discard(path); }
  rivet::RivetResult<VdirWriteOutcome> write(const std::string& path, std::string_view bytes,
                                             const VdirFileBasis& basis) override {
    return target_->write(path, bytes, basis);
  }
  rivet::RivetResult<VdirWriteOutcome> remove(const std::string& path, const VdirFileBasis& basis) override {
    return target_->remove(path, basis);
  }
  bool mayWrite(const std::string& directory) override { return target_->mayWrite(directory); }
  rivet::RivetResult<std::unique_ptr<VdirDirectoryWatch>> watch() override { return target_->watch(); }
  std::int64_t now() override { return target_->now(); }

 private:
  std::shared_ptr<VdirEnv> target_;
};

}  // namespace vesp::vdir
