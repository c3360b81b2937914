#include "platforms/vdir/VdirTime.h"

#include <cmath>

#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {

namespace {

// Days from 1970-01-01 to a proleptic Gregorian date (Howard Hinnant's algorithm).
long long daysFromCivil(long long year, long long month, long long day) {
  year -= month <= 2;
  const long long era = (year >= 0 ? year : year - 399) / 400;
  const long long yearOfEra = year - era * 400;
  const long long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

// The offset from UTC, in seconds, of wall-clock `fields` in `zone` (null: UTC).
int utcOffset(const icaltimezone* zone, icaltimetype fields) {
  if (!zone) return 0;
  int isDaylight = 0;
  fields.zone = nullptr;
  return icaltimezone_get_utc_offset(const_cast<icaltimezone*>(zone), &fields, &isDaylight);
}

double secondsOf(const icaltimetype& fields) {
  return civilSecondsSince1970(fields.year, fields.month, fields.day, fields.is_date ? 0 : fields.hour,
                               fields.is_date ? 0 : fields.minute, fields.is_date ? 0 : fields.second);
}

// The offset from UTC, in seconds, in force in `zone` at the instant `seconds` since 1970.
int utcOffsetAt(const icaltimezone* zone, double seconds) {
  icaltimetype instant = icaltime_from_timet_with_zone(static_cast<time_t>(std::floor(seconds)), 0, utcZone());
  int isDaylight = 0;
  return icaltimezone_get_utc_offset_of_utc_time(const_cast<icaltimezone*>(zone), &instant, &isDaylight);
}

// The offset that places wall-clock `fields` (a time, not a date) in `zone` as RFC 5545 reads a
// stated time: one that occurs twice is the first, one in a gap is read with the offset before
// the gap. libical gives the offset after the change for both.
int statedOffset(const icaltimezone* zone, const icaltimetype& fields) {
  if (!zone) return 0;
  const int after = utcOffset(zone, fields);
  icaltimetype dayBefore = fields;
  icaltime_adjust(&dayBefore, -1, 0, 0, 0);
  const int before = utcOffset(zone, dayBefore);
  if (before == after) return after;  // no change within the day before: the time is plain
  const double seconds = secondsOf(fields);
  if (utcOffsetAt(zone, seconds - before) == before) return before;  // before the change, or its first
  if (utcOffsetAt(zone, seconds - after) == after) return after;     // after the change
  return before;                                                     // in the gap
}

}  // namespace

const char* normaliseFields(icaltimetype& fields) {
  const char* what = fields.day > icaltime_days_in_month(fields.month, fields.year)
                         ? "a day its month does not have: read as the day it runs into"
                     : !fields.is_date && fields.second == 60 ? "a 60th second: read as the next minute's first"
                                                              : nullptr;
  if (what) fields = icaltime_normalize(fields);
  return what;
}

double civilSecondsSince1970(int year, int month, int day, int hour, int minute, int second) {
  return static_cast<double>(daysFromCivil(year, month, day)) * 86400.0 + hour * 3600.0 + minute * 60.0 + second;
}

VdirClock::VdirClock(const std::string& localZone) : localZoneName_(localZone.empty() ? "UTC" : localZone) {
  if (localZoneName_ != "UTC") localZone_ = builtinZone(localZoneName_);
  if (!localZone_) localZoneName_ = "UTC";
}

platform::Date VdirClock::instant(const VdirTime& time) const { return instantLike(time.local, time); }

const icaltimezone* VdirClock::zoneOf(const VdirTime& like) const {
  switch (like.kind) {
    case VdirTime::Kind::utc: return nullptr;
    case VdirTime::Kind::zoned: return like.zone;
    case VdirTime::Kind::date:
    case VdirTime::Kind::floating: return localZone_;
  }
  return nullptr;
}

platform::Date VdirClock::instantLike(const icaltimetype& fields, const VdirTime& like) const {
  icaltimetype wall = fields;
  if (like.kind == VdirTime::Kind::date || wall.is_date) {
    wall.hour = wall.minute = wall.second = 0;
    wall.is_date = 0;
  }
  return platform::Date::fromTimeIntervalSince1970(secondsOf(wall) - statedOffset(zoneOf(like), wall));
}

icaltimetype VdirClock::wallClockLike(platform::Date instant, const VdirTime& like) const {
  const icaltimezone* zone = zoneOf(like);
  auto seconds = static_cast<time_t>(std::floor(instant.timeIntervalSince1970()));
  icaltimetype wall = icaltime_from_timet_with_zone(seconds, like.isDate() ? 1 : 0, zone ? zone : utcZone());
  wall.zone = nullptr;
  return wall;
}

bool VdirClock::offsetChangesNear(platform::Date instant, const VdirTime& like) const {
  const icaltimezone* zone = zoneOf(like);
  if (!zone) return false;
  const double at = instant.timeIntervalSince1970();
  const int now = utcOffsetAt(zone, at);
  return utcOffsetAt(zone, at - 86400.0) != now || utcOffsetAt(zone, at + 86400.0) != now;
}

icaltimetype ruleFields(const VdirTime& start) {
  icaltimetype fields = start.local;
  fields.zone = utcZone();
  return fields;
}

platform::Date untilInstant(const icaltimetype& until, const VdirTime& start, const VdirClock& clock) {
  VdirTime stated;
  stated.local = until;
  stated.local.zone = nullptr;
  stated.kind = until.is_date ? VdirTime::Kind::date : icaltime_is_utc(until) ? VdirTime::Kind::utc : start.kind;
  if (stated.kind == VdirTime::Kind::zoned) {
    stated.zone = start.zone;
    stated.tzid = start.tzid;
  }
  if (!until.is_date) return clock.instant(stated);
  // The last second of that day, which lasts 23 or 25 hours on the day of a clock change.
  icaltime_adjust(&stated.local, 1, 0, 0, 0);
  return clock.instant(stated).addingTimeInterval(-1);
}

VdirTime timeLike(platform::Date instant, const VdirTime& like, const VdirClock& clock) {
  VdirTime time = like;
  time.local = clock.wallClockLike(instant, like);
  time.local.is_date = like.isDate() ? 1 : 0;
  return time;
}

VdirTime newItemForm(bool allDay, const VdirClock& clock) {
  VdirTime form;
  if (allDay) {
    form.kind = VdirTime::Kind::date;
  } else if (icaltimezone* zone = builtinZone(clock.localZoneName()); zone && clock.localZoneName() != "UTC") {
    form.kind = VdirTime::Kind::zoned;
    form.zone = zone;
    form.tzid = clock.localZoneName();
  } else {
    form.kind = VdirTime::Kind::utc;
  }
  return form;
}

platform::DateComponents dateComponents(const VdirTime& time) {
  platform::DateComponents components;
  components.year = time.local.year;
  components.month = time.local.month;
  components.day = time.local.day;
  if (time.isDate()) return components;
  components.hour = time.local.hour;
  components.minute = time.local.minute;
  components.second = time.local.second;
  if (time.kind == VdirTime::Kind::utc) components.timeZone = platform::TimeZone("UTC");
  if (time.kind == VdirTime::Kind::zoned) components.timeZone = platform::TimeZone(time.tzid);
  return components;
}

}  // namespace vesp::vdir
