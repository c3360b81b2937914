// Edits of events and to-dos in an iCalendar file, done on its VdirDocument so that every line the
// edit does not touch stays as it was. Times are written in the forms RFC 5545 asks for: a
// RECURRENCE-ID or EXDATE in the form of its series' DTSTART (a DATE for an all-day series, the
// same TZID for a zoned one), an UNTIL in UTC (a DATE for an all-day series), stamps in UTC.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirDocument.h"
#include "platforms/vdir/VdirTime.h"
#include "support/platform/Date.h"
#include "support/platform/EKTypes.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// What an edit needs besides the document: the clock for floating times and dates, the zone of a
// TZID (null when unknown), and the time of the edit for the stamps.
struct VdirEditContext {
  const VdirClock* clock = nullptr;
  std::function<const icaltimezone*(const std::string& tzid)> zoneFor;
  platform::Date now;
};

// What an edit sets; an absent field is left as it is. For the optional texts, a present empty
// optional removes the property.
struct VdirItemChanges {
  std::optional<std::string> title = std::nullopt;
  std::optional<std::optional<std::string>> location = std::nullopt, notes = std::nullopt, url = std::nullopt;
  // Events: the end is exclusive; each in the form it is to be written.
  std::optional<VdirTime> start = std::nullopt, end = std::nullopt;
  // To-dos: the due date in the form the user gave; a present empty optional removes it.
  std::optional<std::optional<VdirTime>> due = std::nullopt;
  std::optional<int> priority = std::nullopt;  // to-dos: 0 (none) to 9
  std::optional<bool> completed = std::nullopt;  // to-dos: completes or reopens (see setCompleted)
  // A whole series' repeat rule, an RFC 5545 RRULE value ("FREQ=WEEKLY;BYDAY=MO;UNTIL=20270301");
  // an UNTIL given as a day means through that day. It replaces every rule the item had. An empty
  // rule removes every rule, extra date and exclusion: the series becomes its first occurrence.
  std::optional<std::string> rule = std::nullopt;
  // The item's alarms as RFC 5545 durations from its start ("-PT15M") or, for an alarm at a set
  // time, UTC date-times ("20261201T090000Z"); they replace the VALARMs it had, and an empty list
  // removes them.
  std::optional<std::vector<std::string>> alarms = std::nullopt;
  // Events: how the event shows its owner's time (EKEventAvailability busy, free, tentative or
  // unavailable), as TRANSP and the busy status other clients write.
  std::optional<platform::EKEventAvailability> availability = std::nullopt;
  bool movesTime() const { return start || end || due || rule; }
};

// The time a DTSTART, DTEND, DUE, RECURRENCE-ID, EXDATE or RDATE value states (`value` is one value
// of the line, which may hold several), its zone looked up; absent when it is not a time. A day its
// month does not have, or a 60th second, is read as the time it runs into, as the reader reads it.
std::optional<VdirTime> timeOfValue(const VdirContentLine& line, std::string_view value,
                                    const VdirEditContext& context);
// The values of `line`, split at commas.
std::vector<std::string> valuesOf(const VdirContentLine& line);
// `time` as a value ("20261201", "20261201T090000", "20261201T090000Z").
std::string timeValue(const VdirTime& time);
// `instant` as a UTC date-time value ("20261201T090000Z"), to the second.
std::string utcText(platform::Date instant);
// `seconds` as an RFC 5545 duration: whole days as "P2D", anything else in hours, minutes and seconds
// ("-PT1H30M", "PT25H", "PT0S").
std::string durationValue(std::int64_t seconds);
// A line stating `time`: VALUE=DATE for a date, TZID for a zoned time.
VdirContentLine timeLine(const std::string& name, const VdirTime& time);

// The events and to-dos of a document, found by UID (case-sensitive, as RFC 5545 has it).
VdirComponent* masterOf(VdirDocument& document, const std::string& uid);  // no RECURRENCE-ID
VdirComponent* overrideOf(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                          const VdirEditContext& context);

// Applies `changes` to the master of `uid`, and stamps it. When its start moves, its exclusions,
// extra dates, overrides and UNTIL move with it, so that each stays attached to its occurrence and
// the series keeps its last. A series that comes to last all day, or no longer does, keeps each of
// them on its day, moved by as many days as the start; an end becomes the first midnight at or
// after it (a day after its start at least), and a DURATION a DTEND. False (and nothing changed)
// when the changes change nothing.
rivet::RivetResult<bool> changeSeries(VdirDocument& document, const std::string& uid, const VdirItemChanges& changes,
                                      const VdirEditContext& context);

// Applies `changes` to the occurrence of `uid` that starts (as the series states it) at
// `occurrence`: its override is changed, or made from the master when it has none.
rivet::RivetResult<bool> changeOccurrence(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirItemChanges& changes, const VdirEditContext& context);

// Removes one occurrence: an EXDATE in DTSTART's form, and its override gone.
rivet::RivetResult<bool> removeOccurrence(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirEditContext& context);

// Ends the series of `uid` before `occurrence`: every rule ends with an UNTIL just before it (its
// COUNT dropped), and the exclusions, extra dates and overrides from it on are removed.
rivet::RivetResult<bool> endSeriesBefore(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                         const VdirEditContext& context);

// Splits the series of `uid` at `occurrence` for a change of this and every later occurrence:
// the series in `document` ends before it (as endSeriesBefore), and the returned document holds
// the rest as a new series `newUid` (its COUNT what is left of it, the later exclusions, extra
// dates and overrides moved across, the time zones it uses copied), with `changes` applied.
rivet::RivetResult<VdirDocument> splitSeries(VdirDocument& document, const std::string& uid,
                                             platform::Date occurrence, const std::string& newUid,
                                             const VdirItemChanges& changes, const VdirEditContext& context);

// The PRODID of the files this platform writes.
inline constexpr const char* kVdirProductIdentifier = "-//Vesp//Vesp 0.1//EN";

// A new VEVENT or VTODO `uid` with `changes` (an event needs a start and a title, a to-do a
// title), stamped as created now.
rivet::RivetResult<VdirComponent> newItem(const std::string& componentName, const std::string& uid,
                                          const VdirItemChanges& changes, const VdirEditContext& context);
// Zone definitions, as the text of a VTIMEZONE, by TZID; nothing for an unknown zone.
using VdirZoneSource = std::function<std::optional<std::string>(const std::string& tzid)>;

// A new file for `item`: a VCALENDAR with VERSION, PRODID, the item, and the VTIMEZONE of every
// zone it uses, from `zones`. Fails when a zone it uses has no definition there.
rivet::RivetResult<VdirDocument> newItemDocument(const VdirComponent& item, const VdirZoneSource& zones);

// The TZIDs an item's times name (its own and its sub-components'), in order of first use.
std::vector<std::string> zonesUsedBy(const VdirComponent& item);

// The TZIDs that the items of `document` use and none of its VTIMEZONEs defines, in order of first
// use, leaving out those in `except`.
std::vector<std::string> undefinedZones(const VdirDocument& document, const std::vector<std::string>& except = {});
// Appends a VTIMEZONE from `zones` for each of `tzids` (RFC 5545 wants one for every TZID used);
// fails, adding none, when one has no definition there.
rivet::RivetResult<void> defineZones(VdirDocument& document, const std::vector<std::string>& tzids,
                                     const VdirZoneSource& zones);
// Appends a VTIMEZONE from `zones` for each of `tzids` that `zones` defines; the others stay named
// only, as readers find them by name.
void defineKnownZones(VdirDocument& document, const std::vector<std::string>& tzids, const VdirZoneSource& zones);

// Removes every component of `uid` (master and overrides); how many went.
std::size_t removeItem(VdirDocument& document, const std::string& uid);
// Whether the document still holds an event, a to-do or a journal entry.
bool holdsItems(const VdirDocument& document);

// Completes the to-do `uid` at `context.now` (STATUS:COMPLETED, COMPLETED, PERCENT-COMPLETE:100),
// or reopens it (STATUS:NEEDS-ACTION, the other two removed).
rivet::RivetResult<bool> setCompleted(VdirDocument& document, const std::string& uid, bool completed,
                                      const VdirEditContext& context);

// Sets DTSTAMP and LAST-MODIFIED to `context.now`, raises SEQUENCE when the change moved time.
void stamp(VdirComponent& component, bool movesTime, const VdirEditContext& context);

}  // namespace vesp::vdir
