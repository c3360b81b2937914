// A calendar or reminder list. A store hands out the same object for the same calendar, so calendars
// compare and collect into sets by identity.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "support/platform/CGColor.h"
#include "support/platform/EKSource.h"
#include "support/platform/EKTypes.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

class EKCalendar : public NSObject {
 public:
  virtual bool allowsContentModifications() const = 0;
  virtual EKEntityMask allowedEntityTypes() const = 0;
  virtual std::string calendarIdentifier() const = 0;
  // Null when the platform reports no colour.
  virtual CGColorRef CGColor() const = 0;
  virtual bool isImmutable() const = 0;
  virtual bool isSubscribed() const = 0;
  // Null when the platform reports no source.
  virtual std::shared_ptr<EKSource> source() const = 0;
  virtual EKCalendarEventAvailabilityMask supportedEventAvailabilities() const = 0;
  virtual std::string title() const = 0;
  virtual EKCalendarType type() const = 0;
};

using EKCalendarSet = std::set<std::shared_ptr<EKCalendar>>;

}  // namespace vesp::platform
