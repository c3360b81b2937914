#include "platforms/vdir/VdirWatcher.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace vesp::vdir {

namespace {

constexpr std::uint32_t kMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// While the root is not watched (absent, or not yet there), it is looked for this often.
constexpr int kLookForRootMilliseconds = 1000;

}  // namespace

VdirWatcher::VdirWatcher(std::string root, std::chrono::milliseconds quietPeriod,
                         std::chrono::milliseconds maximumDelay, int stopDescriptor,
                         std::atomic<bool>& dropNextEvents, std::atomic<std::uint64_t>& overflows)
    : root_(std::move(root)), quietPeriod_(quietPeriod), maximumDelay_(maximumDelay), stopDescriptor_(stopDescriptor),
      dropNextEvents_(dropNextEvents), overflows_(overflows) {
  descriptor_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (descriptor_ < 0) problem_ = std::string("the store cannot be watched: ") + std::strerror(errno);
}

VdirWatcher::~VdirWatcher() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

std::set<std::string> VdirWatcher::directoriesOf(const VdirSnapshot& snapshot, const std::string& root) {
  std::set<std::string> wanted{root};
  for (const auto& collection : snapshot.collections) {
    wanted.insert(collection.directory);
    auto parent = fs::path(collection.directory).parent_path().string();
    if (parent != root) wanted.insert(parent);
  }
  // Account directories without collections yet, so that new collections in them are seen.
  std::error_code error;
  for (fs::directory_iterator it(root, error); !error && it != fs::directory_iterator(); it.increment(error)) {
    std::error_code kind;
    std::string name = it->path().filename().string();
    if (it->is_directory(kind) && !name.empty() && name[0] != '.') wanted.insert(it->path().string());
  }
  return wanted;
}

bool VdirWatcher::watch(const std::set<std::string>& wanted) {
  if (descriptor_ < 0) return false;
  std::set<std::string> have;
  for (auto& [wd, path] : watches_) have.insert(path);
  bool added = false;
  for (const auto& path : wanted) {
    if (have.count(path)) continue;
    int wd = ::inotify_add_watch(descriptor_, path.c_str(), kMask);
    if (wd >= 0) {
      watches_[wd] = path;
      added = true;
    }
  }
  rootWatched_ = std::any_of(watches_.begin(), watches_.end(), [&](const auto& w) { return w.second == root_; });
  return added;
}

void VdirWatcher::markChanged() {
  dirty_ = true;
  first_ = last_ = Clock::now();
}

int VdirWatcher::timeoutFrom(Clock::time_point now) const {
  if (dirty_) {
    auto quiet = quietPeriod_ - (now - last_);
    auto latest = maximumDelay_ - (now - first_);
    auto wait = std::min(quiet, std::chrono::duration_cast<Clock::duration>(latest));
    return static_cast<int>(
        std::max<long long>(1, std::chrono::duration_cast<std::chrono::milliseconds>(wait).count() + 1));
  }
  return rootWatched_ ? -1 : kLookForRootMilliseconds;
}

VdirWatcher::Wake VdirWatcher::next() {
  for (;;) {
    auto now = Clock::now();
    if (dirty_ && (now - last_ >= quietPeriod_ || now - first_ >= maximumDelay_)) {
      dirty_ = false;
      return Wake::changed;
    }
    pollfd fds[2] = {{descriptor_, POLLIN, 0}, {stopDescriptor_, POLLIN, 0}};
    int ready = ::poll(fds, 2, timeoutFrom(now));
    if ((ready < 0 && errno != EINTR) || fds[1].revents) return Wake::stop;
    // Time to look for the root again: the caller's rescan does.
    if (ready == 0 && !dirty_ && !rootWatched_) return Wake::changed;
    if (fds[0].revents & POLLIN) drain();
  }
}

// Reads every event there is; any event, an overflow included, is part of the burst.
void VdirWatcher::drain() {
  alignas(inotify_event) char buffer[64 * 1024];
  for (;;) {
    ssize_t length = ::read(descriptor_, buffer, sizeof buffer);
    if (length <= 0) break;
    // A simulated overflow: these events are lost, and the queue reports an overflow instead.
    if (dropNextEvents_.exchange(false)) {
      inotify_event* overflow = reinterpret_cast<inotify_event*>(buffer);
      *overflow = inotify_event{-1, IN_Q_OVERFLOW, 0, 0};
      length = sizeof(inotify_event);
    }
    for (char* at = buffer; at < buffer + length;) {
      auto* event = reinterpret_cast<inotify_event*>(at);
      if (event->mask & IN_Q_OVERFLOW) ++overflows_;
      if (event->mask & IN_IGNORED) {
        watches_.erase(event->wd);
        rootWatched_ = std::any_of(watches_.begin(), watches_.end(), [&](const auto& w) { return w.second == root_; });
      }
      at += sizeof(inotify_event) + event->len;
    }
    if (!dirty_) first_ = Clock::now();
    dirty_ = true;
    last_ = Clock::now();
  }
}

}  // namespace vesp::vdir
