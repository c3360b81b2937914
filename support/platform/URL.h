// A link, held as its absolute text ("https://example.org/a", "mailto:ann@example.org").
#pragma once

#include <functional>
#include <ostream>
#include <string>

namespace vesp::platform {

class URL {
 public:
  explicit URL(std::string absoluteString) : absoluteString_(std::move(absoluteString)) {}
  const std::string& absoluteString() const { return absoluteString_; }
  // The scheme before the first ':', or empty when there is none.
  std::string scheme() const {
    auto colon = absoluteString_.find(':');
    return colon == std::string::npos ? std::string() : absoluteString_.substr(0, colon);
  }
  friend bool operator==(const URL&, const URL&) = default;

 private:
  std::string absoluteString_;
};

inline std::ostream& operator<<(std::ostream& out, const URL& url) { return out << url.absoluteString(); }

}  // namespace vesp::platform

template <>
struct std::hash<vesp::platform::URL> {
  std::size_t operator()(const vesp::platform::URL& url) const noexcept {
    return std::hash<std::string>{}(url.absoluteString());
  }
};
