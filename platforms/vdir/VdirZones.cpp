#include "platforms/vdir/VdirZones.h"

#include <cstdlib>

namespace vesp::vdir {

VdirZones::~VdirZones() {
  for (auto& [key, zone] : defined_)
    if (zone.first) icaltimezone_free(zone.first, 1);
}

std::string ianaNameOfTzid(const std::string& tzid) {
  // Strip the vendor prefixes some clients put in front of the zone name.
  static const char* const prefixes[] = {"/freeassociation.sourceforge.net/Tzfile/",
                                         "/freeassociation.sourceforge.net/", "/citadel.org/", "/mozilla.org/"};
  std::string name = tzid;
  for (const char* prefix : prefixes) {
    std::string p(prefix);
    if (name.rfind(p, 0) == 0) {
      name = name.substr(p.size());
      // "/mozilla.org/20050126_1/Europe/Berlin" carries a version directory before the name.
      auto slash = name.find('/');
      if (slash != std::string::npos && !name.empty() && name[0] >= '0' && name[0] <= '9') name = name.substr(slash + 1);
      break;
    }
  }
  return name;
}

std::pair<const icaltimezone*, std::string> VdirZones::zoneFor(const std::string& tzid, icalcomponent* definition) {
  const std::string name = ianaNameOfTzid(tzid);
  if (definition) {
    char* text = icalcomponent_as_ical_string_r(definition);
    std::string key = tzid + '\n' + (text ? text : "");
    std::free(text);
    auto found = defined_.find(key);
    if (found != defined_.end()) {
      if (found->second.first) return found->second;
    } else {
      icaltimezone* zone = icaltimezone_new();
      icalcomponent* copy = icalcomponent_new_clone(definition);
      // A definition needs at least one STANDARD or DAYLIGHT observance to give offsets.
      bool usable = icalcomponent_get_first_component(copy, ICAL_XSTANDARD_COMPONENT) ||
                    icalcomponent_get_first_component(copy, ICAL_XDAYLIGHT_COMPONENT);
      if (usable && zone && icaltimezone_set_component(zone, copy)) {
        defined_.emplace(key, std::make_pair(zone, name));
        return {zone, name};
      }
      if (!usable || !zone) icalcomponent_free(copy);
      if (zone) icaltimezone_free(zone, 1);
      defined_.emplace(key, std::make_pair(nullptr, name));
    }
  }
  if (name == "UTC" || name == "GMT" || name == "Etc/UTC") return {icaltimezone_get_utc_timezone(), "UTC"};
  icaltimezone* builtin = icaltimezone_get_builtin_timezone(name.c_str());
  if (builtin) return {builtin, name};
  return {nullptr, name};
}

}  // namespace vesp::vdir
