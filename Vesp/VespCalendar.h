// A calendar or reminder list, copied from the platform's calendar. The colour is the one shared
// platform object a record keeps; it compares by colour, not by object.
#pragma once

#include <ostream>
#include <string>

#include "Vesp/VespCalendarType.h"
#include "Vesp/VespEntityMask.h"
#include "Vesp/VespEventAvailabilityMask.h"
#include "Vesp/VespSource.h"
#include "support/platform/CGColor.h"
#include "support/platform/EKCalendar.h"

namespace vesp {

class VespCalendar {
 public:
  // REQUIRES: cgColor is not null.
  VespCalendar(bool allowsContentModifications, VespEntityMask allowedEntityTypes, std::string calendarIdentifier,
               platform::CGColorRef cgColor, bool isImmutable, bool isSubscribed, VespSource source,
               VespEventAvailabilityMask supportedEventAvailabilities, std::string title, VespCalendarType type);
  // Reads the attributes in field order. A calendar without colour or source stops the process.
  explicit VespCalendar(const platform::EKCalendar& calendar);

  bool allowsContentModifications() const { return allowsContentModifications_; }
  VespEntityMask allowedEntityTypes() const { return allowedEntityTypes_; }
  const std::string& calendarIdentifier() const { return calendarIdentifier_; }
  const platform::CGColorRef& cgColor() const { return cgColor_; }
  bool isImmutable() const { return isImmutable_; }
  bool isSubscribed() const { return isSubscribed_; }
  const VespSource& source() const { return source_; }
  VespEventAvailabilityMask supportedEventAvailabilities() const { return supportedEventAvailabilities_; }
  const std::string& title() const { return title_; }
  VespCalendarType type() const { return type_; }

  // Field by field in order; the colour by colour equality.
  friend bool operator==(const VespCalendar& lhs, const VespCalendar& rhs);

 private:
  bool allowsContentModifications_;
  VespEntityMask allowedEntityTypes_;
  std::string calendarIdentifier_;
  platform::CGColorRef cgColor_;
  bool isImmutable_;
  bool isSubscribed_;
  VespSource source_;
  VespEventAvailabilityMask supportedEventAvailabilities_;
  std::string title_;
  VespCalendarType type_;
};

std::ostream& operator<<(std::ostream& out, const VespCalendar& calendar);

}  // namespace vesp
