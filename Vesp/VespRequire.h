// Required platform attributes. The platform reporting one absent is a broken invariant: the
// process stops with a diagnostic naming the record and the attribute.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/rivet/RivetFatal.h"

namespace vesp::detail {

[[noreturn]] inline void missingAttribute(const char* record, const char* attribute) {
  rivet::fatalError(std::string("Broken platform invariant: ") + record + " requires " + attribute +
                    ", which the platform reports absent");
}

template <class T>
T required(std::optional<T> value, const char* record, const char* attribute) {
  if (!value) missingAttribute(record, attribute);
  return std::move(*value);
}

template <class T>
std::shared_ptr<T> required(std::shared_ptr<T> value, const char* record, const char* attribute) {
  if (!value) missingAttribute(record, attribute);
  return value;
}

// Converts every element of an optional platform list; absent stays absent, empty stays empty.
template <class Record, class Element>
std::optional<std::vector<Record>> convertList(const std::optional<std::vector<std::shared_ptr<Element>>>& list) {
  if (!list) return std::nullopt;
  std::vector<Record> records;
  records.reserve(list->size());
  for (const auto& element : *list) records.emplace_back(*required(element, "a platform list", "its elements"));
  return records;
}

}  // namespace vesp::detail
