#include "tools/vesp/VespSettings.h"

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "platforms/vdir/VdirEnv.h"

namespace vesp::tool {

namespace {

using nlohmann::json;

// Far more than any settings file holds.
constexpr std::uintmax_t kLargestFile = 16u << 20;

std::runtime_error damaged(const std::string& file, const std::string& why) {
  return std::runtime_error("vesp: the settings file " + file + " " + why +
                            ": repair it, or remove it to start again from no settings");
}

}  // namespace

std::string VespSettings::defaultFile() {
  if (const char* file = std::getenv("VESP_CONFIG_FILE"); file && *file) return file;
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config)
    return std::string(config) + "/vesp/config.json";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.config/vesp/config.json";
}

VespSettings::VespSettings(std::string file, std::string storeRoot)
    : file_(std::move(file)), storeRoot_(std::move(storeRoot)) {
  auto read = vdir::VdirEnv::posix()->read(file_, kLargestFile);
  if (!read) throw damaged(file_, "cannot be read (" + read.error().message() + ")");
  if (!*read) return;
  if ((*read)->tooLong) throw damaged(file_, "is too large to be a settings file");
  text_ = (*read)->text;
  const json settings = json::parse(text_, nullptr, false);
  if (settings.is_discarded() || !settings.is_object()) throw damaged(file_, "is not a JSON object");
  auto stores = settings.find("stores");
  if (stores == settings.end()) return;
  if (!stores->is_object()) throw damaged(file_, "has a \"stores\" that is not an object");
  auto mine = stores->find(storeRoot_);
  if (mine == stores->end()) return;
  auto calendar = mine->is_object() ? mine->find("defaultCalendar") : mine->end();
  if (!mine->is_object() || (calendar != mine->end() && !calendar->is_string()))
    throw damaged(file_, "has settings for " + storeRoot_ + " that are not a JSON object of texts");
  if (calendar != mine->end()) defaultCalendar_ = calendar->get<std::string>();
}

void VespSettings::setDefaultCalendar(const std::optional<std::string>& identifier) {
  if (identifier == defaultCalendar_) return;  // nothing changes, nothing is written
  json settings = text_.empty() ? json::object() : json::parse(text_);
  settings["version"] = 1;
  if (!settings.contains("stores")) settings["stores"] = json::object();
  json& stores = settings["stores"];
  if (identifier) {
    stores[storeRoot_]["defaultCalendar"] = *identifier;
  } else if (auto mine = stores.find(storeRoot_); mine != stores.end()) {
    mine->erase("defaultCalendar");
    if (mine->empty()) stores.erase(mine);
  }
  const std::string text = settings.dump(2) + "\n";
  auto env = vdir::VdirEnv::posix();
  const std::filesystem::path path(file_);
  if (path.has_parent_path()) (void)env->createDirectories(path.parent_path().string());
  if (auto written = env->replace(file_, text, 0600, vdir::VdirDurability::synced); !written)
    throw std::runtime_error("vesp: the settings file " + file_ + " cannot be written: " + written.error().message());
  text_ = text;
  defaultCalendar_ = identifier;
}

}  // namespace vesp::tool
