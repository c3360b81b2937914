#include "support/rivet/RivetValue.h"

#include <gtest/gtest.h>

namespace vesp::rivet {
namespace {

TEST(RivetValueTest, RendersEachKindReadably) {
  EXPECT_EQ(RivetValue().description(), "nil");
  EXPECT_EQ(RivetValue(true).description(), "true");
  EXPECT_EQ(RivetValue(-42).description(), "-42");
  EXPECT_EQ(RivetValue(42u).description(), "42");
  EXPECT_EQ(RivetValue(1.5).description(), "1.5");
  EXPECT_EQ(RivetValue(1800.0).description(), "1800.0");
  EXPECT_EQ(RivetValue("say \"hi\"").description(), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(RivetValue(RivetValue::List{1, "a"}).description(), "[1, \"a\"]");
  EXPECT_EQ(RivetValue(RivetArgs{{"k", 1}}).description(), "[\"k\": 1]");
  EXPECT_EQ(RivetArgs().description(), "[:]");
}

TEST(RivetValueTest, ArgsKeepTheOrderKeysWereFirstAddedIn) {
  RivetArgs args{{"self", "manager"}, {"startDateInc", 1.0}, {"endDateEx", 2.0}};
  args.set("calendars", "all");
  args.set("startDateInc", 5.0);
  EXPECT_EQ(args.keys(), (std::vector<std::string>{"self", "startDateInc", "endDateEx", "calendars"}));
  ASSERT_NE(args.find("startDateInc"), nullptr);
  EXPECT_EQ(*args.find("startDateInc"), RivetValue(5.0));
  EXPECT_EQ(args.find("missing"), nullptr);
}

TEST(RivetValueTest, ObjectReferenceDoesNotKeepItsObjectAlive) {
  auto object = std::make_shared<int>(7);
  std::weak_ptr<int> watch = object;
  RivetValue value = RivetValue::object(object, "EKEvent 'Standup'");
  EXPECT_EQ(value.description(), "<EKEvent 'Standup'>");
  object.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(value.description(), "<EKEvent 'Standup'>");
}

TEST(RivetValueTest, ObjectReferencesAreEqualOnlyForTheSameObject) {
  auto a = std::make_shared<int>(1);
  auto b = std::make_shared<int>(1);
  EXPECT_EQ(RivetValue::object(a, "x"), RivetValue::object(a, "x"));
  EXPECT_NE(RivetValue::object(a, "x"), RivetValue::object(b, "x"));
}

TEST(RivetValueTest, OptionalAndDescribingHelpers) {
  EXPECT_TRUE(RivetValue::optional(std::optional<int>()).isNull());
  EXPECT_EQ(RivetValue::optional(std::optional<int>(3)), RivetValue(3));
  EXPECT_EQ(RivetValue::describing(12.25), RivetValue("12.25"));
}

TEST(RivetValueTest, TypedReadsAnswerOnlyForTheirKind) {
  RivetValue number(3);
  EXPECT_EQ(number.signedInteger(), 3);
  EXPECT_FALSE(number.unsignedInteger());
  EXPECT_EQ(number.text(), nullptr);
  EXPECT_EQ(RivetValue("t").text() ? *RivetValue("t").text() : "", "t");
}

}  // namespace
}  // namespace vesp::rivet
