#include "platforms/vdir/VdirStore.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>

#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

bool hidden(const std::string& name) { return name.empty() || name[0] == '.'; }

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Reads a small metadata file ("displayname", "color"); absent when there is none.
std::optional<std::string> readSmallFile(const fs::path& path) {
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
  std::lock_guard lock(libicalMutex());
  clock_ = std::make_unique<VdirClock>(options_.localTimeZone.empty() ? systemLocalZoneName() : options_.localTimeZone);
  snapshot_ = std::make_shared<VdirSnapshot>();
}

VdirStore::~VdirStore() {
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
  // Items may outlive the store (in objects a host still holds), but they never touch zones again.
  std::lock_guard lock(libicalMutex());
  files_.clear();
  snapshot_.reset();
  zones_.reset();
}

std::shared_ptr<const VdirSnapshot> VdirStore::snapshot() const {
  std::lock_guard lock(mutex_);
  return snapshot_;
}

bool VdirStore::refresh() {
  bool changed = rescan();
  if (changed) notifyListeners();
  return changed;
}

std::uint64_t VdirStore::addChangeListener(std::function<void()> listener) {
  std::lock_guard lock(mutex_);
  std::uint64_t token = nextToken_++;
  listeners_.emplace(token, std::move(listener));
  return token;
}

void VdirStore::removeChangeListener(std::uint64_t token) {
  std::lock_guard lock(mutex_);
  listeners_.erase(token);
}

void VdirStore::notifyListeners() {
  std::vector<std::function<void()>> listeners;
  {
    std::lock_guard lock(mutex_);
    for (auto& [token, listener] : listeners_) listeners.push_back(listener);
  }
  for (auto& listener : listeners) listener();
}

std::vector<VdirDiagnostic> VdirStore::diagnostics() const {
  std::lock_guard lock(mutex_);
  std::vector<VdirDiagnostic> all = snapshot_->diagnostics;
  for (const auto& diagnostic : runtime_)
    if (std::find(all.begin(), all.end(), diagnostic) == all.end()) all.push_back(diagnostic);
  return all;
}

void VdirStore::reportRuntime(VdirDiagnostic diagnostic) {
  std::lock_guard lock(mutex_);
  if (std::find(runtime_.begin(), runtime_.end(), diagnostic) == runtime_.end()) runtime_.push_back(std::move(diagnostic));
}

bool VdirStore::rescan() {
  std::lock_guard rescanLock(rescanMutex_);
  ++rescans_;
  auto next = std::make_shared<VdirSnapshot>();
  const fs::path root(options_.root);
  std::error_code error;
  next->rootExists = fs::is_directory(root, error);
  next->rootReadable = next->rootExists && ::access(root.c_str(), R_OK | X_OK) == 0;
  if (next->rootExists && !next->rootReadable)
    next->diagnostics.push_back({".", VdirDiagnostic::Action::skipped, "the store root cannot be read"});
  fs::path canonicalRoot = next->rootExists ? fs::weakly_canonical(root, error) : root;

  // Directory entries by name, sorted, hidden ones left out.
  auto list = [&](const fs::path& directory, const std::string& relative) {
    std::vector<fs::directory_entry> entries;
    std::error_code listError;
    fs::directory_iterator it(directory, listError);
    if (listError) {
      next->diagnostics.push_back({relative.empty() ? "." : relative, VdirDiagnostic::Action::skipped,
                                   "directory cannot be read: " + listError.message()});
      return entries;
    }
    for (; it != fs::directory_iterator(); it.increment(listError)) {
      if (listError) break;
      if (!hidden(it->path().filename().string())) entries.push_back(*it);
    }
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path() < b.path(); });
    return entries;
  };
  // Symbolic links are followed only when they stay inside the store root.
  auto insideRoot = [&](const fs::directory_entry& entry, const std::string& relative) {
    std::error_code linkError;
    if (!entry.is_symlink(linkError)) return true;
    fs::path target = fs::weakly_canonical(entry.path(), linkError);
    auto rootText = canonicalRoot.string() + "/";
    if (!linkError && target.string().rfind(rootText, 0) == 0) return true;
    next->diagnostics.push_back({relative, VdirDiagnostic::Action::skipped, "symbolic link leaves the store root"});
    return false;
  };
  auto isCollection = [&](const fs::path& directory) {
    std::error_code e;
    for (fs::directory_iterator it(directory, e); !e && it != fs::directory_iterator(); it.increment(e)) {
      std::string name = it->path().filename().string();
      if (name == "displayname" || name == "color" || (endsWith(name, ".ics") && !hidden(name))) return true;
    }
    return false;
  };

  std::map<std::string, CachedFile> seen;
  std::map<std::string, std::shared_ptr<VdirCalendar>> calendars;
  auto readCollection = [&](const fs::path& directory, const std::string& identifier,
                            const std::shared_ptr<VdirSource>& source, platform::EKCalendarType type) {
    VdirCollection collection;
    collection.identifier = identifier;
    collection.directory = directory.string();
    std::size_t events = 0, todos = 0;
    for (const auto& entry : list(directory, identifier)) {
      std::string name = entry.path().filename().string();
      std::string relative = identifier + "/" + escapedName(name);
      if (!endsWith(name, ".ics")) continue;
      if (!insideRoot(entry, relative)) continue;
      if (options_.beforeRead) options_.beforeRead(relative);
      int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      // Gone since the listing (deleted or renamed): nothing to serve and nothing lost; the
      // change that removed it leads to another rescan.
      if (fd < 0 && errno == ENOENT) continue;
      if (fd < 0) {
        next->diagnostics.push_back({relative, VdirDiagnostic::Action::skipped,
                                     std::string("file cannot be read: ") + std::strerror(errno)});
        continue;
      }
      struct stat status {};
      if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        continue;
      }
      CachedFile file;
      file.device = status.st_dev;
      file.inode = status.st_ino;
      file.size = status.st_size;
      file.modified = nanoseconds(status.st_mtim);
      file.changed = nanoseconds(status.st_ctim);
      auto cached = files_.find(relative);
      if (cached != files_.end() && cached->second.device == file.device && cached->second.inode == file.inode &&
          cached->second.size == file.size && cached->second.modified == file.modified &&
          cached->second.changed == file.changed) {
        file = cached->second;
        ::close(fd);
      } else if (static_cast<std::uintmax_t>(status.st_size) > options_.maximumFileSize) {
        ::close(fd);
        file.diagnostics.push_back({relative, VdirDiagnostic::Action::skipped,
                                    "file of " + std::to_string(status.st_size) + " bytes exceeds the limit of " +
                                        std::to_string(options_.maximumFileSize) + " bytes"});
      } else {
        std::string text;
        text.reserve(static_cast<std::size_t>(status.st_size));
        char buffer[65536];
        ssize_t count;
        bool failed = false;
        while ((count = ::read(fd, buffer, sizeof buffer)) != 0) {
          if (count < 0) {
            if (errno == EINTR) continue;
            failed = true;
            break;
          }
          text.append(buffer, static_cast<std::size_t>(count));
          if (text.size() > options_.maximumFileSize) break;
        }
        ::close(fd);
        if (failed) {
          file.diagnostics.push_back({relative, VdirDiagnostic::Action::skipped,
                                      std::string("file cannot be read: ") + std::strerror(errno)});
        } else {
          VdirParseContext context{zones_.get(), clock_.get(), &options_.userAddresses,
                                   options_.maximumCountedOccurrences};
          std::lock_guard lock(libicalMutex());
          auto parsed = parseItem(relative, name, text, context);
          ++parses_;
          file.item = std::move(parsed.item);
          file.diagnostics = std::move(parsed.diagnostics);
        }
      }
      next->diagnostics.insert(next->diagnostics.end(), file.diagnostics.begin(), file.diagnostics.end());
      if (file.item) {
        todos += file.item->todos.size();
        events += file.item->series.size();
        collection.items.push_back(file.item);
      }
      seen.emplace(relative, std::move(file));
    }
    VdirCalendarFields fields;
    fields.identifier = identifier;
    fields.title = validUtf8(readSmallFile(directory / "displayname").value_or(""));
    if (fields.title.empty()) fields.title = validUtf8(directory.filename().string());
    if (auto colour = readSmallFile(directory / "color")) {
      fields.color = parseColour(*colour);
      if (!fields.color)
        next->diagnostics.push_back({identifier + "/color", VdirDiagnostic::Action::repaired,
                                     "colour \"" + validUtf8(*colour) + "\" is not #RRGGBB: a default colour stands in"});
    }
    if (!fields.color) fields.color = defaultColour(identifier);
    // Both kinds: a mixed collection; to-dos only: a reminder list; events only or empty: a calendar.
    fields.entityTypes = todos > 0 && events > 0 ? (platform::EKEntityMaskEvent | platform::EKEntityMaskReminder)
                         : todos > 0             ? platform::EKEntityMaskReminder
                                                 : platform::EKEntityMaskEvent;
    fields.type = type;
    fields.source = source;
    auto previous = calendars_.find(identifier);
    const auto& old = previous == calendars_.end() ? nullptr : previous->second;
    if (old && old->fields().title == fields.title && platform::CGColorEqualToColor(old->fields().color, fields.color) &&
        old->fields().entityTypes == fields.entityTypes && old->fields().source == fields.source &&
        old->fields().type == fields.type)
      collection.calendar = old;
    else
      collection.calendar = std::make_shared<VdirCalendar>(std::move(fields));
    calendars[identifier] = collection.calendar;
    next->collections.push_back(std::move(collection));
  };
  auto sourceFor = [&](const std::string& identifier, platform::EKSourceType type, const std::string& title) {
    auto& source = sources_[identifier];
    if (!source || source->title() != title || source->sourceType() != type)
      source = std::make_shared<VdirSource>(identifier, type, title);
    return source;
  };

  if (next->rootReadable) {
    std::string rootTitle = validUtf8(canonicalRoot.filename().string());
    if (rootTitle.empty()) rootTitle = "Local";
    for (const auto& entry : list(root, "")) {
      std::string raw = entry.path().filename().string();
      std::string name = escapedName(raw);
      std::error_code e;
      if (!entry.is_directory(e)) {
        if (endsWith(raw, ".ics"))
          next->diagnostics.push_back({name, VdirDiagnostic::Action::skipped, "file outside any collection"});
        continue;
      }
      if (!insideRoot(entry, name)) continue;
      if (isCollection(entry.path())) {
        readCollection(entry.path(), name, sourceFor(".", 0, rootTitle), 0);
        continue;
      }
      auto source = sourceFor(name, 2, validUtf8(raw));
      for (const auto& inner : list(entry.path(), name)) {
        std::string innerName = escapedName(inner.path().filename().string());
        std::error_code innerError;
        if (!inner.is_directory(innerError)) continue;
        if (!insideRoot(inner, name + "/" + innerName)) continue;
        readCollection(inner.path(), name + "/" + innerName, source, 1);
      }
    }
  }
  std::sort(next->collections.begin(), next->collections.end(),
            [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
  for (std::size_t c = 0; c < next->collections.size(); ++c)
    for (std::size_t i = 0; i < next->collections[c].items.size(); ++i) {
      const auto& item = *next->collections[c].items[i];
      next->paths.insert(item.relativePath);
      for (std::size_t s = 0; s < item.series.size(); ++s)
        next->entries.emplace(item.series[s].identifier, VdirSnapshot::Entry{c, i, false, s});
      for (std::size_t t = 0; t < item.todos.size(); ++t)
        next->entries.emplace(item.todos[t].identifier, VdirSnapshot::Entry{c, i, true, t});
    }

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
  files_ = std::move(seen);
  calendars_ = std::move(calendars);
  {
    std::lock_guard lock(mutex_);
    snapshot_ = std::move(next);
    if (changed) runtime_.clear();
  }
  return changed;
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

std::vector<std::shared_ptr<platform::EKEvent>> VdirStore::events(
    platform::Date start, platform::Date end, const std::optional<std::set<std::string>>& calendars) {
  auto current = snapshot();
  struct Found {
    std::shared_ptr<const VdirItem> item;
    const VdirSeriesData* series;
    std::shared_ptr<VdirCalendar> calendar;
    VdirOccurrence occurrence;
  };
  std::vector<Found> found;
  {
    std::lock_guard lock(libicalMutex());
    std::vector<VdirOccurrence> occurrences;
    const auto began = std::chrono::steady_clock::now();
    std::optional<std::string> stopped;
    for (const auto& collection : current->collections) {
      if (calendars && !calendars->count(collection.identifier)) continue;
      for (const auto& item : collection.items) {
        if (item->series.empty()) continue;
        double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        if (found.size() >= options_.limits.maximumOccurrencesPerQuery || elapsed > options_.limits.maximumSecondsPerQuery) {
          stopped = "query from " + start.iso8601() + " to " + end.iso8601() + " stopped at " + item->relativePath +
                    " after " + std::to_string(found.size()) + " occurrences: the answer is incomplete";
          break;
        }
        for (const auto& series : item->series) {
          occurrences.clear();
          std::string problem;
          if (!expandSeries(series, *clock_, start.timeIntervalSince1970(), end.timeIntervalSince1970(),
                            options_.limits, occurrences, problem))
            reportRuntime({item->relativePath, VdirDiagnostic::Action::truncated, problem});
          for (const auto& occurrence : occurrences) found.push_back({item, &series, collection.calendar, occurrence});
        }
      }
      if (stopped) break;
    }
    if (stopped) reportRuntime({".", VdirDiagnostic::Action::truncated, *stopped});
  }
  std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    if (a.occurrence.start != b.occurrence.start) return a.occurrence.start < b.occurrence.start;
    if (a.series->identifier != b.series->identifier) return a.series->identifier < b.series->identifier;
    return a.occurrence.occurrence < b.occurrence.occurrence;
  });
  std::vector<std::shared_ptr<platform::EKEvent>> events;
  events.reserve(found.size());
  for (const auto& f : found) events.push_back(makeEvent(f.item, *f.series, f.calendar, f.occurrence));
  return events;
}

std::shared_ptr<platform::EKEvent> VdirStore::firstOccurrence(const std::string& eventIdentifier) {
  auto current = snapshot();
  auto at = current->entries.find(eventIdentifier);
  if (at == current->entries.end() || at->second.todo) return nullptr;
  const auto& collection = current->collections[at->second.collection];
  const auto& item = collection.items[at->second.item];
  std::lock_guard lock(libicalMutex());
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
