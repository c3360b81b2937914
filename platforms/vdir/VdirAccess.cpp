#include "platforms/vdir/VdirAccess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace vesp::vdir {

namespace {

const char* keyOf(platform::EKEntityType entityType) {
  return entityType == platform::EKEntityTypeReminder ? "reminders" : "events";
}

nlohmann::json parsed(const std::string& text) {
  auto json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) return nlohmann::json::object();
  return json;
}

nlohmann::json readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return nlohmann::json::object();
  std::stringstream text;
  text << in.rdbuf();
  return parsed(text.str());
}

platform::EKAuthorizationStatus decisionOf(const nlohmann::json& json, const std::string& application,
                                           platform::EKEntityType entityType) {
  auto applications = json.find("applications");
  if (applications == json.end() || !applications->is_object()) return platform::EKAuthorizationStatusNotDetermined;
  auto found = applications->find(application);
  if (found == applications->end() || !found->is_object()) return platform::EKAuthorizationStatusNotDetermined;
  auto decision = found->find(keyOf(entityType));
  if (decision == found->end() || !decision->is_string()) return platform::EKAuthorizationStatusNotDetermined;
  if (*decision == "authorized") return platform::EKAuthorizationStatusAuthorized;
  if (*decision == "denied") return platform::EKAuthorizationStatusDenied;
  return platform::EKAuthorizationStatusNotDetermined;
}

// A file changed this recently may change again within the resolution of its times unseen.
constexpr std::int64_t kTrustedAfterNanoseconds = 2'000'000'000;

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

VdirAccess::VdirAccess(std::string file, std::string application)
    : file_(std::move(file)), application_(std::move(application)) {}

std::string VdirAccess::defaultFile() {
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config)
    return std::string(config) + "/vesp/access.json";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.config/vesp/access.json";
}

platform::EKAuthorizationStatus VdirAccess::status(platform::EKEntityType entityType) const {
  rivet::RivetMutexLock lock(mutex_);
  if (auto found = overrides_.find(entityType); found != overrides_.end()) {
    if (!found->second) return platform::EKAuthorizationStatusNotDetermined;
    return *found->second ? platform::EKAuthorizationStatusAuthorized : platform::EKAuthorizationStatusDenied;
  }
  readIfChanged();
  auto found = read_.find(entityType);
  return found == read_.end() ? platform::EKAuthorizationStatusNotDetermined : found->second;
}

// Asked at every query: one fstat when the file is as it was, a read and a parse when it changed.
void VdirAccess::readIfChanged() const {
  int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  FileVersion version{};  // all zero: no file
  if (fd >= 0 && ::fstat(fd, &status) == 0)
    version = {static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino),
               static_cast<std::int64_t>(status.st_size), nanoseconds(status.st_mtim), nanoseconds(status.st_ctim), 1};
  if (readVersion_ && *readVersion_ == version) {
    if (fd >= 0) ::close(fd);
    return;
  }
  std::string text;
  if (fd >= 0) {
    char buffer[4096];
    for (;;) {
      ssize_t got = ::read(fd, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
  }
  auto json = parsed(text);
  read_.clear();
  for (auto entityType : {platform::EKEntityTypeEvent, platform::EKEntityTypeReminder})
    read_[entityType] = decisionOf(json, application_, entityType);
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const bool settled = nanoseconds(now) - std::max(version[3], version[4]) >= kTrustedAfterNanoseconds;
  if (settled)
    readVersion_ = version;
  else
    readVersion_.reset();
}

std::optional<std::string> VdirAccess::record(platform::EKEntityType entityType, std::optional<bool> granted) {
  rivet::RivetMutexLock lock(mutex_);
  auto json = readFile(file_);
  json["version"] = 1;
  if (!json["applications"].is_object()) json["applications"] = nlohmann::json::object();
  auto& application = json["applications"][application_];
  if (!application.is_object()) application = nlohmann::json::object();
  if (granted)
    application[keyOf(entityType)] = *granted ? "authorized" : "denied";
  else
    application.erase(keyOf(entityType));

  std::filesystem::path path(file_);
  std::error_code error;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
  std::string temporary = file_ + ".tmp." + std::to_string(::getpid());
  std::string text = json.dump(2) + "\n";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  std::optional<std::string> failure;
  if (fd < 0) {
    failure = "cannot write " + temporary + ": " + std::strerror(errno);
  } else {
    const char* at = text.data();
    std::size_t left = text.size();
    while (left > 0) {
      ssize_t written = ::write(fd, at, left);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        failure = "cannot write " + temporary + ": " + std::strerror(errno);
        break;
      }
      at += written;
      left -= static_cast<std::size_t>(written);
    }
    if (!failure && ::fsync(fd) != 0) failure = "cannot write " + temporary + ": " + std::strerror(errno);
    ::close(fd);
    if (!failure && ::rename(temporary.c_str(), file_.c_str()) != 0)
      failure = "cannot replace " + file_ + ": " + std::strerror(errno);
    if (failure) ::unlink(temporary.c_str());
  }
  if (failure)
    overrides_[entityType] = granted;
  else
    overrides_.erase(entityType);
  readVersion_.reset();
  return failure;
}

}  // namespace vesp::vdir
