// The platform's enumeration values, used by number. They are plain integers so that a platform
// can report values the library does not know.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

using EKEntityType = std::int64_t;
inline constexpr EKEntityType EKEntityTypeEvent = 0;
inline constexpr EKEntityType EKEntityTypeReminder = 1;

using EKAuthorizationStatus = std::int64_t;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusNotDetermined = 0;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusRestricted = 1;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusDenied = 2;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusAuthorized = 3;

using EKEntityMask = std::uint64_t;
inline constexpr EKEntityMask EKEntityMaskEvent = 1;
inline constexpr EKEntityMask EKEntityMaskReminder = 2;

using EKCalendarEventAvailabilityMask = std::uint64_t;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityNone = 0;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityBusy = 1;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityFree = 2;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityTentative = 4;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityUnavailable = 8;

using EKSourceType = std::int64_t;            // 0 local, 1 Exchange, 2 CalDAV, 3 MobileMe, 4 subscribed, 5 birthdays
using EKCalendarType = std::int64_t;          // 0 local, 1 CalDAV, 2 Exchange, 3 subscription, 4 birthday
using EKEventAvailability = std::int64_t;     // -1 not supported, 0 busy, 1 free, 2 tentative, 3 unavailable
using EKEventStatus = std::int64_t;           // 0 none, 1 confirmed, 2 tentative, 3 canceled
using EKParticipantRole = std::int64_t;       // 0 unknown, 1 required, 2 optional, 3 chair, 4 non-participant
using EKParticipantStatus = std::int64_t;     // 0 unknown ... 7 in process
using EKParticipantType = std::int64_t;       // 0 unknown, 1 person, 2 room, 3 resource, 4 group
using EKAlarmProximity = std::int64_t;        // 0 none, 1 enter, 2 leave
using EKAlarmType = std::int64_t;             // 0 display, 1 audio, 2 procedure, 3 email
using EKRecurrenceFrequency = std::int64_t;   // 0 daily, 1 weekly, 2 monthly, 3 yearly
using EKWeekday = std::int64_t;               // 1 Sunday ... 7 Saturday

using EKCalendarChooserSelectionStyle = std::int64_t;
inline constexpr EKCalendarChooserSelectionStyle EKCalendarChooserSelectionStyleSingle = 0;
inline constexpr EKCalendarChooserSelectionStyle EKCalendarChooserSelectionStyleMultiple = 1;

using EKCalendarChooserDisplayStyle = std::int64_t;
inline constexpr EKCalendarChooserDisplayStyle EKCalendarChooserDisplayAllCalendars = 0;
inline constexpr EKCalendarChooserDisplayStyle EKCalendarChooserDisplayWritableCalendarsOnly = 1;

using EKEventViewAction = std::int64_t;
inline constexpr EKEventViewAction EKEventViewActionDone = 0;
inline constexpr EKEventViewAction EKEventViewActionResponded = 1;
inline constexpr EKEventViewAction EKEventViewActionDeleted = 2;

using EKEventEditViewAction = std::int64_t;
inline constexpr EKEventEditViewAction EKEventEditViewActionCanceled = 0;
inline constexpr EKEventEditViewAction EKEventEditViewActionSaved = 1;
inline constexpr EKEventEditViewAction EKEventEditViewActionDeleted = 2;

// The name of the notification a store posts, with itself as object, when its contents change.
inline const std::string EKEventStoreChangedNotification = "EKEventStoreChangedNotification";

}  // namespace platform
