// Success-or-failure results. Operations of the library return these and never throw.
//
// Thread safety: a result is a value; copies are independent.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "support/rivet/RivetError.h"
#include "support/rivet/RivetFatal.h"

namespace vesp::rivet {

// Success carrying a value, or failure carrying a RivetError. Member names follow std::expected.
template <class T>
class [[nodiscard]] RivetResult {
 public:
  using value_type = T;

  // Success from a value.
  RivetResult(T value) : storage_(std::in_place_index<0>, std::move(value)) {}
  // Failure from an error.
  RivetResult(RivetError error) : storage_(std::in_place_index<1>, std::move(error)) {}
  // A fresh failure, built where it arises.
  RivetResult(std::string message, std::optional<RivetArgs> args, std::string fileName, std::string functionName,
              std::uint64_t lineNumber, std::optional<platform::NSError> frameworkError = std::nullopt)
      : RivetResult(RivetError(std::move(message), std::move(args), std::move(fileName), std::move(functionName),
                               lineNumber, std::move(frameworkError))) {}
  // A failure that wraps an inner failure's error with this operation's context.
  RivetResult(RivetError error, std::optional<RivetArgs> args, std::string fileName, std::string functionName,
              std::uint64_t lineNumber)
      : RivetResult(RivetError::wrapping(std::move(error), std::move(args), std::move(fileName),
                                         std::move(functionName), lineNumber)) {}

  bool has_value() const { return storage_.index() == 0; }
  explicit operator bool() const { return has_value(); }

  // REQUIRES: has_value(). A failure stops the process with the error's chain.
  const T& value() const& {
    requireValue();
    return std::get<0>(storage_);
  }
  T& value() & {
    requireValue();
    return std::get<0>(storage_);
  }
  // By value, so that `for (auto& x : query().value())` does not outlive the temporary result.
  T value() && {
    requireValue();
    return std::get<0>(std::move(storage_));
  }
  const T& operator*() const& { return value(); }
  T& operator*() & { return value(); }
  const T* operator->() const { return &value(); }
  T* operator->() { return &value(); }

  template <class U>
  T value_or(U&& fallback) const& {
    return has_value() ? std::get<0>(storage_) : static_cast<T>(std::forward<U>(fallback));
  }

  // REQUIRES: !has_value().
  const RivetError& error() const {
    if (has_value()) fatalError("RivetResult::error() called on a success");
    return std::get<1>(storage_);
  }

  friend bool operator==(const RivetResult& lhs, const RivetResult& rhs) = default;

 private:
  void requireValue() const {
    if (!has_value()) fatalError("RivetResult::value() called on a failure: " + std::get<1>(storage_).description());
  }

  std::variant<T, RivetError> storage_;
};

// The void result: success without a value, or failure. Its one success value is
// RivetResultVoidSuccess; copies of it are successes too.
template <>
class [[nodiscard]] RivetResult<void> {
 public:
  using value_type = void;

  RivetResult(RivetError error) : error_(std::move(error)) {}
  RivetResult(std::string message, std::optional<RivetArgs> args, std::string fileName, std::string functionName,
              std::uint64_t lineNumber, std::optional<platform::NSError> frameworkError = std::nullopt)
      : error_(RivetError(std::move(message), std::move(args), std::move(fileName), std::move(functionName),
                          lineNumber, std::move(frameworkError))) {}
  RivetResult(RivetError error, std::optional<RivetArgs> args, std::string fileName, std::string functionName,
              std::uint64_t lineNumber)
      : error_(RivetError::wrapping(std::move(error), std::move(args), std::move(fileName), std::move(functionName),
                                    lineNumber)) {}

  bool has_value() const { return !error_.has_value(); }
  explicit operator bool() const { return has_value(); }
  // REQUIRES: has_value().
  void value() const {
    if (error_) fatalError("RivetResult::value() called on a failure: " + error_->description());
  }
  // REQUIRES: !has_value().
  const RivetError& error() const {
    if (!error_) fatalError("RivetResult::error() called on a success");
    return *error_;
  }

  friend bool operator==(const RivetResult& lhs, const RivetResult& rhs) = default;

 private:
  friend struct RivetResultVoidSuccessMaker;
  RivetResult() = default;

  std::optional<RivetError> error_;
};

// The one shared success of the void result.
extern const RivetResult<void> RivetResultVoidSuccess;

template <class T>
std::ostream& operator<<(std::ostream& out, const RivetResult<T>& result) {
  if (!result.has_value()) return out << "failure(" << result.error().description() << ")";
  if constexpr (std::is_void_v<T>) {
    return out << "success";
  } else if constexpr (requires(std::ostream & o, const T& v) { o << v; }) {
    return out << "success(" << result.value() << ")";
  } else {
    return out << "success(...)";
  }
}

}  // namespace vesp::rivet
