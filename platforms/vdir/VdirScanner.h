// One scan of a vdir tree: from the root, the records of the scan before and the files on disk to
// the next snapshot, the records that go with it and the problems found, in four steps that run
// (and can be tested) one at a time:
//
//   list()   every collection and its .ics files, sorted, on the calling thread (or relist(),
//            which lists only the files a store wrote itself);
//   look()   each file's version against the scan before, taking over unchanged records (every core);
//   read()   read and parse what is new or changed (every core);
//   finish() the snapshot and the records, in listing order; problems in the order they were met
//            (or patch(), after relist(): the snapshot before with the files read again).
//
// A scanner is used once, by one thread; it reads files and never writes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirOutline.h"
#include "platforms/vdir/VdirOptions.h"
#include "platforms/vdir/VdirSnapshot.h"

namespace vesp::vdir {

class VdirClock;
class VdirDirectory;
class VdirEnv;
struct VdirDirectoryEntry;
class VdirZones;

// Whether a scan reads a file of this name in a collection as an item: "NAME.ics", hidden too
// (".abc.ics" holds the UID ".abc" for vdirsyncer).
bool isItemFileName(const std::string& name);

using VdirSources = std::map<std::string, std::shared_ptr<VdirSource>>;
using VdirCalendars = std::map<std::string, std::shared_ptr<VdirCalendar>>;

struct VdirScanResult {
  std::shared_ptr<VdirSnapshot> snapshot;  // its generation is the caller's to set
  VdirFileRecords records;                 // of the files served, in listing order
  VdirCalendars calendars;                 // by identifier
  std::size_t reread = 0;                  // files look() found new or changed
};

class VdirScanner {
 public:
  // `threads` workers look at and parse files (at least one), through `env`.
  VdirScanner(const VdirStoreOptions& options, VdirEnv& env, VdirZones& zones, const VdirClock& clock,
              unsigned threads);
  ~VdirScanner();
  VdirScanner(const VdirScanner&) = delete;
  VdirScanner& operator=(const VdirScanner&) = delete;

  // Lists the tree. Accounts' sources are taken from `sources` when unchanged, else made there.
  void list(VdirSources& sources);
  // Instead of list(): only the files of `written` (collection identifier and file name, in
  // collections of `previous`), which look() and read() read again. Nothing else is listed or
  // looked at: for a store that knows which files it changed itself. Then patch(), not finish().
  void relist(const VdirSnapshot& previous, const std::vector<std::pair<std::string, std::string>>& written);
  // Compares each listed file with its record in `previous` (the scan before's, in its order) and
  // moves the records of unchanged files out of it.
  void look(VdirFileRecords& previous);
  // Reads and parses the files look() found new or changed. Returns how many it parsed.
  std::size_t read();
  // The snapshot; a collection whose calendar fields are unchanged keeps its calendar from `previous`.
  VdirScanResult finish(const VdirCalendars& previous);
  // After relist(): `previous` (the snapshot relist() was given) with the files read again in place
  // of their old versions, or without them when they are gone, and its `records` changed alike
  // (moved into the result). Costs about a copy of the collections' item lists: the look-up table
  // is shared with `previous` (see VdirEntries), and the snapshot names what changed in it (its
  // patches). Calendars are kept from `calendars` unless their fields changed.
  VdirScanResult patch(const std::shared_ptr<const VdirSnapshot>& previous, VdirFileRecords& records,
                       const VdirCalendars& calendars);

 private:
  struct Slot;
  struct Problem;
  struct Collection;
  using Listed = VdirDirectoryEntry;
  struct Listing;
  Listing listDirectory(std::string directory, const std::string& relative);
  bool isHiddenItemFile(const Listing& listing, const Listed& entry);
  bool insideRoot(const Listing& listing, const Listed& entry, const std::string& relative);
  void addCollection(Listing listing, const std::string& identifier, const std::shared_ptr<VdirSource>& source,
                     platform::EKCalendarType type);
  void matchPrevious(const VdirFileRecords& previous);
  void lookAt(Slot& slot, VdirFileRecords& previous) const;
  bool readSlot(Slot& slot) const;  // whether it parsed the file
  VdirCollection assemble(Collection& pending, const VdirCalendars& previous, VdirScanResult& result);
  // The calendar of a collection holding that many series and to-dos; the one in `previous` when
  // its fields are unchanged.
  std::shared_ptr<VdirCalendar> calendarOf(const Collection& pending, std::size_t events, std::size_t todos,
                                           const VdirCalendars& previous) const;
  void patchFile(Slot& slot, std::size_t collection, VdirSnapshot& next, VdirFileRecords& records);
  void problem(std::string path, VdirDiagnostic::Action action, std::string text);
  std::size_t addSlot(struct Slot slot);

  const VdirStoreOptions& options_;
  VdirEnv& env_;
  VdirZones& zones_;
  mutable VdirKnownLines knownLines_;  // of this scan's files (thread-safe)
  const VdirClock& clock_;
  const unsigned threads_;
  std::shared_ptr<VdirSnapshot> next_;
  std::string rootPrefix_;  // the canonical root and "/": symbolic links must stay under it
  std::vector<std::unique_ptr<VdirDirectory>> directories_;  // open while their files are read
  std::vector<Slot> slots_;
  std::vector<Problem> problems_;
  std::vector<Collection> collections_;
  std::vector<std::size_t> toParse_;
  bool relisted_ = false;
};

}  // namespace vesp::vdir
