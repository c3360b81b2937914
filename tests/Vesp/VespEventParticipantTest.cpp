#include "Vesp/VespEventParticipant.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

using namespace vesp::testing;

TEST(VespEventParticipantTest, CopiesEveryAttributeInOrder) {
  auto platformParticipant = makeParticipant("Ann", 4);
  VespEventParticipant participant(*platformParticipant);
  EXPECT_EQ(participant, VespEventParticipant(false, "Ann", VespParticipantRole::required,
                                              VespParticipantStatus::tentative, VespParticipantType::person,
                                              platform::URL("mailto:someone@example.org")));
  EXPECT_THAT(platformParticipant->reads(), ::testing::ElementsAre("isCurrentUser", "name", "participantRole",
                                                                   "participantStatus", "participantType", "URL"));
}

TEST(VespEventParticipantTest, AParticipantWithoutANameHasAnAbsentName) {
  auto fields = MemoryParticipantFields{false, std::nullopt, 1, 2, 1, platform::URL("mailto:x@example.org")};
  VespEventParticipant first(MemoryParticipant{fields});
  VespEventParticipant second(MemoryParticipant{fields});
  EXPECT_FALSE(first.name());
  EXPECT_EQ(first, second);
}

TEST(VespEventParticipantTest, ValuesPastTheTablesAndZeroGiveUnknown) {
  EXPECT_EQ(vespParticipantType(5), VespParticipantType::unknown);
  EXPECT_EQ(vespParticipantRole(5), VespParticipantRole::unknown);
  EXPECT_EQ(vespParticipantStatus(8), VespParticipantStatus::unknown);
  EXPECT_EQ(vespParticipantType(0), VespParticipantType::unknown);
  EXPECT_EQ(vespParticipantRole(0), VespParticipantRole::unknown);
  EXPECT_EQ(vespParticipantStatus(0), VespParticipantStatus::unknown);
  EXPECT_EQ(vespParticipantRole(-1), VespParticipantRole::unknown);
}

TEST(VespEventParticipantTest, StatusSevenIsInProcessAndFourTentative) {
  EXPECT_EQ(vespParticipantStatus(7), VespParticipantStatus::inProcess);
  EXPECT_EQ(vespParticipantStatus(4), VespParticipantStatus::tentative);
}

TEST(VespEventParticipantTest, ConversionTables) {
  std::vector<VespParticipantType> types = {VespParticipantType::unknown, VespParticipantType::person,
                                            VespParticipantType::room, VespParticipantType::resource,
                                            VespParticipantType::group};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(vespParticipantType(i), types[i]);
  std::vector<VespParticipantRole> roles = {VespParticipantRole::unknown, VespParticipantRole::required,
                                            VespParticipantRole::optional, VespParticipantRole::chair,
                                            VespParticipantRole::nonParticipant};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(vespParticipantRole(i), roles[i]);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(static_cast<int>(vespParticipantStatus(i)), i);
}

TEST(VespEventParticipantTest, RecordsDifferingOnlyInBeingTheCurrentUserAreUnequal) {
  VespEventParticipant a(false, "Ann", VespParticipantRole::chair, VespParticipantStatus::accepted,
                         VespParticipantType::person, platform::URL("mailto:ann@example.org"));
  VespEventParticipant b(true, "Ann", VespParticipantRole::chair, VespParticipantStatus::accepted,
                         VespParticipantType::person, platform::URL("mailto:ann@example.org"));
  EXPECT_NE(a, b);
}

}  // namespace
}  // namespace vesp
