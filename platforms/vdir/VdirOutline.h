// The outline of a calendar file's text, found without parsing it: what the file writes directly
// inside its VCALENDAR. The reader uses it to leave out of libical's parse what earlier files
// wrote word for word and what parsed cleanly there (shared zone definitions, the calendar's own
// property lines): a third of the lines of the files `tools/gen-vdir.py` writes.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "support/rivet/RivetMutex.h"

namespace vesp::vdir {

// What a file writes directly inside a VCALENDAR, as libical's parser reads it: its VTIMEZONEs
// (each with its TZID and its text from the start of its BEGIN line to the end of its END line, a
// zone's key) and the calendar's own property lines (VERSION, PRODID, ...: nothing is read from
// them), each with its folded lines. `from` and `to` span whole lines (`to`: past the line break).
struct VdirWrittenZone {
  std::string_view tzid, text;
  std::size_t from = 0, to = 0;
};
struct VdirWrittenLine {
  std::string_view text;
  std::size_t from = 0, to = 0;
};
struct VdirOutline {
  std::vector<VdirWrittenZone> zones;
  std::vector<VdirWrittenLine> calendarLines;
};

// The outline of `text`, found by following its component lines from BEGIN to END. When any of
// them is not plain (folded, not in capitals, with parameters, or an END that closes another
// component), or a zone has no plain TZID line of its own or shares its TZID with another, the
// outline is empty, so that nothing is ever taken for a part that the parser would read otherwise.
VdirOutline outlineOf(std::string_view text);

// Calendar property lines that files of one scan wrote word for word and that parsed without
// errors: the next file's copies need not be parsed at all. Keeps at most 1,024 lines of at most
// 256 bytes. Safe from any thread.
class VdirKnownLines {
 public:
  bool contains(std::string_view line) const;
  void add(std::string_view line);

 private:
  mutable rivet::RivetMutex mutex_;
  std::set<std::string, std::less<>> lines_ RIVET_GUARDED_BY(mutex_);
};

}  // namespace vesp::vdir
