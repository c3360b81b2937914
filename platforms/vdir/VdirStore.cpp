#include "platforms/vdir/VdirStore.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <future>
#include <limits>
#include <unordered_map>

#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirExpansionCache.h"
#include "platforms/vdir/VdirFiles.h"
#include "platforms/vdir/VdirScanner.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirTimeIndex.h"
#include "platforms/vdir/VdirWatcher.h"
#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {

std::shared_ptr<VdirStore> VdirStore::make(VdirStoreOptions options, std::shared_ptr<VdirEnv> env) {
  std::shared_ptr<VdirStore> store(new VdirStore(std::move(options), env ? std::move(env) : VdirEnv::posix()));
  store->rescan();
  if (store->options_.watch) {
    auto state = std::make_shared<WatchState>();
    state->options = store->options_;
    state->env = store->env_;
    auto opened = state->env->watch();
    if (!opened) {
      store->reportRuntime({".", VdirDiagnostic::Action::skipped, opened.error().message()});
    } else {
      state->watch = std::move(opened).value();
      store->watchState_ = state;
      // Changes made once make returns must be seen: wait until the watches are in place.
      std::promise<void> ready;
      auto started = ready.get_future();
      rivet::RivetMutexLock closeLock(store->closeMutex_);
      store->watcher_ = std::thread([weak = std::weak_ptr<VdirStore>(store), state, &ready] {
        watch(weak, state, &ready);
      });
      started.wait();
    }
  }
  return store;
}

namespace {

VdirStoreOptions withLowerCaseAddresses(VdirStoreOptions options) {
  for (auto& address : options.userAddresses)
    for (char& c : address) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return options;
}

}  // namespace

VdirStore::VdirStore(VdirStoreOptions options, std::shared_ptr<VdirEnv> env)
    : options_(withLowerCaseAddresses(std::move(options))),
      env_(std::move(env)),
      zones_(std::make_shared<VdirZones>()),
      clock_(std::make_unique<VdirClock>(options_.localTimeZone.empty() ? systemLocalZoneName()
                                                                          : options_.localTimeZone)),
      queries_(*clock_, options_.limits, [this](VdirDiagnostic problem) { reportRuntime(std::move(problem)); },
               threads()) {
  snapshot_ = std::make_shared<VdirSnapshot>();

  const std::string directory = options_.cacheDirectory.value_or(defaultCacheDirectory());
  if (directory.empty()) return;
  // Everything that changes what is read from the files is part of the key.
  const std::string root = env_->canonical(options_.root).value_or(options_.root);
  cacheKey_ = cacheKey(root, clock_->localZoneName(), options_.maximumCountedOccurrences, options_.maximumFileSize,
                       options_.userAddresses);
  cacheDirectory_ = directory;
  cacheFile_ = cacheFilePath(directory, cacheKey_);
  expansionFile_ = expansionCachePath(cacheFile_);
  cacheStatus_.path = cacheFile_;
  // Read while the first scan lists the tree; the scan waits for it before it looks at files.
  pendingCache_ = std::async(std::launch::async, [this] {
    return readCache(*env_, cacheFile_, cacheKey_, *zones_, threads());
  });
}

void VdirStore::takePendingCache() {
  if (!pendingCache_.valid()) return;
  auto records = pendingCache_.get();
  rivet::RivetMutexLock lock(mutex_);
  if (!records) {
    cacheStatus_.loadProblem = records.error().message();
    return;
  }
  cacheStatus_.loaded = true;
  cacheStatus_.loadedFiles = records->size();
  files_ = std::move(records).value();
  cacheStale_ = false;
}

VdirStore::~VdirStore() {
  close();
  // Items may outlive the store (in objects a host still holds), but they never touch zones again.
  queries_.forget();
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

bool VdirStore::readable() const {
  // A root that is not there (or cannot be looked at) is an empty store, not a restricted one.
  auto status = env_->status(options_.root);
  if (!status || !*status) return true;
  return (*status)->kind == VdirFileKind::directory && env_->mayList(options_.root);
}

platform::Date VdirStore::now() const {
  return platform::Date::fromTimeIntervalSince1970(static_cast<double>(env_->now()) / 1e9);
}

std::shared_ptr<const VdirSnapshot> VdirStore::snapshot() const {
  rivet::RivetMutexLock lock(mutex_);
  return snapshot_;
}

bool VdirStore::refresh() {
  const platform::EKEntityMask changed = rescan();
  if (changed) notifyListeners(changed);
  return changed != 0;
}

std::uint64_t VdirStore::addChangeListener(ChangeListener listener) {
  rivet::RivetMutexLock lock(mutex_);
  std::uint64_t token = nextToken_++;
  listeners_.emplace(token, std::move(listener));
  return token;
}

void VdirStore::removeChangeListener(std::uint64_t token) {
  rivet::RivetMutexLock lock(mutex_);
  listeners_.erase(token);
}

void VdirStore::notifyListeners(platform::EKEntityMask changed) {
  std::vector<ChangeListener> listeners;
  {
    rivet::RivetMutexLock lock(mutex_);
    for (auto& [token, listener] : listeners_) listeners.push_back(listener);
  }
  for (auto& listener : listeners) listener(changed);
}

void VdirStore::close() {
  rivet::RivetMutexLock closeLock(closeMutex_);
  {
    rivet::RivetMutexLock rescanLock(rescanMutex_);
    if (closed_) return;
    // Scans from now on start no cache writer; the one a scan before may have started is joined below.
    closed_ = true;
    if (pendingCache_.valid()) pendingCache_.wait();
  }
  if (watcher_.joinable()) {
    watchState_->watch->stop();
    // The last reference may be let go on the watcher's own thread (by a change listener): that
    // thread then ends by itself once it sees the stop request.
    if (watcher_.get_id() == std::this_thread::get_id())
      watcher_.detach();
    else
      watcher_.join();
  }
  flushCache();
  saveExpansionCache();
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

platform::EKEntityMask VdirStore::rescan() {
  rivet::RivetMutexLock rescanLock(rescanMutex_);
  // The cache written after the last scan reads files_, which this scan replaces.
  if (cacheWriter_.joinable()) cacheWriter_.join();
  ++rescans_;
  const std::int64_t scannedAt = env_->now();

  VdirScanner scanner(options_, *env_, *zones_, *clock_, threads());
  scanner.list(sources_);
  // The cache, read while the tree was listed, holds the records of the scan before the first.
  const bool first = rescans_.load() == 1;
  takePendingCache();
  scanner.look(files_);
  parses_ += scanner.read();
  VdirScanResult scan = scanner.finish(calendars_);
  scannedAt_ = scannedAt;
  const platform::EKEntityMask changed = adopt(std::move(scan), scannedAt, true);
  if (first) adoptExpansionCache();
  return changed;
}

void VdirStore::adoptExpansionCache() {
  if (expansionFile_.empty()) return;
  auto status = env_->status(expansionFile_);
  if (!status || !*status) return;
  auto region = env_->map(expansionFile_);
  auto periods = region ? decodeExpansionCache((*region)->bytes(), cacheKey_, options_.limits, files_)
                        : rivet::RivetResult<std::vector<VdirTimeIndex::Adopted>>(region.error());
  // Adopted outside mutex_: the queries' locks are never taken under it.
  const std::size_t adopted =
      periods && !periods->empty() ? queries_.adoptKept(snapshot(), std::move(periods).value()) : 0;
  rivet::RivetMutexLock lock(mutex_);
  if (!periods) cacheStatus_.expansionProblem = periods.error().message();
  cacheStatus_.adoptedPeriods = adopted;
}

void VdirStore::saveExpansionCache() {
  if (expansionFile_.empty() || queries_.newlyKept() == 0) return;
  std::string bytes;
  {
    rivet::RivetMutexLock lock(rescanMutex_);
    // The lambda runs under the lock taken here, which the analysis cannot follow into it.
    const VdirFileRecords* files = &files_;
    const std::int64_t scannedAt = scannedAt_;
    queries_.withKept([&](const VdirTimeIndex::KeptBySeries& kept) {
      bytes = encodeExpansionCache(cacheKey_, options_.limits, *files, kept, scannedAt);
    });
  }
  // Like the cache, only a help: a store that cannot save its periods expands them again.
  if (!bytes.empty()) (void)writeCacheFile(*env_, expansionFile_, bytes);
}

platform::EKEntityMask VdirStore::adopt(VdirScanResult scan, std::int64_t scannedAt, bool writeCache) {
  auto& next = scan.snapshot;
  // Anything different from the snapshot before: items, collections or the root's state.
  auto previous = snapshot();
  const platform::EKEntityMask changed = changedKinds(*previous, *next);
  next->generation = previous->generation + (changed ? 1 : 0);
  // The cache on disk needs writing when files were read or left, or it was not what we hold.
  if (scan.reread > 0 || scan.records.size() != files_.size()) cacheStale_ = true;
  files_ = std::move(scan.records);
  calendars_ = std::move(scan.calendars);
  {
    rivet::RivetMutexLock lock(mutex_);
    snapshot_ = std::move(next);
    if (changed) runtime_.clear();
  }
  // Written in the background: the store answers meanwhile.
  if (writeCache && cacheStale_ && !cacheKey_.empty() && !closed_)
    cacheWriter_ = std::thread([this, scannedAt] { this->writeCache(scannedAt); });
  return changed;
}

namespace {

rivet::RivetError storeError(VdirErrorCode code, std::string message, const char* function, std::uint64_t line) {
  return vdirFailure(code, std::move(message), "VdirStore", function, line);
}

// A change that writes a file where none was when the edit began.
bool createsFile(const VdirFileChange& change) { return change.bytes && !change.basis.status; }

}  // namespace

rivet::RivetResult<std::string> VdirStore::writableDirectory(const std::string& collection) const {
  auto served = snapshot();
  for (const auto& candidate : served->collections) {
    if (candidate.identifier != collection) continue;
    if (!env_->mayWrite(candidate.directory))
      return storeError(VdirErrorCode::readOnlyCalendar,
                        "the calendar \"" + candidate.calendar->title() + "\" is read-only: its directory cannot be written",
                        __func__, __LINE__);
    return candidate.directory;
  }
  return storeError(VdirErrorCode::noCalendar, "there is no calendar \"" + collection + "\"", __func__, __LINE__);
}

std::optional<std::pair<std::string, std::string>> VdirStore::fileOf(const std::string& relativePath) const {
  auto slash = relativePath.rfind('/');
  if (slash == std::string::npos) return std::nullopt;
  auto name = unescapedName(std::string_view(relativePath).substr(slash + 1));
  if (!name) return std::nullopt;
  return std::make_pair(relativePath.substr(0, slash), std::move(*name));
}

rivet::RivetResult<VdirFileToEdit> VdirStore::readToEdit(const std::string& collection, const std::string& name) {
  auto directory = writableDirectory(collection);
  if (!directory) return directory.error();
  VdirFileToEdit file{collection, name, *directory + "/" + name, {}};
  const std::string relative = collection + "/" + escapedName(name);
  auto read = env_->read(file.path, options_.maximumFileSize);
  if (!read) return storeError(VdirErrorCode::ioFailure, relative + ": " + read.error().message(), __func__, __LINE__);
  if (!*read) return file;
  if ((*read)->tooLong)
    return storeError(VdirErrorCode::notReadWhole,
                      relative + " is larger than the limit of " + std::to_string(options_.maximumFileSize) +
                          " bytes: it was not read, so it cannot be written back",
                      __func__, __LINE__);
  VdirParseContext context{zones_.get(), clock_.get(), &options_.userAddresses, options_.maximumCountedOccurrences};
  auto parsed = parseItem(relative, name, (*read)->text, context);
  if (!parsed.diagnostics.empty())
    return storeError(VdirErrorCode::notReadWhole,
                      relative + " was not read whole (" + std::string(vdir::description(parsed.diagnostics.front().action)) +
                          ": " + parsed.diagnostics.front().problem +
                          "): writing it back would lose what could not be read",
                      __func__, __LINE__);
  file.basis = {(*read)->status, std::move((*read)->text)};
  return file;
}

bool VdirStore::servesVersion(const std::shared_ptr<const VdirItem>& item, const VdirFileStatus& status) const {
  VdirFileRecord version;
  version.setVersion(status);
  rivet::RivetMutexLock lock(rescanMutex_);
  for (const auto& [path, record] : files_)
    if (record.item == item) return record.sameVersion(version);
  return false;
}

rivet::RivetResult<bool> VdirStore::writeChanges(const std::vector<VdirFileChange>& changes) {
  std::vector<std::pair<std::string, const VdirFileChange*>> created;
  auto takeBack = [&] {
    for (const auto& [path, change] : created) (void)env_->remove(path, {env_->status(path).value_or(std::nullopt), *change->bytes});
  };
  for (const auto& change : changes) {
    auto directory = writableDirectory(change.collection);
    if (!directory) {
      takeBack();
      return directory.error();
    }
    const std::string path = *directory + "/" + change.name;
    auto outcome = change.bytes ? env_->write(path, *change.bytes, change.basis) : env_->remove(path, change.basis);
    const std::string relative = change.collection + "/" + escapedName(change.name);
    if (!outcome || *outcome == VdirWriteOutcome::changedOnDisk) {
      takeBack();
      if (!outcome)
        return storeError(VdirErrorCode::ioFailure, relative + ": " + outcome.error().message(), __func__, __LINE__);
      return storeError(VdirErrorCode::changedOnDisk,
                        relative + " changed on disk since it was read: nothing was saved", __func__, __LINE__);
    }
    if (createsFile(change)) created.emplace_back(path, &change);
  }
  return true;
}

rivet::RivetResult<std::shared_ptr<const VdirSnapshot>> VdirStore::save(std::vector<VdirFileChange> changes) {
  // New files first: a failure after them can take them back, which a replacement cannot be.
  const auto firstOther = std::stable_partition(changes.begin(), changes.end(), createsFile);
  if (changes.end() - firstOther > 1)
    return storeError(VdirErrorCode::invalidChange, "a save replaces or removes one file at most", __func__, __LINE__);
  // Only files a scan reads: a save serves what a scan of the tree would.
  for (const auto& change : changes)
    if (!isItemFileName(change.name))
      return storeError(VdirErrorCode::invalidChange, "\"" + change.name + "\" is not the name of an item's file",
                        __func__, __LINE__);
  // Saving without a change writes nothing.
  changes.erase(std::remove_if(changes.begin(), changes.end(),
                               [](const VdirFileChange& change) {
                                 return change.bytes && change.basis.status && *change.bytes == change.basis.text;
                               }),
                changes.end());
  if (changes.empty()) return snapshot();
  platform::EKEntityMask changed = 0;
  std::shared_ptr<const VdirSnapshot> saved;
  {
    rivet::RivetMutexLock rescanLock(rescanMutex_);
    if (auto written = writeChanges(changes); !written) return written.error();
    ++saves_;
    if (cacheWriter_.joinable()) cacheWriter_.join();
    const std::int64_t scannedAt = env_->now();
    std::vector<std::pair<std::string, std::string>> paths;
    for (const auto& change : changes) paths.emplace_back(change.collection, change.name);
    VdirScanner scanner(options_, *env_, *zones_, *clock_, 1);
    auto previous = snapshot();
    scanner.relist(*previous, paths);
    scanner.look(files_);
    parses_ += scanner.read();
    // The cache is left to the next scan: encoding it costs far more than a save, and a cache
    // that misses the files saved only has them read again at the next open.
    changed = adopt(scanner.patch(previous, files_, calendars_), scannedAt, false);
    saved = snapshot();
  }
  if (changed) notifyListeners(changed);
  return saved;
}

void VdirStore::flushCache() {
  rivet::RivetMutexLock rescanLock(rescanMutex_);
  if (cacheWriter_.joinable()) cacheWriter_.join();
}

void VdirStore::writeCache(std::int64_t scannedAt) {
  std::size_t left = 0;
  std::string bytes = encodeCache(cacheKey_, files_, *zones_, scannedAt, left);
  auto written = writeCacheFile(*env_, cacheFile_, bytes);
  bool first = false;
  {
    rivet::RivetMutexLock lock(mutex_);
    if (!written) {
      cacheStatus_.writeProblem = written.error().message();
      return;
    }
    first = ++cacheStatus_.writes == 1;
    cacheStatus_.writeProblem.clear();
    // Files left out (changed too recently to be trusted) are written by a later scan.
    cacheStale_ = left > 0;
  }
  // Once per store: the other caches change little while it is open.
  if (!first) return;
  const std::size_t removed = pruneCaches(*env_, cacheDirectory_, cacheFile_, options_.cacheDirectoryLimits);
  rivet::RivetMutexLock lock(mutex_);
  cacheStatus_.prunedFiles += removed;
}

// The watcher's loop. It holds the store only weakly, and strongly only while it rescans, so the
// store may go (even from this thread, when a listener let go of the last reference) at any time;
// its state lives on in `state` until the loop sees the stop request.
void VdirStore::watch(std::weak_ptr<VdirStore> weak, std::shared_ptr<WatchState> state, std::promise<void>* ready) {
  const VdirStoreOptions& options = state->options;
  VdirWatcher watcher(*state->watch, options.root, options.quietPeriod, options.maximumDelay, state->overflows);
  // Watches what the latest snapshot holds; false once the store is gone.
  auto watchSnapshot = [&] {
    std::shared_ptr<const VdirSnapshot> current;
    if (auto store = weak.lock()) current = store->snapshot();
    return current && watcher.watch(VdirWatcher::directoriesOf(*current, options.root, *state->env));
  };
  watchSnapshot();
  state->watching = true;
  ready->set_value();
  while (watcher.next() == VdirWatcher::Wake::changed) {
    if (auto store = weak.lock()) {
      if (auto changed = store->rescan()) store->notifyListeners(changed);
    }
    // A directory watched only after the rescan that found it may have changed in between.
    if (watchSnapshot()) watcher.markChanged();
  }
  state->watching = false;
}

std::vector<std::shared_ptr<platform::EKEvent>> VdirStore::events(
    platform::Date start, platform::Date end, const std::optional<std::set<std::string>>& calendars) {
  return queries_.events(snapshot(), start, end, calendars);
}

std::shared_ptr<platform::EKEvent> VdirStore::firstOccurrence(const std::string& eventIdentifier) {
  return queries_.firstOccurrence(*snapshot(), eventIdentifier);
}

std::shared_ptr<platform::EKReminder> VdirStore::reminder(const std::string& identifier) {
  return VdirQueries::reminder(*snapshot(), identifier);
}

std::vector<std::shared_ptr<platform::EKReminder>> VdirStore::reminders(
    const std::optional<std::set<std::string>>& calendars, const std::function<bool(const VdirComponentData&)>& accept) {
  return VdirQueries::reminders(*snapshot(), calendars, accept);
}

}  // namespace vesp::vdir
