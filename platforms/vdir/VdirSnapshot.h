// What one scan of a vdir tree serves: its collections, their items and the problems found.
// Immutable once made, and replaced whole by the next scan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirObjects.h"

namespace vesp::vdir {

struct VdirCollection {
  std::string identifier;  // its path within the store: "work/meetings" (names escaped, see VdirText)
  std::string directory;   // where it is on disk
  std::shared_ptr<VdirCalendar> calendar;
  std::vector<std::shared_ptr<const VdirItem>> items;  // by file name
};

struct VdirSnapshot {
  std::vector<VdirCollection> collections;  // by identifier
  // Where each event series and to-do is, by its identifier.
  struct Entry {
    std::size_t collection = 0, item = 0;
    bool todo = false;
    std::size_t index = 0;  // in the item's series or to-dos
  };
  // (Keys point into the items' own strings, which live as long as the snapshot.)
  std::unordered_map<std::string_view, Entry> entries;
  // The files served, by path.
  std::unordered_set<std::string_view> paths;
  std::vector<VdirDiagnostic> diagnostics;
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

}  // namespace vesp::vdir
