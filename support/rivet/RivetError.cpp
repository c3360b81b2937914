#include "support/rivet/RivetError.h"

#include <sstream>

namespace vesp::rivet {

RivetError::RivetError(std::string message, std::optional<RivetArgs> args, std::string fileName,
                       std::string functionName, std::uint64_t lineNumber,
                       std::optional<platform::NSError> frameworkError)
    : message_(std::move(message)),
      args_(std::move(args)),
      fileName_(std::move(fileName)),
      functionName_(std::move(functionName)),
      lineNumber_(lineNumber),
      frameworkError_(std::move(frameworkError)) {}

RivetError RivetError::wrapping(RivetError inner, std::optional<RivetArgs> args, std::string fileName,
                                std::string functionName, std::uint64_t lineNumber) {
  std::string message = inner.message_;
  RivetError outer(std::move(message), std::move(args), std::move(fileName), std::move(functionName), lineNumber);
  outer.cause_ = std::make_shared<const RivetError>(std::move(inner));
  return outer;
}

std::vector<const RivetError*> RivetError::chain() const {
  std::vector<const RivetError*> links;
  for (const RivetError* link = this; link != nullptr; link = link->cause()) links.push_back(link);
  return links;
}

std::string RivetError::linkDescription() const {
  std::ostringstream out;
  out << RivetValue(message_).description() << " (" << fileName_ << ", " << functionName_ << ", line " << lineNumber_
      << ")";
  if (args_) out << " args " << args_->description();
  if (frameworkError_) out << " framework error " << *frameworkError_;
  return out.str();
}

std::string RivetError::description() const {
  std::string out;
  for (const RivetError* link : chain()) {
    if (!out.empty()) out += "\n  caused by ";
    out += link->linkDescription();
  }
  return out;
}

bool operator==(const RivetError& lhs, const RivetError& rhs) {
  return lhs.message_ == rhs.message_ && lhs.args_ == rhs.args_ && lhs.fileName_ == rhs.fileName_ &&
         lhs.functionName_ == rhs.functionName_ && lhs.lineNumber_ == rhs.lineNumber_ &&
         lhs.frameworkError_ == rhs.frameworkError_;
}

std::ostream& operator<<(std::ostream& out, const RivetError& error) { return out << error.description(); }

}  // namespace vesp::rivet
