#include "tools/vesp/VespSettings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirZones.h"
#include "tools/vesp/VespDates.h"
#include "tools/vesp/VespOutput.h"

namespace vesp::tool {

namespace {

using nlohmann::json;

// Far more than any configuration file holds.
constexpr std::uintmax_t kLargestFile = 1u << 20;

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t\r") - first + 1));
}

std::string quotedValue(std::string_view value) { return "\"" + neutralised(std::string(value)) + "\""; }

// Whether `name` is a zone that both the C library (for local times) and the store (for floating
// times) know.
bool knownZone(const std::string& name) {
  if (name == "UTC") return true;
  if (name.empty() || name.front() == '/' || name.find("..") != std::string::npos) return false;
  const char* directory = std::getenv("TZDIR");
  const std::string path = std::string(directory && *directory ? directory : "/usr/share/zoneinfo") + "/" + name;
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && vdir::builtinZone(name) != nullptr;
}

std::optional<std::string> readStore(VespConfiguration& into, const std::string& value) {
  std::string path = value;
  if (path == "~" || path.rfind("~/", 0) == 0) path = homeDirectory() + path.substr(1);
  if (path.empty() || path.front() != '/')
    return quotedValue(value) + " is not an absolute path (/..., or ~/... in the home directory)";
  into.store = path;
  return std::nullopt;
}

std::optional<std::string> readHidden(VespConfiguration& into, const std::string& value) {
  std::vector<std::string> names;
  if (!value.empty()) {
    std::istringstream parts(value);
    for (std::string part; std::getline(parts, part, ',');) {
      names.push_back(trimmed(part));
      if (names.back().empty()) return quotedValue(value) + " has an empty name between its commas";
    }
    if (value.back() == ',') return quotedValue(value) + " ends with a comma";
  }
  into.hiddenCalendars = std::move(names);
  return std::nullopt;
}

std::optional<std::string> readDays(VespConfiguration& into, const std::string& value) {
  const bool digits = !value.empty() && value.size() <= 4 && value.find_first_not_of("0123456789") == std::string::npos;
  const int days = digits ? std::stoi(value) : 0;
  if (days < 1 || days > 3660) return quotedValue(value) + " is not a number of days from 1 to 3660";
  into.days = days;
  return std::nullopt;
}

std::optional<std::string> readColour(VespConfiguration& into, const std::string& value) {
  if (value == "auto") into.colour = VespColour::automatic;
  else if (value == "always") into.colour = VespColour::always;
  else if (value == "never") into.colour = VespColour::never;
  else return quotedValue(value) + " is not auto, always or never";
  return std::nullopt;
}

std::optional<std::string> readValue(VespConfiguration& into, std::string_view key, const std::string& value) {
  if (key == "store") return readStore(into, value);
  if (key == "hidden-calendars") return readHidden(into, value);
  if (value.empty()) return std::string("needs a value");
  if (key == "timezone") {
    if (!knownZone(value))
      return quotedValue(value) + " is not a zone of the time zone database (such as Europe/Berlin or UTC)";
    into.timezone = value;
  } else if (key == "default-calendar") {
    into.defaultCalendar = value;
  } else if (key == "default-list") {
    into.defaultList = value;
  } else if (key == "days") {
    return readDays(into, value);
  } else if (key == "colour") {
    return readColour(into, value);
  } else {  // week-start
    into.firstWeekday = weekdayNamed(value);
    if (!into.firstWeekday) return quotedValue(value) + " is not a weekday";
  }
  return std::nullopt;
}

std::runtime_error unreadable(const std::string& file, const std::string& why) {
  return std::runtime_error("vesp: the configuration file " + file + " " + why);
}

}  // namespace

std::string homeDirectory() {
  const char* home = std::getenv("HOME");
  return home && *home ? home : ".";
}

const std::vector<VespSettingKey>& settingKeys() {
  static const std::vector<VespSettingKey> keys{
      {"store", "--store",
       "The store's root directory: its collections are directories of .ics files, as vdirsyncer\n"
       "writes them. $VESP_STORE also wins over this line.",
       "~/.calendars"},
      {"timezone", "--timezone", "The zone local times are shown and read in, from the time zone database.",
       "$TZ, else the system's zone"},
      {"default-calendar", "--calendar",
       "The calendar `vesp new` and `vesp import` use without --calendar: an identifier or title.",
       "the first writable calendar"},
      {"default-list", "--list",
       "The reminder list `vesp reminder new` uses without --list, and `vesp import` for to-dos\n"
       "alone: an identifier or title.",
       "the first writable reminder list"},
      {"hidden-calendars", "--hidden-calendars",
       "Calendars `vesp events` and `vesp search` leave out unless --calendar names them,\n"
       "as identifiers or titles separated by commas (an empty value hides none).",
       "none"},
      {"days", "--days", "How many days `vesp events` shows, and a period given only --from lasts.", "7"},
      {"colour", "--colour",
       "Colour in the human views: auto (on a terminal, unless $NO_COLOR is set), always or never.", "auto"},
      {"week-start", "--week-start", "The day weeks begin on, for --week, --month, \"this week\" and \"this friday\".",
       "monday"},
  };
  return keys;
}

bool isSettingKey(std::string_view key) {
  const auto& keys = settingKeys();
  return std::any_of(keys.begin(), keys.end(), [&](const VespSettingKey& known) { return key == known.key; });
}

std::optional<std::string> readSetting(VespConfiguration& into, std::string_view key, std::string_view value) {
  if (!isSettingKey(key)) return quotedValue(key) + " is not a setting";
  const std::string text = trimmed(value);
  if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }))
    return std::string("holds a control character");
  if (auto why = readValue(into, key, text)) return why;
  into.texts[std::string(key)] = text;
  return std::nullopt;
}

std::string VespSettings::defaultFile() {
  if (const char* file = std::getenv("VESP_CONFIG_FILE"); file && *file) return file;
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config)
    return std::string(config) + "/vesp/config";
  return homeDirectory() + "/.config/vesp/config";
}

std::string VespSettings::legacyFile(const std::string& file) {
  return (std::filesystem::path(file).parent_path() / "config.json").string();
}

VespSettings::VespSettings(std::string file) : file_(std::move(file)) {
  auto read = vdir::VdirEnv::posix()->read(file_, kLargestFile);
  if (!read) throw unreadable(file_, "cannot be read (" + read.error().message() + ")");
  if (!*read) return;
  if ((*read)->tooLong) throw unreadable(file_, "is too large to be a configuration file");
  exists_ = true;
  this->read((*read)->text);
}

void VespSettings::read(const std::string& text) {
  // A byte order mark, which some editors put first, is not part of the first key.
  std::istringstream lines(text.rfind("\xEF\xBB\xBF", 0) == 0 ? text.substr(3) : text);
  for (std::string line; std::getline(lines, line);) {
    lines_.push_back(line);
    const int number = static_cast<int>(lines_.size());
    const std::string content = trimmed(line);
    if (content.empty() || content.front() == '#') continue;
    auto failed = [&](const std::string& why) {
      return unreadable(file_, "is wrong on line " + std::to_string(number) + ": " + why +
                                   ". Mend that line, or remove it to use the default");
    };
    const auto equals = content.find('=');
    if (equals == std::string::npos)
      throw failed(quotedValue(content) + " is not a setting: each line is key = value, or a # comment");
    const std::string key = trimmed(std::string_view(content).substr(0, equals));
    if (!isSettingKey(key)) {
      std::string names;
      for (const auto& known : settingKeys()) names += std::string(names.empty() ? "" : ", ") + known.key;
      throw failed(quotedValue(key) + " is not a setting (the settings are " + names + ")");
    }
    if (auto first = lineOf_.find(key); first != lineOf_.end())
      throw failed(key + " is set again (first on line " + std::to_string(first->second) + ")");
    if (auto why = readSetting(configuration_, key, std::string_view(content).substr(equals + 1)))
      throw failed(key + " " + *why);
    lineOf_[key] = number;
  }
}

int VespSettings::lineOf(std::string_view key) const {
  auto found = lineOf_.find(key);
  return found == lineOf_.end() ? 0 : found->second;
}

void VespSettings::set(std::string_view key, const std::optional<std::string>& value, const std::string& initial) {
  const auto written = configuration_.texts.find(key);
  const bool same = value ? written != configuration_.texts.end() && written->second == *value : lineOf(key) == 0;
  if (exists_ && same) return;  // nothing changes, nothing is written
  VespConfiguration checked;
  if (value)
    if (auto why = readSetting(checked, key, *value))
      throw unreadable(file_, "cannot take " + std::string(key) + " " + *why);
  const bool fresh = !exists_;
  if (fresh) adopt(initial);  // a missing file starts as the initial text
  const std::string line = std::string(key) + " = " + value.value_or("");
  if (const int at = lineOf(key); at > 0) {
    if (value) lines_[at - 1] = line;
    else lines_.erase(lines_.begin() + (at - 1));
  } else if (value) {
    // After the commented-out example of the key, where the file explains it; else at the end.
    const std::string example = "# " + std::string(key) + " =";
    auto place = std::find_if(lines_.begin(), lines_.end(), [&](const std::string& text) {
      return trimmed(text).rfind(example, 0) == 0;
    });
    lines_.insert(place == lines_.end() ? place : place + 1, line);
  }
  std::string text;
  for (const auto& kept : lines_) text += kept + "\n";
  write(text, fresh);
  adopt(text);
}

void VespSettings::create(const std::string& text) {
  if (exists_ || std::filesystem::exists(file_))
    throw unreadable(file_, "already exists: edit it, or remove it to create it again");
  write(text, true);
  adopt(text);
}

void VespSettings::adopt(const std::string& text) {
  lines_.clear();
  lineOf_.clear();
  configuration_ = {};
  read(text);
}

void VespSettings::write(const std::string& text, bool fresh) {
  auto env = vdir::VdirEnv::posix();
  const std::filesystem::path path(file_);
  if (fresh && path.has_parent_path()) (void)env->createDirectories(path.parent_path().string());
  if (auto written = env->replace(file_, text, 0600, vdir::VdirDurability::synced); !written)
    throw unreadable(file_, "cannot be written: " + written.error().message());
  exists_ = true;
}

std::string VespSettings::initialText(const std::map<std::string, std::string>& given,
                                      const std::vector<std::string>& notes, const std::string& zone) {
  std::string text =
      "# vesp's configuration: one setting per line, written key = value; lines that begin with #\n"
      "# are comments. Take away the # before a setting to use it. The option named with each\n"
      "# setting gives it for one run, and wins over this file.\n";
  for (const auto& note : notes) text += "#\n# " + note + "\n";
  const std::map<std::string, std::string> examples{
      {"store", "~/.calendars"}, {"timezone", zone},   {"default-calendar", "personal"},
      {"default-list", "tasks"}, {"hidden-calendars", "Birthdays, Holidays"},
      {"days", "7"},             {"colour", "auto"},   {"week-start", "monday"}};
  for (const auto& key : settingKeys()) {
    text += "\n";
    std::istringstream comment(key.comment);
    for (std::string line; std::getline(comment, line);) text += "# " + line + "\n";
    text += std::string("# Option: ") + key.option + ". Default: " + key.byDefault + ".\n";
    text += "# " + std::string(key.key) + " = " + examples.at(key.key) + "\n";
    if (auto value = given.find(key.key); value != given.end()) text += key.key + (" = " + value->second) + "\n";
  }
  return text;
}

std::optional<std::string> VespSettings::legacyDefaultCalendar(const std::string& file, const std::string& storeRoot,
                                                               std::vector<std::string>* others) {
  const std::string legacy = legacyFile(file);
  auto read = vdir::VdirEnv::posix()->read(legacy, kLargestFile);
  if (!read || !*read || (*read)->tooLong) return std::nullopt;
  const json settings = json::parse((*read)->text, nullptr, false);
  if (settings.is_discarded() || !settings.is_object() || !settings.contains("stores") ||
      !settings["stores"].is_object())
    return std::nullopt;
  std::optional<std::string> mine;
  for (const auto& [store, values] : settings["stores"].items()) {
    if (!values.is_object() || !values.contains("defaultCalendar") || !values["defaultCalendar"].is_string())
      continue;
    const auto calendar = values["defaultCalendar"].get<std::string>();
    if (store == storeRoot) mine = calendar;
    else if (others)
      others->push_back("For the store " + neutralised(store) + ", " + neutralised(legacy) +
                        " set default-calendar = " + neutralised(calendar) + ".");
  }
  return mine;
}

}  // namespace vesp::tool
