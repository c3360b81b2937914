// What the store harnesses share: the key a payload names, a calendar to serve occurrences from,
// and an occurrence turned into the data model's record as a query turns it.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "Vesp/VespEventInstance.h"
#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirQueries.h"

namespace vesp::vdir::fuzz {

// A cache payload starts with libical's version and the store's key (each a 32-bit length and its
// bytes); the key is taken from the input, so that decoding goes past it.
inline std::string keyOf(std::string_view payload) {
  auto text = [&](std::size_t at) -> std::string_view {
    if (at + 4 > payload.size()) return {};
    std::uint32_t length = 0;
    std::memcpy(&length, payload.data() + at, 4);
    if (length > payload.size() - at - 4) return {};
    return payload.substr(at + 4, length);
  };
  return std::string(text(4 + text(0).size()));
}

inline std::shared_ptr<VdirCalendar> makeCalendar(const std::string& identifier) {
  VdirCalendarFields fields;
  fields.identifier = identifier;
  fields.title = "Calendar";
  fields.color = ::vesp::platform::CGColorCreate(0.1, 0.2, 0.3, 1.0);
  fields.source = std::make_shared<VdirSource>(".", ::vesp::platform::EKSourceTypeLocal, "Local");
  return std::make_shared<VdirCalendar>(fields);
}

// The record of one occurrence of `series` (of `item`), made as a query makes it.
inline VespEventInstance recordOf(const std::shared_ptr<const VdirItem>& item, const VdirSeriesData& series,
                                  const std::shared_ptr<VdirCalendar>& calendar, const VdirOccurrence& occurrence) {
  return VespEventInstance(*VdirQueries::makeEvent(item, series, calendar, occurrence));
}

}  // namespace vesp::vdir::fuzz
