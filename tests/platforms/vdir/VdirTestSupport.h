// Helpers for tests of the vdir platform: temporary store trees, copies of the test data, and a
// platform over them with Europe/Berlin as local zone and an access file of its own.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <set>
#include <string>
#include <vector>

#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirEventStore.h"
#include "platforms/vdir/VdirStore.h"

namespace vesp::vdir::testing {

namespace fs = std::filesystem;

// The vdir code an error carries, if it carries one.
inline std::optional<VdirErrorCode> codeOf(const rivet::RivetError& error) {
  if (!error.frameworkError() || error.frameworkError()->domain() != VdirErrorDomain) return std::nullopt;
  return static_cast<VdirErrorCode>(error.frameworkError()->code());
}

inline fs::path testData(const std::string& name) { return fs::path(VESP_TEST_DATA_DIR) / "vdir" / name; }

// A directory that is removed (with everything in it) when the object goes.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "vesp-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() {
    std::error_code error;
    // Restore permissions a test took away, so that everything can be removed.
    for (auto it = fs::recursive_directory_iterator(path_, fs::directory_options::skip_permission_denied, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, error);
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(path_, error);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

inline void writeFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Every calendar file the suite has: the .ics files of the golden trees and the sample store, and
// every input of the item fuzzer's corpus and regressions, in a stable order.
inline std::vector<fs::path> everyCalendarFile() {
  const fs::path root = fs::path(VESP_TEST_DATA_DIR).parent_path().parent_path();
  std::vector<fs::path> files;
  for (const char* tree : {"tests/data", "examples/calendars", "fuzz/corpus/item", "fuzz/regressions/item"}) {
    if (!fs::exists(root / tree)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root / tree)) {
      const bool fuzzInput = std::string(tree).rfind("fuzz/", 0) == 0;
      if (entry.is_regular_file() && (fuzzInput || entry.path().extension() == ".ics")) files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// A one-event calendar file in UTC.
inline std::string simpleEvent(const std::string& uid, const std::string& summary, const std::string& start,
                               const std::string& end, const std::string& extra = "") {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:" + uid +
         "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:" + summary + "\r\nDTSTART:" + start + "\r\nDTEND:" + end + "\r\n" +
         extra + "END:VEVENT\r\nEND:VCALENDAR\r\n";
}

// This machine's files and clock, with what a test changes. Set the members before the store
// that uses this is made (except loseNextChanges, which may be set at any time).
class TestEnv : public VdirEnvWrapper {
 public:
  TestEnv() : VdirEnvWrapper(VdirEnv::posix()) {}

  // The time (none: the real clock).
  std::function<std::int64_t()> clock;
  // Called after `directory` is listed, before any file in it is looked at or read: a test
  // deletes, renames or truncates a file there between listing and reading. It is called on
  // whichever thread lists, the cache writer's among them (it lists the cache directory).
  std::function<void(const std::string& directory)> afterListing;
  // For a file of this name, the error its reads fail with (none: they do not fail).
  std::function<std::optional<std::string>(const std::string& name)> failRead;
  // The watch loses the next changes it sees and reports an overflow of its queue instead.
  std::atomic<bool> loseNextChanges{false};

  using VdirEnvWrapper::read;
  rivet::RivetResult<std::vector<VdirDirectoryEntry>> list(const std::string& directory) override {
    auto entries = target().list(directory);
    if (afterListing) afterListing(directory);
    return entries;
  }
  rivet::RivetResult<std::optional<VdirFileText>> read(const VdirDirectory& directory, const std::string& name,
                                                       std::uintmax_t limit) override {
    if (failRead)
      if (auto error = failRead(name)) return rivet::RivetError(*error, std::nullopt, "TestEnv", "read", __LINE__);
    return target().read(directory, name, limit);
  }
  rivet::RivetResult<std::unique_ptr<VdirDirectoryWatch>> watch() override {
    auto inner = target().watch();
    if (!inner) return inner;
    return std::unique_ptr<VdirDirectoryWatch>(std::make_unique<LosingWatch>(std::move(inner).value(), *this));
  }
  std::int64_t now() override { return clock ? clock() : target().now(); }

 private:
  class LosingWatch : public VdirDirectoryWatch {
   public:
    LosingWatch(std::unique_ptr<VdirDirectoryWatch> inner, TestEnv& env) : inner_(std::move(inner)), env_(env) {}
    bool add(const std::string& directory) override { return inner_->add(directory); }
    void remove(const std::string& directory) override { inner_->remove(directory); }
    Wake wait(std::chrono::milliseconds timeout, std::vector<Change>& changes) override {
      std::vector<Change> seen;
      Wake woke = inner_->wait(timeout, seen);
      if (!seen.empty() && env_.loseNextChanges.exchange(false)) seen = {{Event::overflowed, {}}};
      changes.insert(changes.end(), seen.begin(), seen.end());
      return woke;
    }
    void stop() override { inner_->stop(); }

   private:
    std::unique_ptr<VdirDirectoryWatch> inner_;
    TestEnv& env_;
  };
};

// A clock ten seconds ahead of the real one: files written just now already count as settled
// (older than a scan's timestamp granularity), so they are cached without waiting.
inline std::shared_ptr<VdirEnv> settledClock() {
  auto env = std::make_shared<TestEnv>();
  env->clock = [] {
    auto now = std::chrono::system_clock::now() + std::chrono::seconds(10);
    return static_cast<std::int64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count());
  };
  return env;
}

inline VdirPlatformOptions platformOptions(const fs::path& root, const fs::path& accessFile, bool watch = false) {
  VdirPlatformOptions options;
  options.store.root = root.string();
  options.store.localTimeZone = "Europe/Berlin";
  options.store.watch = watch;
  options.store.quietPeriod = std::chrono::milliseconds(50);
  options.store.maximumDelay = std::chrono::milliseconds(400);
  options.accessFile = accessFile.string();
  return options;
}

// Seconds since 1970 of a UTC date and time.
inline platform::Date utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  return platform::Date::fromTimeIntervalSince1970(civilSecondsSince1970(year, month, day, hour, minute, second));
}

// Every file under `root` with its bytes and modification time, to show a session changed nothing.
inline std::map<std::string, std::pair<std::string, std::int64_t>> treeState(const fs::path& root) {
  std::map<std::string, std::pair<std::string, std::int64_t>> state;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat status {};
    ::lstat(entry.path().c_str(), &status);
    std::int64_t modified = static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
    state[fs::relative(entry.path(), root).string()] = {entry.is_regular_file() ? readFile(entry.path()) : "", modified};
  }
  return state;
}

// Zone names that the system's zone data has but zone.tab does not list (the old aliases real
// files still carry: US/Eastern, Asia/Calcutta, ...), sorted, at most `limit` of them. libical
// loads such a zone by name and appends it to its process-wide table of built-in zones.
inline std::vector<std::string> zoneAliases(std::size_t limit) {
  const fs::path zoneinfo = "/usr/share/zoneinfo";
  std::set<std::string> listed;
  std::ifstream table(zoneinfo / "zone.tab");
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string code, coordinates, name;
    if (std::getline(fields, code, '\t') && std::getline(fields, coordinates, '\t') && std::getline(fields, name, '\t'))
      listed.insert(name);
  }
  std::set<std::string> aliases;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(zoneinfo, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error)) {
    std::string name = it->path().lexically_relative(zoneinfo).string();
    if (name.starts_with("posix") || name.starts_with("right")) {
      if (it->is_directory()) it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file() || listed.count(name) || name == "UTC" || name == "GMT" || name == "localtime" ||
        name == "posixrules" || name == "Factory")
      continue;
    if (readFile(it->path()).substr(0, 4) == "TZif") aliases.insert(name);
  }
  std::vector<std::string> names(aliases.begin(), aliases.end());
  if (names.size() > limit) names.resize(limit);
  return names;
}

// A store of one collection per zone alias, each holding one weekly event from Monday
// 2026-01-05 09:00 in that zone with no VTIMEZONE, its second occurrence excluded. Every other
// file names its zone with libical's own TZID prefix, which libical resolves by name on its own.
inline void writeZoneAliasStore(const fs::path& root, const std::vector<std::string>& names) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::string tzid = i % 2 ? "/freeassociation.sourceforge.net/" + names[i] : names[i];
    char collection[32];
    std::snprintf(collection, sizeof collection, "c%03zu", i);
    writeFile(root / collection / "weekly.ics",
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:alias-" +
                  std::to_string(i) + "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Weekly in " + names[i] +
                  "\r\nDTSTART;TZID=" + tzid + ":20260105T090000\r\nDTEND;TZID=" + tzid +
                  ":20260105T100000\r\nRRULE:FREQ=WEEKLY\r\nEXDATE;TZID=" + tzid +
                  ":20260112T090000\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  }
}

}  // namespace vesp::vdir::testing
