// Text from the store made safe: UTF-8 checked and repaired, names escaped for identifiers.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platforms/vdir/VdirText.h"

namespace vesp::vdir {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(VdirTextTest, WellFormedUtf8IsValid) {
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_TRUE(isValidUtf8("plain ASCII, with \t and \x7F"));
  EXPECT_TRUE(isValidUtf8("caf\xC3\xA9"));                   // U+00E9
  EXPECT_TRUE(isValidUtf8("\xE0\xA0\x80"));                  // U+0800, the first three-byte form
  EXPECT_TRUE(isValidUtf8("\xED\x9F\xBF"));                  // U+D7FF, just below the surrogates
  EXPECT_TRUE(isValidUtf8("\xF0\x9F\x8E\x82"));              // U+1F382
  EXPECT_TRUE(isValidUtf8("\xF4\x8F\xBF\xBF"));              // U+10FFFF, the last code point
  EXPECT_TRUE(isValidUtf8(std::string("nul\0inside", 10)));  // U+0000 is a character
}

// ASCII before, around and after one sequence, at every offset within and across eight-byte words:
// a well-formed sequence keeps the text valid wherever it falls, and a bad one makes it invalid.
TEST(VdirTextTest, ASequenceIsJudgedTheSameAtAnyOffsetInALongText) {
  const std::vector<std::pair<std::string, bool>> sequences = {
      {"\xC3\xA9", true},      {"\xE2\x82\xAC", true}, {"\xF0\x9F\x8E\x82", true}, {"\xFF", false},
      {"\xC3", false},         {"\xE2\x82", false},    {"\xED\xA0\x80", false},   {"\x80", false},
      {"\xF0\x9F\x8E", false}, {"\xC0\xAF", false}};
  for (const auto& [sequence, valid] : sequences)
    for (std::size_t before = 0; before < 20; ++before)
      for (std::size_t after : {0, 1, 7, 8, 9, 17}) {
        const std::string text = std::string(before, 'a') + sequence + std::string(after, 'b');
        EXPECT_EQ(isValidUtf8(text), valid) << before << " + " << sequence.size() << " + " << after;
      }
  // Texts that end where their memory ends (as views into a mapped file do): nothing past the end
  // is read (AddressSanitizer would say so).
  for (std::size_t size = 1; size <= 24; ++size) {
    const auto bytes = std::make_unique<char[]>(size);
    std::fill_n(bytes.get(), size, 'a');
    EXPECT_TRUE(isValidUtf8(std::string_view(bytes.get(), size))) << size;
  }
  std::string longText(4096, 'x');
  EXPECT_TRUE(isValidUtf8(longText));
  longText.back() = '\xC3';
  EXPECT_FALSE(isValidUtf8(longText));
}

TEST(VdirTextTest, OverlongFormsSurrogatesAndCodePointsPastTheLastAreInvalid) {
  EXPECT_FALSE(isValidUtf8("\xC0\xAF"));          // "/" in two bytes
  EXPECT_FALSE(isValidUtf8("\xC1\xBF"));
  EXPECT_FALSE(isValidUtf8("\xE0\x80\xAF"));      // "/" in three bytes
  EXPECT_FALSE(isValidUtf8("\xF0\x80\x80\xAF"));  // "/" in four bytes
  EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));      // U+D800, a surrogate
  EXPECT_FALSE(isValidUtf8("\xED\xBF\xBF"));      // U+DFFF
  EXPECT_FALSE(isValidUtf8("\xF4\x90\x80\x80"));  // U+110000
  EXPECT_FALSE(isValidUtf8("\xF5\x80\x80\x80"));
  EXPECT_FALSE(isValidUtf8("\xFF"));
}

TEST(VdirTextTest, CutAndStraySequencesAreInvalid) {
  EXPECT_FALSE(isValidUtf8("caf\xC3"));          // cut after its first byte
  EXPECT_FALSE(isValidUtf8("\xF0\x9F\x8E"));     // cut after three of four
  EXPECT_FALSE(isValidUtf8("\x80"));             // a continuation byte alone
  EXPECT_FALSE(isValidUtf8("\xC3\x28"));         // a lead byte followed by ASCII
  EXPECT_FALSE(isValidUtf8("Caf\xE9 latin-1"));  // ISO 8859-1 text
}

TEST(VdirTextTest, EachByteOfNoWellFormedSequenceBecomesOneReplacementCharacter) {
  EXPECT_EQ(validUtf8("caf\xC3\xA9"), "caf\xC3\xA9");
  EXPECT_EQ(validUtf8("Caf\xE9"), "Caf" + kReplacement);
  EXPECT_EQ(validUtf8("a\xC3"), "a" + kReplacement);
  // E0 80 is not the start of a sequence, nor are 80 and AF on their own: three replacements.
  EXPECT_EQ(validUtf8("\xE0\x80\xAF"), kReplacement + kReplacement + kReplacement);
  // What follows a bad byte is read afresh: the emoji survives.
  EXPECT_EQ(validUtf8("\xFF\xF0\x9F\x8E\x82"), kReplacement + "\xF0\x9F\x8E\x82");
}

TEST(VdirTextTest, RepairedTextIsAlwaysValidAndValidTextIsLeftAlone) {
  std::mt19937 random(20261124);
  std::uniform_int_distribution<int> byte(0, 255), length(0, 40);
  for (int round = 0; round < 5000; ++round) {
    std::string text;
    for (int i = length(random); i > 0; --i) text += static_cast<char>(byte(random));
    std::string repaired = validUtf8(text);
    ASSERT_TRUE(isValidUtf8(repaired)) << round;
    if (isValidUtf8(text)) {
      EXPECT_EQ(repaired, text);
    } else {
      EXPECT_NE(repaired.find(kReplacement), std::string::npos);
    }
    EXPECT_EQ(validUtf8(repaired), repaired);  // repairing twice changes nothing more
  }
}

TEST(VdirTextTest, NamesEscapePercentAndBytesOfNoCharacter) {
  EXPECT_EQ(escapedName("work"), "work");
  EXPECT_EQ(escapedName("event 1.ics"), "event 1.ics");
  EXPECT_EQ(escapedName("100%.ics"), "100%25.ics");
  EXPECT_EQ(escapedName("caf\xE9"), "caf%E9");                        // a Latin-1 name
  EXPECT_EQ(escapedName("caf\xC3\xA9"), "caf\xC3\xA9");               // a UTF-8 name stays as it is
  EXPECT_EQ(escapedName("\xED\xA0\x80"), "%ED%A0%80");                // a surrogate, byte by byte
  EXPECT_EQ(escapedName("%E9"), "%25E9");                             // not mistaken for an escape
}

TEST(VdirTextTest, OnlyNamesThatEscapingMakesUnescape) {
  EXPECT_EQ(unescapedName("caf%E9"), "caf\xE9");
  EXPECT_EQ(unescapedName("100%25.ics"), "100%.ics");
  EXPECT_EQ(unescapedName("100%.ics"), std::nullopt);   // a bare '%'
  EXPECT_EQ(unescapedName("a%4"), std::nullopt);        // cut short
  EXPECT_EQ(unescapedName("%61"), std::nullopt);        // "a" is never escaped
  EXPECT_EQ(unescapedName("%e9"), std::nullopt);        // escapes are upper case
}

TEST(VdirTextTest, DistinctNamesStayDistinctAndEscapedNamesAreUtf8) {
  std::mt19937 random(1124);
  // Few distinct bytes, so that near-misses ("%", "E", "9", 0xE9) meet often.
  const std::string alphabet = "%E9a\xE9\xC3\xA9\x80";
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1), length(0, 6);
  std::set<std::string> names, escaped;
  for (int round = 0; round < 20000; ++round) {
    std::string name;
    for (std::size_t i = length(random); i > 0; --i) name += alphabet[pick(random)];
    std::string result = escapedName(name);
    ASSERT_TRUE(isValidUtf8(result)) << result;
    ASSERT_EQ(unescapedName(result), name) << result;
    if (names.insert(name).second) {
      ASSERT_TRUE(escaped.insert(result).second) << "two names escape to " << result;
    }
  }
  EXPECT_GT(names.size(), 1000u);
}

}  // namespace
}  // namespace vesp::vdir
