// An iCalendar file as its components and content lines, kept byte for byte: writing it back
// gives the same bytes, and an edit rewrites only the lines it touches. Whatever a writer does not
// understand (X- properties and components, parameters, escapes, folding, line endings, lines that
// are not content lines at all) survives an edit untouched.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/rivet/RivetResult.h"

namespace vesp::vdir {

struct VdirParameter {
  std::string name;                 // upper case
  std::vector<std::string> values;  // as written, without their quotes
  bool operator==(const VdirParameter&) const = default;
};

// One unfolded content line: NAME;PARAM=VALUE,...:value.
class VdirContentLine {
 public:
  VdirContentLine() = default;
  // `name` is stored in upper case; `value` is the raw value (text escapes applied by the caller).
  VdirContentLine(std::string name, std::vector<VdirParameter> parameters, std::string value);

  // The line, or nothing when `unfolded` is not a content line (no name, no colon, a bad parameter).
  static std::optional<VdirContentLine> parse(std::string_view unfolded);

  const std::string& name() const { return name_; }
  const std::vector<VdirParameter>& parameters() const { return parameters_; }
  const std::string& value() const { return value_; }
  // The first value of the parameter `name` (any case), or null.
  const std::string* parameter(std::string_view name) const;
  // Sets (or, with no values, removes) the parameter `name`, keeping its place.
  void setParameter(std::string_view name, std::vector<std::string> values);
  void setValue(std::string value) { value_ = std::move(value); }

  // The line as written, unfolded and without its line end; parameter values are quoted when they
  // hold ':', ';' or ','.
  std::string text() const;

  bool operator==(const VdirContentLine&) const = default;

 private:
  std::string name_;
  std::vector<VdirParameter> parameters_;
  std::string value_;
};

// A content line of a component, with the bytes it was read from (folds and line end included).
// A line that could not be parsed is kept as `raw` bytes and written back as they were.
struct VdirProperty {
  std::optional<VdirContentLine> line;  // absent: not a content line
  std::string original;                 // empty: new or changed, written from `line`
};

class VdirComponent {
 public:
  VdirComponent() = default;
  explicit VdirComponent(std::string name);  // a new, empty component (stored in upper case)

  const std::string& name() const { return name_; }

  // Content lines.
  const VdirContentLine* property(std::string_view name) const;  // the first of that name
  std::vector<const VdirContentLine*> properties(std::string_view name) const;
  std::vector<const VdirProperty*> allProperties() const;
  // Replaces the first property of the line's name in place and removes the others of that name,
  // or adds the line after the last property. Returns false (and changes nothing) when the
  // component already holds exactly this one line.
  bool set(const VdirContentLine& line);
  void add(const VdirContentLine& line);  // after the last property
  std::size_t remove(std::string_view name);  // every property of that name; how many went
  // Removes the properties of `name` for which `matches` is true; how many went.
  template <class Predicate>
  std::size_t removeIf(std::string_view name, Predicate matches);

  // Sub-components, in file order.
  const std::vector<VdirComponent>& components() const { return components_; }
  std::vector<VdirComponent>& components() { return components_; }
  void addComponent(VdirComponent component);  // after the last one
  template <class Predicate>
  std::size_t removeComponents(Predicate matches);

  // The component as it would be written, with `lineEnd` for every line it writes anew.
  void write(std::string& out, std::string_view lineEnd) const;

 private:
  friend class VdirDocument;
  friend struct VdirDocumentParser;
  std::size_t firstComponentSlot() const;
  void noteRemovedProperty(std::size_t index);
  void insertProperty(VdirProperty property);

  std::string name_;
  std::string begin_, end_;  // the BEGIN and END lines as read; empty: written anew
  std::vector<VdirProperty> properties_;
  std::vector<VdirComponent> components_;
  // Where each sub-component stands: after that many properties.
  std::vector<std::size_t> componentSlots_;
};

// A whole file: its top-level components (usually one VCALENDAR) and any text around them.
class VdirDocument {
 public:
  // Fails only when the components do not nest (a BEGIN without its END, an END without its
  // BEGIN, names that do not match); every other oddity is kept as it stands.
  static rivet::RivetResult<VdirDocument> parse(std::string_view text);

  const std::vector<VdirComponent>& components() const { return components_; }
  std::vector<VdirComponent>& components() { return components_; }
  // The first VCALENDAR, or null.
  VdirComponent* calendar();
  const VdirComponent* calendar() const;

  // The line end the file uses (that of its first line; "\r\n" for an empty file): new lines get it.
  const std::string& lineEnd() const { return lineEnd_; }

  // The file's bytes: unchanged lines as they were read, new and changed lines folded at 75 octets
  // without splitting a UTF-8 character.
  std::string text() const;
  // Whether text() differs from the bytes the document was read from.
  bool changed() const { return text() != original_; }

 private:
  friend struct VdirDocumentParser;
  std::vector<VdirComponent> components_;
  // The text before each component as read, and (last) the text after them all.
  std::vector<std::string> between_{std::string()};
  std::string lineEnd_ = "\r\n";
  std::string original_;
};

// `line` (unfolded, without its end) folded at 75 octets per physical line, each continuation
// starting with a space, never inside a UTF-8 sequence; every physical line ends with `lineEnd`.
// A line break inside `line`, which no content line may hold, is written as a space.
std::string foldedLine(std::string_view line, std::string_view lineEnd);

// `text` with every line end (CRLF, CR or LF) written as `lineEnd`: text brought into a file takes
// the file's own line ends.
std::string withLineEnd(std::string_view text, std::string_view lineEnd);

// RFC 5545 TEXT escaping: backslash, semicolon, comma and line breaks (CRLF, CR or LF become "\n").
std::string escapedText(std::string_view text);
// The inverse: "\n" and "\N" become a line feed, "\\", "\;", "\," their character; any other
// backslash is kept as written.
std::string unescapedText(std::string_view text);

// Whether two property or component names are the same (they are case-insensitive).
bool sameName(std::string_view a, std::string_view b);

template <class Predicate>
std::size_t VdirComponent::removeIf(std::string_view name, Predicate matches) {
  std::size_t removed = 0;
  for (std::size_t at = properties_.size(); at-- > 0;) {
    const auto& line = properties_[at].line;
    if (!line || !sameName(line->name(), name) || !matches(*line)) continue;
    properties_.erase(properties_.begin() + static_cast<std::ptrdiff_t>(at));
    noteRemovedProperty(at);
    ++removed;
  }
  return removed;
}

template <class Predicate>
std::size_t VdirComponent::removeComponents(Predicate matches) {
  std::size_t removed = 0;
  for (std::size_t at = components_.size(); at-- > 0;) {
    if (!matches(std::as_const(components_[at]))) continue;
    components_.erase(components_.begin() + static_cast<std::ptrdiff_t>(at));
    componentSlots_.erase(componentSlots_.begin() + static_cast<std::ptrdiff_t>(at));
    ++removed;
  }
  return removed;
}

}  // namespace vesp::vdir
