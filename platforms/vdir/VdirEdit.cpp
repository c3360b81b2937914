#include "platforms/vdir/VdirEdit.h"

#include "platforms/vdir/VdirItem.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <set>

namespace vesp::vdir {

namespace {

rivet::RivetError editError(std::string problem, const char* function, std::uint64_t line) {
  return rivet::RivetError(std::move(problem), std::nullopt, "VdirEdit", function, line);
}

bool isItem(const VdirComponent& component) {
  return component.name() == "VEVENT" || component.name() == "VTODO" || component.name() == "VJOURNAL";
}

bool hasUid(const VdirComponent& component, const std::string& uid) {
  const VdirContentLine* line = component.property("UID");
  return line && unescapedText(line->value()) == uid;
}

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto yoe = static_cast<unsigned>(year - era * 400);
  const unsigned doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t days, int& year, int& month, int& day) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  year = static_cast<int>(static_cast<std::int64_t>(yoe) + era * 400 + (month <= 2));
}

// Wall-clock fields as seconds since 1970 read as UTC, and back (keeping whether it is a date).
std::int64_t fieldSeconds(const icaltimetype& fields) {
  std::int64_t seconds = daysFromCivil(fields.year, static_cast<unsigned>(fields.month),
                                       static_cast<unsigned>(fields.day)) * 86400;
  if (!fields.is_date) seconds += fields.hour * 3600 + fields.minute * 60 + fields.second;
  return seconds;
}

// The fieldSeconds of the midnight that starts the day of `fields`.
std::int64_t daySeconds(const icaltimetype& fields) {
  const std::int64_t seconds = fieldSeconds(fields);
  return seconds - ((seconds % 86400) + 86400) % 86400;
}

icaltimetype fieldsAt(std::int64_t seconds, bool isDate) {
  std::int64_t days = seconds >= 0 ? seconds / 86400 : -((-seconds + 86399) / 86400);
  std::int64_t rest = seconds - days * 86400;
  icaltimetype fields = icaltime_null_time();
  civilFromDays(days, fields.year, fields.month, fields.day);
  fields.is_date = isDate ? 1 : 0;
  if (!isDate) {
    fields.hour = static_cast<int>(rest / 3600);
    fields.minute = static_cast<int>(rest / 60 % 60);
    fields.second = static_cast<int>(rest % 60);
  }
  return fields;
}

}  // namespace

std::string utcText(platform::Date instant) {
  icaltimetype fields = fieldsAt(static_cast<std::int64_t>(std::floor(instant.timeIntervalSince1970())), false);
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02dZ", fields.year, fields.month, fields.day, fields.hour,
                fields.minute, fields.second);
  return text;
}

namespace {

bool sameForm(const VdirTime& a, const VdirTime& b) { return a.kind == b.kind && a.tzid == b.tzid; }

rivet::RivetResult<platform::Date> instantOf(const VdirTime& time, const VdirEditContext& context) {
  if (time.kind == VdirTime::Kind::zoned && !time.zone)
    return editError("unknown time zone \"" + time.tzid + "\"", "instantOf", __LINE__);
  return context.clock->instant(time);
}

// The start a component states, or an error naming what is wrong with it.
rivet::RivetResult<VdirTime> startOf(const VdirComponent& component, const VdirEditContext& context) {
  const VdirContentLine* line = component.property("DTSTART");
  if (!line) return editError("the item has no start (DTSTART)", "startOf", __LINE__);
  auto time = timeOfValue(*line, line->value(), context);
  if (!time) return editError("the item's start cannot be read: " + line->value(), "startOf", __LINE__);
  return *time;
}

// `time` stated in the form of `from` (itself when it already is).
rivet::RivetResult<VdirTime> inFormOf(const VdirTime& time, const VdirTime& from, const VdirEditContext& context) {
  if (sameForm(time, from)) return time;
  auto at = instantOf(time, context);
  if (!at) return at.error();
  return timeLike(*at, from, *context.clock);
}

// `time` moved as its series' start moves from `from` to `to`, in the form of `to`. A series that
// comes to last all day, or no longer does, keeps each time on its day, which moves by as many
// days as the start: the rule counts days then, and days are what its occurrences keep. Otherwise
// by the same wall-clock distance when all three share one form, else by the same span of real time.
rivet::RivetResult<VdirTime> moved(const VdirTime& time, const VdirTime& from, const VdirTime& to,
                                   const VdirEditContext& context) {
  if (from.isDate() != to.isDate()) {
    auto stated = inFormOf(time, from, context);
    if (!stated) return stated.error();
    VdirTime result = to;
    result.local = fieldsAt(daySeconds(stated->local) + fieldSeconds(to.local) - daySeconds(from.local), to.isDate());
    return result;
  }
  if (sameForm(time, from) && sameForm(from, to)) {
    VdirTime result = time;
    result.local = fieldsAt(fieldSeconds(time.local) + fieldSeconds(to.local) - fieldSeconds(from.local),
                            time.isDate());
    return result;
  }
  auto at = instantOf(time, context), before = instantOf(from, context), after = instantOf(to, context);
  if (!at) return at.error();
  if (!before) return before.error();
  if (!after) return after.error();
  return timeLike(platform::Date(at->timeIntervalSinceReferenceDate() + after->timeIntervalSince(*before)), to,
                  *context.clock);
}

// A line of several time values rewritten: each kept value moved (or dropped when `keep` says so),
// all in the form of `form`. Nothing when no value is left.
template <class Transform>
rivet::RivetResult<std::optional<VdirContentLine>> rewrittenTimes(const VdirContentLine& line, const VdirTime& form,
                                                                  const VdirEditContext& context,
                                                                  Transform transform) {
  std::string values;
  for (const std::string& value : valuesOf(line)) {
    auto time = timeOfValue(line, value, context);
    if (!time) return editError("a date of " + line.name() + " cannot be read: " + value, "rewrittenTimes", __LINE__);
    rivet::RivetResult<std::optional<VdirTime>> result = transform(*time);
    if (!result) return result.error();
    if (!*result) continue;
    auto kept = inFormOf(**result, form, context);
    if (!kept) return kept.error();
    if (!values.empty()) values.append(1, ',');
    values.append(timeValue(*kept));
  }
  if (values.empty()) return std::optional<VdirContentLine>();
  VdirContentLine rewritten = timeLine(line.name(), form);
  rewritten.setValue(values);
  return std::optional<VdirContentLine>(std::move(rewritten));
}

// Replaces every line of `name` with what `transform` makes of its values; whether anything changed.
template <class Transform>
rivet::RivetResult<bool> rewriteTimeLines(VdirComponent& component, const std::string& name, const VdirTime& form,
                                          const VdirEditContext& context, Transform transform) {
  std::vector<VdirContentLine> before, after;
  for (const VdirContentLine* line : component.properties(name)) {
    if (const std::string* value = line->parameter("VALUE"); value && sameName(*value, "PERIOD")) return false;
    before.push_back(*line);
    auto rewritten = rewrittenTimes(*line, form, context, transform);
    if (!rewritten) return rewritten.error();
    if (*rewritten) after.push_back(std::move(**rewritten));
  }
  if (before == after) return false;
  component.remove(name);
  for (const VdirContentLine& line : after) component.add(line);
  return true;
}

// Keeps, of the EXDATE and RDATE values of `component`, those before `occurrence` (or, with
// `later`, those from it on), in the form of `form`; whether anything changed.
rivet::RivetResult<bool> keepTimesOneSide(VdirComponent& component, platform::Date occurrence, bool later,
                                          const VdirTime& form, const VdirEditContext& context) {
  bool changed = false;
  for (const char* name : {"EXDATE", "RDATE"}) {
    auto rewritten = rewriteTimeLines(component, name, form, context, [&](const VdirTime& time) {
      auto instant = instantOf(time, context);
      if (!instant) return rivet::RivetResult<std::optional<VdirTime>>(instant.error());
      if ((instant->timeIntervalSince(occurrence) >= 0) != later)
        return rivet::RivetResult<std::optional<VdirTime>>(std::optional<VdirTime>());
      return rivet::RivetResult<std::optional<VdirTime>>(std::optional<VdirTime>(time));
    });
    if (!rewritten) return rewritten.error();
    changed |= *rewritten;
  }
  return changed;
}

bool setText(VdirComponent& component, const std::string& name, const std::optional<std::string>& text,
             bool escaped = true) {
  if (!text) return component.remove(name) > 0;
  return component.set(VdirContentLine(name, {}, escaped ? escapedText(*text) : *text));
}

// Replaces the VALARMs of `component` by one display alarm per trigger (a duration from the start,
// or a UTC time for an alarm at a set time). Whether anything changed.
rivet::RivetResult<bool> setAlarms(VdirComponent& component, const std::vector<std::string>& triggers) {
  std::vector<VdirComponent> alarms;
  const VdirContentLine* title = component.property("SUMMARY");
  for (const std::string& trigger : triggers) {
    // A UTC time has the one shape "20261201T090000Z"; anything else must be a duration.
    const bool absolute = trigger.size() == 16 && trigger[8] == 'T' && trigger.back() == 'Z' &&
                          !icaltime_is_null_time(icaltime_from_string(trigger.c_str()));
    if (!absolute && icaldurationtype_is_bad_duration(icaldurationtype_from_string(trigger.c_str())))
      return editError("an alarm is a duration from the start such as -PT15M or a UTC time such as 20261201T090000Z, "
                       "not \"" + trigger + "\"", "setAlarms", __LINE__);
    VdirComponent alarm("VALARM");
    alarm.add(VdirContentLine("ACTION", {}, "DISPLAY"));
    alarm.add(VdirContentLine("DESCRIPTION", {}, title ? title->value() : "Reminder"));
    alarm.add(VdirContentLine("TRIGGER", absolute ? std::vector<VdirParameter>{{"VALUE", {"DATE-TIME"}}}
                                                  : std::vector<VdirParameter>{},
                              trigger));
    alarms.push_back(std::move(alarm));
  }
  // Compared as written, so that setting the alarms an item has changes nothing.
  std::string before, after;
  for (const auto& alarm : component.components())
    if (alarm.name() == "VALARM") alarm.write(before, "\r\n");
  for (const auto& alarm : alarms) alarm.write(after, "\r\n");
  if (before == after) return false;
  component.removeComponents([](const VdirComponent& child) { return child.name() == "VALARM"; });
  for (auto& alarm : alarms) component.addComponent(std::move(alarm));
  return true;
}

// Sets TRANSP and the busy status other clients write so that they (and this store's reader) read
// `availability` (busy 0 to unavailable 3): free is TRANSPARENT; tentative and unavailable are the
// statuses TENTATIVE and OOF of an opaque event. A property already there is changed, not removed,
// and one that is not needed is not added. Whether anything changed.
bool setAvailability(VdirComponent& component, platform::EKEventAvailability availability) {
  static const char* const kStatus[] = {"BUSY", "FREE", "TENTATIVE", "OOF"};
  const bool free = availability == platform::EKEventAvailabilityFree;
  bool changed = false;
  if (free || component.property("TRANSP"))
    changed |= component.set(VdirContentLine("TRANSP", {}, free ? "TRANSPARENT" : "OPAQUE"));
  if (availability >= platform::EKEventAvailabilityTentative || component.property("X-MICROSOFT-CDO-BUSYSTATUS"))
    changed |= component.set(VdirContentLine("X-MICROSOFT-CDO-BUSYSTATUS", {}, kStatus[availability]));
  return changed;
}

// Sets a to-do's DUE, or removes it, with any DURATION that stated it. A to-do keeps a due date that
// its repeat rule or an alarm is counted from.
rivet::RivetResult<bool> setDue(VdirComponent& component, const std::optional<VdirTime>& due) {
  if (due) {
    const bool changed = component.set(timeLine("DUE", *due));
    return component.remove("DURATION") > 0 || changed;
  }
  if (!component.property("DUE") && !component.property("DURATION")) return false;
  if (!component.property("DTSTART") && (component.property("RRULE") || component.property("RDATE")))
    return editError("a repeating to-do without a start keeps its due date", "setDue", __LINE__);
  for (const VdirComponent& alarm : component.components()) {
    const VdirContentLine* trigger = alarm.property("TRIGGER");
    const std::string* related = trigger ? trigger->parameter("RELATED") : nullptr;
    if (alarm.name() == "VALARM" && related && sameName(*related, "END"))
      return editError("the to-do has an alarm counted from its due date", "setDue", __LINE__);
  }
  component.remove("DUE");
  component.remove("DURATION");
  return true;
}

// The fields of `changes` that need no knowledge of a series: texts, priority, due, end, alarms,
// availability.
rivet::RivetResult<bool> applyFields(VdirComponent& component, const VdirItemChanges& changes) {
  bool changed = false;
  if (changes.title) changed |= setText(component, "SUMMARY", *changes.title);
  if (changes.location) changed |= setText(component, "LOCATION", *changes.location);
  if (changes.notes) changed |= setText(component, "DESCRIPTION", *changes.notes);
  if (changes.url) changed |= setText(component, "URL", *changes.url, false);
  if (changes.priority) {
    if (*changes.priority < 0 || *changes.priority > 9)
      return editError("a priority is 0 (none) to 9, not " + std::to_string(*changes.priority), "applyFields",
                       __LINE__);
    changed |= *changes.priority == 0
                   ? component.remove("PRIORITY") > 0
                   : component.set(VdirContentLine("PRIORITY", {}, std::to_string(*changes.priority)));
  }
  if (changes.due) {
    auto due = setDue(component, *changes.due);
    if (!due) return due.error();
    changed |= *due;
  }
  if (changes.end) {
    changed |= component.set(timeLine("DTEND", *changes.end));
    changed |= component.remove("DURATION") > 0;
  }
  if (changes.alarms) {
    auto alarms = setAlarms(component, *changes.alarms);
    if (!alarms) return alarms.error();
    changed |= *alarms;
  }
  if (changes.availability) {
    if (*changes.availability < platform::EKEventAvailabilityBusy ||
        *changes.availability > platform::EKEventAvailabilityLast)
      return editError("an availability is 0 (busy) to 3 (unavailable), not " + std::to_string(*changes.availability),
                       "applyFields", __LINE__);
    changed |= setAvailability(component, *changes.availability);
  }
  return changed;
}

// An end moved as its item's start moves from `from` to `to`. An item that comes to last all day
// ends at the first midnight at or after its end, a day after its start at least: it covers every
// day its times touched.
rivet::RivetResult<VdirTime> movedEnd(const VdirTime& end, const VdirTime& from, const VdirTime& to,
                                      const VdirEditContext& context) {
  if (!to.isDate() || from.isDate()) return moved(end, from, to, context);
  auto stated = inFormOf(end, from, context);
  if (!stated) return stated.error();
  const std::int64_t seconds = fieldSeconds(stated->local), day = daySeconds(stated->local);
  const std::int64_t last = (seconds > day ? day + 86400 : day) + fieldSeconds(to.local) - daySeconds(from.local);
  VdirTime result = to;
  result.local = fieldsAt(std::max(last, fieldSeconds(to.local) + 86400), true);
  return result;
}

// The end a component states: its DTEND, or its start and DURATION; none when it states neither.
rivet::RivetResult<std::optional<VdirTime>> endOf(const VdirComponent& component, const VdirTime& start,
                                                  const VdirEditContext& context) {
  if (const VdirContentLine* end = component.property("DTEND")) {
    auto time = timeOfValue(*end, end->value(), context);
    if (!time) return editError("the item's end cannot be read: " + end->value(), "endOf", __LINE__);
    return std::optional<VdirTime>(*time);
  }
  const VdirContentLine* duration = component.property("DURATION");
  if (!duration) return std::optional<VdirTime>();
  const icaldurationtype length = icaldurationtype_from_string(duration->value().c_str());
  if (icaldurationtype_is_bad_duration(length))
    return editError("the item's duration cannot be read: " + duration->value(), "endOf", __LINE__);
  VdirTime end = start;
  end.local = fieldsAt(fieldSeconds(start.local) + icaldurationtype_as_int(length), false);
  if (start.isDate()) end.local = fieldsAt(fieldSeconds(end.local), !(fieldSeconds(end.local) % 86400));
  return std::optional<VdirTime>(end);
}

// Moves DTSTART to `start`, and the end with it unless `changes` set the end. A DURATION stays
// unless the item comes to last all day or no longer does: a DTEND states its end then. Whether
// anything changed.
rivet::RivetResult<bool> moveStart(VdirComponent& component, const VdirTime& from, const VdirTime& start,
                                   const VdirItemChanges& changes, const VdirEditContext& context) {
  const bool movesEnd = !changes.end && (component.property("DTEND") || from.isDate() != start.isDate());
  auto end = movesEnd ? endOf(component, from, context)
                      : rivet::RivetResult<std::optional<VdirTime>>(std::optional<VdirTime>());
  if (!end) return end.error();
  bool changed = component.set(timeLine("DTSTART", start));
  if (changed && *end) {
    auto endTime = movedEnd(**end, from, start, context);
    if (!endTime) return endTime.error();
    component.set(timeLine("DTEND", *endTime));
    component.remove("DURATION");
  }
  return changed;
}

// An end that is not after its start is refused.
rivet::RivetResult<void> checkSpan(const VdirComponent& component, const VdirEditContext& context) {
  const VdirContentLine* start = component.property("DTSTART");
  const VdirContentLine* end = component.property("DTEND");
  if (!start || !end) return rivet::RivetResultVoidSuccess;
  auto startTime = timeOfValue(*start, start->value(), context);
  auto endTime = timeOfValue(*end, end->value(), context);
  if (!startTime || !endTime) return editError("the item's times cannot be read", "checkSpan", __LINE__);
  auto from = instantOf(*startTime, context), to = instantOf(*endTime, context);
  if (!from) return from.error();
  if (!to) return to.error();
  if (to->timeIntervalSince(*from) < 0 || (startTime->isDate() && to->timeIntervalSince(*from) <= 0))
    return editError("the end lies before the start", "checkSpan", __LINE__);
  return rivet::RivetResultVoidSuccess;
}

int sequenceOf(const VdirComponent& component) {
  const VdirContentLine* line = component.property("SEQUENCE");
  if (!line) return 0;
  try {
    return std::max(0, std::stoi(line->value()));
  } catch (...) {
    return 0;
  }
}

std::vector<VdirComponent*> overridesOf(VdirDocument& document, const std::string& uid) {
  std::vector<VdirComponent*> overrides;
  VdirComponent* calendar = document.calendar();
  if (!calendar) return overrides;
  for (VdirComponent& component : calendar->components()) {
    if (isItem(component) && hasUid(component, uid) && component.property("RECURRENCE-ID"))
      overrides.push_back(&component);
  }
  return overrides;
}

// Raises the SEQUENCE of the overrides of `uid` to their master's, never below it.
void alignSequences(VdirDocument& document, const std::string& uid, const VdirComponent& master) {
  const int sequence = sequenceOf(master);
  for (VdirComponent* override : overridesOf(document, uid)) {
    if (sequenceOf(*override) < sequence)
      override->set(VdirContentLine("SEQUENCE", {}, std::to_string(sequence)));
  }
}

// The instant of an override's RECURRENCE-ID.
std::optional<platform::Date> recurrenceInstant(const VdirComponent& component, const VdirEditContext& context) {
  const VdirContentLine* line = component.property("RECURRENCE-ID");
  if (!line) return std::nullopt;
  auto time = timeOfValue(*line, line->value(), context);
  if (!time) return std::nullopt;
  auto instant = instantOf(*time, context);
  if (!instant) return std::nullopt;
  return *instant;
}

bool sameInstant(platform::Date a, platform::Date b) { return std::fabs(a.timeIntervalSince(b)) < 0.5; }

rivet::RivetResult<VdirComponent*> requireMaster(VdirDocument& document, const std::string& uid) {
  VdirComponent* master = masterOf(document, uid);
  if (!master) return editError("the file holds no item with UID \"" + uid + "\"", "requireMaster", __LINE__);
  return master;
}

// How long a component lasts: in wall-clock seconds when its start and end share a form (a day is
// 86400 then), else in seconds of real time; none when it states no end or its times cannot be read.
std::optional<std::int64_t> lengthOf(const VdirComponent& component, const VdirEditContext& context) {
  auto start = startOf(component, context);
  auto end = start ? endOf(component, *start, context) : rivet::RivetResult<std::optional<VdirTime>>(start.error());
  if (!end || !*end) return std::nullopt;
  if (sameForm(*start, **end)) return fieldSeconds((*end)->local) - fieldSeconds(start->local);
  auto from = instantOf(*start, context), to = instantOf(**end, context);
  if (!from || !to) return std::nullopt;
  return static_cast<std::int64_t>(std::llround(to->timeIntervalSince(*from)));
}

// Moves the exclusions, extra dates and overrides of a series whose start moves from `from` to `to`.
// An override at its occurrence moves with it; when the series no longer lasts all day, one that
// lasted as long as the series (`lengthBefore`) takes the series' new length, and others keep theirs.
rivet::RivetResult<void> moveOccurrences(VdirDocument& document, const std::string& uid, VdirComponent& master,
                                         const VdirTime& from, const VdirTime& to,
                                         std::optional<std::int64_t> lengthBefore, const VdirEditContext& context) {
  const auto seriesLength = from.isDate() && !to.isDate() ? lengthOf(master, context) : std::nullopt;
  for (const char* name : {"EXDATE", "RDATE"}) {
    auto rewritten = rewriteTimeLines(master, name, to, context, [&](const VdirTime& time) {
      auto result = moved(time, from, to, context);
      if (!result) return rivet::RivetResult<std::optional<VdirTime>>(result.error());
      return rivet::RivetResult<std::optional<VdirTime>>(std::optional<VdirTime>(*result));
    });
    if (!rewritten) return rewritten.error();
  }
  for (VdirComponent* override : overridesOf(document, uid)) {
    const VdirContentLine* line = override->property("RECURRENCE-ID");
    auto recurrence = timeOfValue(*line, line->value(), context);
    if (!recurrence) return editError("a RECURRENCE-ID cannot be read: " + line->value(), "moveOccurrences", __LINE__);
    const std::string* rangeParameter = line->parameter("RANGE");
    const std::optional<std::string> range = rangeParameter ? std::optional(*rangeParameter) : std::nullopt;
    auto movedRecurrence = moved(*recurrence, from, to, context);
    if (!movedRecurrence) return movedRecurrence.error();
    // An override still at its own occurrence's time moves with it.
    const VdirContentLine* start = override->property("DTSTART");
    auto startTime = start ? timeOfValue(*start, start->value(), context) : std::nullopt;
    if (startTime && sameForm(*startTime, *recurrence) &&
        fieldSeconds(startTime->local) == fieldSeconds(recurrence->local)) {
      const auto length = seriesLength ? lengthOf(*override, context) : std::nullopt;
      auto shifted = moveStart(*override, *recurrence, *movedRecurrence, {}, context);
      if (!shifted) return shifted.error();
      if (length && length == lengthBefore) {
        VdirTime end = *movedRecurrence;
        end.local = fieldsAt(fieldSeconds(end.local) + *seriesLength, false);
        override->set(timeLine("DTEND", end));
        override->remove("DURATION");
      }
    }
    VdirContentLine recurrenceLine = timeLine("RECURRENCE-ID", *movedRecurrence);
    if (range) recurrenceLine.setParameter("RANGE", {*range});  // a THISANDFUTURE override stays one
    override->set(std::move(recurrenceLine));
  }
  return rivet::RivetResultVoidSuccess;
}

// The RRULE value without its COUNT and UNTIL parts.
std::string ruleWithoutEnd(const std::string& rule) {
  std::string result;
  std::size_t at = 0;
  while (at <= rule.size()) {
    std::size_t end = rule.find(';', at);
    if (end == std::string::npos) end = rule.size();
    std::string part = rule.substr(at, end - at);
    std::string key = part.substr(0, part.find('='));
    if (!part.empty() && !sameName(key, "COUNT") && !sameName(key, "UNTIL")) {
      if (!result.empty()) result.append(1, ';');
      result.append(part);
    }
    at = end + 1;
  }
  return result;
}

// Makes `text` the only repeat rule of `item`, its UNTIL in the form RFC 5545 asks of the item's
// start: a day for an all-day item, else a time (UTC unless floating), a day read as its last second.
// An empty `text` removes every rule, extra date and exclusion: the item no longer repeats.
rivet::RivetResult<bool> setRule(VdirComponent& item, const std::string& text, const VdirEditContext& context) {
  if (text.empty()) {
    bool removed = false;
    for (const char* name : {"RRULE", "EXRULE", "RDATE", "EXDATE"}) removed |= item.remove(name) > 0;
    return removed;
  }
  auto start = startOf(item, context);
  if (!start) return start.error();
  const icalrecurrencetype parsed = icalrecurrencetype_from_string(text.c_str());
  if (parsed.freq == ICAL_NO_RECURRENCE || text.find_first_of("\r\n") != std::string::npos)
    return editError("the repeat rule cannot be read: " + text, "setRule", __LINE__);
  if (parsed.count != 0 && !icaltime_is_null_time(parsed.until))
    return editError("a repeat rule ends with COUNT or with UNTIL, not both", "setRule", __LINE__);
  if (const char* why = unservableRule(parsed, *start))
    return editError(std::string("the repeat rule cannot be used: ") + why, "setRule", __LINE__);
  std::string value = text;
  if (!icaltime_is_null_time(parsed.until)) {
    VdirTime until = *start;
    until.local = parsed.until;
    std::string written;
    if (start->isDate()) {
      until.local.is_date = 1;
      written = timeValue(until);
    } else if (parsed.until.is_date) {
      until.local.is_date = 0;
      until.local.hour = 23, until.local.minute = 59, until.local.second = 59;
      auto instant = instantOf(until, context);
      if (!instant) return instant.error();
      written = start->kind == VdirTime::Kind::floating ? timeValue(until) : utcText(*instant);
    } else {
      until.kind = icaltime_is_utc(parsed.until) ? VdirTime::Kind::utc : VdirTime::Kind::floating;
      written = timeValue(until);
    }
    value = ruleWithoutEnd(text) + ";UNTIL=" + written;
  }
  const auto rules = item.properties("RRULE");
  if (rules.size() == 1 && rules[0]->value() == value && rules[0]->parameters().empty()) return false;
  item.remove("RRULE");
  item.add(VdirContentLine("RRULE", {}, value));
  return true;
}

// Moves the UNTIL of `item`'s rules as its start moves from `from` to `to` (see moved), so that
// the series keeps its last occurrence, and states it as RFC 5545 asks of a start in the form of
// `to`: a day for an all-day series, else a time in UTC, or floating when the start floats.
rivet::RivetResult<void> moveUntil(VdirComponent& item, const VdirTime& from, const VdirTime& to,
                                   const VdirEditContext& context) {
  std::vector<VdirContentLine> rules;
  bool changed = false;
  for (const VdirContentLine* line : item.properties("RRULE")) {
    rules.push_back(*line);
    const icalrecurrencetype parsed = icalrecurrencetype_from_string(line->value().c_str());
    if (icaltime_is_null_time(parsed.until)) continue;
    // A date-time UNTIL on an all-day series is read as its day.
    VdirTime until;
    until.local = parsed.until;
    if (parsed.until.is_date || from.isDate()) {
      until.kind = VdirTime::Kind::date;
      until.local = fieldsAt(daySeconds(parsed.until), true);
    } else {
      until.kind = icaltime_is_utc(parsed.until) ? VdirTime::Kind::utc : VdirTime::Kind::floating;
    }
    auto stated = inFormOf(until, from, context);
    if (!stated) return stated.error();
    // An all-day series ends on the day of its last occurrence: an UNTIL earlier in its day than the
    // start's time of day ends the day before.
    if (to.isDate() && !from.isDate())
      stated->local =
          fieldsAt(fieldSeconds(stated->local) - (fieldSeconds(from.local) - daySeconds(from.local)), false);
    auto end = moved(*stated, from, to, context);
    if (!end) return end.error();
    std::string written = timeValue(*end);
    if (!to.isDate() && to.kind != VdirTime::Kind::floating) {
      auto instant = instantOf(*end, context);
      if (!instant) return instant.error();
      written = utcText(*instant);
    }
    const std::string value = ruleWithoutEnd(line->value()) + ";UNTIL=" + written;
    if (value == line->value()) continue;
    rules.back().setValue(value);
    changed = true;
  }
  if (!changed) return rivet::RivetResultVoidSuccess;
  item.remove("RRULE");
  for (const VdirContentLine& rule : rules) item.add(rule);
  return rivet::RivetResultVoidSuccess;
}

// Whether one of `item`'s `name` properties (RDATE, EXDATE) states the instant `instant`.
bool statesInstant(const VdirComponent& item, const char* name, platform::Date instant,
                   const VdirEditContext& context) {
  for (const VdirContentLine* line : item.properties(name))
    for (const std::string& value : valuesOf(*line)) {
      auto time = timeOfValue(*line, value, context);
      if (!time) continue;
      auto at = instantOf(*time, context);
      if (at && sameInstant(*at, instant)) return true;
    }
  return false;
}

// A walk of a rule up to a target: the instances before it, whether one falls on it, and whether
// the walk stopped at its step limit first.
struct RuleWalk {
  int before = 0;
  bool hit = false;
  bool cut = false;
};

// Walks `rule` of a series starting at `start` towards the local time `target` (in field seconds),
// taking at most `limit` instances; nothing when libical cannot start the walk. The walk is on the
// wall clock (ruleFields), so UNTIL is met as the wall-clock time of the instant it names.
std::optional<RuleWalk> walkRule(icalrecurrencetype rule, const VdirTime& start, std::int64_t target, int limit,
                                 const VdirEditContext& context) {
  std::optional<std::int64_t> until;
  if (!icaltime_is_null_time(rule.until))
    until = fieldSeconds(timeLike(untilInstant(rule.until, start, *context.clock), start, *context.clock).local);
  rule.until = icaltime_null_time();
  icalrecur_iterator* iterator = icalrecur_iterator_new(rule, ruleFields(start));
  if (!iterator) return std::nullopt;
  RuleWalk walk;
  for (icaltimetype next = icalrecur_iterator_next(iterator); !icaltime_is_null_time(next);
       next = icalrecur_iterator_next(iterator)) {
    const std::int64_t seconds = fieldSeconds(next);
    if (until && seconds > *until) break;
    if (seconds >= target) {
      walk.hit = seconds == target;
      break;
    }
    if (walk.before == limit) {
      walk.cut = true;
      break;
    }
    ++walk.before;
  }
  icalrecur_iterator_free(iterator);
  return walk;
}

// Whether the series `master` (its rules, extra dates and start) has an occurrence at `instant`.
// A rule that would take too long to walk there counts as having one.
bool hasOccurrenceAt(const VdirComponent& master, const VdirTime& start, platform::Date instant,
                     const VdirEditContext& context) {
  auto first = instantOf(start, context);
  if (first && sameInstant(*first, instant)) return true;
  if (statesInstant(master, "RDATE", instant, context)) return true;
  const std::int64_t target = fieldSeconds(timeLike(instant, start, *context.clock).local);
  for (const VdirContentLine* line : master.properties("RRULE")) {
    const icalrecurrencetype rule = icalrecurrencetype_from_string(line->value().c_str());
    if (rule.freq == ICAL_NO_RECURRENCE || unservableRule(rule, start)) return true;
    const std::optional<RuleWalk> walk = walkRule(rule, start, target, 100000, context);
    if (!walk || walk->hit || walk->cut) return true;
  }
  return false;
}

// Removes the overrides of `uid` that no longer fall on an occurrence of its master, as after a
// change of its rule: they would otherwise stand as events of their own.
void dropDetachedOverrides(VdirDocument& document, const std::string& uid, const VdirComponent& master,
                           const VdirEditContext& context) {
  auto start = startOf(master, context);
  if (!start) return;
  document.calendar()->removeComponents([&](const VdirComponent& component) {
    if (!isItem(component) || !hasUid(component, uid) || !component.property("RECURRENCE-ID")) return false;
    auto instant = recurrenceInstant(component, context);
    return instant && !hasOccurrenceAt(master, *start, *instant, context);
  });
}

// How many instances the rule `line` of a series starting at `start` makes before `occurrence`
// (excluded ones included: COUNT counts them too), up to `limit`.
rivet::RivetResult<int> instancesBefore(const VdirContentLine& line, const VdirTime& start, platform::Date occurrence,
                                        int limit, const VdirEditContext& context) {
  icalrecurrencetype rule = icalrecurrencetype_from_string(line.value().c_str());
  if (rule.freq == ICAL_NO_RECURRENCE) return editError("the rule cannot be read: " + line.value(), "instancesBefore",
                                                        __LINE__);
  if (const char* why = unservableRule(rule, start))
    return editError(std::string("the rule cannot be expanded: ") + why, "instancesBefore", __LINE__);
  const std::int64_t before = fieldSeconds(timeLike(occurrence, start, *context.clock).local);
  const std::optional<RuleWalk> walk = walkRule(rule, start, before, limit, context);
  if (!walk) return editError("the rule cannot be expanded: " + line.value(), "instancesBefore", __LINE__);
  return walk->before;
}

}  // namespace

std::vector<std::string> zonesUsedBy(const VdirComponent& item) {
  std::vector<std::string> tzids;
  auto note = [&](const VdirComponent& component, auto& self) -> void {
    for (const VdirProperty* property : component.allProperties()) {
      if (!property->line) continue;
      const std::string* tzid = property->line->parameter("TZID");
      if (tzid && std::find(tzids.begin(), tzids.end(), *tzid) == tzids.end()) tzids.push_back(*tzid);
    }
    for (const VdirComponent& child : component.components()) self(child, self);
  };
  note(item, note);
  return tzids;
}

namespace {

// Runs `edit` on a draft of `document` and keeps the draft only when the edit changed something
// and succeeded: a failed edit leaves the document as it was.
template <class Edit>
rivet::RivetResult<bool> onDraft(VdirDocument& document, Edit edit) {
  VdirDocument draft = document;
  rivet::RivetResult<bool> result = edit(draft);
  if (result && *result) document = std::move(draft);
  return result;
}

}  // namespace

std::vector<std::string> valuesOf(const VdirContentLine& line) {
  std::vector<std::string> values;
  const std::string& value = line.value();
  std::size_t at = 0;
  for (;;) {
    std::size_t comma = value.find(',', at);
    values.push_back(value.substr(at, comma == std::string::npos ? std::string::npos : comma - at));
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  return values;
}

std::optional<VdirTime> timeOfValue(const VdirContentLine& line, std::string_view value,
                                    const VdirEditContext& context) {
  const bool isDate = value.size() == 8;
  const bool isUtc = value.size() == 16 && (value.back() == 'Z' || value.back() == 'z');
  if (!isDate && !isUtc && value.size() != 15) return std::nullopt;
  for (std::size_t at = 0; at < value.size(); ++at) {
    char c = value[at];
    bool expected = at == 8 ? (c == 'T' || c == 't') : at == 15 ? true : (c >= '0' && c <= '9');
    if (!expected) return std::nullopt;
  }
  const std::string text(value.substr(0, isUtc ? 15 : value.size()));
  VdirTime time;
  time.local = icaltime_null_time();
  time.local.year = std::stoi(text.substr(0, 4));
  time.local.month = std::stoi(text.substr(4, 2));
  time.local.day = std::stoi(text.substr(6, 2));
  if (time.local.month < 1 || time.local.month > 12 || time.local.day < 1 || time.local.day > 31) return std::nullopt;
  if (isDate) {
    time.local.is_date = 1;
    normaliseFields(time.local);
    time.kind = VdirTime::Kind::date;
    return time;
  }
  time.local.hour = std::stoi(text.substr(9, 2));
  time.local.minute = std::stoi(text.substr(11, 2));
  time.local.second = std::stoi(text.substr(13, 2));
  if (time.local.hour > 23 || time.local.minute > 59 || time.local.second > 60) return std::nullopt;
  normaliseFields(time.local);
  if (isUtc) {
    time.kind = VdirTime::Kind::utc;
  } else if (const std::string* tzid = line.parameter("TZID")) {
    time.kind = VdirTime::Kind::zoned;
    time.tzid = *tzid;
    time.zone = context.zoneFor ? context.zoneFor(*tzid) : nullptr;
  } else {
    time.kind = VdirTime::Kind::floating;
  }
  return time;
}

std::string durationValue(std::int64_t seconds) {
  std::string text = seconds < 0 ? "-P" : "P";
  // The magnitude as unsigned, so that the smallest int64 has one too.
  const std::uint64_t amount = seconds < 0 ? 0 - static_cast<std::uint64_t>(seconds) : seconds;
  if (amount > 0 && amount % 86400 == 0) return text + std::to_string(amount / 86400) + "D";
  text += "T";
  if (amount >= 3600) text += std::to_string(amount / 3600) + "H";
  if (amount % 3600 >= 60) text += std::to_string(amount % 3600 / 60) + "M";
  if (amount % 60 != 0 || amount == 0) text += std::to_string(amount % 60) + "S";
  return text;
}

std::string timeValue(const VdirTime& time) {
  char text[32];
  const icaltimetype& t = time.local;
  if (time.isDate()) {
    std::snprintf(text, sizeof text, "%04d%02d%02d", t.year, t.month, t.day);
  } else {
    std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d%s", t.year, t.month, t.day, t.hour, t.minute,
                  t.second, time.kind == VdirTime::Kind::utc ? "Z" : "");
  }
  return text;
}

VdirContentLine timeLine(const std::string& name, const VdirTime& time) {
  std::vector<VdirParameter> parameters;
  if (time.isDate()) parameters.push_back({"VALUE", {"DATE"}});
  if (time.kind == VdirTime::Kind::zoned) parameters.push_back({"TZID", {time.tzid}});
  return VdirContentLine(name, std::move(parameters), timeValue(time));
}

VdirComponent* masterOf(VdirDocument& document, const std::string& uid) {
  VdirComponent* calendar = document.calendar();
  if (!calendar) return nullptr;
  for (VdirComponent& component : calendar->components()) {
    if (isItem(component) && hasUid(component, uid) && !component.property("RECURRENCE-ID")) return &component;
  }
  return nullptr;
}

VdirComponent* overrideOf(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                          const VdirEditContext& context) {
  for (VdirComponent* override : overridesOf(document, uid)) {
    auto instant = recurrenceInstant(*override, context);
    if (instant && sameInstant(*instant, occurrence)) return override;
  }
  return nullptr;
}

void stamp(VdirComponent& component, bool movesTime, const VdirEditContext& context) {
  const std::string now = utcText(context.now);
  component.set(VdirContentLine("DTSTAMP", {}, now));
  component.set(VdirContentLine("LAST-MODIFIED", {}, now));
  if (movesTime) component.set(VdirContentLine("SEQUENCE", {}, std::to_string(sequenceOf(component) + 1)));
}

namespace {

rivet::RivetResult<bool> changeOccurrenceOn(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirItemChanges& changes, const VdirEditContext& context);

// The override standing at the first occurrence of the series `master`, if any. Without a start, or
// in a zone the store does not know, the first occurrence has no instant an override could be at.
VdirComponent* firstOverride(VdirDocument& document, const std::string& uid, const VdirComponent& master,
                             const VdirEditContext& context) {
  auto start = startOf(master, context);
  auto first = start ? instantOf(*start, context) : rivet::RivetResult<platform::Date>(start.error());
  return first ? overrideOf(document, uid, *first, context) : nullptr;
}

// A series is changed from its first occurrence: when that occurrence is an override, it shows what
// was set on it too (its other fields, and the other overrides, stay as they are).
rivet::RivetResult<bool> changeFirstOverride(VdirDocument& document, const std::string& uid,
                                             const VdirComponent& master, VdirItemChanges changes,
                                             const VdirEditContext& context) {
  VdirComponent* first = firstOverride(document, uid, master, context);
  if (!first) return false;
  changes.rule.reset();
  auto instant = recurrenceInstant(*first, context);
  return instant ? changeOccurrenceOn(document, uid, *instant, changes, context) : rivet::RivetResult<bool>(false);
}

// An item that no longer repeats is its first occurrence as it stood: an override there takes the
// master's place, since few readers apply an override to an item without repeats.
void foldFirstOverride(VdirDocument& document, const std::string& uid, const VdirEditContext& context) {
  VdirComponent* master = masterOf(document, uid);
  VdirComponent* first = master ? firstOverride(document, uid, *master, context) : nullptr;
  if (!first) return;
  VdirComponent folded = *first;
  folded.remove("RECURRENCE-ID");
  folded.set(VdirContentLine("SEQUENCE", {}, std::to_string(std::max(sequenceOf(*master), sequenceOf(folded)))));
  *master = std::move(folded);
  stamp(*master, false, context);
  document.calendar()->removeComponents([&](const VdirComponent& component) { return &component == first; });
}

rivet::RivetResult<bool> changeSeriesOn(VdirDocument& document, const std::string& uid, const VdirItemChanges& changes,
                                      const VdirEditContext& context) {
  auto master = requireMaster(document, uid);
  if (!master) return master.error();
  VdirComponent& item = **master;
  const auto lengthBefore = changes.start ? lengthOf(item, context) : std::nullopt;
  auto fields = applyFields(item, changes);
  if (!fields) return fields.error();
  bool changed = *fields, movedTime = false;
  if (changes.start) {
    const VdirContentLine* line = item.property("DTSTART");
    auto from = line ? timeOfValue(*line, line->value(), context) : std::nullopt;
    if (line && !from) return editError("the item's start cannot be read: " + line->value(), "changeSeries", __LINE__);
    auto moveResult = from ? moveStart(item, *from, *changes.start, changes, context)
                           : rivet::RivetResult<bool>(item.set(timeLine("DTSTART", *changes.start)));
    if (!moveResult) return moveResult.error();
    if (*moveResult && from) {
      auto occurrences = moveOccurrences(document, uid, item, *from, *changes.start, lengthBefore, context);
      if (!occurrences) return occurrences.error();
      if (auto until = moveUntil(item, *from, *changes.start, context); !until) return until.error();
    }
    changed |= *moveResult;
    movedTime = *moveResult;
  }
  movedTime |= changed && (changes.end || changes.due);
  if (changes.rule) {
    auto rule = setRule(item, *changes.rule, context);
    if (!rule) return rule.error();
    changed |= *rule;
    movedTime |= *rule;
    if (*rule) dropDetachedOverrides(document, uid, item, context);
  }
  if (changed) {
    if (movedTime) {
      if (auto span = checkSpan(item, context); !span) return span.error();
    }
    stamp(item, movedTime, context);
    // Only a raised SEQUENCE is carried to the overrides: a title leaves theirs as they are.
    if (movedTime) alignSequences(document, uid, item);
  }
  auto first = changeFirstOverride(document, uid, item, changes, context);
  if (!first) return first.error();
  // Only the override at the start is left once every repeat is gone (see dropDetachedOverrides).
  if (changes.rule && changes.rule->empty()) foldFirstOverride(document, uid, context);
  return changed || *first;
}

// The THISANDFUTURE override of `uid` that governs `occurrence` (the latest before it), if any.
VdirComponent* governingRange(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                              const VdirEditContext& context) {
  VdirComponent* found = nullptr;
  std::optional<platform::Date> foundAt;
  for (VdirComponent* override : overridesOf(document, uid)) {
    const std::string* range = override->property("RECURRENCE-ID")->parameter("RANGE");
    if (!range || !sameName(*range, "THISANDFUTURE")) continue;
    auto at = recurrenceInstant(*override, context);
    if (at && *at < occurrence && (!foundAt || *at > *foundAt)) found = override, foundAt = at;
  }
  return found;
}

// A new override at `at` (in the series' form): a copy of the master, or of the THISANDFUTURE
// override that governs the occurrence, moved as that override moved its own.
rivet::RivetResult<VdirComponent> newOverride(VdirDocument& document, const std::string& uid,
                                              const VdirComponent& master, const VdirTime& at,
                                              platform::Date occurrence, const VdirEditContext& context) {
  const VdirComponent* range = governingRange(document, uid, occurrence, context);
  VdirComponent item = range ? *range : master;
  for (const char* name : {"RRULE", "RDATE", "EXDATE", "EXRULE"}) item.remove(name);
  auto from = startOf(item, context);
  if (!from) return from.error();
  VdirTime start = at;
  if (range) {
    auto rangeAt = recurrenceInstant(*range, context);
    auto rangeStart = instantOf(*from, context);
    if (!rangeAt || !rangeStart) return editError("a RECURRENCE-ID cannot be read", "newOverride", __LINE__);
    // The move, on the series' wall clock, as the reader applies it.
    const std::int64_t shift = fieldSeconds(timeLike(*rangeStart, at, *context.clock).local) -
                               fieldSeconds(timeLike(*rangeAt, at, *context.clock).local);
    start.local = fieldsAt(fieldSeconds(at.local) + shift, at.isDate());
  }
  auto moved = moveStart(item, *from, start, {}, context);
  if (!moved) return moved.error();
  item.set(timeLine("RECURRENCE-ID", at));
  return item;
}

rivet::RivetResult<bool> changeOccurrenceOn(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirItemChanges& changes, const VdirEditContext& context) {
  if (changes.rule)
    return editError("a repeat rule belongs to the whole series, not to one occurrence", "changeOccurrence", __LINE__);
  auto master = requireMaster(document, uid);
  if (!master) return master.error();
  auto seriesStart = startOf(**master, context);
  if (!seriesStart) return seriesStart.error();
  VdirComponent* existing = overrideOf(document, uid, occurrence, context);
  auto made = existing ? rivet::RivetResult<VdirComponent>(*existing)
                       : newOverride(document, uid, **master, timeLike(occurrence, *seriesStart, *context.clock),
                                     occurrence, context);
  if (!made) return made.error();
  VdirComponent item = std::move(made).value();
  auto fields = applyFields(item, changes);
  if (!fields) return fields.error();
  bool changed = *fields;
  if (changes.start) {
    auto from = startOf(item, context);
    if (!from) return from.error();
    auto moved = moveStart(item, *from, *changes.start, changes, context);
    if (!moved) return moved.error();
    changed |= *moved;
  }
  if (!changed) return false;
  if (changes.movesTime()) {
    if (auto span = checkSpan(item, context); !span) return span.error();
  }
  stamp(item, changes.movesTime(), context);
  if (sequenceOf(item) < sequenceOf(**master))
    item.set(VdirContentLine("SEQUENCE", {}, std::to_string(sequenceOf(**master))));
  if (existing) {
    *existing = std::move(item);
  } else {
    document.calendar()->addComponent(std::move(item));
  }
  return true;
}

rivet::RivetResult<bool> removeOccurrenceOn(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirEditContext& context) {
  auto master = requireMaster(document, uid);
  if (!master) return master.error();
  VdirComponent& item = **master;
  auto seriesStart = startOf(item, context);
  if (!seriesStart) return seriesStart.error();
  const bool excluded = statesInstant(item, "EXDATE", occurrence, context);
  std::size_t overrides = document.calendar()->removeComponents([&](const VdirComponent& component) {
    if (!isItem(component) || !hasUid(component, uid)) return false;
    auto instant = recurrenceInstant(component, context);
    return instant && sameInstant(*instant, occurrence);
  });
  if (excluded && overrides == 0) return false;
  if (!excluded) item.add(timeLine("EXDATE", timeLike(occurrence, *seriesStart, *context.clock)));
  stamp(item, true, context);
  alignSequences(document, uid, item);
  return true;
}

rivet::RivetResult<bool> endSeriesBeforeOn(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                         const VdirEditContext& context) {
  auto master = requireMaster(document, uid);
  if (!master) return master.error();
  VdirComponent& item = **master;
  auto seriesStart = startOf(item, context);
  if (!seriesStart) return seriesStart.error();
  auto first = instantOf(*seriesStart, context);
  if (!first) return first.error();
  if (occurrence.timeIntervalSince(*first) <= 0)
    return editError("the series starts with this occurrence: remove the whole series instead", "endSeriesBefore",
                     __LINE__);
  // RFC 5545: UNTIL is a DATE for an all-day series, floating for a floating one, else in UTC.
  std::string until;
  if (seriesStart->isDate()) {
    VdirTime day = timeLike(occurrence, *seriesStart, *context.clock);
    day.local = fieldsAt(fieldSeconds(day.local) - 86400, true);
    until = timeValue(day);
  } else {
    VdirTime last = seriesStart->kind == VdirTime::Kind::floating ? *seriesStart : VdirTime{};
    if (seriesStart->kind != VdirTime::Kind::floating) last.kind = VdirTime::Kind::utc;
    until = timeValue(timeLike(platform::Date(occurrence.timeIntervalSinceReferenceDate() - 1), last, *context.clock));
  }
  std::vector<VdirContentLine> rules;
  for (const VdirContentLine* line : item.properties("RRULE")) {
    VdirContentLine rule = *line;
    rule.setValue(ruleWithoutEnd(line->value()) + ";UNTIL=" + until);
    rules.push_back(std::move(rule));
  }
  bool changed = false;
  if (!rules.empty()) {
    item.remove("RRULE");
    for (const VdirContentLine& rule : rules) item.add(rule);
    changed = true;
  }
  auto earlier = keepTimesOneSide(item, occurrence, false, *seriesStart, context);
  if (!earlier) return earlier.error();
  changed |= *earlier;
  changed |= document.calendar()->removeComponents([&](const VdirComponent& component) {
    if (!isItem(component) || !hasUid(component, uid)) return false;
    auto instant = recurrenceInstant(component, context);
    return instant && instant->timeIntervalSince(occurrence) >= 0;
  }) > 0;
  if (!changed) return false;
  stamp(item, true, context);
  alignSequences(document, uid, item);
  return true;
}

}  // namespace

std::size_t removeItem(VdirDocument& document, const std::string& uid) {
  std::size_t removed = 0;
  for (VdirComponent& calendar : document.components()) {
    if (calendar.name() != "VCALENDAR") continue;
    removed += calendar.removeComponents(
        [&](const VdirComponent& component) { return isItem(component) && hasUid(component, uid); });
  }
  return removed;
}

bool holdsItems(const VdirDocument& document) {
  for (const VdirComponent& calendar : document.components()) {
    if (calendar.name() != "VCALENDAR") continue;
    if (std::any_of(calendar.components().begin(), calendar.components().end(), isItem)) return true;
  }
  return false;
}

namespace {

rivet::RivetResult<bool> setCompletedOn(VdirDocument& document, const std::string& uid, bool completed,
                                      const VdirEditContext& context) {
  auto master = requireMaster(document, uid);
  if (!master) return master.error();
  VdirComponent& item = **master;
  if (item.name() != "VTODO") return editError("only a to-do can be completed", "setCompleted", __LINE__);
  const VdirContentLine* status = item.property("STATUS");
  const bool isCompleted = status && sameName(status->value(), "COMPLETED");
  if (isCompleted == completed && (!completed || item.property("COMPLETED"))) return false;
  if (completed) {
    item.set(VdirContentLine("STATUS", {}, "COMPLETED"));
    item.set(VdirContentLine("COMPLETED", {}, utcText(context.now)));
    item.set(VdirContentLine("PERCENT-COMPLETE", {}, "100"));
  } else {
    item.set(VdirContentLine("STATUS", {}, "NEEDS-ACTION"));
    item.remove("COMPLETED");
    item.remove("PERCENT-COMPLETE");
  }
  stamp(item, false, context);
  return true;
}

}  // namespace

rivet::RivetResult<bool> changeSeries(VdirDocument& document, const std::string& uid, const VdirItemChanges& changes,
                                      const VdirEditContext& context) {
  return onDraft(document, [&](VdirDocument& draft) { return changeSeriesOn(draft, uid, changes, context); });
}

rivet::RivetResult<bool> changeOccurrence(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirItemChanges& changes, const VdirEditContext& context) {
  return onDraft(document,
                 [&](VdirDocument& draft) { return changeOccurrenceOn(draft, uid, occurrence, changes, context); });
}

rivet::RivetResult<bool> removeOccurrence(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                          const VdirEditContext& context) {
  return onDraft(document, [&](VdirDocument& draft) { return removeOccurrenceOn(draft, uid, occurrence, context); });
}

rivet::RivetResult<bool> endSeriesBefore(VdirDocument& document, const std::string& uid, platform::Date occurrence,
                                         const VdirEditContext& context) {
  return onDraft(document, [&](VdirDocument& draft) { return endSeriesBeforeOn(draft, uid, occurrence, context); });
}

rivet::RivetResult<bool> setCompleted(VdirDocument& document, const std::string& uid, bool completed,
                                      const VdirEditContext& context) {
  return onDraft(document, [&](VdirDocument& draft) { return setCompletedOn(draft, uid, completed, context); });
}

namespace {

// The first part of a split: the future series as a new master, without the document around it.
rivet::RivetResult<VdirComponent> futureMaster(const VdirComponent& master, const VdirTime& seriesStart,
                                               platform::Date occurrence, const std::string& newUid,
                                               const VdirEditContext& context) {
  VdirComponent future = master;
  future.set(VdirContentLine("UID", {}, escapedText(newUid)));
  const VdirTime at = timeLike(occurrence, seriesStart, *context.clock);
  auto moved = moveStart(future, seriesStart, at, {}, context);
  if (!moved) return moved.error();
  std::vector<VdirContentLine> rules;
  for (const VdirContentLine* line : future.properties("RRULE")) {
    VdirContentLine rule = *line;
    icalrecurrencetype parsed = icalrecurrencetype_from_string(line->value().c_str());
    if (parsed.count > 0) {
      auto before = instancesBefore(*line, seriesStart, occurrence, parsed.count, context);
      if (!before) return before.error();
      if (*before >= parsed.count) return editError("the series has no occurrence left to change", "splitSeries",
                                                    __LINE__);
      rule.setValue(ruleWithoutEnd(line->value()) + ";COUNT=" + std::to_string(parsed.count - *before));
    }
    rules.push_back(std::move(rule));
  }
  future.remove("RRULE");
  for (const VdirContentLine& rule : rules) future.add(rule);
  if (auto later = keepTimesOneSide(future, occurrence, true, seriesStart, context); !later) return later.error();
  const std::string now = utcText(context.now);
  future.set(VdirContentLine("CREATED", {}, now));
  future.set(VdirContentLine("SEQUENCE", {}, "0"));
  stamp(future, false, context);
  return future;
}

rivet::RivetResult<VdirDocument> splitSeriesOn(VdirDocument& document, const std::string& uid,
                                               platform::Date occurrence, const std::string& newUid,
                                               const VdirItemChanges& changes, const VdirEditContext& context) {
  auto master = requireMaster(document, uid);
  if (!master) return master.error();
  auto seriesStart = startOf(**master, context);
  if (!seriesStart) return seriesStart.error();
  auto future = futureMaster(**master, *seriesStart, occurrence, newUid, context);
  if (!future) return future.error();

  auto made = VdirDocument::parse("BEGIN:VCALENDAR" + document.lineEnd() + "END:VCALENDAR" + document.lineEnd());
  if (!made) return made.error();
  VdirDocument result = std::move(made).value();
  VdirComponent& calendar = *result.calendar();
  calendar.add(VdirContentLine("VERSION", {}, "2.0"));
  calendar.add(VdirContentLine("PRODID", {}, kVdirProductIdentifier));
  const std::vector<std::string> tzids = zonesUsedBy(*future);
  for (const VdirComponent& component : document.calendar()->components()) {
    const VdirContentLine* tzid = component.property("TZID");
    if (component.name() == "VTIMEZONE" && tzid &&
        std::find(tzids.begin(), tzids.end(), tzid->value()) != tzids.end())
      calendar.addComponent(component);
  }
  calendar.addComponent(std::move(*future));
  for (VdirComponent* override : overridesOf(document, uid)) {
    auto instant = recurrenceInstant(*override, context);
    if (!instant || instant->timeIntervalSince(occurrence) < 0) continue;
    VdirComponent moved = *override;
    moved.set(VdirContentLine("UID", {}, escapedText(newUid)));
    moved.set(VdirContentLine("SEQUENCE", {}, "0"));
    calendar.addComponent(std::move(moved));
  }
  auto ended = endSeriesBeforeOn(document, uid, occurrence, context);
  if (!ended) return ended.error();
  auto changed = changeSeriesOn(result, newUid, changes, context);
  if (!changed) return changed.error();
  return result;
}

}  // namespace

rivet::RivetResult<VdirDocument> splitSeries(VdirDocument& document, const std::string& uid,
                                             platform::Date occurrence, const std::string& newUid,
                                             const VdirItemChanges& changes, const VdirEditContext& context) {
  VdirDocument draft = document;
  auto future = splitSeriesOn(draft, uid, occurrence, newUid, changes, context);
  if (future) document = std::move(draft);
  return future;
}

rivet::RivetResult<VdirComponent> newItem(const std::string& componentName, const std::string& uid,
                                          const VdirItemChanges& changes, const VdirEditContext& context) {
  const bool isEvent = componentName == "VEVENT";
  if (!isEvent && componentName != "VTODO")
    return editError("an item is a VEVENT or a VTODO, not " + componentName, "newItem", __LINE__);
  if (!changes.title) return editError("a new item needs a title", "newItem", __LINE__);
  if (isEvent && !changes.start) return editError("a new event needs a start", "newItem", __LINE__);
  VdirComponent item(componentName);
  item.add(VdirContentLine("UID", {}, escapedText(uid)));
  const std::string now = utcText(context.now);
  item.add(VdirContentLine("DTSTAMP", {}, now));
  item.add(VdirContentLine("CREATED", {}, now));
  item.add(VdirContentLine("LAST-MODIFIED", {}, now));
  item.add(VdirContentLine("SEQUENCE", {}, "0"));
  if (changes.start) item.add(timeLine("DTSTART", *changes.start));
  auto fields = applyFields(item, changes);
  if (!fields) return fields.error();
  if (changes.rule)
    if (auto rule = setRule(item, *changes.rule, context); !rule) return rule.error();
  if (!isEvent) item.set(VdirContentLine("STATUS", {}, "NEEDS-ACTION"));
  if (auto span = checkSpan(item, context); !span) return span.error();
  return item;
}

rivet::RivetResult<VdirDocument> newItemDocument(const VdirComponent& item, const VdirZoneSource& zones) {
  auto made = VdirDocument::parse("BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n");
  if (!made) return made.error();
  VdirDocument document = std::move(made).value();
  VdirComponent& calendar = *document.calendar();
  calendar.add(VdirContentLine("VERSION", {}, "2.0"));
  calendar.add(VdirContentLine("PRODID", {}, kVdirProductIdentifier));
  if (auto defined = defineZones(document, zonesUsedBy(item), zones); !defined) return defined.error();
  calendar.addComponent(item);
  return document;
}

std::vector<std::string> undefinedZones(const VdirDocument& document, const std::vector<std::string>& except) {
  const VdirComponent* calendar = document.calendar();
  if (!calendar) return {};
  std::set<std::string> defined;
  for (const VdirComponent& component : calendar->components())
    if (const VdirContentLine* tzid = component.property("TZID"); component.name() == "VTIMEZONE" && tzid)
      defined.insert(tzid->value());
  std::vector<std::string> undefined;
  for (const VdirComponent& component : calendar->components()) {
    if (component.name() == "VTIMEZONE") continue;
    for (const std::string& tzid : zonesUsedBy(component))
      if (!defined.count(tzid) && std::find(undefined.begin(), undefined.end(), tzid) == undefined.end() &&
          std::find(except.begin(), except.end(), tzid) == except.end())
        undefined.push_back(tzid);
  }
  return undefined;
}

namespace {

// The VTIMEZONE `zones` gives for `tzid`, in `lineEnd`; nothing when it gives none that parses.
std::optional<VdirComponent> zoneDefinition(const std::string& tzid, const VdirZoneSource& zones,
                                            const std::string& lineEnd) {
  std::optional<std::string> definition = zones ? zones(tzid) : std::nullopt;
  if (!definition) return std::nullopt;
  auto parsed = VdirDocument::parse(withLineEnd(*definition, lineEnd));
  if (!parsed || parsed->components().size() != 1 || parsed->components()[0].name() != "VTIMEZONE")
    return std::nullopt;
  return parsed->components()[0];
}

}  // namespace

rivet::RivetResult<void> defineZones(VdirDocument& document, const std::vector<std::string>& tzids,
                                     const VdirZoneSource& zones) {
  std::vector<VdirComponent> definitions;
  for (const std::string& tzid : tzids) {
    auto definition = zoneDefinition(tzid, zones, document.lineEnd());
    if (!definition) return editError("unknown time zone \"" + tzid + "\"", "defineZones", __LINE__);
    definitions.push_back(std::move(*definition));
  }
  for (VdirComponent& zone : definitions) document.calendar()->addComponent(std::move(zone));
  return rivet::RivetResultVoidSuccess;
}

void defineKnownZones(VdirDocument& document, const std::vector<std::string>& tzids, const VdirZoneSource& zones) {
  for (const std::string& tzid : tzids)
    if (auto definition = zoneDefinition(tzid, zones, document.lineEnd()))
      document.calendar()->addComponent(std::move(*definition));
}

}  // namespace vesp::vdir
