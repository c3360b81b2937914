#include "Vesp/VespText.h"

#include <utf8proc.h>

#include <cstdlib>
#include <functional>

namespace vesp {

namespace {

// ASCII is already in NFC: the common case needs no normalisation.
bool isAscii(std::string_view text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

}  // namespace

std::u32string canonicalText(std::string_view text) {
  std::u32string scalars;
  scalars.reserve(text.size());
  if (isAscii(text)) {
    for (unsigned char c : text) scalars.push_back(c);
    return scalars;
  }
  utf8proc_uint8_t* normalised = nullptr;
  utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(text.size()),
                   &normalised, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  if (length < 0) {
    // Not valid UTF-8: keep the bytes, distinct from (and after) every scalar value.
    for (unsigned char c : text) scalars.push_back(0x110000u + c);
    return scalars;
  }
  for (utf8proc_ssize_t i = 0; i < length;) {
    utf8proc_int32_t scalar;
    utf8proc_ssize_t read = utf8proc_iterate(normalised + i, length - i, &scalar);
    scalars.push_back(static_cast<char32_t>(scalar));
    i += read;
  }
  std::free(normalised);
  return scalars;
}

bool canonicallyEqual(std::string_view lhs, std::string_view rhs) {
  if (lhs == rhs) return true;
  if (isAscii(lhs) && isAscii(rhs)) return false;
  return canonicalText(lhs) == canonicalText(rhs);
}

std::strong_ordering canonicalCompare(std::string_view lhs, std::string_view rhs) {
  if (isAscii(lhs) && isAscii(rhs)) return lhs.compare(rhs) <=> 0;
  return canonicalText(lhs) <=> canonicalText(rhs);
}

std::size_t canonicalHash(std::string_view text) {
  if (isAscii(text)) return std::hash<std::string_view>{}(text);
  std::u32string scalars = canonicalText(text);
  // Hash ASCII-only canonical forms like the ASCII fast path does, so equal texts hash equally.
  std::string narrow;
  bool ascii = true;
  for (char32_t c : scalars) {
    if (c >= 0x80) {
      ascii = false;
      break;
    }
    narrow.push_back(static_cast<char>(c));
  }
  if (ascii) return std::hash<std::string_view>{}(narrow);
  return std::hash<std::u32string>{}(scalars);
}

std::string foldedText(std::string_view text) {
  auto lowerAscii = [](std::string_view bytes) {
    std::string lowered(bytes);
    for (char& c : lowered)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return lowered;
  };
  if (isAscii(text)) return lowerAscii(text);
  utf8proc_uint8_t* folded = nullptr;
  const utf8proc_ssize_t length = utf8proc_map(
      reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(text.size()), &folded,
      static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD |
                                     UTF8PROC_STRIPMARK));
  if (length < 0) return lowerAscii(text);
  std::string result(reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length));
  std::free(folded);
  return result;
}

}  // namespace vesp
