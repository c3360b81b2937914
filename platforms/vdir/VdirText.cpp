#include "platforms/vdir/VdirText.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace vesp::vdir {

namespace {

// The length of the well-formed UTF-8 sequence at `at`, or 0 when there is none.
std::size_t sequenceLength(std::string_view text, std::size_t at) {
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char first = byte(at);
  if (first < 0x80) return 1;
  std::size_t length;
  unsigned char low = 0x80, high = 0xBF;  // the allowed range of the second byte
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3;
    if (first == 0xE0) low = 0xA0;   // no overlong forms
    if (first == 0xED) high = 0x9F;  // no surrogates
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4;
    if (first == 0xF0) low = 0x90;
    if (first == 0xF4) high = 0x8F;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i)
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  return length;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    // Runs of ASCII, most of any calendar, eight bytes at a time.
    if (at + 8 <= text.size()) {
      std::uint64_t word;
      std::memcpy(&word, text.data() + at, 8);
      if ((word & 0x8080808080808080ull) == 0) {
        at += 8;
        continue;
      }
    }
    std::size_t length = sequenceLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string validUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    std::size_t length = sequenceLength(text, at);
    if (length == 0) {
      result += "\xEF\xBF\xBD";
      ++at;
    } else {
      result.append(text.substr(at, length));
      at += length;
    }
  }
  return result;
}

std::string escapedName(std::string_view name) {
  // Most names are printable ASCII without '%': nothing to escape.
  if (std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7F && c != '%'; }))
    return std::string(name);
  std::string result;
  result.reserve(name.size());
  for (std::size_t at = 0; at < name.size();) {
    std::size_t length = sequenceLength(name, at);
    if (length == 0 || name[at] == '%') {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(name[at]));
      result += escaped;
      ++at;
    } else {
      result.append(name.substr(at, length));
      at += length;
    }
  }
  return result;
}

std::optional<std::string> unescapedName(std::string_view escaped) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string name;
  name.reserve(escaped.size());
  for (std::size_t at = 0; at < escaped.size(); ++at) {
    if (escaped[at] != '%') {
      name += escaped[at];
      continue;
    }
    if (at + 2 >= escaped.size() || hex(escaped[at + 1]) < 0 || hex(escaped[at + 2]) < 0) return std::nullopt;
    name += static_cast<char>(hex(escaped[at + 1]) * 16 + hex(escaped[at + 2]));
    at += 2;
  }
  if (escapedName(name) != escaped) return std::nullopt;
  return name;
}

}  // namespace vesp::vdir
