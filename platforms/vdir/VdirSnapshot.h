// What one scan of a vdir tree serves: its collections, their items and the problems found.
// Immutable once made, and replaced whole by the next scan, or by a save's patch of it, which
// shares with it what the save did not change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirObjects.h"

namespace vesp::vdir {

struct VdirCollection;

// Where each event series and to-do of a snapshot is, by its identifier. A save makes the next
// snapshot's table from this one's without copying it: the table built by the last scan is shared,
// and only the entries that saves changed since are kept beside it, until there are enough of them
// to build the table again. That table is built when first asked (on any thread), not when the
// scan ends: opening a store for a query has no need of it. Immutable once made, to its users.
class VdirEntries {
 public:
  struct Entry {
    std::size_t collection = 0;
    std::shared_ptr<const VdirItem> item;  // keeps the identifier that is the entry's key alive
    bool todo = false;
    std::size_t index = 0;  // in the item's series or to-dos
  };

  // Every series and to-do of `collections`.
  static VdirEntries of(const std::vector<VdirCollection>& collections);
  // This table without the entries of `removed` and with those of `added`, in collection
  // `collection` (either item may be null). Built again from `collections` (the snapshot's with the
  // change) when the changes kept beside the shared table grow past a fraction of it.
  VdirEntries replaced(const VdirItem* removed, const std::shared_ptr<const VdirItem>& added, std::size_t collection,
                       const std::vector<VdirCollection>& collections) const;

  // The entry with this identifier, or null.
  const Entry* find(std::string_view identifier) const;
  std::size_t size() const;
  // Calls `visit(identifier, entry)` for every entry, in no order.
  template <typename Visit>
  void forEach(Visit&& visit) const {
    if (base_)
      for (const auto& [identifier, entry] : base_->table())
        if (!changes_ || !changes_->count(identifier)) visit(identifier, entry);
    if (changes_)
      for (const auto& [identifier, entry] : *changes_)
        if (entry.item) visit(std::string_view(identifier), entry);
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };
  using Table = std::unordered_map<std::string_view, Entry>;
  // The table of a scan's collections, built on the first call of table() (once, whichever thread
  // asks): until then it holds the collections' items.
  class Base {
   public:
    explicit Base(const std::vector<VdirCollection>& collections);
    const Table& table() const;

   private:
    mutable std::once_flag built_;
    mutable std::vector<std::vector<std::shared_ptr<const VdirItem>>> items_;  // by collection; let go once built
    mutable Table table_;
  };
  // Changed entries by identifier; one without an item was removed.
  using Changes = std::unordered_map<std::string, Entry, Hash, std::equal_to<>>;
  std::shared_ptr<const Base> base_;
  std::shared_ptr<const Changes> changes_;
  // Entries the changes added less those they removed: the size is base_'s and this.
  std::ptrdiff_t sizeChange_ = 0;
};

struct VdirCollection {
  std::string identifier;  // its path within the store: "work/meetings" (names escaped, see VdirText)
  std::string directory;   // where it is on disk
  std::shared_ptr<VdirCalendar> calendar;
  std::vector<std::shared_ptr<const VdirItem>> items;  // by file name
};

struct VdirSnapshot {
  std::vector<VdirCollection> collections;  // by identifier
  using Entry = VdirEntries::Entry;
  VdirEntries entries;
  std::vector<VdirDiagnostic> diagnostics;
  // A snapshot a save made from another: that one, and what the save changed in it, in order (the
  // time index follows these changes rather than being built again).
  struct Patch {
    std::size_t collection = 0;
    std::size_t position = 0;          // of the file's item among the collection's, before the change
    const VdirItem* removed = nullptr;  // the file's item before (alive in `patchedFrom`), or none
    const VdirItem* added = nullptr;    // after (alive in this snapshot), or none
  };
  std::weak_ptr<const VdirSnapshot> patchedFrom;
  std::vector<Patch> patches;
  bool rootExists = false;
  bool rootReadable = false;
  std::uint64_t generation = 0;
};

// The collection of `snapshot` with that identifier, or null.
inline const VdirCollection* collectionNamed(const VdirSnapshot& snapshot, std::string_view identifier) {
  for (const VdirCollection& collection : snapshot.collections)
    if (collection.identifier == identifier) return &collection;
  return nullptr;
}

// The kinds of items (EKEntityMaskEvent, EKEntityMaskReminder) that differ from `before` to
// `after`: those of files that came, went or were read again, and those a calendar that came, went
// or changed allows. A change of the root's state concerns both; no change gives 0.
platform::EKEntityMask changedKinds(const VdirSnapshot& before, const VdirSnapshot& after);

}  // namespace vesp::vdir
