#include "tools/vesp/VespCommandLine.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "Vesp/VespCalendarManager.h"
#include "Vesp/VespCodingError.h"
#include "Vesp/VespJSONCoder.h"
#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirStore.h"
#include "support/keel/KeelManagerFramework.h"
#include "support/rivet/RivetJsonLineLogger.h"
#include "tools/vesp/VespOutput.h"

namespace vesp::tool {

namespace {

// A JSON array written one element at a time, byte for byte as the whole array's dump(2) would be
// (a month of a large store is tens of thousands of records: no document of them all is built).
template <typename Records>
void writeArray(std::ostream& out, const Records& records) {
  if (records.empty()) {
    out << "[]\n";
    return;
  }
  out << "[\n";
  std::size_t left = records.size();
  for (const auto& record : records) {
    std::string text = toJSON(record).dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
    out << "  ";
    std::size_t from = 0;
    for (std::size_t at; (at = text.find('\n', from)) != std::string::npos; from = at + 1)
      out.write(text.data() + from, static_cast<std::streamsize>(at + 1 - from)) << "  ";
    out.write(text.data() + from, static_cast<std::streamsize>(text.size() - from));
    out << (--left > 0 ? ",\n" : "\n");
  }
  out << "]\n";
}

using nlohmann::json;
using platform::Date;

// A failure that ends the program with a message and an exit status.
struct Exit {
  int status;
  std::string message;
};

// Where the store is when neither --store nor $VESP_STORE says: ~/.calendars, the directory that
// vdirsyncer's and khal's documented set-ups sync into.
std::string defaultStore() {
  if (const char* store = std::getenv("VESP_STORE"); store && *store) return store;
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.calendars";
}

// YYYY-MM-DD (local midnight), YYYY-MM-DDTHH:MM[:SS] (local time) or the same ending in Z (UTC).
Date parseDate(const std::string& text, const char* option) {
  static const std::regex pattern(R"((\d{4})-(\d{2})-(\d{2})(?:[T ](\d{2}):(\d{2})(?::(\d{2}))?(Z)?)?)");
  std::smatch match;
  if (!std::regex_match(text, match, pattern))
    throw Exit{kExitUsage, std::string("vesp: ") + option + " \"" + text +
                               "\" is not a date: use YYYY-MM-DD, YYYY-MM-DDTHH:MM[:SS] or add Z for UTC"};
  std::tm fields{};
  fields.tm_year = std::stoi(match[1]) - 1900;
  fields.tm_mon = std::stoi(match[2]) - 1;
  fields.tm_mday = std::stoi(match[3]);
  fields.tm_hour = match[4].matched ? std::stoi(match[4]) : 0;
  fields.tm_min = match[5].matched ? std::stoi(match[5]) : 0;
  fields.tm_sec = match[6].matched ? std::stoi(match[6]) : 0;
  fields.tm_isdst = -1;
  std::tm check = fields;
  std::time_t seconds = match[7].matched ? timegm(&fields) : std::mktime(&fields);
  if (seconds == static_cast<std::time_t>(-1) || fields.tm_mday != check.tm_mday || fields.tm_mon != check.tm_mon ||
      check.tm_hour > 23 || check.tm_min > 59 || check.tm_sec > 59)
    throw Exit{kExitUsage, std::string("vesp: ") + option + " \"" + text + "\" is not a real date"};
  return Date::fromTimeIntervalSince1970(static_cast<double>(seconds));
}

Date localMidnightToday() {
  std::time_t now = std::time(nullptr);
  std::tm fields{};
  localtime_r(&now, &fields);
  fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
  fields.tm_isdst = -1;
  return Date::fromTimeIntervalSince1970(static_cast<double>(std::mktime(&fields)));
}

// Adds whole local days (a day across a clock change is not 24 hours).
Date addLocalDays(Date date, int days) {
  auto seconds = static_cast<std::time_t>(date.timeIntervalSince1970());
  std::tm fields{};
  localtime_r(&seconds, &fields);
  fields.tm_mday += days;
  fields.tm_isdst = -1;
  return Date::fromTimeIntervalSince1970(static_cast<double>(std::mktime(&fields)));
}

const char* kindName(platform::EKEntityType type) { return type == platform::EKEntityTypeReminder ? "reminders" : "events"; }

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

  ~Session() {
    (void)framework_.applicationDidEnterBackground(impetus());
    (void)framework_.tearDownAll(impetus());
  }

  static rivet::RivetImpetus impetus() { return rivet::RivetImpetus("vesp command", std::nullopt, "vesp", "main()", 1); }

  void check(const rivet::RivetResult<void>& result, const char* what) {
    if (!result) throw Exit{kExitFailure, std::string("vesp: ") + what + " failed: " + result.error().description()};
  }

  VespCalendarManager& manager() { return *manager_; }
  vdir::VdirPlatform& platform() { return *platform_; }

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
    auto asked = type == platform::EKEntityTypeReminder ? manager_->queryReminderAuthorisation(true, impetus())
                                                        : manager_->queryEventAuthorisation(true, impetus());
    if (asked) {
      std::unique_lock lock(mutex);
      // The answer may need a person at the terminal; an unattended wait ends after ten minutes.
      changed.wait_for(lock, std::chrono::minutes(10), [&] {
        return done || stateMachine.state() != VespAuthorisationStatus::notDetermined;
      });
    }
    token.cancel();
    return stateMachine.state();
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

VespCalendarQuery queryOf(const std::vector<std::string>& identifiers, const std::vector<VespCalendar>& known,
                          const char* listing) {
  if (identifiers.empty()) return VespCalendarQuery::all();
  std::set<std::string> wanted;
  for (const auto& identifier : identifiers) {
    bool exists = std::any_of(known.begin(), known.end(),
                              [&](const VespCalendar& calendar) { return calendar.calendarIdentifier() == identifier; });
    if (!exists)
      throw Exit{kExitUsage, "vesp: there is no calendar \"" + identifier + "\"; `vesp " + listing + "` lists them"};
    wanted.insert(identifier);
  }
  return VespCalendarQuery::some(std::move(wanted));
}

template <class T>
T valueOrExit(rivet::RivetResult<T> result, int status) {
  if (!result) throw Exit{status, "vesp: " + result.error().message()};
  return std::move(result).value();
}

// Everything the command line sets.
struct Arguments {
  std::string store = defaultStore();
  bool asJSON = false, yes = false, verbose = false;
  std::string from, to;                  // events, reminders
  std::vector<std::string> calendarIds;  // events --calendar, reminders --list
  std::string identifier;                // event IDENTIFIER, reminder ID
  std::size_t count = 0;                 // watch --count
  std::string accessKind;                // access KIND
  bool request = false, reset = false;   // access --request, --reset
};

// What a subcommand runs with.
struct Invocation {
  const Arguments& args;
  Session& session;
  std::ostream& out;
  std::ostream& err;
  HumanStyle style;
  const sigset_t& stopSignals;
};

void runCalendars(Invocation& call, platform::EKEntityType type) {
  call.session.requireAccess(type, true);
  auto& manager = call.session.manager();
  auto found = valueOrExit(
      type == platform::EKEntityTypeEvent ? manager.getAllEventCalendars() : manager.getAllReminderLists(),
      kExitFailure);
  if (call.args.asJSON)
    writeArray(call.out, found);
  else
    printCalendars(call.out, found, call.style);
}

// The period of --from and --to: today and a week by default.
std::pair<Date, Date> periodOf(const Arguments& args) {
  Date start = args.from.empty() ? localMidnightToday() : parseDate(args.from, "--from");
  Date end = args.to.empty() ? addLocalDays(start, 7) : parseDate(args.to, "--to");
  if (end <= start) throw Exit{kExitUsage, "vesp: --to must be later than --from"};
  return {start, end};
}

void runEvents(Invocation& call) {
  auto [start, end] = periodOf(call.args);
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto& manager = call.session.manager();
  auto query = queryOf(call.args.calendarIds, valueOrExit(manager.getAllEventCalendars(), kExitFailure), "calendars");
  auto found = valueOrExit(manager.getEventInstances(start, end, query), kExitFailure);
  if (call.args.asJSON)
    writeArray(call.out, found);
  else
    printAgenda(call.out, found, call.style);
}

void runReminders(Invocation& call) {
  auto [start, end] = periodOf(call.args);
  call.session.requireAccess(platform::EKEntityTypeReminder, true);
  auto& manager = call.session.manager();
  auto query =
      queryOf(call.args.calendarIds, valueOrExit(manager.getAllReminderLists(), kExitFailure), "reminder-lists");
  auto found = valueOrExit(manager.getReminders(start, end, query), kExitFailure);
  if (call.args.asJSON)
    writeArray(call.out, found);
  else
    printReminders(call.out, found, call.style);
}

void runEvent(Invocation& call) {
  std::optional<VespEventInstanceIdentifier> decoded;
  try {
    decoded = VespJSONDecoder().decode<VespEventInstanceIdentifier>(call.args.identifier);
  } catch (const VespDecodingError& error) {
    throw Exit{kExitUsage, "vesp: \"" + call.args.identifier + "\" is not an occurrence identifier (" + error.what() +
                               "); `vesp events --json` prints them under eventInstanceIdentifier"};
  }
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto found = valueOrExit(call.session.manager().getEventInstance(*decoded), kExitNotFound);
  if (call.args.asJSON)
    call.out << toJSON(found).dump(2, ' ', false, json::error_handler_t::replace) << '\n';
  else
    printEvent(call.out, found, call.style);
}

void runReminder(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeReminder, true);
  auto found = valueOrExit(call.session.manager().getReminder(call.args.identifier), kExitNotFound);
  if (call.args.asJSON)
    call.out << toJSON(found).dump(2, ' ', false, json::error_handler_t::replace) << '\n';
  else
    printReminder(call.out, found, call.style);
}

// Prints a line per change until SIGINT or SIGTERM, or until --count changes were printed.
void runWatch(Invocation& call) {
  call.session.requireAccess(platform::EKEntityTypeEvent, true);
  auto& manager = call.session.manager();
  std::mutex mutex;
  std::size_t seen = 0;
  const std::size_t count = call.args.count;
  auto print = [&](const char* what) {
    std::lock_guard lock(mutex);
    if (count && seen >= count) return;
    ++seen;
    if (call.args.asJSON)
      call.out << json{{"time", Date::now().iso8601()}, {"changed", what}}.dump(-1, ' ', false,
                                                                                 json::error_handler_t::replace)
               << std::endl;
    else
      call.out << Date::now().iso8601() << "  " << what << " changed" << std::endl;
    if (count && seen == count) ::kill(::getpid(), SIGUSR1);
  };
  auto eventToken = manager.eventStoreChangedEventBus().subscribe(
      [&](const VespEventStoreChangedEvent&, const rivet::RivetVia&) { print("events"); });
  auto reminderToken = manager.reminderStoreChangedEventBus().subscribe(
      [&](const VespReminderStoreChangedEvent&, const rivet::RivetVia&) { print("reminders"); });
  if (!call.args.asJSON) call.err << "Watching " << call.args.store << " (Ctrl-C to stop)" << std::endl;
  int signal = 0;
  sigwait(&call.stopSignals, &signal);
  eventToken.cancel();
  reminderToken.cancel();
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
    call.out << result.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
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
    call.out << json{{"store", call.args.store}, {"collections", snapshot->collections.size()}, {"items", items},
                     {"problems", array}}
                    .dump(2, ' ', false, json::error_handler_t::replace)
             << '\n';
    return;
  }
  call.out << call.args.store << ": " << snapshot->collections.size() << " collections, " << items
           << " items served\n";
  if (diagnostics.empty()) call.out << "No problems found.\n";
  for (const auto& diagnostic : diagnostics)
    call.out << neutralised(diagnostic.path) << ": " << vdir::description(diagnostic.action) << ": "
             << neutralised(diagnostic.problem) << '\n';
}

// One subcommand: its parser and what it runs.
struct Subcommand {
  CLI::App* parser;
  std::function<void(Invocation&)> run;
};

void addGlobalOptions(CLI::App& app, Arguments& args) {
  app.require_subcommand(1);
  app.add_option("--store", args.store, "The store's root directory (default: $VESP_STORE, else ~/.calendars)")
      ->capture_default_str();
  app.add_flag("--json", args.asJSON, "Print one JSON document instead of the human view");
  app.add_flag("--yes", args.yes, "Answer yes when asked for access to the store (for scripts)");
  app.add_flag("--verbose", args.verbose, "Log the library's failures to stderr, one JSON object per line");
  app.footer("Exit status: 0 success, 1 failure, 2 bad arguments, 3 access not granted, 4 no store, 5 not found.\n"
             "Dates are YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS] in local time, or UTC with a trailing Z.\n"
             "Colour is used on a terminal unless NO_COLOR is set.");
}

std::vector<Subcommand> addSubcommands(CLI::App& app, Arguments& args) {
  std::vector<Subcommand> commands;
  commands.push_back({app.add_subcommand("calendars", "List the event calendars"),
                      [](Invocation& call) { runCalendars(call, platform::EKEntityTypeEvent); }});
  commands.push_back({app.add_subcommand("reminder-lists", "List the reminder lists"),
                      [](Invocation& call) { runCalendars(call, platform::EKEntityTypeReminder); }});

  auto* events = app.add_subcommand("events", "List the occurrences of events in a period, as an agenda");
  events->add_option("--from", args.from, "First day or time (default: today)");
  events->add_option("--to", args.to, "End, exclusive (default: seven days after --from)");
  events->add_option("--calendar", args.calendarIds, "Only this calendar (repeatable; `vesp calendars` lists them)");
  commands.push_back({events, runEvents});

  auto* event = app.add_subcommand("event", "Show one occurrence, found by its identifier");
  event->add_option("IDENTIFIER", args.identifier,
                    "The occurrence identifier in its JSON coded form, as `vesp events --json` prints it "
                    "under eventInstanceIdentifier")
      ->required();
  commands.push_back({event, runEvent});

  auto* reminders = app.add_subcommand("reminders", "List reminders due, or completed, in a period");
  reminders->add_option("--from", args.from, "First day or time (default: today)");
  reminders->add_option("--to", args.to, "End, exclusive (default: seven days after --from)");
  reminders->add_option("--list", args.calendarIds,
                        "Only this reminder list (repeatable; `vesp reminder-lists` lists them)");
  commands.push_back({reminders, runReminders});

  auto* reminder = app.add_subcommand("reminder", "Show one reminder");
  reminder->add_option("ID", args.identifier, "The reminder's calendarItemIdentifier, as `vesp reminders --json` prints it")
      ->required();
  commands.push_back({reminder, runReminder});

  auto* watch = app.add_subcommand("watch", "Print a line for each change of the store until interrupted");
  watch->add_option("--count", args.count, "Stop after this many changes (default: never)");
  commands.push_back({watch, runWatch});

  auto* access = app.add_subcommand("access", "Show, request or reset this program's access to events and reminders");
  access->add_option("KIND", args.accessKind, "events or reminders (default: both)")
      ->check(CLI::IsMember({"events", "reminders"}));
  access->add_flag("--request", args.request, "Ask for access when it has not been decided (needs a terminal or --yes)");
  access->add_flag("--reset", args.reset, "Forget the decision, so that the next request asks again");
  commands.push_back({access, runAccess});

  commands.push_back(
      {app.add_subcommand("doctor", "List what in the store was skipped or repaired, and why"), runDoctor});
  return commands;
}

bool colourWanted() {
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
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream message, failure;
    int status = app.exit(error, message, failure);
    out << message.str();
    err << failure.str();
    return status == 0 ? kExitSuccess : kExitUsage;
  }
  auto chosen = std::find_if(commands.begin(), commands.end(), [](const Subcommand& c) { return c.parser->parsed(); });
  const std::string name = chosen->parser->get_name();
  try {
    if (name != "access" && !std::filesystem::is_directory(args.store))
      throw Exit{kExitNoStore, "vesp: there is no calendar store at " + args.store +
                                   " (give its directory with --store, or set VESP_STORE)"};
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
    Invocation call{args, session, out, err, HumanStyle{colourWanted()}, stopSignals};
    chosen->run(call);
    return kExitSuccess;
  } catch (const Exit& exit) {
    err << exit.message << '\n';
    return exit.status;
  }
}

}  // namespace vesp::tool
