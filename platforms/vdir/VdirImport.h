// Items brought in from an iCalendar file of elsewhere (an invitation, another calendar's export):
// the file split by UID, and each item merged into the store's copy only when it is newer.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platforms/vdir/VdirDocument.h"
#include "platforms/vdir/VdirEdit.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// The components of one UID in a file to import, with the VTIMEZONEs they use.
struct VdirImportedItem {
  std::string uid;                        // as text, its escapes read
  std::string kind;                       // "VEVENT" or "VTODO"
  std::vector<VdirComponent> components;  // the master and overrides, in file order
  std::vector<VdirComponent> zones;       // the file's VTIMEZONEs that the components name
  VdirComponent calendar;                 // the file's VCALENDAR without its components or METHOD
};

// The events and to-dos of `text`, one entry per UID in the order they first appear. Fails when
// the text is not an iCalendar object, or a VEVENT or VTODO has no UID.
rivet::RivetResult<std::vector<VdirImportedItem>> itemsToImport(std::string_view text);

// Whether an item says it is newer than the copy it would replace: a higher SEQUENCE, or the same
// SEQUENCE and a later LAST-MODIFIED.
bool isNewer(const VdirComponent& imported, const VdirComponent& existing);

// Merges `item` into `document`, which holds the same UID: a newer master replaces every component
// of the UID; otherwise each override replaces the one of its occurrence (the same instant, in
// whatever form; zones and clock from `context`) when newer, or is added when that occurrence had
// none. Returns whether anything changed.
bool mergeImported(VdirDocument& document, const VdirImportedItem& item, const VdirEditContext& context);

// A file of its own for `item`: its calendar's properties, its zones, then its components. A zone
// the item uses without defining it is defined from `zones` when that knows it, else left named.
rivet::RivetResult<VdirDocument> importedDocument(const VdirImportedItem& item, const VdirZoneSource& zones);

// Zone definitions from the sender: `item`'s own VTIMEZONEs, else those of `fallback`. The source
// refers to `item`, which must outlive it.
VdirZoneSource importedZones(const VdirImportedItem& item, VdirZoneSource fallback);

}  // namespace vesp::vdir
