// The platform's enumeration values. They are plain integers so that a platform can report values
// the library does not know; every known value has a name here, and each type's last known value is
// its ...Last constant. Code outside this header and the library's conversion tables uses the names.
#pragma once

#include <cstdint>
#include <string>

namespace vesp::platform {

using EKEntityType = std::int64_t;
inline constexpr EKEntityType EKEntityTypeEvent = 0;
inline constexpr EKEntityType EKEntityTypeReminder = 1;

using EKAuthorizationStatus = std::int64_t;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusNotDetermined = 0;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusRestricted = 1;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusDenied = 2;
inline constexpr EKAuthorizationStatus EKAuthorizationStatusAuthorized = 3;

// Which occurrences of a recurring event a save or removal is for: this one alone, or it and every
// later one (from the first occurrence, the whole series).
using EKSpan = std::int64_t;
inline constexpr EKSpan EKSpanThisEvent = 0;
inline constexpr EKSpan EKSpanFutureEvents = 1;

using EKEntityMask = std::uint64_t;
inline constexpr EKEntityMask EKEntityMaskEvent = 1;
inline constexpr EKEntityMask EKEntityMaskReminder = 2;

using EKCalendarEventAvailabilityMask = std::uint64_t;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityNone = 0;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityBusy = 1;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityFree = 2;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityTentative = 4;
inline constexpr EKCalendarEventAvailabilityMask EKCalendarEventAvailabilityUnavailable = 8;

using EKSourceType = std::int64_t;
inline constexpr EKSourceType EKSourceTypeLocal = 0;
inline constexpr EKSourceType EKSourceTypeExchange = 1;
inline constexpr EKSourceType EKSourceTypeCalDAV = 2;
inline constexpr EKSourceType EKSourceTypeMobileMe = 3;
inline constexpr EKSourceType EKSourceTypeSubscribed = 4;
inline constexpr EKSourceType EKSourceTypeBirthdays = 5;
inline constexpr EKSourceType EKSourceTypeLast = EKSourceTypeBirthdays;

using EKCalendarType = std::int64_t;
inline constexpr EKCalendarType EKCalendarTypeLocal = 0;
inline constexpr EKCalendarType EKCalendarTypeCalDAV = 1;
inline constexpr EKCalendarType EKCalendarTypeExchange = 2;
inline constexpr EKCalendarType EKCalendarTypeSubscription = 3;
inline constexpr EKCalendarType EKCalendarTypeBirthday = 4;
inline constexpr EKCalendarType EKCalendarTypeLast = EKCalendarTypeBirthday;

using EKEventAvailability = std::int64_t;
inline constexpr EKEventAvailability EKEventAvailabilityNotSupported = -1;
inline constexpr EKEventAvailability EKEventAvailabilityBusy = 0;
inline constexpr EKEventAvailability EKEventAvailabilityFree = 1;
inline constexpr EKEventAvailability EKEventAvailabilityTentative = 2;
inline constexpr EKEventAvailability EKEventAvailabilityUnavailable = 3;
inline constexpr EKEventAvailability EKEventAvailabilityLast = EKEventAvailabilityUnavailable;

using EKEventStatus = std::int64_t;
inline constexpr EKEventStatus EKEventStatusNone = 0;
inline constexpr EKEventStatus EKEventStatusConfirmed = 1;
inline constexpr EKEventStatus EKEventStatusTentative = 2;
inline constexpr EKEventStatus EKEventStatusCanceled = 3;
inline constexpr EKEventStatus EKEventStatusLast = EKEventStatusCanceled;

using EKParticipantRole = std::int64_t;
inline constexpr EKParticipantRole EKParticipantRoleUnknown = 0;
inline constexpr EKParticipantRole EKParticipantRoleRequired = 1;
inline constexpr EKParticipantRole EKParticipantRoleOptional = 2;
inline constexpr EKParticipantRole EKParticipantRoleChair = 3;
inline constexpr EKParticipantRole EKParticipantRoleNonParticipant = 4;
inline constexpr EKParticipantRole EKParticipantRoleLast = EKParticipantRoleNonParticipant;

using EKParticipantStatus = std::int64_t;
inline constexpr EKParticipantStatus EKParticipantStatusUnknown = 0;
inline constexpr EKParticipantStatus EKParticipantStatusPending = 1;
inline constexpr EKParticipantStatus EKParticipantStatusAccepted = 2;
inline constexpr EKParticipantStatus EKParticipantStatusDeclined = 3;
inline constexpr EKParticipantStatus EKParticipantStatusTentative = 4;
inline constexpr EKParticipantStatus EKParticipantStatusDelegated = 5;
inline constexpr EKParticipantStatus EKParticipantStatusCompleted = 6;
inline constexpr EKParticipantStatus EKParticipantStatusInProcess = 7;
inline constexpr EKParticipantStatus EKParticipantStatusLast = EKParticipantStatusInProcess;

using EKParticipantType = std::int64_t;
inline constexpr EKParticipantType EKParticipantTypeUnknown = 0;
inline constexpr EKParticipantType EKParticipantTypePerson = 1;
inline constexpr EKParticipantType EKParticipantTypeRoom = 2;
inline constexpr EKParticipantType EKParticipantTypeResource = 3;
inline constexpr EKParticipantType EKParticipantTypeGroup = 4;
inline constexpr EKParticipantType EKParticipantTypeLast = EKParticipantTypeGroup;

using EKAlarmProximity = std::int64_t;
inline constexpr EKAlarmProximity EKAlarmProximityNone = 0;
inline constexpr EKAlarmProximity EKAlarmProximityEnter = 1;
inline constexpr EKAlarmProximity EKAlarmProximityLeave = 2;
inline constexpr EKAlarmProximity EKAlarmProximityLast = EKAlarmProximityLeave;

using EKAlarmType = std::int64_t;
inline constexpr EKAlarmType EKAlarmTypeDisplay = 0;
inline constexpr EKAlarmType EKAlarmTypeAudio = 1;
inline constexpr EKAlarmType EKAlarmTypeProcedure = 2;
inline constexpr EKAlarmType EKAlarmTypeEmail = 3;
inline constexpr EKAlarmType EKAlarmTypeLast = EKAlarmTypeEmail;

using EKRecurrenceFrequency = std::int64_t;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyDaily = 0;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyWeekly = 1;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyMonthly = 2;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyYearly = 3;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyLast = EKRecurrenceFrequencyYearly;
// The sub-daily frequencies have no platform value: a store reports them past the last one, as the
// platform reports a frequency the library does not know.
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyHourly = EKRecurrenceFrequencyLast + 1;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencyMinutely = EKRecurrenceFrequencyLast + 2;
inline constexpr EKRecurrenceFrequency EKRecurrenceFrequencySecondly = EKRecurrenceFrequencyLast + 3;

// Named by day; the first is Sunday (1).
using EKWeekday = std::int64_t;
inline constexpr EKWeekday EKWeekdaySunday = 1;
inline constexpr EKWeekday EKWeekdayMonday = 2;
inline constexpr EKWeekday EKWeekdayTuesday = 3;
inline constexpr EKWeekday EKWeekdayWednesday = 4;
inline constexpr EKWeekday EKWeekdayThursday = 5;
inline constexpr EKWeekday EKWeekdayFriday = 6;
inline constexpr EKWeekday EKWeekdaySaturday = 7;
inline constexpr EKWeekday EKWeekdayLast = EKWeekdaySaturday;

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

}  // namespace vesp::platform
