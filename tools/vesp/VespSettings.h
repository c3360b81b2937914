// The vesp program's own settings, kept per store in one JSON file beside the access decisions.
#pragma once

#include <optional>
#include <string>

namespace vesp::tool {

class VespSettings {
 public:
  // $VESP_CONFIG_FILE, else $XDG_CONFIG_HOME/vesp/config.json, else ~/.config/vesp/config.json.
  static std::string defaultFile();

  // Reads `file`, with the settings of the store at `storeRoot` (an absolute path). A missing file
  // holds no settings; one that is not a settings file is an error naming it (std::runtime_error).
  VespSettings(std::string file, std::string storeRoot);

  const std::string& file() const { return file_; }
  // The root of the store these settings are for, as given (canonical).
  const std::string& store() const { return storeRoot_; }
  // The calendar that `vesp new` uses without --calendar, as set for this store.
  const std::optional<std::string>& defaultCalendar() const { return defaultCalendar_; }

  // Sets (or with nothing, forgets) the default calendar and writes the file atomically, keeping
  // every other store's settings (the same value writes nothing); std::runtime_error when it cannot
  // be written.
  void setDefaultCalendar(const std::optional<std::string>& identifier);

 private:
  std::string file_, storeRoot_;
  std::string text_;  // the file as read, rewritten around this store's entry
  std::optional<std::string> defaultCalendar_;
};

}  // namespace vesp::tool
