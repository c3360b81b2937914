// The user's access decisions, per application and entity type, kept in a small JSON file:
//   {"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "denied"}}}
// A type without a decision is not determined. The file is replaced atomically (written beside it,
// then renamed) and is readable and writable by its owner only. It is read again only when its
// version (inode, size, times) changed, or when it changed too recently for its times to tell.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "support/platform/EKTypes.h"
#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

class VdirEnv;

class VdirAccess {
 public:
  // `file` is the decisions file; `application` names the host whose decisions are read; `env`
  // reaches the file and the clock (none: this machine's).
  VdirAccess(std::string file, std::string application, std::shared_ptr<VdirEnv> env = nullptr);

  // The default file: $XDG_CONFIG_HOME/vesp/access.json, else ~/.config/vesp/access.json.
  static std::string defaultFile();

  // Not determined, denied or authorised, as the file says now.
  platform::EKAuthorizationStatus status(platform::EKEntityType entityType) const;
  // Records a decision (or, with nothing, forgets it). Fails when the file could not be written
  // (the message says why); the decision then holds for this process only.
  rivet::RivetResult<void> record(platform::EKEntityType entityType, std::optional<bool> granted);

  const std::string& file() const { return file_; }
  const std::string& application() const { return application_; }

 private:
  std::string file_;
  std::string application_;
  std::shared_ptr<VdirEnv> env_;
  // Serialises reading and replacing the file within this process.
  mutable rivet::RivetMutex mutex_;
  // Decisions the file could not keep.
  std::map<platform::EKEntityType, std::optional<bool>> overrides_ RIVET_GUARDED_BY(mutex_);
  // The decisions of this application as last read, and the file's version then (device, inode,
  // size, modification and change times; absent: read again at the next question).
  using FileVersion = std::array<std::int64_t, 6>;
  mutable std::map<platform::EKEntityType, platform::EKAuthorizationStatus> read_ RIVET_GUARDED_BY(mutex_);
  mutable std::optional<FileVersion> readVersion_ RIVET_GUARDED_BY(mutex_);

  void readIfChanged() const RIVET_REQUIRES(mutex_);
};

}  // namespace vesp::vdir
