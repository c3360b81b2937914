#include "Vesp/VespRecurrenceRule.h"

#include "Vesp/VespRequire.h"

namespace vesp {

VespRecurrenceRule::VespRecurrenceRule(std::string calendarIdentifier, NumberList daysOfTheMonth,
                                       std::optional<std::vector<VespRecurrenceDayOfWeek>> daysOfTheWeek,
                                       NumberList daysOfTheYear, std::int64_t firstDayOfTheWeek,
                                       VespRecurrenceFrequency frequency, std::int64_t interval,
                                       NumberList monthsOfTheYear, std::optional<VespRecurrenceEnd> recurrenceEnd,
                                       NumberList setPositions, NumberList weeksOfTheYear)
    : calendarIdentifier_(std::move(calendarIdentifier)),
      daysOfTheMonth_(std::move(daysOfTheMonth)),
      daysOfTheWeek_(std::move(daysOfTheWeek)),
      daysOfTheYear_(std::move(daysOfTheYear)),
      firstDayOfTheWeek_(firstDayOfTheWeek),
      frequency_(frequency),
      interval_(interval),
      monthsOfTheYear_(std::move(monthsOfTheYear)),
      recurrenceEnd_(std::move(recurrenceEnd)),
      setPositions_(std::move(setPositions)),
      weeksOfTheYear_(std::move(weeksOfTheYear)) {}

namespace {

// Each element's unsigned value, negatives wrapping; order and length kept.
VespRecurrenceRule::NumberList numbers(const platform::EKRecurrenceRule::NumberList& list) {
  if (!list) return std::nullopt;
  std::vector<std::uint64_t> values;
  values.reserve(list->size());
  for (const auto& element : *list) {
    const platform::NSNumber* number = element.number();
    if (!number)
      rivet::fatalError(std::string("Type mismatch in a recurrence rule's number list: expected NSNumber, found ") +
                        element.className());
    values.push_back(number->unsignedIntegerValue());
  }
  return values;
}

std::optional<VespRecurrenceEnd> end(const std::shared_ptr<platform::EKRecurrenceEnd>& recurrenceEnd) {
  if (!recurrenceEnd) return std::nullopt;
  return VespRecurrenceEnd(*recurrenceEnd);
}

}  // namespace

// Members are initialised in declaration order, which is the documented reading order.
VespRecurrenceRule::VespRecurrenceRule(const platform::EKRecurrenceRule& rule)
    : calendarIdentifier_(rule.calendarIdentifier()),
      daysOfTheMonth_(numbers(rule.daysOfTheMonth())),
      daysOfTheWeek_(detail::convertList<VespRecurrenceDayOfWeek>(rule.daysOfTheWeek())),
      daysOfTheYear_(numbers(rule.daysOfTheYear())),
      firstDayOfTheWeek_(rule.firstDayOfTheWeek()),
      frequency_(vespRecurrenceFrequency(rule.frequency())),
      interval_(rule.interval()),
      monthsOfTheYear_(numbers(rule.monthsOfTheYear())),
      recurrenceEnd_(end(rule.recurrenceEnd())),
      setPositions_(numbers(rule.setPositions())),
      weeksOfTheYear_(numbers(rule.weeksOfTheYear())) {}

namespace {
void printList(std::ostream& out, const char* name, const VespRecurrenceRule::NumberList& list) {
  if (!list) return;
  out << ", " << name << " [";
  for (std::size_t i = 0; i < list->size(); ++i) out << (i ? ", " : "") << (*list)[i];
  out << "]";
}
}  // namespace

std::ostream& operator<<(std::ostream& out, const VespRecurrenceRule& rule) {
  out << "VespRecurrenceRule(" << rule.frequency() << ", interval " << rule.interval();
  printList(out, "daysOfTheMonth", rule.daysOfTheMonth());
  if (rule.daysOfTheWeek()) {
    out << ", daysOfTheWeek [";
    for (std::size_t i = 0; i < rule.daysOfTheWeek()->size(); ++i) out << (i ? ", " : "") << (*rule.daysOfTheWeek())[i];
    out << "]";
  }
  printList(out, "daysOfTheYear", rule.daysOfTheYear());
  printList(out, "monthsOfTheYear", rule.monthsOfTheYear());
  printList(out, "setPositions", rule.setPositions());
  printList(out, "weeksOfTheYear", rule.weeksOfTheYear());
  if (rule.recurrenceEnd()) out << ", " << *rule.recurrenceEnd();
  return out << ")";
}

}  // namespace vesp
