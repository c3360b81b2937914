#include "tools/vesp/VespCommandLine.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Vesp/VespCalendarManager.h"
#include "Vesp/VespCodingError.h"
#include "Vesp/VespJSONCoder.h"
#include "Vesp/VespText.h"
#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirFiles.h"
#include "platforms/vdir/VdirImport.h"
#include "platforms/vdir/VdirItemEditor.h"
#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirStore.h"
#include "platforms/vdir/VdirZones.h"
#include "support/keel/KeelManagerFramework.h"
#include "support/rivet/RivetJsonLineLogger.h"
#include "tools/vesp/VespOutput.h"
#include "tools/vesp/VespReminderList.h"
#include "tools/vesp/VespSettings.h"

namespace vesp::tool {

namespace {

using nlohmann::json;
using platform::Date;

// A failure that ends the program with a message and an exit status.
struct Exit {
  int status;
  std::string message;
};

// Where the store is when neither --store, $VESP_STORE nor the configuration file says:
// ~/.calendars, the directory that vdirsyncer's and khal's documented set-ups sync into.
std::string defaultStore() { return homeDirectory() + "/.calendars"; }

Date localMidnightToday() { return localMidnightOf(Date::now()); }

const char* kindName(platform::EKEntityType type) {
  return type == platform::EKEntityTypeReminder ? "reminders" : "events";
}

// Keeps `memory` until the process ends, reachable (so that leak checkers do not report it) but
// never freed: the exit reclaims it all at once.
void leaveToTheExit(std::shared_ptr<const void> memory) {
  static auto* const left = new std::vector<std::shared_ptr<const void>>;
  left->push_back(std::move(memory));
}

// The manager running over the vdir platform, for the length of one call.
class Session {
 public:
  Session(const std::string& store, bool watch, bool yes, bool verbose, std::ostream& err) : err_(err) {
    vdir::VdirPlatformOptions options;
    options.store.root = store;
    options.store.watch = watch;
    if (const char* file = std::getenv("VESP_ACCESS_FILE"); file && *file) options.accessFile = file;
    interactive_ = ::isatty(STDIN_FILENO) && ::isatty(STDERR_FILENO);
    if (yes) {
      options.consentHandler = [](platform::EKEntityType, const std::optional<std::string>&) { return true; };
    } else if (interactive_) {
      options.consentHandler = [this](platform::EKEntityType type, const std::optional<std::string>& usage) {
        std::lock_guard lock(promptMutex_);
        err_ << "vesp would like to read your " << kindName(type) << ".\n";
        if (usage) err_ << "  " << *usage << "\n";
        err_ << "Allow? [y/N] " << std::flush;
        std::string answer;
        if (!std::getline(std::cin, answer)) return false;
        return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
      };
    }
    platform_ = vdir::VdirPlatform::make(std::move(options));
    platform_->setInfoDictionaryValue("NSCalendarsUsageDescription",
                                      platform::AnyObject("vesp shows your events in the terminal."));
    platform_->setInfoDictionaryValue("NSRemindersUsageDescription",
                                      platform::AnyObject("vesp shows your reminders in the terminal."));
    platform_->setInfoDictionaryValue("NSContactsUsageDescription",
                                      platform::AnyObject("vesp shows the names of attendees."));
    logger_ = rivet::RivetJsonLineLogger::toStream(verbose ? err : silent_);
    manager_ = VespCalendarManager::make(logger_, platform_);
    check(framework_.registerManager(manager_), "registering the calendar manager");
    check(framework_.setUpAll(impetus()), "setting up");
    check(framework_.applicationDidBecomeActive(impetus()), "starting");
  }

  // The store is closed (its cache and kept periods written, its threads joined), but its memory
  // is left to the process's exit, which is about to come: freeing its items, records and
  // expansions one by one took about a quarter of a month's listing at 100,000 events. Only the
  // store, which has no thread left: the rest of the platform ends its threads as usual.
  ~Session() {
    (void)framework_.applicationDidEnterBackground(impetus());
    (void)framework_.tearDownAll(impetus());
    if (const auto& store = platform_->store()) {
      store->close();
      leaveToTheExit(store);
    }
  }

  static rivet::RivetImpetus impetus() {
    return rivet::RivetImpetus("vesp command", std::nullopt, "vesp", "main()", 1);
  }

  void check(const rivet::RivetResult<void>& result, const char* what) {
    if (!result) throw Exit{kExitFailure, std::string("vesp: ") + what + " failed: " + result.error().description()};
  }

  VespCalendarManager& manager() { return *manager_; }
  vdir::VdirPlatform& platform() { return *platform_; }
  const std::shared_ptr<vdir::VdirPlatform>& sharedPlatform() const { return platform_; }

  VespAuthorisationStatus status(platform::EKEntityType type) {
    return machine(type).state();
  }

  // Makes sure the user has granted access, asking when allowed to; throws when not granted.
  void requireAccess(platform::EKEntityType type, bool mayAsk) {
    auto state = settle(type, mayAsk);
    const std::string kind = kindName(type);
    switch (state) {
      case VespAuthorisationStatus::authorised: return;
      case VespAuthorisationStatus::denied:
        if (platform_->authorizationStatusForEntityType(type) == platform::EKAuthorizationStatusRestricted)
          throw Exit{kExitNoAccess, "vesp: access to your " + kind + " is restricted: the store " +
                                        platform_->store()->options().root + " cannot be read."};
        throw Exit{kExitNoAccess, "vesp: access to your " + kind + " was denied. To be asked again, run `vesp access " +
                                      kind + " --reset`, then `vesp access " + kind + " --request`."};
      case VespAuthorisationStatus::restricted:
        throw Exit{kExitNoAccess, "vesp: access to your " + kind + " is restricted: the store " +
                                      platform_->store()->options().root + " cannot be read."};
      default:
        throw Exit{kExitNoAccess, "vesp: access to your " + kind + " has not been granted. Run `vesp access " + kind +
                                      " --request` in a terminal to answer, or pass --yes to grant it."};
    }
  }

  // Asks for access when it is not determined (and asking is possible), and waits for the answer.
  VespAuthorisationStatus settle(platform::EKEntityType type, bool mayAsk) {
    auto& stateMachine = machine(type);
    if (stateMachine.state() != VespAuthorisationStatus::notDetermined) return stateMachine.state();
    if (!mayAsk || (!interactive_ && !yesGiven())) return stateMachine.state();
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    auto token = stateMachine.transitions().subscribe(
        [&](const rivet::RivetStateTransition<VespAuthorisationStatus>& transition, const rivet::RivetVia&) {
          if (transition.newState == VespAuthorisationStatus::notDetermined) return;
          std::lock_guard lock(mutex);
          done = true;
          changed.notify_all();
        });
    const long holders = manager_.use_count();
    auto asked = type == platform::EKEntityTypeReminder ? manager_->queryReminderAuthorisation(true, impetus())
                                                        : manager_->queryEventAuthorisation(true, impetus());
    bool answered = false;
    if (asked) {
      std::unique_lock lock(mutex);
      // The answer may need a person at the terminal; an unattended wait ends after ten minutes.
      answered = changed.wait_for(lock, std::chrono::minutes(10), [&] {
        return done || stateMachine.state() != VespAuthorisationStatus::notDetermined;
      });
    }
    token.cancel();
    if (answered) awaitRelease(holders);
    return stateMachine.state();
  }

  // The answer comes on the library's own thread, which holds the manager until the answer has
  // returned. Waiting for it to let go keeps the manager's end, and the store's (whose last work
  // writes its cache and its expanded periods), on this thread: let go of on that one while this
  // process exited, that work was lost, in about one short run in ten.
  void awaitRelease(long holders) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (manager_.use_count() > holders && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::microseconds(200));
  }

  void setYes(bool yes) { yes_ = yes; }
  bool yesGiven() const { return yes_; }

 private:
  VespCalendarManaging::AuthorisationStateMachine& machine(platform::EKEntityType type) {
    return type == platform::EKEntityTypeReminder ? manager_->authorisationStateMachineReminders()
                                                  : manager_->authorisationStateMachineEvents();
  }

  std::ostream& err_;
  std::ofstream silent_;  // never opened: discards the log
  bool interactive_ = false;
  bool yes_ = false;
  std::mutex promptMutex_;
  std::shared_ptr<vdir::VdirPlatform> platform_;
  std::shared_ptr<rivet::RivetJsonLineLogger> logger_;
  std::shared_ptr<VespCalendarManager> manager_;
  keel::KeelManagerFramework framework_;
};

// A calendar as a person may name it: by its identifier or by its title.
struct NamedCalendar {
  std::string identifier, title;
};

std::vector<NamedCalendar> namesOf(const std::vector<VespCalendar>& calendars) {
  std::vector<NamedCalendar> names;
  for (const auto& calendar : calendars) names.push_back({calendar.calendarIdentifier(), calendar.title()});
  return names;
}

// The identifier `given` names among `known`: an identifier, else a title, compared as searches
// compare (case and accents aside). A title several calendars share is a usage error naming them,
// which says which command (`listing`) lists them; none when nothing has that name.
std::optional<std::string> calendarNamed(const std::string& given, const std::vector<NamedCalendar>& known,
                                         const char* listing) {
  for (const auto& calendar : known)
    if (calendar.identifier == given) return calendar.identifier;
  const std::string folded = foldedText(given);
  std::vector<const NamedCalendar*> matches;
  for (const auto& calendar : known)
    if (foldedText(calendar.title) == folded) matches.push_back(&calendar);
  if (matches.size() == 1) return matches[0]->identifier;
  if (matches.empty()) return std::nullopt;
  std::string names;
  for (const auto* match : matches)
    names += std::string(names.empty() ? "" : ", ") + "\"" + neutralised(match->identifier) + "\"";
  throw Exit{kExitUsage, "vesp: \"" + neutralised(given) + "\" is the name of " + std::to_string(matches.size()) +
                             " calendars (" + names + "): give one's identifier; `vesp " + listing + "` lists them"};
}

// The calendars `given` name (identifiers or titles), each one of `known`; an unknown one is a
// usage error that says which command (`listing`) lists them.
std::set<std::string> chosenCalendars(const std::vector<std::string>& given, const std::vector<VespCalendar>& known,
                                      const char* listing) {
  const auto names = namesOf(known);
  std::set<std::string> wanted;
  for (const auto& name : given) {
    const auto identifier = calendarNamed(name, names, listing);
    if (!identifier)
      throw Exit{kExitUsage,
                 "vesp: there is no calendar \"" + neutralised(name) + "\"; `vesp " + listing + "` lists them"};
    wanted.insert(*identifier);
  }
  return wanted;
}

template <class T>
T valueOrExit(rivet::RivetResult<T> result, int status) {
  if (!result) throw Exit{status, "vesp: " + result.error().message()};
  return std::move(result).value();
}

// Everything the command line sets.
struct Arguments {
  std::string storeOption;  // --store
  std::string store;        // the store in use, once the settings are resolved
  bool asJSON = false, pretty = false, yes = false, verbose = false;
  std::string from, to;                  // events, reminders
  std::string status;                    // reminders --status
  std::vector<std::string> calendarIds;  // events --calendar, reminders --list
  std::vector<std::string> excludedIds;  // events --not-calendar
  std::string identifier;                // event IDENTIFIER, reminder ID
  std::size_t count = 0;                 // watch --count
  std::string accessKind;                // access KIND
  std::string topic;                     // help TOPIC
  std::string text;                      // search TEXT
  bool request = false, reset = false;   // access --request, --reset
  // The commands that write: new, edit, delete, reminder new|done|undo|delete.
  std::string title, start, end, duration, due, occurrence, calendar;
  std::optional<std::string> location, notes, url;
  std::optional<int> priority;
  std::string atLeastPriority, dueBefore;  // reminders --priority, --due-before
  std::optional<std::string> repeat;  // new, edit: an RRULE value
  std::vector<std::string> alarms;    // new, edit: "-15m", ... or "none"
  bool allDay = false, future = false, dryRun = false;
  std::string span;                    // edit, delete: this, future or all
  bool refs = false;                   // events --refs
  std::optional<int> days;             // events --days
  bool week = false, month = false;    // events --week, --month
  int firstWeekday = kMonday;          // --week-start, or the file's week-start
  VespConfiguration given;             // the settings given as options (--timezone, --colour, ...)
  VespConfiguration settings;          // the settings in force: options, else the file's
  std::map<std::string, std::string> sources;  // where each setting in force came from
  std::string format;                  // events, search --format
  std::optional<std::string> setting;  // config default-calendar|default-list ID
  bool unset = false;                  // config default-calendar|default-list --unset
  std::vector<std::string> files;      // import FILE...
};

// The calendars of --calendar (without it, every one but the hidden calendars), less those of
// --not-calendar. A hidden calendar the store does not have hides nothing.
VespCalendarQuery queryOf(const Arguments& args, const std::vector<VespCalendar>& known, const char* listing) {
  static const std::vector<std::string> kNone;
  const auto& hidden = args.calendarIds.empty() ? args.settings.hiddenCalendars.value_or(kNone) : kNone;
  if (args.calendarIds.empty() && args.excludedIds.empty() && hidden.empty()) return VespCalendarQuery::all();
  std::set<std::string> wanted;
  if (args.calendarIds.empty())
    for (const auto& calendar : known) wanted.insert(calendar.calendarIdentifier());
  else
    wanted = chosenCalendars(args.calendarIds, known, listing);
  for (const auto& identifier : chosenCalendars(args.excludedIds, known, listing)) wanted.erase(identifier);
  const auto names = namesOf(known);
  for (const auto& name : hidden)
    if (auto identifier = calendarNamed(name, names, listing)) wanted.erase(*identifier);
  return VespCalendarQuery::some(wanted);
}

// A date or time as a person types it (`vesp help dates`), read at this moment, in weeks that
// begin on the day --week-start names.
TypedDate typedDate(const Arguments& args, const std::string& text, const char* option) {
  auto read = readTypedDate(text, Date::now(), args.firstWeekday);
  if (auto* reason = std::get_if<std::string>(&read))
    throw Exit{kExitUsage, std::string("vesp: ") + option + " \"" + text + "\" " + *reason};
  return std::get<TypedDate>(read);
}

Date parseDate(const Arguments& args, const std::string& text, const char* option) {
  return typedDate(args, text, option).instant;
}

// What a subcommand runs with.
struct Invocation {
  const Arguments& args;
  Session& session;
  std::ostream& out;
  std::ostream& err;
  HumanStyle style;
  const sigset_t& stopSignals;
};

// A document as --json prints it: compact, or indented with --pretty.
void printJSON(Invocation& call, const json& document) {
  call.out << document.dump(call.args.pretty ? 2 : -1, ' ', false, json::error_handler_t::replace) << '\n';
}

// One record, written as it is read, with no document built for it.
template <typename Record>
void printRecord(Invocation& call, const Record& record) {
  VespJsonWriter writer(call.out, call.args.pretty);
  writeJSON(writer, record);
  writer.endLine();
}

// Records as one array, each written as it is read (a month of a large store is tens of
// thousands of records). With `refs`, each occurrence carries its short reference.
template <typename Records>
void printArray(Invocation& call, const Records& records, const std::vector<std::string>* refs = nullptr) {
  VespJsonWriter writer(call.out, call.args.pretty);
  writer.beginArray();
  std::size_t index = 0;
  for (const auto& record : records) {
    if constexpr (std::is_same_v<typename Records::value_type, VespEventInstance>)
      writeJSON(writer, record, refs ? &(*refs)[index++] : nullptr);
    else
      writeJSON(writer, record);
  }
  writer.endArray();
  writer.endLine();
}

void runCalendars(Invocation& call, platform::EKEntityType type) {
  call.session.requireAccess(type, true);
  auto& manager = call.session.manager();
  auto found = valueOrExit(
      type == platform::EKEntityTypeEvent ? manager.getAllEventCalendars() : manager.getAllReminderLists(),
      kExitFailure);
  if (call.args.asJSON)
    printArray(call, found);
  else
    printCalendars(call.out, found, call.style);
}

// The period of --from and --to (today and a week, or the days setting, by default), or --days days
// from --from, or
// the week (from Monday, or --week-start) or month that holds --from.
std::pair<Date, Date> periodOf(const Arguments& args) {
  Date start = args.from.empty() ? localMidnightToday() : parseDate(args, args.from, "--from");
  const int lengths = !args.to.empty() + args.days.has_value() + args.week + args.month;
  if (lengths > 1) throw Exit{kExitUsage, "vesp: give one of --to, --days, --week and --month"};
  if (args.week) {
    const Date first = localWeekStartOf(start, args.firstWeekday);
    return {first, addLocalDays(first, 7)};
  }
  if (args.month) return {localMonthStartOf(start), localMonthStartOf(start, 1)};
  Date end = args.days         ? addLocalDays(start, *args.days)
             : args.to.empty() ? addLocalDays(start, args.settings.days.value_or(kDefaultDays))
                               : parseDate(args, args.to, "--to");
  if (end <= start) throw Exit{kExitUsage, "vesp: --to must be later than --from"};
  return {start, end};
}

// Occurrences as --json, --format or the agenda (after the month's grid with --month) print them.
// The records, like the store, are then left to the exit that follows.
void printOccurrences(Invocation& call, std::vector<VespEventInstance> found, std::pair<Date, Date> period,
                      const std::vector<std::string>* refs) {
  if (call.args.asJSON) {
    printArray(call, found, refs);
  } else if (!call.args.format.empty()) {
    printFormatted(call.out, found, call.args.format);
  } else if (call.args.month) {
    printMonth(call.out, found, period.first, call.style, refs);
  } else {
    printAgenda(call.out, found, period.first, period.second, call.style, refs);
  }
  leaveToTheExit(std::make_shared<std::vector<VespEventInstance>>(std::move(found)));
}

// --format, checked before anything is read.
void checkFormat(const Arguments& args) {
  if (args.format.empty()) return;
  if (args.asJSON) throw Exit{kExitUsage, "vesp: give --json or --format, not both"};
  if (auto problem = formatProblem(args.format))
    throw Exit{kExitUsage, "vesp: --format \"" + neutralised(args.format) + "\" " + *problem};
}

void runEvents(Invocation& call) {
  checkFormat(call.args);
  auto [start, end] = periodOf(call.args);
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto& manager = call.session.manager();
  auto query = queryOf(call.args, valueOrExit(manager.getAllEventCalendars(), kExitFailure), "calendars");
  auto found = valueOrExit(manager.getEventInstances(start, end, query), kExitFailure);
  std::optional<std::vector<std::string>> refs;
  if (call.args.refs && !found.empty()) {
    // Unique among every occurrence of their days, in every calendar, as a reference is resolved.
    Date first = found.front().startDate(), last = first;
    for (const auto& event : found) first = std::min(first, event.startDate()), last = std::max(last, event.endDate());
    const Date from = localMidnightOf(first), to = addLocalDays(localMidnightOf(last), 1);
    refs = references(found, valueOrExit(manager.getEventInstances(from, to, VespCalendarQuery::all()), kExitFailure));
  }
  printOccurrences(call, std::move(found), {start, end}, refs ? &*refs : nullptr);
}

// Whether `event` mentions `folded` (a folded text) in its title, location, notes, or an
// attendee's name or address.
bool mentions(const VespEventInstance& event, const std::string& folded) {
  auto has = [&](const std::string& text) { return foldedText(text).find(folded) != std::string::npos; };
  auto hasOptional = [&](const std::optional<std::string>& text) { return text && has(*text); };
  if (has(event.title()) || hasOptional(event.location()) || hasOptional(event.notes())) return true;
  if (!event.attendees()) return false;
  return std::any_of(event.attendees()->begin(), event.attendees()->end(), [&](const VespEventParticipant& attendee) {
    return hasOptional(attendee.name()) || has(attendee.url().absoluteString());
  });
}

// The occurrences from --from to --to (a year back to a year ahead by default) that mention the
// text, compared folded: case and accents aside.
void runSearch(Invocation& call) {
  const std::string wanted = foldedText(call.args.text);
  if (wanted.empty()) throw Exit{kExitUsage, "vesp: give some text to search for"};
  checkFormat(call.args);
  const Arguments& args = call.args;
  const Date today = localMidnightToday();
  const Date start = args.from.empty() ? addLocalDays(today, -365) : parseDate(args, args.from, "--from");
  const Date end = args.to.empty() ? addLocalDays(today, 366) : parseDate(args, args.to, "--to");
  if (end <= start) throw Exit{kExitUsage, "vesp: --to must be later than --from"};
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto& manager = call.session.manager();
  auto query = queryOf(call.args, valueOrExit(manager.getAllEventCalendars(), kExitFailure), "calendars");
  auto found = valueOrExit(manager.getEventInstances(start, end, query), kExitFailure);
  std::erase_if(found, [&](const VespEventInstance& event) { return !mentions(event, wanted); });
  printOccurrences(call, std::move(found), {start, end}, nullptr);
}

// The occurrence a short reference ("20261109-3fa2", as `vesp events --refs` prints it) names;
// nothing when `text` is not in that form.
std::optional<VespEventInstanceIdentifier> referenced(Invocation& call, const std::string& text) {
  static const std::regex form(R"((\d{4})(\d{2})(\d{2})-([0-9a-f]{4,16}))");
  std::smatch match;
  if (!std::regex_match(text, match, form)) return std::nullopt;
  const Date day =
      parseDate(call.args, match[1].str() + "-" + match[2].str() + "-" + match[3].str(), "the reference");
  const std::string prefix = match[4];
  auto found = valueOrExit(
      call.session.manager().getEventInstances(day, addLocalDays(day, 1), VespCalendarQuery::all()), kExitFailure);
  std::vector<VespEventInstanceIdentifier> matches;
  for (const auto& event : found)
    if (agendaDay(event) == text.substr(0, 8) && occurrenceHash(event).compare(0, prefix.size(), prefix) == 0)
      matches.push_back(event.eventInstanceIdentifier());
  const std::string listing =
      "`vesp events --refs --from " + match[1].str() + "-" + match[2].str() + "-" + match[3].str() + "`";
  if (matches.empty())
    throw Exit{kExitNotFound, "vesp: no occurrence on that day has the reference " + text + "; " + listing +
                                  " prints that day's references"};
  if (matches.size() > 1)
    throw Exit{kExitUsage, "vesp: the reference " + text + " names " + std::to_string(matches.size()) +
                               " occurrences; " + listing + " prints longer references"};
  return matches.front();
}

// What `vesp reminders` lists: --status, by default open to-dos (every one without a period, and
// with one, those due in it and those completed in it).
ReminderSelection selectionOf(const Arguments& args, std::set<std::string> lists) {
  ReminderSelection selection;
  const bool period = !args.from.empty() || !args.to.empty();
  if (period) std::tie(selection.start, selection.end) = periodOf(args);
  const std::string& status = args.status;
  selection.open = status.empty() || status == "open" || status == "any";
  selection.completed = (status.empty() && period) || status == "completed" || status == "any";
  selection.cancelled = status == "cancelled" || status == "any";
  selection.lists = std::move(lists);
  if (!args.dueBefore.empty()) selection.dueBefore = parseDate(args, args.dueBefore, "--due-before");
  if (!args.atLeastPriority.empty()) {
    const std::string& given = args.atLeastPriority;
    selection.atLeastPriority = given == "high" ? 4 : given == "medium" ? 5 : given == "low" ? 9 : std::stoi(given);
  }
  return selection;
}

void runReminders(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeReminder, true);
  const auto known = valueOrExit(call.session.manager().getAllReminderLists(), kExitFailure);
  auto selection = selectionOf(call.args, chosenCalendars(call.args.calendarIds, known, "reminder-lists"));
  auto found = listReminders(call.session.platform(), selection);
  sortAsTodoman(found);
  if (call.args.asJSON)
    printArray(call, found);
  else
    printReminders(call.out, found, call.style);
}

void runEvent(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  std::optional<VespEventInstanceIdentifier> decoded = referenced(call, call.args.identifier);
  try {
    if (!decoded) decoded = VespJSONDecoder().decode<VespEventInstanceIdentifier>(call.args.identifier);
  } catch (const VespDecodingError& error) {
    throw Exit{kExitUsage, "vesp: \"" + call.args.identifier + "\" is not an occurrence identifier (" + error.what() +
                               "); `vesp events --json` prints them under eventInstanceIdentifier, and "
                               "`vesp events --refs` short references"};
  }
  auto found = valueOrExit(call.session.manager().getEventInstance(*decoded), kExitNotFound);
  if (call.args.asJSON)
    printRecord(call, found);
  else
    printEvent(call.out, found, call.style);
}

void showReminder(Invocation& call, VespReminder record) {
  const ListedReminder reminder = describedReminder(call.session.platform(), std::move(record));
  if (call.args.asJSON)
    printRecord(call, reminder);
  else
    printReminder(call.out, reminder, call.style);
}

void runReminder(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeReminder, true);
  showReminder(call, valueOrExit(call.session.manager().getReminder(call.args.identifier), kExitNotFound));
}

// The kind of failure of a write, as an exit status.
int exitStatusOf(const rivet::RivetError& error) {
  if (!error.frameworkError() || error.frameworkError()->domain() != vdir::VdirErrorDomain) return kExitFailure;
  switch (static_cast<vdir::VdirErrorCode>(error.frameworkError()->code())) {
    case vdir::VdirErrorCode::noSuchItem: return kExitNotFound;
    case vdir::VdirErrorCode::noCalendar:
    case vdir::VdirErrorCode::endBeforeStart:
    case vdir::VdirErrorCode::unknownTimeZone:
    case vdir::VdirErrorCode::invalidChange: return kExitUsage;
    case vdir::VdirErrorCode::changedOnDisk: return kExitConflict;
    case vdir::VdirErrorCode::readOnlyCalendar:
    case vdir::VdirErrorCode::notReadWhole: return kExitReadOnly;
    default: return kExitFailure;
  }
}

template <class T>
T writtenOrExit(rivet::RivetResult<T> result) {
  if (!result) throw Exit{exitStatusOf(result.error()), "vesp: " + result.error().message()};
  return std::move(result).value();
}

// A time as the user gave it, in the form it is to be written: a date for an all-day item, UTC
// when it ends in Z, else the wall-clock time in the local zone, under that zone's name.
vdir::VdirTime timeOf(const TypedDate& typed, bool allDay, const vdir::VdirClock& clock) {
  const Date instant = typed.instant;
  vdir::VdirTime like = vdir::newItemForm(allDay, clock);
  if (!allDay && typed.utc) {
    like = vdir::VdirTime();
    like.kind = vdir::VdirTime::Kind::utc;
  }
  if (allDay) {
    // The day the user named, whatever the zone.
    const std::tm fields = localFieldsOf(instant);
    like.local = icaltime_null_time();
    like.local.year = fields.tm_year + 1900;
    like.local.month = fields.tm_mon + 1;
    like.local.day = fields.tm_mday;
    like.local.is_date = 1;
    return like;
  }
  like.local = clock.wallClockLike(instant, like);
  return like;
}

// "1h30m", "45m", "2h", "1d", "90s": seconds (none when `text` is not such a duration).
std::optional<long long> secondsOf(const std::string& text) {
  static const std::regex pattern(R"((?:(\d{1,6})d)?(?:(\d{1,6})h)?(?:(\d{1,6})m)?(?:(\d{1,6})s)?)");
  std::smatch match;
  if (text.empty() || !std::regex_match(text, match, pattern)) return std::nullopt;
  auto part = [&](int at) { return match[at].matched ? std::stoll(match[at]) : 0LL; };
  return part(1) * 86400 + part(2) * 3600 + part(3) * 60 + part(4);
}

long long durationOf(const std::string& text) {
  const auto seconds = secondsOf(text);
  if (!seconds)
    throw Exit{kExitUsage, "vesp: --duration \"" + text + "\" is not a duration: use for example 1h30m, 45m or 1d"};
  if (*seconds <= 0) throw Exit{kExitUsage, "vesp: --duration \"" + text + "\" is not longer than nothing"};
  return *seconds;
}

// An --alarm ("-15m" before the start, "+1h" or "1h" after it, "0m" at it) as an RFC 5545 duration,
// or one at a set time (a date and time as --start takes them) as a UTC time.
std::string alarmTrigger(const Arguments& args, const std::string& text) {
  static const std::regex kDate("^[0-9]{4}-[0-9]{2}-[0-9]{2}.*");
  if (std::regex_match(text, kDate)) return vdir::utcText(parseDate(args, text, "--alarm"));
  const bool before = !text.empty() && text[0] == '-';
  const std::string amount = !text.empty() && (text[0] == '-' || text[0] == '+') ? text.substr(1) : text;
  const auto seconds = secondsOf(amount);
  // A set time may also begin with a word ("tomorrow 08:00"); a time from the start never does.
  auto set = readTypedDate(text, Date::now(), args.firstWeekday);
  if (!seconds && std::holds_alternative<TypedDate>(set) && std::isalpha(static_cast<unsigned char>(text[0])))
    return vdir::utcText(std::get<TypedDate>(set).instant);
  if (!seconds)
    throw Exit{kExitUsage, "vesp: --alarm \"" + text +
                               "\" is not a time from the start: use for example -15m, -1d or none, or a set time "
                               "such as 2026-12-01T08:00 or tomorrow 08:00"};
  return vdir::durationValue(before ? -*seconds : *seconds);
}

// --repeat and --alarm, as changes.
void setRepeatAndAlarms(const Arguments& args, vdir::VdirItemChanges& changes) {
  if (args.repeat) changes.rule = *args.repeat == "none" ? std::string() : *args.repeat;
  if (args.alarms.empty()) return;
  changes.alarms.emplace();
  if (args.alarms == std::vector<std::string>{"none"}) return;
  for (const auto& alarm : args.alarms) changes.alarms->push_back(alarmTrigger(args, alarm));
}

// The texts every item command may set.
void setTexts(const Arguments& args, vdir::VdirItemChanges& changes) {
  if (!args.title.empty()) changes.title = args.title;
  // An empty text removes the property.
  auto text = [](const std::optional<std::string>& given) -> std::optional<std::optional<std::string>> {
    if (!given) return std::nullopt;
    return given->empty() ? std::optional<std::string>() : given;
  };
  changes.location = text(args.location);
  changes.notes = text(args.notes);
  changes.url = text(args.url);
}

// The start and end of `new` or `edit`: --end, or --duration after the start, or (for a new event)
// an hour, or a day when all-day.
void setTimes(const Arguments& args, const vdir::VdirClock& clock, bool isNew, vdir::VdirItemChanges& changes) {
  if (!args.end.empty() && !args.duration.empty()) throw Exit{kExitUsage, "vesp: give --end or --duration, not both"};
  if (!args.start.empty())
    changes.start = timeOf(typedDate(args, args.start, "--start"), args.allDay, clock);
  if (!args.end.empty())
    changes.end = timeOf(typedDate(args, args.end, "--end"), args.allDay, clock);
  if (!changes.start || changes.end || (args.duration.empty() && !isNew)) return;
  const long long seconds = args.duration.empty() ? (args.allDay ? 86400 : 3600) : durationOf(args.duration);
  if (args.allDay && seconds % 86400 != 0)
    throw Exit{kExitUsage, "vesp: an all-day event lasts whole days (1d, 2d, ...)"};
  vdir::VdirTime end = *changes.start;
  if (args.allDay) {
    end.local = icaltime_add(end.local, icaldurationtype_from_int(static_cast<int>(seconds)));
  } else {
    const Date after = Date::fromTimeIntervalSince1970(clock.instant(end).timeIntervalSince1970() + double(seconds));
    end.local = clock.wallClockLike(after, end);
  }
  changes.end = end;
}

// The configuration file, or an exit that names the line that is wrong in it.
VespSettings settingsFile() {
  try {
    return VespSettings(VespSettings::defaultFile());
  } catch (const std::exception& failure) {
    throw Exit{kExitUsage, failure.what()};
  }
}

// The default calendar that the earlier per-store JSON settings keep for the store in use, and
// (into `others`) what they keep for other stores, as comment lines.
std::optional<std::string> legacyDefaultCalendar(const Arguments& args, std::vector<std::string>* others = nullptr) {
  std::error_code error;
  const auto root = std::filesystem::canonical(args.store, error);
  if (error) return std::nullopt;
  return VespSettings::legacyDefaultCalendar(VespSettings::defaultFile(), root.string(), others);
}

// The settings in force, each with where it came from: an option, else (for the store)
// $VESP_STORE, else the file's line, else (for the default calendar, until the file exists) the
// earlier JSON settings of this store.
void resolveSettings(Arguments& args) {
  const VespSettings file = settingsFile();
  const VespConfiguration& written = file.configuration();
  args.settings = {};
  args.sources.clear();
  auto pick = [&](const char* key, auto member) {
    if (args.given.*member) {
      args.settings.*member = args.given.*member;
      args.settings.texts[key] = args.given.texts.at(key);
      args.sources[key] = "option";
    } else if (written.*member) {
      args.settings.*member = written.*member;
      args.settings.texts[key] = written.texts.at(key);
      args.sources[key] = "line " + std::to_string(file.lineOf(key)) + " of " + file.file();
    }
  };
  const char* environment = std::getenv("VESP_STORE");
  if (!args.storeOption.empty() || (environment && *environment)) {
    args.settings.store = args.storeOption.empty() ? environment : args.storeOption;
    args.settings.texts["store"] = *args.settings.store;
    args.sources["store"] = args.storeOption.empty() ? "$VESP_STORE" : "option";
  } else {
    pick("store", &VespConfiguration::store);
  }
  args.store = args.settings.store.value_or(defaultStore());
  pick("timezone", &VespConfiguration::timezone);
  pick("default-calendar", &VespConfiguration::defaultCalendar);
  pick("default-list", &VespConfiguration::defaultList);
  pick("hidden-calendars", &VespConfiguration::hiddenCalendars);
  pick("days", &VespConfiguration::days);
  pick("colour", &VespConfiguration::colour);
  pick("week-start", &VespConfiguration::firstWeekday);
  if (!file.exists() && !args.settings.defaultCalendar) {
    if ((args.settings.defaultCalendar = legacyDefaultCalendar(args))) {
      args.settings.texts["default-calendar"] = *args.settings.defaultCalendar;
      args.sources["default-calendar"] = VespSettings::legacyFile(file.file());
    }
  }
  args.firstWeekday = args.settings.firstWeekday.value_or(kMonday);
}

// Makes the zone of the settings this process's local zone. Only before the library starts a
// thread: the environment is not safe to change while another thread reads it.
void applyTimezone(const Arguments& args) {
  if (!args.settings.timezone) return;
  ::setenv("TZ", args.settings.timezone->c_str(), 1);
  ::tzset();
}

// The collection `given` names, by identifier or title; `given` itself when nothing has that name,
// so that the write says there is no such calendar.
std::string givenCollection(Invocation& call, const std::string& given, const char* listing) {
  std::vector<NamedCalendar> names;
  for (const auto& collection : call.session.platform().store()->snapshot()->collections)
    names.push_back({collection.identifier, collection.calendar->title()});
  return calendarNamed(given, names, listing).value_or(given);
}

// The collection a new item goes to: --calendar (--list), else the default calendar (reminder list)
// the configuration sets, else the first writable one holding `mask`.
std::string collectionFor(Invocation& call, platform::EKEntityMask mask, const char* listing, const char* option) {
  auto& store = *call.session.platform().store();
  if (!call.args.calendar.empty()) return givenCollection(call, call.args.calendar, listing);
  auto snapshot = store.snapshot();
  const bool reminders = mask == platform::EKEntityMaskReminder;
  if (const auto& chosen = reminders ? call.args.settings.defaultList : call.args.settings.defaultCalendar) {
    const std::string identifier = givenCollection(call, *chosen, listing);
    if (collectionNamed(*snapshot, identifier)) return identifier;
    const char* key = reminders ? "default-list" : "default-calendar";
    throw Exit{kExitNotFound, std::string("vesp: the ") + (reminders ? "default reminder list" : "default calendar") +
                                  " \"" + neutralised(*chosen) + "\" (" + key + ", from " +
                                  neutralised(call.args.sources.at(key)) + ") is not in the store: give " + option +
                                  ", or choose another with `vesp config " + key + " ID` (`vesp " + listing +
                                  "` lists them)"};
  }
  for (const auto& collection : snapshot->collections)
    if ((collection.calendar->allowedEntityTypes() & mask) && store.writable(collection.identifier))
      return collection.identifier;
  throw Exit{kExitUsage, std::string("vesp: the store has no writable ") +
                             (reminders ? "reminder list" : "calendar") + "; `vesp " +
                             listing + "` lists them, and " + option +
                             " chooses one (an empty collection counts as a calendar)"};
}

// The files a plan writes or removes, with their new text (--dry-run --json).
json changesOf(const vdir::VdirPlan& plan) {
  json changes = json::array();
  for (const auto& change : plan.changes) {
    const std::string file = change.collection + "/" + change.name;
    changes.push_back(change.bytes ? json{{"file", file}, {"text", *change.bytes}}
                                   : json{{"file", file}, {"removed", true}});
  }
  return changes;
}

// The same for a person: each file's name, then the text it would have.
void printChanges(std::ostream& out, const vdir::VdirPlan& plan) {
  for (const auto& change : plan.changes) {
    const std::string file = change.collection + "/" + change.name;
    if (change.bytes)
      out << "--- would write " << neutralised(file) << "\n" << *change.bytes;
    else
      out << "--- would remove " << neutralised(file) << "\n";
  }
}

// Prints what a plan will write (--dry-run), or saves it and prints what it saved: the event's
// first occurrence, or with `occurrence` that occurrence of it.
void saveOrShow(Invocation& call, vdir::VdirItemEditor& editor, const vdir::VdirPlan& plan, bool reminder,
                std::optional<Date> occurrence = std::nullopt) {
  if (call.args.dryRun) {
    if (call.args.asJSON)
      printJSON(call, json{{"changes", changesOf(plan)}});
    else
      printChanges(call.out, plan);
    if (!call.args.asJSON && plan.changes.empty()) call.out << "Nothing would change.\n";
    return;
  }
  writtenOrExit(editor.apply(plan));
  if (plan.identifier.empty()) {
    if (call.args.asJSON) printJSON(call, json{{"removed", call.args.identifier}});
    else call.out << "Removed " << neutralised(call.args.identifier) << '\n';
    return;
  }
  auto& manager = call.session.manager();
  if (reminder) return showReminder(call, valueOrExit(manager.getReminder(plan.identifier), kExitFailure));
  auto saved = valueOrExit(manager.getEventInstance(VespEventInstanceIdentifier(plan.identifier, occurrence)),
                           kExitFailure);
  if (call.args.asJSON)
    printRecord(call, saved);
  else
    printEvent(call.out, saved, call.style);
}

// An event named by an occurrence identifier (as `vesp events --json` prints it) or by its
// eventIdentifier (the whole series).
std::pair<std::string, std::optional<Date>> eventNamed(Invocation& call) {
  const Arguments& args = call.args;
  if (auto reference = referenced(call, args.identifier))
    return {reference->eventIdentifier(), reference->originalOccurrenceDate()};
  if (args.identifier.empty() || args.identifier[0] != '{') {
    if (!args.occurrence.empty())
      return {args.identifier, parseDate(args, args.occurrence, "--occurrence")};
    return {args.identifier, std::nullopt};
  }
  try {
    auto decoded = VespJSONDecoder().decode<VespEventInstanceIdentifier>(args.identifier);
    return {decoded.eventIdentifier(), decoded.originalOccurrenceDate()};
  } catch (const VespDecodingError& error) {
    throw Exit{kExitUsage, "vesp: \"" + args.identifier + "\" is not an occurrence identifier (" + error.what() + ")"};
  }
}

// The event and the occurrences that edit and delete work on.
struct Occurrences {
  std::string identifier;
  std::optional<Date> occurrence;  // none: the whole series
  vdir::VdirSpan span = vdir::VdirSpan::thisOccurrence;
  bool recurring = false;  // known when an occurrence is named
};

// An occurrence of a recurring event needs --span this, future or all (--future is --span future);
// a whole series, named by its eventIdentifier alone, and an event that does not recur need none.
Occurrences occurrencesChosen(Invocation& call, const vdir::VdirItemEditor& editor) {
  const Arguments& args = call.args;
  auto [identifier, occurrence] = eventNamed(call);
  std::string span = args.span;
  if (args.future) {
    if (!span.empty() && span != "future")
      throw Exit{kExitUsage, "vesp: --future means --span future: give one of them"};
    span = "future";
  }
  if (span == "all") return {identifier, std::nullopt};
  if (!span.empty() && !occurrence)
    throw Exit{kExitUsage, "vesp: --span " + span + " needs an occurrence: give the eventInstanceIdentifier that "
                               "`vesp events --json` prints, or --occurrence WHEN"};
  const bool recurring = occurrence && writtenOrExit(editor.recurs(identifier));
  if (span.empty() && recurring)
    throw Exit{kExitUsage, "vesp: \"" + neutralised(identifier) +
                               "\" repeats: say which occurrences with --span this (only this one), --span future "
                               "(this one and every later one) or --span all (the whole series)"};
  return {identifier, occurrence, span == "future" ? vdir::VdirSpan::futureOccurrences : vdir::VdirSpan::thisOccurrence,
          recurring};
}

void runNew(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto store = call.session.platform().store();
  vdir::VdirItemChanges changes;
  setTexts(call.args, changes);
  setTimes(call.args, store->clock(), true, changes);
  setRepeatAndAlarms(call.args, changes);
  vdir::VdirItemEditor editor(store);
  auto plan = writtenOrExit(
      editor.newItem(collectionFor(call, platform::EKEntityMaskEvent, "calendars", "--calendar"), "VEVENT", changes));
  saveOrShow(call, editor, plan, false);
}

void runEdit(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto store = call.session.platform().store();
  vdir::VdirItemEditor editor(store);
  const Occurrences chosen = occurrencesChosen(call, editor);
  vdir::VdirItemChanges changes;
  setTexts(call.args, changes);
  setTimes(call.args, store->clock(), false, changes);
  setRepeatAndAlarms(call.args, changes);
  std::optional<std::string> collection;
  if (!call.args.calendar.empty()) collection = givenCollection(call, call.args.calendar, "calendars");
  // One occurrence changed: it is what is shown, under its original date.
  const bool one = chosen.recurring && chosen.span == vdir::VdirSpan::thisOccurrence;
  saveOrShow(call, editor,
             writtenOrExit(editor.changeEvent(chosen.identifier, chosen.occurrence, chosen.span, changes, collection)),
             false, one ? chosen.occurrence : std::nullopt);
}

void runDelete(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  vdir::VdirItemEditor editor(call.session.platform().store());
  const Occurrences chosen = occurrencesChosen(call, editor);
  auto plan = writtenOrExit(editor.removeEvent(chosen.identifier, chosen.occurrence, chosen.span));
  if (!plan.identifier.empty() && !call.args.dryRun) {
    // One occurrence, or the later ones, went: the series stays.
    writtenOrExit(editor.apply(plan));
    if (call.args.asJSON)
      printJSON(call, json{{"removed", call.args.identifier}, {"series", plan.identifier}});
    else
      call.out << "Removed "
               << (chosen.span == vdir::VdirSpan::futureOccurrences ? "this and every later occurrence of "
                                                                     : "one occurrence of ")
               << neutralised(plan.identifier) << '\n';
    return;
  }
  saveOrShow(call, editor, plan, false);
}

// The items of each file to import, read and split by UID before anything is written: a file that
// cannot be read or is not iCalendar stops the import before it starts.
std::vector<std::pair<std::string, std::vector<vdir::VdirImportedItem>>> itemsOfFiles(const Arguments& args) {
  std::vector<std::pair<std::string, std::vector<vdir::VdirImportedItem>>> files;
  for (const auto& path : args.files) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Exit{kExitFailure, "vesp: cannot read " + neutralised(path) + ": " + std::strerror(errno)};
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto items = vdir::itemsToImport(text);
    if (!items) throw Exit{kExitFailure, "vesp: " + neutralised(path) + ": " + items.error().message()};
    files.emplace_back(path, std::move(items).value());
  }
  return files;
}

const char* importVerb(vdir::VdirImportOutcome outcome, bool dryRun) {
  switch (outcome) {
    case vdir::VdirImportOutcome::added: return dryRun ? "would add" : "added";
    case vdir::VdirImportOutcome::updated: return dryRun ? "would update" : "updated";
    case vdir::VdirImportOutcome::unchanged: break;
  }
  return "unchanged";
}

// Brings the events and to-dos of iCalendar files into a calendar, one file per UID; an item whose
// UID the calendar holds replaces its copy only when it is newer (SEQUENCE, then LAST-MODIFIED).
void runImport(Invocation& call) {
  const Arguments& args = call.args;
  const auto files = itemsOfFiles(args);
  bool events = false, todos = false;
  for (const auto& file : files)
    for (const auto& item : file.second) (item.kind == "VTODO" ? todos : events) = true;
  if (events || !todos) call.session.requireAccess(platform::EKEntityTypeEvent, true);
  if (todos) call.session.requireAccess(platform::EKEntityTypeReminder, true);
  const std::string collection =
      events || !todos ? collectionFor(call, platform::EKEntityMaskEvent, "calendars", "--calendar")
                       : collectionFor(call, platform::EKEntityMaskReminder, "reminder-lists", "--calendar");
  vdir::VdirItemEditor editor(call.session.platform().store());
  json results = json::array();
  for (const auto& [path, items] : files) {
    for (const auto& item : items) {
      const auto imported = writtenOrExit(editor.importItem(collection, item));
      if (!args.dryRun && !imported.plan.changes.empty()) writtenOrExit(editor.apply(imported.plan));
      const char* verb = importVerb(imported.outcome, args.dryRun);
      const vdir::VdirContentLine* summary = item.components.front().property("SUMMARY");
      const std::string title = summary ? vdir::unescapedText(summary->value()) : std::string();
      if (args.asJSON) {
        json result = {{"file", path},     {"uid", item.uid},     {"kind", item.kind == "VTODO" ? "reminder" : "event"},
                       {"title", title},   {"outcome", verb},     {"identifier", imported.plan.identifier}};
        if (args.dryRun) result["changes"] = changesOf(imported.plan);
        results.push_back(std::move(result));
        continue;
      }
      call.out << verb << ": \"" << neutralised(title) << "\" (UID " << neutralised(item.uid) << ") "
               << (imported.outcome == vdir::VdirImportOutcome::unchanged ? "the calendar's copy is as new or newer: "
                                                                          : "as ")
               << neutralised(imported.plan.identifier) << '\n';
      if (args.dryRun) printChanges(call.out, imported.plan);
    }
  }
  if (args.asJSON) printJSON(call, results);
}

// A reminder's texts, due date and priority as the options give them.
vdir::VdirItemChanges reminderChanges(const Arguments& args, const vdir::VdirClock& clock) {
  vdir::VdirItemChanges changes;
  setTexts(args, changes);
  if (!args.due.empty()) {
    const TypedDate due = typedDate(args, args.due, "--due");
    changes.due = timeOf(due, due.day, clock);
  }
  changes.priority = args.priority;
  return changes;
}

void runReminderNew(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeReminder, true);
  auto store = call.session.platform().store();
  const vdir::VdirItemChanges changes = reminderChanges(call.args, store->clock());
  vdir::VdirItemEditor editor(store);
  auto plan = writtenOrExit(editor.newItem(
      collectionFor(call, platform::EKEntityMaskReminder, "reminder-lists", "--list"), "VTODO", changes));
  saveOrShow(call, editor, plan, true);
}

void runReminderChange(Invocation& call, const char* change) {
  call.session.requireAccess(platform::EKEntityTypeReminder, true);
  auto store = call.session.platform().store();
  vdir::VdirItemEditor editor(store);
  const std::string what = change;
  if (what == "delete")
    return saveOrShow(call, editor, writtenOrExit(editor.removeReminder(call.args.identifier)), true);
  if (what != "edit")
    return saveOrShow(call, editor, writtenOrExit(editor.setReminderCompleted(call.args.identifier, what == "done")),
                      true);
  saveOrShow(call, editor,
             writtenOrExit(editor.changeReminder(call.args.identifier, reminderChanges(call.args, store->clock()))),
             true);
}

// Prints a line per change until SIGINT or SIGTERM, or until --count changes were printed.
// The kinds `watch` reports: those access is granted to, asked for when undecided. None is an error.
std::vector<platform::EKEntityType> watchedKinds(Invocation& call) {
  std::vector<platform::EKEntityType> kinds;
  for (auto type : {platform::EKEntityTypeEvent, platform::EKEntityTypeReminder})
    if (call.session.settle(type, true) == VespAuthorisationStatus::authorised) kinds.push_back(type);
  if (kinds.empty()) call.session.requireAccess(platform::EKEntityTypeEvent, true);  // throws, saying why
  if (kinds.size() == 1) {
    const auto other = kinds[0] == platform::EKEntityTypeEvent ? platform::EKEntityTypeReminder
                                                               : platform::EKEntityTypeEvent;
    call.err << "vesp: watching " << kindName(kinds[0]) << " only: access to your " << kindName(other)
             << " is not granted" << std::endl;
  }
  return kinds;
}

// A line for each kind of item a change of the store touched. The manager's two buses both hear of
// every change, so the kinds come from the store itself; access is checked at each change, as the
// manager does before it publishes.
void runWatch(Invocation& call) {
  const auto kinds = watchedKinds(call);
  struct Lines {
    std::mutex mutex;
    std::size_t seen = 0;
  };
  auto lines = std::make_shared<Lines>();
  auto print = [lines, &out = call.out, asJSON = call.args.asJSON, count = call.args.count](const char* what) {
    std::lock_guard lock(lines->mutex);
    if (count && lines->seen >= count) return;
    ++lines->seen;
    if (asJSON)
      out << json{{"time", Date::now().iso8601()}, {"changed", what}}.dump(-1, ' ', false,
                                                                            json::error_handler_t::replace)
          << std::endl;
    else
      out << Date::now().iso8601() << "  " << what << " changed" << std::endl;
    if (count && lines->seen == count) ::kill(::getpid(), SIGUSR1);
  };
  // Held weakly: a change may still be told while the session ends.
  std::weak_ptr<vdir::VdirPlatform> weak = call.session.sharedPlatform();
  auto& store = *call.session.platform().store();
  const auto token = store.addChangeListener([weak, kinds, print](platform::EKEntityMask changed) {
    auto platform = weak.lock();
    for (auto type : kinds) {
      const auto mask = type == platform::EKEntityTypeReminder ? platform::EKEntityMaskReminder
                                                               : platform::EKEntityMaskEvent;
      if (platform && (changed & mask) &&
          platform->authorizationStatusForEntityType(type) == platform::EKAuthorizationStatusAuthorized)
        print(kindName(type));
    }
  });
  if (!call.args.asJSON) call.err << "Watching " << call.args.store << " (Ctrl-C to stop)" << std::endl;
  int signal = 0;
  sigwait(&call.stopSignals, &signal);
  store.removeChangeListener(token);
}

// The entity types that `access KIND` names: both when none is given.
std::vector<platform::EKEntityType> accessTypes(const Arguments& args) {
  std::vector<platform::EKEntityType> types;
  if (args.accessKind != "reminders") types.push_back(platform::EKEntityTypeEvent);
  if (args.accessKind != "events") types.push_back(platform::EKEntityTypeReminder);
  return types;
}

// Forgets the decisions of `access --reset`, before any store connection reads them.
void resetAccess(const Arguments& args) {
  const char* accessFile = std::getenv("VESP_ACCESS_FILE");
  vdir::VdirAccess decisions(accessFile && *accessFile ? accessFile : vdir::VdirAccess::defaultFile(), "vesp");
  for (auto type : accessTypes(args))
    if (auto recorded = decisions.record(type, std::nullopt); !recorded)
      throw Exit{kExitFailure, "vesp: " + recorded.error().message()};
}

void runAccess(Invocation& call) {
  json result = json::object();
  for (auto type : accessTypes(call.args)) {
    if (call.args.request && !::isatty(STDIN_FILENO) && !call.args.yes &&
        call.session.status(type) == VespAuthorisationStatus::notDetermined)
      throw Exit{kExitNoAccess, std::string("vesp: cannot ask for access to your ") + kindName(type) +
                                    " without a terminal; pass --yes to grant it"};
    VespAuthorisationStatus state = call.args.request ? call.session.settle(type, true) : call.session.status(type);
    // The manager folds the platform's restricted into denied; say which it is.
    if (call.session.platform().authorizationStatusForEntityType(type) == platform::EKAuthorizationStatusRestricted)
      state = VespAuthorisationStatus::restricted;
    result[kindName(type)] = std::string(description(state));
  }
  if (call.args.asJSON) {
    printJSON(call, result);
  } else {
    for (auto& [kind, state] : result.items()) call.out << kind << ": " << state.get<std::string>() << '\n';
    call.out << "(decisions are kept in " << call.session.platform().access()->file() << ")\n";
  }
}

void runDoctor(Invocation& call) {
  auto diagnostics = call.session.platform().diagnostics();
  auto snapshot = call.session.platform().store()->snapshot();
  std::size_t items = 0;
  for (const auto& collection : snapshot->collections) items += collection.items.size();
  if (call.args.asJSON) {
    json array = json::array();
    for (const auto& diagnostic : diagnostics) array.push_back(toJSON(diagnostic));
    printJSON(call, json{{"store", call.args.store},
                         {"collections", snapshot->collections.size()},
                         {"items", items},
                         {"problems", array}});
    return;
  }
  call.out << call.args.store << ": " << snapshot->collections.size() << " collections, " << items
           << " items served\n";
  if (diagnostics.empty()) call.out << "No problems found.\n";
  for (const auto& diagnostic : diagnostics)
    call.out << neutralised(diagnostic.path) << ": " << vdir::description(diagnostic.action) << ": "
             << neutralised(diagnostic.problem) << '\n';
}

// A setting's value as JSON: a number of days, a list of calendars, or the text as written.
json settingJSON(const std::string& key, const std::string& text, const VespConfiguration& settings) {
  if (key == "days") return *settings.days;
  if (key != "hidden-calendars") return text;
  return *settings.hiddenCalendars;
}

// What a setting is when nothing sets it: for the store and the zone, the one in use.
std::string defaultOf(const VespSettingKey& key) {
  if (key.key == std::string("store")) return defaultStore() + "  (default)";
  if (key.key == std::string("timezone")) return vdir::systemLocalZoneName() + "  (default: " + key.byDefault + ")";
  return std::string(key.byDefault) + "  (default)";
}

// Every setting in force and where it came from, then the file that holds them.
void printSettings(Invocation& call) {
  const Arguments& args = call.args;
  const std::string file = VespSettings::defaultFile();
  std::error_code error;
  const bool exists = std::filesystem::exists(file, error);
  if (args.asJSON) {
    json settings = json::object();
    for (const auto& key : settingKeys()) {
      auto text = args.settings.texts.find(key.key);
      auto from = args.sources.find(key.key);
      settings[key.key] =
          text == args.settings.texts.end()
              ? json{{"value", nullptr}, {"from", "default"}}
              : json{{"value", settingJSON(key.key, text->second, args.settings)}, {"from", from->second}};
    }
    printJSON(call, json{{"file", file}, {"exists", exists}, {"settings", settings}});
    return;
  }
  for (const auto& key : settingKeys()) {
    auto text = args.settings.texts.find(key.key);
    call.out << key.key << ": "
             << (text == args.settings.texts.end()
                     ? neutralised(defaultOf(key))
                     : neutralised(text->second) + "  (" + neutralised(args.sources.at(key.key)) + ")")
             << '\n';
  }
  call.out << "(settings are read from " << neutralised(file)
           << (exists ? "" : ", which `vesp config init` creates") << ")\n";
}

// The file `vesp config init` writes: every setting explained, with the default calendar that
// the earlier JSON settings kept for this store carried over, and their other stores' as notes.
std::string initialSettings(const Arguments& args) {
  std::vector<std::string> others;
  std::map<std::string, std::string> given;
  if (auto calendar = legacyDefaultCalendar(args, &others)) {
    given["default-calendar"] = *calendar;
    others.insert(others.begin(), "default-calendar below comes from " +
                                      neutralised(VespSettings::legacyFile(VespSettings::defaultFile())) +
                                      ", which vesp does not read once this file exists.");
  }
  return VespSettings::initialText(given, others, vdir::systemLocalZoneName());
}

void runConfigInit(Invocation& call) {
  VespSettings settings = settingsFile();
  try {
    settings.create(initialSettings(call.args));
  } catch (const std::exception& failure) {
    throw Exit{kExitFailure, failure.what()};
  }
  call.err << "Created " << neutralised(settings.file()) << ": every setting is explained there.\n";
  Arguments args = call.args;
  resolveSettings(args);
  Invocation shown{args, call.session, call.out, call.err, call.style, call.stopSignals};
  printSettings(shown);
}

// Shows, sets or forgets the calendar that `vesp new` (or the reminder list that `vesp reminder
// new`) uses when none is given.
void runDefaultCollection(Invocation& call, platform::EKEntityMask mask) {
  const Arguments& args = call.args;
  const bool reminders = mask == platform::EKEntityMaskReminder;
  const char* listing = reminders ? "reminder-lists" : "calendars";
  if (args.setting && args.unset) throw Exit{kExitUsage, "vesp: give a calendar or --unset, not both"};
  std::optional<std::string> chosen;
  if (args.setting) {
    auto& store = *call.session.platform().store();
    auto snapshot = store.snapshot();
    chosen = givenCollection(call, *args.setting, listing);
    const auto* found = collectionNamed(*snapshot, *chosen);
    if (!found)
      throw Exit{kExitNotFound, "vesp: the store has no " + std::string(reminders ? "reminder list" : "calendar") +
                                    " \"" + neutralised(*args.setting) + "\" (`vesp " + listing + "` lists them)"};
    if (!(found->calendar->allowedEntityTypes() & mask))
      throw Exit{kExitUsage, "vesp: \"" + neutralised(*args.setting) + "\" is " +
                                 (reminders ? "an event calendar: the default list is for reminders"
                                            : "a reminder list: the default calendar is for events") +
                                 " (`vesp " + listing + "` lists them)"};
    if (!store.writable(found->identifier))
      throw Exit{kExitFailure, "vesp: \"" + neutralised(*args.setting) +
                                   "\" is read-only: its directory cannot be written, so it cannot take new items"};
  }
  Arguments changed = args;
  if (args.setting || args.unset) {
    try {
      VespSettings file = settingsFile();
      file.set(reminders ? "default-list" : "default-calendar", chosen, file.exists() ? "" : initialSettings(args));
    } catch (const std::exception& failure) {
      throw Exit{kExitFailure, failure.what()};
    }
    resolveSettings(changed);
  }
  Invocation shown{changed, call.session, call.out, call.err, call.style, call.stopSignals};
  printSettings(shown);
}

// One subcommand: its parser and what it runs.
struct Subcommand {
  CLI::App* parser;
  std::function<void(Invocation&)> run;
};

// A global option that gives the setting `key` for this run, read as the configuration file's line.
void addSettingOption(CLI::App& app, Arguments& args, const char* key, const char* type, const std::string& help) {
  const auto& keys = settingKeys();
  const std::string name =
      std::find_if(keys.begin(), keys.end(), [&](auto& known) { return known.key == std::string(key); })->option;
  app.add_option_function<std::string>(
         name + (name == "--colour" ? ",--color" : ""),
         [&args, key, name](const std::string& value) {
           if (auto why = readSetting(args.given, key, value)) throw CLI::ValidationError(name, *why);
         },
         help)
      ->type_name(type);
}

void addGlobalOptions(CLI::App& app, Arguments& args) {
  app.require_subcommand(1);
  // Global options may also follow the subcommand: `vesp events --json`.
  app.fallthrough();
  app.add_option("--store", args.storeOption,
                 "The store's root directory (default: $VESP_STORE, else the configuration's store, else "
                 "~/.calendars)");
  auto* json = app.add_flag("--json", args.asJSON, "Print one JSON document instead of the human view");
  app.add_flag("--pretty", args.pretty, "Indent --json's document for reading (compact by default)")->needs(json);
  app.add_flag("--yes", args.yes, "Answer yes when asked for access to the store (for scripts)");
  app.add_flag("--verbose", args.verbose, "Log the library's failures to stderr, one JSON object per line");
  addSettingOption(app, args, "timezone", "ZONE",
                   "The zone local times are shown and read in, such as Europe/Berlin (default: $TZ, else the "
                   "system's)");
  addSettingOption(app, args, "hidden-calendars", "NAMES",
                   "Calendars that events and search leave out unless --calendar names them, separated by commas "
                   "(\"\" hides none)");
  addSettingOption(app, args, "colour", "WHEN", "Colour in the human views: auto, always or never (default: auto)");
  addSettingOption(app, args, "week-start", "DAY",
                   "The day weeks begin on, for --week, --month, \"this week\" and \"this friday\" (default: monday)");
  app.footer("Exit status: 0 success, 1 failure, 2 bad arguments or configuration, 3 access not granted, 4 no store,\n"
             "5 not found, "
             "6 the file changed on disk meanwhile (nothing was written), 7 read-only calendar or file.\n"
             "Dates are typed as people say them (tomorrow, fri 9:30, +3d, next month, 2026-12-01T09:30):\n"
             "`vesp help dates` lists every form.\n"
             "Colour is used on a terminal unless NO_COLOR is set (--colour chooses).\n"
             "Settings are read from ~/.config/vesp/config: `vesp config` shows them, `vesp config init` creates it.");
}

void addItemOptions(CLI::App* command, Arguments& args, bool event) {
  command->add_option("--location", args.location, "Where (an empty text removes it)");
  command->add_option("--notes", args.notes, "Notes (an empty text removes them)");
  command->add_option("--url", args.url, "A link (an empty text removes it)");
  command->add_flag("--dry-run", args.dryRun, "Print the iCalendar text that would be written, and write nothing");
  if (event) {
    command->add_option("--start", args.start,
                        "When it starts (tomorrow 14:00, fri 9:30, 2026-12-01T09:30: vesp help dates)");
    command->add_option("--end", args.end, "When it ends (exclusive)");
    command->add_option("--duration", args.duration, "How long it lasts instead of --end: 1h30m, 45m, 2d");
    command->add_flag("--all-day", args.allDay, "An all-day event: --start and --end are days");
    command->add_option("--repeat", args.repeat,
                        "How the whole series (with --future: the part that continues) repeats, as an RFC 5545 rule: "
                        "FREQ=WEEKLY;BYDAY=MO,WE;UNTIL=20270301; none stops it repeating (the first occurrence, "
                        "or with --future the one given, stands alone)");
    command->add_option(
        "--alarm", args.alarms,
        "An alarm before (-15m, -1d) or after (+5m) the start, or at a time (2026-12-01T08:00); repeat it for "
        "several; none removes them "
        "(the alarms given replace the ones the event had)");
  } else {
    command->add_option("--due", args.due, "When it is due: a day, or a day and time (friday, tomorrow 17:00, +3d)");
    command->add_option("--priority", args.priority, "0 (none), 1 (highest) to 9 (lowest)")->check(CLI::Range(0, 9));
  }
}

// What names the event or occurrences that `edit` and `delete` work on.
void addOccurrenceOptions(CLI::App* command, Arguments& args, const char* futureHelp) {
  command
      ->add_option("IDENTIFIER", args.identifier,
                   "The occurrence identifier as `vesp events --json` prints it under eventInstanceIdentifier, its "
                   "short reference as `vesp events --refs` prints it, or an eventIdentifier (the whole series)")
      ->required();
  command->add_option("--occurrence", args.occurrence, "With an eventIdentifier: the occurrence's original start");
  command->add_option("--span", args.span,
                      "Which occurrences of a recurring event: this (the one named), future (it and every later one) "
                      "or all (the whole series); needed for an occurrence of a recurring event")
      ->check(CLI::IsMember({"this", "future", "all"}));
  command->add_flag("--future", args.future, futureHelp);
}

void addWriteCommands(CLI::App& app, Arguments& args, std::vector<Subcommand>& commands) {
  auto* created = app.add_subcommand("new", "Create an event");
  created->add_option("TITLE", args.title, "What it is")->required();
  created->add_option(
      "--calendar", args.calendar,
      "The calendar, by identifier or title (default: the one set with `vesp config default-calendar`, else the "
      "first writable one)");
  addItemOptions(created, args, true);
  created->get_option("--start")->required();
  commands.push_back({created, runNew});

  auto* edit = app.add_subcommand("edit", "Change an event: one occurrence, or with --future it and every later one");
  addOccurrenceOptions(edit, args,
                       "The same as --span future: this and every later occurrence (a new series from it on)");
  edit->add_option("--title", args.title, "A new title");
  edit->add_option("--calendar", args.calendar, "Move the whole series to this calendar (identifier or title)");
  addItemOptions(edit, args, true);
  commands.push_back({edit, runEdit});

  auto* remove =
      app.add_subcommand("delete", "Delete an event, one occurrence, or with --future it and every later one");
  addOccurrenceOptions(remove, args, "The same as --span future: this and every later occurrence");
  remove->add_flag("--dry-run", args.dryRun, "Print what would be written or removed, and change nothing");
  commands.push_back({remove, runDelete});

  auto* imports = app.add_subcommand(
      "import", "Bring the events and to-dos of iCalendar files into a calendar (a newer copy replaces an older one)");
  imports->add_option("FILE", args.files, "The .ics files (an invitation, another calendar's export)")->required();
  imports->add_option("--calendar", args.calendar,
                      "The calendar (default: as for `vesp new`; for to-dos alone, the first writable reminder list)");
  imports->add_flag("--dry-run", args.dryRun,
                    "Print what each item would do and the text it would write, and write nothing");
  commands.push_back({imports, runImport});
}

void addConfigCommands(CLI::App& app, Arguments& args, std::vector<Subcommand>& commands) {
  auto* config = app.add_subcommand("config", "Show the settings in force and where each comes from, or change one");
  config->require_subcommand(0, 1);
  commands.push_back({config, printSettings});
  commands.push_back(
      {config->add_subcommand("init", "Create the configuration file, every setting explained in its comments"),
       runConfigInit});
  auto* defaultCalendar =
      config->add_subcommand("default-calendar", "Show, set or forget the calendar `vesp new` uses without --calendar");
  defaultCalendar->add_option("ID", args.setting, "The calendar's identifier or title (`vesp calendars` lists them)");
  defaultCalendar->add_flag("--unset", args.unset, "Forget it: new events go to the first writable calendar");
  commands.push_back(
      {defaultCalendar, [](Invocation& call) { runDefaultCollection(call, platform::EKEntityMaskEvent); }});
  auto* defaultList = config->add_subcommand(
      "default-list", "Show, set or forget the reminder list `vesp reminder new` uses without --list");
  defaultList->add_option("ID", args.setting, "The list's identifier or title (`vesp reminder-lists` lists them)");
  defaultList->add_flag("--unset", args.unset, "Forget it: new reminders go to the first writable list");
  commands.push_back(
      {defaultList, [](Invocation& call) { runDefaultCollection(call, platform::EKEntityMaskReminder); }});
}

// `reminders`, and `reminder` with its own commands.
void addReminderCommands(CLI::App& app, Arguments& args, std::vector<Subcommand>& commands) {
  auto* reminders = app.add_subcommand(
      "reminders", "List every open reminder, or those due or completed in a period, in todoman's order");
  reminders->add_option("--from", args.from, "First day or time of a period (with --to alone: today)");
  reminders->add_option("--to", args.to, "End of a period, exclusive (with --from alone: seven days after it)");
  reminders->add_option("--status", args.status,
                        "open, completed, cancelled or any (default: open, and with a period completed too)")
      ->check(CLI::IsMember({"open", "completed", "cancelled", "any"}));
  reminders->add_option("--list", args.calendarIds,
                        "Only this reminder list, by identifier or title (repeatable; `vesp reminder-lists` "
                        "lists them)");
  reminders
      ->add_option("--priority", args.atLeastPriority,
                   "Only those at least this pressing: high (1-4), medium (5), low (6-9), or 1 (highest) to 9")
      ->check(CLI::IsMember({"high", "medium", "low", "1", "2", "3", "4", "5", "6", "7", "8", "9"}));
  reminders->add_option("--due-before", args.dueBefore, "Only those due before this (friday, +3d, 2026-12-01)");
  commands.push_back({reminders, runReminders});

  auto* reminder = app.add_subcommand("reminder", "Show, create, complete, reopen, change or delete a reminder");
  reminder->add_option("ID", args.identifier,
                       "The reminder's calendarItemIdentifier, as `vesp reminders --json` prints it");
  reminder->require_subcommand(0, 1);
  commands.push_back({reminder, [](Invocation& call) {
                        if (call.args.identifier.empty())
                          throw Exit{kExitUsage, "vesp: reminder needs an ID, or one of new, done, undo, edit, delete"};
                        runReminder(call);
                      }});
  auto* reminderNew = reminder->add_subcommand("new", "Create a reminder");
  reminderNew->add_option("TITLE", args.title, "What is to be done")->required();
  reminderNew->add_option("--list", args.calendar, "The reminder list (default: the first writable one)");
  addItemOptions(reminderNew, args, false);
  commands.push_back({reminderNew, runReminderNew});
  for (const char* change : {"done", "undo", "edit", "delete"}) {
    const std::string help = std::string(change) == "done"   ? "Mark a reminder completed"
                             : std::string(change) == "undo" ? "Mark a reminder not completed"
                             : std::string(change) == "edit" ? "Change a reminder"
                                                             : "Delete a reminder";
    auto* command = reminder->add_subcommand(change, help);
    command->add_option("ID", args.identifier, "The reminder's calendarItemIdentifier")->required();
    if (std::string(change) == "edit") {
      command->add_option("--title", args.title, "A new title");
      addItemOptions(command, args, false);
    } else {
      command->add_flag("--dry-run", args.dryRun, "Print what would be written, and write nothing");
    }
    commands.push_back({command, [change](Invocation& call) { runReminderChange(call, change); }});
  }
}

void addSearchCommand(CLI::App& app, Arguments& args, std::vector<Subcommand>& commands) {
  auto* search = app.add_subcommand(
      "search",
      "List the occurrences whose title, location, notes or attendees mention a text (case and accents aside)");
  search->add_option("TEXT", args.text, "What to look for")->required();
  search->add_option("--from", args.from, "First day or time (default: a year ago)");
  search->add_option("--to", args.to, "End, exclusive (default: a year from today)");
  search->add_option("--calendar", args.calendarIds, "Only this calendar, by identifier or title (repeatable)");
  search->add_option("--not-calendar", args.excludedIds, "Not this calendar, by identifier or title (repeatable)");
  search->add_option("--format", args.format, "One line per occurrence, as for `vesp events --format`");
  commands.push_back({search, runSearch});
}

std::vector<Subcommand> addSubcommands(CLI::App& app, Arguments& args) {
  std::vector<Subcommand> commands;
  commands.push_back({app.add_subcommand("calendars", "List the event calendars"),
                      [](Invocation& call) { runCalendars(call, platform::EKEntityTypeEvent); }});
  commands.push_back({app.add_subcommand("reminder-lists", "List the reminder lists"),
                      [](Invocation& call) { runCalendars(call, platform::EKEntityTypeReminder); }});

  auto* events = app.add_subcommand("events", "List the occurrences of events in a period, as an agenda");
  events->add_option("--from", args.from, "First day or time (default: today; monday, next month, +3d, 2026-12-01)");
  events->add_option("--to", args.to, "End, exclusive (default: seven days after --from)");
  events->add_option("--calendar", args.calendarIds,
                      "Only this calendar, by identifier or title (repeatable; `vesp calendars` lists them)");
  events->add_option("--not-calendar", args.excludedIds, "Not this calendar, by identifier or title (repeatable)");
  events->add_option("--days", args.days, "This many days from --from")->check(CLI::Range(1, 3660));
  events->add_flag("--week", args.week,
                   "The week (from Monday, or --week-start) that holds --from (default: this week)");
  events->add_flag("--month", args.month, "The month that holds --from, drawn as a grid before the agenda");
  events->add_option("--format", args.format,
                     "One line per occurrence, with {title}, {start}, {end}, {calendar}, {location} and other "
                     "fields replaced (an unknown one lists them all), e.g. \"{start}  {title}\"");
  addSearchCommand(app, args, commands);
  events->add_flag("--refs", args.refs,
                   "Show each occurrence's short reference (YYYYMMDD-hash), which edit, delete and event take");
  commands.push_back({events, runEvents});

  auto* event = app.add_subcommand("event", "Show one occurrence, found by its identifier");
  event->add_option("IDENTIFIER", args.identifier,
                    "The occurrence identifier in its JSON coded form, as `vesp events --json` prints it "
                    "under eventInstanceIdentifier")
      ->required();
  commands.push_back({event, runEvent});

  addReminderCommands(app, args, commands);

  auto* watch = app.add_subcommand("watch", "Print a line for each change of the store until interrupted");
  watch->add_option("--count", args.count, "Stop after this many changes (default: never)");
  commands.push_back({watch, runWatch});

  auto* access = app.add_subcommand("access", "Show, request or reset this program's access to events and reminders");
  access->add_option("KIND", args.accessKind, "events or reminders (default: both)")
      ->check(CLI::IsMember({"events", "reminders"}));
  access->add_flag("--request", args.request, "Ask for access when it is undecided (needs a terminal or --yes)");
  access->add_flag("--reset", args.reset, "Forget the decision, so that the next request asks again");
  commands.push_back({access, runAccess});

  commands.push_back(
      {app.add_subcommand("doctor", "List what in the store was skipped or repaired, and why"), runDoctor});
  addWriteCommands(app, args, commands);
  addConfigCommands(app, args, commands);
  auto* help = app.add_subcommand("help", "Explain a topic: `vesp help dates` lists the forms a date may take");
  help->add_option("TOPIC", args.topic, "dates (without one: the commands)")->check(CLI::IsMember({"dates"}));
  commands.push_back({help, nullptr});
  return commands;
}

// The examples each command's help ends with, by the command's words.
const std::map<std::string, std::vector<const char*>>& examples() {
  static const std::map<std::string, std::vector<const char*>> byCommand{
      {"calendars", {"vesp calendars", "vesp --json calendars"}},
      {"reminder-lists", {"vesp reminder-lists"}},
      {"events",
       {"vesp events --week", "vesp events --from monday --days 3 --calendar Work",
        "vesp events --month --from 'next month'", "vesp events --from today --format '{start}  {title}'"}},
      {"event", {"vesp event 20261109-3fa2", "vesp --json event 20261109-3fa2"}},
      {"search", {"vesp search dentist", "vesp search 'team meeting' --from 2026-01-01 --not-calendar Birthdays"}},
      {"reminders",
       {"vesp reminders", "vesp reminders --list Work --priority high", "vesp reminders --due-before friday",
        "vesp reminders --status completed --from 'last week'"}},
      {"reminder", {"vesp reminder tasks/buy-stamps.ics"}},
      {"reminder new", {"vesp reminder new 'Buy stamps' --due friday --priority 1 --list Tasks"}},
      {"reminder done", {"vesp reminder done tasks/buy-stamps.ics"}},
      {"reminder undo", {"vesp reminder undo tasks/buy-stamps.ics"}},
      {"reminder edit", {"vesp reminder edit tasks/buy-stamps.ics --due 'tomorrow 17:00'"}},
      {"reminder delete", {"vesp reminder delete tasks/buy-stamps.ics --dry-run"}},
      {"new", {"vesp new Dentist --start 'tue 15:00' --duration 45m --calendar Work --alarm -1h",
               "vesp new Holiday --start 2026-12-24 --end 2026-12-27 --all-day"}},
      {"edit", {"vesp edit 20261109-3fa2 --start 11:00 --span this",
                "vesp edit work/team.ics --occurrence 2026-11-23T09:00 --future --title 'Team (new)'"}},
      {"delete", {"vesp delete 20261109-3fa2 --span this", "vesp delete work/old.ics --dry-run"}},
      {"import", {"vesp import invitation.ics", "vesp import export.ics --calendar Work --dry-run"}},
      {"watch", {"vesp watch", "vesp --json watch --count 1"}},
      {"access", {"vesp access", "vesp access events --request", "vesp access --reset"}},
      {"doctor", {"vesp doctor"}},
      {"config", {"vesp config", "vesp --json config"}},
      {"config init", {"vesp config init"}},
      {"config default-calendar", {"vesp config default-calendar Work", "vesp config default-calendar --unset"}},
      {"config default-list", {"vesp config default-list Tasks", "vesp config default-list --unset"}},
      {"help", {"vesp help dates"}},
  };
  return byCommand;
}

// The words that run `parser` ("reminder new").
std::string commandWords(const CLI::App* parser) {
  std::string words = parser->get_name();
  for (const CLI::App* parent = parser->get_parent(); parent && parent->get_parent(); parent = parent->get_parent())
    words = parent->get_name() + " " + words;
  return words;
}

// Puts each command's examples before the footer it took from the program (exit statuses, dates).
void addExamples(const std::vector<Subcommand>& commands) {
  for (const auto& command : commands) {
    const auto found = examples().find(commandWords(command.parser));
    if (found == examples().end()) continue;
    std::string footer = found->second.size() == 1 ? "Example:" : "Examples:";
    for (const char* example : found->second) footer += std::string("\n  ") + example;
    const std::string inherited = command.parser->get_footer();
    command.parser->footer(inherited.empty() ? footer : footer + "\n\n" + inherited);
  }
}

// Colour as --colour or the configuration chooses; by default on a terminal, unless $NO_COLOR is set.
bool colourWanted(const Arguments& args) {
  const auto colour = args.settings.colour.value_or(VespColour::automatic);
  if (colour != VespColour::automatic) return colour == VespColour::always;
  const char* term = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) && !std::getenv("NO_COLOR") && std::string(term ? term : "dumb") != "dumb";
}

}  // namespace

int runVesp(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app{"vesp: your calendars and reminders from a vdir store of iCalendar files.\n"
               "The store is a directory of collections (ROOT/<collection>/ or ROOT/<account>/<collection>/),\n"
               "each a directory of .ics files, as vdirsyncer writes them.",
               "vesp"};
  Arguments args;
  addGlobalOptions(app, args);
  auto commands = addSubcommands(app, args);
  addExamples(commands);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream message, failure;
    int status = app.exit(error, message, failure);
    out << message.str();
    err << failure.str();
    return status == 0 ? kExitSuccess : kExitUsage;
  }
  // The innermost command given ("reminder done" runs done): each is listed after its parent.
  auto last = std::find_if(commands.rbegin(), commands.rend(), [](const Subcommand& c) { return c.parser->parsed(); });
  auto chosen = std::prev(last.base());
  const std::string name = chosen->parser->get_name();
  if (name == "help") {
    // app.help() would print the help of the command given, `help` itself: the program's is wanted.
    out << (args.topic.empty() ? app.get_formatter()->make_help(&app, "vesp", CLI::AppFormatMode::Normal)
                               : std::string(kDateForms));
    return kExitSuccess;
  }
  try {
    resolveSettings(args);
    applyTimezone(args);
    // Access decisions and the configuration do not need the store to exist yet.
    const bool needsStore = name != "access" && name != "config" && name != "init";
    if (needsStore && !std::filesystem::is_directory(args.store))
      throw Exit{kExitNoStore, "vesp: there is no calendar store at " + args.store +
                                   (args.sources.count("store") ? " (the store from " + args.sources.at("store") + ")"
                                                                : std::string()) +
                                   ": give its directory with --store, set VESP_STORE, or set store in " +
                                   VespSettings::defaultFile()};
    // A watch ends on SIGINT or SIGTERM; they are taken by this thread alone, so they are blocked
    // before the library starts any thread.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGUSR1);
    if (name == "watch") pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    if (name == "access" && args.reset) resetAccess(args);

    Session session(args.store, name == "watch", args.yes, args.verbose, err);
    session.setYes(args.yes);
    Invocation call{args, session, out, err, HumanStyle{colourWanted(args), args.firstWeekday}, stopSignals};
    chosen->run(call);
    return kExitSuccess;
  } catch (const Exit& exit) {
    err << exit.message << '\n';
    return exit.status;
  }
}

}  // namespace vesp::tool
