#include "Vesp/VespEventInstanceIdentifier.h"

#include "Vesp/VespText.h"

namespace vesp {

namespace {
constexpr std::string_view kNoOccurrenceDate = "noOccurrenceDate";
constexpr std::string_view kWithOccurrenceDate = "withOccurrenceDate";

VespCodingKey key(VespEventInstanceIdentifier::CodingKeys codingKey) {
  return VespCodingKey::named(std::string(VespEventInstanceIdentifier::stringValue(codingKey)));
}

// Mixes one value into a running hash (the 64-bit golden-ratio combination).
void combine(std::size_t& seed, std::size_t value) {
  seed ^= value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
}
}  // namespace

std::string_view VespEventInstanceIdentifier::stringValue(CodingKeys codingKey) {
  switch (codingKey) {
    case CodingKeys::identifier: return "identifier";
    case CodingKeys::eventIdentifier: return "eventIdentifier";
    case CodingKeys::originalOccurrenceDate: return "originalOccurrenceDate";
  }
  return "";
}

std::optional<int> VespEventInstanceIdentifier::intValue(CodingKeys) { return std::nullopt; }

std::optional<VespEventInstanceIdentifier::CodingKeys> VespEventInstanceIdentifier::codingKey(
    std::string_view stringValue) {
  for (CodingKeys candidate : {CodingKeys::identifier, CodingKeys::eventIdentifier, CodingKeys::originalOccurrenceDate})
    if (VespEventInstanceIdentifier::stringValue(candidate) == stringValue) return candidate;
  return std::nullopt;
}

std::optional<VespEventInstanceIdentifier::CodingKeys> VespEventInstanceIdentifier::codingKey(int) {
  return std::nullopt;
}

VespEventInstanceIdentifier VespEventInstanceIdentifier::noOccurrenceDate(std::string eventIdentifier) {
  return VespEventInstanceIdentifier(std::move(eventIdentifier), std::nullopt);
}

VespEventInstanceIdentifier VespEventInstanceIdentifier::withOccurrenceDate(std::string eventIdentifier,
                                                                            platform::Date originalOccurrenceDate) {
  return VespEventInstanceIdentifier(std::move(eventIdentifier), originalOccurrenceDate);
}

VespEventInstanceIdentifier::VespEventInstanceIdentifier(std::string eventIdentifier,
                                                         std::optional<platform::Date> originalOccurrenceDate)
    : eventIdentifier_(std::move(eventIdentifier)), originalOccurrenceDate_(originalOccurrenceDate) {}

bool operator==(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs) {
  return lhs.kind() == rhs.kind() && canonicallyEqual(lhs.eventIdentifier_, rhs.eventIdentifier_) &&
         lhs.originalOccurrenceDate_ == rhs.originalOccurrenceDate_;
}

bool operator<(const VespEventInstanceIdentifier& lhs, const VespEventInstanceIdentifier& rhs) {
  if (lhs.originalOccurrenceDate_ && rhs.originalOccurrenceDate_ &&
      *lhs.originalOccurrenceDate_ != *rhs.originalOccurrenceDate_)
    return *lhs.originalOccurrenceDate_ < *rhs.originalOccurrenceDate_;
  return canonicalCompare(lhs.eventIdentifier_, rhs.eventIdentifier_) < 0;
}

std::size_t VespEventInstanceIdentifier::hashValue() const {
  std::size_t seed = 0;
  combine(seed, static_cast<std::size_t>(kind()));
  combine(seed, canonicalHash(eventIdentifier_));
  if (originalOccurrenceDate_) combine(seed, std::hash<platform::Date>{}(*originalOccurrenceDate_));
  return seed;
}

void VespEventInstanceIdentifier::encode(VespEncoder& encoder) const {
  auto container = encoder.container();
  container.encode(std::string(originalOccurrenceDate_ ? kWithOccurrenceDate : kNoOccurrenceDate),
                   key(CodingKeys::identifier));
  container.encode(eventIdentifier_, key(CodingKeys::eventIdentifier));
  if (originalOccurrenceDate_) container.encode(*originalOccurrenceDate_, key(CodingKeys::originalOccurrenceDate));
}

VespEventInstanceIdentifier VespEventInstanceIdentifier::decode(const VespDecoder& decoder) {
  auto container = decoder.container();
  std::string discriminator = container.decodeString(key(CodingKeys::identifier));
  if (discriminator == kNoOccurrenceDate)
    return noOccurrenceDate(container.decodeString(key(CodingKeys::eventIdentifier)));
  if (discriminator == kWithOccurrenceDate) {
    std::string eventIdentifier = container.decodeString(key(CodingKeys::eventIdentifier));
    platform::Date date = container.decodeDate(key(CodingKeys::originalOccurrenceDate));
    return withOccurrenceDate(std::move(eventIdentifier), date);
  }
  throw VespDecodingError::dataCorrupted(
      {container.codingPath(), "Unsupported identifier '" + discriminator + "'", nullptr});
}

std::ostream& operator<<(std::ostream& out, const VespEventInstanceIdentifier& identifier) {
  if (!identifier.originalOccurrenceDate()) return out << "noOccurrenceDate(\"" << identifier.eventIdentifier() << "\")";
  return out << "withOccurrenceDate(\"" << identifier.eventIdentifier() << "\", " << *identifier.originalOccurrenceDate()
             << ")";
}

}  // namespace vesp
