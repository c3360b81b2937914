// Text compared by canonical equivalence: texts are normalised (NFC) and compared, ordered and
// hashed by their Unicode scalar values, so "é" written precomposed and decomposed is one text.
// Bytes that are not valid UTF-8 are compared as themselves, after every valid scalar value.
#pragma once

#include <compare>
#include <cstddef>
#include <string>
#include <string_view>

namespace vesp {

// The canonical form of a text: its NFC scalar values (or, for invalid UTF-8, its bytes mapped past
// the last scalar value).
std::u32string canonicalText(std::string_view text);

bool canonicallyEqual(std::string_view lhs, std::string_view rhs);
std::strong_ordering canonicalCompare(std::string_view lhs, std::string_view rhs);
std::size_t canonicalHash(std::string_view text);

// A text as a person's search or name is matched against it, in UTF-8: case folded, accents and
// other marks removed, compatibility forms mapped to their plain ones ("ﬁ" to "fi"), in NFC. So
// "Café", "CAFE" and "cafe" fold alike. Invalid UTF-8 is folded in its ASCII bytes alone.
std::string foldedText(std::string_view text);

}  // namespace vesp
