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

}  // namespace

VdirEntries VdirEntries::of(const std::vector<VdirCollection>& collections) {
  std::size_t items = 0;
  for (const auto& collection : collections) items += collection.items.size();
  auto table = std::make_shared<Table>();
  table->reserve(items + items / 8);
  for (std::size_t c = 0; c < collections.size(); ++c)
    for (const auto& item : collections[c].items)
      eachEntryOf(*item, [&](std::string_view identifier, bool todo, std::size_t index) {
        table->emplace(identifier, Entry{c, item, todo, index});
      });
  VdirEntries entries;
  entries.size_ = table->size();
  entries.base_ = std::move(table);
  return entries;
}

VdirEntries VdirEntries::replaced(const VdirItem* removed, const std::shared_ptr<const VdirItem>& added,
                                  std::size_t collection, const std::vector<VdirCollection>& collections) const {
  const std::size_t based = base_ ? base_->size() : 0;
  if (changes_ && changes_->size() >= std::max(kMinimumChanges, based / kChangesPerEntry)) return of(collections);
  VdirEntries next;
  next.base_ = base_;
  next.size_ = size_;
  auto changes = changes_ ? std::make_shared<Changes>(*changes_) : std::make_shared<Changes>();
  // The item an identifier names so far, or null.
  auto owner = [&](std::string_view identifier) -> const VdirItem* {
    if (auto changed = changes->find(identifier); changed != changes->end()) return changed->second.item.get();
    if (!base_) return nullptr;
    auto found = base_->find(identifier);
    return found == base_->end() ? nullptr : found->second.item.get();
  };
  // An identifier is a file's path, with "#" and more for its other series, so two files name the
  // same one only when a file's name holds a "#": then the entry stays with the item that has it.
  if (removed)
    eachEntryOf(*removed, [&](std::string_view identifier, bool, std::size_t) {
      if (owner(identifier) != removed) return;
      --next.size_;
      (*changes)[std::string(identifier)] = Entry{};
    });
  if (added)
    eachEntryOf(*added, [&](std::string_view identifier, bool todo, std::size_t index) {
      if (owner(identifier)) return;
      ++next.size_;
      (*changes)[std::string(identifier)] = Entry{collection, added, todo, index};
    });
  next.changes_ = std::move(changes);
  return next;
}

const VdirEntries::Entry* VdirEntries::find(std::string_view identifier) const {
  if (changes_)
    if (auto changed = changes_->find(identifier); changed != changes_->end())
      return changed->second.item ? &changed->second : nullptr;
  if (!base_) return nullptr;
  auto found = base_->find(identifier);
  return found == base_->end() ? nullptr : &found->second;
}

}  // namespace vesp::vdir
