#include "Vesp/VespCalendar.h"

#include "Vesp/VespRequire.h"

namespace vesp {

VespCalendar::VespCalendar(bool allowsContentModifications, VespEntityMask allowedEntityTypes,
                           std::string calendarIdentifier, platform::CGColorRef cgColor, bool isImmutable,
                           bool isSubscribed, VespSource source, VespEventAvailabilityMask supportedEventAvailabilities,
                           std::string title, VespCalendarType type)
    : allowsContentModifications_(allowsContentModifications),
      allowedEntityTypes_(allowedEntityTypes),
      calendarIdentifier_(std::move(calendarIdentifier)),
      cgColor_(detail::required(std::move(cgColor), "VespCalendar", "a colour")),
      isImmutable_(isImmutable),
      isSubscribed_(isSubscribed),
      source_(std::move(source)),
      supportedEventAvailabilities_(supportedEventAvailabilities),
      title_(std::move(title)),
      type_(type) {}

// Members are initialised in declaration order, which is the documented reading order.
VespCalendar::VespCalendar(const platform::EKCalendar& calendar)
    : allowsContentModifications_(calendar.allowsContentModifications()),
      allowedEntityTypes_(VespEntityMask::fromPlatform(calendar.allowedEntityTypes())),
      calendarIdentifier_(calendar.calendarIdentifier()),
      cgColor_(detail::required(calendar.CGColor(), "VespCalendar", "the calendar's colour (CGColor)")),
      isImmutable_(calendar.isImmutable()),
      isSubscribed_(calendar.isSubscribed()),
      source_(*detail::required(calendar.source(), "VespCalendar", "the calendar's source")),
      supportedEventAvailabilities_(VespEventAvailabilityMask::fromPlatform(calendar.supportedEventAvailabilities())),
      title_(calendar.title()),
      type_(vespCalendarType(calendar.type())) {}

bool operator==(const VespCalendar& lhs, const VespCalendar& rhs) {
  return lhs.allowsContentModifications_ == rhs.allowsContentModifications_ &&
         lhs.allowedEntityTypes_ == rhs.allowedEntityTypes_ && lhs.calendarIdentifier_ == rhs.calendarIdentifier_ &&
         platform::CGColorEqualToColor(lhs.cgColor_, rhs.cgColor_) && lhs.isImmutable_ == rhs.isImmutable_ &&
         lhs.isSubscribed_ == rhs.isSubscribed_ && lhs.source_ == rhs.source_ &&
         lhs.supportedEventAvailabilities_ == rhs.supportedEventAvailabilities_ && lhs.title_ == rhs.title_ &&
         lhs.type_ == rhs.type_;
}

std::ostream& operator<<(std::ostream& out, const VespCalendar& calendar) {
  return out << "VespCalendar(\"" << calendar.title() << "\", " << calendar.calendarIdentifier() << ", "
             << calendar.type() << ", " << calendar.allowedEntityTypes() << ", " << calendar.source() << ")";
}

}  // namespace vesp
