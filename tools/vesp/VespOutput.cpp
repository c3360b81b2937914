#include "tools/vesp/VespOutput.h"

#include <algorithm>
#include <iterator>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <map>
#include <sstream>
#include <tuple>

#include "Vesp/VespJSONCoder.h"

namespace vesp::tool {

namespace {

using nlohmann::json;

// Each value as the data model names it: dates as ISO 8601 text, zones and URLs as text, an absent
// value as null. A record's members are written in ascending order of their names.
void writeJSON(VespJsonWriter& out, std::string_view text) { out.string(text); }
void writeJSON(VespJsonWriter& out, bool value) { out.boolean(value); }
void writeJSON(VespJsonWriter& out, std::int64_t value) { out.number(value); }
void writeJSON(VespJsonWriter& out, std::uint64_t value) { out.number(value); }
void writeJSON(VespJsonWriter& out, double value) { out.number(value); }
void writeJSON(VespJsonWriter& out, platform::Date value) { out.string(value.iso8601()); }
void writeJSON(VespJsonWriter& out, const platform::TimeZone& zone) { out.string(zone.identifier()); }
void writeJSON(VespJsonWriter& out, const platform::URL& url) { out.string(url.absoluteString()); }
void writeJSON(VespJsonWriter& out, const VespSource& source);
void writeJSON(VespJsonWriter& out, const VespStructuredLocation& location);
void writeJSON(VespJsonWriter& out, const VespEventParticipant& participant);
void writeJSON(VespJsonWriter& out, const VespAlarm& alarm);
void writeJSON(VespJsonWriter& out, const VespRecurrenceDayOfWeek& day);
void writeJSON(VespJsonWriter& out, const VespRecurrenceEnd& end);
void writeJSON(VespJsonWriter& out, const VespRecurrenceRule& rule);
void writeJSON(VespJsonWriter& out, const platform::DateComponents& components);
template <class T>
void writeJSON(VespJsonWriter& out, const std::vector<T>& values);

template <class T>
void writeJSON(VespJsonWriter& out, const std::optional<T>& value) {
  if (value)
    writeJSON(out, *value);
  else
    out.null();
}

template <class T>
void writeJSON(VespJsonWriter& out, const std::vector<T>& values) {
  out.beginArray();
  for (const auto& value : values) writeJSON(out, value);
  out.endArray();
}

template <class T>
void member(VespJsonWriter& out, std::string_view name, const T& value) {
  out.key(name);
  writeJSON(out, value);
}

void writeJSON(VespJsonWriter& out, const VespSource& source) {
  out.beginObject();
  member(out, "sourceIdentifier", source.sourceIdentifier());
  member(out, "sourceType", description(source.sourceType()));
  member(out, "title", source.title());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespStructuredLocation& location) {
  out.beginObject();
  member(out, "radius", location.radius());
  member(out, "title", location.title());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespEventParticipant& participant) {
  out.beginObject();
  member(out, "isCurrentUser", participant.isCurrentUser());
  member(out, "name", participant.name());
  member(out, "role", description(participant.role()));
  member(out, "status", description(participant.status()));
  member(out, "type", description(participant.type()));
  member(out, "url", participant.url());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespAlarm& alarm) {
  out.beginObject();
  member(out, "absoluteDate", alarm.absoluteDate());
  member(out, "proximity", description(alarm.proximity()));
  member(out, "relativeOffset", alarm.relativeOffset());
  member(out, "structuredLocation", alarm.structuredLocation());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespRecurrenceDayOfWeek& day) {
  out.beginObject();
  member(out, "dayOfTheWeek", description(day.dayOfTheWeek()));
  member(out, "weekNumber", day.weekNumber());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespRecurrenceEnd& end) {
  out.beginObject();
  member(out, "endDate", end.endDate());
  member(out, "occurrenceCount", end.occurrenceCount());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespRecurrenceRule& rule) {
  out.beginObject();
  member(out, "calendarIdentifier", rule.calendarIdentifier());
  member(out, "daysOfTheMonth", rule.daysOfTheMonth());
  member(out, "daysOfTheWeek", rule.daysOfTheWeek());
  member(out, "daysOfTheYear", rule.daysOfTheYear());
  member(out, "firstDayOfTheWeek", rule.firstDayOfTheWeek());
  member(out, "frequency", description(rule.frequency()));
  member(out, "interval", rule.interval());
  member(out, "monthsOfTheYear", rule.monthsOfTheYear());
  member(out, "recurrenceEnd", rule.recurrenceEnd());
  member(out, "setPositions", rule.setPositions());
  member(out, "weeksOfTheYear", rule.weeksOfTheYear());
  out.endObject();
}

// Only the fields that are set.
void writeJSON(VespJsonWriter& out, const platform::DateComponents& components) {
  auto put = [&](std::string_view name, const auto& value) {
    if (value) member(out, name, value);
  };
  out.beginObject();
  put("calendar", components.calendar);
  put("day", components.day);
  put("era", components.era);
  put("hour", components.hour);
  put("minute", components.minute);
  put("month", components.month);
  put("second", components.second);
  put("timeZone", components.timeZone);
  put("year", components.year);
  out.endObject();
}

std::string localTime(platform::Date date, const char* format) {
  const std::tm local = localFieldsOf(date);
  char text[64];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

}  // namespace

namespace {

std::string swatch(const platform::CGColorRef& colour, const HumanStyle& style) {
  if (!style.colour || !colour) return "";
  auto channel = [](double value) { return static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 255)); };
  std::ostringstream out;
  out << "\x1b[38;2;" << channel(colour->red()) << ';' << channel(colour->green()) << ';' << channel(colour->blue())
      << "m\u25CF\x1b[0m ";
  return out.str();
}

std::string components(const std::optional<platform::DateComponents>& value) {
  if (!value || !value->year || !value->month || !value->day) return "";
  std::ostringstream out;
  out << std::setfill('0') << std::setw(4) << *value->year << '-' << std::setw(2) << *value->month << '-'
      << std::setw(2) << *value->day;
  if (value->hour && value->minute) out << ' ' << std::setw(2) << *value->hour << ':' << std::setw(2) << *value->minute;
  if (value->timeZone) out << ' ' << value->timeZone->identifier();
  return out.str();
}

// A detail view's notes: their lines under one another, after the field's name.
void printNotes(std::ostream& out, const std::string& notes) {
  static const std::string indent(14, ' ');
  out << "  " << std::left << std::setw(12) << "notes" << neutralised(notes, &indent) << '\n';
}

// A reminder's due or start date: a day as it is, a time in the local zone.
std::string reminderDate(const std::optional<platform::DateComponents>& stated,
                         const std::optional<platform::Date>& instant) {
  if (instant && stated && stated->hour) return localTime(*instant, "%Y-%m-%d %H:%M");
  return components(stated);
}
std::string dueText(const ListedReminder& listed) { return reminderDate(listed.record.dueDateComponents(), listed.due); }

// How an item repeats, by its first rule: "weekly", "every 2 weeks"; empty when it does not.
std::string repeats(const std::optional<std::vector<VespRecurrenceRule>>& rules) {
  if (!rules || rules->empty()) return "";
  const VespRecurrenceRule& rule = rules->front();
  if (rule.interval() <= 1) return std::string(description(rule.frequency()));
  static constexpr const char* kUnits[] = {"days", "weeks", "months", "years"};
  return "every " + std::to_string(rule.interval()) + " " + kUnits[static_cast<int>(rule.frequency())];
}

// todoman's marks: "!!! " high, "!! " medium, "! " low, nothing for none.
std::string priorityMarks(VespReminderPriority priority) {
  switch (priority) {
    case VespReminderPriority::high: return "!!! ";
    case VespReminderPriority::medium: return "!! ";
    case VespReminderPriority::low: return "! ";
    case VespReminderPriority::none: break;
  }
  return "";
}

}  // namespace

std::string hexColour(const platform::CGColorRef& colour) {
  if (!colour) return "";
  auto channel = [](double value) { return static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 255)); };
  char text[8];
  std::snprintf(text, sizeof text, "#%02X%02X%02X", channel(colour->red()), channel(colour->green()),
                channel(colour->blue()));
  return text;
}

std::string neutralised(const std::string& text, const std::string* lineIndent) {
  // Most texts hold no byte that may need changing: up to the first such byte, they are copied whole.
  std::size_t plain = 0;
  while (plain < text.size()) {
    const auto c = static_cast<unsigned char>(text[plain]);
    if (c < 0x20 || c == 0x7F || c == 0xC2) break;
    ++plain;
  }
  if (plain == text.size()) return text;
  std::string out;
  out.reserve(text.size() + 8);
  out.append(text, 0, plain);
  for (std::size_t i = plain; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool c1 = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) <= 0x9F;  // U+0080-U+009F, CSI among them
    if (lineIndent && c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
    if (lineIndent && c == '\n') {
      out += '\n' + *lineIndent;
    } else if (lineIndent && c == '\t') {
      out += '\t';
    } else if (c < 0x20 || c == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      out += escaped;
    } else if (c1) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned char>(text[++i]));
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

void writeJSON(VespJsonWriter& out, const VespCalendar& calendar) {
  out.beginObject();
  out.key("allowedEntityTypes");
  out.beginArray();
  if (calendar.allowedEntityTypes().contains(VespEntityMask::event)) out.string("event");
  if (calendar.allowedEntityTypes().contains(VespEntityMask::reminder)) out.string("reminder");
  out.endArray();
  member(out, "allowsContentModifications", calendar.allowsContentModifications());
  member(out, "calendarIdentifier", calendar.calendarIdentifier());
  member(out, "cgColor", hexColour(calendar.cgColor()));
  member(out, "isImmutable", calendar.isImmutable());
  member(out, "isSubscribed", calendar.isSubscribed());
  member(out, "source", calendar.source());
  out.key("supportedEventAvailabilities");
  out.beginArray();
  const auto& available = calendar.supportedEventAvailabilities();
  if (available.contains(VespEventAvailabilityMask::busy)) out.string("busy");
  if (available.contains(VespEventAvailabilityMask::free)) out.string("free");
  if (available.contains(VespEventAvailabilityMask::tentative)) out.string("tentative");
  if (available.contains(VespEventAvailabilityMask::unavailable)) out.string("unavailable");
  out.endArray();
  member(out, "title", calendar.title());
  member(out, "type", description(calendar.type()));
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespEventInstanceIdentifier& identifier) {
  const auto& date = identifier.originalOccurrenceDate();
  const double seconds = date ? date->timeIntervalSinceReferenceDate() : 0.0;
  // The coder refuses a date it cannot write as a number; so is it refused here, with its error.
  if (!std::isfinite(seconds)) (void)VespJSONEncoder().encode(identifier);
  using Key = VespEventInstanceIdentifier::CodingKeys;
  out.beginObject();
  member(out, VespEventInstanceIdentifier::stringValue(Key::eventIdentifier), identifier.eventIdentifier());
  member(out, VespEventInstanceIdentifier::stringValue(Key::identifier),
         std::string_view(date ? "withOccurrenceDate" : "noOccurrenceDate"));
  if (date) {
    out.key(VespEventInstanceIdentifier::stringValue(Key::originalOccurrenceDate));
    // As the coder writes it: a whole number within a double's exact range as an integer.
    if (std::trunc(seconds) == seconds && std::fabs(seconds) <= 9007199254740992.0)
      out.number(static_cast<std::int64_t>(seconds));
    else
      out.number(seconds);
  }
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespEventInstance& event, const std::string* reference) {
  out.beginObject();
  member(out, "alarms", event.alarms());
  member(out, "attendees", event.attendees());
  member(out, "availability", description(event.availability()));
  member(out, "birthdayContactIdentifier", event.birthdayContactIdentifier());
  member(out, "calendar", event.calendar());
  member(out, "calendarItemExternalIdentifier", event.calendarItemExternalIdentifier());
  member(out, "calendarItemIdentifier", event.calendarItemIdentifier());
  member(out, "creationDate", event.creationDate());
  member(out, "endDate", event.endDate());
  member(out, "eventIdentifier", event.eventIdentifier());
  member(out, "eventInstanceIdentifier", event.eventInstanceIdentifier());
  member(out, "isAllDay", event.isAllDay());
  member(out, "isDetached", event.isDetached());
  member(out, "lastModifiedDate", event.lastModifiedDate());
  member(out, "location", event.location());
  member(out, "notes", event.notes());
  member(out, "organizer", event.organizer());
  member(out, "originalOccurrenceDate", event.originalOccurrenceDate());
  member(out, "recurrenceRules", event.recurrenceRules());
  if (reference) member(out, "reference", *reference);
  member(out, "startDate", event.startDate());
  member(out, "status", description(event.status()));
  member(out, "structuredLocation", event.structuredLocation());
  member(out, "timeZone", event.timeZone());
  member(out, "title", event.title());
  member(out, "travelTime", event.travelTime());
  member(out, "url", event.url());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const VespReminder& reminder, std::optional<bool> cancelled) {
  out.beginObject();
  member(out, "alarms", reminder.alarms());
  member(out, "attendees", reminder.attendees());
  member(out, "calendar", reminder.calendar());
  member(out, "calendarItemExternalIdentifier", reminder.calendarItemExternalIdentifier());
  member(out, "calendarItemIdentifier", reminder.calendarItemIdentifier());
  member(out, "completionDate", reminder.completionDate());
  member(out, "creationDate", reminder.creationDate());
  member(out, "dueDateComponents", reminder.dueDateComponents());
  if (cancelled) member(out, "isCancelled", *cancelled);
  member(out, "isCompleted", reminder.isCompleted());
  member(out, "lastModifiedDate", reminder.lastModifiedDate());
  member(out, "location", reminder.location());
  member(out, "notes", reminder.notes());
  member(out, "priority", description(reminder.priority()));
  member(out, "recurrenceRules", reminder.recurrenceRules());
  member(out, "startDateComponents", reminder.startDateComponents());
  member(out, "timeZone", reminder.timeZone());
  member(out, "title", reminder.title());
  member(out, "url", reminder.url());
  out.endObject();
}

void writeJSON(VespJsonWriter& out, const ListedReminder& listed) { writeJSON(out, listed.record, listed.cancelled); }

json toJSON(const vdir::VdirDiagnostic& diagnostic) {
  return {{"path", diagnostic.path}, {"action", vdir::description(diagnostic.action)}, {"problem", diagnostic.problem}};
}

void printCalendars(std::ostream& out, const std::vector<VespCalendar>& calendars, const HumanStyle& style) {
  std::size_t width = 10;
  for (const auto& calendar : calendars) width = std::max(width, calendar.calendarIdentifier().size());
  for (const auto& calendar : calendars)
    out << swatch(calendar.cgColor(), style) << std::left << std::setw(static_cast<int>(width) + 2)
        << neutralised(calendar.calendarIdentifier()) << neutralised(calendar.title()) << "  ("
        << neutralised(calendar.source().title()) << ")\n";
  if (calendars.empty()) out << "(none)\n";
}

namespace {

// The instant whose local day the agenda files an occurrence under (an all-day one starts at midnight).
platform::Date dayInstant(const VespEventInstance& event) {
  return event.isAllDay() ? event.startDate().addingTimeInterval(1) : event.startDate();
}

}  // namespace

std::string agendaDay(const VespEventInstance& event) { return localTime(dayInstant(event), "%Y%m%d"); }

std::string occurrenceHash(const VespEventInstance& event) {
  const auto& identifier = event.eventInstanceIdentifier();
  std::string key = identifier.eventIdentifier() + '\n';
  if (const auto& original = identifier.originalOccurrenceDate()) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", original->timeIntervalSince1970());
    key += seconds;
  }
  std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
  for (unsigned char c : key) hash = (hash ^ c) * 1099511628211ull;
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

std::vector<std::string> references(const std::vector<VespEventInstance>& events,
                                    const std::vector<VespEventInstance>& sameDays) {
  // Each day's hashes, sorted: the longest prefix a hash shares is with a neighbour.
  std::map<std::string, std::vector<std::string>> hashesByDay;
  for (const auto& event : sameDays) hashesByDay[agendaDay(event)].push_back(occurrenceHash(event));
  for (auto& [day, hashes] : hashesByDay) {
    std::sort(hashes.begin(), hashes.end());
    hashes.erase(std::unique(hashes.begin(), hashes.end()), hashes.end());
  }
  auto sharedPrefix = [](const std::string& one, const std::string& other) {
    std::size_t shared = 0;
    while (shared < one.size() && shared < other.size() && one[shared] == other[shared]) ++shared;
    return shared;
  };
  std::vector<std::string> result;
  for (const auto& event : events) {
    const std::string day = agendaDay(event), hash = occurrenceHash(event);
    const std::vector<std::string>& hashes = hashesByDay[day];
    auto at = std::lower_bound(hashes.begin(), hashes.end(), hash);
    std::size_t shared = 0;
    if (at != hashes.begin()) shared = sharedPrefix(hash, *std::prev(at));
    if (at != hashes.end() && *at == hash) ++at;
    if (at != hashes.end()) shared = std::max(shared, sharedPrefix(hash, *at));
    result.push_back(day + "-" + hash.substr(0, std::max<std::size_t>(4, std::min(shared + 1, hash.size()))));
  }
  return result;
}

namespace {

// Whole local days from `from` to `to`, both local midnights (days across a clock change are not
// 24 hours, hence the rounding).
int daysBetween(platform::Date from, platform::Date to) {
  return static_cast<int>(std::lround(to.timeIntervalSince(from) / 86400.0));
}

// The local day of an instant, as its midnight. Occurrences come by start, most of them within the
// day in hand, which saves most conversions.
class LocalDays {
 public:
  platform::Date dayOf(platform::Date instant) {
    if (!(start_ && instant >= *start_ && instant < end_)) {
      start_ = localMidnightOf(instant);
      end_ = addLocalDays(*start_, 1);
    }
    return *start_;
  }
  // How many local days an occurrence covers from `firstDay`, the day it starts: up to the day of
  // its last moment (an all-day end is the midnight after it; a timed one ending at midnight does
  // not reach that day).
  int coveredDays(const VespEventInstance& event, platform::Date firstDay) {
    if (event.endDate() <= event.startDate()) return 1;
    const platform::Date last = event.endDate().addingTimeInterval(-1);
    if (start_ == firstDay && last < end_) return 1;
    return daysBetween(firstDay, localMidnightOf(last)) + 1;
  }

 private:
  std::optional<platform::Date> start_;
  platform::Date end_{0.0};
};

// An agenda line's time column: "09:00-10:00", or "all day"; over several days, "from 09:00" on
// the first, "until 17:00" on the last and "all day" between.
std::string agendaTime(const VespEventInstance& event, int day, int days) {
  if (event.isAllDay()) return "all day";
  if (days == 1) return localTime(event.startDate(), "%H:%M") + "-" + localTime(event.endDate(), "%H:%M");
  if (day == 0) return "from " + localTime(event.startDate(), "%H:%M");
  if (day == days - 1) return "until " + localTime(event.endDate(), "%H:%M");
  return "all day";
}

}  // namespace

namespace {

// One occurrence on one of the local days it covers: day `dayNumber` (from 0) of `days`.
struct AgendaLine {
  platform::Date day;
  std::size_t index;  // in the occurrences
  int dayNumber, days;
};

// Each of `events` on each local day of [windowStart, windowEnd) it covers, by day.
std::vector<AgendaLine> agendaLines(const std::vector<VespEventInstance>& events, platform::Date windowStart,
                                    platform::Date windowEnd) {
  std::vector<AgendaLine> lines;
  const platform::Date firstShown = localMidnightOf(windowStart);
  LocalDays local;
  for (std::size_t index = 0; index < events.size(); ++index) {
    const platform::Date firstDay = local.dayOf(dayInstant(events[index]));
    const int days = local.coveredDays(events[index], firstDay);
    for (int k = std::max(0, daysBetween(firstDay, firstShown)); k < days; ++k) {
      const platform::Date day = k == 0 ? firstDay : addLocalDays(firstDay, k);
      if (day >= windowEnd) break;
      lines.push_back({day, index, k, days});
    }
  }
  std::stable_sort(lines.begin(), lines.end(),
                   [](const AgendaLine& a, const AgendaLine& b) { return a.day < b.day; });
  return lines;
}

int dayOfMonth(platform::Date date) { return localFieldsOf(date).tm_mday; }

// The grid of the month that begins at `first` and ends at `next`, in weeks that begin on
// `firstWeekday`, with the days of `lines` marked.
void printMonthGrid(std::ostream& out, const std::vector<AgendaLine>& lines, platform::Date first,
                    platform::Date next, int firstWeekday) {
  std::vector<bool> busy(32, false);
  for (const AgendaLine& line : lines) busy[static_cast<std::size_t>(dayOfMonth(line.day))] = true;
  const std::string title = localTime(first, "%B %Y");
  static constexpr const char* kDays[] = {"Su", "Mo", "Tu", "We", "Th", "Fr", "Sa"};
  out << std::string((20 - std::min<std::size_t>(title.size(), 20)) / 2, ' ') << title << '\n';
  for (int column = 0; column < 7; ++column) out << (column ? " " : "") << kDays[(firstWeekday + column) % 7];
  out << '\n';
  const int lastDay = dayOfMonth(addLocalDays(next, -1));
  int column = daysBetween(localWeekStartOf(first, firstWeekday), first);
  std::string row(static_cast<std::size_t>(3 * column), ' ');
  for (int day = 1; day <= lastDay; ++day) {
    row += (day < 10 ? " " : "") + std::to_string(day) + (busy[static_cast<std::size_t>(day)] ? '*' : ' ');
    if (++column == 7 || day == lastDay) {
      out << row.substr(0, row.find_last_not_of(' ') + 1) << '\n';
      row.clear();
      column = 0;
    }
  }
}

using EventField = std::string (*)(const VespEventInstance&);

std::string dateOf(platform::Date date) { return localTime(date, "%Y-%m-%d"); }
std::string timeOf(const VespEventInstance& event, platform::Date date) {
  return event.isAllDay() ? "" : localTime(date, "%H:%M");
}
std::string whenOf(const VespEventInstance& event, platform::Date date) {
  return event.isAllDay() ? dateOf(date) : localTime(date, "%Y-%m-%d %H:%M");
}
std::string textOf(const std::optional<std::string>& text) { return neutralised(text.value_or("")); }

// The fields of --format, each written on one line: times local, an all-day end the day after the
// last, texts with their control characters (line breaks included) escaped.
const std::map<std::string, EventField, std::less<>>& eventFields() {
  static const std::map<std::string, EventField, std::less<>> fields{
      {"title", [](const VespEventInstance& e) { return neutralised(e.title()); }},
      {"location", [](const VespEventInstance& e) { return textOf(e.location()); }},
      {"notes", [](const VespEventInstance& e) { return textOf(e.notes()); }},
      {"calendar", [](const VespEventInstance& e) { return neutralised(e.calendar().title()); }},
      {"calendar-id", [](const VespEventInstance& e) { return neutralised(e.calendar().calendarIdentifier()); }},
      {"start", [](const VespEventInstance& e) { return whenOf(e, e.startDate()); }},
      {"end", [](const VespEventInstance& e) { return whenOf(e, e.endDate()); }},
      {"start-date", [](const VespEventInstance& e) { return dateOf(e.startDate()); }},
      {"start-time", [](const VespEventInstance& e) { return timeOf(e, e.startDate()); }},
      {"end-date", [](const VespEventInstance& e) { return dateOf(e.endDate()); }},
      {"end-time", [](const VespEventInstance& e) { return timeOf(e, e.endDate()); }},
      {"start-utc", [](const VespEventInstance& e) { return e.startDate().iso8601(); }},
      {"end-utc", [](const VespEventInstance& e) { return e.endDate().iso8601(); }},
      {"all-day", [](const VespEventInstance& e) { return std::string(e.isAllDay() ? "yes" : "no"); }},
      {"status", [](const VespEventInstance& e) { return std::string(description(e.status())); }},
      {"identifier", [](const VespEventInstance& e) { return neutralised(e.eventIdentifier()); }},
      {"uid", [](const VespEventInstance& e) { return neutralised(e.calendarItemExternalIdentifier()); }},
  };
  return fields;
}

// Walks `format`: `literal(text)` for its text, `field(name)` for each "{name}". Returns why it
// cannot be read, or nothing.
template <typename Literal, typename Field>
std::optional<std::string> walkFormat(const std::string& format, Literal literal, Field field) {
  for (std::size_t at = 0; at < format.size();) {
    const std::size_t brace = format.find_first_of("{}", at);
    literal(std::string_view(format).substr(at, brace == std::string::npos ? std::string::npos : brace - at));
    if (brace == std::string::npos) break;
    if (brace + 1 < format.size() && format[brace + 1] == format[brace]) {
      literal(std::string_view(format).substr(brace, 1));
      at = brace + 2;
      continue;
    }
    const std::size_t close = format.find('}', brace);
    if (format[brace] == '}' || close == std::string::npos)
      return std::string("has a brace without its pair (write {{ or }} for a brace itself)");
    const std::string name = format.substr(brace + 1, close - brace - 1);
    if (!eventFields().count(name)) {
      std::string names;
      for (const auto& [known, write] : eventFields()) names += (names.empty() ? "" : ", ") + known;
      return "{" + name + "} is not a field: the fields are " + names;
    }
    field(name);
    at = close + 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> formatProblem(const std::string& format) {
  return walkFormat(format, [](std::string_view) {}, [](const std::string&) {});
}

void printFormatted(std::ostream& out, const std::vector<VespEventInstance>& events, const std::string& format) {
  // The format read once: each part a text, or a field when its function is set.
  std::vector<std::pair<std::string, EventField>> parts;
  walkFormat(format, [&](std::string_view text) { parts.emplace_back(text, nullptr); },
             [&](const std::string& name) { parts.emplace_back("", eventFields().find(name)->second); });
  for (const auto& event : events) {
    for (const auto& [text, field] : parts) {
      if (field)
        out << field(event);
      else
        out << text;
    }
    out << '\n';
  }
}

namespace {

void printAgendaLines(std::ostream& out, const std::vector<VespEventInstance>& events,
                      const std::vector<AgendaLine>& lines, const HumanStyle& style,
                      const std::vector<std::string>* refs) {
  std::optional<platform::Date> day;
  for (const AgendaLine& line : lines) {
    const VespEventInstance& event = events[line.index];
    if (line.day != day) {
      if (day) out << '\n';
      out << localTime(line.day, "%a %d %b %Y") << '\n';
      day = line.day;
    }
    out << "  ";
    if (refs) out << (*refs)[line.index] << "  ";
    out << std::left << std::setw(13) << agendaTime(event, line.dayNumber, line.days)
        << swatch(event.calendar().cgColor(), style)
        << (event.status() == VespEventStatus::canceled ? "CANCELLED " : "") << neutralised(event.title());
    if (line.days > 1) out << " (day " << line.dayNumber + 1 << "/" << line.days << ")";
    if (event.location() && !event.location()->empty()) out << "  @ " << neutralised(*event.location());
    out << "  [" << neutralised(event.calendar().title()) << "]\n";
  }
  if (lines.empty()) out << "No events.\n";
}

}  // namespace

void printAgenda(std::ostream& out, const std::vector<VespEventInstance>& events, platform::Date windowStart,
                 platform::Date windowEnd, const HumanStyle& style, const std::vector<std::string>* refs) {
  printAgendaLines(out, events, agendaLines(events, windowStart, windowEnd), style, refs);
}

void printMonth(std::ostream& out, const std::vector<VespEventInstance>& events, platform::Date month,
                const HumanStyle& style, const std::vector<std::string>* refs) {
  const platform::Date first = localMonthStartOf(month), next = localMonthStartOf(month, 1);
  const std::vector<AgendaLine> lines = agendaLines(events, first, next);
  printMonthGrid(out, lines, first, next, style.firstWeekday);
  out << '\n';
  printAgendaLines(out, events, lines, style, refs);
}

void printEvent(std::ostream& out, const VespEventInstance& event, const HumanStyle& style) {
  out << swatch(event.calendar().cgColor(), style) << neutralised(event.title()) << '\n';
  auto line = [&](const char* name, const std::string& value) {
    out << "  " << std::left << std::setw(12) << name << neutralised(value) << '\n';
  };
  if (event.isAllDay())
    line("when", localTime(event.startDate(), "%a %d %b %Y") + " (all day)");
  else
    line("when",
         localTime(event.startDate(), "%a %d %b %Y %H:%M") + " - " + localTime(event.endDate(), "%a %d %b %Y %H:%M"));
  line("calendar", event.calendar().title());
  if (event.location()) line("location", *event.location());
  if (event.url()) line("link", event.url()->absoluteString());
  line("status", std::string(description(event.status())));
  if (event.organizer())
    line("organiser", event.organizer()->name().value_or(event.organizer()->url().absoluteString()));
  if (event.attendees())
    for (const auto& attendee : *event.attendees())
      line("attendee", attendee.name().value_or(attendee.url().absoluteString()) + " (" +
                           std::string(description(attendee.status())) + ")");
  if (auto repeat = repeats(event.recurrenceRules()); !repeat.empty()) line("repeats", repeat);
  if (event.isDetached()) line("moved from", localTime(event.originalOccurrenceDate(), "%a %d %b %Y %H:%M"));
  if (event.notes()) printNotes(out, *event.notes());
}

void printReminders(std::ostream& out, const std::vector<ListedReminder>& reminders, const HumanStyle& style) {
  for (const auto& listed : reminders) {
    const VespReminder& reminder = listed.record;
    out << (reminder.isCompleted() ? "[x] " : listed.cancelled ? "[-] " : "[ ] ")
        << swatch(reminder.calendar().cgColor(), style) << priorityMarks(reminder.priority())
        << neutralised(reminder.title());
    if (auto due = dueText(listed); !due.empty()) out << "  due " << due;
    if (auto repeat = repeats(reminder.recurrenceRules()); !repeat.empty()) out << ", " << repeat;
    out << "  [" << neutralised(reminder.calendar().title()) << "]";
    if (listed.cancelled) out << "  cancelled";
    out << '\n';
  }
  if (reminders.empty()) out << "No reminders.\n";
}

void printReminder(std::ostream& out, const ListedReminder& listed, const HumanStyle& style) {
  const VespReminder& reminder = listed.record;
  out << swatch(reminder.calendar().cgColor(), style) << neutralised(reminder.title()) << '\n';
  auto line = [&](const char* name, const std::string& value) {
    out << "  " << std::left << std::setw(12) << name << neutralised(value) << '\n';
  };
  line("list", reminder.calendar().title());
  line("completed", reminder.isCompleted() ? "yes" : "no");
  if (listed.cancelled) line("cancelled", "yes");
  if (auto due = dueText(listed); !due.empty()) line("due", due);
  if (auto start = reminderDate(reminder.startDateComponents(), listed.start); !start.empty()) line("starts", start);
  if (auto repeat = repeats(reminder.recurrenceRules()); !repeat.empty()) line("repeats", repeat);
  line("priority", std::string(description(reminder.priority())));
  if (reminder.notes()) printNotes(out, *reminder.notes());
}

}  // namespace vesp::tool
