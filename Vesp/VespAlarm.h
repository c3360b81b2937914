// An alarm of a calendar item, copied from the platform's alarm: absolute, relative to the start,
// or on entering or leaving a place. No field is derived from another.
#pragma once

#include <optional>
#include <ostream>

#include "Vesp/VespAlarmProximity.h"
#include "Vesp/VespStructuredLocation.h"
#include "support/platform/Date.h"
#include "support/platform/EKAlarm.h"

namespace vesp {

class VespAlarm {
 public:
  VespAlarm(std::optional<platform::Date> absoluteDate, VespAlarmProximity proximity, double relativeOffset,
            std::optional<VespStructuredLocation> structuredLocation);
  // Reads absoluteDate, proximity, relativeOffset and structuredLocation, in order.
  explicit VespAlarm(const platform::EKAlarm& alarm);

  const std::optional<platform::Date>& absoluteDate() const { return absoluteDate_; }
  VespAlarmProximity proximity() const { return proximity_; }
  double relativeOffset() const { return relativeOffset_; }
  const std::optional<VespStructuredLocation>& structuredLocation() const { return structuredLocation_; }

  friend bool operator==(const VespAlarm&, const VespAlarm&) = default;

 private:
  std::optional<platform::Date> absoluteDate_;
  VespAlarmProximity proximity_;
  double relativeOffset_;
  std::optional<VespStructuredLocation> structuredLocation_;
};

std::ostream& operator<<(std::ostream& out, const VespAlarm& alarm);

}  // namespace vesp
