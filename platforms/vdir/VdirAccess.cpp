#include "platforms/vdir/VdirAccess.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "platforms/vdir/VdirEnv.h"

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

// The file as read (absent: none, or it cannot be read).
std::optional<VdirFileText> readWhole(VdirEnv& env, const std::string& path) {
  auto read = env.read(path, kLargestFile);
  if (!read || !*read) return std::nullopt;
  return std::move(read).value();
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

}  // namespace

VdirAccess::VdirAccess(std::string file, std::string application, std::shared_ptr<VdirEnv> env)
    : file_(std::move(file)), application_(std::move(application)), env_(env ? std::move(env) : VdirEnv::posix()) {}

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

// Asked at every query: one stat when the file is as it was, a read and a parse when it changed.
void VdirAccess::readIfChanged() const {
  auto versionOf = [](const std::optional<VdirFileStatus>& status) {
    if (!status) return FileVersion{};  // all zero: no file
    return FileVersion{static_cast<std::int64_t>(status->device), static_cast<std::int64_t>(status->inode),
                       status->size, status->modified, status->changed, 1};
  };
  auto looked = env_->status(file_);
  if (readVersion_ && *readVersion_ == versionOf(looked ? *looked : std::nullopt)) return;
  // The version recorded is that of the text read.
  auto file = readWhole(*env_, file_);
  const FileVersion version = versionOf(file ? std::optional(file->status) : std::nullopt);
  auto json = parsed(file && !file->tooLong ? file->text : std::string());
  read_.clear();
  for (auto entityType : {platform::EKEntityTypeEvent, platform::EKEntityTypeReminder})
    read_[entityType] = decisionOf(json, application_, entityType);
  const bool settled = env_->now() - std::max(version[3], version[4]) >= kTrustedAfterNanoseconds;
  if (settled)
    readVersion_ = version;
  else
    readVersion_.reset();
}

rivet::RivetResult<void> VdirAccess::record(platform::EKEntityType entityType, std::optional<bool> granted) {
  rivet::RivetMutexLock lock(mutex_);
  auto file = readWhole(*env_, file_);
  auto json = parsed(file && !file->tooLong ? file->text : std::string());
  json["version"] = 1;
  if (!json["applications"].is_object()) json["applications"] = nlohmann::json::object();
  auto& application = json["applications"][application_];
  if (!application.is_object()) application = nlohmann::json::object();
  if (granted)
    application[keyOf(entityType)] = *granted ? "authorized" : "denied";
  else
    application.erase(keyOf(entityType));

  std::filesystem::path path(file_);
  if (path.has_parent_path()) (void)env_->createDirectories(path.parent_path().string());
  auto written = env_->replace(file_, json.dump(2) + "\n", 0600, VdirDurability::synced);
  if (!written)
    overrides_[entityType] = granted;
  else
    overrides_.erase(entityType);
  readVersion_.reset();
  return written;
}

}  // namespace vesp::vdir
