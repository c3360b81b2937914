// Rules and alarms a host set on an item, as the iCalendar values the editor writes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platforms/vdir/VdirTime.h"
#include "support/platform/EKAlarm.h"
#include "support/platform/EKRecurrenceRule.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

// The RRULE value of `rule`: FREQ, INTERVAL, the BY parts it names and its end (COUNT, or UNTIL as
// a UTC time, which the editor restates in the form of the item's start). Fails with invalidChange
// on a value RFC 5545 does not allow (a weekday of 9, a month of 13, an interval of 0, ...).
rivet::RivetResult<std::string> ruleValue(const platform::EKRecurrenceRule& rule, const VdirClock& clock);

// The TRIGGER values of `alarms`, in order: durations from the start ("-PT15M", "PT0S"), and UTC
// times ("20261201T090000Z", to the second) for alarms at a set time. An alarm on a place, one not a
// whole number of seconds from the start, or one at a time outside the years 1 to 9999 fails with
// invalidChange.
rivet::RivetResult<std::vector<std::string>> alarmTriggers(
    const std::vector<std::shared_ptr<platform::EKAlarm>>& alarms);

}  // namespace vesp::vdir
