// The compact data of one iCalendar file of a collection: an event series (its master VEVENT,
// rules, extra and excluded dates, and RECURRENCE-ID overrides) or a to-do. Built once per file
// version by parseItem; immutable afterwards and shared by every occurrence handed out.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platforms/vdir/VdirOptions.h"
#include "platforms/vdir/VdirTime.h"
#include "support/platform/Date.h"
#include "support/platform/EKTypes.h"

namespace vesp::vdir {

class VdirKnownLines;
class VdirZones;

struct VdirParticipantData {
  std::optional<std::string> name;  // CN
  std::string address;              // the calendar user address (mailto:...)
  platform::EKParticipantRole role = platform::EKParticipantRoleUnknown;
  platform::EKParticipantStatus status = platform::EKParticipantStatusUnknown;
  platform::EKParticipantType type = platform::EKParticipantTypeUnknown;
  bool isCurrentUser = false;
};

struct VdirLocationData {
  std::optional<std::string> title;
  std::optional<double> latitude, longitude;
  double radius = 0.0;
};

struct VdirAlarmData {
  std::optional<platform::Date> absoluteDate;
  double relativeOffset = 0.0;  // seconds from the start (a trigger related to the end is moved here)
  platform::EKAlarmType type = platform::EKAlarmTypeDisplay;
  platform::EKAlarmProximity proximity = platform::EKAlarmProximityNone;
  std::shared_ptr<const VdirLocationData> location;
};

// A recurrence rule, kept small: libical's struct holds every BY list at its largest size (about
// 3 KB); this keeps only the lists a rule has, and gives the struct back when libical needs it.
class VdirCompactRule {
 public:
  VdirCompactRule() = default;
  explicit VdirCompactRule(const icalrecurrencetype& rule);
  // libical's struct; its rscale points into this object (null for none), so it must not be freed
  // and lives as long as this rule.
  icalrecurrencetype expanded() const;
  icalrecurrencetype_frequency frequency() const { return frequency_; }
  int count() const { return count_; }
  int interval() const { return interval_; }
  icalrecurrencetype_weekday weekStart() const { return weekStart_; }
  // The BY lists, in libical's order.
  enum class List { second, minute, hour, day, monthDay, yearDay, weekNumber, month, setPosition };
  // The values of one BY list as libical holds them; empty when the rule has no such list. Read in
  // place: records answer a rule's questions from here, without the whole struct.
  std::span<const short> list(List which) const;
  // The calendar system named by RSCALE, as written; empty: none (Gregorian).
  const std::string& rscale() const { return rscale_; }
  void clearRscale() { rscale_.clear(); }

 private:
  icalrecurrencetype_frequency frequency_ = ICAL_NO_RECURRENCE;
  icaltimetype until_ = icaltime_null_time();
  int count_ = 0;
  short interval_ = 1;
  icalrecurrencetype_weekday weekStart_ = ICAL_MONDAY_WEEKDAY;
  icalrecurrencetype_skip skip_ = ICAL_SKIP_OMIT;
  std::string rscale_;
  // The BY lists in libical's order, each as its length followed by its values.
  std::vector<short> lists_;
};

struct VdirRuleData {
  VdirCompactRule rule;  // with its RSCALE when libical can expand that calendar
  std::string rscaleName = "gregorian";  // the calendar the rule is expanded in, lower case
  bool statesWeekStart = false;
  std::optional<platform::Date> until;
  // The starts of every occurrence of a rule bounded by COUNT, expanded once when the file is
  // read (the iterator cannot jump into a counted rule).
  std::optional<std::vector<double>> countedStarts;
};

// What only a VTODO says (kept apart: most components are events).
struct VdirTodoData {
  std::string identifier;  // the to-do's calendar-item identifier, as a series'
  std::optional<VdirTime> due, start;
  std::optional<platform::Date> dueInstant, startInstant;
  std::optional<platform::Date> completed;
  bool isCompleted = false;
  bool isCancelled = false;  // STATUS:CANCELLED
  std::int64_t priority = 0;
  std::vector<VdirRuleData> rules;  // RRULE, from DTSTART (or DUE without one); not expanded
};

// What a component says that only the records handed out read, never a query: kept apart, so
// that a store opened from its cache decodes it only for the components that an answer shows.
struct VdirComponentDetails {
  std::optional<std::string> summary, description, location, url;
  std::optional<platform::Date> created, lastModified;
  std::vector<VdirParticipantData> attendees;
  std::shared_ptr<const VdirParticipantData> organizer;  // held apart: most components have none
  std::vector<VdirAlarmData> alarms;
  std::shared_ptr<const VdirLocationData> structuredLocation;
  std::optional<double> travelTime;  // seconds
  std::optional<std::string> timeZoneName;
};

// A component's details: as read from its file, or kept as the cache's bytes for them (checked
// when the cache was read) and decoded the first time they are read, once, on any thread. Copies
// share them; none at all costs nothing.
class VdirDetails {
 public:
  using Decode = VdirComponentDetails (*)(std::string_view encoded);
  VdirDetails() = default;
  VdirDetails(std::string encoded, Decode decode);

  const VdirComponentDetails& operator*() const;
  const VdirComponentDetails* operator->() const { return &**this; }
  // The details to fill in, of this copy alone (for the reader that makes them, and for tests).
  VdirComponentDetails& edit();
  // The cache's bytes these details were kept as; null when they were not.
  const std::string* encoded() const { return state_ && state_->decode ? &state_->encoded : nullptr; }

 private:
  struct State {
    std::once_flag once;
    std::string encoded;
    Decode decode = nullptr;  // null: `details` was there from the start
    std::unique_ptr<VdirComponentDetails> details;
  };
  std::shared_ptr<State> state_;
};

// What one VEVENT or VTODO says.
struct VdirComponentData {
  std::string uid;
  VdirDetails details;
  platform::EKEventStatus status = platform::EKEventStatusNone;                     // events
  platform::EKEventAvailability availability = platform::EKEventAvailabilityBusy;  // events

  // Events: start, end (exclusive) and the occurrence this one replaces.
  VdirTime start;
  double durationSeconds = 0.0;  // timed events
  int durationDays = 0;          // all-day events (DTEND - DTSTART in days)
  bool hasStart = false;
  std::optional<platform::Date> recurrenceInstant;  // RECURRENCE-ID, for an override
  // RECURRENCE-ID;RANGE=THISANDFUTURE: the override also stands for every later occurrence (until
  // the next such override), moved as it moved its own.
  bool thisAndFuture = false;

  // To-dos only (always there for them).
  std::shared_ptr<VdirTodoData> todoData;
};

// A PERIOD RDATE: its occurrence lasts as the period says, not as its component does.
struct VdirRdatePeriod {
  double start = 0.0;   // seconds since 1970, as the RDATE's start gives it
  double length = 0.0;  // seconds: to the period's end, or its duration (a day counted as 86,400)
};

struct VdirSeriesData {
  std::string identifier;  // the event identifier: the file's path, "#UID" added for a second series
  std::optional<VdirComponentData> master;  // absent: a file of overrides only
  std::vector<VdirRuleData> rules;
  std::vector<VdirRuleData> exclusionRules;  // EXRULE: their occurrences are excluded
  std::vector<VdirTime> rdates;
  std::vector<VdirRdatePeriod> rdatePeriods;  // of the RDATEs that are periods, sorted by start
  std::vector<double> exdates;           // instants (seconds since 1970) excluded
  std::vector<VdirComponentData> overrides;  // sorted by recurrenceInstant
  // The earliest start and the latest end any occurrence can have; absent end: no end.
  double firstStart = 0.0;
  std::optional<double> lastEnd;
  bool isRecurring() const { return master && (!rules.empty() || !rdates.empty()); }
};

// One file: usually one series or one to-do, but files written by other tools may hold several
// (each UID its own series); all are served. The first keeps the file's path as identifier, the
// others add "#" and their UID (or their position, when the UID is missing or repeated).
struct VdirItem {
  std::string relativePath;  // within the store
  std::vector<VdirSeriesData> series;
  std::vector<VdirComponentData> todos;
};

// What reading one file produced: the item (absent when the file was skipped) and its problems.
struct VdirParseResult {
  std::shared_ptr<const VdirItem> item;
  std::vector<VdirDiagnostic> diagnostics;
};

struct VdirParseContext {
  VdirZones* zones = nullptr;
  const VdirClock* clock = nullptr;
  const std::vector<std::string>* userAddresses = nullptr;  // lower-case mailto: addresses
  std::size_t maximumCountedOccurrences = 100000;
  VdirKnownLines* knownLines = nullptr;  // when given, calendar lines it holds are not parsed again
};

// Why libical must not be given `rule` for a series that starts at `start`, or null when it may.
// libical's iterator tests a sub-daily rule's day filters second by second or minute by minute
// inside one call, so a rule whose filters match no day would never return, nor would a sub-daily
// rule on a DATE start; RFC 5545 also forbids some BY parts for some frequencies. The parser
// refuses such rules, and so does the cache's decoder.
const char* unservableRule(const icalrecurrencetype& rule, const VdirTime& start);

// Reads the text of one .ics file. Never fails: a file that cannot be served gives no item and a
// diagnostic saying why. Safe to call from several threads at once.
VdirParseResult parseItem(const std::string& relativePath, const std::string& fileName, const std::string& text,
                          const VdirParseContext& context);

}  // namespace vesp::vdir
