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

}  // namespace
}  // namespace vesp::tool
