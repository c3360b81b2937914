#include "Vesp/VespAlarm.h"

namespace vesp {

VespAlarm::VespAlarm(std::optional<platform::Date> absoluteDate, VespAlarmProximity proximity, double relativeOffset,
                     std::optional<VespStructuredLocation> structuredLocation)
    : absoluteDate_(absoluteDate),
      proximity_(proximity),
      relativeOffset_(relativeOffset),
      structuredLocation_(std::move(structuredLocation)) {}

namespace {
std::optional<VespStructuredLocation> copyLocation(const std::shared_ptr<platform::EKStructuredLocation>& location) {
  if (!location) return std::nullopt;
  return VespStructuredLocation(*location);
}
}  // namespace

VespAlarm::VespAlarm(const platform::EKAlarm& alarm)
    : absoluteDate_(alarm.absoluteDate()),
      proximity_(vespAlarmProximity(alarm.proximity())),
      relativeOffset_(alarm.relativeOffset()),
      structuredLocation_(copyLocation(alarm.structuredLocation())) {}

std::ostream& operator<<(std::ostream& out, const VespAlarm& alarm) {
  out << "VespAlarm(";
  if (alarm.absoluteDate()) out << "at " << *alarm.absoluteDate() << ", ";
  out << "offset " << alarm.relativeOffset() << ", " << alarm.proximity();
  if (alarm.structuredLocation()) out << ", " << *alarm.structuredLocation();
  return out << ")";
}

}  // namespace vesp
