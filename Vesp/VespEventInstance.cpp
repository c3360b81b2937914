#include "Vesp/VespEventInstance.h"

#include "Vesp/VespRequire.h"

namespace vesp {

namespace {
constexpr const char* kRecord = "VespEventInstance";

template <class Record, class Element>
std::optional<Record> convertOptional(const std::shared_ptr<Element>& element) {
  if (!element) return std::nullopt;
  return Record(*element);
}
}  // namespace

std::optional<double> vespTravelTime(const std::optional<platform::AnyObject>& stored) {
  if (!stored || !stored->isNumber()) return std::nullopt;
  double value = stored->number()->doubleValue();
  if (value == 0.0) return std::nullopt;
  return value;
}

VespEventInstance::VespEventInstance(
    std::optional<std::vector<VespAlarm>> alarms, std::optional<std::vector<VespEventParticipant>> attendees,
    VespEventAvailability availability, std::optional<std::string> birthdayContactIdentifier, VespCalendar calendar,
    std::string calendarItemIdentifier, std::string calendarItemExternalIdentifier,
    std::optional<platform::Date> creationDate, platform::Date endDate, std::string eventIdentifier, bool isAllDay,
    bool isDetached, std::optional<platform::Date> lastModifiedDate, std::optional<std::string> location,
    std::optional<std::string> notes, platform::Date occurrenceDate, std::optional<VespEventParticipant> organizer,
    std::optional<std::vector<VespRecurrenceRule>> recurrenceRules, platform::Date startDate, VespEventStatus status,
    std::optional<VespStructuredLocation> structuredLocation, std::optional<platform::TimeZone> timeZone,
    std::string title, std::optional<double> travelTime, std::optional<platform::URL> url)
    : alarms_(std::move(alarms)),
      attendees_(std::move(attendees)),
      availability_(availability),
      birthdayContactIdentifier_(std::move(birthdayContactIdentifier)),
      calendar_(std::move(calendar)),
      calendarItemIdentifier_(std::move(calendarItemIdentifier)),
      calendarItemExternalIdentifier_(std::move(calendarItemExternalIdentifier)),
      creationDate_(creationDate),
      endDate_(endDate),
      eventIdentifier_(eventIdentifier),
      eventInstanceIdentifier_(VespEventInstanceIdentifier::withOccurrenceDate(std::move(eventIdentifier), occurrenceDate)),
      isAllDay_(isAllDay),
      isDetached_(isDetached),
      lastModifiedDate_(lastModifiedDate),
      location_(std::move(location)),
      notes_(std::move(notes)),
      originalOccurrenceDate_(occurrenceDate),
      organizer_(std::move(organizer)),
      recurrenceRules_(std::move(recurrenceRules)),
      startDate_(startDate),
      status_(status),
      structuredLocation_(std::move(structuredLocation)),
      timeZone_(std::move(timeZone)),
      title_(std::move(title)),
      travelTime_(travelTime),
      url_(std::move(url)) {}

// Members are initialised in declaration order, which is the documented reading order. The event
// identifier is read twice and the occurrence date twice, as the record's two steps ask: absent at
// the identifier's step it gives noOccurrenceDate, absent at its own step it stops the process.
VespEventInstance::VespEventInstance(const platform::EKEvent& event)
    : alarms_(detail::convertList<VespAlarm>(event.alarms())),
      attendees_(detail::convertList<VespEventParticipant>(event.attendees())),
      availability_(vespEventAvailability(event.availability())),
      birthdayContactIdentifier_(event.birthdayContactIdentifier()),
      calendar_(*detail::required(event.calendar(), kRecord, "the event's calendar")),
      calendarItemIdentifier_(event.calendarItemIdentifier()),
      calendarItemExternalIdentifier_(
          detail::required(event.calendarItemExternalIdentifier(), kRecord, "the event's calendarItemExternalIdentifier")),
      creationDate_(event.creationDate()),
      endDate_(detail::required(event.endDate(), kRecord, "the event's endDate")),
      eventIdentifier_(detail::required(event.eventIdentifier(), kRecord, "the event's eventIdentifier")),
      // Braced, so that the identifier is read before the occurrence date.
      eventInstanceIdentifier_{
          detail::required(event.eventIdentifier(), kRecord, "the event's eventIdentifier (read for its identifier)"),
          event.occurrenceDate()},
      isAllDay_(event.isAllDay()),
      isDetached_(event.isDetached()),
      lastModifiedDate_(event.lastModifiedDate()),
      location_(event.location()),
      notes_(event.notes()),
      originalOccurrenceDate_(detail::required(event.occurrenceDate(), kRecord, "the event's occurrenceDate")),
      organizer_(convertOptional<VespEventParticipant>(event.organizer())),
      recurrenceRules_(detail::convertList<VespRecurrenceRule>(event.recurrenceRules())),
      startDate_(detail::required(event.startDate(), kRecord, "the event's startDate")),
      status_(vespEventStatus(event.status())),
      structuredLocation_(convertOptional<VespStructuredLocation>(event.structuredLocation())),
      timeZone_(event.timeZone()),
      title_(detail::required(event.title(), kRecord, "the event's title")),
      travelTime_(vespTravelTime(event.valueForKey("travelTime"))),
      url_(event.URL()) {}

std::ostream& operator<<(std::ostream& out, const VespEventInstance& event) {
  return out << "VespEventInstance(\"" << event.title() << "\", " << event.startDate() << " - " << event.endDate()
             << ", " << event.eventInstanceIdentifier() << ", calendar \"" << event.calendar().title() << "\")";
}

}  // namespace vesp
