#include "platforms/vdir/VdirAccess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace vesp::vdir {

namespace {

const char* keyOf(platform::EKEntityType entityType) {
  return entityType == platform::EKEntityTypeReminder ? "reminders" : "events";
}

nlohmann::json readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return nlohmann::json::object();
  std::stringstream text;
  text << in.rdbuf();
  auto parsed = nlohmann::json::parse(text.str(), nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) return nlohmann::json::object();
  return parsed;
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
  std::lock_guard lock(mutex_);
  if (auto found = overrides_.find(entityType); found != overrides_.end()) {
    if (!found->second) return platform::EKAuthorizationStatusNotDetermined;
    return *found->second ? platform::EKAuthorizationStatusAuthorized : platform::EKAuthorizationStatusDenied;
  }
  auto json = readFile(file_);
  auto applications = json.find("applications");
  if (applications == json.end() || !applications->is_object()) return platform::EKAuthorizationStatusNotDetermined;
  auto application = applications->find(application_);
  if (application == applications->end() || !application->is_object()) return platform::EKAuthorizationStatusNotDetermined;
  auto decision = application->find(keyOf(entityType));
  if (decision == application->end() || !decision->is_string()) return platform::EKAuthorizationStatusNotDetermined;
  if (*decision == "authorized") return platform::EKAuthorizationStatusAuthorized;
  if (*decision == "denied") return platform::EKAuthorizationStatusDenied;
  return platform::EKAuthorizationStatusNotDetermined;
}

std::optional<std::string> VdirAccess::record(platform::EKEntityType entityType, std::optional<bool> granted) {
  std::lock_guard lock(mutex_);
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
  return failure;
}

}  // namespace vesp::vdir
