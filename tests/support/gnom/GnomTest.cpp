#include "support/gnom/Gnom.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

TEST(GnomTest, SecondsInGregorianUnits) {
  EXPECT_EQ(vesp::Gnom::SecondsIn::Gregorian::Hour::count, 3600);
  EXPECT_EQ(vesp::Gnom::SecondsIn::Gregorian::Day::count, 86400u);
  EXPECT_EQ(vesp::Gnom::SecondsIn::Gregorian::Week::count, 604800u);
}

TEST(GnomTest, CountsHaveTheirDocumentedWidths) {
  static_assert(std::is_same_v<decltype(vesp::Gnom::SecondsIn::Gregorian::Hour::count), const std::uint16_t>);
  static_assert(std::is_same_v<decltype(vesp::Gnom::SecondsIn::Gregorian::Day::count), const std::uint32_t>);
  static_assert(std::is_same_v<decltype(vesp::Gnom::SecondsIn::Gregorian::Week::count), const std::uint32_t>);
  EXPECT_EQ(static_cast<double>(vesp::Gnom::SecondsIn::Gregorian::Hour::count), 3600.0);
}

}  // namespace
