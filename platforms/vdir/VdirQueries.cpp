#include "platforms/vdir/VdirQueries.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platforms/vdir/VdirParallel.h"
#include "platforms/vdir/VdirTimeIndex.h"

namespace vesp::vdir {

VdirQueries::VdirQueries(const VdirClock& clock, VdirExpansionLimits limits, ProblemSink problems, unsigned threads)
    : clock_(clock), limits_(limits), problems_(std::move(problems)), threads_(std::max(1u, threads)) {}

VdirQueries::~VdirQueries() = default;

void VdirQueries::report(VdirDiagnostic problem) const {
  if (problems_) problems_(std::move(problem));
}

void VdirQueries::forget() {
  rivet::RivetMutexLock lock(indexMutex_);
  index_.reset();
}

std::size_t VdirQueries::adoptKept(const std::shared_ptr<const VdirSnapshot>& snapshot,
                                   std::vector<VdirTimeIndex::Adopted> periods) {
  std::shared_ptr<VdirTimeIndex> index;
  {
    rivet::RivetMutexLock lock(indexMutex_);
    index = indexFor(snapshot);
  }
  return index->adopt(std::move(periods));
}

std::uint64_t VdirQueries::newlyKept() {
  rivet::RivetMutexLock lock(indexMutex_);
  return index_ ? index_->newlyKept() : 0;
}

std::shared_ptr<platform::EKEvent> VdirQueries::makeEvent(std::shared_ptr<const VdirItem> item,
                                                        const VdirSeriesData& series,
                                                        const std::shared_ptr<VdirCalendar>& calendar,
                                                        const VdirOccurrence& occurrence) {
  VdirOccurrenceFields fields;
  fields.item = std::move(item);
  fields.series = &series;
  fields.component = occurrence.component;
  fields.calendar = calendar;
  fields.start = platform::Date::fromTimeIntervalSince1970(occurrence.start);
  fields.end = platform::Date::fromTimeIntervalSince1970(occurrence.end);
  fields.occurrence = platform::Date::fromTimeIntervalSince1970(occurrence.occurrence);
  fields.detached = occurrence.detached;
  return std::make_shared<VdirEvent>(std::move(fields));
}

std::shared_ptr<VdirTimeIndex> VdirQueries::indexFor(const std::shared_ptr<const VdirSnapshot>& snapshot) {
  if (index_ && index_->snapshot() == snapshot) return index_;
  // A snapshot a save made from the index's own: the index follows the save's changes.
  if (index_ && snapshot->patchedFrom.lock() == index_->snapshot()) {
    index_ = std::make_shared<VdirTimeIndex>(snapshot, *index_);
    return index_;
  }
  auto index = std::make_shared<VdirTimeIndex>(snapshot);
  if (index_) index->carryOver(*index_);
  index_ = index;
  return index_;
}

namespace {

// The order of event identifiers, mostly without reading them. An identifier is its collection's
// path, "/", then the file's name (and "#UID" for a further series of the file). Identifiers of one
// collection are told apart by the first eight bytes after that path, kept with each occurrence;
// those of two collections by the rank of the collections' paths, unless one path begins the other.
// Everything else (equal first bytes, nested collections) compares the identifiers themselves.
class IdentifierOrder {
 public:
  explicit IdentifierOrder(const VdirSnapshot& snapshot) : paths_(snapshot.collections.size()) {
    std::vector<std::uint32_t> byPath(paths_.size());
    for (std::uint32_t c = 0; c < paths_.size(); ++c) {
      paths_[c].prefix = snapshot.collections[c].identifier + "/";
      byPath[c] = c;
    }
    std::sort(byPath.begin(), byPath.end(),
              [&](std::uint32_t x, std::uint32_t y) { return paths_[x].prefix < paths_[y].prefix; });
    // A path that begins others sorts before them, and every path between begins with it too: so
    // marking each pair of neighbours where the first begins the second marks every such path.
    for (std::uint32_t r = 0; r < byPath.size(); ++r) {
      paths_[byPath[r]].rank = r;
      if (r > 0 && paths_[byPath[r]].prefix.starts_with(paths_[byPath[r - 1]].prefix))
        paths_[byPath[r]].ranked = paths_[byPath[r - 1]].ranked = false;
    }
  }

  // The first eight bytes of `identifier` after its collection's path, big-endian, zero-padded;
  // absent when the identifier does not start with that path (it is then compared whole).
  std::optional<std::uint64_t> key(std::uint32_t collection, std::string_view identifier) const {
    const std::string& prefix = paths_[collection].prefix;
    if (!identifier.starts_with(prefix)) return std::nullopt;
    const std::string_view rest = identifier.substr(prefix.size(), 8);
    std::uint64_t key = 0;
    for (std::size_t i = 0; i < 8; ++i)
      key = key << 8 | (i < rest.size() ? static_cast<unsigned char>(rest[i]) : 0u);
    return key;
  }

  // Negative, zero or positive as x's identifier sorts before, with or after y's. Keys of eight
  // padded bytes that differ order their identifiers as the whole texts would.
  template <class F>
  int compare(const F& x, const F& y) const {
    if (x.key && y.key) {
      if (x.collection == y.collection) {
        if (*x.key != *y.key) return *x.key < *y.key ? -1 : 1;
      } else if (paths_[x.collection].ranked && paths_[y.collection].ranked) {
        return paths_[x.collection].rank < paths_[y.collection].rank ? -1 : 1;
      }
    }
    return x.series->identifier.compare(y.series->identifier);
  }

 private:
  struct Path {
    std::string prefix;
    std::uint32_t rank = 0;
    bool ranked = true;  // no other collection's path begins it or is begun by it
  };
  std::vector<Path> paths_;
};

// An occurrence a query found, with where its series is and its identifier's key (see
// IdentifierOrder), taken once per series while it is at hand, so that sorting rarely reads a series.
struct Found {
  Found(const VdirTimeIndex::Entry& entry, std::optional<std::uint64_t> key, const VdirOccurrence& occurrence)
      : collection(entry.collection),
        item(entry.item),
        series(entry.series),
        key(key),
        occurrence(occurrence) {}
  std::uint32_t collection, item;
  const VdirSeriesData* series;
  std::optional<std::uint64_t> key;
  VdirOccurrence occurrence;
};

// Series to expand taken at a time by a thread of a query.
constexpr std::size_t kSeriesPerTask = 64;

// A problem a query met, with the series it concerns (null: the whole query).
struct Problem {
  const VdirSeriesData* series = nullptr;
  VdirDiagnostic diagnostic;
};

// A run of a query's series to expand, what it found in them and the problems it met (reported by
// the querying thread, once the others are done).
struct Task {
  std::size_t from = 0, to = 0;
  std::vector<Found> found;
  std::vector<Problem> problems;
};

// What the tasks of one query share.
struct Walk {
  const VdirSnapshot& snapshot;
  VdirTimeIndex& index;
  const VdirClock& clock;
  const VdirExpansionLimits& limits;
  std::atomic<std::uint64_t>& expansions;
  const IdentifierOrder& order;
  double a, b;
  std::string window;  // "from ... to ...", for the report of a query stopped by its limits
  std::vector<const VdirTimeIndex::Entry*> entries;  // the candidates the index could not answer
  std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
  std::atomic<std::size_t> total{0};
  std::atomic<bool> stopped{false};
  std::atomic<bool> full{false};  // stopped first by the occurrence limit (not by time): see cutInOrder
};

const std::string& pathOf(const VdirSnapshot& snapshot, const VdirTimeIndex::Entry& entry) {
  return snapshot.collections[entry.collection].items[entry.item]->relativePath;
}

double secondsSince(std::chrono::steady_clock::time_point began) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

VdirDiagnostic stoppedQuery(const Walk& walk, const VdirTimeIndex::Entry& entry, std::size_t total) {
  return {".", VdirDiagnostic::Action::truncated,
          "query " + walk.window + " stopped at " + pathOf(walk.snapshot, entry) + " after " + std::to_string(total) +
              " occurrences: the answer is incomplete"};
}

// Whether the query must stop before `entry`: its occurrences reached their limit, or its time
// did (the clock is read every 64 series of a task). The task that stops it for time says why; a
// stop at the limit is said by cutInOrder, which decides where the answer ends.
bool stopsBefore(Walk& walk, const VdirTimeIndex::Entry& entry, std::size_t visited, Task& task) {
  if (walk.stopped) return true;
  const std::size_t total = walk.total;
  const bool full = total >= walk.limits.maximumOccurrencesPerQuery;
  if (!full && (visited & 63) != 0) return false;
  if (!full && secondsSince(walk.began) <= walk.limits.maximumSecondsPerQuery) return false;
  if (!walk.stopped.exchange(true)) {
    if (full)
      walk.full = true;
    else
      task.problems.push_back({nullptr, stoppedQuery(walk, entry, total)});
  }
  return true;
}

// Keeps the occurrences found in the series of `entry`, with the key of its identifier.
void addFound(Walk& walk, const VdirTimeIndex::Entry& entry, const std::vector<VdirOccurrence>& occurrences,
              Task& task) {
  if (occurrences.empty()) return;
  const auto key = walk.order.key(entry.collection, entry.series->identifier);
  for (const auto& occurrence : occurrences) task.found.emplace_back(entry, key, occurrence);
  walk.total += occurrences.size();
}

// Adds to `task` the occurrences of the series of `entry`: a recurring one's periods that the
// index lacks expanded and kept, and answered from them; a series that does not recur, or a window
// too wide to keep, expanded for the window.
void walkOne(Walk& walk, const VdirTimeIndex::Entry& entry, std::vector<VdirOccurrence>& occurrences, Task& task) {
  occurrences.clear();
  if (!entry.series->isRecurring() ||
      !walk.index.occurrencesThroughPeriods(*entry.series, walk.a, walk.b, walk.clock, walk.limits, walk.expansions,
                                            occurrences)) {
    if (auto expanded = expandSeries(*entry.series, walk.clock, walk.a, walk.b, walk.limits, occurrences); !expanded)
      task.problems.push_back(
          {entry.series,
           {pathOf(walk.snapshot, entry), VdirDiagnostic::Action::truncated, expanded.error().message()}});
  }
  addFound(walk, entry, occurrences, task);
}

// The task's series, one after the other, until the query stops.
void walkSeries(Walk& walk, Task& task) {
  std::vector<VdirOccurrence> occurrences;
  for (std::size_t at = task.from; at < task.to; ++at) {
    const VdirTimeIndex::Entry& entry = *walk.entries[at];
    if (stopsBefore(walk, entry, at - task.from + 1, task)) return;
    walkOne(walk, entry, occurrences, task);
  }
}

// The answer of a query that met its occurrence limit. Which series its threads had reached by
// then depends on their timing and on the periods the index kept; the answer does not: it holds
// whole series in the order of their first possible start (then of their identifier) until the
// limit is met, with their problems, and reports the first series left out. Series the threads
// did not reach (or that gave nothing) are expanded here, mostly from periods kept meanwhile;
// those they reached past the cut are dropped.
Task cutInOrder(Walk& walk, const std::vector<char>& chosen, std::vector<Task>& tasks) {
  std::unordered_map<const VdirSeriesData*, Task> reached;
  for (auto& task : tasks) {
    for (auto& found : task.found) reached[found.series].found.push_back(std::move(found));
    for (auto& problem : task.problems) reached[problem.series].problems.push_back(std::move(problem));
  }
  std::vector<const VdirTimeIndex::Entry*> order;
  walk.index.candidates(walk.a, walk.b, [&](const VdirTimeIndex::Entry& entry) {
    if (chosen[entry.collection]) order.push_back(&entry);
  });
  std::sort(order.begin(), order.end(), [](const VdirTimeIndex::Entry* x, const VdirTimeIndex::Entry* y) {
    if (x->series->firstStart != y->series->firstStart) return x->series->firstStart < y->series->firstStart;
    return x->series->identifier < y->series->identifier;
  });
  Task answer;
  std::vector<VdirOccurrence> occurrences;
  std::size_t total = 0;
  for (const VdirTimeIndex::Entry* entry : order) {
    if (total >= walk.limits.maximumOccurrencesPerQuery) {
      answer.problems.push_back({nullptr, stoppedQuery(walk, *entry, total)});
      break;
    }
    auto at = reached.find(entry->series);
    Task expanded;
    if (at == reached.end()) {
      if (secondsSince(walk.began) > walk.limits.maximumSecondsPerQuery) {
        answer.problems.push_back({nullptr, stoppedQuery(walk, *entry, total)});
        break;
      }
      walkOne(walk, *entry, occurrences, expanded);
    }
    Task& own = at == reached.end() ? expanded : at->second;
    total += own.found.size();
    answer.found.insert(answer.found.end(), std::make_move_iterator(own.found.begin()),
                        std::make_move_iterator(own.found.end()));
    for (auto& problem : own.problems) answer.problems.push_back(std::move(problem));
  }
  return answer;
}

}  // namespace

std::vector<std::shared_ptr<platform::EKEvent>> VdirQueries::events(
    const std::shared_ptr<const VdirSnapshot>& current, platform::Date start, platform::Date end,
    const std::optional<std::set<std::string>>& calendars) {
  const double a = start.timeIntervalSince1970(), b = end.timeIntervalSince1970();
  std::vector<char> chosen(current->collections.size(), 1);
  if (calendars)
    for (std::size_t c = 0; c < chosen.size(); ++c) chosen[c] = calendars->count(current->collections[c].identifier) > 0;
  std::shared_ptr<VdirTimeIndex> index;
  {
    rivet::RivetMutexLock lock(indexMutex_);
    index = indexFor(current);
  }
  const std::string window = "from " + start.iso8601() + " to " + end.iso8601();
  const IdentifierOrder order(*current);
  Walk walk{*current, *index, clock_, limits_, expansions_, order, a, b, window, {}};
  // The series whose periods the index keeps are answered here; the others (periods not kept
  // yet, windows too wide to keep, series that do not recur) are expanded next, over the cores.
  Task answered;
  std::vector<VdirOccurrence> occurrences;
  std::size_t visited = 0;
  if (b > a)
    index->candidates(a, b, [&](const VdirTimeIndex::Entry& entry) {
      if (!chosen[entry.collection] || stopsBefore(walk, entry, ++visited, answered)) return;
      occurrences.clear();
      if (!entry.series->isRecurring() ||
          index->keptOccurrences(*entry.series, a, b, occurrences) != VdirTimeIndex::Kept::answered)
        return walk.entries.push_back(&entry);
      addFound(walk, entry, occurrences, answered);
    });
  // The index guards what it keeps itself and expands outside its lock, so the tasks (and other
  // queries) expand side by side.
  std::vector<Task> tasks(1 + (walk.entries.size() + kSeriesPerTask - 1) / kSeriesPerTask);
  tasks[0] = std::move(answered);
  for (std::size_t t = 1; t < tasks.size(); ++t)
    tasks[t].from = (t - 1) * kSeriesPerTask, tasks[t].to = std::min(walk.entries.size(), t * kSeriesPerTask);
  runOnEveryCore(threads_, tasks.size() - 1, 1, [&](std::size_t t) { walkSeries(walk, tasks[t + 1]); });
  if (walk.full) {
    Task answer = cutInOrder(walk, chosen, tasks);
    tasks.clear();
    tasks.push_back(std::move(answer));
  }
  std::vector<Found> found;
  found.reserve(walk.total);
  for (auto& task : tasks) {
    found.insert(found.end(), task.found.begin(), task.found.end());
    for (auto& problem : task.problems) report(std::move(problem.diagnostic));
  }
  std::sort(found.begin(), found.end(), [&order](const Found& x, const Found& y) {
    if (x.occurrence.start != y.occurrence.start) return x.occurrence.start < y.occurrence.start;
    if (x.series != y.series)
      if (const int byIdentifier = order.compare(x, y)) return byIdentifier < 0;
    return x.occurrence.occurrence < y.occurrence.occurrence;
  });
  std::vector<std::shared_ptr<platform::EKEvent>> events;
  events.reserve(found.size());
  for (const auto& f : found) {
    const auto& collection = current->collections[f.collection];
    // Each record holds its item through the snapshot, whose count stays in this core's cache,
    // rather than through the item's own count, one more read from far away per record.
    std::shared_ptr<const VdirItem> item(current, collection.items[f.item].get());
    events.push_back(makeEvent(std::move(item), *f.series, collection.calendar, f.occurrence));
  }
  return events;
}

std::shared_ptr<platform::EKEvent> VdirQueries::firstOccurrence(const VdirSnapshot& current,
                                                                 const std::string& eventIdentifier) const {
  const auto* at = current.entries.find(eventIdentifier);
  if (!at || at->todo) return nullptr;
  const auto& collection = current.collections[at->collection];
  const auto& item = at->item;
  const auto& series = item->series[at->index];
  // Widening windows from the series' first possible start; the earliest occurrence wins.
  double from = series.firstStart;
  double limit = series.lastEnd.value_or(from + 200 * 366 * 86400.0);
  std::vector<VdirOccurrence> occurrences;
  for (double width = 366 * 86400.0; from < limit; from += width, width *= 4) {
    occurrences.clear();
    // A cut expansion has still found the earliest occurrences, which is all this needs.
    static_cast<void>(expandSeries(series, clock_, from, from + width, limits_, occurrences));
    if (occurrences.empty()) continue;
    auto earliest = std::min_element(occurrences.begin(), occurrences.end(),
                                     [](const auto& a, const auto& b) { return a.start < b.start; });
    return makeEvent(item, series, collection.calendar, *earliest);
  }
  return nullptr;
}

std::shared_ptr<platform::EKReminder> VdirQueries::reminder(const VdirSnapshot& current,
                                                             const std::string& identifier) {
  const auto* at = current.entries.find(identifier);
  if (!at || !at->todo) return nullptr;
  return std::make_shared<VdirReminder>(at->item, &at->item->todos[at->index],
                                        current.collections[at->collection].calendar);
}

std::vector<std::shared_ptr<platform::EKReminder>> VdirQueries::reminders(
    const VdirSnapshot& current, const std::optional<std::set<std::string>>& calendars,
    const std::function<bool(const VdirComponentData&)>& accept) {
  std::vector<std::shared_ptr<platform::EKReminder>> result;
  for (const auto& collection : current.collections) {
    if (calendars && !calendars->count(collection.identifier)) continue;
    for (const auto& item : collection.items)
      for (const auto& todo : item->todos)
        if (accept(todo)) result.push_back(std::make_shared<VdirReminder>(item, &todo, collection.calendar));
  }
  return result;
}

}  // namespace vesp::vdir
