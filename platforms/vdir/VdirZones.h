// The store's time zones: one zone object per distinct TZID definition, shared by every file that
// carries the same VTIMEZONE (building a zone from each file's own VTIMEZONE costs more than
// parsing the rest of the file). A TZID without a definition in its file is looked up in the
// system's zone data by name.
//
// Thread safety: every member function may be called from any thread. libical guards a zone's
// lazily expanded offsets and the loading of a built-in zone's data with its own locks, but not
// its table of built-in zones: a name missing from zone.tab (US/Eastern, Asia/Calcutta, ...) is
// appended to that table, reallocating it under readers on other threads. Every look-up of a
// built-in zone therefore goes through builtinZone() below, never through libical directly.
#pragma once

#include <libical/ical.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "support/rivet/RivetMutex.h"

namespace vesp::vdir {

class VdirZones {
 public:
  VdirZones();
  ~VdirZones();
  VdirZones(const VdirZones&) = delete;
  VdirZones& operator=(const VdirZones&) = delete;

  // The zone for `tzid` as `definition` (a VTIMEZONE, or null) defines it, and its IANA name;
  // null when the TZID is neither defined usably nor known by name.
  std::pair<const icaltimezone*, std::string> zoneFor(const std::string& tzid, icalcomponent* definition);
  // The same, with the definition's text as the file has it (its key, instead of the parsed
  // definition serialised again). A definition that parsed without errors and gave a zone is
  // remembered as such (see parsedCleanly).
  std::pair<const icaltimezone*, std::string> zoneFor(const std::string& tzid, icalcomponent* definition,
                                                      std::string_view text);
  // The zone and IANA name of a definition text that an earlier call of the above built from a
  // parse without errors, or nothing: the same text parses the same way, so a file that carries it
  // need not have it parsed again.
  std::optional<std::pair<const icaltimezone*, std::string>> parsedCleanly(const std::string& tzid,
                                                                           std::string_view text) const;
  // The same, from a definition's text alone (as `definitionOf` gives it).
  std::pair<const icaltimezone*, std::string> zoneFor(const std::string& tzid, const std::string& definitionText);

  // The TZID and VTIMEZONE text a zone of this object was built from; absent for zones it did
  // not build (built-in ones, UTC).
  std::optional<std::pair<std::string, std::string>> definitionOf(const icaltimezone* zone) const;

  std::size_t definedZoneCount() const;

 private:
  std::pair<const icaltimezone*, std::string> build(const std::string& tzid, icalcomponent* definition,
                                                    std::string_view text);

  mutable rivet::RivetMutex mutex_;
  // By TZID and definition text; a null zone: that definition is unusable.
  std::map<std::string, std::pair<icaltimezone*, std::string>> defined_ RIVET_GUARDED_BY(mutex_);
  std::map<const icaltimezone*, std::string> keys_ RIVET_GUARDED_BY(mutex_);  // the key of each zone built
  std::set<std::string, std::less<>> clean_ RIVET_GUARDED_BY(mutex_);          // keys of definitions parsed cleanly
};

// The built-in (system) zone of an IANA name, or null. Every look-up is serialised on one
// process-wide lock and remembered, so libical's table is searched and grown by one thread at a
// time and each name is loaded once. Safe from any thread.
icaltimezone* builtinZone(const std::string& name);

// libical's UTC zone, after its built-in zone table has been set up once for the whole process
// (libical sets it up lazily, unguarded, on the first call of many of its functions). Safe from
// any thread.
icaltimezone* utcZone();

// The IANA name in a TZID: "/freeassociation.sourceforge.net/Europe/Berlin" gives "Europe/Berlin".
std::string ianaNameOfTzid(const std::string& tzid);

}  // namespace vesp::vdir
