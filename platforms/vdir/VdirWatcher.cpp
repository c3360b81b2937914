#include "platforms/vdir/VdirWatcher.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

// While the root is not watched (absent, or not yet there), it is looked for this often.
constexpr std::chrono::milliseconds kLookForRoot{1000};

}  // namespace

VdirWatcher::VdirWatcher(VdirDirectoryWatch& watch, std::string root, std::chrono::milliseconds quietPeriod,
                         std::chrono::milliseconds maximumDelay, std::atomic<std::uint64_t>& overflows)
    : watch_(watch), root_(std::move(root)), quietPeriod_(quietPeriod), maximumDelay_(maximumDelay),
      overflows_(overflows) {}

std::set<std::string> VdirWatcher::directoriesOf(const VdirSnapshot& snapshot, const std::string& root,
                                                 VdirEnv& env) {
  std::set<std::string> wanted{root};
  for (const auto& collection : snapshot.collections) {
    wanted.insert(collection.directory);
    auto parent = fs::path(collection.directory).parent_path().string();
    if (parent != root) wanted.insert(parent);
  }
  // Account directories without collections yet, so that new collections in them are seen.
  auto entries = env.list(root);
  if (!entries) return wanted;
  for (const auto& entry : *entries) {
    if (entry.name.empty() || entry.name[0] == '.') continue;
    const std::string path = (fs::path(root) / entry.name).string();
    bool directory = entry.kind == VdirFileKind::directory;
    if (entry.kind == VdirFileKind::link || entry.kind == VdirFileKind::unknown) {
      auto status = env.status(path);
      directory = status && *status && (*status)->kind == VdirFileKind::directory;
    }
    if (directory) wanted.insert(path);
  }
  return wanted;
}

bool VdirWatcher::watch(const std::set<std::string>& wanted) {
  bool added = false;
  for (const auto& path : wanted) {
    if (watched_.count(path) || !watch_.add(path)) continue;
    watched_.insert(path);
    added = true;
  }
  rootWatched_ = watched_.count(root_) > 0;
  return added;
}

void VdirWatcher::markChanged() {
  dirty_ = true;
  first_ = last_ = Clock::now();
}

std::chrono::milliseconds VdirWatcher::timeoutFrom(Clock::time_point now) const {
  if (dirty_) {
    auto quiet = quietPeriod_ - (now - last_);
    auto latest = maximumDelay_ - (now - first_);
    auto wait = std::min(quiet, std::chrono::duration_cast<Clock::duration>(latest));
    return std::max(std::chrono::milliseconds(1), std::chrono::duration_cast<std::chrono::milliseconds>(wait) +
                                                      std::chrono::milliseconds(1));
  }
  return rootWatched_ ? std::chrono::milliseconds(-1) : kLookForRoot;
}

VdirWatcher::Wake VdirWatcher::next() {
  for (;;) {
    auto now = Clock::now();
    if (dirty_ && (now - last_ >= quietPeriod_ || now - first_ >= maximumDelay_)) {
      dirty_ = false;
      return Wake::changed;
    }
    std::vector<VdirDirectoryWatch::Change> changes;
    auto woke = watch_.wait(timeoutFrom(now), changes);
    if (woke == VdirDirectoryWatch::Wake::stop) return Wake::stop;
    // Time to look for the root again: the caller's rescan does.
    if (woke == VdirDirectoryWatch::Wake::timeout && !dirty_ && !rootWatched_) return Wake::changed;
    if (!changes.empty()) take(changes);
  }
}

// Any change, an overflow included, is part of the burst.
void VdirWatcher::take(const std::vector<VdirDirectoryWatch::Change>& changes) {
  for (const auto& change : changes) {
    if (change.event == VdirDirectoryWatch::Event::overflowed) ++overflows_;
    if (change.event == VdirDirectoryWatch::Event::ended) forget(change.directory);
  }
  rootWatched_ = watched_.count(root_) > 0;
  if (!dirty_) first_ = Clock::now();
  dirty_ = true;
  last_ = Clock::now();
}

// A directory removed or moved away takes the directories under it along, whose watches now follow
// them elsewhere: all are let go, so that whatever appears under those paths is watched afresh.
void VdirWatcher::forget(const std::string& directory) {
  const std::string prefix = !directory.empty() && directory.back() == '/' ? directory : directory + "/";
  for (auto at = watched_.lower_bound(prefix); at != watched_.end() && at->compare(0, prefix.size(), prefix) == 0;) {
    watch_.remove(*at);
    at = watched_.erase(at);
  }
  watched_.erase(directory);
}

}  // namespace vesp::vdir
