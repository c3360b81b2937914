#include "platforms/vdir/VdirItem.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>

#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirOutline.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {

const char* description(VdirDiagnostic::Action action) {
  switch (action) {
    case VdirDiagnostic::Action::skipped: return "skipped";
    case VdirDiagnostic::Action::repaired: return "repaired";
    case VdirDiagnostic::Action::truncated: return "truncated";
  }
  return "unknown";
}

VdirDetails::VdirDetails(std::string encoded, Decode decode) : state_(std::make_shared<State>()) {
  state_->encoded = std::move(encoded);
  state_->decode = decode;
}

const VdirComponentDetails& VdirDetails::operator*() const {
  static const VdirComponentDetails none;
  if (!state_) return none;
  if (state_->decode) {
    State& state = *state_;
    std::call_once(state.once, [&state] {
      state.details = std::make_unique<VdirComponentDetails>(state.decode(state.encoded));
    });
  }
  return *state_->details;
}

VdirComponentDetails& VdirDetails::edit() {
  if (!state_ || state_->decode || state_.use_count() > 1) {
    auto own = std::make_shared<State>();
    own->details = std::make_unique<VdirComponentDetails>(**this);
    state_ = std::move(own);
  }
  return *state_->details;
}

// Filters that match no day: BYDAY=1SU in a MINUTELY rule, BYMONTH=2;BYMONTHDAY=30.
const char* unservableRule(const icalrecurrencetype& rule, const VdirTime& start) {
  auto has = [](const short* values) { return values[0] != ICAL_RECURRENCE_ARRAY_MAX; };
  bool ordinalDays = false;
  for (int i = 0; i < ICAL_BY_DAY_SIZE && rule.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i)
    if (icalrecurrencetype_day_position(rule.by_day[i]) != 0) ordinalDays = true;
  const auto freq = rule.freq;
  if (ordinalDays && freq != ICAL_MONTHLY_RECURRENCE && freq != ICAL_YEARLY_RECURRENCE)
    return "numbers its BYDAY days outside a monthly or yearly rule";
  if (has(rule.by_week_no) && freq != ICAL_YEARLY_RECURRENCE) return "has BYWEEKNO outside a yearly rule";
  if (has(rule.by_year_day) &&
      (freq == ICAL_DAILY_RECURRENCE || freq == ICAL_WEEKLY_RECURRENCE || freq == ICAL_MONTHLY_RECURRENCE))
    return "has BYYEARDAY in a daily, weekly or monthly rule";
  if (has(rule.by_month_day) && freq == ICAL_WEEKLY_RECURRENCE) return "has BYMONTHDAY in a weekly rule";
  if (freq != ICAL_SECONDLY_RECURRENCE && freq != ICAL_MINUTELY_RECURRENCE && freq != ICAL_HOURLY_RECURRENCE) return nullptr;
  // libical never leaves the first day of a sub-daily rule whose DTSTART is a date.
  if (start.isDate()) return "repeats within a day but starts on a date";
  if (!has(rule.by_month) && !has(rule.by_month_day) && !has(rule.by_year_day) && !has(rule.by_day)) return nullptr;
  if (rule.rscale && std::string_view(rule.rscale) != "GREGORIAN" && std::string_view(rule.rscale) != "gregorian")
    return nullptr;
  // The Gregorian calendar repeats every 400 years: look for one day that passes the filters.
  auto listed = [](const short* values, int size, int value, int fromEnd) {
    if (values[0] == ICAL_RECURRENCE_ARRAY_MAX) return true;
    for (int i = 0; i < size && values[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i)
      if (values[i] == value || values[i] == fromEnd) return true;
    return false;
  };
  int year = std::max(1, start.local.year);
  for (int y = year; y < year + 400; ++y) {
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    const int yearDays = leap ? 366 : 365;
    int yearDay = 0;
    for (int month = 1; month <= 12; ++month) {
      const int monthDays = icaltime_days_in_month(month, y);
      for (int day = 1; day <= monthDays; ++day) {
        ++yearDay;
        if (!listed(rule.by_month, ICAL_BY_MONTH_SIZE, month, month) ||
            !listed(rule.by_month_day, ICAL_BY_MONTHDAY_SIZE, day, day - monthDays - 1) ||
            !listed(rule.by_year_day, ICAL_BY_YEARDAY_SIZE, yearDay, yearDay - yearDays - 1))
          continue;
        if (has(rule.by_day)) {
          const long long days = static_cast<long long>(std::floor(civilSecondsSince1970(y, month, day, 0, 0, 0) / 86400.0));
          const int weekday = static_cast<int>(((days % 7) + 7 + 4) % 7) + 1;  // 1 = Sunday
          bool any = false;
          for (int i = 0; i < ICAL_BY_DAY_SIZE && rule.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i)
            if (icalrecurrencetype_day_day_of_week(rule.by_day[i]) == weekday) any = true;
          if (!any) continue;
        }
        return nullptr;
      }
    }
  }
  return "matches no day";
}

namespace {

// libical's BY lists with their sizes, in the struct's order.
template <typename Rule, typename Visit>
void forEachList(Rule& rule, Visit&& visit) {
  visit(rule.by_second, ICAL_BY_SECOND_SIZE);
  visit(rule.by_minute, ICAL_BY_MINUTE_SIZE);
  visit(rule.by_hour, ICAL_BY_HOUR_SIZE);
  visit(rule.by_day, ICAL_BY_DAY_SIZE);
  visit(rule.by_month_day, ICAL_BY_MONTHDAY_SIZE);
  visit(rule.by_year_day, ICAL_BY_YEARDAY_SIZE);
  visit(rule.by_week_no, ICAL_BY_WEEKNO_SIZE);
  visit(rule.by_month, ICAL_BY_MONTH_SIZE);
  visit(rule.by_set_pos, ICAL_BY_SETPOS_SIZE);
}

}  // namespace

VdirCompactRule::VdirCompactRule(const icalrecurrencetype& rule)
    : frequency_(rule.freq),
      until_(rule.until),
      count_(rule.count),
      interval_(rule.interval),
      weekStart_(rule.week_start),
      skip_(rule.skip),
      rscale_(rule.rscale ? rule.rscale : "") {
  forEachList(rule, [&](const short* values, int size) {
    int length = 0;
    while (length < size && values[length] != ICAL_RECURRENCE_ARRAY_MAX) ++length;
    lists_.push_back(static_cast<short>(length));
    lists_.insert(lists_.end(), values, values + length);
  });
  lists_.shrink_to_fit();
}

icalrecurrencetype VdirCompactRule::expanded() const {
  icalrecurrencetype rule;
  icalrecurrencetype_clear(&rule);
  rule.freq = frequency_;
  rule.until = until_;
  rule.count = count_;
  rule.interval = interval_;
  rule.week_start = weekStart_;
  rule.skip = skip_;
  rule.rscale = rscale_.empty() ? nullptr : const_cast<char*>(rscale_.c_str());
  int which = 0;  // forEachList visits the lists in the order of List
  forEachList(rule, [&](short* values, int size) {
    const auto kept = list(static_cast<List>(which++));
    const int length = std::min<int>(static_cast<int>(kept.size()), size);
    std::copy_n(kept.begin(), length, values);
    if (length < size) values[length] = ICAL_RECURRENCE_ARRAY_MAX;
  });
  return rule;
}

std::span<const short> VdirCompactRule::list(List which) const {
  std::size_t at = 0;
  for (auto skipped = static_cast<int>(which); skipped > 0 && at < lists_.size(); --skipped)
    at += 1 + static_cast<std::size_t>(lists_[at]);
  if (at >= lists_.size()) return {};
  return std::span<const short>(lists_).subspan(at + 1, static_cast<std::size_t>(lists_[at]));
}

namespace {

// libical's values as the platform's, one mapping each.

platform::EKParticipantRole roleFromIcal(icalparameter_role role) {
  switch (role) {
    case ICAL_ROLE_CHAIR: return platform::EKParticipantRoleChair;
    case ICAL_ROLE_REQPARTICIPANT: return platform::EKParticipantRoleRequired;
    case ICAL_ROLE_OPTPARTICIPANT: return platform::EKParticipantRoleOptional;
    case ICAL_ROLE_NONPARTICIPANT: return platform::EKParticipantRoleNonParticipant;
    default: return platform::EKParticipantRoleUnknown;
  }
}

platform::EKParticipantStatus participantStatusFromIcal(icalparameter_partstat status) {
  switch (status) {
    case ICAL_PARTSTAT_NEEDSACTION: return platform::EKParticipantStatusPending;
    case ICAL_PARTSTAT_ACCEPTED: return platform::EKParticipantStatusAccepted;
    case ICAL_PARTSTAT_DECLINED: return platform::EKParticipantStatusDeclined;
    case ICAL_PARTSTAT_TENTATIVE: return platform::EKParticipantStatusTentative;
    case ICAL_PARTSTAT_DELEGATED: return platform::EKParticipantStatusDelegated;
    case ICAL_PARTSTAT_COMPLETED: return platform::EKParticipantStatusCompleted;
    case ICAL_PARTSTAT_INPROCESS: return platform::EKParticipantStatusInProcess;
    default: return platform::EKParticipantStatusUnknown;
  }
}

platform::EKParticipantType participantTypeFromIcal(icalparameter_cutype type) {
  switch (type) {
    case ICAL_CUTYPE_INDIVIDUAL: return platform::EKParticipantTypePerson;
    case ICAL_CUTYPE_ROOM: return platform::EKParticipantTypeRoom;
    case ICAL_CUTYPE_RESOURCE: return platform::EKParticipantTypeResource;
    case ICAL_CUTYPE_GROUP: return platform::EKParticipantTypeGroup;
    default: return platform::EKParticipantTypeUnknown;
  }
}

platform::EKAlarmType alarmTypeFromIcal(icalproperty_action action) {
  switch (action) {
    case ICAL_ACTION_AUDIO: return platform::EKAlarmTypeAudio;
    case ICAL_ACTION_PROCEDURE: return platform::EKAlarmTypeProcedure;
    case ICAL_ACTION_EMAIL: return platform::EKAlarmTypeEmail;
    default: return platform::EKAlarmTypeDisplay;
  }
}

platform::EKEventStatus eventStatusFromIcal(icalproperty_status status) {
  switch (status) {
    case ICAL_STATUS_CONFIRMED: return platform::EKEventStatusConfirmed;
    case ICAL_STATUS_TENTATIVE: return platform::EKEventStatusTentative;
    case ICAL_STATUS_CANCELLED: return platform::EKEventStatusCanceled;
    default: return platform::EKEventStatusNone;
  }
}

// Owns a parsed component tree.
struct ComponentHolder {
  icalcomponent* component = nullptr;
  ~ComponentHolder() {
    if (component) icalcomponent_free(component);
  }
};

std::string takeString(char* text) {
  std::string result = text ? text : "";
  std::free(text);
  return result;
}

std::optional<std::string> parameter(icalproperty* property, const char* name) {
  char* text = icalproperty_get_parameter_as_string_r(property, name);
  if (!text) return std::nullopt;
  return takeString(text);
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// libical's unescaping works on bytes: a backslash before a multi-byte character takes the
// character's first byte with it. Every text read from it is therefore made valid again.
void keepUtf8(std::string& text) {
  if (!isValidUtf8(text)) text = validUtf8(text);
}
void keepUtf8(std::optional<std::string>& text) {
  if (text) keepUtf8(*text);
}
void keepUtf8(VdirParticipantData& participant) {
  keepUtf8(participant.name);
  keepUtf8(participant.address);
}
void keepUtf8(std::shared_ptr<const VdirParticipantData>& participant) {
  if (!participant || (isValidUtf8(participant->address) && (!participant->name || isValidUtf8(*participant->name))))
    return;
  auto copy = std::make_shared<VdirParticipantData>(*participant);
  keepUtf8(*copy);
  participant = std::move(copy);
}
void keepUtf8(const std::shared_ptr<const VdirLocationData>& location, std::shared_ptr<const VdirLocationData>& out) {
  if (!location || !location->title || isValidUtf8(*location->title)) return;
  auto copy = std::make_shared<VdirLocationData>(*location);
  keepUtf8(copy->title);
  out = copy;
}
void keepUtf8(VdirComponentData& data) {
  keepUtf8(data.uid);
  VdirComponentDetails& details = data.details.edit();
  for (auto* text : {&details.summary, &details.description, &details.location, &details.url, &details.timeZoneName})
    keepUtf8(*text);
  for (auto& attendee : details.attendees) keepUtf8(attendee);
  keepUtf8(details.organizer);
  keepUtf8(details.structuredLocation, details.structuredLocation);
  for (auto& alarm : details.alarms) keepUtf8(alarm.location, alarm.location);
}

// The properties of one component, gathered in one pass over them: the first of each kind that
// is read once, every one (in file order) of the kinds that repeat.
struct Properties {
  icalproperty* uid = nullptr;
  icalproperty* summary = nullptr;
  icalproperty* description = nullptr;
  icalproperty* location = nullptr;
  icalproperty* url = nullptr;
  icalproperty* created = nullptr;
  icalproperty* lastModified = nullptr;
  icalproperty* organizer = nullptr;
  icalproperty* geo = nullptr;
  icalproperty* start = nullptr;
  icalproperty* end = nullptr;
  icalproperty* duration = nullptr;
  icalproperty* status = nullptr;
  icalproperty* transparency = nullptr;
  icalproperty* recurrenceId = nullptr;
  icalproperty* due = nullptr;
  icalproperty* completed = nullptr;
  icalproperty* priority = nullptr;
  icalproperty* trigger = nullptr;
  icalproperty* action = nullptr;
  std::vector<icalproperty*> attendees, rules, exclusionRules, rdates, exdates, extensions;
};

Properties gather(icalcomponent* component) {
  Properties found;
  auto first = [](icalproperty*& slot, icalproperty* property) {
    if (!slot) slot = property;
  };
  for (icalproperty* p = icalcomponent_get_first_property(component, ICAL_ANY_PROPERTY); p;
       p = icalcomponent_get_next_property(component, ICAL_ANY_PROPERTY)) {
    switch (icalproperty_isa(p)) {
      case ICAL_UID_PROPERTY: first(found.uid, p); break;
      case ICAL_SUMMARY_PROPERTY: first(found.summary, p); break;
      case ICAL_DESCRIPTION_PROPERTY: first(found.description, p); break;
      case ICAL_LOCATION_PROPERTY: first(found.location, p); break;
      case ICAL_URL_PROPERTY: first(found.url, p); break;
      case ICAL_CREATED_PROPERTY: first(found.created, p); break;
      case ICAL_LASTMODIFIED_PROPERTY: first(found.lastModified, p); break;
      case ICAL_ORGANIZER_PROPERTY: first(found.organizer, p); break;
      case ICAL_GEO_PROPERTY: first(found.geo, p); break;
      case ICAL_DTSTART_PROPERTY: first(found.start, p); break;
      case ICAL_DTEND_PROPERTY: first(found.end, p); break;
      case ICAL_DURATION_PROPERTY: first(found.duration, p); break;
      case ICAL_STATUS_PROPERTY: first(found.status, p); break;
      case ICAL_TRANSP_PROPERTY: first(found.transparency, p); break;
      case ICAL_RECURRENCEID_PROPERTY: first(found.recurrenceId, p); break;
      case ICAL_DUE_PROPERTY: first(found.due, p); break;
      case ICAL_COMPLETED_PROPERTY: first(found.completed, p); break;
      case ICAL_PRIORITY_PROPERTY: first(found.priority, p); break;
      case ICAL_TRIGGER_PROPERTY: first(found.trigger, p); break;
      case ICAL_ACTION_PROPERTY: first(found.action, p); break;
      case ICAL_ATTENDEE_PROPERTY: found.attendees.push_back(p); break;
      case ICAL_RRULE_PROPERTY: found.rules.push_back(p); break;
      case ICAL_EXRULE_PROPERTY: found.exclusionRules.push_back(p); break;
      case ICAL_RDATE_PROPERTY: found.rdates.push_back(p); break;
      case ICAL_EXDATE_PROPERTY: found.exdates.push_back(p); break;
      case ICAL_X_PROPERTY: found.extensions.push_back(p); break;
      default: break;
    }
  }
  return found;
}

// Reads files one at a time; collects what it had to skip or repair.
class Reader {
 public:
  Reader(const std::string& relativePath, const VdirParseContext& context, std::vector<VdirDiagnostic>& diagnostics)
      : path_(relativePath), context_(context), diagnostics_(diagnostics) {}

  void report(VdirDiagnostic::Action action, std::string problem) {
    if (!isValidUtf8(problem)) problem = validUtf8(problem);
    // Problems quote the file; keep a quote of a huge line short.
    if (problem.size() > 240) {
      std::size_t cut = 200;
      // Cut between characters, never inside one.
      while (cut > 0 && (static_cast<unsigned char>(problem[cut]) & 0xC0) == 0x80) --cut;
      problem = problem.substr(0, cut) + "... (" + std::to_string(problem.size()) + " bytes)";
    }
    VdirDiagnostic diagnostic{path_, action, std::move(problem)};
    if (std::find(diagnostics_.begin(), diagnostics_.end(), diagnostic) == diagnostics_.end())
      diagnostics_.push_back(std::move(diagnostic));
  }

  // Keeps `text` (the file's text repaired) for as long as the reader lives, and returns it.
  const std::string& keepRepairedText(std::string text) {
    repairedText_ = std::move(text);
    return repairedText_;
  }

  // The text to hand to the parser: `text`, or `cut` made from it without what earlier files
  // wrote word for word and what parsed cleanly there (see VdirOutline.h). Each zone definition
  // the file writes plainly is found by its text (its zone's key, so the parsed definition need
  // not be serialised again; that cost as much as the rest of the file); one known to parse cleanly
  // gives its zone at once. `text` must live as long as the reader: the file's own text, or the
  // reader's repaired one.
  const std::string& withoutKnownParts(const std::string& text, std::string& cut) {
    outline_ = outlineOf(text);
    std::vector<std::pair<std::size_t, std::size_t>> known;  // spans left out
    for (const VdirWrittenZone& zone : outline_.zones) {
      std::string tzid(zone.tzid);
      if (auto clean = context_.zones->parsedCleanly(tzid, zone.text)) {
        known.emplace_back(zone.from, zone.to);
        resolved_.emplace(std::move(tzid), std::move(*clean));
      } else {
        zoneTexts_.emplace(std::move(tzid), zone.text);
      }
    }
    std::erase_if(outline_.calendarLines, [&](const VdirWrittenLine& line) {
      const bool isKnown = context_.knownLines && context_.knownLines->contains(line.text);
      if (isKnown) known.emplace_back(line.from, line.to);
      return isKnown;
    });
    if (known.empty()) return text;
    std::sort(known.begin(), known.end());
    std::size_t copied = 0;
    for (const auto& [from, to] : known) {
      cut.append(text, copied, from - copied);
      copied = to;
    }
    cut.append(text, copied);
    return cut;
  }

  // After the parse of the text as withoutKnownParts gave it (not of one closed by added END lines):
  // when the calendar holds one property for each of its lines that were parsed, and no error,
  // those lines are known to parse cleanly.
  void rememberCalendarLines(icalcomponent* root) {
    if (!context_.knownLines || outline_.calendarLines.empty() || icalcomponent_isa(root) != ICAL_VCALENDAR_COMPONENT ||
        icalcomponent_count_properties(root, ICAL_ANY_PROPERTY) != static_cast<int>(outline_.calendarLines.size()) ||
        icalcomponent_get_first_property(root, ICAL_XLICERROR_PROPERTY))
      return;
    for (const VdirWrittenLine& line : outline_.calendarLines) context_.knownLines->add(line.text);
  }

  void collectZones(icalcomponent* calendar) {
    for (icalcomponent* zone = icalcomponent_get_first_component(calendar, ICAL_VTIMEZONE_COMPONENT); zone;
         zone = icalcomponent_get_next_component(calendar, ICAL_VTIMEZONE_COMPONENT)) {
      icalproperty* tzid = icalcomponent_get_first_property(zone, ICAL_TZID_PROPERTY);
      if (tzid && icalproperty_get_tzid(tzid)) definitions_[icalproperty_get_tzid(tzid)] = zone;
    }
  }

  // A DATE or DATE-TIME property with its TZID; absent when the value is missing or invalid.
  std::optional<VdirTime> timeOf(icalproperty* property, icaltimetype value, const char* what) {
    if (icaltime_is_null_time(value) || !icaltime_is_valid_time(value) || value.year < 1 || value.year > 9999 ||
        value.month < 1 || value.month > 12 || value.day < 1 || value.day > 31 ||
        (!value.is_date && (value.hour < 0 || value.hour > 23 || value.minute < 0 || value.minute > 59 ||
                            value.second < 0 || value.second > 60))) {
      report(VdirDiagnostic::Action::repaired, std::string("invalid ") + what + " value ignored");
      return std::nullopt;
    }
    if (const char* unusual = normaliseFields(value))
      report(VdirDiagnostic::Action::repaired, std::string(what) + " names " + unusual);
    VdirTime time;
    time.local = value;
    time.local.zone = nullptr;
    if (value.is_date) {
      time.kind = VdirTime::Kind::date;
      return time;
    }
    if (icaltime_is_utc(value)) {
      time.kind = VdirTime::Kind::utc;
      return time;
    }
    auto tzid = parameter(property, "TZID");
    if (!tzid) {
      time.kind = VdirTime::Kind::floating;
      return time;
    }
    // One look-up per TZID and file: the zone key is the definition's whole text.
    auto memo = resolved_.find(*tzid);
    if (memo == resolved_.end()) {
      auto found = definitions_.find(*tzid);
      icalcomponent* definition = found == definitions_.end() ? nullptr : found->second;
      auto text = zoneTexts_.find(*tzid);
      memo = resolved_
                 .emplace(*tzid, definition && text != zoneTexts_.end()
                                     ? context_.zones->zoneFor(*tzid, definition, text->second)
                                     : context_.zones->zoneFor(*tzid, definition))
                 .first;
    }
    auto [zone, name] = memo->second;
    if (!zone) {
      report(VdirDiagnostic::Action::repaired,
             "unknown time zone \"" + *tzid + "\": its times are read as floating (local) times");
      time.kind = VdirTime::Kind::floating;
      return time;
    }
    if (zone == utcZone()) {
      time.kind = VdirTime::Kind::utc;
      return time;
    }
    time.kind = VdirTime::Kind::zoned;
    time.zone = zone;
    time.tzid = name;
    return time;
  }

  std::optional<platform::Date> utcDateOf(icalproperty* property, icaltimetype (*get)(const icalproperty*),
                                          const char* what) {
    if (!property) return std::nullopt;
    auto time = timeOf(property, get(property), what);
    if (!time) return std::nullopt;
    return context_.clock->instant(*time);
  }

  VdirParticipantData participant(icalproperty* property, const char* address, bool organizer) {
    VdirParticipantData data;
    data.address = address ? address : "";
    if (icalparameter* cn = icalproperty_get_first_parameter(property, ICAL_CN_PARAMETER); cn && icalparameter_get_cn(cn))
      data.name = icalparameter_get_cn(cn);
    // ROLE defaults to REQ-PARTICIPANT and PARTSTAT to NEEDS-ACTION, except for the organizer.
    data.role = organizer ? platform::EKParticipantRoleUnknown : platform::EKParticipantRoleRequired;
    if (icalparameter* role = icalproperty_get_first_parameter(property, ICAL_ROLE_PARAMETER))
      data.role = roleFromIcal(icalparameter_get_role(role));
    data.status = organizer ? platform::EKParticipantStatusUnknown : platform::EKParticipantStatusPending;
    if (icalparameter* status = icalproperty_get_first_parameter(property, ICAL_PARTSTAT_PARAMETER))
      data.status = participantStatusFromIcal(icalparameter_get_partstat(status));
    data.type = platform::EKParticipantTypePerson;  // CUTYPE defaults to INDIVIDUAL
    if (icalparameter* type = icalproperty_get_first_parameter(property, ICAL_CUTYPE_PARAMETER))
      data.type = participantTypeFromIcal(icalparameter_get_cutype(type));
    if (context_.userAddresses) {
      std::string mine = lower(data.address);
      for (const auto& address : *context_.userAddresses)
        if (mine == address || mine == "mailto:" + address) data.isCurrentUser = true;
    }
    return data;
  }

  // X-APPLE-STRUCTURED-LOCATION;X-TITLE=...;X-APPLE-RADIUS=...:geo:lat,lon
  static std::shared_ptr<const VdirLocationData> structuredLocation(const Properties& properties) {
    for (icalproperty* property : properties.extensions) {
      const char* name = icalproperty_get_x_name(property);
      if (!name || std::string(name) != "X-APPLE-STRUCTURED-LOCATION") continue;
      auto location = std::make_shared<VdirLocationData>();
      location->title = parameter(property, "X-TITLE");
      if (auto radius = parameter(property, "X-APPLE-RADIUS")) location->radius = std::strtod(radius->c_str(), nullptr);
      const char* value = icalproperty_get_value_as_string(property);
      std::string uri = value ? value : "";
      if (uri.rfind("geo:", 0) == 0) {
        double latitude = 0, longitude = 0;
        if (std::sscanf(uri.c_str() + 4, "%lf,%lf", &latitude, &longitude) == 2 && std::isfinite(latitude) &&
            std::isfinite(longitude)) {
          location->latitude = latitude;
          location->longitude = longitude;
        }
      }
      if (!std::isfinite(location->radius)) location->radius = 0.0;
      return location;
    }
    return nullptr;
  }

  static std::optional<std::string> xText(const Properties& properties, const char* wanted) {
    for (icalproperty* property : properties.extensions) {
      const char* name = icalproperty_get_x_name(property);
      if (name && std::string(name) == wanted) {
        const char* value = icalproperty_get_value_as_string(property);
        return std::string(value ? value : "");
      }
    }
    return std::nullopt;
  }

  void readCommon(const Properties& properties, VdirComponentData& component) {
    // A UID is text: its escapes are read, as the editor reads them (written "a\,b", it is "a,b").
    if (const char* uid = properties.uid ? icalproperty_get_uid(properties.uid) : nullptr) component.uid = uid;
    VdirComponentDetails& data = component.details.edit();
    if (icalproperty* p = properties.summary; p && icalproperty_get_summary(p)) data.summary = icalproperty_get_summary(p);
    if (icalproperty* p = properties.description; p && icalproperty_get_description(p))
      data.description = icalproperty_get_description(p);
    if (icalproperty* p = properties.location; p && icalproperty_get_location(p))
      data.location = icalproperty_get_location(p);
    if (icalproperty* p = properties.url; p && icalproperty_get_url(p)) data.url = icalproperty_get_url(p);
    data.created = utcDateOf(properties.created, icalproperty_get_created, "CREATED");
    data.lastModified = utcDateOf(properties.lastModified, icalproperty_get_lastmodified, "LAST-MODIFIED");

    for (icalproperty* p : properties.attendees)
      data.attendees.push_back(participant(p, icalproperty_get_attendee(p), false));
    if (icalproperty* p = properties.organizer)
      data.organizer = std::make_shared<const VdirParticipantData>(participant(p, icalproperty_get_organizer(p), true));

    data.structuredLocation = structuredLocation(properties);
    if (icalproperty* geo = properties.geo) {
      icalgeotype value = icalproperty_get_geo(geo);
      if (std::isfinite(value.lat) && std::isfinite(value.lon) && std::fabs(value.lat) <= 90 && std::fabs(value.lon) <= 180) {
        auto location = std::make_shared<VdirLocationData>(data.structuredLocation ? *data.structuredLocation
                                                                                     : VdirLocationData{});
        if (!location->title) location->title = data.location;
        if (!location->latitude) {
          location->latitude = value.lat;
          location->longitude = value.lon;
        }
        data.structuredLocation = location;
      } else {
        report(VdirDiagnostic::Action::repaired, "GEO outside the globe ignored");
      }
    }
    if (auto travel = xText(properties, "X-APPLE-TRAVEL-DURATION")) {
      icaldurationtype duration = icaldurationtype_from_string(travel->c_str());
      if (icaldurationtype_is_bad_duration(duration))
        report(VdirDiagnostic::Action::repaired, "X-APPLE-TRAVEL-DURATION \"" + *travel + "\" is not a duration");
      else
        data.travelTime = static_cast<double>(icaldurationtype_as_int(duration));
    }
  }

  void readAlarms(icalcomponent* component, VdirComponentDetails& data, double eventSeconds) {
    for (icalcomponent* alarm = icalcomponent_get_first_component(component, ICAL_VALARM_COMPONENT); alarm;
         alarm = icalcomponent_get_next_component(component, ICAL_VALARM_COMPONENT)) {
      const Properties properties = gather(alarm);
      icalproperty* trigger = properties.trigger;
      if (!trigger) {
        report(VdirDiagnostic::Action::repaired, "VALARM without TRIGGER ignored");
        continue;
      }
      VdirAlarmData data2;
      icaltriggertype value = icalproperty_get_trigger(trigger);
      if (!icaltime_is_null_time(value.time)) {
        auto time = timeOf(trigger, value.time, "TRIGGER");
        if (!time) continue;
        data2.absoluteDate = context_.clock->instant(*time);
      } else {
        if (icaldurationtype_is_bad_duration(value.duration)) {
          report(VdirDiagnostic::Action::repaired, "VALARM with an unreadable TRIGGER ignored");
          continue;
        }
        data2.relativeOffset = static_cast<double>(icaldurationtype_as_int(value.duration));
        icalparameter* related = icalproperty_get_first_parameter(trigger, ICAL_RELATED_PARAMETER);
        if (related && icalparameter_get_related(related) == ICAL_RELATED_END) data2.relativeOffset += eventSeconds;
      }
      if (icalproperty* action = properties.action) data2.type = alarmTypeFromIcal(icalproperty_get_action(action));
      if (auto proximity = xText(properties, "X-APPLE-PROXIMITY")) {
        if (*proximity == "ARRIVE") data2.proximity = platform::EKAlarmProximityEnter;
        if (*proximity == "DEPART") data2.proximity = platform::EKAlarmProximityLeave;
      }
      data2.location = structuredLocation(properties);
      data.alarms.push_back(std::move(data2));
    }
  }

  // Reads a VEVENT; false when it cannot be served (no usable DTSTART).
  bool readEvent(icalcomponent* component, VdirComponentData& data) {
    const Properties properties = gather(component);
    readCommon(properties, data);
    icalproperty* start = properties.start;
    if (!start) {
      report(VdirDiagnostic::Action::skipped, "VEVENT \"" + data.uid + "\" has no DTSTART");
      return false;
    }
    auto startTime = timeOf(start, icalproperty_get_dtstart(start), "DTSTART");
    if (!startTime) {
      report(VdirDiagnostic::Action::skipped, "VEVENT \"" + data.uid + "\" has no valid DTSTART");
      return false;
    }
    data.start = *startTime;
    data.hasStart = true;
    data.details.edit().timeZoneName = startTime->kind == VdirTime::Kind::zoned ? std::optional(startTime->tzid)
                                       : startTime->kind == VdirTime::Kind::utc ? std::optional<std::string>("UTC")
                                                                                 : std::nullopt;
    const platform::Date startInstant = context_.clock->instant(data.start);
    if (data.start.isDate()) data.durationDays = 1;
    if (icalproperty* end = properties.end) {
      if (auto endTime = timeOf(end, icalproperty_get_dtend(end), "DTEND")) {
        if (data.start.isDate()) {
          double days = std::round((civilSecondsSince1970(endTime->local.year, endTime->local.month, endTime->local.day, 0, 0, 0) -
                                    civilSecondsSince1970(data.start.local.year, data.start.local.month, data.start.local.day, 0, 0, 0)) /
                                   86400.0);
          data.durationDays = static_cast<int>(std::clamp(days, 0.0, 36600.0));
        } else {
          data.durationSeconds = context_.clock->instant(*endTime).timeIntervalSince(startInstant);
        }
      }
    } else if (icalproperty* duration = properties.duration) {
      icaldurationtype value = icalproperty_get_duration(duration);
      if (!icaldurationtype_is_bad_duration(value)) {
        if (data.start.isDate())
          data.durationDays = std::max(0, static_cast<int>(icaldurationtype_as_int(value) / 86400));
        else
          data.durationSeconds = icaldurationtype_as_int(value);
      }
    }
    if (data.durationSeconds < 0 || data.durationDays < 0) {
      report(VdirDiagnostic::Action::repaired, "VEVENT \"" + data.uid + "\" ends before it starts: shown with no duration");
      data.durationSeconds = 0;
      data.durationDays = 0;
    }
    if (icalproperty* status = properties.status) data.status = eventStatusFromIcal(icalproperty_get_status(status));
    data.availability = platform::EKEventAvailabilityBusy;
    if (icalproperty* transp = properties.transparency)
      if (icalproperty_get_transp(transp) == ICAL_TRANSP_TRANSPARENT) data.availability = platform::EKEventAvailabilityFree;
    if (auto busy = xText(properties, "X-MICROSOFT-CDO-BUSYSTATUS")) {
      if (*busy == "TENTATIVE") data.availability = platform::EKEventAvailabilityTentative;
      if (*busy == "OOF") data.availability = platform::EKEventAvailabilityUnavailable;
      if (*busy == "FREE") data.availability = platform::EKEventAvailabilityFree;
    }
    if (icalproperty* recurrence = properties.recurrenceId) {
      // Read through the property so that its TZID is kept.
      auto time = timeOf(recurrence, icalproperty_get_recurrenceid(recurrence), "RECURRENCE-ID");
      if (!time) {
        report(VdirDiagnostic::Action::skipped, "override of \"" + data.uid + "\" has no valid RECURRENCE-ID");
        return false;
      }
      data.recurrenceInstant = context_.clock->instant(*time);
      icalparameter* range = icalproperty_get_first_parameter(recurrence, ICAL_RANGE_PARAMETER);
      data.thisAndFuture = range && icalparameter_get_range(range) == ICAL_RANGE_THISANDFUTURE;
    }
    readAlarms(component, data.details.edit(),
               data.start.isDate() ? data.durationDays * 86400.0 : data.durationSeconds);
    if (!data.details->summary)
      report(VdirDiagnostic::Action::repaired, "VEVENT \"" + data.uid + "\" has no SUMMARY: shown untitled");
    return true;
  }

  void readTodo(icalcomponent* component, VdirComponentData& data) {
    const Properties properties = gather(component);
    readCommon(properties, data);
    auto todo = std::make_shared<VdirTodoData>();
    data.todoData = todo;
    if (icalproperty* due = properties.due) {
      todo->due = timeOf(due, icalproperty_get_due(due), "DUE");
      if (todo->due) todo->dueInstant = context_.clock->instant(*todo->due);
    }
    if (icalproperty* start = properties.start) {
      todo->start = timeOf(start, icalproperty_get_dtstart(start), "DTSTART");
      if (todo->start) todo->startInstant = context_.clock->instant(*todo->start);
    }
    if (todo->start && todo->start->kind == VdirTime::Kind::zoned) data.details.edit().timeZoneName = todo->start->tzid;
    if (todo->due && todo->due->kind == VdirTime::Kind::zoned) data.details.edit().timeZoneName = todo->due->tzid;
    todo->completed = utcDateOf(properties.completed, icalproperty_get_completed, "COMPLETED");
    todo->isCompleted = todo->completed.has_value();
    if (icalproperty* status = properties.status) {
      if (icalproperty_get_status(status) == ICAL_STATUS_COMPLETED) todo->isCompleted = true;
      todo->isCancelled = icalproperty_get_status(status) == ICAL_STATUS_CANCELLED;
    }
    readTodoRules(properties, *todo);
    if (icalproperty* priority = properties.priority) {
      int value = icalproperty_get_priority(priority);
      if (value < 0 || value > 9)
        report(VdirDiagnostic::Action::repaired, "PRIORITY " + std::to_string(value) + " outside 0-9: read as none");
      else
        todo->priority = value;
    }
    readAlarms(component, data.details.edit(), 0.0);
    if (!data.details->summary)
      report(VdirDiagnostic::Action::repaired, "VTODO \"" + data.uid + "\" has no SUMMARY: shown untitled");
  }

  // A to-do's RRULE, read as an event's from the to-do's DTSTART, or its DUE without one.
  void readTodoRules(const Properties& properties, VdirTodoData& todo) {
    if (properties.rules.empty()) return;
    const std::optional<VdirTime>& anchor = todo.start ? todo.start : todo.due;
    if (!anchor) {
      report(VdirDiagnostic::Action::repaired, "RRULE of a to-do without DTSTART or DUE: ignored");
      return;
    }
    for (icalproperty* p : properties.rules)
      if (auto rule = readRule(p, icalproperty_get_rrule(p), *anchor, "RRULE")) todo.rules.push_back(std::move(*rule));
  }

  // One RRULE or EXRULE of a series starting at `start`; absent when it cannot be served.
  std::optional<VdirRuleData> readRule(icalproperty* p, icalrecurrencetype rule, const VdirTime& start,
                                       const char* what) {
    std::string text = takeString(icalproperty_get_value_as_string_r(p));
    if (rule.freq == ICAL_NO_RECURRENCE || rule.interval < 1) {
      report(VdirDiagnostic::Action::repaired, std::string(what) + " \"" + text + "\" cannot be read: ignored");
      return std::nullopt;
    }
    if (const char* why = unservableRule(rule, start)) {
      report(VdirDiagnostic::Action::repaired, std::string(what) + " \"" + text + "\" " + why + ": ignored");
      return std::nullopt;
    }
    VdirRuleData data;
    if (rule.rscale) {
      data.rscaleName = lower(rule.rscale);
      keepUtf8(data.rscaleName);
      // libical expands the calendars ICU knows (RFC 7529); any other is read as Gregorian.
      if (!iteratesIn(rule, start)) {
        report(VdirDiagnostic::Action::repaired,
               std::string(what) + " with RSCALE=" + data.rscaleName + " expanded as Gregorian");
        data.rscaleName = "gregorian";
        rule.rscale = nullptr;
      }
    }
    data.statesWeekStart = text.find("WKST=") != std::string::npos;
    if (!icaltime_is_null_time(rule.until)) data.until = untilInstant(rule.until, start, *context_.clock);
    // Sub-daily rules and BYxxx parts are kept; validate the weekdays the data model reads.
    for (int i = 0; i < ICAL_BY_DAY_SIZE && rule.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i) {
      int weekday = icalrecurrencetype_day_day_of_week(rule.by_day[i]);
      if (weekday < platform::EKWeekdaySunday || weekday > platform::EKWeekdayLast) {
        report(VdirDiagnostic::Action::repaired,
               std::string(what) + " \"" + text + "\" names a weekday outside the week: ignored");
        return std::nullopt;
      }
    }
    data.rule = VdirCompactRule(rule);
    if (rule.count > 0) expandCounted(data, data.rule.expanded(), start, text);
    return data;
  }

  // Whether libical can iterate `rule` (its RSCALE calendar among them) from `start`.
  static bool iteratesIn(const icalrecurrencetype& rule, const VdirTime& start) {
    icaltimetype first = start.local;
    first.zone = nullptr;
    icalrecur_iterator* iterator = icalrecur_iterator_new(rule, first);
    if (iterator) icalrecur_iterator_free(iterator);
    return iterator != nullptr;
  }

  // How long the occurrence of a PERIOD RDATE starting at `start` lasts: to the period's end, or
  // for its duration. A period that ends before it starts lasts as the event does.
  void readPeriod(icalproperty* p, const icalperiodtype& period, const VdirTime& start, VdirSeriesData& series) {
    const double from = context_.clock->instant(start).timeIntervalSince1970();
    double length = 0.0;
    if (!icaltime_is_null_time(period.end)) {
      auto end = timeOf(p, period.end, "RDATE period end");
      if (!end) return;
      length = context_.clock->instant(*end).timeIntervalSince1970() - from;
    } else if (icaldurationtype_is_bad_duration(period.duration) || period.duration.is_neg) {
      length = -1.0;
    } else {
      length = icaldurationtype_as_int(period.duration);
    }
    if (length < 0.0) {
      report(VdirDiagnostic::Action::repaired, "RDATE period ends before it starts: the event's own length stands in");
      return;
    }
    series.rdatePeriods.push_back({from, length});
  }

  // Rules, extra and excluded dates of a master event.
  void readRecurrence(icalcomponent* component, VdirSeriesData& series) {
    const VdirTime& start = series.master->start;
    const Properties properties = gather(component);
    for (icalproperty* p : properties.rules)
      if (auto rule = readRule(p, icalproperty_get_rrule(p), start, "RRULE")) series.rules.push_back(std::move(*rule));
    // EXRULE (RFC 2445): still written by older clients; its occurrences are excluded.
    for (icalproperty* p : properties.exclusionRules)
      if (auto rule = readRule(p, icalproperty_get_exrule(p), start, "EXRULE"))
        series.exclusionRules.push_back(std::move(*rule));
    for (icalproperty* p : properties.rdates) {
      icaldatetimeperiodtype value = icalproperty_get_rdate(p);
      const bool period = icaltime_is_null_time(value.time);
      auto rdate = timeOf(p, period ? value.period.start : value.time, "RDATE");
      if (!rdate) continue;
      series.rdates.push_back(*rdate);
      if (period) readPeriod(p, value.period, *rdate, series);
    }
    std::ranges::sort(series.rdatePeriods, {}, &VdirRdatePeriod::start);
    for (icalproperty* p : properties.exdates) {
      // The value as written: icalproperty_get_exdate() would look its TZID up in libical's
      // built-in zone table, which is not safe across threads (timeOf resolves it instead).
      if (auto exdate = timeOf(p, icalvalue_get_datetimedate(icalproperty_get_value(p)), "EXDATE")) {
        VdirTime like = *exdate;
        // A DATE exclusion of a timed series excludes that day's occurrence at the series' time.
        if (exdate->isDate() && !start.isDate()) {
          like = start;
          like.local.year = exdate->local.year;
          like.local.month = exdate->local.month;
          like.local.day = exdate->local.day;
        }
        series.exdates.push_back(context_.clock->instant(like).timeIntervalSince1970());
      }
    }
    std::sort(series.exdates.begin(), series.exdates.end());
  }

  // The iterator walks the wall clock (ruleFields). A rule with COUNT has no UNTIL: libical refuses
  // the two together.
  void expandCounted(VdirRuleData& data, const icalrecurrencetype& rule, const VdirTime& start,
                     const std::string& text) {
    std::vector<double> starts;
    icalrecur_iterator* iterator = icalrecur_iterator_new(rule, ruleFields(start));
    if (!iterator) {
      report(VdirDiagnostic::Action::repaired, "rule \"" + text + "\" cannot be expanded: ignored");
      data.countedStarts = std::vector<double>{};
      return;
    }
    const std::size_t limit = std::min<std::size_t>(context_.maximumCountedOccurrences, static_cast<std::size_t>(rule.count));
    const auto began = std::chrono::steady_clock::now();
    for (icaltimetype next = icalrecur_iterator_next(iterator); !icaltime_is_null_time(next);
         next = icalrecur_iterator_next(iterator)) {
      bool overTime = (starts.size() % 256) == 255 &&
                      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count() > 2.0;
      if (starts.size() >= limit || overTime) {
        report(VdirDiagnostic::Action::truncated, "RRULE \"" + text + "\" served for its first " +
                                                      std::to_string(starts.size()) + " occurrences only");
        break;
      }
      starts.push_back(context_.clock->instantLike(next, start).timeIntervalSince1970());
    }
    icalrecur_iterator_free(iterator);
    // The iterator does not always give them in order (SKIP and some BYSETPOS rules, a walk through
    // a clock change); queries search them by time.
    std::sort(starts.begin(), starts.end());
    data.countedStarts = std::move(starts);
  }

  void collectErrors(icalcomponent* component) {
    for (icalproperty* p = icalcomponent_get_first_property(component, ICAL_XLICERROR_PROPERTY); p;
         p = icalcomponent_get_next_property(component, ICAL_XLICERROR_PROPERTY)) {
      const char* message = icalproperty_get_xlicerror(p);
      report(VdirDiagnostic::Action::repaired, std::string("unreadable content ignored: ") + (message ? message : "?"));
    }
    for (icalcomponent* child = icalcomponent_get_first_component(component, ICAL_ANY_COMPONENT); child;
         child = icalcomponent_get_next_component(component, ICAL_ANY_COMPONENT))
      collectErrors(child);
  }

 private:
  std::string path_;
  const VdirParseContext& context_;
  std::vector<VdirDiagnostic>& diagnostics_;
  std::map<std::string, icalcomponent*> definitions_;
  std::map<std::string, std::pair<const icaltimezone*, std::string>> resolved_;
  std::map<std::string, std::string_view, std::less<>> zoneTexts_;  // into the file's text (or repairedText_)
  std::string repairedText_;  // the file's text made UTF-8, when it was not
  VdirOutline outline_;       // of the text parsed; its calendar lines: those that were parsed
};

// The text with END lines added for every component left open, or nothing when none is.
std::optional<std::string> closedText(const std::string& text) {
  std::vector<std::string_view> open;
  std::size_t at = 0;
  std::string_view lastLine;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    std::string_view line = std::string_view(text).substr(at, end == std::string::npos ? std::string::npos : end - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.starts_with("BEGIN:")) open.push_back(line.substr(6));
    if (line.starts_with("END:") && !open.empty()) open.pop_back();
    lastLine = line;
    if (end == std::string::npos) break;
    at = end + 1;
  }
  if (open.empty()) return std::nullopt;
  std::string closed = text;
  if (!closed.empty() && closed.back() != '\n') {
    // A line cut off in the middle is dropped: its value is incomplete.
    closed.erase(closed.size() - lastLine.size());
  }
  for (auto it = open.rbegin(); it != open.rend(); ++it) {
    closed += "END:";
    closed += *it;
    closed += "\r\n";
  }
  return closed;
}

double endOf(const VdirComponentData& data, double start) {
  return start + (data.start.isDate() ? data.durationDays * 86400.0 + 7200.0 : data.durationSeconds);
}

void computeBounds(VdirSeriesData& series, const VdirClock& clock) {
  const double slack = 2 * 86400.0;
  double first = std::numeric_limits<double>::infinity();
  double last = -std::numeric_limits<double>::infinity();
  bool endless = false;
  auto consider = [&](const VdirComponentData& data, double start) {
    first = std::min(first, start);
    last = std::max(last, endOf(data, start));
  };
  if (series.master) {
    const auto& master = *series.master;
    // An occurrence may also be moved, and last, as a THISANDFUTURE override before it says (its
    // wall-clock move is within an hour of the same move in seconds; the slack covers that).
    const auto ranges = rangeOverrides(series, clock);
    auto considerMaster = [&](double start) {
      consider(master, start);
      for (const auto& range : ranges) consider(*range.component, start + range.shift);
    };
    double start = clock.instant(master.start).timeIntervalSince1970();
    consider(master, start);
    for (const auto& rule : series.rules) {
      if (rule.countedStarts) {
        if (!rule.countedStarts->empty()) considerMaster(rule.countedStarts->back());
      } else if (rule.until) {
        considerMaster(rule.until->timeIntervalSince1970());
      } else {
        endless = true;
      }
    }
    for (const auto& rdate : series.rdates) considerMaster(clock.instant(rdate).timeIntervalSince1970());
    for (const auto& period : series.rdatePeriods) last = std::max(last, period.start + period.length);
  }
  for (const auto& override : series.overrides) {
    consider(override, clock.instant(override.start).timeIntervalSince1970());
  }
  series.firstStart = first - slack;
  if (!endless) series.lastEnd = last + slack;
}

// VEVENTs of one UID, in the order the file has them, each with its component.
struct EventGroup {
  std::string uid;
  std::vector<std::pair<VdirComponentData, icalcomponent*>> masters;
  std::vector<std::pair<VdirComponentData, icalcomponent*>> overrides;
};

// Parses the text into `root`, repairing what can be repaired. False (and said why) when there is
// nothing to read.
bool parseText(const std::string& text, Reader& reader, ComponentHolder& root) {
  if (text.find('\0') != std::string::npos) {
    reader.report(VdirDiagnostic::Action::skipped, "not an iCalendar file (binary content)");
    return false;
  }
  // The library hands out UTF-8 only: other bytes become U+FFFD before anything is read.
  const std::string* source = &text;
  if (!isValidUtf8(text)) {
    source = &reader.keepRepairedText(validUtf8(text));
    reader.report(VdirDiagnostic::Action::repaired, "bytes that are not UTF-8 were replaced by U+FFFD");
  }
  std::string cut;
  source = &reader.withoutKnownParts(*source, cut);
  root.component = icalparser_parse_string(source->c_str());
  if (root.component) reader.rememberCalendarLines(root.component);
  if (!root.component && source->find("BEGIN:VCALENDAR") != std::string::npos) {
    // A file that ends early (cut off, or missing its END lines) is closed and read again.
    if (auto closed = closedText(*source)) {
      root.component = icalparser_parse_string(closed->c_str());
      if (root.component) reader.report(VdirDiagnostic::Action::repaired, "the file ends early: its END lines were added");
    }
  }
  if (!root.component) reader.report(VdirDiagnostic::Action::skipped, "not an iCalendar file (does not parse)");
  return root.component != nullptr;
}

// The calendars the parser handed back: a VCALENDAR, the VCALENDARs of an XROOT, or a bare
// VEVENT or VTODO standing for its own calendar.
std::vector<icalcomponent*> calendarsOf(icalcomponent* root, Reader& reader) {
  std::vector<icalcomponent*> calendars;
  const auto kind = icalcomponent_isa(root);
  if (kind == ICAL_VCALENDAR_COMPONENT) {
    calendars.push_back(root);
  } else if (kind == ICAL_XROOT_COMPONENT) {
    for (icalcomponent* c = icalcomponent_get_first_component(root, ICAL_VCALENDAR_COMPONENT); c;
         c = icalcomponent_get_next_component(root, ICAL_VCALENDAR_COMPONENT))
      calendars.push_back(c);
  } else if (kind == ICAL_VEVENT_COMPONENT || kind == ICAL_VTODO_COMPONENT) {
    reader.report(VdirDiagnostic::Action::repaired, "item not wrapped in a VCALENDAR");
    calendars.push_back(root);
  }
  if (calendars.empty()) reader.report(VdirDiagnostic::Action::skipped, "no VCALENDAR in the file");
  return calendars;
}

// Reads the VEVENTs (grouped by UID, in the order their UIDs first appear) and VTODOs of the
// calendars. Returns whether there was any VEVENT, readable or not.
bool readComponents(const std::vector<icalcomponent*>& calendars, icalcomponent* root, Reader& reader,
                    std::vector<EventGroup>& groups, std::vector<VdirComponentData>& todos) {
  auto groupOf = [&](const std::string& uid) -> EventGroup& {
    for (auto& group : groups)
      if (group.uid == uid) return group;
    groups.push_back(EventGroup{uid, {}, {}});
    return groups.back();
  };
  bool sawEvent = false;
  auto visit = [&](icalcomponent* component) {
    auto kind = icalcomponent_isa(component);
    if (kind == ICAL_VEVENT_COMPONENT) {
      sawEvent = true;
      VdirComponentData data;
      if (!reader.readEvent(component, data)) return;
      keepUtf8(data);
      EventGroup& group = groupOf(data.uid);
      (data.recurrenceInstant ? group.overrides : group.masters).emplace_back(std::move(data), component);
    } else if (kind == ICAL_VTODO_COMPONENT) {
      VdirComponentData data;
      reader.readTodo(component, data);
      keepUtf8(data);
      todos.push_back(std::move(data));
    }
  };
  for (icalcomponent* calendar : calendars) {
    reader.collectZones(calendar);
    if (calendar == root && icalcomponent_isa(calendar) != ICAL_VCALENDAR_COMPONENT) {
      visit(calendar);
      continue;
    }
    for (icalcomponent* c = icalcomponent_get_first_component(calendar, ICAL_ANY_COMPONENT); c;
         c = icalcomponent_get_next_component(calendar, ICAL_ANY_COMPONENT))
      visit(c);
  }
  return sawEvent;
}

// One UID's series: its master (the first, when there are several), recurrence and overrides.
VdirSeriesData seriesOf(EventGroup& group, Reader& reader, const std::string& fileName, const VdirClock& clock) {
  VdirSeriesData series;
  // Some exporters write a series as an RRULE on a component with a RECURRENCE-ID and no master:
  // that component is served as the series' master.
  if (group.masters.empty()) {
    auto ruled = std::find_if(group.overrides.begin(), group.overrides.end(), [](const auto& override) {
      return icalcomponent_get_first_property(override.second, ICAL_RRULE_PROPERTY) != nullptr;
    });
    if (ruled != group.overrides.end()) {
      reader.report(VdirDiagnostic::Action::repaired,
                    "VEVENT \"" + group.uid + "\" has an RRULE and a RECURRENCE-ID but no master: served as the series");
      ruled->first.recurrenceInstant.reset();
      group.masters.push_back(std::move(*ruled));
      group.overrides.erase(ruled);
    }
  }
  if (!group.masters.empty()) {
    if (group.masters.size() > 1)
      reader.report(VdirDiagnostic::Action::skipped, "UID \"" + group.uid + "\" has " +
                                                         std::to_string(group.masters.size()) +
                                                         " master VEVENTs: only the first is served");
    series.master = std::move(group.masters.front().first);
    reader.readRecurrence(group.masters.front().second, series);
  }
  for (auto& override : group.overrides) series.overrides.push_back(std::move(override.first));
  std::sort(series.overrides.begin(), series.overrides.end(),
            [](const auto& a, const auto& b) { return *a.recurrenceInstant < *b.recurrenceInstant; });
  if (group.uid.empty()) {
    reader.report(VdirDiagnostic::Action::repaired, "VEVENT has no UID: the file name stands in");
    if (series.master) series.master->uid = fileName;
    for (auto& override : series.overrides) override.uid = fileName;
  }
  computeBounds(series, clock);
  return series;
}

// Identifiers: the first entry keeps the path; each further one adds its UID, or its position
// when its UID is missing or taken.
void nameEntries(VdirItem& item, const std::string& relativePath, const std::string& fileName) {
  std::set<std::string> taken;
  std::size_t position = 0;
  auto identify = [&](const std::string& uid) {
    ++position;
    std::string identifier = relativePath;
    if (position > 1) identifier += "#" + (uid.empty() || uid == fileName ? std::to_string(position) : uid);
    if (!taken.insert(identifier).second) {
      identifier = relativePath + "#" + std::to_string(position);
      taken.insert(identifier);
    }
    return identifier;
  };
  for (auto& series : item.series)
    series.identifier = identify(series.master ? series.master->uid : series.overrides.front().uid);
  for (auto& todo : item.todos) todo.todoData->identifier = identify(todo.uid);
}

}  // namespace

VdirParseResult parseItem(const std::string& relativePath, const std::string& fileName, const std::string& text,
                          const VdirParseContext& context) {
  VdirParseResult result;
  Reader reader(relativePath, context, result.diagnostics);
  ComponentHolder root;
  if (!parseText(text, reader, root)) return result;
  const std::vector<icalcomponent*> calendars = calendarsOf(root.component, reader);
  if (calendars.empty()) return result;
  reader.collectErrors(root.component);

  auto item = std::make_shared<VdirItem>();
  item->relativePath = relativePath;
  std::vector<EventGroup> groups;
  const bool sawEvent = readComponents(calendars, root.component, reader, groups, item->todos);
  for (auto& group : groups) item->series.push_back(seriesOf(group, reader, fileName, *context.clock));
  for (auto& todo : item->todos) {
    if (todo.uid.empty()) {
      reader.report(VdirDiagnostic::Action::repaired, "VTODO has no UID: the file name stands in");
      todo.uid = fileName;
    }
  }
  if (item->series.empty() && item->todos.empty()) {
    if (!sawEvent) reader.report(VdirDiagnostic::Action::skipped, "no VEVENT or VTODO in the file");
    return result;
  }
  nameEntries(*item, relativePath, fileName);
  result.item = item;
  return result;
}

}  // namespace vesp::vdir
