#include "Vesp/VespEntityMask.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "Vesp/VespEventAvailabilityMask.h"

namespace vesp {
namespace {

TEST(VespEntityMaskTest, MembersHaveThePlatformsBits) {
  EXPECT_EQ(VespEntityMask::event.rawValue(), 1u);
  EXPECT_EQ(VespEntityMask::reminder.rawValue(), 2u);
  EXPECT_EQ(VespEventAvailabilityMask::busy.rawValue(), 1u);
  EXPECT_EQ(VespEventAvailabilityMask::free.rawValue(), 2u);
  EXPECT_EQ(VespEventAvailabilityMask::tentative.rawValue(), 4u);
  EXPECT_EQ(VespEventAvailabilityMask::unavailable.rawValue(), 8u);
  EXPECT_EQ(VespEntityMask::fromPlatform(platform::EKEntityMaskReminder), VespEntityMask::reminder);
}

TEST(VespEntityMaskTest, ConstructionFromMembersRawValueAndNothing) {
  EXPECT_EQ((VespEntityMask{VespEntityMask::event, VespEntityMask::reminder}).rawValue(), 3u);
  EXPECT_TRUE(VespEntityMask().isEmpty());
  EXPECT_EQ(VespEntityMask(std::uint64_t{0x100}).rawValue(), 0x100u);
}

TEST(VespEntityMaskTest, InsertRemoveAndUpdateAnswerAsASetDoes) {
  VespEntityMask mask;
  auto [inserted, member] = mask.insert(VespEntityMask::event);
  EXPECT_TRUE(inserted);
  EXPECT_EQ(member, VespEntityMask::event);
  EXPECT_FALSE(mask.insert(VespEntityMask::event).first);
  EXPECT_EQ(mask.update(VespEntityMask::event), VespEntityMask::event);
  EXPECT_EQ(mask.update(VespEntityMask::reminder), std::nullopt);
  EXPECT_EQ(mask.rawValue(), 3u);
  EXPECT_EQ(mask.remove(VespEntityMask::reminder), VespEntityMask::reminder);
  EXPECT_EQ(mask.remove(VespEntityMask::reminder), std::nullopt);
  EXPECT_EQ(mask, VespEntityMask::event);
}

TEST(VespEntityMaskTest, SetAlgebraKeepsUnknownBits) {
  VespEventAvailabilityMask a(std::uint64_t{0b10011});  // busy, free, an unknown bit 16
  VespEventAvailabilityMask b(std::uint64_t{0b00110});
  EXPECT_EQ(a.unionWith(b).rawValue(), 0b10111u);
  EXPECT_EQ(a.intersection(b).rawValue(), 0b00010u);
  EXPECT_EQ(a.symmetricDifference(b).rawValue(), 0b10101u);
  EXPECT_EQ(a.subtracting(b).rawValue(), 0b10001u);
  auto c = a;
  c.formUnion(b);
  EXPECT_EQ(c.rawValue(), 0b10111u);
  c = a;
  c.formIntersection(b);
  EXPECT_EQ(c.rawValue(), 0b00010u);
  c = a;
  c.formSymmetricDifference(b);
  EXPECT_EQ(c.rawValue(), 0b10101u);
  c = a;
  c.subtract(b);
  EXPECT_EQ(c.rawValue(), 0b10001u);
}

TEST(VespEntityMaskTest, SubsetSupersetAndDisjointTests) {
  VespEventAvailabilityMask all(std::uint64_t{15});
  EXPECT_TRUE(VespEventAvailabilityMask::busy.isSubset(all));
  EXPECT_TRUE(all.isSuperset(VespEventAvailabilityMask::free));
  EXPECT_FALSE(VespEventAvailabilityMask(std::uint64_t{16}).isSubset(all));
  EXPECT_TRUE(VespEventAvailabilityMask::busy.isDisjoint(VespEventAvailabilityMask::free));
  EXPECT_FALSE(all.isDisjoint(VespEventAvailabilityMask::free));
  EXPECT_TRUE(VespEventAvailabilityMask().isSubset(VespEventAvailabilityMask()));
}

}  // namespace
}  // namespace vesp
