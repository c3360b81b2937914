// The names of the files the store writes: an item's file is named after its UID when the UID is
// a safe file name, and after a hash of the UID otherwise, so that nothing is ever written outside
// its collection and the same UID always finds the same name.
#pragma once

#include <string>
#include <string_view>

namespace vesp::vdir {

// "<UID>.ics" when the UID is non-empty, at most 200 bytes, does not start with '.', and holds only
// A-Z a-z 0-9 '_' '.' '+' '-'; otherwise 32 hexadecimal digits of a 128-bit hash of the UID and
// ".ics". UIDs that differ only in case give different names.
std::string fileNameForUid(std::string_view uid);

}  // namespace vesp::vdir
