// The baseline for the store benchmarks: a plain loop over libical, as a program without Vesp
// would write it. It parses every .ics file of the store on one thread (keeping the parsed
// components), uses one zone per TZID (the first VTIMEZONE seen for it, else libical's built-in
// zone of that name), and answers a window by running libical's recurrence iterator for every
// series, jumped to the window with icalrecur_iterator_set_start (rules with COUNT are walked from
// their start, as libical requires). EXDATEs and RECURRENCE-ID overrides are applied; floating
// times and dates are read in the zone named by TZ. See BenchSupport.h for the command line.
#include <libical/ical.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "bench/BenchSupport.h"

namespace {

namespace fs = std::filesystem;

struct Series {
  std::string identifier;
  bool hasMaster = false;
  icaltimetype start{};  // the master's DTSTART, zone attached (none for floating times and dates)
  bool allDay = false;
  double durationSeconds = 0.0;
  int durationDays = 0;
  std::vector<icalrecurrencetype> rules;
  std::vector<icaltimetype> rdates;
  std::set<long long> excluded;                        // EXDATEs and replaced occurrences
  std::vector<std::pair<long long, long long>> moved;  // where the overrides are
};

class Loop {
 public:
  explicit Loop(const std::string& root) {
    const char* tz = std::getenv("TZ");
    std::string local = tz && *tz ? (tz[0] == ':' ? tz + 1 : tz) : "UTC";
    local_ = local == "UTC" ? icaltimezone_get_utc_timezone() : icaltimezone_get_builtin_timezone(local.c_str());
    if (!local_) local_ = icaltimezone_get_utc_timezone();
    std::vector<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(root))
      if (entry.is_regular_file() && entry.path().extension() == ".ics") paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const auto& path : paths) {
      std::ifstream in(path, std::ios::binary);
      std::stringstream text;
      text << in.rdbuf();
      icalcomponent* calendar = icalparser_parse_string(text.str().c_str());
      if (!calendar) continue;
      components_.push_back(calendar);
      read(fs::relative(path, root).string(), calendar);
    }
  }
  ~Loop() {
    for (auto* component : components_) icalcomponent_free(component);
    for (auto& [tzid, zone] : zones_)
      if (zone.second) icaltimezone_free(zone.first, 1);
  }

  std::vector<std::pair<std::string, long long>> occurrences(long long a, long long b) const {
    std::vector<std::pair<std::string, long long>> result;
    for (const auto& series : series_) {
      for (auto [start, end] : series.moved)
        if (overlaps(start, end, a, b)) result.emplace_back(series.identifier, start);
      if (!series.hasMaster) continue;
      std::set<long long> starts;
      auto consider = [&](long long start) {
        if (series.excluded.count(start)) return;
        if (overlaps(start, endOf(series, start), a, b)) starts.insert(start);
      };
      const long long first = instant(series.start);
      consider(first);
      for (const auto& rdate : series.rdates) consider(instant(rdate));
      const long long longest = series.allDay ? series.durationDays * 86400LL + 7200 : static_cast<long long>(series.durationSeconds);
      const long long earliest = a - std::max(0LL, longest) - 86400;
      for (const auto& rule : series.rules) {
        icalrecur_iterator* iterator = icalrecur_iterator_new(rule, series.start);
        if (!iterator) continue;
        if (rule.count == 0 && earliest > first) {
          icaltimetype jump = icaltime_from_timet_with_zone(static_cast<time_t>(earliest), series.allDay,
                                                             zoneOf(series.start));
          jump.zone = series.start.zone;
          icalrecur_iterator_set_start(iterator, jump);
        }
        for (icaltimetype next = icalrecur_iterator_next(iterator); !icaltime_is_null_time(next);
             next = icalrecur_iterator_next(iterator)) {
          next.zone = series.start.zone;  // the iterator's times are in the zone of DTSTART
          long long start = instant(next);
          if (start >= b) break;
          consider(start);
        }
        icalrecur_iterator_free(iterator);
      }
      for (long long start : starts) result.emplace_back(series.identifier, start);
    }
    return result;
  }

 private:
  static bool overlaps(long long start, long long end, long long a, long long b) {
    if (end <= start) return start >= a && start < b;
    return start < b && end > a;
  }

  icaltimezone* zoneOf(const icaltimetype& time) const {
    return time.zone ? const_cast<icaltimezone*>(time.zone) : local_;
  }
  long long instant(icaltimetype time) const {
    icaltimezone* zone = zoneOf(time);
    if (time.is_date) {
      time.is_date = 0;
      time.hour = time.minute = time.second = 0;
    }
    time.zone = nullptr;
    return static_cast<long long>(icaltime_as_timet_with_zone(time, zone));
  }
  long long endOf(const Series& series, long long start) const {
    if (!series.allDay) return start + static_cast<long long>(series.durationSeconds);
    if (series.durationDays == 0) return start;
    icaltimetype day = icaltime_from_timet_with_zone(static_cast<time_t>(start), 1, local_);
    icaltime_adjust(&day, series.durationDays, 0, 0, 0);
    day.zone = nullptr;
    return instant(day);
  }

  // A DATE or DATE-TIME property's value with its zone attached (one zone per TZID).
  icaltimetype timeOf(icalcomponent* calendar, icalproperty* property, icaltimetype value) {
    const bool utc = icaltime_is_utc(value);
    value.zone = nullptr;
    if (value.is_date) return value;
    if (utc) {
      value.zone = icaltimezone_get_utc_timezone();
      return value;
    }
    icalparameter* parameter = icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER);
    if (!parameter) return value;
    std::string tzid = icalparameter_get_tzid(parameter);
    auto found = zones_.find(tzid);
    if (found == zones_.end()) {
      icaltimezone* zone = nullptr;
      bool owned = false;
      for (icalcomponent* definition = icalcomponent_get_first_component(calendar, ICAL_VTIMEZONE_COMPONENT);
           definition; definition = icalcomponent_get_next_component(calendar, ICAL_VTIMEZONE_COMPONENT)) {
        icalproperty* id = icalcomponent_get_first_property(definition, ICAL_TZID_PROPERTY);
        if (id && tzid == icalproperty_get_tzid(id)) {
          zone = icaltimezone_new();
          icaltimezone_set_component(zone, icalcomponent_new_clone(definition));
          owned = true;
          break;
        }
      }
      if (!zone) zone = icaltimezone_get_builtin_timezone(tzid.c_str());
      found = zones_.emplace(tzid, std::make_pair(zone, owned)).first;
    }
    value.zone = found->second.first;
    return value;
  }

  void read(const std::string& identifier, icalcomponent* calendar) {
    std::map<std::string, Series> byUid;
    std::vector<std::string> order;
    for (icalcomponent* event = icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT); event;
         event = icalcomponent_get_next_component(calendar, ICAL_VEVENT_COMPONENT)) {
      const char* uid = icalcomponent_get_uid(event);
      std::string key = uid ? uid : "";
      if (!byUid.count(key)) order.push_back(key);
      Series& series = byUid[key];
      series.identifier = identifier;
      icalproperty* dtstart = icalcomponent_get_first_property(event, ICAL_DTSTART_PROPERTY);
      if (!dtstart) continue;
      icaltimetype start = timeOf(calendar, dtstart, icalproperty_get_dtstart(dtstart));
      bool allDay = start.is_date;
      double durationSeconds = 0.0;
      int durationDays = allDay ? 1 : 0;
      if (icalproperty* dtend = icalcomponent_get_first_property(event, ICAL_DTEND_PROPERTY)) {
        icaltimetype end = timeOf(calendar, dtend, icalproperty_get_dtend(dtend));
        if (allDay)  // whole days between the two dates, read as UTC
          durationDays = static_cast<int>(std::lround(
              static_cast<double>(icaltime_as_timet(end) - icaltime_as_timet(start)) / 86400.0));
        else
          durationSeconds = static_cast<double>(instant(end) - instant(start));
      } else if (icalproperty* duration = icalcomponent_get_first_property(event, ICAL_DURATION_PROPERTY)) {
        int seconds = icaldurationtype_as_int(icalproperty_get_duration(duration));
        if (allDay)
          durationDays = seconds / 86400;
        else
          durationSeconds = seconds;
      }
      if (icalproperty* recurrenceId = icalcomponent_get_first_property(event, ICAL_RECURRENCEID_PROPERTY)) {
        series.excluded.insert(instant(timeOf(calendar, recurrenceId, icalproperty_get_recurrenceid(recurrenceId))));
        Series shape;
        shape.allDay = allDay;
        shape.durationSeconds = durationSeconds;
        shape.durationDays = durationDays;
        long long begin = instant(start);
        series.moved.emplace_back(begin, endOf(shape, begin));
        continue;
      }
      series.hasMaster = true;
      series.start = start;
      series.allDay = allDay;
      series.durationSeconds = durationSeconds;
      series.durationDays = durationDays;
      for (icalproperty* p = icalcomponent_get_first_property(event, ICAL_RRULE_PROPERTY); p;
           p = icalcomponent_get_next_property(event, ICAL_RRULE_PROPERTY))
        series.rules.push_back(icalproperty_get_rrule(p));
      for (icalproperty* p = icalcomponent_get_first_property(event, ICAL_RDATE_PROPERTY); p;
           p = icalcomponent_get_next_property(event, ICAL_RDATE_PROPERTY)) {
        icaldatetimeperiodtype value = icalproperty_get_rdate(p);
        series.rdates.push_back(timeOf(calendar, p, icaltime_is_null_time(value.time) ? value.period.start : value.time));
      }
      for (icalproperty* p = icalcomponent_get_first_property(event, ICAL_EXDATE_PROPERTY); p;
           p = icalcomponent_get_next_property(event, ICAL_EXDATE_PROPERTY)) {
        icaltimetype exdate = timeOf(calendar, p, icalproperty_get_exdate(p));
        // A DATE exclusion of a timed series excludes that day's occurrence at the series' time.
        if (exdate.is_date && !allDay) {
          icaltimetype like = start;
          like.year = exdate.year;
          like.month = exdate.month;
          like.day = exdate.day;
          exdate = like;
        }
        series.excluded.insert(instant(exdate));
      }
    }
    for (const auto& uid : order) series_.push_back(std::move(byUid[uid]));
  }

  icaltimezone* local_ = nullptr;
  std::vector<icalcomponent*> components_;
  std::map<std::string, std::pair<icaltimezone*, bool>> zones_;  // by TZID; owned or built in
  std::vector<Series> series_;
};

}  // namespace

int main(int argc, char** argv) {
  using namespace vesp;
  return bench::guarded([&] {
    auto arguments = bench::parseArguments(argc, argv, {});
    auto began = std::chrono::steady_clock::now();
    Loop loop(arguments.store);
    double open = bench::secondsSince(began);
    auto results = bench::runWindows(arguments, [&](const bench::Window& window) {
      return loop.occurrences(window.start, window.end);
    });
    bench::report(open, results, "");
    return 0;
  });
}
