#include "platforms/vdir/VdirExpansion.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string_view>

#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

bool overlaps(double start, double end, double windowStart, double windowEnd) {
  if (end <= start) return start >= windowStart && start < windowEnd;
  return start < windowEnd && end > windowStart;
}

// The longest an occurrence of the master can last, for starting the iterator early enough.
double longestDuration(const VdirComponentData& master) {
  return master.start.isDate() ? master.durationDays * 86400.0 + 2 * 3600.0 : std::max(0.0, master.durationSeconds);
}


// How long the occurrence of the PERIOD RDATE starting at `start` lasts; negative for none.
double periodLength(const VdirSeriesData& series, double start) {
  const auto period = std::ranges::lower_bound(series.rdatePeriods, start, {}, &VdirRdatePeriod::start);
  return period != series.rdatePeriods.end() && period->start == start ? period->length : -1.0;
}

// The work one series may do in one window.
struct ExpansionBudget {
  const VdirExpansionLimits& limits;
  std::chrono::steady_clock::time_point began;
  std::size_t steps = 0;
  const std::map<double, VdirOccurrence>* found = nullptr;  // the occurrences kept so far
};

int weekdayOfDays(long long days) {  // libical's weekday (1 = Sunday) of a day counted from 1970
  return static_cast<int>(((days % 7) + 7 + 4) % 7) + 1;
}

long long daysOf(const icaltimetype& fields) {
  return static_cast<long long>(std::floor(civilSecondsSince1970(fields.year, fields.month, fields.day, 0, 0, 0) / 86400.0));
}

bool hasList(const short* values) { return values[0] != ICAL_RECURRENCE_ARRAY_MAX; }

// libical's iterator cannot be jumped ahead exactly in every case: icalrecur_iterator_set_start()
// puts sub-daily rules off their INTERVAL grid, and yearly BYWEEKNO rules jumped into a year give
// days of weeks that are not in the set. So a rule reaches a later window in one of three ways:
//  - daily and coarser rules (but BYWEEKNO): set_start() at the first instant of the period
//    (day, week by WKST, month, year) that INTERVAL counts from DTSTART, at or before `from`;
//  - sub-daily rules whose BY parts only add times within a period (BYMINUTE and BYSECOND of
//    HOURLY, BYSECOND of MINUTELY) and BYSETPOS: a new iterator from a DTSTART moved ahead by a
//    whole number of INTERVALs, at least one INTERVAL before `from`, so it stays on the grid;
//  - anything else (other sub-daily filters, BYWEEKNO, a non-Gregorian RSCALE): from DTSTART.
icalrecur_iterator* iteratorFrom(const icalrecurrencetype& rule, const VdirComponentData& master, const VdirClock& clock,
                                 double masterStart, double from) {
  const VdirTime& start = master.start;
  const icaltimetype first = ruleFields(start);
  if (from <= masterStart || (rule.rscale && std::string_view(rule.rscale) != "GREGORIAN" &&
                              std::string_view(rule.rscale) != "gregorian"))
    return icalrecur_iterator_new(rule, first);
  icaltimetype target = clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(from), start);
  const long long interval = std::max<long long>(1, rule.interval);
  const auto floorTo = [interval](long long value) { return value >= 0 ? value / interval * interval : -((-value + interval - 1) / interval) * interval; };

  if (rule.freq == ICAL_SECONDLY_RECURRENCE || rule.freq == ICAL_MINUTELY_RECURRENCE || rule.freq == ICAL_HOURLY_RECURRENCE) {
    bool gridOnly = !hasList(rule.by_day) && !hasList(rule.by_month_day) && !hasList(rule.by_year_day) &&
                    !hasList(rule.by_week_no) && !hasList(rule.by_month) && !hasList(rule.by_hour) &&
                    (rule.freq == ICAL_HOURLY_RECURRENCE || !hasList(rule.by_minute)) &&
                    (rule.freq != ICAL_SECONDLY_RECURRENCE || !hasList(rule.by_second));
    if (!gridOnly) return icalrecur_iterator_new(rule, first);
    const long long unit = rule.freq == ICAL_SECONDLY_RECURRENCE ? 1 : rule.freq == ICAL_MINUTELY_RECURRENCE ? 60 : 3600;
    const long long step = unit * interval;
    const double apart = civilSecondsSince1970(target.year, target.month, target.day, target.hour, target.minute, target.second) -
                         civilSecondsSince1970(start.local.year, start.local.month, start.local.day, start.local.hour,
                                               start.local.minute, start.local.second);
    const long long steps = static_cast<long long>(std::floor(apart / static_cast<double>(step))) - 1;
    if (steps <= 0) return icalrecur_iterator_new(rule, first);
    const long long seconds = steps * step;
    icaltimetype moved = first;
    icaltime_adjust(&moved, static_cast<int>(seconds / 86400), 0, 0, static_cast<int>(seconds % 86400));
    return icalrecur_iterator_new(rule, moved);
  }

  if (rule.freq == ICAL_YEARLY_RECURRENCE && hasList(rule.by_week_no)) return icalrecur_iterator_new(rule, first);
  icaltimetype period = first;
  period.hour = period.minute = period.second = 0;
  switch (rule.freq) {
    case ICAL_DAILY_RECURRENCE:
      icaltime_adjust(&period, static_cast<int>(floorTo(daysOf(target) - daysOf(start.local))), 0, 0, 0);
      break;
    case ICAL_WEEKLY_RECURRENCE: {
      const int weekStart = rule.week_start == ICAL_NO_WEEKDAY ? ICAL_MONDAY_WEEKDAY : rule.week_start;
      auto weekOf = [&](long long days) { return days - (weekdayOfDays(days) - weekStart + 7) % 7; };
      const long long firstWeek = weekOf(daysOf(start.local));
      const long long weeks = floorTo((weekOf(daysOf(target)) - firstWeek) / 7);
      icaltime_adjust(&period, static_cast<int>(firstWeek + weeks * 7 - daysOf(start.local)), 0, 0, 0);
      break;
    }
    case ICAL_MONTHLY_RECURRENCE: {
      const long long months = floorTo((target.year - start.local.year) * 12LL + (target.month - start.local.month));
      const long long month = start.local.year * 12LL + (start.local.month - 1) + months;
      period.year = static_cast<int>(month / 12);
      period.month = static_cast<int>(month % 12) + 1;
      period.day = 1;
      break;
    }
    case ICAL_YEARLY_RECURRENCE:
      period.year = start.local.year + static_cast<int>(floorTo(target.year - start.local.year));
      period.month = 1;
      period.day = 1;
      break;
    default: return icalrecur_iterator_new(rule, first);
  }
  icalrecur_iterator* iterator = icalrecur_iterator_new(rule, first);
  if (iterator && icaltime_compare(period, first) > 0) icalrecur_iterator_set_start(iterator, period);
  return iterator;
}

// Calls `each` with the start of every occurrence of `rule` from `from` (less any) to before
// `until`; a failure when a limit cut it short (its message says which). The iterator walks the
// wall clock, so its times are in order of wall-clock time, not always of instant: near a change of
// the zone's offset the walk goes on for a day past the end.
template <typename Each>
rivet::RivetResult<void> expandRule(const VdirRuleData& rule, const VdirComponentData& master, const VdirClock& clock,
                                    double masterStart, double from, double until, ExpansionBudget& budget,
                                    Each&& each) {
  if (rule.countedStarts) {
    const auto& counted = *rule.countedStarts;
    for (auto it = std::lower_bound(counted.begin(), counted.end(), from); it != counted.end() && *it < until; ++it) each(*it);
    return rivet::RivetResultVoidSuccess;
  }
  if (rule.until && rule.until->timeIntervalSince1970() < from) return rivet::RivetResultVoidSuccess;
  // UNTIL is kept as the instant it names: libical would compare it with the iterator's wall clock.
  const double end = rule.until ? std::min(until, std::nextafter(rule.until->timeIntervalSince1970(), kNever)) : until;
  const bool nearChange = clock.offsetChangesNear(platform::Date::fromTimeIntervalSince1970(end), master.start);
  const double past = end + (nearChange ? 86400.0 : 0.0);
  icalrecurrencetype walked = rule.rule.expanded();
  walked.until = icaltime_null_time();
  icalrecur_iterator* iterator = iteratorFrom(walked, master, clock, masterStart, from);
  if (!iterator) return rivet::RivetResultVoidSuccess;
  std::optional<std::string> problem;
  std::size_t kept = 0;
  for (icaltimetype next = icalrecur_iterator_next(iterator); !icaltime_is_null_time(next);
       next = icalrecur_iterator_next(iterator)) {
    double start = clock.instantLike(next, master.start).timeIntervalSince1970();
    if (start >= past) break;
    ++budget.steps;
    bool overTime = (budget.steps % 256) == 255 &&
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - budget.began).count() >
                        budget.limits.maximumSecondsPerSeries;
    const std::size_t found = budget.found ? budget.found->size() : kept;
    // At the limit, only a step that could add an occurrence cuts (not one past the end, nor a time
    // found already, as a walk through a gap gives twice).
    const bool full = found >= budget.limits.maximumOccurrencesPerSeries && start < end &&
                      !(budget.found && budget.found->count(start));
    if (budget.steps > budget.limits.maximumIteratorStepsPerSeries || full || overTime) {
      problem = "expansion stopped after " + std::to_string(found) + " occurrences and " +
                std::to_string(budget.steps - 1) + " steps in one window" + (overTime ? " (time limit)" : "");
      break;
    }
    if (start >= from && start < end) {
      each(start);
      ++kept;
    }
  }
  icalrecur_iterator_free(iterator);
  if (problem) return rivet::RivetError(std::move(*problem), std::nullopt, "VdirExpansion", "expandRule", __LINE__);
  return rivet::RivetResultVoidSuccess;
}

}  // namespace

std::vector<VdirRangeOverride> rangeOverrides(const VdirSeriesData& series, const VdirClock& clock) {
  std::vector<VdirRangeOverride> ranges;
  if (!series.master) return ranges;
  const VdirTime& like = series.master->start;
  auto civil = [&](platform::Date instant) {
    const icaltimetype t = clock.wallClockLike(instant, like);
    return civilSecondsSince1970(t.year, t.month, t.day, t.hour, t.minute, t.second);
  };
  for (const auto& override : series.overrides)
    if (override.thisAndFuture)
      ranges.push_back({&override, override.recurrenceInstant->timeIntervalSince1970(),
                        civil(clock.instant(override.start)) - civil(*override.recurrenceInstant)});
  return ranges;
}

double movedStart(const VdirComponentData& master, const VdirClock& clock, double start, double shift) {
  if (shift == 0.0) return start;
  icaltimetype local = clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(start), master.start);
  const auto days = static_cast<int>(std::floor(shift / 86400.0));
  icaltime_adjust(&local, days, 0, 0, static_cast<int>(shift - days * 86400.0));
  return clock.instantLike(local, master.start).timeIntervalSince1970();
}

double occurrenceEnd(const VdirComponentData& component, const VdirClock& clock, double start) {
  if (!component.start.isDate()) return start + component.durationSeconds;
  if (component.durationDays == 0) return start;
  // Whole days in the local zone: the wall-clock date plus the days, at local midnight.
  VdirTime like = component.start;
  icaltimetype day = clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(start), like);
  icaltime_adjust(&day, component.durationDays, 0, 0, 0);
  return clock.instantLike(day, like).timeIntervalSince1970();
}

rivet::RivetResult<void> expandSeries(const VdirSeriesData& series, const VdirClock& clock, double windowStart,
                                      double windowEnd, const VdirExpansionLimits& limits,
                                      std::vector<VdirOccurrence>& out) {
  if (windowEnd <= windowStart) return rivet::RivetResultVoidSuccess;
  if (series.firstStart >= windowEnd) return rivet::RivetResultVoidSuccess;
  if (series.lastEnd && *series.lastEnd <= windowStart) return rivet::RivetResultVoidSuccess;
  // Set when a limit cut a rule short (the last such cut); every rule is still expanded as far as it goes.
  std::optional<rivet::RivetResult<void>> cut;

  // Overrides are placed where they now are, whatever their original date.
  for (const auto& override : series.overrides) {
    double occurrence = override.recurrenceInstant->timeIntervalSince1970();
    double start = clock.instant(override.start).timeIntervalSince1970();
    double end = occurrenceEnd(override, clock, start);
    if (overlaps(start, end, windowStart, windowEnd))
      out.push_back(VdirOccurrence{&override, start, end, occurrence, series.master.has_value()});
  }
  if (!series.master) return rivet::RivetResultVoidSuccess;
  const VdirComponentData& master = *series.master;

  const double masterStart = clock.instant(master.start).timeIntervalSince1970();
  // Later occurrences under a THISANDFUTURE override move and last as it does: the rules are
  // expanded over the stretch from which an occurrence can still reach the window.
  const std::vector<VdirRangeOverride> ranges = rangeOverrides(series, clock);
  double longest = longestDuration(master), earlier = 0.0, later = 0.0;
  for (const auto& range : ranges) {
    longest = std::max(longest, longestDuration(*range.component));
    earlier = std::max(earlier, range.shift);
    later = std::max(later, -range.shift);
  }
  const double slack = ranges.empty() ? 0.0 : 7200.0;  // a clock change between the moved occurrences
  const double earliest = windowStart - longest - earlier - slack - 86400.0;
  const double latest = windowEnd + later + slack;
  ExpansionBudget budget{limits, std::chrono::steady_clock::now()};

  // Occurrences of the exclusion rules in the same stretch of time come out first.
  std::set<double> excluded;
  for (const auto& rule : series.exclusionRules)
    if (auto expanded = expandRule(rule, master, clock, masterStart, earliest, latest, budget,
                                   [&](double start) { excluded.insert(start); });
        !expanded)
      cut = std::move(expanded);

  std::map<double, VdirOccurrence> starts;  // by original start
  // `length`: how long a PERIOD RDATE lasts (negative for any other occurrence).
  auto consider = [&](double start, double length = -1.0) {
    if (std::binary_search(series.exdates.begin(), series.exdates.end(), start) || excluded.count(start)) return;
    // Overrides are sorted by the occurrence they replace (parseItem keeps them so).
    if (std::ranges::binary_search(series.overrides, start, {}, [](const VdirComponentData& override) {
          return override.recurrenceInstant->timeIntervalSince1970();
        }))
      return;
    // The latest THISANDFUTURE override before this occurrence governs it.
    auto governs = std::ranges::lower_bound(ranges, start, {}, &VdirRangeOverride::occurrence);
    VdirOccurrence occurrence{&master, start, 0.0, start, false};
    if (governs != ranges.begin()) {
      const VdirRangeOverride& range = *std::prev(governs);
      occurrence = {range.component, movedStart(master, clock, start, range.shift), 0.0, start, true};
      length = -1.0;  // it lasts as the override says
    }
    occurrence.end = length >= 0.0 ? start + length : occurrenceEnd(*occurrence.component, clock, occurrence.start);
    if (overlaps(occurrence.start, occurrence.end, windowStart, windowEnd)) starts.emplace(start, occurrence);
  };

  consider(masterStart);  // DTSTART is always the first occurrence
  for (const auto& rdate : series.rdates) {
    const double start = clock.instant(rdate).timeIntervalSince1970();
    consider(start, periodLength(series, start));
  }
  for (const auto& rule : series.rules) {
    budget.found = &starts;
    if (auto expanded = expandRule(rule, master, clock, masterStart, earliest, latest, budget, consider); !expanded)
      cut = std::move(expanded);
  }
  for (const auto& [start, occurrence] : starts) out.push_back(occurrence);
  return cut ? *std::move(cut) : rivet::RivetResultVoidSuccess;
}

}  // namespace vesp::vdir
