// The vesp program's configuration file: one "key = value" setting per line, "#" comment lines,
// read with each line's number so that a mistake is reported where it stands.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesp::tool {

enum class VespColour { automatic, always, never };

// The settings a file or the command line gives; each is unset until one of them gives it.
struct VespConfiguration {
  std::optional<std::string> store;     // an absolute path, "~" expanded
  std::optional<std::string> timezone;  // a zone of the time zone database
  std::optional<std::string> defaultCalendar, defaultList;
  std::optional<std::vector<std::string>> hiddenCalendars;  // identifiers or titles; empty hides none
  std::optional<int> days;
  std::optional<VespColour> colour;
  std::optional<int> firstWeekday;  // 0 Sunday to 6 Saturday
  // Each setting given, as it was written (trimmed), by key.
  std::map<std::string, std::string, std::less<>> texts;
};

// One setting's key, the option that also gives it, what it does and what holds without it, in the
// order the file lists them.
struct VespSettingKey {
  const char* key;
  const char* option;
  const char* comment;    // one or more lines, without the "# "
  const char* byDefault;  // what holds when nothing sets it
};
// The days a period lasts when only its start is given.
inline constexpr int kDefaultDays = 7;
const std::vector<VespSettingKey>& settingKeys();

// $HOME, or "." without one.
std::string homeDirectory();

bool isSettingKey(std::string_view key);
// Reads `value` as the setting `key` into `into`, or says why the value is not one it takes, as
// words that follow the key ("\"s\" is not a weekday").
std::optional<std::string> readSetting(VespConfiguration& into, std::string_view key, std::string_view value);

class VespSettings {
 public:
  // $VESP_CONFIG_FILE, else $XDG_CONFIG_HOME/vesp/config, else ~/.config/vesp/config.
  static std::string defaultFile();

  // Reads `file`; a missing one sets nothing. A file that cannot be read or holds a line that is not a
  // setting is an error whose message names the file and the line (std::runtime_error).
  explicit VespSettings(std::string file);

  const std::string& file() const { return file_; }
  bool exists() const { return exists_; }
  const VespConfiguration& configuration() const { return configuration_; }
  // The line that sets `key`, 0 when none does.
  int lineOf(std::string_view key) const;

  // Sets `key` (or with nothing, removes its line), keeping every other line as it is, and writes
  // the file atomically; a missing file is first created as `initial` (std::runtime_error when it
  // cannot be written, or when the value is not one the setting takes).
  void set(std::string_view key, const std::optional<std::string>& value, const std::string& initial);
  // Writes `text` as a new file; std::runtime_error when one exists or it cannot be written.
  void create(const std::string& text);

  // The commented file `vesp config init` writes: every setting explained and left commented out,
  // but those in `given`; `notes` are comment lines put first. `zone` is shown as the zone's example.
  static std::string initialText(const std::map<std::string, std::string>& given,
                                 const std::vector<std::string>& notes, const std::string& zone);

  // The default calendar that the earlier per-store JSON settings file keeps for `storeRoot`
  // (`config.json` beside `file`), with the other stores' settings as comment lines in `others`.
  static std::optional<std::string> legacyDefaultCalendar(const std::string& file, const std::string& storeRoot,
                                                          std::vector<std::string>* others = nullptr);
  static std::string legacyFile(const std::string& file);

 private:
  void read(const std::string& text);
  // Takes `text` as the file's contents, as though it had been read.
  void adopt(const std::string& text);
  void write(const std::string& text, bool fresh);

  std::string file_;
  bool exists_ = false;
  std::vector<std::string> lines_;
  std::map<std::string, int, std::less<>> lineOf_;
  VespConfiguration configuration_;
};

}  // namespace vesp::tool
