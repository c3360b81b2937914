// Fuzzes the editing of one calendar file: its bytes are kept as a document (which must give the
// same bytes back), its items are imported, then every item is retitled, and each series has one
// occurrence changed, one removed and its end moved. Nothing may crash, hang, leak or trip a
// sanitizer; a retitled file must read back with the new title and keep every other content line
// as it was.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <string>
#include <vector>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirImport.h"
#include "platforms/vdir/VdirZones.h"

namespace {

using namespace vesp::vdir;

const std::string kTitle = "Fuzzed, title; \xC3\xA9t\xC3\xA9";

void fail(const char* what) {
  std::fprintf(stderr, "edit fuzzer: %s\n", what);
  std::abort();
}

// The unfolded lines of `text`, without the SUMMARY, DTSTAMP and LAST-MODIFIED lines that belong
// to an item itself, read without the code under test.
std::vector<std::string> untouchedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t feed = text.find('\n', at);
    std::string line = text.substr(at, feed == std::string::npos ? std::string::npos : feed - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!lines.empty() && !line.empty() && (line[0] == ' ' || line[0] == '\t')) {
      lines.back() += line.substr(1);
    } else {
      lines.push_back(line);
    }
    if (feed == std::string::npos) break;
    at = feed + 1;
  }
  std::vector<std::string> kept;
  int depth = 0, itemDepth = -1;
  for (const std::string& line : lines) {
    auto named = VdirContentLine::parse(line);
    if (named && named->name() == "BEGIN") {
      ++depth;
      if (itemDepth < 0 && depth == 2 && (sameName(named->value(), "VEVENT") || sameName(named->value(), "VTODO")))
        itemDepth = depth;
    } else if (named && named->name() == "END") {
      if (depth == itemDepth) itemDepth = -1;
      --depth;
    } else if (named && depth == itemDepth &&
               (named->name() == "SUMMARY" || named->name() == "DTSTAMP" || named->name() == "LAST-MODIFIED")) {
      continue;
    }
    kept.push_back(line);
  }
  return kept;
}

struct Item {
  std::string uid;
  bool recurring = false;
};

std::vector<Item> itemsOf(const VdirDocument& document) {
  std::vector<Item> items;
  const VdirComponent* calendar = document.calendar();
  if (!calendar) return items;
  for (const VdirComponent& component : calendar->components()) {
    if (component.name() != "VEVENT" && component.name() != "VTODO") continue;
    const VdirContentLine* uid = component.property("UID");
    if (!uid || component.property("RECURRENCE-ID")) continue;
    items.push_back({unescapedText(uid->value()), component.property("RRULE") != nullptr});
  }
  return items;
}

void retitle(const VdirDocument& original, const std::vector<Item>& items, const VdirEditContext& context) {
  VdirDocument document = original;
  std::vector<std::string> retitled;
  for (const Item& item : items) {
    auto changed = changeSeries(document, item.uid, {.title = kTitle}, context);
    if (changed && *changed) retitled.push_back(item.uid);
  }
  if (retitled.empty()) return;
  const std::string written = document.text();
  auto again = VdirDocument::parse(written);
  if (!again) fail("a retitled file cannot be read back");
  for (const std::string& uid : retitled) {
    VdirComponent* master = masterOf(*again, uid);
    if (!master || !master->property("SUMMARY") || master->property("SUMMARY")->value() != escapedText(kTitle))
      fail("a retitled item does not read back with its new title");
  }
  // Items that share a UID are retitled once, through the first: compare only when UIDs are unique.
  bool unique = true;
  for (std::size_t a = 0; a < items.size(); ++a)
    for (std::size_t b = a + 1; b < items.size(); ++b) unique &= items[a].uid != items[b].uid;
  if (unique && retitled.size() == items.size() && untouchedLines(written) != untouchedLines(original.text()))
    fail("retitling changed a line it does not touch");
}

void editOccurrences(const VdirDocument& original, const Item& item, const VdirEditContext& context) {
  VdirDocument probe = original;
  VdirComponent* master = masterOf(probe, item.uid);
  const VdirContentLine* start = master ? master->property("DTSTART") : nullptr;
  if (!start) return;
  auto first = timeOfValue(*start, start->value(), context);
  if (!first || (first->kind == VdirTime::Kind::zoned && !first->zone)) return;
  const vesp::platform::Date at = context.clock->instant(*first);
  const vesp::platform::Date week(at.timeIntervalSinceReferenceDate() + 7 * 86400);
  for (int operation = 0; operation < 4; ++operation) {
    VdirDocument document = original;
    bool changed = false;
    switch (operation) {
      case 0: changed = changeOccurrence(document, item.uid, week, {.title = kTitle}, context).value_or(false); break;
      case 1: changed = removeOccurrence(document, item.uid, week, context).value_or(false); break;
      case 2: changed = endSeriesBefore(document, item.uid, week, context).value_or(false); break;
      case 3: {
        auto future = splitSeries(document, item.uid, week, "fuzz-future", {.title = kTitle}, context);
        if (future && !VdirDocument::parse(future->text())) fail("a split-off series cannot be read back");
        changed = static_cast<bool>(future);
        break;
      }
    }
    if (changed && !VdirDocument::parse(document.text())) fail("an edited series cannot be read back");
  }
}

// Imports the file's items: each one's own file, and each merged back into the file itself, must
// read back; an item merged into a file that has none of its UID is added whole.
void import(const std::string& bytes, const VdirDocument& original, const VdirEditContext& context) {
  auto items = itemsToImport(bytes);
  if (!items) return;
  for (const VdirImportedItem& item : *items) {
    auto own = importedDocument(item, nullptr);
    if (!own) continue;
    auto ownAgain = VdirDocument::parse(own->text());
    if (!ownAgain) fail("an imported item's own file cannot be read back");
    if (ownAgain->text() != own->text()) fail("an imported item's own file does not give its bytes back");
    VdirDocument merged = original;
    if (mergeImported(merged, item, context) && !VdirDocument::parse(merged.text()))
      fail("a file an item was merged into cannot be read back");
    VdirDocument empty = *ownAgain;
    empty.calendar()->removeComponents([](const VdirComponent&) { return true; });
    if (!mergeImported(empty, item, context)) fail("an item merged into a file without its UID was not added");
    if (!VdirDocument::parse(empty.text())) fail("a file an item was added to cannot be read back");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VdirClock clock("Europe/Berlin");
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  auto document = VdirDocument::parse(bytes);
  if (!document) return 0;
  if (document->text() != bytes) fail("a document does not give its bytes back");
  VdirEditContext context;
  context.clock = &clock;
  context.zoneFor = [](const std::string& tzid) -> const icaltimezone* { return builtinZone(ianaNameOfTzid(tzid)); };
  context.now = vesp::platform::Date::fromTimeIntervalSince1970(1795000000.0);
  const std::vector<Item> items = itemsOf(*document);
  if (items.size() > 20) return 0;  // the work per input stays small
  import(bytes, *document, context);
  retitle(*document, items, context);
  for (const Item& item : items) {
    if (item.recurring) editOccurrences(*document, item, context);
  }
  return 0;
}
