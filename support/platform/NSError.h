// The platform's error value: a domain, a code and a readable description.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace vesp::platform {

class NSError {
 public:
  NSError(std::string domain, std::int64_t code, std::string localizedDescription)
      : domain_(std::move(domain)), code_(code), localizedDescription_(std::move(localizedDescription)) {}

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const std::string& localizedDescription() const { return localizedDescription_; }

  friend bool operator==(const NSError&, const NSError&) = default;

 private:
  std::string domain_;
  std::int64_t code_;
  std::string localizedDescription_;
};

inline std::ostream& operator<<(std::ostream& out, const NSError& error) {
  return out << "NSError(" << error.domain() << ", " << error.code() << ", \"" << error.localizedDescription()
             << "\")";
}

}  // namespace vesp::platform
