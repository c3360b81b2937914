// The store's time zones: one zone object per distinct TZID definition, shared by every file that
// carries the same VTIMEZONE (building a zone from each file's own VTIMEZONE costs more than
// parsing the rest of the file). A TZID without a definition in its file is looked up in the
// system's zone data by name.
#pragma once

#include <libical/ical.h>

#include <map>
#include <string>
#include <utility>

namespace vesp::vdir {

class VdirZones {
 public:
  VdirZones() = default;
  ~VdirZones();
  VdirZones(const VdirZones&) = delete;
  VdirZones& operator=(const VdirZones&) = delete;

  // The zone for `tzid` as `definition` (a VTIMEZONE, or null) defines it, and its IANA name;
  // null when the TZID is neither defined usably nor known by name.
  // REQUIRES: libicalMutex() is held.
  std::pair<const icaltimezone*, std::string> zoneFor(const std::string& tzid, icalcomponent* definition);

  std::size_t definedZoneCount() const { return defined_.size(); }

 private:
  std::map<std::string, std::pair<icaltimezone*, std::string>> defined_;  // by TZID and definition text
};

// The IANA name in a TZID: "/freeassociation.sourceforge.net/Europe/Berlin" gives "Europe/Berlin".
std::string ianaNameOfTzid(const std::string& tzid);

}  // namespace vesp::vdir
