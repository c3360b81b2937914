#include "platforms/vdir/VdirQueries.h"

#include <algorithm>
#include <chrono>

#include "platforms/vdir/VdirTimeIndex.h"

namespace vesp::vdir {

VdirQueries::VdirQueries(const VdirClock& clock, VdirExpansionLimits limits, ProblemSink problems)
    : clock_(clock), limits_(limits), problems_(std::move(problems)) {}

VdirQueries::~VdirQueries() = default;

void VdirQueries::report(VdirDiagnostic problem) const {
  if (problems_) problems_(std::move(problem));
}

void VdirQueries::forget() {
  rivet::RivetMutexLock lock(indexMutex_);
  index_.reset();
}

std::shared_ptr<platform::EKEvent> VdirQueries::makeEvent(const std::shared_ptr<const VdirItem>& item,
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

std::vector<std::shared_ptr<platform::EKEvent>> VdirQueries::events(
    const std::shared_ptr<const VdirSnapshot>& current, platform::Date start, platform::Date end,
    const std::optional<std::set<std::string>>& calendars) {
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
  std::shared_ptr<VdirTimeIndex> index;
  {
    rivet::RivetMutexLock lock(indexMutex_);
    index = indexFor(current);
  }
  // The index guards what it keeps itself and expands outside its lock: queries run side by side.
  std::vector<VdirOccurrence> occurrences;
  const auto began = std::chrono::steady_clock::now();
  std::optional<std::string> stopped;
  std::size_t visited = 0;
  using Entry = VdirTimeIndex::Entry;
  auto direct = [&](const Entry& entry) {
    occurrences.clear();
    if (auto expanded = expandSeries(*entry.series, clock_, a, b, limits_, occurrences); !expanded)
      report({current->collections[entry.collection].items[entry.item]->relativePath,
                     VdirDiagnostic::Action::truncated, expanded.error().message()});
    for (const auto& occurrence : occurrences) found.push_back({entry.collection, entry.item, entry.series, occurrence});
  };
  auto visit = [&](const Entry& entry) {
    if (stopped || !chosen[entry.collection]) return;
    // The query's own limits, checked every so often.
    if ((++visited & 63) == 0 || found.size() >= limits_.maximumOccurrencesPerQuery) {
      double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      if (found.size() >= limits_.maximumOccurrencesPerQuery || elapsed > limits_.maximumSecondsPerQuery) {
        stopped = "query from " + start.iso8601() + " to " + end.iso8601() + " stopped at " +
                  current->collections[entry.collection].items[entry.item]->relativePath + " after " +
                  std::to_string(found.size()) + " occurrences: the answer is incomplete";
        return;
      }
    }
    if (!entry.series->isRecurring()) return direct(entry);
    occurrences.clear();
    if (!index->occurrencesThroughPeriods(*entry.series, a, b, clock_, limits_, expansions_, occurrences))
      return direct(entry);
    for (const auto& occurrence : occurrences)
      found.push_back({entry.collection, entry.item, entry.series, occurrence});
  };
  if (b > a) index->candidates(a, b, visit);
  if (stopped) report({".", VdirDiagnostic::Action::truncated, *stopped});
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
