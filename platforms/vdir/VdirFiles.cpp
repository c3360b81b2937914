#include "platforms/vdir/VdirFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

namespace vesp::vdir {

namespace {

rivet::RivetError failure(const std::string& what, int error, const char* function, std::uint64_t line) {
  return rivet::RivetError(what + ": " + std::strerror(error), std::nullopt, "VdirFiles", function, line);
}

// Writes all of `bytes`, retrying after interruptions; 0 or the error number.
int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t count = ::write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count < 0 ? errno : EIO;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

int syncDirectory(const std::string& directory) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  int error = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return error;
}

std::string parentOf(const std::string& path) {
  const std::filesystem::path target(path);
  return target.has_parent_path() ? target.parent_path().string() : std::string(".");
}

}  // namespace

rivet::RivetResult<std::string> readOpenFile(int fd, std::size_t sizeHint, std::uintmax_t limit) {
  std::string text;
  text.reserve(static_cast<std::size_t>(std::min<std::uintmax_t>(sizeHint, limit + 1)));
  char buffer[65536];
  for (;;) {
    ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      return failure("file cannot be read", errno, "readOpenFile", __LINE__);
    }
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > limit) {
      text.resize(static_cast<std::size_t>(limit + 1));
      break;
    }
  }
  return text;
}

rivet::RivetResult<std::string> writeTemporaryBeside(const std::string& path, std::string_view bytes,
                                                     std::optional<mode_t> mode, VdirDurability durability) {
  const std::filesystem::path target(path);
  std::random_device random;
  std::string name(1, '.');
  name.append(target.filename().string());
  name.append(1, '.').append(std::to_string(::getpid()));
  name.append(1, '-').append(std::to_string(random())).append(".tmp");
  const std::string temporary = (std::filesystem::path(parentOf(path)) / name).string();
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode.value_or(0666));
  if (fd < 0) return failure("cannot write " + temporary, errno, "writeTemporaryBeside", __LINE__);
  int error = writeAll(fd, bytes);
  // The mode asked for, whatever the umask took away.
  if (error == 0 && mode && ::fchmod(fd, *mode) != 0) error = errno;
  if (error == 0 && durability == VdirDurability::synced && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return failure("cannot write " + temporary, error, "writeTemporaryBeside", __LINE__);
  }
  return temporary;
}

int syncDirectoryOf(const std::string& path) { return syncDirectory(parentOf(path)); }

rivet::RivetResult<void> replaceFile(const std::string& path, std::string_view bytes, mode_t mode,
                                     VdirDurability durability) {
  auto temporary = writeTemporaryBeside(path, bytes, mode, durability);
  if (!temporary) return temporary.error();
  if (::rename(temporary->c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(temporary->c_str());
    return failure("cannot replace " + path, error, "replaceFile", __LINE__);
  }
  if (durability == VdirDurability::synced) {
    if (int error = syncDirectoryOf(path); error != 0)
      return failure("cannot sync the directory of " + path, error, "replaceFile", __LINE__);
  }
  return rivet::RivetResultVoidSuccess;
}

std::string systemLocalZoneName() {
  if (const char* tz = std::getenv("TZ"); tz && *tz) {
    std::string name = tz[0] == ':' ? tz + 1 : tz;
    auto marker = name.find("zoneinfo/");
    if (marker != std::string::npos) name = name.substr(marker + 9);
    if (!name.empty()) return name;
  }
  char target[4096];
  ssize_t length = ::readlink("/etc/localtime", target, sizeof target - 1);
  if (length > 0) {
    std::string path(target, static_cast<std::size_t>(length));
    auto marker = path.find("zoneinfo/");
    if (marker != std::string::npos) return path.substr(marker + 9);
  }
  std::ifstream file("/etc/timezone");
  std::string name;
  if (file && std::getline(file, name) && !name.empty()) return name;
  return "UTC";
}

}  // namespace vesp::vdir
