// The user's access decisions, per application and entity type, kept in a small JSON file:
//   {"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "denied"}}}
// A type without a decision is not determined. The file is replaced atomically (written beside it,
// then renamed) and is readable and writable by its owner only.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "support/platform/EKTypes.h"

namespace vesp::vdir {

class VdirAccess {
 public:
  // `file` is the decisions file; `application` names the host whose decisions are read.
  VdirAccess(std::string file, std::string application);

  // The default file: $XDG_CONFIG_HOME/vesp/access.json, else ~/.config/vesp/access.json.
  static std::string defaultFile();

  // Not determined, denied or authorised, as the file says now.
  platform::EKAuthorizationStatus status(platform::EKEntityType entityType) const;
  // Records a decision (or, with nothing, forgets it). Returns an error text when the file could
  // not be written; the decision then holds for this process only.
  std::optional<std::string> record(platform::EKEntityType entityType, std::optional<bool> granted);

  const std::string& file() const { return file_; }
  const std::string& application() const { return application_; }

 private:
  std::string file_;
  std::string application_;
  mutable std::mutex mutex_;
  std::map<platform::EKEntityType, std::optional<bool>> overrides_;  // decisions the file could not keep
};

}  // namespace vesp::vdir
