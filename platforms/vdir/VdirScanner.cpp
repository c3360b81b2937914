#include "platforms/vdir/VdirScanner.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirParallel.h"
#include "platforms/vdir/VdirText.h"

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

constexpr std::size_t kLargestMetadataFile = 65536;

// A small metadata file ("displayname", "color") without its trailing blanks; absent when there
// is none or it cannot be read. A file longer than kLargestMetadataFile reads as tooLong.
std::optional<VdirFileText> readSmallFile(VdirEnv& env, const std::string& path) {
  auto read = env.read(path, kLargestMetadataFile);
  if (!read || !*read) return std::nullopt;
  VdirFileText file = std::move(**read);
  std::string& text = file.text;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
    text.pop_back();
  return file;
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

VdirDiagnostic tooLarge(const std::string& relative, std::int64_t size, std::uintmax_t limit) {
  return {relative, VdirDiagnostic::Action::skipped,
          "file of " + std::to_string(size) + " bytes exceeds the limit of " + std::to_string(limit) + " bytes"};
}

VdirDiagnostic unreadable(const std::string& relative, const rivet::RivetError& error) {
  return {relative, VdirDiagnostic::Action::skipped, error.message()};
}

}  // namespace

bool isItemFileName(const std::string& name) {
  return name.find('/') == std::string::npos && endsWith(name, ".ics");
}

struct VdirScanner::Slot {
  std::string relative, name, path;
  const VdirDirectory* directory = nullptr;  // the file's directory held open, else path is set
  std::size_t previous = kNone;  // its record in the scan before's records
  VdirFileRecord record;
  bool parse = false, gone = false, unreadable = false;
};

// A problem of the tree, met when `slotsBefore` files had been listed: it is reported among the
// files' own problems, in the order they were met.
struct VdirScanner::Problem {
  std::size_t slotsBefore = 0;
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

// A directory's entries: a store has thousands of files, and the kind of each entry, as listed,
// saves a stat for most of them. An entry's path is made only when it is needed.
struct VdirScanner::Listing {
  std::string directory;
  std::vector<Listed> entries;  // by name, hidden ones left out but item files
  std::string pathOf(const Listed& entry) const { return directory + "/" + entry.name; }
  bool isLink(const Listed& entry) const { return entry.kind == VdirFileKind::link; }
  bool isDirectory(VdirEnv& env, const Listed& entry) const {
    if (entry.kind == VdirFileKind::directory) return true;
    if (entry.kind != VdirFileKind::unknown && entry.kind != VdirFileKind::link) return false;
    auto status = env.status(pathOf(entry));
    return status && *status && (*status)->kind == VdirFileKind::directory;
  }
  bool isCollection() const {
    for (const auto& entry : entries)
      if (entry.name == "displayname" || entry.name == "color" || endsWith(entry.name, ".ics")) return true;
    return false;
  }
};

VdirScanner::VdirScanner(const VdirStoreOptions& options, VdirEnv& env, VdirZones& zones, const VdirClock& clock,
                         unsigned threads)
    : options_(options), env_(env), zones_(zones), clock_(clock), threads_(std::max(1u, threads)),
      next_(std::make_shared<VdirSnapshot>()) {}

VdirScanner::~VdirScanner() = default;

void VdirScanner::problem(std::string path, VdirDiagnostic::Action action, std::string text) {
  problems_.push_back({slots_.size(), {std::move(path), action, std::move(text)}});
}

VdirScanner::Listing VdirScanner::listDirectory(std::string directory, const std::string& relative) {
  Listing listing;
  listing.directory = std::move(directory);
  auto entries = env_.list(listing.directory);
  if (!entries) {
    problem(relative.empty() ? "." : relative, VdirDiagnostic::Action::skipped, entries.error().message());
    return listing;
  }
  for (auto& entry : *entries)
    if (!entry.name.empty() && (entry.name[0] != '.' || isHiddenItemFile(listing, entry)))
      listing.entries.push_back(std::move(entry));
  std::sort(listing.entries.begin(), listing.entries.end(),
            [](const Listed& a, const Listed& b) { return a.name < b.name; });
  return listing;
}

// Hidden entries are sync tools' state and temporary files, except item files: vdirsyncer names a
// file after its item's UID, and the UID ".abc" gives ".abc.ics". Writers' temporary files end
// otherwise (".tmp"), and a directory is never an item file.
bool VdirScanner::isHiddenItemFile(const Listing& listing, const Listed& entry) {
  return isItemFileName(entry.name) && !listing.isDirectory(env_, entry);
}

// Symbolic links are followed only when they stay inside the store root.
bool VdirScanner::insideRoot(const Listing& listing, const Listed& entry, const std::string& relative) {
  if (!listing.isLink(entry)) return true;
  auto target = env_.canonical(listing.pathOf(entry));
  if (target && target->rfind(rootPrefix_, 0) == 0) return true;
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
  const VdirDirectory* held = nullptr;
  if (auto opened = env_.openDirectory(directory)) {
    directories_.push_back(std::move(opened).value());
    held = directories_.back().get();
  }
  for (auto& entry : listing.entries) {
    if (!isItemFileName(entry.name)) continue;
    std::string relative = identifier + "/" + escapedName(entry.name);
    if (!insideRoot(listing, entry, relative)) continue;
    Slot slot;
    slot.relative = std::move(relative);
    slot.directory = held;
    if (!held) slot.path = listing.pathOf(entry);
    slot.name = std::move(entry.name);
    collection.slots.push_back(slots_.size());
    slots_.push_back(std::move(slot));
  }
  if (auto name = readSmallFile(env_, directory + "/displayname")) {
    if (name->tooLong)
      problem(identifier + "/displayname", VdirDiagnostic::Action::skipped,
              "longer than " + std::to_string(kLargestMetadataFile) + " bytes: the directory's name stands in");
    else
      collection.displayName = std::move(name->text);
  }
  if (auto colour = readSmallFile(env_, directory + "/color")) {
    collection.colour = colour->tooLong ? nullptr : parseColour(colour->text);
    if (!collection.colour)
      problem(identifier + "/color", VdirDiagnostic::Action::repaired,
              "colour \"" + validUtf8(colour->text.substr(0, 64)) + "\" is not #RRGGBB: a default colour stands in");
  }
  collections_.push_back(std::move(collection));
}

void VdirScanner::list(VdirSources& sources) {
  const fs::path root(options_.root);
  auto rootStatus = env_.status(options_.root);
  next_->rootExists = rootStatus && *rootStatus && (*rootStatus)->kind == VdirFileKind::directory;
  next_->rootReadable = next_->rootExists && env_.mayList(options_.root);
  if (next_->rootExists && !next_->rootReadable) problem(".", VdirDiagnostic::Action::skipped, "the store root cannot be read");
  if (!next_->rootReadable) return;
  const fs::path canonicalRoot(env_.canonical(options_.root).value_or(options_.root));
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
    if (!top.isDirectory(env_, entry)) {
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
      if (!inside.isDirectory(env_, inner) || !insideRoot(inside, inner, identifier)) continue;
      addCollection(listDirectory(inside.pathOf(inner), identifier), identifier, source,
                    platform::EKCalendarTypeCalDAV);
    }
  }
}

std::size_t VdirScanner::addSlot(Slot slot) {
  slots_.push_back(std::move(slot));
  return slots_.size() - 1;
}

void VdirScanner::relist(const VdirSnapshot& previous,
                         const std::vector<std::pair<std::string, std::string>>& written) {
  relisted_ = true;
  next_->rootExists = previous.rootExists;
  next_->rootReadable = previous.rootReadable;
  for (const auto& file : written) {
    const std::string& identifier = file.first;
    const std::string& name = file.second;
    const VdirCollection* served = collectionNamed(previous, identifier);
    if (!served) continue;
    auto pending = std::find_if(collections_.begin(), collections_.end(),
                                [&](const Collection& collection) { return collection.identifier == identifier; });
    if (pending == collections_.end()) {
      const VdirCalendarFields& fields = served->calendar->fields();
      Collection collection;
      collection.identifier = served->identifier;
      collection.directory = served->directory;
      collection.source = fields.source;
      collection.type = fields.type;
      collection.displayName = fields.title;
      collection.colour = fields.color;
      pending = collections_.insert(collections_.end(), std::move(collection));
    }
    Slot slot;
    slot.relative = identifier + "/" + escapedName(name);
    slot.name = name;
    slot.path = pending->directory + "/" + name;
    slot.parse = true;
    pending->slots.push_back(addSlot(std::move(slot)));
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
  auto looked = slot.directory ? env_.status(*slot.directory, slot.name) : env_.status(slot.path);
  if (!looked) {
    slot.unreadable = true;
    slot.record.diagnostics.push_back(unreadable(slot.relative, looked.error()));
    return;
  }
  // Gone since the listing (deleted or renamed), or no file: nothing to serve and nothing lost;
  // the change that removed it leads to another scan.
  if (!*looked || (*looked)->kind != VdirFileKind::file) {
    slot.gone = true;
    return;
  }
  const VdirFileStatus& status = **looked;
  slot.record.setVersion(status);
  if (previous[slot.previous].second.sameVersion(slot.record)) {
    // Each record is matched to one file at most.
    slot.record = std::move(previous[slot.previous].second);
  } else if (static_cast<std::uintmax_t>(status.size) > options_.maximumFileSize) {
    slot.record.diagnostics.push_back(tooLarge(slot.relative, status.size, options_.maximumFileSize));
  } else {
    slot.parse = true;
  }
}

void VdirScanner::look(VdirFileRecords& previous) {
  if (!relisted_) matchPrevious(previous);
  runOnEveryCore(threads_, slots_.size(), 1024, [&](std::size_t at) { lookAt(slots_[at], previous); });
  for (std::size_t i = 0; i < slots_.size(); ++i)
    if (slots_[i].parse) toParse_.push_back(i);
}

bool VdirScanner::readSlot(Slot& slot) const {
  const std::uintmax_t limit = options_.maximumFileSize;
  auto read = slot.directory ? env_.read(*slot.directory, slot.name, limit) : env_.read(slot.path, limit);
  if (!read) {
    slot.record.diagnostics.push_back(unreadable(slot.relative, read.error()));
    return false;
  }
  if (!*read) {
    slot.gone = true;
    return false;
  }
  // The version read is the one recorded.
  const VdirFileText& file = **read;
  slot.record.setVersion(file.status);
  if (file.tooLong) {
    if (static_cast<std::uintmax_t>(file.status.size) > limit)
      slot.record.diagnostics.push_back(tooLarge(slot.relative, file.status.size, limit));
    else
      slot.record.diagnostics.push_back({slot.relative, VdirDiagnostic::Action::skipped,
                                         "file grew past the limit of " + std::to_string(limit) +
                                             " bytes while it was read"});
    return false;
  }
  VdirParseContext context{&zones_, &clock_, &options_.userAddresses, options_.maximumCountedOccurrences,
                           &knownLines_};
  auto parsed = parseItem(slot.relative, slot.name, file.text, context);
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
  collection.calendar = calendarOf(pending, events, todos, previous);
  result.calendars[pending.identifier] = collection.calendar;
  return collection;
}

std::shared_ptr<VdirCalendar> VdirScanner::calendarOf(const Collection& pending, std::size_t events, std::size_t todos,
                                                      const VdirCalendars& previous) const {
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
  fields.writable = env_.mayWrite(pending.directory);
  auto found = previous.find(pending.identifier);
  const auto& old = found == previous.end() ? nullptr : found->second;
  if (old && old->fields().title == fields.title && platform::CGColorEqualToColor(old->fields().color, fields.color) &&
      old->fields().entityTypes == fields.entityTypes && old->fields().source == fields.source &&
      old->fields().type == fields.type && old->fields().writable == fields.writable)
    return old;
  return std::make_shared<VdirCalendar>(std::move(fields));
}

VdirScanResult VdirScanner::finish(const VdirCalendars& previous) {
  VdirScanResult result;
  result.reread = toParse_.size();
  auto& next = *next_;
  auto problem = problems_.begin();
  for (std::size_t at = 0; at <= slots_.size(); ++at) {
    for (; problem != problems_.end() && problem->slotsBefore <= at; ++problem)
      next.diagnostics.push_back(problem->diagnostic);
    if (at == slots_.size()) break;
    if (const Slot& slot = slots_[at]; !slot.gone)
      next.diagnostics.insert(next.diagnostics.end(), slot.record.diagnostics.begin(), slot.record.diagnostics.end());
  }
  result.records.reserve(slots_.size());
  for (auto& pending : collections_) next.collections.push_back(assemble(pending, previous, result));
  std::sort(next.collections.begin(), next.collections.end(),
            [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
  next.entries = VdirEntries::of(next.collections);
  result.snapshot = std::move(next_);
  return result;
}

VdirScanResult VdirScanner::patch(const std::shared_ptr<const VdirSnapshot>& previous, VdirFileRecords& records,
                                  const VdirCalendars& calendars) {
  VdirScanResult result;
  result.reread = toParse_.size();
  result.calendars = calendars;
  auto& next = *next_;
  next.collections = previous->collections;
  next.entries = previous->entries;
  next.patchedFrom = previous;
  std::unordered_set<std::string_view> reread;
  for (const Slot& slot : slots_) reread.insert(slot.relative);
  for (const auto& diagnostic : previous->diagnostics)
    if (!reread.count(diagnostic.path)) next.diagnostics.push_back(diagnostic);
  for (const Collection& pending : collections_) {
    const auto c = static_cast<std::size_t>(
        std::find_if(next.collections.begin(), next.collections.end(),
                     [&](const VdirCollection& collection) { return collection.identifier == pending.identifier; }) -
        next.collections.begin());
    VdirCollection& collection = next.collections[c];
    for (std::size_t index : pending.slots) patchFile(slots_[index], c, next, records);
    std::size_t events = 0, todos = 0;
    for (const auto& item : collection.items) {
      events += item->series.size();
      todos += item->todos.size();
    }
    collection.calendar = calendarOf(pending, events, todos, calendars);
    result.calendars[pending.identifier] = collection.calendar;
  }
  result.records = std::move(records);
  result.snapshot = std::move(next_);
  return result;
}

void VdirScanner::patchFile(Slot& slot, std::size_t c, VdirSnapshot& next, VdirFileRecords& records) {
  // The file's item in its place among the collection's, which are kept by path.
  auto& items = next.collections[c].items;
  auto at = std::lower_bound(
      items.begin(), items.end(), slot.relative,
      [](const auto& item, const std::string& relative) { return item->relativePath < relative; });
  std::shared_ptr<const VdirItem> removed;
  if (at != items.end() && (*at)->relativePath == slot.relative) removed = *at;
  const bool kept = !slot.gone && !slot.unreadable;
  std::shared_ptr<const VdirItem> added = kept ? slot.record.item : nullptr;
  next.patches.push_back({c, static_cast<std::size_t>(at - items.begin()), removed.get(), added.get()});
  if (removed && added) *at = added;
  else if (removed) items.erase(at);
  else if (added) items.insert(at, added);
  next.entries = next.entries.replaced(removed.get(), added, c, next.collections);
  if (kept)
    next.diagnostics.insert(next.diagnostics.end(), slot.record.diagnostics.begin(), slot.record.diagnostics.end());
  // Its record, in listing order: after the records before it in its collection.
  const std::string_view collectionPrefix(slot.relative.data(), slot.relative.rfind('/') + 1);
  auto record = records.begin(), after = records.end();
  for (; record != records.end() && record->first != slot.relative; ++record)
    if (record->first.compare(0, collectionPrefix.size(), collectionPrefix) == 0 && record->first < slot.relative)
      after = record;
  if (record != records.end()) {
    if (kept) record->second = std::move(slot.record);
    else records.erase(record);
  } else if (kept) {
    records.emplace(after == records.end() ? records.end() : after + 1, std::move(slot.relative),
                    std::move(slot.record));
  }
}

}  // namespace vesp::vdir
