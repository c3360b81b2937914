#include "Vesp/VespReminder.h"

#include "Vesp/VespRequire.h"

namespace vesp {

namespace {
constexpr const char* kRecord = "VespReminder";
}  // namespace

VespReminder::VespReminder(std::optional<std::vector<VespAlarm>> alarms,
                           std::optional<std::vector<VespEventParticipant>> attendees, VespCalendar calendar,
                           std::string calendarItemIdentifier, std::string calendarItemExternalIdentifier,
                           std::optional<platform::Date> completionDate, std::optional<platform::Date> creationDate,
                           std::optional<platform::DateComponents> dueDateComponents, bool isCompleted,
                           std::optional<platform::Date> lastModifiedDate, std::optional<std::string> location,
                           std::optional<std::string> notes, VespReminderPriority priority,
                           std::optional<std::vector<VespRecurrenceRule>> recurrenceRules,
                           std::optional<platform::DateComponents> startDateComponents,
                           std::optional<platform::TimeZone> timeZone, std::string title,
                           std::optional<platform::URL> url)
    : alarms_(std::move(alarms)),
      attendees_(std::move(attendees)),
      calendar_(std::move(calendar)),
      calendarItemIdentifier_(std::move(calendarItemIdentifier)),
      calendarItemExternalIdentifier_(std::move(calendarItemExternalIdentifier)),
      completionDate_(completionDate),
      creationDate_(creationDate),
      dueDateComponents_(std::move(dueDateComponents)),
      lastModifiedDate_(lastModifiedDate),
      location_(std::move(location)),
      isCompleted_(isCompleted),
      notes_(std::move(notes)),
      priority_(priority),
      recurrenceRules_(std::move(recurrenceRules)),
      startDateComponents_(std::move(startDateComponents)),
      timeZone_(std::move(timeZone)),
      title_(std::move(title)),
      url_(std::move(url)) {}

// The arguments of a braced initialiser are evaluated left to right, so the platform reminder is
// read in the order of the memberwise arguments (isCompleted before lastModifiedDate).
VespReminder::VespReminder(const platform::EKReminder& reminder)
    : VespReminder{detail::convertList<VespAlarm>(reminder.alarms()),
                   detail::convertList<VespEventParticipant>(reminder.attendees()),
                   VespCalendar(*detail::required(reminder.calendar(), kRecord, "the reminder's calendar")),
                   reminder.calendarItemIdentifier(),
                   detail::required(reminder.calendarItemExternalIdentifier(), kRecord,
                                    "the reminder's calendarItemExternalIdentifier"),
                   reminder.completionDate(),
                   reminder.creationDate(),
                   reminder.dueDateComponents(),
                   reminder.isCompleted(),
                   reminder.lastModifiedDate(),
                   reminder.location(),
                   reminder.notes(),
                   vespReminderPriority(reminder.priority()),
                   detail::convertList<VespRecurrenceRule>(reminder.recurrenceRules()),
                   reminder.startDateComponents(),
                   reminder.timeZone(),
                   detail::required(reminder.title(), kRecord, "the reminder's title"),
                   reminder.URL()} {}

std::ostream& operator<<(std::ostream& out, const VespReminder& reminder) {
  out << "VespReminder(\"" << reminder.title() << "\", " << reminder.priority();
  if (reminder.dueDateComponents()) out << ", due " << *reminder.dueDateComponents();
  if (reminder.isCompleted()) out << ", completed";
  return out << ", list \"" << reminder.calendar().title() << "\")";
}

}  // namespace vesp
