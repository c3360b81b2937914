#include "platforms/vdir/VdirImport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirErrors.h"

namespace vesp::vdir {

namespace {

rivet::RivetError importError(std::string message, const char* function, std::uint64_t line) {
  return vdirFailure(VdirErrorCode::invalidChange, std::move(message), "VdirImport", function, line);
}

bool isItem(const VdirComponent& component) { return component.name() == "VEVENT" || component.name() == "VTODO"; }

// The UID as text, its escapes read, as the store reads it.
std::string uidOf(const VdirComponent& component) {
  const VdirContentLine* uid = component.property("UID");
  return uid ? unescapedText(uid->value()) : std::string();
}

const VdirContentLine* recurrenceOf(const VdirComponent& component) { return component.property("RECURRENCE-ID"); }

long sequenceOf(const VdirComponent& component) {
  const VdirContentLine* sequence = component.property("SEQUENCE");
  return sequence ? std::strtol(sequence->value().c_str(), nullptr, 10) : 0;
}

// LAST-MODIFIED as written: UTC date-times ("20261126T101500Z") compare as text.
std::string lastModifiedOf(const VdirComponent& component) {
  const VdirContentLine* modified = component.property("LAST-MODIFIED");
  return modified ? modified->value() : std::string();
}

// The occurrence a component replaces, as a key that two forms of the same instant share (another
// writer may state it in UTC where the file uses the series' zone): its instant when its zone is
// known, else its line as written; empty for a master.
std::string occurrenceKey(const VdirComponent& component, const VdirEditContext& context) {
  const VdirContentLine* id = recurrenceOf(component);
  if (!id) return std::string();
  const std::string* tzid = id->parameter("TZID");
  const bool known = context.clock && (!tzid || (context.zoneFor && context.zoneFor(*tzid)));
  if (const std::optional<VdirTime> time = known ? timeOfValue(*id, id->value(), context) : std::nullopt) {
    char text[48];
    std::snprintf(text, sizeof text, "@%.3f", context.clock->instant(*time).timeIntervalSince1970());
    return text;
  }
  return "=" + id->text();
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
  std::map<std::string, std::size_t> byUid;  // an export may hold thousands of items
  for (const VdirComponent& component : calendar->components()) {
    if (!isItem(component)) continue;
    const std::string uid = uidOf(component);
    if (uid.empty())
      return importError("a " + component.name() + " has no UID, so it cannot be imported", __func__, __LINE__);
    auto [at, fresh] = byUid.emplace(uid, items.size());
    if (fresh) {
      items.push_back({uid, component.name(), {}, {}, bare});
    } else if (items[at->second].kind != component.name()) {
      return importError("the UID \"" + uid + "\" names both a VEVENT and a VTODO", __func__, __LINE__);
    }
    items[at->second].components.push_back(component);
  }
  // Each item takes the file's definitions of the zones it uses (the first of each TZID).
  std::map<std::string, const VdirComponent*> zones;
  for (const VdirComponent& component : calendar->components())
    if (const VdirContentLine* tzid = component.property("TZID"); component.name() == "VTIMEZONE" && tzid)
      zones.emplace(tzid->value(), &component);
  for (VdirImportedItem& item : items) {
    std::set<std::string> tzids;
    for (const VdirComponent& component : item.components)
      for (const std::string& tzid : zonesUsedBy(component))
        if (auto zone = zones.find(tzid); zone != zones.end() && tzids.insert(tzid).second)
          item.zones.push_back(*zone->second);
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
  auto ours = [&](const VdirComponent& component) {
    return component.name() == item.kind && uidOf(component) == item.uid;
  };
  // The file's components of the item by occurrence (the first of each), each key computed once.
  std::map<std::string, const VdirComponent*> existing;
  for (const VdirComponent& component : calendar.components())
    if (ours(component)) existing.emplace(occurrenceKey(component, context), &component);
  auto master = std::find_if(item.components.begin(), item.components.end(),
                             [](const VdirComponent& component) { return !recurrenceOf(component); });
  if (master != item.components.end()) {
    auto found = existing.find(std::string());
    if (found == existing.end() || isNewer(*master, *found->second)) {
      calendar.removeComponents(ours);
      for (const VdirComponent& component : item.components)
        calendar.addComponent(inLineEnds(component, document.lineEnd()));
      return true;
    }
  }
  std::set<std::string> replaced;
  std::vector<const VdirComponent*> added;
  for (const VdirComponent& component : item.components) {
    if (!recurrenceOf(component)) continue;
    std::string key = occurrenceKey(component, context);
    auto found = existing.find(key);
    if (found != existing.end() && !isNewer(component, *found->second)) continue;
    if (replaced.insert(std::move(key)).second) added.push_back(&component);  // the first for an occurrence
  }
  if (added.empty()) return false;
  calendar.removeComponents([&](const VdirComponent& component) {
    return ours(component) && recurrenceOf(component) && replaced.count(occurrenceKey(component, context));
  });
  for (const VdirComponent* component : added) calendar.addComponent(inLineEnds(*component, document.lineEnd()));
  return true;
}

rivet::RivetResult<VdirDocument> importedDocument(const VdirImportedItem& item, const VdirZoneSource& zones) {
  std::string text;
  item.calendar.write(text, "\r\n");
  auto made = VdirDocument::parse(text);
  if (!made) return importError(made.error().message(), __func__, __LINE__);
  VdirDocument document = std::move(made).value();
  // The zones first, as a new item's file has them.
  std::vector<std::string> used;
  for (const VdirComponent& component : item.components)
    for (std::string& tzid : zonesUsedBy(component))
      if (std::find(used.begin(), used.end(), tzid) == used.end()) used.push_back(std::move(tzid));
  defineKnownZones(document, used, importedZones(item, zones));
  for (const VdirComponent& component : item.components) document.calendar()->addComponent(component);
  return document;
}

VdirZoneSource importedZones(const VdirImportedItem& item, VdirZoneSource fallback) {
  return [&item, fallback = std::move(fallback)](const std::string& tzid) -> std::optional<std::string> {
    for (const VdirComponent& zone : item.zones)
      if (const VdirContentLine* name = zone.property("TZID"); name && name->value() == tzid) {
        std::string text;
        zone.write(text, "\r\n");
        return text;
      }
    return fallback ? fallback(tzid) : std::nullopt;
  };
}

}  // namespace vesp::vdir
