// The occurrences of an event series that overlap a window, computed with libical's recurrence
// iterator: exactly the series' occurrences that overlap it, whatever the window. The iterator
// reaches a late window without walking the series from its start wherever that is exact (see
// iteratorFrom in the source); rules bounded by COUNT use the occurrences expanded once when the
// file was read. Occurrences of EXRULEs are excluded like EXDATEs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platforms/vdir/VdirItem.h"
#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

struct VdirOccurrence {
  const VdirComponentData* component = nullptr;  // the master, or the override that replaces it
  double start = 0.0;                            // seconds since 1970
  double end = 0.0;
  double occurrence = 0.0;  // the original occurrence date (RECURRENCE-ID for an override)
  bool detached = false;
};

// Appends the occurrences of `series` that overlap [windowStart, windowEnd) (seconds since 1970);
// an occurrence of no length overlaps when it starts inside the window. Fails when a limit cut the
// expansion short (the error says which); `out` then holds the occurrences found before the cut.
rivet::RivetResult<void> expandSeries(const VdirSeriesData& series, const VdirClock& clock, double windowStart,
                                      double windowEnd, const VdirExpansionLimits& limits,
                                      std::vector<VdirOccurrence>& out);

// A THISANDFUTURE override: the occurrence it replaces (seconds since 1970), and how far it moved
// it on the series' wall clock (seconds; whole days for a series of days).
struct VdirRangeOverride {
  const VdirComponentData* component = nullptr;
  double occurrence = 0.0;
  double shift = 0.0;
};
// The THISANDFUTURE overrides of a series, by occurrence.
std::vector<VdirRangeOverride> rangeOverrides(const VdirSeriesData& series, const VdirClock& clock);
// Where an occurrence of the master at `start` lands when moved by `shift` on the series' wall clock.
double movedStart(const VdirComponentData& master, const VdirClock& clock, double start, double shift);

// The end of an occurrence of `component` that starts at `start`.
double occurrenceEnd(const VdirComponentData& component, const VdirClock& clock, double start);

}  // namespace vesp::vdir
