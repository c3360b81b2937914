#include "platforms/vdir/VdirScanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "platforms/vdir/VdirFiles.h"
#include "platforms/vdir/VdirText.h"

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

std::int64_t nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

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

constexpr std::size_t kLargestMetadataFile = 65536;

// Reads a small metadata file ("displayname", "color") without its trailing blanks; absent when
// there is none or it cannot be read. A file longer than kLargestMetadataFile gives its first
// kLargestMetadataFile + 1 bytes as they are, for the caller to tell.
std::optional<std::string> readSmallFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  auto read = readOpenFile(fd, 0, kLargestMetadataFile);
  ::close(fd);
  if (!read) return std::nullopt;
  std::string text = std::move(read).value();
  if (text.size() > kLargestMetadataFile) return text;
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

VdirDiagnostic tooLarge(const std::string& relative, off_t size, std::uintmax_t limit) {
  return {relative, VdirDiagnostic::Action::skipped,
          "file of " + std::to_string(size) + " bytes exceeds the limit of " + std::to_string(limit) + " bytes"};
}

VdirDiagnostic unreadable(const std::string& relative, int error) {
  return {relative, VdirDiagnostic::Action::skipped, std::string("file cannot be read: ") + std::strerror(error)};
}

// Runs work(0) ... work(count - 1) on up to `threads` threads (this one included), each taking
// the next index; a thread is started for every `perThread` items at most.
void runOnEveryCore(unsigned threads, std::size_t count, std::size_t perThread,
                    const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  auto some = [&] {
    for (std::size_t at; (at = next++) < count;) work(at);
  };
  unsigned workers = static_cast<unsigned>(std::min<std::size_t>(threads, (count + perThread - 1) / perThread));
  std::vector<std::thread> pool;
  for (unsigned i = 1; i < workers; ++i) pool.emplace_back(some);
  some();
  for (auto& thread : pool) thread.join();
}

}  // namespace

struct VdirScanner::Slot {
  std::string relative, name, path;
  int directory = AT_FDCWD;  // an open descriptor of the file's directory, else path is set
  std::size_t previous = kNone;  // its record in the scan before's records
  VdirFileRecord record;
  bool parse = false, gone = false, unreadable = false;
  const char* at() const { return directory == AT_FDCWD ? path.c_str() : name.c_str(); }
};

// A problem of the tree (no slot), or the place of a file's own problems in the listing.
struct VdirScanner::Problem {
  std::optional<std::size_t> slot;
  VdirDiagnostic diagnostic;
};

struct VdirScanner::Collection {
  std::string identifier;
  std::string directory;
  std::shared_ptr<VdirSource> source;
  platform::EKCalendarType type = platform::EKCalendarTypeLocal;
  std::vector<std::size_t> slots;
  std::optional<std::string> displayName;
  platform::CGColorRef colour = nullptr;
};

// A directory entry read with readdir: a store has thousands of files, and the entry type saves a
// stat for most of them. An entry's path is made only when it is needed.
struct VdirScanner::Listed {
  std::string name;
  unsigned char type = DT_UNKNOWN;
};

struct VdirScanner::Listing {
  std::string directory;
  std::vector<Listed> entries;  // by name, hidden ones left out
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
  bool isCollection() const {
    for (const auto& entry : entries)
      if (entry.name == "displayname" || entry.name == "color" || endsWith(entry.name, ".ics")) return true;
    return false;
  }
};

VdirScanner::VdirScanner(const VdirStoreOptions& options, VdirZones& zones, const VdirClock& clock, unsigned threads,
                         const VdirScanHooks& hooks)
    : options_(options), hooks_(hooks), zones_(zones), clock_(clock), threads_(std::max(1u, threads)),
      next_(std::make_shared<VdirSnapshot>()) {}

VdirScanner::~VdirScanner() {
  for (int fd : directories_) ::close(fd);
}

void VdirScanner::problem(std::string path, VdirDiagnostic::Action action, std::string text) {
  problems_.push_back({std::nullopt, {std::move(path), action, std::move(text)}});
}

VdirScanner::Listing VdirScanner::listDirectory(std::string directory, const std::string& relative) {
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
}

// Symbolic links are followed only when they stay inside the store root.
bool VdirScanner::insideRoot(const Listing& listing, const Listed& entry, const std::string& relative) {
  if (!listing.isLink(entry)) return true;
  std::error_code linkError;
  fs::path target = fs::weakly_canonical(fs::path(listing.pathOf(entry)), linkError);
  if (!linkError && target.string().rfind(rootPrefix_, 0) == 0) return true;
  problem(relative, VdirDiagnostic::Action::skipped, "symbolic link leaves the store root");
  return false;
}

void VdirScanner::addCollection(Listing listing, const std::string& identifier,
                                const std::shared_ptr<VdirSource>& source, platform::EKCalendarType type) {
  const std::string& directory = listing.directory;
  Collection collection;
  collection.identifier = identifier;
  collection.directory = directory;
  collection.source = source;
  collection.type = type;
  // Files are looked at relative to their directory (no path walk per file), later, on every core.
  int directoryFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directoryFd >= 0) directories_.push_back(directoryFd);
  for (auto& entry : listing.entries) {
    if (!endsWith(entry.name, ".ics")) continue;
    std::string relative = identifier + "/" + escapedName(entry.name);
    if (!insideRoot(listing, entry, relative)) continue;
    Slot slot;
    slot.relative = std::move(relative);
    slot.directory = directoryFd >= 0 ? directoryFd : AT_FDCWD;
    if (directoryFd < 0) slot.path = listing.pathOf(entry);
    slot.name = std::move(entry.name);
    problems_.push_back({slots_.size(), {}});
    collection.slots.push_back(slots_.size());
    slots_.push_back(std::move(slot));
  }
  collection.displayName = readSmallFile(directory + "/displayname");
  if (collection.displayName && collection.displayName->size() > kLargestMetadataFile) {
    problem(identifier + "/displayname", VdirDiagnostic::Action::skipped,
            "longer than " + std::to_string(kLargestMetadataFile) + " bytes: the directory's name stands in");
    collection.displayName.reset();
  }
  if (auto colour = readSmallFile(directory + "/color")) {
    collection.colour = parseColour(*colour);
    if (!collection.colour)
      problem(identifier + "/color", VdirDiagnostic::Action::repaired,
              "colour \"" + validUtf8(*colour) + "\" is not #RRGGBB: a default colour stands in");
  }
  collections_.push_back(std::move(collection));
}

void VdirScanner::list(VdirSources& sources) {
  const fs::path root(options_.root);
  std::error_code error;
  next_->rootExists = fs::is_directory(root, error);
  next_->rootReadable = next_->rootExists && ::access(root.c_str(), R_OK | X_OK) == 0;
  if (next_->rootExists && !next_->rootReadable) problem(".", VdirDiagnostic::Action::skipped, "the store root cannot be read");
  if (!next_->rootReadable) return;
  const fs::path canonicalRoot = fs::weakly_canonical(root, error);
  rootPrefix_ = canonicalRoot.string() + "/";
  auto sourceFor = [&](const std::string& identifier, platform::EKSourceType type, const std::string& title) {
    auto& source = sources[identifier];
    if (!source || source->title() != title || source->sourceType() != type)
      source = std::make_shared<VdirSource>(identifier, type, title);
    return source;
  };
  std::string rootTitle = validUtf8(canonicalRoot.filename().string());
  if (rootTitle.empty()) rootTitle = "Local";
  const Listing top = listDirectory(root.string(), "");
  for (const auto& entry : top.entries) {
    std::string name = escapedName(entry.name);
    if (!top.isDirectory(entry)) {
      if (endsWith(entry.name, ".ics")) problem(name, VdirDiagnostic::Action::skipped, "file outside any collection");
      continue;
    }
    if (!insideRoot(top, entry, name)) continue;
    Listing inside = listDirectory(top.pathOf(entry), name);
    if (inside.isCollection()) {
      addCollection(std::move(inside), name, sourceFor(".", platform::EKSourceTypeLocal, rootTitle),
                    platform::EKCalendarTypeLocal);
      continue;
    }
    auto source = sourceFor(name, platform::EKSourceTypeCalDAV, validUtf8(entry.name));
    for (const auto& inner : inside.entries) {
      std::string identifier = name + "/" + escapedName(inner.name);
      if (!inside.isDirectory(inner) || !insideRoot(inside, inner, identifier)) continue;
      addCollection(listDirectory(inside.pathOf(inner), identifier), identifier, source,
                    platform::EKCalendarTypeCalDAV);
    }
  }
}

// Each file's record from the scan before: where the order of that scan puts it, else by name.
void VdirScanner::matchPrevious(const VdirFileRecords& previous) {
  std::unordered_map<std::string_view, std::size_t> byPath;
  std::size_t expected = 0;
  for (auto& slot : slots_) {
    if (expected < previous.size() && previous[expected].first == slot.relative) {
      slot.previous = expected++;
      continue;
    }
    if (byPath.empty())
      for (std::size_t i = 0; i < previous.size(); ++i) byPath.emplace(previous[i].first, i);
    if (auto found = byPath.find(slot.relative); found != byPath.end()) {
      slot.previous = found->second;
      expected = found->second + 1;
    }
  }
}

void VdirScanner::lookAt(Slot& slot, VdirFileRecords& previous) const {
  // A file not seen before is read in any case (and looked at when it is opened).
  if (slot.previous == kNone) {
    slot.parse = true;
    return;
  }
  struct stat status {};
  if (::fstatat(slot.directory, slot.at(), &status, 0) != 0) {
    // Gone since the listing (deleted or renamed): nothing to serve and nothing lost; the change
    // that removed it leads to another scan.
    if (errno == ENOENT) {
      slot.gone = true;
    } else {
      slot.unreadable = true;
      slot.record.diagnostics.push_back(unreadable(slot.relative, errno));
    }
    return;
  }
  if (!S_ISREG(status.st_mode)) {
    slot.gone = true;
    return;
  }
  setVersion(slot.record, status);
  if (previous[slot.previous].second.sameVersion(slot.record)) {
    // Each record is matched to one file at most.
    slot.record = std::move(previous[slot.previous].second);
  } else if (static_cast<std::uintmax_t>(status.st_size) > options_.maximumFileSize) {
    slot.record.diagnostics.push_back(tooLarge(slot.relative, status.st_size, options_.maximumFileSize));
  } else {
    slot.parse = true;
  }
}

void VdirScanner::look(VdirFileRecords& previous) {
  // The fault injection hook runs first, in listing order.
  if (hooks_.beforeLooking)
    for (const auto& slot : slots_) hooks_.beforeLooking(slot.relative);
  matchPrevious(previous);
  runOnEveryCore(threads_, slots_.size(), 1024, [&](std::size_t at) { lookAt(slots_[at], previous); });
  for (std::size_t i = 0; i < slots_.size(); ++i)
    if (slots_[i].parse) toParse_.push_back(i);
}

bool VdirScanner::readSlot(Slot& slot) const {
  int fd = ::openat(slot.directory, slot.at(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT)
      slot.gone = true;
    else
      slot.record.diagnostics.push_back(unreadable(slot.relative, errno));
    return false;
  }
  // The version read is the one recorded.
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    slot.gone = true;
    return false;
  }
  setVersion(slot.record, status);
  if (static_cast<std::uintmax_t>(status.st_size) > options_.maximumFileSize) {
    ::close(fd);
    slot.record.diagnostics.push_back(tooLarge(slot.relative, status.st_size, options_.maximumFileSize));
    return false;
  }
  auto text = readOpenFile(fd, static_cast<std::size_t>(status.st_size), options_.maximumFileSize);
  ::close(fd);
  if (!text) {
    slot.record.diagnostics.push_back({slot.relative, VdirDiagnostic::Action::skipped, text.error().message()});
    return false;
  }
  if (text->size() > options_.maximumFileSize) {
    slot.record.diagnostics.push_back({slot.relative, VdirDiagnostic::Action::skipped,
                                       "file grew past the limit of " + std::to_string(options_.maximumFileSize) +
                                           " bytes while it was read"});
    return false;
  }
  VdirParseContext context{&zones_, &clock_, &options_.userAddresses, options_.maximumCountedOccurrences};
  auto parsed = parseItem(slot.relative, slot.name, *text, context);
  slot.record.item = std::move(parsed.item);
  slot.record.diagnostics = std::move(parsed.diagnostics);
  return true;
}

std::size_t VdirScanner::read() {
  std::atomic<std::size_t> parsed{0};
  runOnEveryCore(threads_, toParse_.size(), 64, [&](std::size_t at) {
    if (readSlot(slots_[toParse_[at]])) ++parsed;
  });
  return parsed.load();
}

VdirCollection VdirScanner::assemble(Collection& pending, const VdirCalendars& previous, VdirScanResult& result) {
  VdirCollection collection;
  collection.identifier = pending.identifier;
  collection.directory = pending.directory;
  std::size_t events = 0, todos = 0;
  for (std::size_t index : pending.slots) {
    Slot& slot = slots_[index];
    if (slot.gone || slot.unreadable) continue;
    if (slot.record.item) {
      todos += slot.record.item->todos.size();
      events += slot.record.item->series.size();
      collection.items.push_back(slot.record.item);
    }
    result.records.emplace_back(std::move(slot.relative), std::move(slot.record));
  }
  VdirCalendarFields fields;
  fields.identifier = pending.identifier;
  fields.title = validUtf8(pending.displayName.value_or(""));
  if (fields.title.empty()) fields.title = validUtf8(fs::path(pending.directory).filename().string());
  fields.color = pending.colour ? pending.colour : defaultColour(pending.identifier);
  // Both kinds: a mixed collection; to-dos only: a reminder list; events only or empty: a calendar.
  fields.entityTypes = todos > 0 && events > 0 ? (platform::EKEntityMaskEvent | platform::EKEntityMaskReminder)
                       : todos > 0             ? platform::EKEntityMaskReminder
                                               : platform::EKEntityMaskEvent;
  fields.type = pending.type;
  fields.source = pending.source;
  auto found = previous.find(pending.identifier);
  const auto& old = found == previous.end() ? nullptr : found->second;
  if (old && old->fields().title == fields.title && platform::CGColorEqualToColor(old->fields().color, fields.color) &&
      old->fields().entityTypes == fields.entityTypes && old->fields().source == fields.source &&
      old->fields().type == fields.type)
    collection.calendar = old;
  else
    collection.calendar = std::make_shared<VdirCalendar>(std::move(fields));
  result.calendars[pending.identifier] = collection.calendar;
  return collection;
}

VdirScanResult VdirScanner::finish(const VdirCalendars& previous) {
  VdirScanResult result;
  result.reread = toParse_.size();
  auto& next = *next_;
  for (const auto& p : problems_) {
    if (!p.slot) {
      next.diagnostics.push_back(p.diagnostic);
    } else if (const Slot& slot = slots_[*p.slot]; !slot.gone) {
      next.diagnostics.insert(next.diagnostics.end(), slot.record.diagnostics.begin(), slot.record.diagnostics.end());
    }
  }
  result.records.reserve(slots_.size());
  for (auto& pending : collections_) next.collections.push_back(assemble(pending, previous, result));
  std::sort(next.collections.begin(), next.collections.end(),
            [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
  // The two look-up tables, side by side.
  const std::size_t files = result.records.size();
  auto paths = std::async(files > 4096 ? std::launch::async : std::launch::deferred, [&] {
    next.paths.reserve(files);
    for (const auto& collection : next.collections)
      for (const auto& item : collection.items) next.paths.insert(item->relativePath);
  });
  next.entries.reserve(files + files / 8);
  for (std::size_t c = 0; c < next.collections.size(); ++c)
    for (std::size_t i = 0; i < next.collections[c].items.size(); ++i) {
      const auto& item = *next.collections[c].items[i];
      for (std::size_t s = 0; s < item.series.size(); ++s)
        next.entries.emplace(item.series[s].identifier, VdirSnapshot::Entry{c, i, false, s});
      for (std::size_t t = 0; t < item.todos.size(); ++t)
        next.entries.emplace(item.todos[t].todoData->identifier, VdirSnapshot::Entry{c, i, true, t});
    }
  paths.get();
  result.snapshot = std::move(next_);
  return result;
}

}  // namespace vesp::vdir
