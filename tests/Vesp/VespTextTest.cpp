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

TEST(VespTextTest, FoldedTextIgnoresCaseAccentsAndCompatibilityForms) {
  EXPECT_EQ(foldedText("Caf\u00e9"), "cafe");
  EXPECT_EQ(foldedText("CAFE\u0301"), "cafe");
  EXPECT_EQ(foldedText("Stra\u00dfe"), "strasse");  // case folding maps sharp s to ss
  EXPECT_EQ(foldedText("\ufb01le"), "file");         // the fi ligature
  EXPECT_EQ(foldedText("\u00c5ngstr\u00f6m"), foldedText("\u212bngstrom"));
  EXPECT_EQ(foldedText("Team Meeting 3"), "team meeting 3");
  EXPECT_EQ(foldedText("\u041c\u043e\u0441\u043a\u0432\u0430"), "\u043c\u043e\u0441\u043a\u0432\u0430");
  // Not UTF-8: its ASCII letters folded, its other bytes kept.
  EXPECT_EQ(foldedText("AB\xff"), "ab\xff");
}

}  // namespace
}  // namespace vesp
