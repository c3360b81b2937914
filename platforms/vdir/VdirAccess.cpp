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
#include <nlohmann/json.hpp>

#include "platforms/vdir/VdirFiles.h"

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

// Far more than any access file holds; a larger one is read as no decisions.
constexpr std::uintmax_t kLargestFile = 64u << 20;

// The text of the open file, empty when it cannot be read.
std::string textOf(int fd) {
  auto text = readOpenFile(fd, 0, kLargestFile);
  return text && text->size() <= kLargestFile ? std::move(text).value() : std::string();
}

nlohmann::json readFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nlohmann::json::object();
  std::string text = textOf(fd);
  ::close(fd);
  return parsed(text);
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
    text = textOf(fd);
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

rivet::RivetResult<void> VdirAccess::record(platform::EKEntityType entityType, std::optional<bool> granted) {
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
  auto written = replaceFile(file_, json.dump(2) + "\n", 0600, VdirDurability::synced);
  if (!written)
    overrides_[entityType] = granted;
  else
    overrides_.erase(entityType);
  readVersion_.reset();
  return written;
}

}  // namespace vesp::vdir
