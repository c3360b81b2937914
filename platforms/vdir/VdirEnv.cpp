#include "platforms/vdir/VdirEnv.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>

namespace vesp::vdir {

namespace {

rivet::RivetError failure(const std::string& what, int error, const char* function, std::uint64_t line) {
  return rivet::RivetError(what + ": " + std::strerror(error), std::nullopt, "VdirEnv", function, line);
}

// Nothing there, as opposed to something there that cannot be reached.
bool absent(int error) { return error == ENOENT || error == ENOTDIR; }

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

VdirFileKind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return VdirFileKind::file;
  if (S_ISDIR(mode)) return VdirFileKind::directory;
  if (S_ISLNK(mode)) return VdirFileKind::link;
  return VdirFileKind::other;
}

VdirFileStatus statusOf(const struct stat& status) {
  return {kindOf(status.st_mode), static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
          static_cast<std::int64_t>(status.st_size), nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
}

VdirFileKind kindOf(unsigned char type) {
  switch (type) {
    case DT_REG: return VdirFileKind::file;
    case DT_DIR: return VdirFileKind::directory;
    case DT_LNK: return VdirFileKind::link;
    case DT_UNKNOWN: return VdirFileKind::unknown;
    default: return VdirFileKind::other;
  }
}

class PosixDirectory : public VdirDirectory {
 public:
  PosixDirectory(std::string path, int fd) : VdirDirectory(std::move(path)), fd_(fd) {}
  ~PosixDirectory() override { ::close(fd_); }
  int fd() const { return fd_; }

 private:
  const int fd_;
};

class MappedRegion : public VdirRegion {
 public:
  MappedRegion(void* at, std::size_t size) : at_(at), size_(size) {}
  ~MappedRegion() override {
    if (size_ > 0) ::munmap(at_, size_);
  }
  std::string_view bytes() const override { return {static_cast<const char*>(at_), size_}; }
  void release(std::string_view part) const override {
    // Only pages wholly inside `part`: the bytes around it may still be read.
    static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(part.data());
    const std::uintptr_t first = (begin + page - 1) / page * page, last = (begin + part.size()) / page * page;
    const auto mapped = reinterpret_cast<std::uintptr_t>(at_);
    if (part.empty() || begin < mapped || begin + part.size() > mapped + size_ || first >= last) return;
    // Advice only: the pages of a private, read-only mapping are read from the file again when needed.
    (void)::madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
  }

 private:
  void* const at_;
  const std::size_t size_;
};

// Opens `name` in `directory` (AT_FDCWD: a path) and reads it whole when it is a regular file.
rivet::RivetResult<std::optional<VdirFileText>> readAt(int directory, const std::string& name, std::uintmax_t limit) {
  // Not blocking on a FIFO that stands where a file should.
  int fd = ::openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (absent(errno)) return std::optional<VdirFileText>();
    return failure("file cannot be read", errno, "read", __LINE__);
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return std::optional<VdirFileText>();
  }
  VdirFileText read;
  read.status = statusOf(status);
  // Larger than the limit: no need to read it to tell.
  if (static_cast<std::uintmax_t>(status.st_size) > limit) {
    ::close(fd);
    read.tooLong = true;
    return std::optional<VdirFileText>(std::move(read));
  }
  auto text = readOpenFile(fd, static_cast<std::size_t>(status.st_size), limit);
  ::close(fd);
  if (!text) return text.error();
  read.text = std::move(text).value();
  if (read.text.size() > limit) {
    read.text.clear();
    read.tooLong = true;
  }
  return std::optional<VdirFileText>(std::move(read));
}

rivet::RivetResult<std::optional<VdirFileStatus>> statusAt(int directory, const std::string& name, int flags) {
  struct stat status {};
  if (::fstatat(directory, name.c_str(), &status, flags) != 0) {
    if (absent(errno)) return std::optional<VdirFileStatus>();
    return failure("file cannot be read", errno, "status", __LINE__);
  }
  return std::optional<VdirFileStatus>(statusOf(status));
}

// Whether `path` still holds `basis`; the mode of the file there goes to `mode`.
rivet::RivetResult<bool> holdsBasis(const std::string& path, const VdirFileBasis& basis, mode_t& mode) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (absent(errno)) return !basis.status;
    return failure("cannot read " + path, errno, "write", __LINE__);
  }
  struct stat status {};
  bool same = basis.status && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  if (same) {
    const VdirFileStatus now = statusOf(status);
    same = now.device == basis.status->device && now.inode == basis.status->inode &&
           now.size == basis.status->size && now.modified == basis.status->modified;
    mode = status.st_mode & 07777;
  }
  if (same) {
    // Two writes within one clock tick share a modification time: the bytes decide.
    auto text = readOpenFile(fd, basis.text.size(), basis.text.size());
    if (!text) {
      ::close(fd);
      return text.error();
    }
    same = *text == basis.text;
  }
  ::close(fd);
  return same;
}

constexpr std::uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                     IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// inotify, woken early by a byte on a pipe.
class InotifyWatch : public VdirDirectoryWatch {
 public:
  InotifyWatch(int descriptor, int stopRead, int stopWrite)
      : descriptor_(descriptor), stopRead_(stopRead), stopWrite_(stopWrite) {}
  ~InotifyWatch() override {
    ::close(descriptor_);
    ::close(stopRead_);
    ::close(stopWrite_);
  }

  bool add(const std::string& directory) override {
    int wd = ::inotify_add_watch(descriptor_, directory.c_str(), kWatchMask);
    if (wd < 0) return false;
    watches_[wd] = directory;
    return true;
  }

  void remove(const std::string& directory) override {
    for (auto at = watches_.begin(); at != watches_.end(); ++at) {
      if (at->second != directory) continue;
      ::inotify_rm_watch(descriptor_, at->first);
      watches_.erase(at);
      return;
    }
  }

  Wake wait(std::chrono::milliseconds timeout, std::vector<Change>& changes) override {
    pollfd fds[2] = {{descriptor_, POLLIN, 0}, {stopRead_, POLLIN, 0}};
    int ready = ::poll(fds, 2, timeout.count() < 0 ? -1 : static_cast<int>(timeout.count()));
    if (ready < 0 && errno == EINTR) return Wake::timeout;
    if (ready < 0 || fds[1].revents) return Wake::stop;
    if (ready == 0) return Wake::timeout;
    drain(changes);
    return Wake::changes;
  }

  void stop() override {
    char byte = 1;
    while (::write(stopWrite_, &byte, 1) < 0 && errno == EINTR) {
    }
  }

 private:
  void drain(std::vector<Change>& changes) {
    alignas(inotify_event) char buffer[64 * 1024];
    for (ssize_t length; (length = ::read(descriptor_, buffer, sizeof buffer)) > 0;) {
      for (char* at = buffer; at < buffer + length;) {
        auto* event = reinterpret_cast<inotify_event*>(at);
        at += sizeof(inotify_event) + event->len;
        if (event->mask & IN_Q_OVERFLOW) {
          changes.push_back({Event::overflowed, {}});
          continue;
        }
        auto found = watches_.find(event->wd);
        if (found == watches_.end()) continue;
        // A directory moved away is let go too: its watch would follow it to its new name, while
        // the path it was watched under may be filled again.
        if (event->mask & (IN_IGNORED | IN_MOVE_SELF)) {
          if (!(event->mask & IN_IGNORED)) ::inotify_rm_watch(descriptor_, event->wd);
          changes.push_back({Event::ended, found->second});
          watches_.erase(found);
        } else {
          changes.push_back({Event::changed, found->second});
        }
      }
    }
  }

  const int descriptor_, stopRead_, stopWrite_;
  std::map<int, std::string> watches_;  // by watch descriptor
};

// Writers of one collection take turns between checking a file and renaming over it, so that two
// programs of this platform editing the same file cannot both win. The lock is advisory, on the
// collection's directory: other programs do not take it, and against them the check is what there is.
class CollectionLock {
 public:
  explicit CollectionLock(const std::string& path) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    fd_ = ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Without the lock (a directory that cannot be opened) the write goes on: its rename fails too.
    while (fd_ >= 0 && ::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  ~CollectionLock() {
    if (fd_ >= 0) ::close(fd_);  // which releases the lock
  }
  CollectionLock(const CollectionLock&) = delete;
  CollectionLock& operator=(const CollectionLock&) = delete;

 private:
  int fd_ = -1;
};

// Gives `temporary` the name `path`, which must be free: never over a file that appeared meanwhile.
rivet::RivetResult<VdirWriteOutcome> placeNew(const std::string& temporary, const std::string& path) {
  if (::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0)
    return VdirWriteOutcome::done;
  int error = errno;
  if (error == EINVAL || error == ENOSYS) {
    // A file system without exclusive renames: a hard link is exclusive too.
    if (::link(temporary.c_str(), path.c_str()) == 0) {
      ::unlink(temporary.c_str());
      return VdirWriteOutcome::done;
    }
    error = errno;
  }
  if (error == EEXIST) return VdirWriteOutcome::changedOnDisk;
  return failure("cannot write " + path, error, "write", __LINE__);
}

// Renames `temporary` over `path` if `path` still holds `basis`.
rivet::RivetResult<VdirWriteOutcome> replaceBasis(const std::string& temporary, const std::string& path,
                                                  const VdirFileBasis& basis) {
  mode_t mode = 0;
  auto holds = holdsBasis(path, basis, mode);
  if (!holds) return holds.error();
  if (!*holds) return VdirWriteOutcome::changedOnDisk;
  if (::rename(temporary.c_str(), path.c_str()) != 0) return failure("cannot replace " + path, errno, "write", __LINE__);
  return VdirWriteOutcome::done;
}

class PosixEnv : public VdirEnv {
 public:
  rivet::RivetResult<std::vector<VdirDirectoryEntry>> list(const std::string& directory) override {
    DIR* handle = ::opendir(directory.c_str());
    if (!handle) return failure("directory cannot be read", errno, "list", __LINE__);
    std::vector<VdirDirectoryEntry> entries;
    while (dirent* entry = ::readdir(handle)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      VdirFileKind kind = kindOf(entry->d_type);
      // File systems that do not say the type of an entry: one lstat.
      if (kind == VdirFileKind::unknown) {
        struct stat status {};
        if (::fstatat(::dirfd(handle), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) kind = kindOf(status.st_mode);
      }
      entries.push_back({entry->d_name, kind});
    }
    ::closedir(handle);
    return entries;
  }

  rivet::RivetResult<std::optional<VdirFileStatus>> status(const std::string& path) override {
    return statusAt(AT_FDCWD, path, 0);
  }

  bool mayList(const std::string& directory) override { return ::access(directory.c_str(), R_OK | X_OK) == 0; }

  rivet::RivetResult<std::string> canonical(const std::string& path) override {
    std::error_code error;
    auto resolved = std::filesystem::weakly_canonical(std::filesystem::path(path), error);
    // A part that cannot be looked at (no permission): at least absolute.
    if (error) resolved = std::filesystem::absolute(std::filesystem::path(path), error);
    if (error) return rivet::RivetError("cannot resolve " + path + ": " + error.message(), std::nullopt, "VdirEnv",
                                        "canonical", __LINE__);
    return resolved.string();
  }

  rivet::RivetResult<std::optional<VdirFileText>> read(const std::string& path, std::uintmax_t limit) override {
    return readAt(AT_FDCWD, path, limit);
  }

  rivet::RivetResult<std::unique_ptr<VdirDirectory>> openDirectory(const std::string& path) override {
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return failure("directory cannot be opened", errno, "openDirectory", __LINE__);
    return std::unique_ptr<VdirDirectory>(std::make_unique<PosixDirectory>(path, fd));
  }

  rivet::RivetResult<std::optional<VdirFileStatus>> status(const VdirDirectory& directory,
                                                           const std::string& name) override {
    return statusAt(static_cast<const PosixDirectory&>(directory).fd(), name, 0);
  }

  rivet::RivetResult<std::optional<VdirFileText>> read(const VdirDirectory& directory, const std::string& name,
                                                       std::uintmax_t limit) override {
    return readAt(static_cast<const PosixDirectory&>(directory).fd(), name, limit);
  }

  rivet::RivetResult<std::unique_ptr<VdirRegion>> map(const std::string& path) override {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return failure("cannot open " + path, errno, "map", __LINE__);
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
      int error = errno;
      ::close(fd);
      return failure("cannot look at " + path, error, "map", __LINE__);
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size == 0) {
      ::close(fd);
      return std::unique_ptr<VdirRegion>(std::make_unique<MappedRegion>(nullptr, 0));
    }
    void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    int error = errno;
    ::close(fd);
    if (mapped == MAP_FAILED) return failure("cannot map " + path, error, "map", __LINE__);
    return std::unique_ptr<VdirRegion>(std::make_unique<MappedRegion>(mapped, size));
  }

  rivet::RivetResult<void> createDirectories(const std::string& path) override {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path), error);
    if (error) return rivet::RivetError("cannot make " + path + ": " + error.message(), std::nullopt, "VdirEnv",
                                        "createDirectories", __LINE__);
    return rivet::RivetResultVoidSuccess;
  }

  rivet::RivetResult<void> replace(const std::string& path, std::string_view bytes, mode_t mode,
                                   VdirDurability durability) override {
    return replaceFile(path, bytes, mode, durability);
  }

  rivet::RivetResult<std::string> readStart(const std::string& path, std::size_t limit) override {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return failure("cannot read " + path, errno, "readStart", __LINE__);
    auto text = readOpenFile(fd, limit, limit);
    ::close(fd);
    if (text && text->size() > limit) text->resize(limit);
    return text;
  }

  rivet::RivetResult<void> discard(const std::string& path) override {
    if (::unlink(path.c_str()) != 0 && !absent(errno))
      return failure("cannot remove " + path, errno, "discard", __LINE__);
    return rivet::RivetResultVoidSuccess;
  }

  rivet::RivetResult<VdirWriteOutcome> write(const std::string& path, std::string_view bytes,
                                             const VdirFileBasis& basis) override {
    mode_t mode = 0;
    if (basis.status) {
      // Checked before the temporary file is written too, so that a conflict costs no write.
      auto holds = holdsBasis(path, basis, mode);
      if (!holds) return holds.error();
      if (!*holds) return VdirWriteOutcome::changedOnDisk;
    }
    auto temporary = writeTemporaryBeside(path, bytes, basis.status ? std::optional<mode_t>(mode) : std::nullopt,
                                          VdirDurability::synced);
    if (!temporary) return temporary.error();
    rivet::RivetResult<VdirWriteOutcome> placed = VdirWriteOutcome::changedOnDisk;
    {
      CollectionLock lock(path);
      placed = basis.status ? replaceBasis(*temporary, path, basis) : placeNew(*temporary, path);
    }
    if (!placed || *placed != VdirWriteOutcome::done) {
      ::unlink(temporary->c_str());
      return placed;
    }
    if (int error = syncDirectoryOf(path); error != 0)
      return failure("cannot sync the directory of " + path, error, "write", __LINE__);
    return VdirWriteOutcome::done;
  }

  rivet::RivetResult<VdirWriteOutcome> remove(const std::string& path, const VdirFileBasis& basis) override {
    CollectionLock lock(path);
    mode_t mode = 0;
    auto holds = holdsBasis(path, basis, mode);
    if (!holds) return holds.error();
    if (!*holds || !basis.status) return VdirWriteOutcome::changedOnDisk;
    if (::unlink(path.c_str()) != 0) {
      if (absent(errno)) return VdirWriteOutcome::changedOnDisk;
      return failure("cannot remove " + path, errno, "remove", __LINE__);
    }
    if (int error = syncDirectoryOf(path); error != 0)
      return failure("cannot sync the directory of " + path, error, "remove", __LINE__);
    return VdirWriteOutcome::done;
  }

  bool mayWrite(const std::string& directory) override {
    if (::access(directory.c_str(), W_OK | X_OK) != 0) return false;
    struct stat status {};
    return ::stat(directory.c_str(), &status) == 0 && (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0;
  }

  rivet::RivetResult<std::unique_ptr<VdirDirectoryWatch>> watch() override {
    int descriptor = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (descriptor < 0) return failure("the store cannot be watched", errno, "watch", __LINE__);
    int stop[2];
    if (::pipe2(stop, O_CLOEXEC) != 0) {
      int error = errno;
      ::close(descriptor);
      return failure("the store cannot be watched", error, "watch", __LINE__);
    }
    return std::unique_ptr<VdirDirectoryWatch>(std::make_unique<InotifyWatch>(descriptor, stop[0], stop[1]));
  }

  std::int64_t now() override {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
  }
};

}  // namespace

std::shared_ptr<VdirEnv> VdirEnv::posix() {
  static const std::shared_ptr<VdirEnv> env = std::make_shared<PosixEnv>();
  return env;
}

}  // namespace vesp::vdir
