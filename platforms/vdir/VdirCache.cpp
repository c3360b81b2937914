#include "platforms/vdir/VdirCache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>

#include "platforms/vdir/VdirFiles.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

// Layout: the header (magic, format, payload length and hash), then the payload: libical's
// version, the key, the entries in blocks that decode independently (each: its size and its number
// of entries; a size of 0 ends them), and the zone definitions the entries refer to.
constexpr char kMagic[8] = {'V', 'E', 'S', 'P', 'S', 'T', 'O', 'R'};
constexpr std::size_t kHeaderSize = 8 + 4 + 4 + 8 + 8;
constexpr std::size_t kEntriesPerBlock = 2048;

// A 64-bit hash of the payload, eight bytes at a time (a damaged cache is caught by it; it is not
// a defence against a cache forged on purpose, which the decoder's checks are for).
std::uint64_t payloadHash(std::string_view bytes) {
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

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}
  void raw(const void* data, std::size_t size) { out_.append(static_cast<const char*>(data), size); }
  void u8(std::uint8_t value) { raw(&value, 1); }
  void u16(std::uint16_t value) { raw(&value, 2); }
  void u32(std::uint32_t value) { raw(&value, 4); }
  void u64(std::uint64_t value) { raw(&value, 8); }
  void i64(std::int64_t value) { raw(&value, 8); }
  void f64(double value) { raw(&value, 8); }
  void text(std::string_view value) {
    u32(static_cast<std::uint32_t>(value.size()));
    raw(value.data(), value.size());
  }
  void flag(bool value) { u8(value ? 1 : 0); }

 private:
  std::string& out_;
};

struct Corrupt : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}
  bool atEnd() const { return at_ == bytes_.size(); }
  std::string_view take(std::size_t size) {
    if (size > bytes_.size() - at_) throw Corrupt("the cache ends early");
    auto part = bytes_.substr(at_, size);
    at_ += size;
    return part;
  }
  template <typename T>
  T number() {
    T value;
    std::memcpy(&value, take(sizeof value).data(), sizeof value);
    return value;
  }
  std::uint8_t u8() { return number<std::uint8_t>(); }
  std::uint16_t u16() { return number<std::uint16_t>(); }
  int small(int lowest, int highest, int value) {
    if (value < lowest || value > highest) throw Corrupt("a value out of range");
    return value;
  }
  std::uint32_t u32() { return number<std::uint32_t>(); }
  std::uint64_t u64() { return number<std::uint64_t>(); }
  std::int64_t i64() { return number<std::int64_t>(); }
  // Seconds since 1970 (or a span): finite and within years 1-9999 give or take.
  double f64() {
    double value = number<double>();
    if (!std::isfinite(value) || std::fabs(value) > 1e13) throw Corrupt("a time out of range");
    return value;
  }
  bool flag() {
    std::uint8_t value = u8();
    if (value > 1) throw Corrupt("a flag out of range");
    return value == 1;
  }
  std::string text() {
    std::uint32_t size = u32();
    auto part = take(size);
    if (!isValidUtf8(part)) throw Corrupt("a text that is not UTF-8");
    return std::string(part);
  }
  // A count of things each at least `least` bytes long, checked against what is left.
  std::size_t count(std::size_t least = 1) {
    std::uint32_t value = u32();
    if (value > (bytes_.size() - at_) / least) throw Corrupt("a count larger than the cache");
    return value;
  }
  std::int64_t integer(std::int64_t lowest, std::int64_t highest) {
    std::int64_t value = i64();
    if (value < lowest || value > highest) throw Corrupt("a value out of range");
    return value;
  }

 private:
  std::string_view bytes_;
  std::size_t at_ = 0;
};

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

struct Unstorable {};

class Encoder {
 public:
  Encoder(std::string& out, ZoneTable& zones) : w_(out), zones_(zones) {}

  void date(const std::optional<platform::Date>& value) {
    w_.flag(value.has_value());
    if (value) w_.f64(value->timeIntervalSince1970());
  }
  void optionalText(const std::optional<std::string>& value) {
    w_.flag(value.has_value());
    if (value) w_.text(*value);
  }
  void optionalNumber(const std::optional<double>& value) {
    w_.flag(value.has_value());
    if (value) w_.f64(*value);
  }
  void time(const VdirTime& value) {
    w_.u8(static_cast<std::uint8_t>(value.kind));
    const icaltimetype& t = value.local;
    w_.u16(static_cast<std::uint16_t>(t.year));
    for (int field : {t.month, t.day, t.hour, t.minute, t.second, t.is_date, t.is_daylight})
      w_.u8(static_cast<std::uint8_t>(field));
    auto zone = zones_.reference(value.zone, value.tzid);
    if (!zone) throw Unstorable{};
    w_.u32(*zone);
    w_.text(value.tzid);
  }
  void optionalTime(const std::optional<VdirTime>& value) {
    w_.flag(value.has_value());
    if (value) time(*value);
  }
  void participant(const VdirParticipantData& value) {
    optionalText(value.name);
    w_.text(value.address);
    w_.i64(value.role);
    w_.i64(value.status);
    w_.i64(value.type);
    w_.flag(value.isCurrentUser);
  }
  void location(const std::shared_ptr<const VdirLocationData>& value) {
    w_.flag(value != nullptr);
    if (!value) return;
    optionalText(value->title);
    optionalNumber(value->latitude);
    optionalNumber(value->longitude);
    w_.f64(value->radius);
  }
  void component(const VdirComponentData& c) {
    w_.text(c.uid);
    for (const auto* text : {&c.summary, &c.description, &c.location, &c.url}) optionalText(*text);
    date(c.created);
    date(c.lastModified);
    w_.i64(c.status);
    w_.i64(c.availability);
    w_.u32(static_cast<std::uint32_t>(c.attendees.size()));
    for (const auto& attendee : c.attendees) participant(attendee);
    w_.flag(c.organizer.has_value());
    if (c.organizer) participant(*c.organizer);
    w_.u32(static_cast<std::uint32_t>(c.alarms.size()));
    for (const auto& alarm : c.alarms) {
      date(alarm.absoluteDate);
      w_.f64(alarm.relativeOffset);
      w_.i64(alarm.type);
      w_.i64(alarm.proximity);
      location(alarm.location);
    }
    location(c.structuredLocation);
    optionalNumber(c.travelTime);
    optionalText(c.timeZoneName);
    time(c.start);
    w_.f64(c.durationSeconds);
    w_.i64(c.durationDays);
    w_.flag(c.hasStart);
    date(c.recurrenceInstant);
    w_.flag(c.todoData != nullptr);
    if (!c.todoData) return;
    const VdirTodoData& todo = *c.todoData;
    w_.text(todo.identifier);
    optionalTime(todo.due);
    optionalTime(todo.start);
    date(todo.dueInstant);
    date(todo.completed);
    w_.flag(todo.isCompleted);
    w_.i64(todo.priority);
  }
  void rule(const VdirRuleData& r) {
    icalrecurrencetype copy = r.rule.expanded();
    char* text = icalrecurrencetype_as_string_r(&copy);
    std::string rule = text ? text : "";
    std::free(text);
    if (rule.empty()) throw Unstorable{};
    w_.text(rule);  // with RSCALE, and SKIP when RSCALE is there
    w_.i64(copy.skip);
    w_.text(r.rscaleName);
    w_.flag(r.statesWeekStart);
    date(r.until);
    w_.flag(r.countedStarts.has_value());
    if (r.countedStarts) {
      w_.u32(static_cast<std::uint32_t>(r.countedStarts->size()));
      for (double start : *r.countedStarts) w_.f64(start);
    }
  }
  void series(const VdirSeriesData& s) {
    w_.text(s.identifier);
    w_.flag(s.master.has_value());
    if (s.master) component(*s.master);
    w_.u32(static_cast<std::uint32_t>(s.rules.size()));
    for (const auto& r : s.rules) rule(r);
    w_.u32(static_cast<std::uint32_t>(s.exclusionRules.size()));
    for (const auto& r : s.exclusionRules) rule(r);
    w_.u32(static_cast<std::uint32_t>(s.rdates.size()));
    for (const auto& rdate : s.rdates) time(rdate);
    w_.u32(static_cast<std::uint32_t>(s.exdates.size()));
    for (double exdate : s.exdates) w_.f64(exdate);
    w_.u32(static_cast<std::uint32_t>(s.overrides.size()));
    for (const auto& override : s.overrides) component(override);
    w_.f64(s.firstStart);
    optionalNumber(s.lastEnd);
  }
  void record(const std::string& path, const VdirFileRecord& file) {
    w_.text(path);
    w_.u64(static_cast<std::uint64_t>(file.device));
    w_.u64(static_cast<std::uint64_t>(file.inode));
    w_.i64(static_cast<std::int64_t>(file.size));
    w_.i64(file.modified);
    w_.i64(file.changed);
    w_.u32(static_cast<std::uint32_t>(file.diagnostics.size()));
    for (const auto& diagnostic : file.diagnostics) {
      w_.text(diagnostic.path);
      w_.u8(static_cast<std::uint8_t>(diagnostic.action));
      w_.text(diagnostic.problem);
    }
    w_.flag(file.item != nullptr);
    if (!file.item) return;
    const VdirItem& item = *file.item;
    w_.text(item.relativePath);
    w_.u32(static_cast<std::uint32_t>(item.series.size()));
    for (const auto& s : item.series) series(s);
    w_.u32(static_cast<std::uint32_t>(item.todos.size()));
    for (const auto& todo : item.todos) component(todo);
  }

 private:
  Writer w_;
  ZoneTable& zones_;
};

class Decoder {
 public:
  Decoder(Reader& r, const std::vector<const icaltimezone*>& zones) : r_(r), zones_(zones) {}

  std::optional<platform::Date> date() {
    if (!r_.flag()) return std::nullopt;
    return platform::Date::fromTimeIntervalSince1970(r_.f64());
  }
  std::optional<std::string> optionalText() {
    if (!r_.flag()) return std::nullopt;
    return r_.text();
  }
  std::optional<double> optionalNumber() {
    if (!r_.flag()) return std::nullopt;
    return r_.f64();
  }
  VdirTime timeValue() {
    VdirTime value;
    auto kind = r_.u8();
    if (kind > static_cast<std::uint8_t>(VdirTime::Kind::zoned)) throw Corrupt("a time of no known kind");
    value.kind = static_cast<VdirTime::Kind>(kind);
    icaltimetype& t = value.local;
    t = icaltime_null_time();
    // Years 1-9999, or the null time (all zero) of a time a file does not state.
    t.year = r_.small(0, 9999, r_.u16());
    t.month = r_.small(0, 12, r_.u8());
    t.day = r_.small(0, 31, r_.u8());
    t.hour = r_.small(0, 23, r_.u8());
    t.minute = r_.small(0, 59, r_.u8());
    t.second = r_.small(0, 60, r_.u8());
    t.is_date = r_.small(0, 1, r_.u8());
    t.is_daylight = r_.small(0, 1, r_.u8());
    t.zone = nullptr;
    std::uint32_t zone = r_.u32();
    value.tzid = r_.text();
    if (zone == 1) {
      value.zone = builtinZone(value.tzid);
      if (!value.zone) throw Corrupt("a time in an unknown built-in zone");
    } else if (zone >= 2) {
      if (zone - 2 >= zones_.size() || !zones_[zone - 2]) throw Corrupt("a time in an undefined zone");
      value.zone = zones_[zone - 2];
    }
    if ((value.kind == VdirTime::Kind::zoned) != (value.zone != nullptr)) throw Corrupt("a zoned time without a zone");
    if ((value.kind == VdirTime::Kind::date) != (t.is_date == 1)) throw Corrupt("a date that is not a date");
    return value;
  }
  std::optional<VdirTime> optionalTime() {
    if (!r_.flag()) return std::nullopt;
    return timeValue();
  }
  VdirParticipantData participant() {
    VdirParticipantData value;
    value.name = optionalText();
    value.address = r_.text();
    value.role = r_.integer(platform::EKParticipantRoleUnknown, platform::EKParticipantRoleLast);
    value.status = r_.integer(platform::EKParticipantStatusUnknown, platform::EKParticipantStatusLast);
    value.type = r_.integer(platform::EKParticipantTypeUnknown, platform::EKParticipantTypeLast);
    value.isCurrentUser = r_.flag();
    return value;
  }
  std::shared_ptr<const VdirLocationData> location() {
    if (!r_.flag()) return nullptr;
    auto value = std::make_shared<VdirLocationData>();
    value->title = optionalText();
    value->latitude = optionalNumber();
    value->longitude = optionalNumber();
    value->radius = r_.f64();
    return value;
  }
  VdirComponentData component() {
    VdirComponentData c;
    c.uid = r_.text();
    for (auto* text : {&c.summary, &c.description, &c.location, &c.url}) *text = optionalText();
    c.created = date();
    c.lastModified = date();
    c.status = r_.integer(platform::EKEventStatusNone, platform::EKEventStatusLast);
    c.availability = r_.integer(platform::EKEventAvailabilityNotSupported, platform::EKEventAvailabilityLast);
    c.attendees.resize(r_.count(16));
    for (auto& attendee : c.attendees) attendee = participant();
    if (r_.flag()) c.organizer = participant();
    c.alarms.resize(r_.count(26));
    for (auto& alarm : c.alarms) {
      alarm.absoluteDate = date();
      alarm.relativeOffset = r_.f64();
      alarm.type = r_.integer(platform::EKAlarmTypeDisplay, platform::EKAlarmTypeLast);
      alarm.proximity = r_.integer(platform::EKAlarmProximityNone, platform::EKAlarmProximityLast);
      alarm.location = location();
    }
    c.structuredLocation = location();
    c.travelTime = optionalNumber();
    c.timeZoneName = optionalText();
    c.start = timeValue();
    c.durationSeconds = r_.f64();
    c.durationDays = static_cast<int>(r_.integer(-3660000, 3660000));
    c.hasStart = r_.flag();
    c.recurrenceInstant = date();
    if (!r_.flag()) return c;
    auto todo = std::make_shared<VdirTodoData>();
    todo->identifier = r_.text();
    todo->due = optionalTime();
    todo->start = optionalTime();
    todo->dueInstant = date();
    todo->completed = date();
    todo->isCompleted = r_.flag();
    todo->priority = r_.i64();
    c.todoData = std::move(todo);
    return c;
  }
  VdirRuleData rule() {
    VdirRuleData value;
    std::string text = r_.text();
    icalrecurrencetype rule = icalrecurrencetype_from_string(text.c_str());
    if (rule.freq == ICAL_NO_RECURRENCE || rule.interval < 1) {
      std::free(rule.rscale);
      throw Corrupt("an unreadable rule");
    }
    // SKIP is kept as parsed even without RSCALE (libical honours it), which the text leaves out.
    const auto skip = r_.integer(ICAL_SKIP_BACKWARD, ICAL_SKIP_UNDEFINED);
    rule.skip = static_cast<icalrecurrencetype_skip>(skip);
    value.rule = VdirCompactRule(rule);
    std::free(rule.rscale);
    value.rscaleName = r_.text();
    value.statesWeekStart = r_.flag();
    value.until = date();
    // A rule bounded by COUNT is always expanded when its file is read.
    const bool counted = rule.count > 0;
    if (r_.flag() != counted) throw Corrupt("a counted rule without its occurrences, or the reverse");
    if (counted) {
      std::vector<double> starts(r_.count(8));
      for (double& start : starts) start = r_.f64();
      if (!std::is_sorted(starts.begin(), starts.end())) throw Corrupt("counted occurrences out of order");
      value.countedStarts = std::move(starts);
    }
    return value;
  }
  VdirSeriesData series() {
    VdirSeriesData s;
    s.identifier = r_.text();
    if (r_.flag()) s.master = component();
    s.rules.resize(r_.count(8));
    for (auto& r : s.rules) r = rule();
    s.exclusionRules.resize(r_.count(8));
    for (auto& r : s.exclusionRules) r = rule();
    s.rdates.resize(r_.count(8));
    for (auto& rdate : s.rdates) rdate = timeValue();
    s.exdates.resize(r_.count(8));
    for (double& exdate : s.exdates) exdate = r_.f64();
    if (!std::is_sorted(s.exdates.begin(), s.exdates.end())) throw Corrupt("excluded dates out of order");
    s.overrides.resize(r_.count(64));
    for (auto& override : s.overrides) {
      override = component();
      if (!override.recurrenceInstant) throw Corrupt("an override without the occurrence it replaces");
    }
    if (!std::is_sorted(s.overrides.begin(), s.overrides.end(), [](const auto& a, const auto& b) {
          return *a.recurrenceInstant < *b.recurrenceInstant;
        }))
      throw Corrupt("overrides out of order");
    s.firstStart = r_.f64();
    s.lastEnd = optionalNumber();
    return s;
  }
  std::pair<std::string, VdirFileRecord> record() {
    std::pair<std::string, VdirFileRecord> entry;
    entry.first = r_.text();
    VdirFileRecord& file = entry.second;
    file.device = static_cast<dev_t>(r_.u64());
    file.inode = static_cast<ino_t>(r_.u64());
    file.size = static_cast<off_t>(r_.integer(0, std::numeric_limits<off_t>::max()));
    file.modified = r_.i64();
    file.changed = r_.i64();
    file.diagnostics.resize(r_.count(9));
    for (auto& diagnostic : file.diagnostics) {
      diagnostic.path = r_.text();
      auto action = r_.u8();
      if (action > static_cast<std::uint8_t>(VdirDiagnostic::Action::truncated)) throw Corrupt("an unknown action");
      diagnostic.action = static_cast<VdirDiagnostic::Action>(action);
      diagnostic.problem = r_.text();
    }
    if (!r_.flag()) return entry;
    auto item = std::make_shared<VdirItem>();
    item->relativePath = r_.text();
    if (item->relativePath != entry.first) throw Corrupt("an item filed under another path");
    item->series.resize(r_.count(16));
    for (auto& s : item->series) s = series();
    item->todos.resize(r_.count(64));
    for (auto& todo : item->todos) {
      todo = component();
      if (!todo.todoData) throw Corrupt("a to-do without its to-do data");
    }
    file.item = std::move(item);
    return entry;
  }

 private:
  Reader& r_;
  const std::vector<const icaltimezone*>& zones_;
};

std::string errorText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// A failure whose message is the problem as the cache status reports it.
rivet::RivetError cacheFailure(std::string problem, const char* function, std::uint64_t line) {
  return rivet::RivetError(std::move(problem), std::nullopt, "VdirCache", function, line);
}

}  // namespace

std::string defaultCacheDirectory() {
  if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && cache[0] == '/') return std::string(cache) + "/vesp";
  if (const char* home = std::getenv("HOME"); home && home[0] == '/') return std::string(home) + "/.cache/vesp";
  return "";
}

std::string cacheFilePath(const std::string& directory, const std::string& key) {
  char name[40];
  std::snprintf(name, sizeof name, "store-%016llx.cache", static_cast<unsigned long long>(payloadHash(key)));
  return directory + "/" + name;
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
  Writer w(out);
  w.raw(kMagic, sizeof kMagic);
  w.u32(kVdirCacheFormat);
  w.u32(0);
  w.u64(0);  // payload length
  w.u64(0);  // payload hash
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
    try {
      encoder.record(path, file);
    } catch (const Unstorable&) {
      continue;  // read again each time
    }
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
  std::string_view payload(out.data() + kHeaderSize, out.size() - kHeaderSize);
  std::uint64_t length = payload.size(), hash = payloadHash(payload);
  std::memcpy(out.data() + 16, &length, 8);
  std::memcpy(out.data() + 24, &hash, 8);
  return out;
}

std::string sealCachePayload(std::string_view payload) {
  std::string out;
  Writer w(out);
  w.raw(kMagic, sizeof kMagic);
  w.u32(kVdirCacheFormat);
  w.u32(0);
  w.u64(payload.size());
  w.u64(payloadHash(payload));
  out.append(payload);
  return out;
}

rivet::RivetResult<VdirFileRecords> decodeCache(std::string_view bytes, const std::string& key, VdirZones& zones,
                                                unsigned threads) {
  try {
    Reader header(bytes);
    if (header.take(sizeof kMagic) != std::string_view(kMagic, sizeof kMagic)) throw Corrupt("not a cache file");
    if (std::uint32_t format = header.u32(); format != kVdirCacheFormat)
      throw Corrupt("a cache of format " + std::to_string(format));
    header.u32();
    std::uint64_t length = header.u64();
    std::uint64_t hash = header.u64();
    if (length != bytes.size() - kHeaderSize) throw Corrupt("the cache's length is wrong (cut short or grown)");
    std::string_view payload = bytes.substr(kHeaderSize);
    if (payloadHash(payload) != hash) throw Corrupt("the cache is damaged");

    Reader r(payload);
    if (r.text() != ICAL_VERSION) throw Corrupt("a cache written with another libical");
    if (r.text() != key) throw Corrupt("a cache of another store");
    std::vector<std::string_view> blocks;
    for (;;) {
      std::uint64_t size = r.u64();
      if (size == 0) break;
      if (size > payload.size()) throw Corrupt("a block larger than the cache");
      blocks.push_back(r.take(static_cast<std::size_t>(size)));
    }
    std::vector<const icaltimezone*> table(r.count(8));
    for (auto& zone : table) {
      std::string tzid = r.text();
      std::string text = r.text();
      zone = zones.zoneFor(tzid, text).first;
      if (!zone) throw Corrupt("an unusable zone definition");
    }
    if (!r.atEnd()) throw Corrupt("data after the zone definitions");

    // Blocks decode independently; the first failure wins.
    std::vector<std::vector<std::pair<std::string, VdirFileRecord>>> decoded(blocks.size());
    std::vector<std::string> failures(blocks.size());
    std::atomic<std::size_t> next{0};
    auto work = [&] {
      for (std::size_t b; (b = next++) < blocks.size();) {
        try {
          Reader blockReader(blocks[b]);
          Decoder decoder(blockReader, table);
          auto& out = decoded[b];
          out.resize(blockReader.count(40));
          for (auto& entry : out) entry = decoder.record();
          if (!blockReader.atEnd()) throw Corrupt("data after a block's last entry");
        } catch (const std::exception& error) {
          failures[b] = error.what();
          if (failures[b].empty()) failures[b] = "a damaged block";
        }
      }
    };
    unsigned workers = std::min<unsigned>(std::max(1u, threads), static_cast<unsigned>(blocks.size()));
    std::vector<std::thread> pool;
    for (unsigned i = 1; i < workers; ++i) pool.emplace_back(work);
    work();
    for (auto& thread : pool) thread.join();
    for (const auto& failure : failures)
      if (!failure.empty()) throw Corrupt(failure);

    VdirFileRecords records;
    std::size_t total = 0;
    for (const auto& block : decoded) total += block.size();
    records.reserve(total);
    for (auto& block : decoded)
      for (auto& entry : block) records.push_back(std::move(entry));
    return records;
  } catch (const std::exception& error) {
    return cacheFailure(error.what(), "decodeCache", __LINE__);
  }
}

rivet::RivetResult<VdirFileRecords> readCache(const std::string& path, const std::string& key, VdirZones& zones,
                                              unsigned threads) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return cacheFailure(errno == ENOENT ? "no cache yet" : errorText("the cache cannot be read"), "readCache", __LINE__);
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    auto failure = cacheFailure(errorText("the cache cannot be read"), "readCache", __LINE__);
    ::close(fd);
    return failure;
  }
  if (status.st_size == 0) {
    ::close(fd);
    return decodeCache({}, key, zones, threads);
  }
  // Mapped, not copied: decoding copies what it keeps. The file is replaced by rename, never
  // rewritten in place, so the mapping stays as it was read.
  const auto size = static_cast<std::size_t>(status.st_size);
  void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
  ::close(fd);
  if (mapped == MAP_FAILED) return cacheFailure(errorText("the cache cannot be read"), "readCache", __LINE__);
  auto records = decodeCache(std::string_view(static_cast<const char*>(mapped), size), key, zones, threads);
  ::munmap(mapped, size);
  return records;
}

rivet::RivetResult<void> writeCacheFile(const std::string& path, std::string_view bytes) {
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  if (error) return cacheFailure("the cache directory cannot be made: " + error.message(), "writeCacheFile", __LINE__);
  // Not synced: a cache damaged by a crash fails its check when read and is rebuilt.
  auto written = replaceFile(path, bytes, 0600, VdirDurability::unsynced);
  if (!written)
    return cacheFailure("the cache cannot be written: " + written.error().message(), "writeCacheFile", __LINE__);
  return rivet::RivetResultVoidSuccess;
}

}  // namespace vesp::vdir
