#include "Vesp/VespCodingError.h"

namespace vesp {

std::string describe(const VespCodingPath& path) {
  std::string text;
  for (const auto& key : path) {
    if (!text.empty()) text += '.';
    text += key.stringValue;
  }
  return text;
}

namespace {
const char* kindName(VespDecodingError::Kind kind) {
  switch (kind) {
    case VespDecodingError::Kind::typeMismatch: return "typeMismatch";
    case VespDecodingError::Kind::valueNotFound: return "valueNotFound";
    case VespDecodingError::Kind::keyNotFound: return "keyNotFound";
    case VespDecodingError::Kind::dataCorrupted: return "dataCorrupted";
  }
  return "unknown";
}
}  // namespace

VespDecodingError::VespDecodingError(Kind kind, std::optional<VespCodingKey> key, std::string expectedType,
                                     VespCodingErrorContext context)
    : kind_(kind), key_(std::move(key)), expectedType_(std::move(expectedType)), context_(std::move(context)) {
  what_ = std::string(kindName(kind_)) + " at '" + describe(context_.codingPath) + "': " + context_.debugDescription;
}

VespDecodingError VespDecodingError::typeMismatch(std::string expectedType, VespCodingErrorContext context) {
  return VespDecodingError(Kind::typeMismatch, std::nullopt, std::move(expectedType), std::move(context));
}
VespDecodingError VespDecodingError::valueNotFound(std::string expectedType, VespCodingErrorContext context) {
  return VespDecodingError(Kind::valueNotFound, std::nullopt, std::move(expectedType), std::move(context));
}
VespDecodingError VespDecodingError::keyNotFound(VespCodingKey key, VespCodingErrorContext context) {
  return VespDecodingError(Kind::keyNotFound, std::move(key), "", std::move(context));
}
VespDecodingError VespDecodingError::dataCorrupted(VespCodingErrorContext context) {
  return VespDecodingError(Kind::dataCorrupted, std::nullopt, "", std::move(context));
}

VespEncodingError::VespEncodingError(std::string valueDescription, VespCodingErrorContext context)
    : valueDescription_(std::move(valueDescription)), context_(std::move(context)) {
  what_ = "invalidValue " + valueDescription_ + " at '" + describe(context_.codingPath) + "': " +
          context_.debugDescription;
}

VespEncodingError VespEncodingError::invalidValue(std::string valueDescription, VespCodingErrorContext context) {
  return VespEncodingError(std::move(valueDescription), std::move(context));
}

std::ostream& operator<<(std::ostream& out, const VespDecodingError& error) { return out << error.what(); }

}  // namespace vesp
