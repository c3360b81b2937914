#include "platforms/vdir/VdirZones.h"

#include <cstdlib>
#include <unordered_map>

namespace vesp::vdir {

namespace {

// libical's table of built-in zones is process-wide and unguarded; so is this lock.
rivet::RivetMutex& builtinZoneMutex() {
  static rivet::RivetMutex mutex;
  return mutex;
}

void setUpLibicalZones() {
  static std::once_flag once;
  // Loads zone.tab and sets up the UTC zone before any other thread can ask for either.
  std::call_once(once, [] {
    rivet::RivetMutexLock lock(builtinZoneMutex());
    icaltimezone_get_builtin_timezones();
  });
}

// A zone of its own for `definition`, or null when it cannot give offsets. A definition needs at
// least one STANDARD or DAYLIGHT observance, and observances that recur yearly at most: libical
// expands a zone's changes for every year it is asked about, and an hourly rule there costs
// seconds per zone.
icaltimezone* zoneOfDefinition(icalcomponent* definition) {
  icalcomponent* copy = icalcomponent_new_clone(definition);
  bool usable = icalcomponent_get_first_component(copy, ICAL_XSTANDARD_COMPONENT) ||
                icalcomponent_get_first_component(copy, ICAL_XDAYLIGHT_COMPONENT);
  for (auto kind : {ICAL_XSTANDARD_COMPONENT, ICAL_XDAYLIGHT_COMPONENT})
    for (icalcomponent* observance = icalcomponent_get_first_component(copy, kind); usable && observance;
         observance = icalcomponent_get_next_component(copy, kind))
      for (icalproperty* rule = icalcomponent_get_first_property(observance, ICAL_RRULE_PROPERTY); usable && rule;
           rule = icalcomponent_get_next_property(observance, ICAL_RRULE_PROPERTY))
        usable = icalproperty_get_rrule(rule).freq == ICAL_YEARLY_RECURRENCE;
  if (usable) {
    // The zone owns the copy only once it is set (a definition without a TZID is refused).
    icaltimezone* zone = icaltimezone_new();
    if (zone && icaltimezone_set_component(zone, copy)) return zone;
    if (zone) icaltimezone_free(zone, 1);
  }
  icalcomponent_free(copy);
  return nullptr;
}

// Whether `component` or any component in it holds an error the parser put there.
bool hasParseErrors(icalcomponent* component) {
  if (icalcomponent_get_first_property(component, ICAL_XLICERROR_PROPERTY)) return true;
  for (icalcomponent* child = icalcomponent_get_first_component(component, ICAL_ANY_COMPONENT); child;
       child = icalcomponent_get_next_component(component, ICAL_ANY_COMPONENT))
    if (hasParseErrors(child)) return true;
  return false;
}

std::string keyOf(const std::string& tzid, std::string_view text) {
  std::string key = tzid + '\n';
  key += text;
  return key;
}

}  // namespace

icaltimezone* builtinZone(const std::string& name) {
  // Each thread remembers what it was given (zones live as long as the process), so parse and
  // cache-decoding threads meet at the lock once per name, not once per time.
  thread_local std::unordered_map<std::string, icaltimezone*> seen;
  if (auto found = seen.find(name); found != seen.end()) return found->second;
  setUpLibicalZones();
  rivet::RivetMutexLock lock(builtinZoneMutex());
  // libical appends a zone it had to load by name at every such look-up: ask it once per name.
  static std::unordered_map<std::string, icaltimezone*> known;
  auto [at, inserted] = known.emplace(name, nullptr);
  if (inserted) {
    at->second = name.empty() ? nullptr : icaltimezone_get_builtin_timezone(name.c_str());
    // A built-in zone's data is loaded on first use, under one of two libical locks depending on
    // the caller (offsets, or name and definition): load it here, before any thread sees the zone.
    if (at->second) icaltimezone_get_component(at->second);
  }
  seen.emplace(name, at->second);
  return at->second;
}

icaltimezone* utcZone() {
  setUpLibicalZones();
  return icaltimezone_get_utc_timezone();
}

VdirZones::VdirZones() { setUpLibicalZones(); }

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
  std::string text;
  if (definition) {
    char* serialised = icalcomponent_as_ical_string_r(definition);
    text = serialised ? serialised : "";
    std::free(serialised);
  }
  return build(tzid, definition, text);
}

std::pair<const icaltimezone*, std::string> VdirZones::zoneFor(const std::string& tzid, icalcomponent* definition,
                                                              std::string_view text) {
  auto result = build(tzid, definition, text);
  if (definition && result.first && !hasParseErrors(definition)) {
    std::string key = keyOf(tzid, text);
    rivet::RivetMutexLock lock(mutex_);
    // Only the definition's own zone, not a built-in one it fell back to.
    if (auto found = defined_.find(key); found != defined_.end() && found->second.first == result.first)
      clean_.insert(std::move(key));
  }
  return result;
}

std::optional<std::pair<const icaltimezone*, std::string>> VdirZones::parsedCleanly(const std::string& tzid,
                                                                                   std::string_view text) const {
  const std::string key = keyOf(tzid, text);
  rivet::RivetMutexLock lock(mutex_);
  if (!clean_.contains(key)) return std::nullopt;
  const auto& [zone, name] = defined_.at(key);
  return std::make_pair(zone, name);
}

std::pair<const icaltimezone*, std::string> VdirZones::zoneFor(const std::string& tzid,
                                                              const std::string& definitionText) {
  {
    rivet::RivetMutexLock lock(mutex_);
    auto found = defined_.find(keyOf(tzid, definitionText));
    if (found != defined_.end() && found->second.first) return found->second;
  }
  icalcomponent* definition = icalparser_parse_string(definitionText.c_str());
  if (definition && icalcomponent_isa(definition) != ICAL_VTIMEZONE_COMPONENT) {
    icalcomponent_free(definition);
    definition = nullptr;
  }
  auto result = build(tzid, definition, definitionText);
  if (definition) icalcomponent_free(definition);
  return result;
}

std::pair<const icaltimezone*, std::string> VdirZones::build(const std::string& tzid, icalcomponent* definition,
                                                            std::string_view text) {
  const std::string name = ianaNameOfTzid(tzid);
  if (definition) {
    std::string key = keyOf(tzid, text);
    bool knownUnusable = false;
    {
      rivet::RivetMutexLock lock(mutex_);
      if (auto found = defined_.find(key); found != defined_.end()) {
        if (found->second.first) return found->second;
        knownUnusable = true;
      }
    }
    if (!knownUnusable) {
      // Built outside the lock: another thread may build the same zone meanwhile; the first to
      // file it wins and the other copy is let go.
      icaltimezone* zone = zoneOfDefinition(definition);
      std::pair<icaltimezone*, std::string> filed;
      bool inserted = false;
      {
        rivet::RivetMutexLock lock(mutex_);
        auto [at, isNew] = defined_.emplace(key, std::make_pair(zone, name));
        inserted = isNew;
        if (inserted && zone) keys_.emplace(zone, key);
        filed = at->second;
      }
      if (!inserted && zone) icaltimezone_free(zone, 1);
      if (filed.first) return filed;
    }
  }
  if (name == "UTC" || name == "GMT" || name == "Etc/UTC") return {utcZone(), "UTC"};
  icaltimezone* builtin = builtinZone(name);
  if (builtin) return {builtin, name};
  return {nullptr, name};
}

std::optional<std::pair<std::string, std::string>> VdirZones::definitionOf(const icaltimezone* zone) const {
  rivet::RivetMutexLock lock(mutex_);
  auto found = keys_.find(zone);
  if (found == keys_.end()) return std::nullopt;
  auto cut = found->second.find('\n');
  return std::make_pair(found->second.substr(0, cut), found->second.substr(cut + 1));
}

std::size_t VdirZones::definedZoneCount() const {
  rivet::RivetMutexLock lock(mutex_);
  return defined_.size();
}

}  // namespace vesp::vdir
