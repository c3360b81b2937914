// The context of a failure, and the chain of contexts that a wrapped failure carries.
//
// Thread safety: an error is an immutable value; copies share their cause.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/platform/NSError.h"
#include "support/rivet/RivetValue.h"

namespace vesp::rivet {

class RivetError {
 public:
  // A fresh failure, built where it arises.
  RivetError(std::string message, std::optional<RivetArgs> args, std::string fileName, std::string functionName,
             std::uint64_t lineNumber, std::optional<platform::NSError> frameworkError = std::nullopt);

  // A failure that wraps `inner` with the context of an outer operation. It keeps the inner
  // failure's message, has no framework error of its own, and holds `inner` as its cause.
  static RivetError wrapping(RivetError inner, std::optional<RivetArgs> args, std::string fileName,
                             std::string functionName, std::uint64_t lineNumber);

  const std::string& message() const { return message_; }
  const std::optional<RivetArgs>& args() const { return args_; }
  const std::string& fileName() const { return fileName_; }
  const std::string& functionName() const { return functionName_; }
  std::uint64_t lineNumber() const { return lineNumber_; }
  const std::optional<platform::NSError>& frameworkError() const { return frameworkError_; }
  // The wrapped failure, or null for a fresh one.
  const RivetError* cause() const { return cause_.get(); }

  // This error and its causes, outermost first.
  std::vector<const RivetError*> chain() const;

  // This link alone: "message" (file, function, line N) args [...] framework error ...
  std::string linkDescription() const;
  // The whole chain as one text, outermost first, one line per link.
  std::string description() const;

  // Compares the error's own context; the cause is not compared.
  friend bool operator==(const RivetError& lhs, const RivetError& rhs);

 private:
  std::string message_;
  std::optional<RivetArgs> args_;
  std::string fileName_;
  std::string functionName_;
  std::uint64_t lineNumber_;
  std::optional<platform::NSError> frameworkError_;
  std::shared_ptr<const RivetError> cause_;
};

std::ostream& operator<<(std::ostream& out, const RivetError& error);

}  // namespace vesp::rivet
