// An expansion of a vdir store written directly against libical's own recurrence walk
// (icalcomponent_foreach_recurrence, zones from each file's VTIMEZONE), with RECURRENCE-ID
// overrides applied by hand: what a careful reader of the files would compute, sharing no code
// with the store. Floating times and dates are read in the process's local zone (TZ).
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vesp::tool::testing {

// (event identifier, start in seconds since 1970) of every occurrence overlapping [start, end).
using Occurrences = std::multiset<std::pair<std::string, long long>>;

class IndependentExpansion {
 public:
  explicit IndependentExpansion(const std::string& root);
  ~IndependentExpansion();
  IndependentExpansion(const IndependentExpansion&) = delete;
  IndependentExpansion& operator=(const IndependentExpansion&) = delete;

  Occurrences occurrences(long long start, long long end) const;

 private:
  struct File;
  std::vector<File*> files_;
};

}  // namespace vesp::tool::testing
