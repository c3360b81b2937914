#include "platforms/vdir/VdirSnapshot.h"

#include <algorithm>

namespace vesp::vdir {

namespace {

// Calls `add(identifier, todo, index)` for each series and to-do of `item`.
template <typename Add>
void eachEntryOf(const VdirItem& item, Add&& add) {
  for (std::size_t s = 0; s < item.series.size(); ++s) add(std::string_view(item.series[s].identifier), false, s);
  for (std::size_t t = 0; t < item.todos.size(); ++t)
    add(std::string_view(item.todos[t].todoData->identifier), true, t);
}

// Changes kept beside the shared table before it is built again: a save costs little, and a
// rebuild is spread over many saves.
constexpr std::size_t kMinimumChanges = 1024;
constexpr std::size_t kChangesPerEntry = 16;

// The entry a table built afresh from `collections` has for `identifier`: the first item, by
// collection and then by path, that names it. It is the file with that path, or the file whose
// path is the identifier up to one of its "#"s.
VdirEntries::Entry firstNaming(std::string_view identifier, const std::vector<VdirCollection>& collections) {
  // Shorter paths come first, as they do among a collection's items.
  std::vector<std::string_view> paths;
  for (auto end = identifier.find('#'); end != std::string_view::npos; end = identifier.find('#', end + 1))
    paths.push_back(identifier.substr(0, end));
  paths.push_back(identifier);
  for (std::size_t c = 0; c < collections.size(); ++c) {
    const auto& items = collections[c].items;
    for (std::string_view path : paths) {
      auto at = std::lower_bound(items.begin(), items.end(), path,
                                 [](const auto& item, std::string_view p) { return item->relativePath < p; });
      if (at == items.end() || (*at)->relativePath != path) continue;
      VdirEntries::Entry first;
      eachEntryOf(**at, [&](std::string_view named, bool todo, std::size_t index) {
        if (named == identifier) first = {c, *at, todo, index};
      });
      if (first.item) return first;
    }
  }
  return {};
}

}  // namespace

VdirEntries::Base::Base(const std::vector<VdirCollection>& collections) {
  items_.reserve(collections.size());
  for (const auto& collection : collections) items_.push_back(collection.items);
}

const VdirEntries::Table& VdirEntries::Base::table() const {
  std::call_once(built_, [this] {
    std::size_t items = 0;
    for (const auto& collection : items_) items += collection.size();
    table_.reserve(items + items / 8);
    for (std::size_t c = 0; c < items_.size(); ++c)
      for (const auto& item : items_[c])
        eachEntryOf(*item, [&](std::string_view identifier, bool todo, std::size_t index) {
          table_.emplace(identifier, Entry{c, item, todo, index});
        });
    // The entries hold their items now.
    items_ = {};
  });
  return table_;
}

VdirEntries VdirEntries::of(const std::vector<VdirCollection>& collections) {
  VdirEntries entries;
  entries.base_ = std::make_shared<const Base>(collections);
  return entries;
}

std::size_t VdirEntries::size() const {
  return static_cast<std::size_t>(static_cast<std::ptrdiff_t>(base_ ? base_->table().size() : 0) + sizeChange_);
}

VdirEntries VdirEntries::replaced(const VdirItem* removed, const std::shared_ptr<const VdirItem>& added,
                                  std::size_t collection, const std::vector<VdirCollection>& collections) const {
  const Table* base = base_ ? &base_->table() : nullptr;
  const std::size_t based = base ? base->size() : 0;
  if (changes_ && changes_->size() >= std::max(kMinimumChanges, based / kChangesPerEntry)) return of(collections);
  VdirEntries next;
  next.base_ = base_;
  next.sizeChange_ = sizeChange_;
  auto changes = changes_ ? std::make_shared<Changes>(*changes_) : std::make_shared<Changes>();
  // The item an identifier names so far, or null.
  auto owner = [&](std::string_view identifier) -> const VdirItem* {
    if (auto changed = changes->find(identifier); changed != changes->end()) return changed->second.item.get();
    if (!base) return nullptr;
    auto found = base->find(identifier);
    return found == base->end() ? nullptr : found->second.item.get();
  };
  // An identifier is a file's path, with "#" and more for its other series, so two files name the
  // same one only when it holds a "#" ("a.ics#b.ics", and the series of "a.ics" whose UID is
  // "b.ics"). Those are given afresh below; the others belong to one file each.
  std::vector<std::pair<std::string_view, bool>> shared;  // and whether it had an entry
  auto isShared = [&](std::string_view identifier) {
    if (identifier.find('#') == std::string_view::npos) return false;
    if (std::none_of(shared.begin(), shared.end(), [&](const auto& s) { return s.first == identifier; }))
      shared.emplace_back(identifier, owner(identifier) != nullptr);
    return true;
  };
  if (removed)
    eachEntryOf(*removed, [&](std::string_view identifier, bool, std::size_t) {
      if (isShared(identifier) || !owner(identifier)) return;
      --next.sizeChange_;
      (*changes)[std::string(identifier)] = Entry{};
    });
  if (added)
    eachEntryOf(*added, [&](std::string_view identifier, bool todo, std::size_t index) {
      if (isShared(identifier)) return;
      if (!owner(identifier)) ++next.sizeChange_;
      (*changes)[std::string(identifier)] = Entry{collection, added, todo, index};
    });
  for (const auto& [identifier, had] : shared) {
    Entry entry = firstNaming(identifier, collections);
    next.sizeChange_ += static_cast<std::ptrdiff_t>(entry.item != nullptr) - static_cast<std::ptrdiff_t>(had);
    (*changes)[std::string(identifier)] = std::move(entry);
  }
  next.changes_ = std::move(changes);
  return next;
}

const VdirEntries::Entry* VdirEntries::find(std::string_view identifier) const {
  if (changes_)
    if (auto changed = changes_->find(identifier); changed != changes_->end())
      return changed->second.item ? &changed->second : nullptr;
  if (!base_) return nullptr;
  const Table& base = base_->table();
  auto found = base.find(identifier);
  return found == base.end() ? nullptr : &found->second;
}

namespace {

constexpr platform::EKEntityMask kBothKinds = platform::EKEntityMaskEvent | platform::EKEntityMaskReminder;

platform::EKEntityMask kindsOf(const VdirItem& item) {
  return (item.series.empty() ? 0 : platform::EKEntityMaskEvent) |
         (item.todos.empty() ? 0 : platform::EKEntityMaskReminder);
}

// A calendar that allows no kind yet still came or went: both are told.
platform::EKEntityMask kindsOf(const VdirCollection& collection) {
  const platform::EKEntityMask kinds = collection.calendar ? collection.calendar->allowedEntityTypes() : 0;
  return kinds ? kinds : kBothKinds;
}

// Walks two lists sorted by `key` side by side while `more()`: `one(x)` for an element in one list
// alone, `both(x, y)` for an element in both.
template <typename T, typename Key, typename One, typename Both, typename More>
void sideBySide(const std::vector<T>& before, const std::vector<T>& after, Key key, One one, Both both, More more) {
  std::size_t b = 0, a = 0;
  while ((b < before.size() || a < after.size()) && more()) {
    if (a == after.size() || (b < before.size() && key(before[b]) < key(after[a])))
      one(before[b++]);
    else if (b == before.size() || key(after[a]) < key(before[b]))
      one(after[a++]);
    else
      both(before[b++], after[a++]);
  }
}

}  // namespace

platform::EKEntityMask changedKinds(const VdirSnapshot& before, const VdirSnapshot& after) {
  if (before.rootExists != after.rootExists || before.rootReadable != after.rootReadable) return kBothKinds;
  platform::EKEntityMask kinds = 0;
  auto more = [&] { return kinds != kBothKinds; };
  using Item = std::shared_ptr<const VdirItem>;
  auto itemsOf = [&](const std::vector<Item>& was, const std::vector<Item>& is) {
    // An item that a scan kept is the same object.
    sideBySide(
        was, is, [](const Item& item) -> const std::string& { return item->relativePath; },
        [&](const Item& item) { kinds |= kindsOf(*item); },
        [&](const Item& x, const Item& y) {
          if (x != y) kinds |= kindsOf(*x) | kindsOf(*y);
        },
        more);
  };
  sideBySide(
      before.collections, after.collections,
      [](const VdirCollection& collection) -> const std::string& { return collection.identifier; },
      [&](const VdirCollection& collection) { kinds |= kindsOf(collection); },
      [&](const VdirCollection& x, const VdirCollection& y) {
        if (x.calendar != y.calendar) kinds |= kindsOf(x) | kindsOf(y);
        if (x.items != y.items) itemsOf(x.items, y.items);
      },
      more);
  return kinds;
}

}  // namespace vesp::vdir
