// The errors of the coding machinery: coding keys and paths, and the encoding and decoding errors
// with their contexts (coding path, description, optional underlying error).
#pragma once

#include <exception>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace vesp {

// A key of a keyed container, or an index of an unkeyed one ("Index 2", integer value 2).
struct VespCodingKey {
  std::string stringValue;
  std::optional<int> intValue;

  static VespCodingKey named(std::string name) { return VespCodingKey{std::move(name), std::nullopt}; }
  static VespCodingKey index(int index) { return VespCodingKey{"Index " + std::to_string(index), index}; }
  friend bool operator==(const VespCodingKey&, const VespCodingKey&) = default;
};

// The keys from the top-level value down to the value being coded.
using VespCodingPath = std::vector<VespCodingKey>;

// "a.Index 0.b"; empty for the top level.
std::string describe(const VespCodingPath& path);

struct VespCodingErrorContext {
  VespCodingPath codingPath;
  std::string debugDescription;
  std::exception_ptr underlyingError;  // null: none
};

class VespDecodingError : public std::exception {
 public:
  enum class Kind { typeMismatch, valueNotFound, keyNotFound, dataCorrupted };

  static VespDecodingError typeMismatch(std::string expectedType, VespCodingErrorContext context);
  static VespDecodingError valueNotFound(std::string expectedType, VespCodingErrorContext context);
  static VespDecodingError keyNotFound(VespCodingKey key, VespCodingErrorContext context);
  static VespDecodingError dataCorrupted(VespCodingErrorContext context);

  Kind kind() const { return kind_; }
  const VespCodingErrorContext& context() const { return context_; }
  // The missing key, for keyNotFound.
  const std::optional<VespCodingKey>& key() const { return key_; }
  // The type that was expected, for typeMismatch and valueNotFound.
  const std::string& expectedType() const { return expectedType_; }

  const char* what() const noexcept override { return what_.c_str(); }

 private:
  VespDecodingError(Kind kind, std::optional<VespCodingKey> key, std::string expectedType,
                    VespCodingErrorContext context);

  Kind kind_;
  std::optional<VespCodingKey> key_;
  std::string expectedType_;
  VespCodingErrorContext context_;
  std::string what_;
};

class VespEncodingError : public std::exception {
 public:
  enum class Kind { invalidValue };

  // A value the coder cannot represent (a non-finite number in JSON, say).
  static VespEncodingError invalidValue(std::string valueDescription, VespCodingErrorContext context);

  Kind kind() const { return kind_; }
  const std::string& valueDescription() const { return valueDescription_; }
  const VespCodingErrorContext& context() const { return context_; }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  VespEncodingError(std::string valueDescription, VespCodingErrorContext context);

  Kind kind_ = Kind::invalidValue;
  std::string valueDescription_;
  VespCodingErrorContext context_;
  std::string what_;
};

std::ostream& operator<<(std::ostream& out, const VespDecodingError& error);

}  // namespace vesp
