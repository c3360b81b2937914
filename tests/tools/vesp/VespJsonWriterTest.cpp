// The JSON writer against the JSON library's own dump of the same document, value by value.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tools/vesp/VespJsonWriter.h"

namespace vesp::tool {
namespace {

using nlohmann::json;

const std::string kTexts[] = {
    "",
    "plain",
    "quote \" backslash \\ slash /",
    "\b\f\n\r\t and \x01\x1f\x7f",
    "Zürich \u20AC \U0001F600",
    "bad \xC3 byte",     // a sequence cut short
    "\xFF\xFE lead",     // bytes that never start one
    "over\xC0\xAFlong",  // an overlong slash
    "\xC2\x80 \xED\x9F\xBF \xEF\xBF\xBF \xF4\x8F\xBF\xBF",  // the edges of what is valid
    "\xED\xA0\x80",      // a surrogate
    "\xE0\x9F\xBF",      // an overlong three bytes
    "\xF4\x90\x80\x80",  // past U+10FFFF
    "ok \xE2\x82",       // cut at the end
};

// Writes, through the writer's calls, the document that `expected()` builds with the library.
void writeDocument(VespJsonWriter& out) {
  out.beginObject();
  out.key("absent").null();
  out.key("emptyArray").beginArray();
  out.endArray();
  out.key("emptyObject").beginObject();
  out.endObject();
  out.key("flags").beginArray();
  out.boolean(true);
  out.boolean(false);
  out.endArray();
  out.key("integers").beginArray();
  out.number(std::int64_t{0});
  out.number(std::numeric_limits<std::int64_t>::min());
  out.number(std::numeric_limits<std::uint64_t>::max());
  out.endArray();
  out.key("nested").beginArray();
  out.beginObject();
  out.key("a").beginArray();
  out.beginArray();
  out.endArray();
  out.endArray();
  out.endObject();
  out.endArray();
  out.key("reals").beginArray();
  for (double value : {0.0, -900.0, 0.1, 1e300, -2.5e-310, std::nan("")}) out.number(value);
  out.endArray();
  out.key("texts").beginArray();
  for (const auto& text : kTexts) out.string(text);
  out.endArray();
  out.endObject();
}

json expected() {
  json texts = json::array();
  for (const auto& text : kTexts) texts.push_back(text);
  json reals = json::array();
  for (double value : {0.0, -900.0, 0.1, 1e300, -2.5e-310, std::nan("")}) reals.push_back(value);
  return {{"absent", nullptr},
          {"emptyArray", json::array()},
          {"emptyObject", json::object()},
          {"flags", {true, false}},
          {"integers", {std::int64_t{0}, std::numeric_limits<std::int64_t>::min(),
                        std::numeric_limits<std::uint64_t>::max()}},
          {"nested", {{{"a", {json::array()}}}}},
          {"reals", reals},
          {"texts", texts}};
}

std::string written(bool pretty, void (*write)(VespJsonWriter&)) {
  std::ostringstream text;
  {
    VespJsonWriter out(text, pretty);
    write(out);
  }
  return text.str();
}

TEST(VespJsonWriterTest, WritesWhatTheLibraryDumpsPrettyAndCompact) {
  const json document = expected();
  EXPECT_EQ(written(true, writeDocument), document.dump(2, ' ', false, json::error_handler_t::replace));
  EXPECT_EQ(written(false, writeDocument), document.dump(-1, ' ', false, json::error_handler_t::replace));
  // And a document handed over whole comes out the same.
  static const json* whole = nullptr;
  whole = &document;
  auto copy = [](VespJsonWriter& out) { out.value(*whole); };
  EXPECT_EQ(written(true, copy), document.dump(2, ' ', false, json::error_handler_t::replace));
  EXPECT_EQ(written(false, copy), document.dump(-1, ' ', false, json::error_handler_t::replace));
}

TEST(VespJsonWriterTest, EveryByteOfAnAsciiTextIsEscapedAsTheLibraryEscapesIt) {
  std::string all;
  for (int c = 1; c < 0x80; ++c) all += static_cast<char>(c);
  std::ostringstream text;
  {
    VespJsonWriter out(text, false);
    out.string(all);
  }
  EXPECT_EQ(text.str(), json(all).dump());
}

TEST(VespJsonWriterTest, TextsMadeOfRunsEscapesAndBytesOfAnyKindAreEscapedAsTheLibraryEscapesThem) {
  // Pieces that end and start runs the writer copies whole: plain text, characters to escape, valid
  // and invalid UTF-8, at the start, in the middle and at the end of a text.
  const std::string pieces[] = {"a", "plain words ", "\"", "\\", "\n", "\x01", "\x1f", "\x7f", "/",
                                "\u00e9", "\u20AC", "\U0001F600", "\xC3", "\xFF", "\xE2\x82", "\xED\xA0\x80"};
  std::uint64_t state = 42;
  auto next = [&state] { return (state = state * 6364136223846793005ull + 1442695040888963407ull) >> 33; };
  std::size_t invalid = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (auto count = next() % 8; count > 0; --count) text += pieces[next() % std::size(pieces)];
    std::ostringstream out;
    {
      VespJsonWriter writer(out, false);
      writer.string(text);
    }
    const std::string library = json(text).dump(-1, ' ', false, json::error_handler_t::replace);
    ASSERT_EQ(out.str(), library) << round;
    invalid += library.find("\xEF\xBF\xBD") != std::string::npos;  // U+FFFD
  }
  EXPECT_GT(invalid, 100u);  // the replacement path was taken too
}

TEST(VespJsonWriterTest, TopLevelValuesEndWithALineAndReachTheStreamThen) {
  std::ostringstream text;
  VespJsonWriter out(text, true);
  out.beginArray();
  out.endArray();
  out.endLine();
  EXPECT_EQ(text.str(), "[]\n");
  out.number(std::int64_t{7});
  out.endLine();
  EXPECT_EQ(text.str(), "[]\n7\n");
}

TEST(VespJsonWriterTest, MisplacedNamesAndClosesAreRefused) {
  std::ostringstream text;
  auto refused = [&](void (*write)(VespJsonWriter&)) {
    VespJsonWriter out(text, false);
    EXPECT_THROW(write(out), std::logic_error);
  };
  refused([](VespJsonWriter& out) {  // out of order: a dumped document's names ascend
    out.beginObject();
    out.key("b").null();
    out.key("a");
  });
  refused([](VespJsonWriter& out) {  // twice
    out.beginObject();
    out.key("a").null();
    out.key("a");
  });
  refused([](VespJsonWriter& out) {  // a member without a name
    out.beginObject();
    out.null();
  });
  refused([](VespJsonWriter& out) { out.key("a"); });  // a name outside an object
  refused([](VespJsonWriter& out) {
    out.beginArray();
    out.key("a");
  });
  refused([](VespJsonWriter& out) { out.endObject(); });  // nothing open
  refused([](VespJsonWriter& out) {  // not what is open
    out.beginArray();
    out.endObject();
  });
  refused([](VespJsonWriter& out) {  // a name without its value
    out.beginObject();
    out.key("a");
    out.endObject();
  });
}

}  // namespace
}  // namespace vesp::tool
