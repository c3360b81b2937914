#include "tests/tools/vesp/IndependentExpansion.h"

#include <libical/ical.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

namespace vesp::tool::testing {

namespace fs = std::filesystem;

struct IndependentExpansion::File {
  std::string identifier;
  icalcomponent* calendar = nullptr;
};

namespace {

// Wall-clock seconds (as if UTC) read in the local zone.
long long localInstant(time_t wallClock) {
  std::tm fields{};
  gmtime_r(&wallClock, &fields);
  fields.tm_isdst = -1;
  return static_cast<long long>(std::mktime(&fields));
}

bool isFloating(icalcomponent* component, icalproperty_kind kind) {
  icalproperty* property = icalcomponent_get_first_property(component, kind);
  if (!property) return false;
  icaltimetype value = kind == ICAL_DTSTART_PROPERTY ? icalproperty_get_dtstart(property)
                                                     : icalproperty_get_recurrenceid(property);
  if (value.is_date) return true;
  if (icaltime_is_utc(value)) return false;
  return icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER) == nullptr;
}

// The instant of a RECURRENCE-ID, through its property's TZID and the file's own VTIMEZONE.
long long recurrenceInstant(icalcomponent* calendar, icalcomponent* component) {
  icalproperty* property = icalcomponent_get_first_property(component, ICAL_RECURRENCEID_PROPERTY);
  icaltimetype value = icalproperty_get_recurrenceid(property);
  if (isFloating(component, ICAL_RECURRENCEID_PROPERTY)) {
    value.is_date = 0;
    return localInstant(icaltime_as_timet(value));
  }
  if (icaltime_is_utc(value)) return icaltime_as_timet(value);
  icalparameter* tzid = icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER);
  icaltimezone* zone = icalcomponent_get_timezone(calendar, icalparameter_get_tzid(tzid));
  return icaltime_as_timet_with_zone(value, zone);
}

struct Collector {
  std::vector<std::pair<long long, long long>> spans;
  bool floating = false;
  bool allDay = false;
};

void collect(icalcomponent*, icaltime_span* span, void* data) {
  auto* collector = static_cast<Collector*>(data);
  long long start = span->start, end = span->end;
  // libical's spans run an all-day event to 23:59:59 of its DTEND day, as if DTEND were
  // inclusive; iCalendar's DTEND is exclusive, so the span ends at the start of that day.
  if (collector->allDay) end -= 86399;
  if (collector->floating) {
    start = localInstant(static_cast<time_t>(start));
    end = localInstant(static_cast<time_t>(end));
  }
  collector->spans.emplace_back(start, end);
}

bool overlaps(long long start, long long end, long long windowStart, long long windowEnd) {
  if (end <= start) return start >= windowStart && start < windowEnd;
  return start < windowEnd && end > windowStart;
}

}  // namespace

IndependentExpansion::IndependentExpansion(const std::string& root) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file() || entry.path().extension() != ".ics") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    auto* file = new File;
    file->identifier = fs::relative(entry.path(), root).string();
    file->calendar = icalparser_parse_string(text.str().c_str());
    files_.push_back(file);
  }
}

IndependentExpansion::~IndependentExpansion() {
  for (File* file : files_) {
    if (file->calendar) icalcomponent_free(file->calendar);
    delete file;
  }
}

Occurrences IndependentExpansion::occurrences(long long start, long long end) const {
  Occurrences result;
  // libical's walk is asked for a wider window; the overlap rule is applied here.
  const long long margin = 3 * 86400;
  icaltimetype from = icaltime_from_timet_with_zone(start - margin, 0, icaltimezone_get_utc_timezone());
  icaltimetype to = icaltime_from_timet_with_zone(end + margin, 0, icaltimezone_get_utc_timezone());
  for (const File* file : files_) {
    if (!file->calendar) continue;
    std::vector<icalcomponent*> masters, overrides;
    for (icalcomponent* event = icalcomponent_get_first_component(file->calendar, ICAL_VEVENT_COMPONENT); event;
         event = icalcomponent_get_next_component(file->calendar, ICAL_VEVENT_COMPONENT))
      (icalcomponent_get_first_property(event, ICAL_RECURRENCEID_PROPERTY) ? overrides : masters).push_back(event);
    std::set<long long> replaced;
    for (icalcomponent* override : overrides) {
      replaced.insert(recurrenceInstant(file->calendar, override));
      Collector collector;
      collector.floating = isFloating(override, ICAL_DTSTART_PROPERTY);
      collector.allDay = icalcomponent_get_dtstart(override).is_date;
      icalcomponent_foreach_recurrence(override, from, to, collect, &collector);
      for (auto [s, e] : collector.spans)
        if (overlaps(s, e, start, end)) result.emplace(file->identifier, s);
    }
    for (icalcomponent* master : masters) {
      Collector collector;
      collector.floating = isFloating(master, ICAL_DTSTART_PROPERTY);
      collector.allDay = icalcomponent_get_dtstart(master).is_date;
      icalcomponent_foreach_recurrence(master, from, to, collect, &collector);
      std::set<long long> seen;
      for (auto [s, e] : collector.spans)
        if (overlaps(s, e, start, end) && !replaced.count(s) && seen.insert(s).second) result.emplace(file->identifier, s);
    }
  }
  return result;
}

}  // namespace vesp::tool::testing
