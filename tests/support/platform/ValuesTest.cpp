#include <gtest/gtest.h>

#include <sstream>

#include "support/platform/AnyObject.h"
#include "support/platform/CGColor.h"
#include "support/platform/DateComponents.h"
#include "support/platform/NSError.h"
#include "support/platform/TimeZone.h"
#include "support/platform/URL.h"

namespace vesp::platform {
namespace {

TEST(CGColorTest, ReferencesAreEqualByColourNotByObject) {
  auto a = CGColorCreate(0.1, 0.2, 0.3);
  auto b = CGColorCreate(0.1, 0.2, 0.3);
  auto c = CGColorCreate(0.1, 0.2, 0.4);
  EXPECT_NE(a.get(), b.get());
  EXPECT_TRUE(CGColorEqualToColor(a, b));
  EXPECT_FALSE(CGColorEqualToColor(a, c));
  EXPECT_FALSE(CGColorEqualToColor(a, nullptr));
  EXPECT_TRUE(CGColorEqualToColor(nullptr, nullptr));
}

TEST(DateComponentsTest, KeepOnlyTheComponentsThatWereSet) {
  DateComponents due;
  due.year = 2026;
  due.month = 11;
  due.day = 22;
  EXPECT_FALSE(due.hour);
  EXPECT_FALSE(due.timeZone);
  std::ostringstream out;
  out << due;
  EXPECT_EQ(out.str(), "DateComponents(year: 2026, month: 11, day: 22)");
  DateComponents other = due;
  other.hour = 0;
  EXPECT_NE(due, other);
}

TEST(ValuesTest, UrlTimeZoneAndErrorCompareByValue) {
  EXPECT_EQ(URL("mailto:ann@example.org"), URL("mailto:ann@example.org"));
  EXPECT_EQ(URL("mailto:ann@example.org").scheme(), "mailto");
  EXPECT_EQ(TimeZone("Europe/Berlin"), TimeZone("Europe/Berlin"));
  EXPECT_NE(TimeZone("Europe/Berlin"), TimeZone("UTC"));
  EXPECT_EQ(NSError("D", 1, "x"), NSError("D", 1, "x"));
  EXPECT_NE(NSError("D", 1, "x"), NSError("D", 2, "x"));
}

TEST(AnyObjectTest, TellsNumbersFromOtherValues) {
  AnyObject number(NSNumber(1800));
  AnyObject text("1800");
  EXPECT_TRUE(number.isNumber());
  EXPECT_EQ(number.number()->doubleValue(), 1800.0);
  EXPECT_FALSE(text.isNumber());
  EXPECT_EQ(text.number(), nullptr);
  EXPECT_STREQ(text.className(), "NSString");
  EXPECT_STREQ(AnyObject(Date()).className(), "NSDate");
  EXPECT_TRUE(AnyObject(NSNull()).isNull());
}

}  // namespace
}  // namespace vesp::platform
