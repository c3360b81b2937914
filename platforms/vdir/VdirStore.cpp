#include "platforms/vdir/VdirStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <ctime>
#include <future>
#include <limits>
#include <unordered_map>

#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

bool hidden(const std::string& name) { return name.empty() || name[0] == '.'; }

// The version of a file a record is valid for.
void setVersion(VdirFileRecord& record, const struct stat& status) {
  record.device = status.st_dev;
  record.inode = status.st_ino;
  record.size = status.st_size;
  record.modified = nanoseconds(status.st_mtim);
  record.changed = nanoseconds(status.st_ctim);
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Reads a small metadata file ("displayname", "color"); absent when there is none.
std::optional<std::string> readSmallFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(fd, buffer, sizeof buffer)) > 0 && text.size() < 65536) text.append(buffer, count);
  ::close(fd);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
    text.pop_back();
  return text;
}

// A stable colour for a collection without a "color" file, chosen by its identifier.
platform::CGColorRef defaultColour(const std::string& identifier) {
  static const unsigned palette[] = {0x1F77B4, 0xFF7F0E, 0x2CA02C, 0xD62728, 0x9467BD, 0x8C564B, 0xE377C2, 0x17BECF};
  std::uint32_t hash = 2166136261u;
  for (unsigned char c : identifier) hash = (hash ^ c) * 16777619u;
  unsigned rgb = palette[hash % (sizeof palette / sizeof palette[0])];
  return platform::CGColorCreate(((rgb >> 16) & 0xFF) / 255.0, ((rgb >> 8) & 0xFF) / 255.0, (rgb & 0xFF) / 255.0);
}

// "#RRGGBB" or "#RRGGBBAA"; absent when the text is neither.
platform::CGColorRef parseColour(const std::string& text) {
  if ((text.size() != 7 && text.size() != 9) || text[0] != '#') return nullptr;
  for (std::size_t i = 1; i < text.size(); ++i)
    if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return nullptr;
  auto component = [&](std::size_t at) { return std::stoi(text.substr(at, 2), nullptr, 16) / 255.0; };
  return platform::CGColorCreate(component(1), component(3), component(5), text.size() == 9 ? component(7) : 1.0);
}

}  // namespace

std::shared_ptr<VdirStore> VdirStore::make(VdirStoreOptions options) {
  std::shared_ptr<VdirStore> store(new VdirStore(std::move(options)));
  store->rescan();
  if (store->options_.watch) {
    auto state = std::make_shared<WatchState>();
    state->options = store->options_;
    if (::pipe2(state->stopPipe, O_CLOEXEC) == 0) {
      store->watchState_ = state;
      // Changes made once make returns must be seen: wait until the watches are in place.
      std::promise<void> ready;
      auto started = ready.get_future();
      store->watcher_ = std::thread([weak = std::weak_ptr<VdirStore>(store), state, &ready] {
        watch(weak, state, &ready);
      });
      started.wait();
    }
  }
  return store;
}

VdirStore::VdirStore(VdirStoreOptions options) : options_(std::move(options)), zones_(std::make_shared<VdirZones>()) {
  for (auto& address : options_.userAddresses)
    for (char& c : address) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  clock_ = std::make_unique<VdirClock>(options_.localTimeZone.empty() ? systemLocalZoneName() : options_.localTimeZone);
  snapshot_ = std::make_shared<VdirSnapshot>();

  const std::string directory = options_.cacheDirectory.value_or(defaultCacheDirectory());
  if (directory.empty()) return;
  // Everything that changes what is read from the files is part of the key.
  std::error_code error;
  fs::path root = fs::weakly_canonical(fs::path(options_.root), error);
  if (error) root = fs::absolute(fs::path(options_.root), error);
  cacheKey_ = "vesp store cache\nroot=" + root.string() + "\nzone=" + clock_->localZoneName() +
              "\ncounted=" + std::to_string(options_.maximumCountedOccurrences) +
              "\nlargest=" + std::to_string(options_.maximumFileSize) + "\naddresses=";
  for (const auto& address : options_.userAddresses) cacheKey_ += address + ",";
  cacheFile_ = cacheFilePath(directory, cacheKey_);
  cacheStatus_.path = cacheFile_;
  // Read while the first scan lists the tree; the scan waits for it before it looks at files.
  pendingCache_ = std::async(std::launch::async, [this] {
    return readCache(cacheFile_, cacheKey_, *zones_, threads(), cacheLoadProblem_);
  });
}

void VdirStore::takePendingCache() {
  if (!pendingCache_.valid()) return;
  auto records = pendingCache_.get();
  rivet::RivetMutexLock lock(mutex_);
  cacheStatus_.loadProblem = cacheLoadProblem_;
  if (!records) return;
  cacheStatus_.loaded = true;
  cacheStatus_.loadedFiles = records->size();
  files_ = std::move(*records);
  cacheStale_ = false;
}

VdirStore::~VdirStore() {
  if (pendingCache_.valid()) pendingCache_.wait();
  if (watcher_.joinable()) {
    char stop = 1;
    while (::write(watchState_->stopPipe[1], &stop, 1) < 0 && errno == EINTR) {
    }
    // The last reference may be let go on the watcher's own thread (by a change listener): that
    // thread then ends by itself once it sees the stop request.
    if (watcher_.get_id() == std::this_thread::get_id())
      watcher_.detach();
    else
      watcher_.join();
  }
  flushCache();
  // Items may outlive the store (in objects a host still holds), but they never touch zones again.
  {
    rivet::RivetMutexLock lock(indexMutex_);
    index_.reset();
  }
  files_.clear();
  snapshot_.reset();
  zones_.reset();
}

unsigned VdirStore::threads() const {
  if (options_.parseThreads > 0) return options_.parseThreads;
  return std::max(1u, std::thread::hardware_concurrency());
}

VdirCacheStatus VdirStore::cacheStatus() const {
  rivet::RivetMutexLock lock(mutex_);
  return cacheStatus_;
}

std::shared_ptr<const VdirSnapshot> VdirStore::snapshot() const {
  rivet::RivetMutexLock lock(mutex_);
  return snapshot_;
}

bool VdirStore::refresh() {
  bool changed = rescan();
  if (changed) notifyListeners();
  return changed;
}

std::uint64_t VdirStore::addChangeListener(std::function<void()> listener) {
  rivet::RivetMutexLock lock(mutex_);
  std::uint64_t token = nextToken_++;
  listeners_.emplace(token, std::move(listener));
  return token;
}

void VdirStore::removeChangeListener(std::uint64_t token) {
  rivet::RivetMutexLock lock(mutex_);
  listeners_.erase(token);
}

void VdirStore::notifyListeners() {
  std::vector<std::function<void()>> listeners;
  {
    rivet::RivetMutexLock lock(mutex_);
    for (auto& [token, listener] : listeners_) listeners.push_back(listener);
  }
  for (auto& listener : listeners) listener();
}

std::vector<VdirDiagnostic> VdirStore::diagnostics() const {
  rivet::RivetMutexLock lock(mutex_);
  std::vector<VdirDiagnostic> all = snapshot_->diagnostics;
  for (const auto& diagnostic : runtime_)
    if (std::find(all.begin(), all.end(), diagnostic) == all.end()) all.push_back(diagnostic);
  return all;
}

void VdirStore::reportRuntime(VdirDiagnostic diagnostic) {
  rivet::RivetMutexLock lock(mutex_);
  if (std::find(runtime_.begin(), runtime_.end(), diagnostic) == runtime_.end()) runtime_.push_back(std::move(diagnostic));
}

bool VdirStore::rescan() {
  rivet::RivetMutexLock rescanLock(rescanMutex_);
  // The cache written after the last scan reads files_, which this scan replaces.
  if (cacheWriter_.joinable()) cacheWriter_.join();
  // The scan's helpers (some on worker threads) use these while this thread holds rescanMutex_.
  VdirFileRecords* const previousFiles = &files_;
  auto* const sources = &sources_;
  ++rescans_;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t scannedAt = nanoseconds(now);
  auto next = std::make_shared<VdirSnapshot>();
  const fs::path root(options_.root);
  std::error_code error;
  next->rootExists = fs::is_directory(root, error);
  next->rootReadable = next->rootExists && ::access(root.c_str(), R_OK | X_OK) == 0;
  if (next->rootExists && !next->rootReadable)
    next->diagnostics.push_back({".", VdirDiagnostic::Action::skipped, "the store root cannot be read"});
  fs::path canonicalRoot = next->rootExists ? fs::weakly_canonical(root, error) : root;

  // The scan runs in three steps: list every collection and look at each file (on this thread);
  // read and parse the files that changed (on every core); put the snapshot together in listing
  // order. Problems are kept in the order they are met, a file's own at its place in the listing.
  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  struct Slot {
    std::string relative, name, path;
    int directory = AT_FDCWD;  // an open descriptor of the file's directory
    std::size_t previous = kNone;  // its record in files_
    VdirFileRecord record;
    bool parse = false, gone = false, unreadable = false;
  };
  // The collections' directories, open while their files are looked at and read.
  std::vector<int> directories;
  struct CloseDirectories {
    std::vector<int>& fds;
    ~CloseDirectories() {
      for (int fd : fds) ::close(fd);
    }
  } closeDirectories{directories};
  struct Problem {
    std::optional<std::size_t> slot;
    VdirDiagnostic diagnostic;
  };
  struct Pending {
    std::string identifier;
    std::string directory;
    std::shared_ptr<VdirSource> source;
    platform::EKCalendarType type = platform::EKCalendarTypeLocal;
    std::vector<std::size_t> slots;
    std::optional<std::string> displayName;
    platform::CGColorRef colour = nullptr;
  };
  std::vector<Slot> slots;
  std::vector<Problem> problems;
  std::vector<Pending> pending;
  auto problem = [&](std::string path, VdirDiagnostic::Action action, std::string text) {
    problems.push_back({std::nullopt, {std::move(path), action, std::move(text)}});
  };

  // Directory entries by name, sorted, hidden ones left out (read with readdir: a store has
  // thousands of files, and the entry type saves a stat for most of them). An entry's path is
  // made only when it is needed.
  struct Listed {
    std::string name;
    unsigned char type = DT_UNKNOWN;
  };
  struct Listing {
    std::string directory;
    std::vector<Listed> entries;
    std::string pathOf(const Listed& entry) const { return directory + "/" + entry.name; }
    bool isLink(const Listed& entry) const {
      if (entry.type != DT_UNKNOWN) return entry.type == DT_LNK;
      struct stat status {};
      return ::lstat(pathOf(entry).c_str(), &status) == 0 && S_ISLNK(status.st_mode);
    }
    bool isDirectory(const Listed& entry) const {
      if (entry.type == DT_DIR) return true;
      if (entry.type != DT_UNKNOWN && entry.type != DT_LNK) return false;
      struct stat status {};
      return ::stat(pathOf(entry).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }
  };
  auto list = [&](std::string directory, const std::string& relative) {
    Listing listing;
    listing.directory = std::move(directory);
    DIR* handle = ::opendir(listing.directory.c_str());
    if (!handle) {
      problem(relative.empty() ? "." : relative, VdirDiagnostic::Action::skipped,
              std::string("directory cannot be read: ") + std::strerror(errno));
      return listing;
    }
    while (dirent* entry = ::readdir(handle)) {
      if (entry->d_name[0] == '\0' || entry->d_name[0] == '.') continue;
      listing.entries.push_back({entry->d_name, entry->d_type});
    }
    ::closedir(handle);
    std::sort(listing.entries.begin(), listing.entries.end(),
              [](const Listed& a, const Listed& b) { return a.name < b.name; });
    return listing;
  };
  // Symbolic links are followed only when they stay inside the store root.
  const std::string rootPrefix = canonicalRoot.string() + "/";
  auto insideRoot = [&](const Listing& listing, const Listed& entry, const std::string& relative) {
    if (!listing.isLink(entry)) return true;
    std::error_code linkError;
    fs::path target = fs::weakly_canonical(fs::path(listing.pathOf(entry)), linkError);
    if (!linkError && target.string().rfind(rootPrefix, 0) == 0) return true;
    problem(relative, VdirDiagnostic::Action::skipped, "symbolic link leaves the store root");
    return false;
  };
  auto isCollection = [&](const Listing& listing) {
    for (const auto& entry : listing.entries)
      if (entry.name == "displayname" || entry.name == "color" || endsWith(entry.name, ".ics")) return true;
    return false;
  };
  auto tooLarge = [&](const std::string& relative, off_t size) {
    return VdirDiagnostic{relative, VdirDiagnostic::Action::skipped,
                          "file of " + std::to_string(size) + " bytes exceeds the limit of " +
                              std::to_string(options_.maximumFileSize) + " bytes"};
  };

  auto listCollection = [&](Listing listing, const std::string& identifier,
                            const std::shared_ptr<VdirSource>& source, platform::EKCalendarType type) {
    const std::string& directory = listing.directory;
    Pending collection;
    collection.identifier = identifier;
    collection.directory = directory;
    collection.source = source;
    collection.type = type;
    // Files are looked at relative to their directory (no path walk per file), later, on every core.
    int directoryFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd >= 0) directories.push_back(directoryFd);
    for (auto& entry : listing.entries) {
      if (!endsWith(entry.name, ".ics")) continue;
      std::string relative = identifier + "/" + escapedName(entry.name);
      if (!insideRoot(listing, entry, relative)) continue;
      Slot slot;
      slot.relative = std::move(relative);
      slot.directory = directoryFd >= 0 ? directoryFd : AT_FDCWD;
      if (directoryFd < 0) slot.path = listing.pathOf(entry);
      slot.name = std::move(entry.name);
      problems.push_back({slots.size(), {}});
      collection.slots.push_back(slots.size());
      slots.push_back(std::move(slot));
    }
    collection.displayName = readSmallFile(directory + "/displayname");
    if (auto colour = readSmallFile(directory + "/color")) {
      collection.colour = parseColour(*colour);
      if (!collection.colour)
        problem(identifier + "/color", VdirDiagnostic::Action::repaired,
                "colour \"" + validUtf8(*colour) + "\" is not #RRGGBB: a default colour stands in");
    }
    pending.push_back(std::move(collection));
  };
  auto sourceFor = [&](const std::string& identifier, platform::EKSourceType type, const std::string& title) {
    auto& source = (*sources)[identifier];
    if (!source || source->title() != title || source->sourceType() != type)
      source = std::make_shared<VdirSource>(identifier, type, title);
    return source;
  };

  if (next->rootReadable) {
    std::string rootTitle = validUtf8(canonicalRoot.filename().string());
    if (rootTitle.empty()) rootTitle = "Local";
    const Listing top = list(root.string(), "");
    for (const auto& entry : top.entries) {
      std::string name = escapedName(entry.name);
      if (!top.isDirectory(entry)) {
        if (endsWith(entry.name, ".ics"))
          problem(name, VdirDiagnostic::Action::skipped, "file outside any collection");
        continue;
      }
      if (!insideRoot(top, entry, name)) continue;
      Listing inside = list(top.pathOf(entry), name);
      if (isCollection(inside)) {
        listCollection(std::move(inside), name, sourceFor(".", platform::EKSourceTypeLocal, rootTitle),
                       platform::EKCalendarTypeLocal);
        continue;
      }
      auto source = sourceFor(name, platform::EKSourceTypeCalDAV, validUtf8(entry.name));
      for (const auto& inner : inside.entries) {
        std::string innerName = escapedName(inner.name);
        if (!inside.isDirectory(inner)) continue;
        if (!insideRoot(inside, inner, name + "/" + innerName)) continue;
        listCollection(list(inside.pathOf(inner), name + "/" + innerName), name + "/" + innerName, source,
                       platform::EKCalendarTypeCalDAV);
      }
    }
  }

  takePendingCache();
  // Look at every file (its version against what was read before), on every core; the fault
  // injection hook runs first, in listing order.
  if (options_.beforeRead)
    for (const auto& slot : slots) options_.beforeRead(slot.relative);
  auto runOnEveryCore = [&](std::size_t count, std::size_t perThread, const std::function<void(std::size_t)>& work) {
    std::atomic<std::size_t> next{0};
    auto some = [&] {
      for (std::size_t at; (at = next++) < count;) work(at);
    };
    unsigned workers = static_cast<unsigned>(std::min<std::size_t>(threads(), (count + perThread - 1) / perThread));
    std::vector<std::thread> pool;
    for (unsigned i = 1; i < workers; ++i) pool.emplace_back(some);
    some();
    for (auto& thread : pool) thread.join();
  };
  // Each file's record from the scan before: where the order of that scan puts it, else by name.
  {
    std::unordered_map<std::string_view, std::size_t> byPath;
    std::size_t expected = 0;
    for (auto& slot : slots) {
      if (expected < files_.size() && files_[expected].first == slot.relative) {
        slot.previous = expected++;
        continue;
      }
      if (byPath.empty())
        for (std::size_t i = 0; i < files_.size(); ++i) byPath.emplace(files_[i].first, i);
      if (auto found = byPath.find(slot.relative); found != byPath.end()) {
        slot.previous = found->second;
        expected = found->second + 1;
      }
    }
  }
  runOnEveryCore(slots.size(), 1024, [&](std::size_t at) {
    Slot& slot = slots[at];
    // A file not seen before is read in any case (and looked at when it is opened).
    if (slot.previous == kNone) {
      slot.parse = true;
      return;
    }
    struct stat status {};
    if (::fstatat(slot.directory, slot.directory == AT_FDCWD ? slot.path.c_str() : slot.name.c_str(), &status, 0) != 0) {
      // Gone since the listing (deleted or renamed): nothing to serve and nothing lost; the
      // change that removed it leads to another rescan.
      if (errno == ENOENT) {
        slot.gone = true;
      } else {
        slot.unreadable = true;
        slot.record.diagnostics.push_back({slot.relative, VdirDiagnostic::Action::skipped,
                                           std::string("file cannot be read: ") + std::strerror(errno)});
      }
      return;
    }
    if (!S_ISREG(status.st_mode)) {
      slot.gone = true;
      return;
    }
    setVersion(slot.record, status);
    if (slot.previous != kNone && (*previousFiles)[slot.previous].second.sameVersion(slot.record)) {
      // Each record is matched to one file at most, and files_ is replaced after the scan.
      slot.record = std::move((*previousFiles)[slot.previous].second);
    } else if (static_cast<std::uintmax_t>(status.st_size) > options_.maximumFileSize) {
      slot.record.diagnostics.push_back(tooLarge(slot.relative, status.st_size));
    } else {
      slot.parse = true;
    }
  });

  // Read and parse what changed, on every core.
  std::vector<std::size_t> toParse;
  for (std::size_t i = 0; i < slots.size(); ++i)
    if (slots[i].parse) toParse.push_back(i);
  runOnEveryCore(toParse.size(), 64, [&](std::size_t at) {
    Slot& slot = slots[toParse[at]];
    int fd = ::openat(slot.directory, slot.directory == AT_FDCWD ? slot.path.c_str() : slot.name.c_str(),
                      O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && errno == ENOENT) {
      slot.gone = true;
      return;
    }
    if (fd < 0) {
      slot.record.diagnostics.push_back({slot.relative, VdirDiagnostic::Action::skipped,
                                         std::string("file cannot be read: ") + std::strerror(errno)});
      return;
    }
    // The version read is the one recorded.
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
      ::close(fd);
      slot.gone = true;
      return;
    }
    setVersion(slot.record, status);
    if (static_cast<std::uintmax_t>(status.st_size) > options_.maximumFileSize) {
      ::close(fd);
      slot.record.diagnostics.push_back(tooLarge(slot.relative, status.st_size));
      return;
    }
    std::string text;
    text.reserve(static_cast<std::size_t>(status.st_size));
    char buffer[65536];
    ssize_t count;
    bool failed = false;
    int readError = 0;
    while ((count = ::read(fd, buffer, sizeof buffer)) != 0) {
      if (count < 0) {
        if (errno == EINTR) continue;
        failed = true;
        readError = errno;
        break;
      }
      text.append(buffer, static_cast<std::size_t>(count));
      if (text.size() > options_.maximumFileSize) break;
    }
    ::close(fd);
    if (failed) {
      slot.record.diagnostics.push_back({slot.relative, VdirDiagnostic::Action::skipped,
                                         std::string("file cannot be read: ") + std::strerror(readError)});
      return;
    }
    VdirParseContext context{zones_.get(), clock_.get(), &options_.userAddresses, options_.maximumCountedOccurrences};
    auto parsed = parseItem(slot.relative, slot.name, text, context);
    ++parses_;
    slot.record.item = std::move(parsed.item);
    slot.record.diagnostics = std::move(parsed.diagnostics);
  });
  std::size_t parsedNow = toParse.size();

  // Put the snapshot together, in listing order.
  for (const auto& p : problems) {
    if (!p.slot) {
      next->diagnostics.push_back(p.diagnostic);
      continue;
    }
    const Slot& slot = slots[*p.slot];
    if (!slot.gone)
      next->diagnostics.insert(next->diagnostics.end(), slot.record.diagnostics.begin(), slot.record.diagnostics.end());
  }
  VdirFileRecords seen;
  seen.reserve(slots.size());
  std::map<std::string, std::shared_ptr<VdirCalendar>> calendars;
  for (auto& p : pending) {
    VdirCollection collection;
    collection.identifier = p.identifier;
    collection.directory = p.directory;
    std::size_t events = 0, todos = 0;
    for (std::size_t index : p.slots) {
      Slot& slot = slots[index];
      if (slot.gone || slot.unreadable) continue;
      if (slot.record.item) {
        todos += slot.record.item->todos.size();
        events += slot.record.item->series.size();
        collection.items.push_back(slot.record.item);
      }
      seen.emplace_back(std::move(slot.relative), std::move(slot.record));
    }
    VdirCalendarFields fields;
    fields.identifier = p.identifier;
    fields.title = validUtf8(p.displayName.value_or(""));
    if (fields.title.empty()) fields.title = validUtf8(fs::path(p.directory).filename().string());
    fields.color = p.colour ? p.colour : defaultColour(p.identifier);
    // Both kinds: a mixed collection; to-dos only: a reminder list; events only or empty: a calendar.
    fields.entityTypes = todos > 0 && events > 0 ? (platform::EKEntityMaskEvent | platform::EKEntityMaskReminder)
                         : todos > 0             ? platform::EKEntityMaskReminder
                                                 : platform::EKEntityMaskEvent;
    fields.type = p.type;
    fields.source = p.source;
    auto previous = calendars_.find(p.identifier);
    const auto& old = previous == calendars_.end() ? nullptr : previous->second;
    if (old && old->fields().title == fields.title && platform::CGColorEqualToColor(old->fields().color, fields.color) &&
        old->fields().entityTypes == fields.entityTypes && old->fields().source == fields.source &&
        old->fields().type == fields.type)
      collection.calendar = old;
    else
      collection.calendar = std::make_shared<VdirCalendar>(std::move(fields));
    calendars[p.identifier] = collection.calendar;
    next->collections.push_back(std::move(collection));
  }
  std::sort(next->collections.begin(), next->collections.end(),
            [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
  // The two look-up tables, side by side.
  auto paths = std::async(seen.size() > 4096 ? std::launch::async : std::launch::deferred, [&] {
    next->paths.reserve(seen.size());
    for (const auto& collection : next->collections)
      for (const auto& item : collection.items) next->paths.insert(item->relativePath);
  });
  next->entries.reserve(seen.size() + seen.size() / 8);
  for (std::size_t c = 0; c < next->collections.size(); ++c)
    for (std::size_t i = 0; i < next->collections[c].items.size(); ++i) {
      const auto& item = *next->collections[c].items[i];
      for (std::size_t s = 0; s < item.series.size(); ++s)
        next->entries.emplace(item.series[s].identifier, VdirSnapshot::Entry{c, i, false, s});
      for (std::size_t t = 0; t < item.todos.size(); ++t)
        next->entries.emplace(item.todos[t].todoData->identifier, VdirSnapshot::Entry{c, i, true, t});
    }
  paths.get();

  // Anything different from the snapshot before: items, collections or the root's state.
  auto previous = snapshot();
  bool changed = previous->rootExists != next->rootExists || previous->rootReadable != next->rootReadable ||
                 previous->collections.size() != next->collections.size();
  for (std::size_t c = 0; !changed && c < next->collections.size(); ++c) {
    const auto& a = previous->collections[c];
    const auto& b = next->collections[c];
    changed = a.identifier != b.identifier || a.calendar != b.calendar || a.items != b.items;
  }
  next->generation = previous->generation + (changed ? 1 : 0);
  // The cache on disk needs writing when files were read or left, or it was not what we hold.
  if (parsedNow > 0 || seen.size() != files_.size()) cacheStale_ = true;
  files_ = std::move(seen);
  calendars_ = std::move(calendars);
  {
    rivet::RivetMutexLock lock(mutex_);
    snapshot_ = std::move(next);
    if (changed) runtime_.clear();
  }
  // Written in the background: the store answers meanwhile.
  if (cacheStale_ && !cacheKey_.empty()) cacheWriter_ = std::thread([this, scannedAt] { writeCache(scannedAt); });
  return changed;
}

void VdirStore::flushCache() {
  rivet::RivetMutexLock rescanLock(rescanMutex_);
  if (cacheWriter_.joinable()) cacheWriter_.join();
}

void VdirStore::writeCache(std::int64_t scannedAt) {
  std::size_t left = 0;
  std::string bytes = encodeCache(cacheKey_, files_, *zones_, scannedAt, left);
  auto failure = writeCacheFile(cacheFile_, bytes);
  rivet::RivetMutexLock lock(mutex_);
  if (failure) {
    cacheStatus_.writeProblem = *failure;
    return;
  }
  ++cacheStatus_.writes;
  cacheStatus_.writeProblem.clear();
  // Files left out (changed too recently to be trusted) are written by a later scan.
  cacheStale_ = left > 0;
}

VdirStore::WatchState::~WatchState() {
  for (int fd : stopPipe)
    if (fd >= 0) ::close(fd);
}

// The watcher's loop. It holds the store only weakly, and strongly only while it rescans, so the
// store may go (even from this thread, when a listener let go of the last reference) at any time;
// its state lives on in `state` until the loop sees the stop request.
void VdirStore::watch(std::weak_ptr<VdirStore> weak, std::shared_ptr<WatchState> state, std::promise<void>* ready) {
  const VdirStoreOptions& options_ = state->options;
  int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    if (auto store = weak.lock())
      store->reportRuntime({".", VdirDiagnostic::Action::skipped,
                            std::string("the store cannot be watched: ") + std::strerror(errno)});
    ready->set_value();
    return;
  }
  const std::uint32_t mask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                             IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  std::map<int, std::string> watches;
  bool rootWatched = false;
  auto sync = [&] {
    std::set<std::string> wanted{options_.root};
    auto store = weak.lock();
    if (!store) return false;
    auto current = store->snapshot();
    store.reset();
    for (const auto& collection : current->collections) {
      wanted.insert(collection.directory);
      auto parent = fs::path(collection.directory).parent_path().string();
      if (parent != options_.root) wanted.insert(parent);
    }
    // Account directories without collections yet, so that new collections in them are seen.
    std::error_code e;
    for (fs::directory_iterator it(options_.root, e); !e && it != fs::directory_iterator(); it.increment(e)) {
      std::error_code d;
      if (it->is_directory(d) && !hidden(it->path().filename().string())) wanted.insert(it->path().string());
    }
    std::set<std::string> have;
    for (auto& [wd, path] : watches) have.insert(path);
    bool added = false;
    for (const auto& path : wanted) {
      if (have.count(path)) continue;
      int wd = ::inotify_add_watch(fd, path.c_str(), mask);
      if (wd >= 0) {
        watches[wd] = path;
        added = true;
      }
    }
    rootWatched = false;
    for (auto& [wd, path] : watches)
      if (path == options_.root) rootWatched = true;
    return added;
  };
  sync();
  state->watching = true;
  ready->set_value();

  using Clock = std::chrono::steady_clock;
  bool dirty = false;
  Clock::time_point first{}, last{};
  alignas(inotify_event) char buffer[64 * 1024];
  for (;;) {
    auto now = Clock::now();
    // A directory watched only after the rescan that found it may have changed in between: a
    // new watch is followed by one more rescan.
    auto rescanAndWatch = [&] {
      if (auto store = weak.lock()) {
        if (store->rescan()) store->notifyListeners();
      }
      if (sync()) {
        dirty = true;
        first = last = Clock::now();
      }
    };
    if (dirty && (now - last >= options_.quietPeriod || now - first >= options_.maximumDelay)) {
      dirty = false;
      rescanAndWatch();
      continue;
    }
    int timeout = -1;
    if (dirty) {
      auto quiet = options_.quietPeriod - (now - last);
      auto latest = options_.maximumDelay - (now - first);
      auto wait = std::min(quiet, std::chrono::duration_cast<Clock::duration>(latest));
      timeout = static_cast<int>(std::max<long long>(
          1, std::chrono::duration_cast<std::chrono::milliseconds>(wait).count() + 1));
    } else if (!rootWatched) {
      timeout = 1000;  // the root is gone: look for it again every second
    }
    pollfd fds[2] = {{fd, POLLIN, 0}, {state->stopPipe[0], POLLIN, 0}};
    int ready = ::poll(fds, 2, timeout);
    if (ready < 0 && errno != EINTR) break;
    if (fds[1].revents) break;
    if (ready == 0 && !dirty && !rootWatched) {
      rescanAndWatch();
      continue;
    }
    if (!(fds[0].revents & POLLIN)) continue;
    for (;;) {
      ssize_t length = ::read(fd, buffer, sizeof buffer);
      if (length <= 0) break;
      // A simulated overflow: these events are lost, and the queue reports an overflow instead.
      if (state->dropNextEvents.exchange(false)) {
        inotify_event* overflow = reinterpret_cast<inotify_event*>(buffer);
        *overflow = inotify_event{-1, IN_Q_OVERFLOW, 0, 0};
        length = sizeof(inotify_event);
      }
      for (char* at = buffer; at < buffer + length;) {
        auto* event = reinterpret_cast<inotify_event*>(at);
        if (event->mask & IN_Q_OVERFLOW) ++state->overflows;
        if (event->mask & IN_IGNORED) {
          watches.erase(event->wd);
          if (!std::any_of(watches.begin(), watches.end(), [&](auto& w) { return w.second == options_.root; }))
            rootWatched = false;
        }
        at += sizeof(inotify_event) + event->len;
      }
      // Any event, an overflow included, leads to a full rescan once the burst is over.
      if (!dirty) first = Clock::now();
      dirty = true;
      last = Clock::now();
    }
  }
  ::close(fd);
  state->watching = false;
}

void VdirStore::simulateQueueOverflow() {
  if (watchState_) watchState_->dropNextEvents = true;
}

std::shared_ptr<platform::EKEvent> VdirStore::makeEvent(const std::shared_ptr<const VdirItem>& item,
                                                        const VdirSeriesData& series,
                                                        const std::shared_ptr<VdirCalendar>& calendar,
                                                        const VdirOccurrence& occurrence) const {
  VdirOccurrenceFields fields;
  fields.item = item;
  fields.series = &series;
  fields.component = occurrence.component;
  fields.calendar = calendar;
  fields.eventIdentifier = series.identifier;
  fields.start = platform::Date::fromTimeIntervalSince1970(occurrence.start);
  fields.end = platform::Date::fromTimeIntervalSince1970(occurrence.end);
  fields.occurrence = platform::Date::fromTimeIntervalSince1970(occurrence.occurrence);
  fields.detached = occurrence.detached;
  return std::make_shared<VdirEvent>(std::move(fields));
}

// The index over time of one snapshot, and the occurrences of its recurring series by period.
//
// Every series is bounded by its first possible start and last possible end (none for a rule
// without end). Bounded series are kept by the length of those bounds, in classes of powers of
// two, each sorted by first start: a window [a, b) looks in class k only at series starting in
// [a - 2^k hours, b). Unbounded series are sorted by first start.
//
// A recurring series is expanded by libical's iterator one period (kPeriod seconds, from 1970) at
// a time, for a run of uncached periods at once, and what it gave is kept: later queries over those
// periods do not run the iterator again. A period whose expansion a limit cut short is marked, and
// such a series is expanded for each query's own window, as before (nothing is lost to caching).
struct VdirStore::TimeIndex {
  static constexpr double kPeriod = 32 * 86400.0;
  static constexpr double kLengthUnit = 3600.0;
  static constexpr std::size_t kMaximumCachedOccurrences = 2000000;
  static constexpr std::int64_t kMaximumCachedPeriodsPerQuery = 16;

  struct Entry {
    double first = 0.0, last = 0.0;  // last: +inf for no end
    std::uint32_t collection = 0, item = 0;
    const VdirSeriesData* series = nullptr;
  };
  struct Period {
    std::vector<VdirOccurrence> occurrences;  // every occurrence overlapping the period
    bool cut = false;                         // a limit cut its expansion short
  };

  std::shared_ptr<const VdirSnapshot> snapshot;
  std::vector<std::vector<Entry>> bounded;  // by length class
  std::vector<Entry> unbounded;
  std::unordered_map<const VdirSeriesData*, std::map<std::int64_t, Period>> periods;
  std::size_t cachedOccurrences = 0;

  explicit TimeIndex(std::shared_ptr<const VdirSnapshot> from) : snapshot(std::move(from)) {
    for (std::size_t c = 0; c < snapshot->collections.size(); ++c) {
      const auto& items = snapshot->collections[c].items;
      for (std::size_t i = 0; i < items.size(); ++i)
        for (const auto& series : items[i]->series) {
          Entry entry{series.firstStart, series.lastEnd.value_or(std::numeric_limits<double>::infinity()),
                      static_cast<std::uint32_t>(c), static_cast<std::uint32_t>(i), &series};
          if (!series.lastEnd) {
            unbounded.push_back(entry);
            continue;
          }
          std::size_t lengthClass = 0;
          for (double span = kLengthUnit; span < entry.last - entry.first && lengthClass < 62; span *= 2) ++lengthClass;
          if (bounded.size() <= lengthClass) bounded.resize(lengthClass + 1);
          bounded[lengthClass].push_back(entry);
        }
    }
    auto byFirst = [](const Entry& a, const Entry& b) { return a.first < b.first; };
    for (auto& list : bounded) std::sort(list.begin(), list.end(), byFirst);
    std::sort(unbounded.begin(), unbounded.end(), byFirst);
  }

  // Calls `visit` with every series that can have an occurrence overlapping [a, b), by the same
  // test expandSeries makes.
  template <typename Visit>
  void candidates(double a, double b, Visit&& visit) const {
    auto byFirst = [](const Entry& entry, double value) { return entry.first < value; };
    double length = kLengthUnit;
    for (const auto& list : bounded) {
      auto from = std::lower_bound(list.begin(), list.end(), a - length, byFirst);
      auto to = std::lower_bound(from, list.end(), b, byFirst);
      for (auto it = from; it != to; ++it)
        if (it->last > a) visit(*it);
      length *= 2;
    }
    auto to = std::lower_bound(unbounded.begin(), unbounded.end(), b, byFirst);
    for (auto it = unbounded.begin(); it != to; ++it) visit(*it);
  }
};

std::shared_ptr<VdirStore::TimeIndex> VdirStore::indexFor(const std::shared_ptr<const VdirSnapshot>& snapshot) {
  if (index_ && index_->snapshot == snapshot) return index_;
  auto index = std::make_shared<TimeIndex>(snapshot);
  // Expansions of series that are still there (the same item, kept alive by both snapshots) carry over.
  if (index_) {
    auto carry = [&](const TimeIndex::Entry& entry) {
      indexMutex_.assertHeld();  // called only from here, under it
      auto found = index_->periods.find(entry.series);
      if (found == index_->periods.end()) return;
      for (const auto& [period, data] : found->second) index->cachedOccurrences += data.occurrences.size();
      index->periods.emplace(entry.series, std::move(found->second));
    };
    for (const auto& entry : index->unbounded) carry(entry);
    for (const auto& list : index->bounded)
      for (const auto& entry : list) carry(entry);
  }
  index_ = index;
  return index_;
}

std::vector<std::shared_ptr<platform::EKEvent>> VdirStore::events(
    platform::Date start, platform::Date end, const std::optional<std::set<std::string>>& calendars) {
  auto current = snapshot();
  const double a = start.timeIntervalSince1970(), b = end.timeIntervalSince1970();
  struct Found {
    std::uint32_t collection, item;
    const VdirSeriesData* series;
    VdirOccurrence occurrence;
  };
  std::vector<Found> found;
  std::vector<char> chosen(current->collections.size(), 1);
  if (calendars)
    for (std::size_t c = 0; c < chosen.size(); ++c) chosen[c] = calendars->count(current->collections[c].identifier) > 0;
  {
    rivet::RivetMutexLock lock(indexMutex_);
    auto index = indexFor(current);
    std::vector<VdirOccurrence> occurrences;
    const auto began = std::chrono::steady_clock::now();
    std::optional<std::string> stopped;
    std::size_t visited = 0;
    using Entry = TimeIndex::Entry;
    constexpr double P = TimeIndex::kPeriod;
    auto cut = [&](const Entry& entry, const std::string& problem) {
      reportRuntime({current->collections[entry.collection].items[entry.item]->relativePath,
                     VdirDiagnostic::Action::truncated, problem});
    };
    auto direct = [&](const Entry& entry) {
      occurrences.clear();
      std::string problem;
      if (!expandSeries(*entry.series, *clock_, a, b, options_.limits, occurrences, problem)) cut(entry, problem);
      for (const auto& occurrence : occurrences) found.push_back({entry.collection, entry.item, entry.series, occurrence});
    };
    auto visit = [&](const Entry& entry) {
      if (stopped || !chosen[entry.collection]) return;
      // The query's own limits, checked every so often.
      if ((++visited & 63) == 0 || found.size() >= options_.limits.maximumOccurrencesPerQuery) {
        double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        if (found.size() >= options_.limits.maximumOccurrencesPerQuery || elapsed > options_.limits.maximumSecondsPerQuery) {
          stopped = "query from " + start.iso8601() + " to " + end.iso8601() + " stopped at " +
                    current->collections[entry.collection].items[entry.item]->relativePath + " after " +
                    std::to_string(found.size()) + " occurrences: the answer is incomplete";
          return;
        }
      }
      const VdirSeriesData& series = *entry.series;
      if (!series.isRecurring()) return direct(entry);
      const auto p0 = static_cast<std::int64_t>(std::floor(a / P));
      const auto p1 = std::max(p0, static_cast<std::int64_t>(std::ceil(b / P)) - 1);
      // Windows of many periods (years) are expanded as they are, not kept.
      if (p1 - p0 >= TimeIndex::kMaximumCachedPeriodsPerQuery) return direct(entry);
      auto& cache = index->periods[&series];
      // Expand each run of uncached periods with one iterator.
      for (std::int64_t p = p0; p <= p1;) {
        if (auto have = cache.find(p); have != cache.end()) {
          if (have->second.cut) return direct(entry);
          ++p;
          continue;
        }
        std::int64_t q = p;
        while (q + 1 <= p1 && !cache.count(q + 1)) ++q;
        if (index->cachedOccurrences > TimeIndex::kMaximumCachedOccurrences) {
          // Memory is bounded: start over rather than grow without end.
          for (auto& [other, list] : index->periods)
            if (&list != &cache) list.clear();
          index->cachedOccurrences = 0;
          for (const auto& [period, data] : cache) index->cachedOccurrences += data.occurrences.size();
        }
        occurrences.clear();
        std::string problem;
        ++expansions_;
        bool complete = expandSeries(series, *clock_, static_cast<double>(p) * P, static_cast<double>(q + 1) * P,
                                     options_.limits, occurrences, problem);
        for (std::int64_t k = p; k <= q; ++k) cache[k].cut = !complete;
        if (!complete) return direct(entry);
        for (const auto& occurrence : occurrences) {
          auto first = static_cast<std::int64_t>(std::floor(occurrence.start / P));
          auto last = occurrence.end > occurrence.start ? static_cast<std::int64_t>(std::ceil(occurrence.end / P)) - 1 : first;
          for (std::int64_t k = std::max(first, p); k <= std::min(last, q); ++k) {
            cache[k].occurrences.push_back(occurrence);
            ++index->cachedOccurrences;
          }
        }
        p = q + 1;
      }
      // Each occurrence is taken from the first period of the window it overlaps.
      for (std::int64_t p = p0; p <= p1; ++p) {
        const double periodStart = static_cast<double>(p) * P;
        for (const auto& occurrence : cache[p].occurrences) {
          if (p > p0 && occurrence.start < periodStart) continue;
          bool overlapping = occurrence.end <= occurrence.start ? occurrence.start >= a && occurrence.start < b
                                                                : occurrence.start < b && occurrence.end > a;
          if (overlapping) found.push_back({entry.collection, entry.item, &series, occurrence});
        }
      }
    };
    if (b > a) index->candidates(a, b, visit);
    if (stopped) reportRuntime({".", VdirDiagnostic::Action::truncated, *stopped});
  }
  std::sort(found.begin(), found.end(), [](const Found& x, const Found& y) {
    if (x.occurrence.start != y.occurrence.start) return x.occurrence.start < y.occurrence.start;
    if (x.series != y.series && x.series->identifier != y.series->identifier) return x.series->identifier < y.series->identifier;
    return x.occurrence.occurrence < y.occurrence.occurrence;
  });
  std::vector<std::shared_ptr<platform::EKEvent>> events;
  events.reserve(found.size());
  for (const auto& f : found) {
    const auto& collection = current->collections[f.collection];
    events.push_back(makeEvent(collection.items[f.item], *f.series, collection.calendar, f.occurrence));
  }
  return events;
}

std::shared_ptr<platform::EKEvent> VdirStore::firstOccurrence(const std::string& eventIdentifier) {
  auto current = snapshot();
  auto at = current->entries.find(eventIdentifier);
  if (at == current->entries.end() || at->second.todo) return nullptr;
  const auto& collection = current->collections[at->second.collection];
  const auto& item = collection.items[at->second.item];
  const auto& series = item->series[at->second.index];
  // Widening windows from the series' first possible start; the earliest occurrence wins.
  double from = series.firstStart;
  double limit = series.lastEnd.value_or(from + 200 * 366 * 86400.0);
  std::vector<VdirOccurrence> occurrences;
  for (double width = 366 * 86400.0; from < limit; from += width, width *= 4) {
    occurrences.clear();
    std::string problem;
    expandSeries(series, *clock_, from, from + width, options_.limits, occurrences, problem);
    if (occurrences.empty()) continue;
    auto earliest = std::min_element(occurrences.begin(), occurrences.end(),
                                     [](const auto& a, const auto& b) { return a.start < b.start; });
    return makeEvent(item, series, collection.calendar, *earliest);
  }
  return nullptr;
}

std::shared_ptr<platform::EKReminder> VdirStore::reminder(const std::string& identifier) {
  auto current = snapshot();
  auto at = current->entries.find(identifier);
  if (at == current->entries.end() || !at->second.todo) return nullptr;
  const auto& collection = current->collections[at->second.collection];
  const auto& item = collection.items[at->second.item];
  return std::make_shared<VdirReminder>(item, &item->todos[at->second.index], collection.calendar);
}

std::vector<std::shared_ptr<platform::EKReminder>> VdirStore::reminders(
    const std::optional<std::set<std::string>>& calendars, const std::function<bool(const VdirComponentData&)>& accept) {
  auto current = snapshot();
  std::vector<std::shared_ptr<platform::EKReminder>> result;
  for (const auto& collection : current->collections) {
    if (calendars && !calendars->count(collection.identifier)) continue;
    for (const auto& item : collection.items)
      for (const auto& todo : item->todos)
        if (accept(todo)) result.push_back(std::make_shared<VdirReminder>(item, &todo, collection.calendar));
  }
  return result;
}

}  // namespace vesp::vdir
