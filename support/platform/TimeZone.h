// A time zone, named by its IANA identifier ("Europe/Berlin", "UTC").
#pragma once

#include <functional>
#include <ostream>
#include <string>

namespace vesp::platform {

class TimeZone {
 public:
  explicit TimeZone(std::string identifier) : identifier_(std::move(identifier)) {}
  const std::string& identifier() const { return identifier_; }
  friend bool operator==(const TimeZone&, const TimeZone&) = default;

 private:
  std::string identifier_;
};

inline std::ostream& operator<<(std::ostream& out, const TimeZone& zone) {
  return out << "TimeZone(" << zone.identifier() << ")";
}

}  // namespace vesp::platform

template <>
struct std::hash<vesp::platform::TimeZone> {
  std::size_t operator()(const vesp::platform::TimeZone& zone) const noexcept {
    return std::hash<std::string>{}(zone.identifier());
  }
};
