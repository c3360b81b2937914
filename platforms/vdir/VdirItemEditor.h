// Changes to the events and to-dos of a VdirStore, by the identifiers the store serves: each
// operation reads the item's file, edits it in place with VdirEdit (every line it does not touch
// stays as it was), and plans the files to write. A plan is saved with apply(), or shown as it
// stands (its files' new bytes) without writing anything.
//
// Thread safety: an editor may be used from any thread; each operation works on the store's
// latest snapshot, and a save that meets a file changed since it was read fails as a whole.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirImport.h"
#include "platforms/vdir/VdirStore.h"
#include "support/platform/Date.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// Which occurrences of a recurring event a change or removal is for.
enum class VdirSpan { thisOccurrence, futureOccurrences };

// What an operation will write, and what it will serve afterwards.
struct VdirPlan {
  std::vector<VdirFileChange> changes;  // empty: nothing changes
  // The identifier of the event or to-do after the save (a new series made by a split, a new
  // item, or the one edited); empty for a removal.
  std::string identifier;
};

// What importing one item does to the store.
enum class VdirImportOutcome {
  added,      // no item of its UID was in the collection: a file of its own
  updated,    // it was newer than the collection's copy, which it replaced
  unchanged,  // the collection's copy is as new or newer
};

struct VdirImport {
  VdirImportOutcome outcome = VdirImportOutcome::unchanged;
  VdirPlan plan;  // the identifier is the item's, also when nothing changes
};

class VdirItemEditor {
 public:
  explicit VdirItemEditor(std::shared_ptr<VdirStore> store) : store_(std::move(store)) {}

  // Changes the event `eventIdentifier`: the whole series when `occurrence` is absent, the event
  // does not recur, or the span is futureOccurrences from its first occurrence; else the one
  // occurrence that starts (as its series states it) at `occurrence`, or it and every later one.
  // With `collection`, a whole series or single event moves to that collection.
  rivet::RivetResult<VdirPlan> changeEvent(const std::string& eventIdentifier, std::optional<platform::Date> occurrence,
                                           VdirSpan span, const VdirItemChanges& changes,
                                           const std::optional<std::string>& collection = std::nullopt);
  // Removes the event (its file, when nothing else is in it), one occurrence, or it and every later one.
  rivet::RivetResult<VdirPlan> removeEvent(const std::string& eventIdentifier, std::optional<platform::Date> occurrence,
                                           VdirSpan span);
  // Whether the event `eventIdentifier` recurs (has rules or extra dates), as the store serves it.
  rivet::RivetResult<bool> recurs(const std::string& eventIdentifier) const;
  // A new event ("VEVENT") or to-do ("VTODO") in `collection`, under a fresh random UID, in a file
  // of its own.
  rivet::RivetResult<VdirPlan> newItem(const std::string& collection, const std::string& componentName,
                                       const VdirItemChanges& changes);
  // With `collection`, the to-do moves to that collection.
  rivet::RivetResult<VdirPlan> changeReminder(const std::string& identifier, const VdirItemChanges& changes,
                                              const std::optional<std::string>& collection = std::nullopt);
  rivet::RivetResult<VdirPlan> setReminderCompleted(const std::string& identifier, bool completed);
  rivet::RivetResult<VdirPlan> removeReminder(const std::string& identifier);

  // Brings `item` (see VdirImport.h) into `collection`: into the file that holds its UID there
  // (only when it is newer), else into a new file named after the UID.
  rivet::RivetResult<VdirImport> importItem(const std::string& collection, const VdirImportedItem& item);

  // Writes the plan (see VdirStore::save); the snapshot that serves it.
  rivet::RivetResult<std::shared_ptr<const VdirSnapshot>> apply(const VdirPlan& plan);

 private:
  struct Found;
  // An item as the current snapshot serves it (the snapshot is kept for the item's lifetime).
  struct Located {
    std::shared_ptr<const VdirSnapshot> snapshot;
    const VdirItem* item = nullptr;
    VdirSnapshot::Entry entry;
  };
  rivet::RivetResult<Located> locate(const std::string& identifier, bool todo) const;
  rivet::RivetResult<Found> find(const std::string& identifier, bool todo);
  rivet::RivetResult<VdirPlan> planned(Found& found, const rivet::RivetResult<bool>& edited);
  // Moves the item of `found`, as `edit` changes it, to `collection`: only a file of one item moves.
  rivet::RivetResult<VdirPlan> moved(Found& found, const std::string& collection,
                                     const std::function<rivet::RivetResult<bool>(VdirDocument&)>& edit);
  // A file of `collection` that does not exist yet: `name`, or else `name` with a number added.
  rivet::RivetResult<VdirFileToEdit> freeFile(const std::string& collection, const std::string& name) const;
  VdirEditContext contextFor(const VdirDocument& document) const;

  std::shared_ptr<VdirStore> store_;
};

}  // namespace vesp::vdir
