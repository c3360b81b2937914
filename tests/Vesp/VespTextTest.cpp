#include "Vesp/VespText.h"

#include <gtest/gtest.h>

namespace vesp {
namespace {

TEST(VespTextTest, PrecomposedAndDecomposedSpellingsAreOneText) {
  EXPECT_TRUE(canonicallyEqual("caf\u00e9", "cafe\u0301"));
  EXPECT_EQ(canonicalHash("caf\u00e9"), canonicalHash("cafe\u0301"));
  EXPECT_EQ(canonicalCompare("caf\u00e9", "cafe\u0301"), std::strong_ordering::equal);
  // The angstrom sign is canonically the letter A with ring above.
  EXPECT_TRUE(canonicallyEqual("\u212b", "\u00c5"));
}

TEST(VespTextTest, OrdersByScalarValuesNotByLocale) {
  EXPECT_EQ(canonicalCompare("B", "a"), std::strong_ordering::less);
  EXPECT_EQ(canonicalCompare("a", "ab"), std::strong_ordering::less);
  EXPECT_EQ(canonicalCompare("z", "\u00e9"), std::strong_ordering::less);
  EXPECT_FALSE(canonicallyEqual("a", "A"));
}

TEST(VespTextTest, InvalidUtf8IsComparedByItsBytes) {
  EXPECT_TRUE(canonicallyEqual("\xff", "\xff"));
  EXPECT_FALSE(canonicallyEqual("\xff", "\xfe"));
  EXPECT_EQ(canonicalCompare("\xfe", "\xff"), std::strong_ordering::less);
  EXPECT_EQ(canonicalCompare("\u00e9", "\xff"), std::strong_ordering::less);
}

}  // namespace
}  // namespace vesp
