// A dynamic platform value, as a generic key-value read or an untyped list returns it: a number,
// a text, a date, a link or null. Callers test its kind before reading it.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <variant>

#include "support/platform/Date.h"
#include "support/platform/NSNumber.h"
#include "support/platform/URL.h"

namespace vesp::platform {

struct NSNull {
  friend bool operator==(NSNull, NSNull) { return true; }
};

class AnyObject {
 public:
  AnyObject(NSNumber number) : value_(number) {}
  AnyObject(std::string text) : value_(std::move(text)) {}
  AnyObject(const char* text) : value_(std::string(text)) {}
  AnyObject(Date date) : value_(date) {}
  AnyObject(URL url) : value_(std::move(url)) {}
  AnyObject(NSNull null) : value_(null) {}

  bool isNumber() const { return std::holds_alternative<NSNumber>(value_); }
  const NSNumber* number() const { return std::get_if<NSNumber>(&value_); }
  const std::string* string() const { return std::get_if<std::string>(&value_); }
  const Date* date() const { return std::get_if<Date>(&value_); }
  const URL* url() const { return std::get_if<URL>(&value_); }
  bool isNull() const { return std::holds_alternative<NSNull>(value_); }
  // The platform's name of the value's class, for diagnostics: NSNumber, NSString, NSDate, NSURL, NSNull.
  const char* className() const;

  friend bool operator==(const AnyObject&, const AnyObject&) = default;

 private:
  std::variant<NSNumber, std::string, Date, URL, NSNull> value_;
};

std::ostream& operator<<(std::ostream& out, const AnyObject& object);

}  // namespace vesp::platform
