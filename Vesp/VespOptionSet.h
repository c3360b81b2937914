// The set algebra shared by the library's bit masks, over an unsigned 64-bit raw value. Unknown
// bits are kept as they are. Mask types derive from it: class VespEntityMask : public
// VespOptionSet<VespEntityMask>.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <utility>

namespace vesp {

template <class Mask>
class VespOptionSet {
 public:
  // The empty set.
  constexpr VespOptionSet() = default;
  constexpr explicit VespOptionSet(std::uint64_t rawValue) : rawValue_(rawValue) {}
  constexpr VespOptionSet(std::initializer_list<Mask> members) {
    for (Mask member : members) rawValue_ |= member.rawValue();
  }

  constexpr std::uint64_t rawValue() const { return rawValue_; }
  constexpr bool isEmpty() const { return rawValue_ == 0; }
  // Every bit of `member` is in the set.
  constexpr bool contains(Mask member) const { return (rawValue_ & member.rawValue()) == member.rawValue(); }

  // Adds `member`; answers whether it was new, and the member as it now stands in the set.
  constexpr std::pair<bool, Mask> insert(Mask member) {
    if (contains(member)) return {false, member};
    rawValue_ |= member.rawValue();
    return {true, member};
  }
  // Removes `member`; answers the part of it that was in the set, or nothing.
  constexpr std::optional<Mask> remove(Mask member) {
    Mask present = intersection(member);
    rawValue_ &= ~member.rawValue();
    return present.isEmpty() ? std::nullopt : std::optional<Mask>(present);
  }
  // Inserts `member`; answers the part of it that was already in the set, or nothing.
  constexpr std::optional<Mask> update(Mask with) {
    Mask present = intersection(with);
    rawValue_ |= with.rawValue();
    return present.isEmpty() ? std::nullopt : std::optional<Mask>(present);
  }

  constexpr Mask unionWith(Mask other) const { return Mask(rawValue_ | other.rawValue()); }
  constexpr Mask intersection(Mask other) const { return Mask(rawValue_ & other.rawValue()); }
  constexpr Mask symmetricDifference(Mask other) const { return Mask(rawValue_ ^ other.rawValue()); }
  constexpr Mask subtracting(Mask other) const { return Mask(rawValue_ & ~other.rawValue()); }
  constexpr void formUnion(Mask other) { rawValue_ |= other.rawValue(); }
  constexpr void formIntersection(Mask other) { rawValue_ &= other.rawValue(); }
  constexpr void formSymmetricDifference(Mask other) { rawValue_ ^= other.rawValue(); }
  constexpr void subtract(Mask other) { rawValue_ &= ~other.rawValue(); }
  constexpr bool isSubset(Mask of) const { return (rawValue_ & ~of.rawValue()) == 0; }
  constexpr bool isSuperset(Mask of) const { return (of.rawValue() & ~rawValue_) == 0; }
  constexpr bool isDisjoint(Mask with) const { return (rawValue_ & with.rawValue()) == 0; }

  friend constexpr bool operator==(const VespOptionSet&, const VespOptionSet&) = default;

 private:
  std::uint64_t rawValue_ = 0;
};

}  // namespace vesp
