// Names one occurrence of an event: the event identifier and, where the occurrence is known, the
// date at which it falls in its series. Hashable, ordered, and coded as
// {"identifier": "withOccurrenceDate"|"noOccurrenceDate", "eventIdentifier": ..., "originalOccurrenceDate": ...}.
//
// Texts compare, order and hash by canonical equivalence. The ordering is written by hand: two
// identifiers with dates order by date, then event identifier; every other pair orders by event
// identifier alone, so noOccurrenceDate(A) and withOccurrenceDate(A, d) are unequal yet neither is
// less than the other.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Vesp/VespJSONCoder.h"
#include "support/platform/Date.h"

namespace vesp {

class VespEventInstanceIdentifier {
 public:
  enum class Case { noOccurrenceDate, withOccurrenceDate };

  // The coding keys; they have no integer form.
  enum class CodingKeys { identifier, eventIdentifier, originalOccurrenceDate };
  static std::string_view stringValue(CodingKeys key);
  static std::optional<int> intValue(CodingKeys key);
  // Matches the three texts exactly (case-sensitive); nothing else.
  static std::optional<CodingKeys> codingKey(std::string_view stringValue);
  // Always nothing.
  static std::optional<CodingKeys> codingKey(int intValue);

  // The two cases.
  static VespEventInstanceIdentifier noOccurrenceDate(std::string eventIdentifier);
  static VespEventInstanceIdentifier withOccurrenceDate(std::string eventIdentifier,
                                                        platform::Date originalOccurrenceDate);
  // Chooses the case: withOccurrenceDate with a date, noOccurrenceDate without. An empty event
  // identifier is accepted.
  VespEventInstanceIdentifier(std::string eventIdentifier, std::optional<platform::Date> originalOccurrenceDate);

  Case kind() const { return originalOccurrenceDate_ ? Case::withOccurrenceDate : Case::noOccurrenceDate; }
  const std::string& eventIdentifier() const { return eventIdentifier_; }
  const std::optional<platform::Date>& originalOccurrenceDate() const { return originalOccurrenceDate_; }

  friend bool operator==(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs);
  friend bool operator<(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs);
  friend bool operator>(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs) {
    return rhs < lhs;
  }
  friend bool operator<=(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs) {
    return !(rhs < lhs);
  }
  friend bool operator>=(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs) {
    return !(lhs < rhs);
  }

  // Feeds the case position, the event identifier and, with a date, the date, in that order.
  std::size_t hashValue() const;

  // Writes the coded form; the first encoder error is passed on unchanged.
  void encode(VespEncoder& encoder) const;
  // Reads the coded form; an unsupported discriminator is dataCorrupted with the description
  // "Unsupported identifier '<text>'" at the identifier's own coding path.
  static VespEventInstanceIdentifier decode(const VespDecoder& decoder);

 private:
  std::string eventIdentifier_;
  std::optional<platform::Date> originalOccurrenceDate_;
};

std::ostream& operator<<(std::ostream& out, const VespEventInstanceIdentifier& identifier);

}  // namespace vesp

template <>
struct std::hash<vesp::VespEventInstanceIdentifier> {
  std::size_t operator()(const vesp::VespEventInstanceIdentifier& identifier) const noexcept {
    return identifier.hashValue();
  }
};
