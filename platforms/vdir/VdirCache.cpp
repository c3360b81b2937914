#include "platforms/vdir/VdirCache.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <concepts>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <type_traits>

#include "platforms/vdir/VdirCacheBytes.h"
#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirParallel.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

// Layout: the header (magic, format, payload length and hash), then the payload: libical's
// version, the key, the entries in blocks that decode independently (each: its size and its number
// of entries; a size of 0 ends them), and the zone definitions the entries refer to.
constexpr std::string_view kMagic = "VESPSTOR";
constexpr std::size_t kEntriesPerBlock = 2048;


// The schema: every field of what the cache keeps has a tag, written before its value, and the
// walks below name each struct's fields once, in their order. The encoder and the decoder both
// walk them; the decoder reads a tag it does not expect in a place as damage, so a cache written
// under another schema is rebuilt. Adding a field: a tag here, one line in its walk. Numbers are
// never reused; the format's version changes with the schema.
enum class Tag : std::uint8_t {
  // A file record and its diagnostics.
  path = 1, device, inode, size, modified, changed, diagnostics, item,
  diagnosticPath, diagnosticAction, diagnosticProblem,
  // An item and its series.
  relativePath, series, todos,
  seriesIdentifier, master, rules, exclusionRules, rdates, exdates, overrides, firstStart, lastEnd,
  // A rule.
  rule, rscaleName, statesWeekStart, until, countedStarts,
  // A component (event or to-do).
  uid, summary, description, location, url, created, lastModified, status, availability, attendees, organizer,
  alarms, structuredLocation, travelTime, timeZoneName, start, durationSeconds, durationDays, hasStart,
  recurrenceInstant, todo,
  // A participant, an alarm, a structured location, a to-do's own data.
  participantName, participantAddress, participantRole, participantStatus, participantType, isCurrentUser,
  alarmDate, alarmOffset, alarmType, alarmProximity, alarmLocation,
  locationTitle, latitude, longitude, radius,
  todoIdentifier, due, todoStart, dueInstant, completed, isCompleted, priority, isCancelled, todoRules,
  // Added later, each at the end so that no number changes.
  thisAndFuture, todoStartInstant, rdatePeriods, periodStart, periodLength, details,
};

// An integer that must lie in [lowest, highest] (an enumeration's values, a span in days).
template <class T>
struct Ranged {
  T& value;
  std::int64_t lowest, highest;
};
template <class T>
Ranged<T> ranged(T& value, std::int64_t lowest, std::int64_t highest) {
  return {value, lowest, highest};
}

// T, or const T: the encoder walks const values, the decoder fills them in.
template <class T, class U>
concept Of = std::same_as<std::remove_const_t<T>, U>;

template <class Io, Of<VdirParticipantData> P>
void walk(Io& io, P& p) {
  io(Tag::participantName, p.name);
  io(Tag::participantAddress, p.address);
  io(Tag::participantRole, ranged(p.role, platform::EKParticipantRoleUnknown, platform::EKParticipantRoleLast));
  io(Tag::participantStatus,
     ranged(p.status, platform::EKParticipantStatusUnknown, platform::EKParticipantStatusLast));
  io(Tag::participantType, ranged(p.type, platform::EKParticipantTypeUnknown, platform::EKParticipantTypeLast));
  io(Tag::isCurrentUser, p.isCurrentUser);
}

template <class Io, Of<VdirLocationData> L>
void walk(Io& io, L& l) {
  io(Tag::locationTitle, l.title);
  io(Tag::latitude, l.latitude);
  io(Tag::longitude, l.longitude);
  io(Tag::radius, l.radius);
}

template <class Io, Of<VdirAlarmData> A>
void walk(Io& io, A& a) {
  io(Tag::alarmDate, a.absoluteDate);
  io(Tag::alarmOffset, a.relativeOffset);
  io(Tag::alarmType, ranged(a.type, platform::EKAlarmTypeDisplay, platform::EKAlarmTypeLast));
  io(Tag::alarmProximity, ranged(a.proximity, platform::EKAlarmProximityNone, platform::EKAlarmProximityLast));
  io(Tag::alarmLocation, a.location);
}

template <class Io, Of<VdirTodoData> T>
void walk(Io& io, T& t) {
  io(Tag::todoIdentifier, t.identifier);
  io(Tag::due, t.due);
  io(Tag::todoStart, t.start);
  io(Tag::dueInstant, t.dueInstant);
  io(Tag::todoStartInstant, t.startInstant);
  io(Tag::completed, t.completed);
  io(Tag::isCompleted, t.isCompleted);
  io(Tag::priority, t.priority);
  io(Tag::isCancelled, t.isCancelled);
  io(Tag::todoRules, t.rules);
}

// A component's details are a block of their own (its length, then its fields), which a store
// opened from the cache keeps as bytes until a record reads them.
template <class Io, Of<VdirComponentDetails> D>
void walk(Io& io, D& d) {
  io(Tag::summary, d.summary);
  io(Tag::description, d.description);
  io(Tag::location, d.location);
  io(Tag::url, d.url);
  io(Tag::created, d.created);
  io(Tag::lastModified, d.lastModified);
  io(Tag::attendees, d.attendees);
  io(Tag::organizer, d.organizer);
  io(Tag::alarms, d.alarms);
  io(Tag::structuredLocation, d.structuredLocation);
  io(Tag::travelTime, d.travelTime);
  io(Tag::timeZoneName, d.timeZoneName);
}

template <class Io, Of<VdirComponentData> C>
void walk(Io& io, C& c) {
  io(Tag::uid, c.uid);
  io(Tag::details, c.details);
  io(Tag::status, ranged(c.status, platform::EKEventStatusNone, platform::EKEventStatusLast));
  io(Tag::availability,
     ranged(c.availability, platform::EKEventAvailabilityNotSupported, platform::EKEventAvailabilityLast));
  io(Tag::start, c.start);
  io(Tag::durationSeconds, c.durationSeconds);
  io(Tag::durationDays, ranged(c.durationDays, -3660000, 3660000));
  io(Tag::hasStart, c.hasStart);
  io(Tag::recurrenceInstant, c.recurrenceInstant);
  io(Tag::todo, c.todoData);
  io(Tag::thisAndFuture, c.thisAndFuture);
}

template <class Io, Of<VdirRuleData> R>
void walk(Io& io, R& r) {
  io(Tag::rule, r.rule);
  io(Tag::rscaleName, r.rscaleName);
  io(Tag::statesWeekStart, r.statesWeekStart);
  io(Tag::until, r.until);
  io(Tag::countedStarts, r.countedStarts);
}

template <class Io, Of<VdirRdatePeriod> P>
void walk(Io& io, P& p) {
  io(Tag::periodStart, p.start);
  io(Tag::periodLength, p.length);
}

template <class Io, Of<VdirSeriesData> S>
void walk(Io& io, S& s) {
  io(Tag::seriesIdentifier, s.identifier);
  io(Tag::master, s.master);
  io(Tag::rules, s.rules);
  io(Tag::exclusionRules, s.exclusionRules);
  io(Tag::rdates, s.rdates);
  io(Tag::rdatePeriods, s.rdatePeriods);
  io(Tag::exdates, s.exdates);
  io(Tag::overrides, s.overrides);
  io(Tag::firstStart, s.firstStart);
  io(Tag::lastEnd, s.lastEnd);
}

template <class Io, Of<VdirItem> I>
void walk(Io& io, I& item) {
  io(Tag::relativePath, item.relativePath);
  io(Tag::series, item.series);
  io(Tag::todos, item.todos);
}

template <class Io, Of<VdirDiagnostic> D>
void walk(Io& io, D& d) {
  io(Tag::diagnosticPath, d.path);
  io(Tag::diagnosticAction, d.action);
  io(Tag::diagnosticProblem, d.problem);
}

template <class Io, Of<std::string> Path, Of<VdirFileRecord> F>
void walk(Io& io, Path& path, F& file) {
  io(Tag::path, path);
  io(Tag::device, file.device);
  io(Tag::inode, file.inode);
  io(Tag::size, ranged(file.size, 0, std::numeric_limits<off_t>::max()));
  io(Tag::modified, file.modified);
  io(Tag::changed, file.changed);
  io(Tag::diagnostics, file.diagnostics);
  io(Tag::item, file.item);
}

// The fewest bytes one element of a list can take, which bounds the count a cache may claim.
template <class T>
constexpr std::size_t kLeastBytes = 8;
template <>
constexpr std::size_t kLeastBytes<VdirComponentData> = 64;
template <>
constexpr std::size_t kLeastBytes<VdirParticipantData> = 16;
template <>
constexpr std::size_t kLeastBytes<VdirAlarmData> = 26;
template <>
constexpr std::size_t kLeastBytes<VdirSeriesData> = 16;
template <>
constexpr std::size_t kLeastBytes<VdirDiagnostic> = 9;


// The zones that times refer to: 0 none, 1 the built-in zone named by the time's TZID, 2 + i the
// i-th zone definition.
class ZoneTable {
 public:
  explicit ZoneTable(const VdirZones& zones) : zones_(zones) {}
  // The reference for `zone`, or nothing when it cannot be stored.
  std::optional<std::uint32_t> reference(const icaltimezone* zone, const std::string& tzid) {
    if (!zone) return 0;
    if (auto found = indices_.find(zone); found != indices_.end()) return found->second;
    if (auto definition = zones_.definitionOf(zone)) {
      auto index = static_cast<std::uint32_t>(2 + definitions_.size());
      definitions_.push_back(std::move(*definition));
      indices_.emplace(zone, index);
      return index;
    }
    if (builtinZone(tzid) == zone) return 1;
    return std::nullopt;
  }
  const std::vector<std::pair<std::string, std::string>>& definitions() const { return definitions_; }

 private:
  const VdirZones& zones_;
  std::map<const icaltimezone*, std::uint32_t> indices_;
  std::vector<std::pair<std::string, std::string>> definitions_;
};

// Writes values as the schema walks them. A value that cannot be stored (a time in a zone with
// no definition to keep, a rule libical cannot write) marks the whole record unstorable.
class Encoder {
 public:
  Encoder(std::string& out, ZoneTable& zones) : w_(out), zones_(zones) {}
  bool storable() const { return storable_; }

  void record(const std::string& path, const VdirFileRecord& file) { walk(*this, path, file); }

  template <class T>
  void operator()(Tag tag, const T& value) {
    w_.u8(static_cast<std::uint8_t>(tag));
    write(value);
  }
  template <class T>
  void operator()(Tag tag, Ranged<T> value) {
    w_.u8(static_cast<std::uint8_t>(tag));
    w_.i64(static_cast<std::int64_t>(value.value));
  }

 private:
  void write(const std::string& value) { w_.text(value); }
  void write(bool value) { w_.flag(value); }
  void write(double value) { w_.f64(value); }
  template <std::integral I>
  void write(const I& value) {
    w_.raw(&value, sizeof value);
  }
  void write(const platform::Date& value) { w_.f64(value.timeIntervalSince1970()); }
  void write(VdirDiagnostic::Action value) { w_.u8(static_cast<std::uint8_t>(value)); }
  void write(const VdirTime& value) {
    w_.u8(static_cast<std::uint8_t>(value.kind));
    const icaltimetype& t = value.local;
    w_.u16(static_cast<std::uint16_t>(t.year));
    for (int field : {t.month, t.day, t.hour, t.minute, t.second, t.is_date, t.is_daylight})
      w_.u8(static_cast<std::uint8_t>(field));
    auto zone = zones_.reference(value.zone, value.tzid);
    if (!zone) storable_ = false;
    w_.u32(zone.value_or(0));
    w_.text(value.tzid);
  }
  // As RRULE text (with RSCALE, and SKIP when RSCALE is there), and SKIP, which the text leaves
  // out without RSCALE although libical honours it.
  void write(const VdirCompactRule& value) {
    icalrecurrencetype copy = value.expanded();
    char* text = icalrecurrencetype_as_string_r(&copy);
    std::string rule = text ? text : "";
    std::free(text);
    if (rule.empty()) storable_ = false;
    w_.text(rule);
    w_.i64(copy.skip);
  }
  // Kept as the cache's bytes, they are written as they were read.
  void write(const VdirDetails& value) {
    if (const std::string* encoded = value.encoded()) return w_.text(*encoded);
    std::string bytes;
    Encoder details(bytes, zones_);
    walk(details, *value);
    storable_ = storable_ && details.storable();
    w_.text(bytes);
  }
  template <class T>
  void write(const std::optional<T>& value) {
    w_.flag(value.has_value());
    if (value) write(*value);
  }
  template <class T>
  void write(const std::shared_ptr<T>& value) {
    w_.flag(value != nullptr);
    if (value) write(*value);
  }
  template <class T>
  void write(const std::vector<T>& values) {
    w_.u32(static_cast<std::uint32_t>(values.size()));
    for (const auto& value : values) write(value);
  }
  // A struct of the schema.
  template <class T>
  void write(const T& value) {
    walk(*this, value);
  }

  VdirCacheWriter w_;
  ZoneTable& zones_;
  bool storable_ = true;
};

// Reads values as the schema walks them, with every check a cache from outside needs: tags in
// their places, values in their ranges, lists in their order, references to zones that exist.
class Decoder {
 public:
  Decoder(VdirCacheReader& r, const std::vector<const icaltimezone*>& zones) : r_(r), zones_(zones) {}

  // Details kept as the cache's bytes, once Checker has passed them.
  static VdirComponentDetails details(std::string_view bytes) {
    VdirCacheReader r(bytes);
    const std::vector<const icaltimezone*> none;
    Decoder decoder(r, none);
    VdirComponentDetails details;
    decoder.read(details);
    return details;
  }

  std::pair<std::string, VdirFileRecord> record() {
    std::pair<std::string, VdirFileRecord> entry;
    walk(*this, entry.first, entry.second);
    if (entry.second.item && entry.second.item->relativePath != entry.first)
      r_.fail("an item filed under another path");
    return entry;
  }

  template <class T>
  void operator()(Tag tag, T& value) {
    if (expect(tag)) read(value);
  }
  template <class T>
  void operator()(Tag tag, Ranged<T> value) {
    if (expect(tag)) value.value = static_cast<T>(r_.within(value.lowest, value.highest, r_.i64()));
  }

 private:
  bool expect(Tag tag) {
    if (r_.u8() == static_cast<std::uint8_t>(tag)) return true;
    r_.fail("a field of no known tag, or out of its place");
    return false;
  }

  void read(std::string& value) { value = r_.text(); }
  void read(bool& value) { value = r_.flag(); }
  void read(double& value) { value = r_.f64(); }
  template <std::integral I>
  void read(I& value) {
    value = r_.number<I>();
  }
  void read(platform::Date& value) { value = platform::Date::fromTimeIntervalSince1970(r_.f64()); }
  void read(VdirDiagnostic::Action& value) {
    value = static_cast<VdirDiagnostic::Action>(
        r_.within(0, static_cast<std::int64_t>(VdirDiagnostic::Action::truncated), r_.u8()));
  }
  void read(VdirTime& value);
  void read(VdirCompactRule& value);
  void read(VdirDetails& value);
  template <class T>
  void read(std::optional<T>& value) {
    value.reset();
    if (!r_.flag()) return;
    read(value.emplace());
  }
  template <class T>
  void read(std::shared_ptr<T>& value) {
    value.reset();
    if (!r_.flag()) return;
    auto made = std::make_shared<std::remove_const_t<T>>();
    read(*made);
    value = std::move(made);
  }
  template <class T>
  void read(std::vector<T>& values) {
    values.resize(r_.count(kLeastBytes<T>));
    for (auto& value : values) read(value);
  }
  // A struct of the schema, then what must hold between its fields.
  template <class T>
  void read(T& value) {
    walk(*this, value);
    check(value);
  }

  template <class T>
  void check(const T&) {}
  void check(const VdirRuleData& rule);
  void check(const VdirSeriesData& series);
  void check(const VdirItem& item);

  VdirCacheReader& r_;
  const std::vector<const icaltimezone*>& zones_;
};

void Decoder::read(VdirTime& value) {
  value = VdirTime{};
  auto kind = r_.within(0, static_cast<std::int64_t>(VdirTime::Kind::zoned), r_.u8());
  value.kind = static_cast<VdirTime::Kind>(kind);
  icaltimetype& t = value.local;
  t = icaltime_null_time();
  // Years 1-9999, or the null time (all zero) of a time a file does not state.
  t.year = static_cast<int>(r_.within(0, 9999, r_.u16()));
  t.month = static_cast<int>(r_.within(0, 12, r_.u8()));
  t.day = static_cast<int>(r_.within(0, 31, r_.u8()));
  t.hour = static_cast<int>(r_.within(0, 23, r_.u8()));
  t.minute = static_cast<int>(r_.within(0, 59, r_.u8()));
  t.second = static_cast<int>(r_.within(0, 60, r_.u8()));
  t.is_date = static_cast<int>(r_.within(0, 1, r_.u8()));
  t.is_daylight = static_cast<int>(r_.within(0, 1, r_.u8()));
  t.zone = nullptr;
  std::uint32_t zone = r_.u32();
  value.tzid = r_.text();
  if (r_.failed()) return;
  if (zone == 1) {
    value.zone = builtinZone(value.tzid);
    if (!value.zone) return r_.fail("a time in an unknown built-in zone");
  } else if (zone >= 2) {
    if (zone - 2 >= zones_.size() || !zones_[zone - 2]) return r_.fail("a time in an undefined zone");
    value.zone = zones_[zone - 2];
  }
  if ((value.kind == VdirTime::Kind::zoned) != (value.zone != nullptr)) return r_.fail("a zoned time without a zone");
  if ((value.kind == VdirTime::Kind::date) != (t.is_date == 1)) return r_.fail("a date that is not a date");
}

// Reads what the Decoder reads, with the same checks, and keeps nothing: a component's details are
// checked when the cache is read, so that decoding them later cannot fail, and built only then.
class Checker {
 public:
  explicit Checker(VdirCacheReader& r) : r_(r) {}

  template <class T>
  void operator()(Tag tag, const T& value) {
    if (expect(tag)) skip(value);
  }
  template <class T>
  void operator()(Tag tag, Ranged<T> value) {
    if (expect(tag)) r_.within(value.lowest, value.highest, r_.i64());
  }

 private:
  bool expect(Tag tag) {
    if (r_.u8() == static_cast<std::uint8_t>(tag)) return true;
    r_.fail("a field of no known tag, or out of its place");
    return false;
  }

  void skip(const std::string&) {
    if (!isValidUtf8(r_.take(r_.u32()))) r_.fail("a text that is not UTF-8");
  }
  void skip(bool) { r_.flag(); }
  void skip(double) { r_.f64(); }
  void skip(const platform::Date&) { r_.f64(); }
  template <std::integral I>
  void skip(const I&) {
    r_.number<I>();
  }
  template <class T>
  void skip(const std::optional<T>&) {
    if (r_.flag()) skip(T{});
  }
  template <class T>
  void skip(const std::shared_ptr<T>&) {
    if (r_.flag()) skip(std::remove_const_t<T>{});
  }
  template <class T>
  void skip(const std::vector<T>&) {
    const T none{};
    for (std::size_t n = r_.count(kLeastBytes<T>); n > 0 && !r_.failed(); --n) skip(none);
  }
  template <class T>
  void skip(const T& value) {
    walk(*this, value);
  }

  VdirCacheReader& r_;
};

void Decoder::read(VdirDetails& value) {
  const std::string_view bytes = r_.take(r_.u32());
  if (r_.failed()) return;
  VdirCacheReader inner(bytes);
  Checker checker(inner);
  const VdirComponentDetails none;
  walk(checker, none);
  if (!inner.failed() && !inner.atEnd()) inner.fail("data after a component's details");
  if (inner.failed()) return r_.fail(inner.problem());
  value = VdirDetails(std::string(bytes), &Decoder::details);
}

void Decoder::read(VdirCompactRule& value) {
  std::string text = r_.text();
  const auto skip = r_.within(ICAL_SKIP_BACKWARD, ICAL_SKIP_UNDEFINED, r_.i64());
  if (r_.failed()) return;
  icalrecurrencetype rule = icalrecurrencetype_from_string(text.c_str());
  if (rule.freq == ICAL_NO_RECURRENCE || rule.interval < 1) {
    std::free(rule.rscale);
    return r_.fail("an unreadable rule");
  }
  rule.skip = static_cast<icalrecurrencetype_skip>(skip);
  value = VdirCompactRule(rule);
  std::free(rule.rscale);
}

void Decoder::check(const VdirRuleData& rule) {
  // A rule bounded by COUNT is always expanded when its file is read.
  if (rule.countedStarts.has_value() != (rule.rule.count() > 0))
    return r_.fail("a counted rule without its occurrences, or the reverse");
  if (rule.countedStarts && !std::is_sorted(rule.countedStarts->begin(), rule.countedStarts->end()))
    r_.fail("counted occurrences out of order");
}

void Decoder::check(const VdirSeriesData& series) {
  if (!std::is_sorted(series.exdates.begin(), series.exdates.end())) return r_.fail("excluded dates out of order");
  if (!std::ranges::is_sorted(series.rdatePeriods, {}, &VdirRdatePeriod::start))
    return r_.fail("periods out of order");
  for (const auto& period : series.rdatePeriods)
    if (period.length < 0.0) return r_.fail("a period that ends before it starts");
  // A cache holds only rules the files' reader accepted: any other one comes from damage, and
  // libical might never return from it.
  if (series.master && !r_.failed())
    for (const auto* rules : {&series.rules, &series.exclusionRules})
      for (const auto& rule : *rules)
        if (unservableRule(rule.rule.expanded(), series.master->start)) return r_.fail("a rule the reader refuses");
  for (const auto& override : series.overrides)
    if (!override.recurrenceInstant) return r_.fail("an override without the occurrence it replaces");
  if (!std::is_sorted(series.overrides.begin(), series.overrides.end(),
                      [](const auto& a, const auto& b) { return *a.recurrenceInstant < *b.recurrenceInstant; }))
    r_.fail("overrides out of order");
}

void Decoder::check(const VdirItem& item) {
  for (const auto& todo : item.todos)
    if (!todo.todoData) return r_.fail("a to-do without its to-do data");
}


// A failure whose message is the problem as the cache status reports it.
rivet::RivetError cacheFailure(std::string problem, const char* function, std::uint64_t line) {
  return rivet::RivetError(std::move(problem), std::nullopt, "VdirCache", function, line);
}

}  // namespace

std::uint64_t cachePayloadHash(std::string_view bytes) {
  std::uint64_t hash = 0x9E3779B97F4A7C15ull ^ bytes.size();
  std::size_t at = 0;
  for (; at + 8 <= bytes.size(); at += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes.data() + at, 8);
    hash = (hash ^ word) * 0xFF51AFD7ED558CCDull;
    hash ^= hash >> 32;
  }
  for (; at < bytes.size(); ++at) hash = (hash ^ static_cast<unsigned char>(bytes[at])) * 0x100000001B3ull;
  hash ^= hash >> 33;
  hash *= 0xC4CEB9FE1A85EC53ull;
  return hash ^ (hash >> 33);
}

void openCacheHeader(VdirCacheWriter& w, std::string_view magic, std::uint32_t format) {
  w.raw(magic.data(), magic.size());
  w.u32(format);
  w.u32(0);
  w.u64(0);  // the payload's length
  w.u64(0);  // its hash
}

void sealCacheHeader(std::string& out) {
  const std::string_view payload(out.data() + kCacheHeaderSize, out.size() - kCacheHeaderSize);
  const std::uint64_t length = payload.size(), hash = cachePayloadHash(payload);
  std::memcpy(out.data() + 16, &length, 8);
  std::memcpy(out.data() + 24, &hash, 8);
}

std::string sealedCachePayload(std::string_view magic, std::uint32_t format, std::string_view payload) {
  std::string out;
  VdirCacheWriter w(out);
  openCacheHeader(w, magic, format);
  out.append(payload);
  sealCacheHeader(out);
  return out;
}

rivet::RivetResult<std::string_view> cachePayload(std::string_view bytes, std::string_view magic,
                                                  std::uint32_t format, const char* function) {
  auto corrupt = [&](std::string problem) { return cacheFailure(std::move(problem), function, __LINE__); };
  VdirCacheReader header(bytes);
  const std::string_view start = header.take(magic.size());
  if (!header.failed() && start != magic) return corrupt("not a cache file");
  const std::uint32_t found = header.u32();
  header.u32();
  const std::uint64_t length = header.u64();
  const std::uint64_t hash = header.u64();
  if (header.failed()) return corrupt(header.problem());
  if (found != format) return corrupt("a cache of format " + std::to_string(found));
  if (length != bytes.size() - kCacheHeaderSize) return corrupt("the cache's length is wrong (cut short or grown)");
  std::string_view payload = bytes.substr(kCacheHeaderSize);
  if (cachePayloadHash(payload) != hash) return corrupt("the cache is damaged");
  return payload;
}

void VdirFileRecord::setVersion(const VdirFileStatus& status) {
  device = status.device;
  inode = status.inode;
  size = status.size;
  modified = status.modified;
  changed = status.changed;
}

std::string defaultCacheDirectory() {
  if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && cache[0] == '/') return std::string(cache) + "/vesp";
  if (const char* home = std::getenv("HOME"); home && home[0] == '/') return std::string(home) + "/.cache/vesp";
  return "";
}

namespace {

constexpr std::string_view kKeyStart = "vesp store cache\nroot=";
constexpr std::string_view kKeyAfterRoot = "\nzone=";
constexpr std::string_view kCachePrefix = "store-", kCacheSuffix = ".cache", kExpansionSuffix = ".expansions";

bool startsEnds(std::string_view name, std::string_view prefix, std::string_view suffix) {
  return name.size() >= prefix.size() + suffix.size() && name.substr(0, prefix.size()) == prefix &&
         name.substr(name.size() - suffix.size()) == suffix;
}

}  // namespace

std::string cacheKey(const std::string& root, const std::string& localZone, std::size_t maximumCountedOccurrences,
                     std::uintmax_t maximumFileSize, const std::vector<std::string>& userAddresses) {
  std::string key = std::string(kKeyStart) + root + std::string(kKeyAfterRoot) + localZone +
                    "\ncounted=" + std::to_string(maximumCountedOccurrences) +
                    "\nlargest=" + std::to_string(maximumFileSize) + "\naddresses=";
  for (const auto& address : userAddresses) key += address + ",";
  return key;
}

VdirCacheIdentity cacheIdentityOf(std::string_view start) {
  VdirCacheIdentity identity;
  VdirCacheReader r(start);
  const std::string_view magic = r.take(kMagic.size());
  const std::uint32_t format = r.u32();
  if (r.failed()) {
    identity.kind = VdirCacheIdentity::Kind::cutShort;
    return identity;
  }
  if (magic != kMagic || format != kVdirCacheFormat) return identity;
  r.take(kCacheHeaderSize - kMagic.size() - 4);
  r.text();  // libical's version
  const std::string key = r.text();
  if (r.failed()) {
    identity.kind = VdirCacheIdentity::Kind::cutShort;
    return identity;
  }
  const std::size_t end = key.find(kKeyAfterRoot, kKeyStart.size());
  if (key.compare(0, kKeyStart.size(), kKeyStart) != 0 || end == std::string::npos) return identity;
  identity.kind = VdirCacheIdentity::Kind::cache;
  identity.root = key.substr(kKeyStart.size(), end - kKeyStart.size());
  return identity;
}

std::size_t pruneCaches(VdirEnv& env, const std::string& directory, const std::string& kept,
                        const VdirCacheDirectoryLimits& limits) {
  constexpr std::size_t kKeyReach = 1 << 16;
  constexpr std::int64_t kHour = std::int64_t(3600) * 1000000000;
  auto entries = env.list(directory);
  if (!entries) return 0;
  std::size_t removed = 0;
  // A cache goes with the expansions kept beside it.
  auto discard = [&](const std::string& path) {
    removed += env.discard(path) ? 1 : 0;
    if (!startsEnds(path, "", kCacheSuffix)) return;
    const std::string expansions = expansionCachePath(path);
    if (auto found = env.status(expansions); found && *found) removed += env.discard(expansions) ? 1 : 0;
  };
  std::vector<std::pair<std::string, VdirFileStatus>> caches;  // the ones still wanted
  for (const auto& entry : *entries) {
    const std::string path = directory + "/" + entry.name;
    auto status = env.status(path);
    if (path == kept || !status || !*status || (*status)->kind != VdirFileKind::file) continue;
    // A write cut short (by a crash) leaves its temporary file: ".store-<hash>.cache.<pid>-<n>.tmp".
    if (startsEnds(entry.name, "." + std::string(kCachePrefix), ".tmp")) {
      if ((*status)->modified < env.now() - kHour) discard(path);
      continue;
    }
    if (startsEnds(entry.name, kCachePrefix, kExpansionSuffix)) {
      // Expansions whose cache is gone are of no use: they are taken over only with a cache's records.
      const std::string cache = path.substr(0, path.size() - kExpansionSuffix.size()) + std::string(kCacheSuffix);
      if (auto found = env.status(cache); found && !*found) discard(path);
      continue;
    }
    if (!startsEnds(entry.name, kCachePrefix, kCacheSuffix)) continue;
    auto start = env.readStart(path, kKeyReach);
    if (!start) continue;
    const VdirCacheIdentity identity = cacheIdentityOf(*start);
    if (identity.kind == VdirCacheIdentity::Kind::cutShort) continue;  // a key too long to look at: kept
    if (identity.kind == VdirCacheIdentity::Kind::foreign) {
      discard(path);
      continue;
    }
    auto root = env.status(identity.root);
    if (root && !*root) {
      discard(path);
      continue;
    }
    caches.emplace_back(path, **status);
  }
  // Newest first, after the store's own.
  std::sort(caches.begin(), caches.end(),
            [](const auto& a, const auto& b) { return a.second.modified > b.second.modified; });
  // Each cache counts with the expansions kept beside it.
  auto sizeOf = [&](const std::string& path) -> std::uint64_t {
    auto status = env.status(path);
    return status && *status ? static_cast<std::uint64_t>((*status)->size) : 0;
  };
  auto own = env.status(kept);
  std::size_t count = own && *own ? 1 : 0;
  std::uint64_t bytes = own && *own ? static_cast<std::uint64_t>((*own)->size) + sizeOf(expansionCachePath(kept)) : 0;
  for (const auto& [path, status] : caches) {
    ++count;
    bytes += static_cast<std::uint64_t>(status.size) + sizeOf(expansionCachePath(path));
    if (count > limits.caches || bytes > limits.bytes) discard(path);
  }
  return removed;
}

std::string cacheFilePath(const std::string& directory, const std::string& key) {
  char name[40];
  std::snprintf(name, sizeof name, "store-%016llx.cache", static_cast<unsigned long long>(cachePayloadHash(key)));
  return directory + "/" + name;
}

std::string expansionCachePath(const std::string& cacheFile) {
  std::string path = cacheFile;
  if (startsEnds(path, "", kCacheSuffix)) path.resize(path.size() - kCacheSuffix.size());
  return path + std::string(kExpansionSuffix);
}

bool trustedRecord(std::int64_t modified, std::int64_t changed, std::int64_t scannedAt) {
  constexpr std::int64_t second = 1000000000;
  const bool wholeSeconds = modified % second == 0 && changed % second == 0;
  const std::int64_t margin = wholeSeconds ? 2 * second + 1 : 50000000;
  return modified < scannedAt - margin && changed < scannedAt - margin;
}

std::string encodeCache(const std::string& key, const VdirFileRecords& records, const VdirZones& zones,
                        std::int64_t scannedAt, std::size_t& left) {
  left = 0;
  ZoneTable table(zones);
  // Written in place, once: the header's length and hash are filled in at the end. The zones come
  // after the entries, which decide which zones are needed.
  std::string out;
  VdirCacheWriter w(out);
  openCacheHeader(w, kMagic, kVdirCacheFormat);
  w.text(ICAL_VERSION);
  w.text(key);
  std::string entry;
  std::size_t blockStart = 0;
  std::uint32_t inBlock = 0;
  auto openBlock = [&] {
    blockStart = out.size();
    w.u64(0);  // the block's size
    w.u32(0);  // its entries
    inBlock = 0;
  };
  auto closeBlock = [&] {
    std::uint64_t size = out.size() - blockStart - 8;
    std::memcpy(out.data() + blockStart, &size, 8);
    std::memcpy(out.data() + blockStart + 8, &inBlock, 4);
  };
  openBlock();
  for (const auto& [path, file] : records) {
    if (!trustedRecord(file.modified, file.changed, scannedAt)) {
      ++left;
      continue;
    }
    entry.clear();
    Encoder encoder(entry, table);
    encoder.record(path, file);
    if (!encoder.storable()) continue;  // read again each time
    out += entry;
    if (++inBlock == kEntriesPerBlock) {
      closeBlock();
      openBlock();
    }
  }
  closeBlock();
  w.u64(0);  // no more blocks
  w.u32(static_cast<std::uint32_t>(table.definitions().size()));
  for (const auto& [tzid, text] : table.definitions()) {
    w.text(tzid);
    w.text(text);
  }
  sealCacheHeader(out);
  return out;
}

std::string sealCachePayload(std::string_view payload) {
  return sealedCachePayload(kMagic, kVdirCacheFormat, payload);
}

rivet::RivetResult<VdirFileRecords> decodeCache(std::string_view bytes, const std::string& key, VdirZones& zones,
                                                unsigned threads,
                                                const std::function<void(std::string_view)>& release) {
  auto corrupt = [](std::string problem) { return cacheFailure(std::move(problem), "decodeCache", __LINE__); };
  auto sealed = cachePayload(bytes, kMagic, kVdirCacheFormat, "decodeCache");
  if (!sealed) return sealed.error();
  const std::string_view payload = *sealed;
  // Checking the hash read every byte; the blocks are read once more, each by one thread, and
  // given back as each is decoded, so that the cache and what it decodes to are not held at once.
  if (release) release(payload);

  VdirCacheReader r(payload);
  if (r.text() != ICAL_VERSION && !r.failed()) return corrupt("a cache written with another libical");
  if (r.text() != key && !r.failed()) return corrupt("a cache of another store");
  std::vector<std::string_view> blocks;
  while (!r.failed()) {
    std::uint64_t size = r.u64();
    if (size == 0) break;
    if (size > payload.size()) r.fail("a block larger than the cache");
    blocks.push_back(r.take(static_cast<std::size_t>(size)));
  }
  std::vector<const icaltimezone*> table(r.count(8));
  for (auto& zone : table) {
    std::string tzid = r.text();
    std::string text = r.text();
    if (r.failed()) break;
    zone = zones.zoneFor(tzid, text).first;
    if (!zone) r.fail("an unusable zone definition");
  }
  if (!r.failed() && !r.atEnd()) r.fail("data after the zone definitions");
  if (r.failed()) return corrupt(r.problem());

  // Blocks decode independently; the first failure wins.
  std::vector<VdirFileRecords> decoded(blocks.size());
  std::vector<std::string> failures(blocks.size());
  runOnEveryCore(threads, blocks.size(), 1, [&](std::size_t b) {
    VdirCacheReader blockReader(blocks[b]);
    Decoder decoder(blockReader, table);
    auto& out = decoded[b];
    out.resize(blockReader.count(40));
    for (auto& entry : out) entry = decoder.record();
    if (!blockReader.failed() && !blockReader.atEnd()) blockReader.fail("data after a block's last entry");
    if (blockReader.failed()) failures[b] = blockReader.problem();
    if (release) release(blocks[b]);
  });
  for (const auto& failure : failures)
    if (!failure.empty()) return corrupt(failure);

  VdirFileRecords records;
  std::size_t total = 0;
  for (const auto& block : decoded) total += block.size();
  records.reserve(total);
  for (auto& block : decoded)
    for (auto& entry : block) records.push_back(std::move(entry));
  return records;
}

rivet::RivetResult<VdirFileRecords> readCache(VdirEnv& env, const std::string& path, const std::string& key,
                                              VdirZones& zones, unsigned threads) {
  auto status = env.status(path);
  if (status && !*status) return cacheFailure("no cache yet", "readCache", __LINE__);
  // Mapped, not copied: decoding copies what it keeps. The file is replaced by rename, never
  // rewritten in place, so the mapping stays as it was read.
  auto region = env.map(path);
  if (!region) return cacheFailure("the cache cannot be read: " + region.error().message(), "readCache", __LINE__);
  const VdirRegion& mapped = **region;
  return decodeCache(mapped.bytes(), key, zones, threads, [&mapped](std::string_view part) { mapped.release(part); });
}

rivet::RivetResult<void> writeCacheFile(VdirEnv& env, const std::string& path, std::string_view bytes) {
  auto made = env.createDirectories(fs::path(path).parent_path().string());
  if (!made) return cacheFailure("the cache directory cannot be made: " + made.error().message(), "writeCacheFile", __LINE__);
  // Not synced: a cache damaged by a crash fails its check when read and is rebuilt.
  auto written = env.replace(path, bytes, 0600, VdirDurability::unsynced);
  if (!written)
    return cacheFailure("the cache cannot be written: " + written.error().message(), "writeCacheFile", __LINE__);
  return rivet::RivetResultVoidSuccess;
}

}  // namespace vesp::vdir
