#include "Vesp/VespReminder.h"

#include "Vesp/VespRequire.h"

namespace vesp {

namespace {
constexpr const char* kRecord = "VespReminder";

// The platform reminder's attributes, read in the order of the memberwise arguments (which puts
// isCompleted before lastModifiedDate, unlike the field order).
struct ReadInOrder {
  explicit ReadInOrder(const platform::EKReminder& reminder)
      : alarms(detail::convertList<VespAlarm>(reminder.alarms())),
        attendees(detail::convertList<VespEventParticipant>(reminder.attendees())),
        calendar(*detail::required(reminder.calendar(), kRecord, "the reminder's calendar")),
        calendarItemIdentifier(reminder.calendarItemIdentifier()),
        calendarItemExternalIdentifier(detail::required(reminder.calendarItemExternalIdentifier(), kRecord,
                                                        "the reminder's calendarItemExternalIdentifier")),
        completionDate(reminder.completionDate()),
        creationDate(reminder.creationDate()),
        dueDateComponents(reminder.dueDateComponents()),
        isCompleted(reminder.isCompleted()),
        lastModifiedDate(reminder.lastModifiedDate()),
        location(reminder.location()),
        notes(reminder.notes()),
        priority(vespReminderPriority(reminder.priority())),
        recurrenceRules(detail::convertList<VespRecurrenceRule>(reminder.recurrenceRules())),
        startDateComponents(reminder.startDateComponents()),
        timeZone(reminder.timeZone()),
        title(detail::required(reminder.title(), kRecord, "the reminder's title")),
        url(reminder.URL()) {}

  std::optional<std::vector<VespAlarm>> alarms;
  std::optional<std::vector<VespEventParticipant>> attendees;
  VespCalendar calendar;
  std::string calendarItemIdentifier;
  std::string calendarItemExternalIdentifier;
  std::optional<platform::Date> completionDate;
  std::optional<platform::Date> creationDate;
  std::optional<platform::DateComponents> dueDateComponents;
  bool isCompleted;
  std::optional<platform::Date> lastModifiedDate;
  std::optional<std::string> location;
  std::optional<std::string> notes;
  VespReminderPriority priority;
  std::optional<std::vector<VespRecurrenceRule>> recurrenceRules;
  std::optional<platform::DateComponents> startDateComponents;
  std::optional<platform::TimeZone> timeZone;
  std::string title;
  std::optional<platform::URL> url;
};

VespReminder fromPlatform(ReadInOrder read) {
  return VespReminder(std::move(read.alarms), std::move(read.attendees), std::move(read.calendar),
                      std::move(read.calendarItemIdentifier), std::move(read.calendarItemExternalIdentifier),
                      read.completionDate, read.creationDate, std::move(read.dueDateComponents), read.isCompleted,
                      read.lastModifiedDate, std::move(read.location), std::move(read.notes), read.priority,
                      std::move(read.recurrenceRules), std::move(read.startDateComponents), std::move(read.timeZone),
                      std::move(read.title), std::move(read.url));
}
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

VespReminder::VespReminder(const platform::EKReminder& reminder) : VespReminder(fromPlatform(ReadInOrder(reminder))) {}

std::ostream& operator<<(std::ostream& out, const VespReminder& reminder) {
  out << "VespReminder(\"" << reminder.title() << "\", " << reminder.priority();
  if (reminder.dueDateComponents()) out << ", due " << *reminder.dueDateComponents();
  if (reminder.isCompleted()) out << ", completed";
  return out << ", list \"" << reminder.calendar().title() << "\")";
}

}  // namespace vesp
