#include "support/platform/AnyObject.h"

namespace vesp::platform {

const char* AnyObject::className() const {
  switch (value_.index()) {
    case 0: return "NSNumber";
    case 1: return "NSString";
    case 2: return "NSDate";
    case 3: return "NSURL";
    default: return "NSNull";
  }
}

std::ostream& operator<<(std::ostream& out, const AnyObject& object) {
  if (auto n = object.number()) return out << *n;
  if (auto s = object.string()) return out << '"' << *s << '"';
  if (auto d = object.date()) return out << *d;
  if (auto u = object.url()) return out << *u;
  return out << "<null>";
}

}  // namespace vesp::platform
