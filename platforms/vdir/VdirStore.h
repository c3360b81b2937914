// The calendar data of one vdir tree, shared by every store connection of a platform.
//
// Layout: ROOT/<collection>/ or ROOT/<account>/<collection>/, each collection a directory of .ics
// files (one item each) with optional "displayname" and "color" files. A directory directly under
// the root is a collection when it holds .ics files or a displayname or color file, and an account
// otherwise. Hidden entries (".name") are skipped.
//
// The tree is read into snapshots: immutable, and replaced whole, so every answer sees each file
// wholly in its old or wholly in its new version. Files are re-read only when their size,
// modification time, change time or inode differ from what was read. With watching on, a watcher
// thread turns a burst of changes into one rescan and one call of each change listener (on that
// thread); an overflowed event queue costs a full rescan, never a missed change.
//
// The scan itself is VdirScanner's; the store swaps its snapshots, keeps the cache and tells listeners.
// Files, directories, watches and the clock are reached through a VdirEnv only.
//
// The store writes only when asked to save (see save()): a file at a time, atomically, and only
// over the version the edit was based on. Scans open files read-only.
//
// Opening is quick: files are parsed on every core, and a persistent cache (see VdirCache) holds
// each file's compact data, so reopening re-parses only the files that changed. Queries are
// answered over the latest snapshot by VdirQueries, whose time index and kept expansions every
// connection shares; the expansions are saved beside the cache when the store is let go of, and
// the next store of the tree takes them over when it opens (see VdirExpansionCache).
//
// Thread safety: every member function may be called from any thread. Window queries wait for
// each other only while taking or keeping expansions, never while libical expands.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirQueries.h"
#include "platforms/vdir/VdirScanner.h"
#include "platforms/vdir/VdirSnapshot.h"
#include "platforms/vdir/VdirSnapshotSource.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::vdir {

class VdirDirectoryWatch;
class VdirEnv;
class VdirZones;

// A file of a collection as read to be edited: where it is, and the version the edit starts from.
struct VdirFileToEdit {
  std::string collection;  // the collection's identifier
  std::string name;        // the file's name in its directory
  std::string path;
  VdirFileBasis basis;  // without a status: there is no such file yet
};

// One file of a save: its new bytes, or its removal, over the version its edit started from.
struct VdirFileChange {
  std::string collection;
  std::string name;
  std::optional<std::string> bytes;  // absent: remove the file
  VdirFileBasis basis;
};

class VdirStore : public VdirSnapshotSource, public std::enable_shared_from_this<VdirStore> {
 public:
  // Reads the tree once and, when asked, starts watching it. Files, directories and the clock are
  // reached through `env` (none: this machine's).
  static std::shared_ptr<VdirStore> make(VdirStoreOptions options, std::shared_ptr<VdirEnv> env = nullptr);
  ~VdirStore() override;
  VdirStore(const VdirStore&) = delete;
  VdirStore& operator=(const VdirStore&) = delete;

  const VdirStoreOptions& options() const { return options_; }
  std::shared_ptr<const VdirSnapshot> snapshot() const override;
  VdirQueries& queries() override { return queries_; }
  // False when the root exists but is not a directory this process can read.
  bool readable() const override;
  std::string description() const override { return "vdir " + options_.root; }

  // Rescans now; calls the change listeners when anything changed. Returns whether it did.
  bool refresh();

  // Calls `listener` (on the watcher's thread, or the thread of refresh or save) after each rescan
  // or save that changed something, with the kinds of items that changed. Returns a token for
  // removeChangeListener.
  std::uint64_t addChangeListener(ChangeListener listener) override;
  void removeChangeListener(std::uint64_t token) override;

  // Reads a file to edit it. Fails, with a VdirErrorCode in the error's framework error, when the
  // collection is unknown or not writable, or the file cannot be read or was not read whole
  // (repaired or partly skipped): writing it back would lose what could not be read.
  rivet::RivetResult<VdirFileToEdit> readToEdit(const std::string& collection, const std::string& name);
  // Whether `item` is what the store serves for its file, and `status` that file's version as the
  // store read it: an edit of an object read earlier is based on the file it came from.
  bool servesVersion(const std::shared_ptr<const VdirItem>& item, const VdirFileStatus& status) const
      RIVET_EXCLUDES(rescanMutex_);
  // Whether the collection exists and its directory may be written.
  bool writable(const std::string& collection) const { return writableDirectory(collection).has_value(); }
  // The collection and file name of an item's path (VdirItem::relativePath); absent when there are none.
  std::optional<std::pair<std::string, std::string>> fileOf(const std::string& relativePath) const;

  // Writes `changes`: new files first, then at most one replacement or removal. Each is written
  // only over its basis; when one fails ("changed on disk", or an error) the new files already
  // written are removed again and the store stays as it was. Then only the files written are read
  // again, into a new snapshot that every query sees when this returns, and the change listeners
  // are called once (on this thread). Returns that snapshot.
  rivet::RivetResult<std::shared_ptr<const VdirSnapshot>> save(std::vector<VdirFileChange> changes);
  // Saves that wrote something, since the store was made.
  std::uint64_t saveCount() const { return saves_.load(); }

  // What was skipped, repaired or cut short, for the whole store.
  std::vector<VdirDiagnostic> diagnostics() const;

  // The answers of VdirQueries over the latest snapshot.
  //
  // Occurrences overlapping [start, end) in the given collections (absent: all), by start date.
  std::vector<std::shared_ptr<platform::EKEvent>> events(platform::Date start, platform::Date end,
                                                         const std::optional<std::set<std::string>>& calendars);
  // The first occurrence of the event series with this identifier, or null.
  std::shared_ptr<platform::EKEvent> firstOccurrence(const std::string& eventIdentifier);
  // The to-do with this identifier, or null.
  std::shared_ptr<platform::EKReminder> reminder(const std::string& identifier);
  // To-dos of the given lists (absent: all), selected by `accept`.
  std::vector<std::shared_ptr<platform::EKReminder>> reminders(
      const std::optional<std::set<std::string>>& calendars,
      const std::function<bool(const VdirComponentData&)>& accept);

  // The clock of this store (for converting due dates).
  const VdirClock& clock() const { return *clock_; }
  // The zones the store's files define (and the system's by name), for edits.
  VdirZones& zones() const { return *zones_; }
  // The time now, by the store's environment.
  platform::Date now() const;

  // Counts, for tests and benchmarks: rescans done and files parsed since the store was made.
  std::uint64_t rescanCount() const { return rescans_.load(); }
  std::uint64_t parseCount() const { return parses_.load(); }
  // libical iterator runs for recurring series (one per series and run of uncached periods).
  std::uint64_t expansionCount() const { return queries_.expansionCount(); }
  VdirCacheStatus cacheStatus() const;
  // The cache is written in the background after a scan that changed what it holds; this waits
  // until that is done (the store's destruction waits too).
  void flushCache();
  // Ends the store's own work, as its destruction would: stops watching, waits for the cache being
  // read and written, and saves the periods its queries expanded. The store still answers, but
  // from then on writes no cache and saves no periods. For a host about to exit that leaves the
  // store's memory to the exit; later calls do nothing.
  void close() RIVET_EXCLUDES(rescanMutex_, closeMutex_);
  // Overflows the watcher has handled.
  std::uint64_t overflowCount() const { return watchState_ ? watchState_->overflows.load() : 0; }
  // True once the watcher is running (always false without watching).
  bool isWatching() const { return watchState_ && watchState_->watching.load(); }

 private:
  VdirStore(VdirStoreOptions options, std::shared_ptr<VdirEnv> env);
  // Both return the kinds of items that changed, 0 when nothing did.
  platform::EKEntityMask rescan() RIVET_EXCLUDES(rescanMutex_, mutex_);
  // Serves the scan's snapshot and keeps its records. With `writeCache`, and until the store is
  // closed, starts writing the cache when it no longer holds the records.
  platform::EKEntityMask adopt(VdirScanResult scan, std::int64_t scannedAt, bool writeCache)
      RIVET_REQUIRES(rescanMutex_) RIVET_EXCLUDES(mutex_);
  rivet::RivetResult<std::string> writableDirectory(const std::string& collection) const RIVET_EXCLUDES(mutex_);
  // Writes the changes in save()'s order; on failure, takes the new files back.
  rivet::RivetResult<bool> writeChanges(const std::vector<VdirFileChange>& changes) RIVET_REQUIRES(rescanMutex_);
  // What the watcher's thread needs, shared with it so that it outlives the store if need be.
  struct WatchState {
    VdirStoreOptions options;
    std::shared_ptr<VdirEnv> env;
    std::unique_ptr<VdirDirectoryWatch> watch;  // stopped by the store's destructor
    std::atomic<bool> watching{false};
    std::atomic<std::uint64_t> overflows{0};
  };
  static void watch(std::weak_ptr<VdirStore> weak, std::shared_ptr<WatchState> state, std::promise<void>* ready);
  void notifyListeners(platform::EKEntityMask changed);
  void reportRuntime(VdirDiagnostic diagnostic) RIVET_EXCLUDES(mutex_);
  // Runs on cacheWriter_, reading files_ without rescanMutex_: every writer of files_ holds that
  // mutex and joins cacheWriter_ first, which the analysis cannot follow.
  void writeCache(std::int64_t scannedAt) RIVET_NO_THREAD_SAFETY_ANALYSIS;
  void takePendingCache() RIVET_REQUIRES(rescanMutex_);
  // Takes over the periods earlier processes expanded for the files as they are now (see
  // VdirExpansionCache), after the first scan.
  void adoptExpansionCache() RIVET_REQUIRES(rescanMutex_) RIVET_EXCLUDES(mutex_);
  // Saves the periods kept, when queries expanded any since the store was made.
  void saveExpansionCache() RIVET_EXCLUDES(rescanMutex_);
  unsigned threads() const;

  // Constant after construction.
  VdirStoreOptions options_;  // addresses lower-cased by the constructor
  std::shared_ptr<VdirEnv> env_;
  std::shared_ptr<VdirZones> zones_;  // let go of only by the destructor
  std::unique_ptr<VdirClock> clock_;
  std::string cacheKey_;   // empty: no cache
  std::string cacheDirectory_;  // where caches are kept
  std::string cacheFile_;       // where this store's cache is kept
  std::string expansionFile_;   // where the periods its queries expanded are kept
  VdirQueries queries_;  // guards what it keeps itself

  // Lock order: rescanMutex_, then mutex_.
  mutable rivet::RivetMutex rescanMutex_;  // one rescan at a time
  std::thread cacheWriter_;        // writes the cache after a scan; reads files_ until joined
  VdirFileRecords files_ RIVET_GUARDED_BY(rescanMutex_);
  bool cacheStale_ RIVET_GUARDED_BY(rescanMutex_) = true;  // the cache on disk does not hold files_
  std::int64_t scannedAt_ RIVET_GUARDED_BY(rescanMutex_) = 0;  // when files_ were last looked at
  // The cache being read for the first scan (or why it could not be used).
  std::future<rivet::RivetResult<VdirFileRecords>> pendingCache_ RIVET_GUARDED_BY(rescanMutex_);
  std::map<std::string, std::shared_ptr<VdirCalendar>> calendars_ RIVET_GUARDED_BY(rescanMutex_);
  std::map<std::string, std::shared_ptr<VdirSource>> sources_ RIVET_GUARDED_BY(rescanMutex_);

  mutable rivet::RivetMutex mutex_ RIVET_ACQUIRED_AFTER(rescanMutex_);
  std::shared_ptr<const VdirSnapshot> snapshot_ RIVET_GUARDED_BY(mutex_);
  std::map<std::uint64_t, ChangeListener> listeners_ RIVET_GUARDED_BY(mutex_);
  std::uint64_t nextToken_ RIVET_GUARDED_BY(mutex_) = 1;
  std::vector<VdirDiagnostic> runtime_ RIVET_GUARDED_BY(mutex_);
  VdirCacheStatus cacheStatus_ RIVET_GUARDED_BY(mutex_);

  std::atomic<std::uint64_t> rescans_{0}, parses_{0}, saves_{0};
  std::shared_ptr<WatchState> watchState_;
  // One close at a time; the watcher is stopped and joined under it.
  rivet::RivetMutex closeMutex_ RIVET_ACQUIRED_BEFORE(rescanMutex_);
  std::thread watcher_ RIVET_GUARDED_BY(closeMutex_);
  bool closed_ RIVET_GUARDED_BY(rescanMutex_) = false;  // no cache is written from then on
};

}  // namespace vesp::vdir
