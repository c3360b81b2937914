// Times as the iCalendar files state them, and their conversion to instants.
//
// libical (built with threads, as Debian's is) keeps its error state and scratch buffers per
// thread and guards each zone's offsets with its own lock, so this platform calls it from any
// thread, each component tree on one thread at a time. Its table of built-in zones is the
// exception: it is reached only through builtinZone() and utcZone() (VdirZones.h).
#pragma once

#include <libical/ical.h>

#include <memory>
#include <optional>
#include <string>

#include "support/platform/Date.h"
#include "support/platform/DateComponents.h"

namespace vesp::vdir {

// A time as a file states it: a DATE, a floating DATE-TIME, a UTC DATE-TIME or a DATE-TIME in a
// zone (TZID). Floating times and dates are placed in the store's local zone.
struct VdirTime {
  enum class Kind { date, floating, utc, zoned };
  Kind kind = Kind::floating;
  icaltimetype local = icaltime_null_time();  // the wall-clock fields, zone not attached
  const icaltimezone* zone = nullptr;         // for zoned times only
  std::string tzid;                           // the zone's name as written (zoned times only)

  bool isDate() const { return kind == Kind::date; }
};

// Reads a day its month does not have (30 February) as the day it runs into (2 March), and a 60th
// second (a leap second) as the first second of the next minute, so that every later step, rules
// above all, sees the time it stands for. Returns what it read, and how ("a 60th second: read as
// the next minute's first"), or null when the fields were plain.
const char* normaliseFields(icaltimetype& fields);

// Seconds since 1970 of a proleptic Gregorian civil date and time read as UTC (any year).
double civilSecondsSince1970(int year, int month, int day, int hour, int minute, int second);

// Converts between instants and wall-clock times. The local zone serves floating times and dates.
// Immutable once made; safe to use from any thread.
class VdirClock {
 public:
  // `localZone` is an IANA name; an unknown or empty name means UTC.
  explicit VdirClock(const std::string& localZone);
  const std::string& localZoneName() const { return localZoneName_; }
  icaltimezone* localZone() const { return localZone_; }

  // The instant at which `time` falls.
  platform::Date instant(const VdirTime& time) const;
  // The instant at which wall-clock `fields` fall in the zone of `like` (its kind and zone): of a
  // time that occurs twice, the first; a time in a gap is read with the offset before the gap.
  platform::Date instantLike(const icaltimetype& fields, const VdirTime& like) const;
  // The wall-clock time of `instant` in the zone of `like`, as a date when `like` is a date.
  icaltimetype wallClockLike(platform::Date instant, const VdirTime& like) const;
  // Whether the zone of `like` changes its offset within a day of `instant`. Near such a change a
  // later wall-clock time can fall at an earlier instant (03:00 just after a gap falls before 02:30
  // in it, which is read with the offset before the gap).
  bool offsetChangesNear(platform::Date instant, const VdirTime& like) const;

 private:
  // The zone in which times like `like` are read; null for UTC.
  const icaltimezone* zoneOf(const VdirTime& like) const;

  std::string localZoneName_;
  icaltimezone* localZone_ = nullptr;  // null: UTC
};

// The wall-clock fields of a series' start as libical's recurrence iterator is given them: marked
// UTC, so that it counts days, hours and seconds on the wall clock alone. Given a zone it would step
// sub-daily rules in elapsed time in ICU's copy of that zone (a floating time in the process's zone)
// and keep a time a clock change moved on the days after it. Each time it gives is then placed in
// the series' zone like a time the file states.
icaltimetype ruleFields(const VdirTime& start);

// The instant at which a rule's UNTIL ends the series that starts at `start`, inclusive: a UTC
// time as it says, a date through its last second, any other time in the zone of `start`.
platform::Date untilInstant(const icaltimetype& until, const VdirTime& start, const VdirClock& clock);

// The wall-clock time of `instant` in the form of `like` (its kind and zone).
VdirTime timeLike(platform::Date instant, const VdirTime& like, const VdirClock& clock);
// How a new item states its times: a date when it lasts all day, else the wall-clock time in the
// user's zone under its name (UTC when that zone is UTC or unknown).
VdirTime newItemForm(bool allDay, const VdirClock& clock);

// Date components of a time as the file states it: a DATE gives year, month and day only; a
// DATE-TIME adds hour, minute and second, and its zone when it has one.
platform::DateComponents dateComponents(const VdirTime& time);

}  // namespace vesp::vdir
