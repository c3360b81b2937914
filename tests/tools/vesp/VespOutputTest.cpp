// The program's JSON records against the library's own coder, byte for byte.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Vesp/VespCodingError.h"
#include "Vesp/VespEventInstanceIdentifier.h"
#include "Vesp/VespJSONCoder.h"
#include "tools/vesp/VespOutput.h"

namespace vesp::tool {
namespace {

using nlohmann::json;

std::string written(const VespEventInstanceIdentifier& identifier, bool pretty) {
  std::ostringstream out;
  {
    VespJsonWriter writer(out, pretty);
    writeJSON(writer, identifier);
  }
  return out.str();
}

// Seconds since 2001 of every kind the coder tells apart: whole and not, either side of the range
// a double holds whole numbers exactly in, tiny, huge, negative zero; and random bit patterns.
std::vector<double> dates() {
  const double exact = 9007199254740992.0;  // 2^53
  std::vector<double> seconds = {0.0,    -0.0,          814226400.0, -978307200.5, 0.25,       1e-9,   -1e-300,
                                 exact,  exact + 2.0,   -exact,      -exact - 2.0, exact - 1.0, 1e17,  -1e300,
                                 1e300,  123456789.125, 0.1,         -7.0,         4.9e-324,    1e15 + 0.5};
  std::mt19937_64 random(20261128);
  while (seconds.size() < 400) {
    const std::uint64_t bits = random();
    double value;
    std::memcpy(&value, &bits, sizeof value);
    if (std::isfinite(value)) seconds.push_back(value);
    seconds.push_back(std::round(static_cast<double>(static_cast<std::int64_t>(bits >> 20)) / 1000.0));
  }
  return seconds;
}

TEST(VespOutputTest, AnOccurrenceIdentifierIsWrittenAsTheCodersTextParsedAndWrittenAgain) {
  const std::vector<std::string> texts = {"",
                                          "personal/home/7c2f041d.ics",
                                          "work/a.ics#uid \"quoted\" \\ /",
                                          "tab\tnewline\n\x01\x7f",
                                          "Zürich \u20AC \U0001F600",
                                          "bad \xC3 byte \xFF"};
  std::size_t compared = 0;
  for (const auto& text : texts) {
    std::vector<VespEventInstanceIdentifier> identifiers = {VespEventInstanceIdentifier::noOccurrenceDate(text)};
    for (double seconds : dates())
      identifiers.push_back(VespEventInstanceIdentifier::withOccurrenceDate(text, platform::Date(seconds)));
    for (const auto& identifier : identifiers) {
      const json coded = json::parse(VespJSONEncoder().encode(identifier));
      ASSERT_EQ(written(identifier, false), coded.dump(-1, ' ', false, json::error_handler_t::replace))
          << identifier;
      ASSERT_EQ(written(identifier, true), coded.dump(2, ' ', false, json::error_handler_t::replace)) << identifier;
      // What is written reads back as the identifier (texts that are valid UTF-8, which are kept).
      if (text.find('\xC3') == std::string::npos) {
        EXPECT_EQ(VespJSONDecoder().decode<VespEventInstanceIdentifier>(written(identifier, false)), identifier);
      }
      ++compared;
    }
  }
  EXPECT_GT(compared, 2000u);
}

TEST(VespOutputTest, AnOccurrenceDateTheCoderRefusesIsRefusedWithItsError) {
  for (double seconds : {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                         std::numeric_limits<double>::quiet_NaN()}) {
    const auto identifier = VespEventInstanceIdentifier::withOccurrenceDate("a.ics", platform::Date(seconds));
    std::string coderMessage;
    try {
      (void)VespJSONEncoder().encode(identifier);
    } catch (const VespEncodingError& error) {
      coderMessage = error.what();
    }
    ASSERT_FALSE(coderMessage.empty());
    try {
      (void)written(identifier, false);
      ADD_FAILURE() << "an identifier at " << seconds << " was written";
    } catch (const VespEncodingError& error) {
      EXPECT_EQ(std::string(error.what()), coderMessage);
    }
  }
}

// What a terminal is to be shown of `text`, one byte (or one C1 control) at a time.
std::string shownByteByByte(const std::string& text, const std::string* lineIndent) {
  auto hex = [](unsigned value) {
    const char* digits = "0123456789ABCDEF";
    return std::string{digits[value >> 4], digits[value & 15]};
  };
  std::string shown;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0u;
    if (lineIndent && c == '\r' && next == '\n') continue;
    if (lineIndent && c == '\n')
      shown += "\n" + *lineIndent;
    else if (lineIndent && c == '\t')
      shown += '\t';
    else if (c < 0x20 || c == 0x7F)
      shown += "\\x" + hex(c);
    else if (c == 0xC2 && next >= 0x80 && next <= 0x9F)
      shown += "\\u00" + hex(next), ++i;
    else
      shown += static_cast<char>(c);
  }
  return shown;
}

TEST(VespOutputTest, TextIsShownAsItsBytesOneByOneWouldBe) {
  const std::string indent = "    ";
  EXPECT_EQ(neutralised("Bell\xC2\x9B""31m\x1B[0m"), "Bell\\u009B31m\\x1B[0m");
  EXPECT_EQ(neutralised("caf\xC3\xA9 \xC2\xA0ok\xC2"), "caf\xC3\xA9 \xC2\xA0ok\xC2");
  EXPECT_EQ(neutralised("one\r\ntwo\tthree"), "one\\x0D\\x0Atwo\\x09three");
  EXPECT_EQ(neutralised("one\r\ntwo\ntab\there", &indent), "one\n    two\n    tab\there");
  // Random texts of the bytes that matter (controls, C1 lead and trail bytes, CR, LF, tab) and
  // plain ones, with a plain run of any length before the first of them.
  const char alphabet[] = "a Z\r\n\t\x1B\x7F\xC2\x80\x9B\x9F\xA0\xC3\xA9\x1F";  // and its closing NUL
  std::mt19937 random(20261128);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 24, 'x');
    const std::size_t length = random() % 24;
    for (std::size_t i = 0; i < length; ++i) text += alphabet[random() % sizeof alphabet];
    EXPECT_EQ(neutralised(text), shownByteByByte(text, nullptr));
    EXPECT_EQ(neutralised(text, &indent), shownByteByByte(text, &indent));
  }
}

}  // namespace
}  // namespace vesp::tool
