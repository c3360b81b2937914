#include "platforms/vdir/VdirImport.h"

#include <algorithm>
#include <cstdlib>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirErrors.h"

namespace vesp::vdir {

namespace {

rivet::RivetError importError(std::string message, const char* function, std::uint64_t line) {
  return vdirFailure(VdirErrorCode::invalidChange, std::move(message), "VdirImport", function, line);
}

bool isItem(const VdirComponent& component) { return component.name() == "VEVENT" || component.name() == "VTODO"; }

std::string uidOf(const VdirComponent& component) {
  const VdirContentLine* uid = component.property("UID");
  return uid ? uid->value() : std::string();
}

const VdirContentLine* recurrenceOf(const VdirComponent& component) { return component.property("RECURRENCE-ID"); }

// Whether two RECURRENCE-IDs name the same occurrence: the same instant, whatever form each is
// written in (another writer may state it in UTC where the file uses the series' zone); as
// written when a zone is unknown.
bool sameOccurrence(const VdirContentLine& one, const VdirContentLine& other, const VdirEditContext& context) {
  auto instantOf = [&](const VdirContentLine& line) -> std::optional<platform::Date> {
    const std::string* tzid = line.parameter("TZID");
    if (tzid && (!context.zoneFor || !context.zoneFor(*tzid))) return std::nullopt;
    const std::optional<VdirTime> time = context.clock ? timeOfValue(line, line.value(), context) : std::nullopt;
    if (!time) return std::nullopt;
    return context.clock->instant(*time);
  };
  const auto first = instantOf(one), second = instantOf(other);
  if (first && second) return *first == *second;
  return one.value() == other.value() && one.parameters() == other.parameters();
}

long sequenceOf(const VdirComponent& component) {
  const VdirContentLine* sequence = component.property("SEQUENCE");
  return sequence ? std::strtol(sequence->value().c_str(), nullptr, 10) : 0;
}

// LAST-MODIFIED as written: UTC date-times ("20261126T101500Z") compare as text.
std::string lastModifiedOf(const VdirComponent& component) {
  const VdirContentLine* modified = component.property("LAST-MODIFIED");
  return modified ? modified->value() : std::string();
}

// Whether `component` is the item's component for `recurrence` (null: the master).
bool isCounterpart(const VdirComponent& component, const VdirImportedItem& item, const VdirContentLine* recurrence,
                   const VdirEditContext& context) {
  if (component.name() != item.kind || uidOf(component) != item.uid) return false;
  const VdirContentLine* own = recurrenceOf(component);
  if (!own || !recurrence) return !own && !recurrence;
  return sameOccurrence(*own, *recurrence, context);
}

// The component of `calendar` that is the item's for `recurrence`, or null.
const VdirComponent* counterpartIn(const VdirComponent& calendar, const VdirImportedItem& item,
                                   const VdirContentLine* recurrence, const VdirEditContext& context) {
  for (const VdirComponent& component : calendar.components())
    if (isCounterpart(component, item, recurrence, context)) return &component;
  return nullptr;
}

// `component` with the line ends of the file it goes into.
VdirComponent inLineEnds(const VdirComponent& component, const std::string& lineEnd) {
  std::string text;
  component.write(text, lineEnd);
  auto reparsed = VdirDocument::parse(withLineEnd(text, lineEnd));
  if (!reparsed || reparsed->components().size() != 1) return component;  // it parsed once: kept as it is
  return std::move(reparsed->components().front());
}

}  // namespace

rivet::RivetResult<std::vector<VdirImportedItem>> itemsToImport(std::string_view text) {
  auto parsed = VdirDocument::parse(text);
  if (!parsed) return importError("not an iCalendar file: " + parsed.error().message(), __func__, __LINE__);
  const VdirComponent* calendar = parsed->calendar();
  if (!calendar) return importError("not an iCalendar file: it holds no VCALENDAR", __func__, __LINE__);
  VdirComponent bare = *calendar;
  bare.removeComponents([](const VdirComponent&) { return true; });
  // A stored calendar object carries no METHOD: that belongs to the message that brought it.
  bare.remove("METHOD");
  std::vector<VdirImportedItem> items;
  for (const VdirComponent& component : calendar->components()) {
    if (!isItem(component)) continue;
    const std::string uid = uidOf(component);
    if (uid.empty()) return importError("a " + component.name() + " has no UID, so it cannot be imported", __func__, __LINE__);
    auto same = std::find_if(items.begin(), items.end(), [&](const VdirImportedItem& item) { return item.uid == uid; });
    if (same == items.end()) {
      items.push_back({uid, component.name(), {}, {}, bare});
      same = items.end() - 1;
    } else if (same->kind != component.name()) {
      return importError("the UID \"" + uid + "\" names both a VEVENT and a VTODO", __func__, __LINE__);
    }
    same->components.push_back(component);
  }
  for (VdirImportedItem& item : items) {
    std::vector<std::string> tzids;
    for (const VdirComponent& component : item.components)
      for (const std::string& tzid : zonesUsedBy(component))
        if (std::find(tzids.begin(), tzids.end(), tzid) == tzids.end()) tzids.push_back(tzid);
    for (const VdirComponent& component : calendar->components())
      if (const VdirContentLine* tzid = component.property("TZID"); component.name() == "VTIMEZONE" && tzid)
        if (std::find(tzids.begin(), tzids.end(), tzid->value()) != tzids.end()) item.zones.push_back(component);
  }
  return items;
}

bool isNewer(const VdirComponent& imported, const VdirComponent& existing) {
  const long ours = sequenceOf(imported), theirs = sequenceOf(existing);
  if (ours != theirs) return ours > theirs;
  return lastModifiedOf(imported) > lastModifiedOf(existing);
}

bool mergeImported(VdirDocument& document, const VdirImportedItem& item, const VdirEditContext& context) {
  VdirComponent& calendar = *document.calendar();
  auto master = std::find_if(item.components.begin(), item.components.end(),
                             [](const VdirComponent& component) { return !recurrenceOf(component); });
  if (master != item.components.end()) {
    const VdirComponent* existing = counterpartIn(calendar, item, nullptr, context);
    if (!existing || isNewer(*master, *existing)) {
      calendar.removeComponents([&](const VdirComponent& component) {
        return component.name() == item.kind && uidOf(component) == item.uid;
      });
      for (const VdirComponent& component : item.components)
        calendar.addComponent(inLineEnds(component, document.lineEnd()));
      return true;
    }
  }
  bool changed = false;
  for (const VdirComponent& component : item.components) {
    const VdirContentLine* recurrence = recurrenceOf(component);
    if (!recurrence) continue;
    const VdirComponent* existing = counterpartIn(calendar, item, recurrence, context);
    if (existing && !isNewer(component, *existing)) continue;
    calendar.removeComponents(
        [&](const VdirComponent& other) { return isCounterpart(other, item, recurrence, context); });
    calendar.addComponent(inLineEnds(component, document.lineEnd()));
    changed = true;
  }
  return changed;
}

rivet::RivetResult<VdirDocument> importedDocument(const VdirImportedItem& item, const VdirZoneSource& zones) {
  std::string text;
  item.calendar.write(text, "\r\n");
  auto made = VdirDocument::parse(text);
  if (!made) return importError(made.error().message(), __func__, __LINE__);
  VdirDocument document = std::move(made).value();
  // The zones first, as a new item's file has them.
  std::vector<std::string> defined, known;
  for (const VdirComponent& zone : item.zones) {
    document.calendar()->addComponent(zone);
    if (const VdirContentLine* tzid = zone.property("TZID")) defined.push_back(tzid->value());
  }
  for (const VdirComponent& component : item.components)
    for (const std::string& tzid : zonesUsedBy(component))
      if (std::find(defined.begin(), defined.end(), tzid) == defined.end() &&
          std::find(known.begin(), known.end(), tzid) == known.end() && zones && zones(tzid))
        known.push_back(tzid);
  if (auto added = defineZones(document, known, zones); !added) return added.error();
  for (const VdirComponent& component : item.components) document.calendar()->addComponent(component);
  return document;
}

void defineImportedZones(VdirDocument& document, const VdirImportedItem& item) {
  for (const std::string& tzid : undefinedZones(document))
    for (const VdirComponent& zone : item.zones)
      if (const VdirContentLine* name = zone.property("TZID"); name && name->value() == tzid) {
        document.calendar()->addComponent(inLineEnds(zone, document.lineEnd()));
        break;
      }
}

}  // namespace vesp::vdir
