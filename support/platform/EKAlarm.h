// An alarm of a calendar item: absolute, relative to the start, or on entering or leaving a place.
#pragma once

#include <memory>
#include <optional>

#include "support/platform/Date.h"
#include "support/platform/EKStructuredLocation.h"
#include "support/platform/EKTypes.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

class EKAlarm : public NSObject {
 public:
  // A display alarm `offset` seconds from the item's start (negative before it), for a host to set
  // on an item.
  static std::shared_ptr<EKAlarm> alarmWithRelativeOffset(double offset);
  // A display alarm at an instant.
  static std::shared_ptr<EKAlarm> alarmWithAbsoluteDate(Date date);

  virtual std::optional<Date> absoluteDate() const = 0;
  virtual EKAlarmProximity proximity() const = 0;
  // Seconds from the item's start; negative before it.
  virtual double relativeOffset() const = 0;
  virtual std::shared_ptr<EKStructuredLocation> structuredLocation() const = 0;
  virtual EKAlarmType type() const = 0;
};

}  // namespace vesp::platform
