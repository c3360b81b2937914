#include "platforms/vdir/VdirItemEditor.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirFileNames.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {

namespace {

rivet::RivetError editorError(VdirErrorCode code, std::string message, const char* function, std::uint64_t line) {
  return vdirFailure(code, std::move(message), "VdirItemEditor", function, line);
}

// An edit's failure with the code that says what kind it is.
rivet::RivetError editFailure(const rivet::RivetError& error, const char* function, std::uint64_t line) {
  const std::string& message = error.message();
  auto has = [&](const char* text) { return message.find(text) != std::string::npos; };
  const VdirErrorCode code = has("the end lies before the start") ? VdirErrorCode::endBeforeStart
                             : has("unknown time zone")          ? VdirErrorCode::unknownTimeZone
                             : has("holds no item with UID")     ? VdirErrorCode::noSuchItem
                                                                 : VdirErrorCode::invalidChange;
  return editorError(code, message, function, line);
}

// A fresh UID: 128 random bits in the usual 8-4-4-4-12 form.
std::string randomUid() {
  static thread_local std::mt19937_64 random{std::random_device{}() ^ (std::uint64_t(std::random_device{}()) << 32)};
  const std::uint64_t high = random(), low = random();
  char text[37];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx", unsigned(high >> 32), unsigned(high >> 16) & 0xFFFF,
                unsigned(high & 0xFFFF), unsigned(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFull));
  return text;
}

// The VTIMEZONE text of a system zone for a file that uses it as `tzid`: libical's definition,
// under the TZID the file's times name (libical's own carries a prefix no reader would match).
std::optional<std::string> systemZoneDefinition(const std::string& tzid) {
  icaltimezone* zone = builtinZone(ianaNameOfTzid(tzid));
  if (!zone) return std::nullopt;
  icalcomponent* definition = icaltimezone_get_component(zone);
  if (!definition) return std::nullopt;
  icalcomponent* copy = icalcomponent_new_clone(definition);
  if (!copy) return std::nullopt;
  if (icalproperty* name = icalcomponent_get_first_property(copy, ICAL_TZID_PROPERTY))
    icalproperty_set_tzid(name, tzid.c_str());
  char* text = icalcomponent_as_ical_string_r(copy);
  icalcomponent_free(copy);
  std::optional<std::string> result;
  if (text) result = text;
  std::free(text);
  return result;
}

// Where the collection's snapshot holds the UID `uid` (as text, its escapes read, as the store reads
// it): the file's path and the identifier of its series or to-do.
std::optional<std::pair<std::string, std::string>> holderOf(const VdirSnapshot& snapshot, const std::string& collection,
                                                            const std::string& uid) {
  const VdirCollection* holder = collectionNamed(snapshot, collection);
  if (!holder) return std::nullopt;
  for (const auto& item : holder->items) {
    for (const VdirSeriesData& series : item->series) {
      const VdirComponentData& any = series.master ? *series.master : series.overrides.front();
      if (any.uid == uid) return std::make_pair(item->relativePath, series.identifier);
    }
    for (const VdirComponentData& todo : item->todos)
      if (todo.uid == uid) return std::make_pair(item->relativePath, todo.todoData->identifier);
  }
  return std::nullopt;
}

}  // namespace

struct VdirItemEditor::Found {
  std::string collection;  // as the store names it
  VdirFileToEdit file;
  VdirDocument document;
  std::string uid;
  std::string identifier;
  bool recurring = false;
  std::optional<platform::Date> firstStart;  // of the series' master
  // Zones the file used without defining them as read: readers find those by name, and an edit
  // leaves them so; a zone an edit brings in gets its VTIMEZONE.
  std::vector<std::string> undefinedZones;

  // Defines the zones `edited` uses that it does not define and did not use undefined before.
  rivet::RivetResult<void> defineNewZones(VdirDocument& edited) const {
    return defineZones(edited, vdir::undefinedZones(edited, undefinedZones), systemZoneDefinition);
  }

  // Whether an edit of `occurrence` over `span` covers the whole item. An item that does not repeat
  // may still have overrides (other clients write them): each is an occurrence of its own.
  bool coversSeries(const std::optional<platform::Date>& occurrence, VdirSpan span) const {
    return !occurrence || (firstStart == occurrence && (!recurring || span == VdirSpan::futureOccurrences));
  }
  // The span an edit has: with no later occurrences to carry it, this occurrence alone.
  VdirSpan spanOf(VdirSpan span) const { return recurring ? span : VdirSpan::thisOccurrence; }
};

VdirEditContext VdirItemEditor::contextFor(const VdirDocument& document) const {
  // A TZID is the file's own VTIMEZONE when it has one, else a system zone by name.
  std::map<std::string, std::string> defined;
  if (const VdirComponent* calendar = document.calendar())
    for (const auto& component : calendar->components())
      if (component.name() == "VTIMEZONE")
        if (const VdirContentLine* tzid = component.property("TZID")) {
          std::string text;
          component.write(text, "\r\n");
          defined.emplace(unescapedText(tzid->value()), std::move(text));
        }
  VdirEditContext context;
  context.clock = &store_->clock();
  context.now = store_->now();
  context.zoneFor = [store = store_, defined = std::move(defined)](const std::string& tzid) -> const icaltimezone* {
    if (auto found = defined.find(tzid); found != defined.end())
      if (auto zone = store->zones().zoneFor(tzid, found->second).first) return zone;
    return builtinZone(ianaNameOfTzid(tzid));
  };
  return context;
}

rivet::RivetResult<VdirItemEditor::Located> VdirItemEditor::locate(const std::string& identifier, bool todo) const {
  Located located;
  located.snapshot = store_->snapshot();
  const auto* entry = located.snapshot->entries.find(identifier);
  if (!entry || entry->todo != todo)
    return editorError(VdirErrorCode::noSuchItem,
                       std::string(todo ? "no reminder" : "no event") + " \"" + identifier + "\" in the store",
                       __func__, __LINE__);
  located.entry = *entry;
  located.item = entry->item.get();
  return located;
}

rivet::RivetResult<VdirItemEditor::Found> VdirItemEditor::find(const std::string& identifier, bool todo) {
  auto located = locate(identifier, todo);
  if (!located) return located.error();
  const VdirItem& item = *located->item;
  Found found;
  found.identifier = identifier;
  if (todo) {
    found.uid = item.todos[located->entry.index].uid;
  } else {
    const VdirSeriesData& series = item.series[located->entry.index];
    const VdirComponentData& any = series.master ? *series.master : series.overrides.front();
    found.uid = any.uid;
    found.recurring = series.isRecurring();
    if (series.master) found.firstStart = store_->clock().instant(series.master->start);
  }
  auto file = store_->fileOf(item.relativePath);
  if (!file)
    return editorError(VdirErrorCode::noSuchItem, "\"" + identifier + "\" names no file of the store", __func__,
                       __LINE__);
  found.collection = file->first;
  auto read = store_->readToEdit(file->first, file->second);
  if (!read) return read.error();
  if (!read->basis.status)
    return editorError(VdirErrorCode::noSuchItem, "\"" + identifier + "\" is no longer in the store", __func__,
                       __LINE__);
  found.file = std::move(read).value();
  auto document = VdirDocument::parse(found.file.basis.text);
  if (!document)
    return editorError(VdirErrorCode::notReadWhole, item.relativePath + ": " + document.error().message(), __func__,
                       __LINE__);
  found.document = std::move(document).value();
  found.undefinedZones = undefinedZones(found.document);
  return found;
}

rivet::RivetResult<VdirPlan> VdirItemEditor::planned(Found& found, const rivet::RivetResult<bool>& edited) {
  if (!edited) return editFailure(edited.error(), __func__, __LINE__);
  VdirPlan plan;
  plan.identifier = found.identifier;
  if (*edited) {
    // A file left without any item goes as a whole.
    std::optional<std::string> bytes;
    if (auto defined = found.defineNewZones(found.document); !defined)
      return editFailure(defined.error(), __func__, __LINE__);
    if (holdsItems(found.document)) bytes = found.document.text();
    plan.changes.push_back({found.file.collection, found.file.name, std::move(bytes), found.file.basis});
  }
  return plan;
}

rivet::RivetResult<VdirPlan> VdirItemEditor::changeEvent(const std::string& eventIdentifier,
                                                         std::optional<platform::Date> occurrence, VdirSpan span,
                                                         const VdirItemChanges& changes,
                                                         const std::optional<std::string>& collection) {
  auto found = find(eventIdentifier, false);
  if (!found) return found.error();
  const VdirEditContext context = contextFor(found->document);
  const bool wholeSeries = found->coversSeries(occurrence, span);
  if (collection && *collection != found->collection) {
    if (!wholeSeries)
      return editorError(VdirErrorCode::invalidChange, "only a whole series moves to another calendar", __func__,
                         __LINE__);
    return moved(*found, *collection,
                 [&](VdirDocument& document) { return changeSeries(document, found->uid, changes, context); });
  }
  if (wholeSeries) return planned(*found, changeSeries(found->document, found->uid, changes, context));
  if (found->spanOf(span) == VdirSpan::thisOccurrence)
    return planned(*found, changeOccurrence(found->document, found->uid, *occurrence, changes, context));
  // This and every later occurrence: a new series in a file of its own.
  const std::string uid = randomUid();
  auto rest = splitSeries(found->document, found->uid, *occurrence, uid, changes, context);
  if (!rest) return editFailure(rest.error(), __func__, __LINE__);
  // A new file: the VTIMEZONE of every zone it uses, even where the old file relied on the name.
  if (auto defined = defineZones(*rest, undefinedZones(*rest), systemZoneDefinition); !defined)
    return editFailure(defined.error(), __func__, __LINE__);
  auto plan = planned(*found, true);
  const std::string name = fileNameForUid(uid);
  auto fresh = store_->readToEdit(found->file.collection, name);
  if (!fresh) return fresh.error();
  plan->changes.push_back({found->file.collection, name, rest->text(), fresh->basis});
  plan->identifier = found->file.collection + "/" + name;
  return plan;
}

rivet::RivetResult<VdirPlan> VdirItemEditor::moved(
    Found& found, const std::string& collection, const std::function<rivet::RivetResult<bool>(VdirDocument&)>& edit) {
  VdirDocument others = found.document;
  if (removeItem(others, found.uid) > 0 && holdsItems(others))
    return editorError(VdirErrorCode::invalidChange,
                       "the file holds other items too: only a file of one item moves to another calendar", __func__,
                       __LINE__);
  // A calendar holds one item of a UID: a second would be refused by a CalDAV server.
  if (auto holder = holderOf(*store_->snapshot(), collection, found.uid))
    return editorError(VdirErrorCode::invalidChange,
                       holder->first + " already holds an item with the UID \"" + found.uid +
                           "\": the item does not move to " + collection + " beside it",
                       __func__, __LINE__);
  VdirDocument document = found.document;
  auto edited = edit(document);
  if (!edited) return editFailure(edited.error(), __func__, __LINE__);
  if (auto defined = found.defineNewZones(document); !defined) return editFailure(defined.error(), __func__, __LINE__);
  // A file of another item with the same name stays as it is.
  auto target = freeFile(collection, found.file.name);
  if (!target) return target.error();
  VdirPlan plan;
  plan.identifier = collection + "/" + escapedName(target->name);
  plan.changes.push_back({collection, target->name, document.text(), target->basis});
  plan.changes.push_back({found.file.collection, found.file.name, std::nullopt, found.file.basis});
  return plan;
}

rivet::RivetResult<VdirFileToEdit> VdirItemEditor::freeFile(const std::string& collection,
                                                            const std::string& name) const {
  const std::string stem = name.size() > 4 && name.ends_with(".ics") ? name.substr(0, name.size() - 4) : name;
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto file = store_->readToEdit(collection, attempt == 0 ? name : stem + "-" + std::to_string(attempt) + ".ics");
    if (!file || !file->basis.status) return file;
  }
  return editorError(VdirErrorCode::invalidChange, "every file name like \"" + name + "\" is taken in " + collection,
                     __func__, __LINE__);
}

rivet::RivetResult<bool> VdirItemEditor::recurs(const std::string& eventIdentifier) const {
  auto located = locate(eventIdentifier, false);
  if (!located) return located.error();
  return located->item->series[located->entry.index].isRecurring();
}

rivet::RivetResult<VdirPlan> VdirItemEditor::removeEvent(const std::string& eventIdentifier,
                                                         std::optional<platform::Date> occurrence, VdirSpan span) {
  auto found = find(eventIdentifier, false);
  if (!found) return found.error();
  const VdirEditContext context = contextFor(found->document);
  const bool wholeSeries = found->coversSeries(occurrence, span);
  rivet::RivetResult<bool> edited = wholeSeries ? rivet::RivetResult<bool>(removeItem(found->document, found->uid) > 0)
                                    : found->spanOf(span) == VdirSpan::thisOccurrence
                                        ? removeOccurrence(found->document, found->uid, *occurrence, context)
                                        : endSeriesBefore(found->document, found->uid, *occurrence, context);
  auto plan = planned(*found, edited);
  if (plan && wholeSeries) plan->identifier.clear();
  return plan;
}

rivet::RivetResult<VdirPlan> VdirItemEditor::newItem(const std::string& collection, const std::string& componentName,
                                                     const VdirItemChanges& changes) {
  const std::string uid = randomUid();
  const std::string name = fileNameForUid(uid);
  auto file = store_->readToEdit(collection, name);
  if (!file) return file.error();
  VdirEditContext context = contextFor(VdirDocument());
  auto item = vdir::newItem(componentName, uid, changes, context);
  if (!item) return editFailure(item.error(), __func__, __LINE__);
  auto document = newItemDocument(*item, systemZoneDefinition);
  if (!document) return editFailure(document.error(), __func__, __LINE__);
  if (changes.completed.value_or(false))
    if (auto completed = setCompleted(*document, uid, true, context); !completed)
      return editFailure(completed.error(), __func__, __LINE__);
  VdirPlan plan;
  plan.identifier = collection + "/" + name;
  plan.changes.push_back({collection, name, document->text(), file->basis});
  return plan;
}

rivet::RivetResult<VdirPlan> VdirItemEditor::changeReminder(const std::string& identifier,
                                                            const VdirItemChanges& changes,
                                                            const std::optional<std::string>& collection) {
  auto found = find(identifier, true);
  if (!found) return found.error();
  const VdirEditContext context = contextFor(found->document);
  auto edit = [&](VdirDocument& document) {
    auto changed = changeSeries(document, found->uid, changes, context);
    if (!changed || !changes.completed) return changed;
    auto completed = setCompleted(document, found->uid, *changes.completed, context);
    return completed ? rivet::RivetResult<bool>(*changed || *completed) : completed;
  };
  if (collection && *collection != found->collection) return moved(*found, *collection, edit);
  return planned(*found, edit(found->document));
}

rivet::RivetResult<VdirPlan> VdirItemEditor::setReminderCompleted(const std::string& identifier, bool completed) {
  auto found = find(identifier, true);
  if (!found) return found.error();
  return planned(*found, setCompleted(found->document, found->uid, completed, contextFor(found->document)));
}

rivet::RivetResult<VdirPlan> VdirItemEditor::removeReminder(const std::string& identifier) {
  auto found = find(identifier, true);
  if (!found) return found.error();
  auto plan = planned(*found, rivet::RivetResult<bool>(removeItem(found->document, found->uid) > 0));
  if (plan) plan->identifier.clear();
  return plan;
}

rivet::RivetResult<VdirImport> VdirItemEditor::importItem(const std::string& collection, const VdirImportedItem& item) {
  VdirImport result;
  if (auto holder = holderOf(*store_->snapshot(), collection, item.uid)) {
    auto file = store_->fileOf(holder->first);
    auto read =
        file ? store_->readToEdit(file->first, file->second) : rivet::RivetResult<VdirFileToEdit>(VdirFileToEdit());
    if (!read) return read.error();
    if (read->basis.status) {
      auto document = VdirDocument::parse(read->basis.text);
      if (!document)
        return editorError(VdirErrorCode::notReadWhole, holder->first + ": " + document.error().message(), __func__,
                           __LINE__);
      result.plan.identifier = holder->second;
      const std::vector<std::string> before = undefinedZones(*document);
      if (!mergeImported(*document, item, contextFor(*document))) return result;
      // The sender's definitions first; a zone the file named undefined before stays so.
      defineKnownZones(*document, undefinedZones(*document), importedZones(item, nullptr));
      defineKnownZones(*document, undefinedZones(*document, before), systemZoneDefinition);
      result.outcome = VdirImportOutcome::updated;
      result.plan.changes.push_back({read->collection, read->name, document->text(), read->basis});
      return result;
    }
  }
  auto document = importedDocument(item, systemZoneDefinition);
  if (!document) return editFailure(document.error(), __func__, __LINE__);
  // The UID's own name, unless a file of another item has it already.
  auto fresh = freeFile(collection, fileNameForUid(item.uid));
  if (!fresh) return fresh.error();
  result.outcome = VdirImportOutcome::added;
  result.plan.identifier = collection + "/" + fresh->name;
  result.plan.changes.push_back({collection, fresh->name, document->text(), fresh->basis});
  return result;
}

rivet::RivetResult<std::shared_ptr<const VdirSnapshot>> VdirItemEditor::apply(const VdirPlan& plan) {
  return store_->save(plan.changes);
}

}  // namespace vesp::vdir
