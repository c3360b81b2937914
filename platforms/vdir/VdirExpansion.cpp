#include "platforms/vdir/VdirExpansion.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>

#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {

namespace {

bool overlaps(double start, double end, double windowStart, double windowEnd) {
  if (end <= start) return start >= windowStart && start < windowEnd;
  return start < windowEnd && end > windowStart;
}

icaltimetype withZone(icaltimetype fields, const VdirTime& like) {
  fields.zone = like.kind == VdirTime::Kind::zoned ? like.zone
                : like.kind == VdirTime::Kind::utc ? utcZone()
                                                   : nullptr;
  if (like.isDate()) {
    fields.is_date = 1;
    fields.hour = fields.minute = fields.second = 0;
  }
  return fields;
}

// The longest an occurrence of the master can last, for starting the iterator early enough.
double longestDuration(const VdirComponentData& master) {
  return master.start.isDate() ? master.durationDays * 86400.0 + 2 * 3600.0 : std::max(0.0, master.durationSeconds);
}

}  // namespace

double occurrenceEnd(const VdirComponentData& component, const VdirClock& clock, double start) {
  if (!component.start.isDate()) return start + component.durationSeconds;
  if (component.durationDays == 0) return start;
  // Whole days in the local zone: the wall-clock date plus the days, at local midnight.
  VdirTime like = component.start;
  icaltimetype day = clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(start), like);
  icaltime_adjust(&day, component.durationDays, 0, 0, 0);
  return clock.instantLike(day, like).timeIntervalSince1970();
}

bool expandSeries(const VdirSeriesData& series, const VdirClock& clock, double windowStart, double windowEnd,
                  const VdirExpansionLimits& limits, std::vector<VdirOccurrence>& out, std::string& problem) {
  if (windowEnd <= windowStart) return true;
  if (series.firstStart >= windowEnd) return true;
  if (series.lastEnd && *series.lastEnd <= windowStart) return true;
  bool complete = true;

  // Overrides are placed where they now are, whatever their original date.
  for (const auto& override : series.overrides) {
    double occurrence = override.recurrenceInstant->timeIntervalSince1970();
    double start = clock.instant(override.start).timeIntervalSince1970();
    double end = occurrenceEnd(override, clock, start);
    if (overlaps(start, end, windowStart, windowEnd))
      out.push_back(VdirOccurrence{&override, start, end, occurrence, series.master.has_value()});
  }
  if (!series.master) return true;
  const VdirComponentData& master = *series.master;

  std::set<double> starts;
  auto consider = [&](double start) {
    if (std::binary_search(series.exdates.begin(), series.exdates.end(), start)) return;
    // Overrides are sorted by the occurrence they replace (parseItem keeps them so).
    if (std::ranges::binary_search(series.overrides, start, {}, [](const VdirComponentData& override) {
          return override.recurrenceInstant->timeIntervalSince1970();
        }))
      return;
    double end = occurrenceEnd(master, clock, start);
    if (overlaps(start, end, windowStart, windowEnd)) starts.insert(start);
  };

  const double masterStart = clock.instant(master.start).timeIntervalSince1970();
  consider(masterStart);  // DTSTART is always the first occurrence
  for (const auto& rdate : series.rdates) consider(clock.instant(rdate).timeIntervalSince1970());

  const double earliest = windowStart - longestDuration(master) - 86400.0;
  for (const auto& rule : series.rules) {
    if (rule.countedStarts) {
      const auto& counted = *rule.countedStarts;
      auto from = std::lower_bound(counted.begin(), counted.end(), earliest);
      for (auto it = from; it != counted.end() && *it < windowEnd; ++it) consider(*it);
      continue;
    }
    if (rule.until && rule.until->timeIntervalSince1970() < earliest) continue;
    icalrecur_iterator* iterator = icalrecur_iterator_new(rule.rule.expanded(), withZone(master.start.local, master.start));
    if (!iterator) continue;
    if (earliest > masterStart) {
      icaltimetype jump = clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(earliest), master.start);
      icalrecur_iterator_set_start(iterator, withZone(jump, master.start));
    }
    std::size_t steps = 0;
    const auto began = std::chrono::steady_clock::now();
    for (icaltimetype next = icalrecur_iterator_next(iterator); !icaltime_is_null_time(next);
         next = icalrecur_iterator_next(iterator)) {
      double start = clock.instantLike(next, master.start).timeIntervalSince1970();
      if (start >= windowEnd) break;
      bool overTime = (steps % 256) == 255 && std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count() >
                                                   limits.maximumSecondsPerSeries;
      if (++steps > limits.maximumIteratorStepsPerSeries || starts.size() >= limits.maximumOccurrencesPerSeries ||
          overTime) {
        problem = "expansion stopped after " + std::to_string(starts.size()) + " occurrences and " + std::to_string(steps - 1) +
                  " steps in one window" + (overTime ? " (time limit)" : "");
        complete = false;
        break;
      }
      consider(start);
    }
    icalrecur_iterator_free(iterator);
  }
  for (double start : starts)
    out.push_back(VdirOccurrence{&master, start, occurrenceEnd(master, clock, start), start, false});
  return complete;
}

}  // namespace vesp::vdir
