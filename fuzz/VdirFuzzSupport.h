// What the harnesses share: the key a payload names, a calendar to serve occurrences from, an
// occurrence turned into the data model's record as a query turns it, and a file's reading as
// the cache's bytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "Vesp/VespEventInstance.h"
#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirItem.h"
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

// The cache's bytes (every field of the item, the zones it uses by their definitions, the
// diagnostics) for one file at `path` read as `parsed`, trusted as if long unchanged; `left`
// counts what could not be stored.
inline std::string cacheOfOneFile(const std::string& path, const VdirParseResult& parsed, const VdirZones& zones,
                                  std::size_t& left) {
  VdirFileRecords records;
  VdirFileRecord record;
  record.item = parsed.item;
  record.diagnostics = parsed.diagnostics;
  records.emplace_back(path, record);
  return encodeCache("fuzz", records, zones, 4102444800000000000LL, left);
}

}  // namespace vesp::vdir::fuzz
