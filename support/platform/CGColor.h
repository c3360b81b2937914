// A colour: red, green, blue and alpha components from 0 to 1. Calendars hold it as a shared,
// immutable reference (CGColorRef); two references are the same colour when their components are.
#pragma once

#include <memory>
#include <ostream>

namespace vesp::platform {

class CGColor {
 public:
  CGColor(double red, double green, double blue, double alpha = 1.0)
      : red_(red), green_(green), blue_(blue), alpha_(alpha) {}

  double red() const { return red_; }
  double green() const { return green_; }
  double blue() const { return blue_; }
  double alpha() const { return alpha_; }

  friend bool operator==(const CGColor&, const CGColor&) = default;

 private:
  double red_, green_, blue_, alpha_;
};

using CGColorRef = std::shared_ptr<const CGColor>;

inline CGColorRef CGColorCreate(double red, double green, double blue, double alpha = 1.0) {
  return std::make_shared<const CGColor>(red, green, blue, alpha);
}

// Colour equality of two references: both absent, or both present with equal components.
inline bool CGColorEqualToColor(const CGColorRef& lhs, const CGColorRef& rhs) {
  if (!lhs || !rhs) return !lhs && !rhs;
  return *lhs == *rhs;
}

inline std::ostream& operator<<(std::ostream& out, const CGColor& color) {
  return out << "CGColor(" << color.red() << ", " << color.green() << ", " << color.blue() << ", " << color.alpha()
             << ")";
}

}  // namespace vesp::platform
