// Printing of the two masks: their raw value in hexadecimal.
#include <ios>

#include "Vesp/VespEntityMask.h"
#include "Vesp/VespEventAvailabilityMask.h"

namespace vesp {

namespace {
std::ostream& printRaw(std::ostream& out, const char* name, std::uint64_t raw) {
  auto flags = out.flags();
  out << name << "(0x" << std::hex << raw << ")";
  out.flags(flags);
  return out;
}
}  // namespace

std::ostream& operator<<(std::ostream& out, const VespEntityMask& mask) {
  return printRaw(out, "VespEntityMask", mask.rawValue());
}
std::ostream& operator<<(std::ostream& out, const VespEventAvailabilityMask& mask) {
  return printRaw(out, "VespEventAvailabilityMask", mask.rawValue());
}

}  // namespace vesp
