#include "platforms/vdir/VdirDocument.h"

#include <algorithm>

namespace vesp::vdir {

namespace {

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

std::string upperCase(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = upper(c);
  return result;
}

bool isNameChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

// Reads a name (one or more name characters) at `at`; empty when there is none.
std::string_view readName(std::string_view text, std::size_t& at) {
  std::size_t start = at;
  while (at < text.size() && isNameChar(text[at])) ++at;
  return text.substr(start, at - start);
}

// Reads one parameter value at `at`: quoted up to its closing quote, or up to ',', ';' or ':'.
std::optional<std::string> readParameterValue(std::string_view text, std::size_t& at) {
  if (at < text.size() && text[at] == '"') {
    std::size_t close = text.find('"', at + 1);
    if (close == std::string_view::npos) return std::nullopt;
    std::string value(text.substr(at + 1, close - at - 1));
    at = close + 1;
    return value;
  }
  std::size_t end = text.find_first_of(",;:\"", at);
  if (end == std::string_view::npos) return std::nullopt;  // a line needs its ':' before the value
  if (text[end] == '"') return std::nullopt;               // a quote inside an unquoted value
  std::string value(text.substr(at, end - at));
  at = end;
  return value;
}

bool isContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// A physical line of a file: its content and the line end that followed it ("" at the very end).
struct PhysicalLine {
  std::string_view content, end;
};

std::vector<PhysicalLine> physicalLines(std::string_view text) {
  std::vector<PhysicalLine> lines;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t feed = text.find('\n', at);
    if (feed == std::string_view::npos) {
      lines.push_back({text.substr(at), {}});
      break;
    }
    std::size_t contentEnd = feed > at && text[feed - 1] == '\r' ? feed - 1 : feed;
    lines.push_back({text.substr(at, contentEnd - at), text.substr(contentEnd, feed + 1 - contentEnd)});
    at = feed + 1;
  }
  return lines;
}

// A logical line: the bytes it was read from (all its folds) and its unfolded content.
struct LogicalLine {
  std::string_view original;
  std::string unfolded;
};

std::vector<LogicalLine> logicalLines(std::string_view text) {
  std::vector<LogicalLine> lines;
  for (const PhysicalLine& physical : physicalLines(text)) {
    const char* end = physical.content.data() + physical.content.size() + physical.end.size();
    bool continues = !lines.empty() && !physical.content.empty() &&
                     (physical.content.front() == ' ' || physical.content.front() == '\t');
    if (continues) {
      LogicalLine& last = lines.back();
      last.unfolded.append(physical.content.substr(1));
      last.original = std::string_view(last.original.data(), static_cast<std::size_t>(end - last.original.data()));
    } else {
      const char* start = physical.content.data();
      lines.push_back({std::string_view(start, static_cast<std::size_t>(end - start)), std::string(physical.content)});
    }
  }
  return lines;
}

rivet::RivetError documentError(std::string problem, std::uint64_t line) {
  return rivet::RivetError(std::move(problem), std::nullopt, "VdirDocument", "parse", line);
}

}  // namespace

bool sameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t at = 0; at < a.size(); ++at) {
    if (upper(a[at]) != upper(b[at])) return false;
  }
  return true;
}

// VdirContentLine

VdirContentLine::VdirContentLine(std::string name, std::vector<VdirParameter> parameters, std::string value)
    : name_(upperCase(name)), parameters_(std::move(parameters)), value_(std::move(value)) {
  for (VdirParameter& parameter : parameters_) parameter.name = upperCase(parameter.name);
}

std::optional<VdirContentLine> VdirContentLine::parse(std::string_view unfolded) {
  std::size_t at = 0;
  std::string_view name = readName(unfolded, at);
  if (name.empty()) return std::nullopt;
  std::vector<VdirParameter> parameters;
  while (at < unfolded.size() && unfolded[at] == ';') {
    ++at;
    std::string_view parameterName = readName(unfolded, at);
    if (parameterName.empty() || at >= unfolded.size() || unfolded[at] != '=') return std::nullopt;
    ++at;
    VdirParameter parameter{upperCase(parameterName), {}};
    for (;;) {
      std::optional<std::string> value = readParameterValue(unfolded, at);
      if (!value) return std::nullopt;
      parameter.values.push_back(std::move(*value));
      if (at < unfolded.size() && unfolded[at] == ',') {
        ++at;
        continue;
      }
      break;
    }
    parameters.push_back(std::move(parameter));
  }
  if (at >= unfolded.size() || unfolded[at] != ':') return std::nullopt;
  VdirContentLine line;
  line.name_ = upperCase(name);
  line.parameters_ = std::move(parameters);
  line.value_ = std::string(unfolded.substr(at + 1));
  return line;
}

const std::string* VdirContentLine::parameter(std::string_view name) const {
  for (const VdirParameter& parameter : parameters_) {
    if (sameName(parameter.name, name) && !parameter.values.empty()) return &parameter.values.front();
  }
  return nullptr;
}

void VdirContentLine::setParameter(std::string_view name, std::vector<std::string> values) {
  auto found = std::find_if(parameters_.begin(), parameters_.end(),
                            [&](const VdirParameter& parameter) { return sameName(parameter.name, name); });
  if (values.empty()) {
    if (found != parameters_.end()) parameters_.erase(found);
    return;
  }
  if (found != parameters_.end()) {
    found->values = std::move(values);
  } else {
    parameters_.push_back({upperCase(name), std::move(values)});
  }
}

std::string VdirContentLine::text() const {
  std::string text = name_;
  for (const VdirParameter& parameter : parameters_) {
    text.append(1, ';').append(parameter.name).append(1, '=');
    for (std::size_t at = 0; at < parameter.values.size(); ++at) {
      const std::string& value = parameter.values[at];
      if (at > 0) text.append(1, ',');
      if (value.find_first_of(":;,") != std::string::npos) {
        text.append(1, '"').append(value).append(1, '"');
      } else {
        text.append(value);
      }
    }
  }
  return text.append(1, ':').append(value_);
}

// VdirComponent

VdirComponent::VdirComponent(std::string name) : name_(upperCase(name)) {}

const VdirContentLine* VdirComponent::property(std::string_view name) const {
  for (const VdirProperty& property : properties_) {
    if (property.line && sameName(property.line->name(), name)) return &*property.line;
  }
  return nullptr;
}

std::vector<const VdirContentLine*> VdirComponent::properties(std::string_view name) const {
  std::vector<const VdirContentLine*> found;
  for (const VdirProperty& property : properties_) {
    if (property.line && sameName(property.line->name(), name)) found.push_back(&*property.line);
  }
  return found;
}

std::vector<const VdirProperty*> VdirComponent::allProperties() const {
  std::vector<const VdirProperty*> all;
  all.reserve(properties_.size());
  for (const VdirProperty& property : properties_) all.push_back(&property);
  return all;
}

bool VdirComponent::set(const VdirContentLine& line) {
  std::optional<std::size_t> first;
  std::size_t count = 0;
  for (std::size_t at = 0; at < properties_.size(); ++at) {
    const auto& existing = properties_[at].line;
    if (!existing || !sameName(existing->name(), line.name())) continue;
    if (!first) first = at;
    ++count;
  }
  if (!first) {
    insertProperty({line, {}});
    return true;
  }
  if (count == 1 && *properties_[*first].line == line) return false;
  properties_[*first] = {line, {}};
  for (std::size_t at = properties_.size(); at-- > *first + 1;) {
    const auto& existing = properties_[at].line;
    if (!existing || !sameName(existing->name(), line.name())) continue;
    properties_.erase(properties_.begin() + static_cast<std::ptrdiff_t>(at));
    noteRemovedProperty(at);
  }
  return true;
}

void VdirComponent::add(const VdirContentLine& line) { insertProperty({line, {}}); }

std::size_t VdirComponent::remove(std::string_view name) {
  return removeIf(name, [](const VdirContentLine&) { return true; });
}

void VdirComponent::addComponent(VdirComponent component) {
  components_.push_back(std::move(component));
  componentSlots_.push_back(properties_.size());
}

std::size_t VdirComponent::firstComponentSlot() const {
  std::size_t first = properties_.size();
  for (std::size_t slot : componentSlots_) first = std::min(first, slot);
  return first;
}

// A new property goes after the last property that comes before every sub-component, so that a
// component's own lines stay above its alarms.
void VdirComponent::insertProperty(VdirProperty property) {
  std::size_t at = firstComponentSlot();
  properties_.insert(properties_.begin() + static_cast<std::ptrdiff_t>(at), std::move(property));
  for (std::size_t& slot : componentSlots_) {
    if (slot >= at) ++slot;
  }
}

void VdirComponent::noteRemovedProperty(std::size_t index) {
  for (std::size_t& slot : componentSlots_) {
    if (slot > index) --slot;
  }
}

void VdirComponent::write(std::string& out, std::string_view lineEnd) const {
  if (!begin_.empty()) {
    out.append(begin_);
  } else {
    out.append(foldedLine("BEGIN:" + name_, lineEnd));
  }
  std::size_t next = 0;  // the next sub-component to write
  auto writeComponentsAt = [&](std::size_t slot) {
    for (; next < components_.size() && componentSlots_[next] <= slot; ++next) components_[next].write(out, lineEnd);
  };
  for (std::size_t at = 0; at < properties_.size(); ++at) {
    writeComponentsAt(at);
    const VdirProperty& property = properties_[at];
    if (!property.original.empty() || !property.line) {
      out.append(property.original);
    } else {
      out.append(foldedLine(property.line->text(), lineEnd));
    }
  }
  writeComponentsAt(properties_.size());
  for (; next < components_.size(); ++next) components_[next].write(out, lineEnd);
  if (!end_.empty()) {
    out.append(end_);
  } else {
    out.append(foldedLine("END:" + name_, lineEnd));
  }
}

// VdirDocument

struct VdirDocumentParser {
  static rivet::RivetResult<VdirDocument> parse(std::string_view text) {
    VdirDocument document;
    document.original_ = std::string(text);
    std::vector<LogicalLine> lines = logicalLines(text);
    if (!lines.empty() && lines.front().original.size() >= 1) {
      std::string_view first = lines.front().original;
      document.lineEnd_ = first.size() >= 2 && first.substr(first.size() - 2) == "\r\n" ? "\r\n" : "\n";
      if (first.back() != '\n') document.lineEnd_ = "\r\n";
    }
    std::vector<VdirComponent> open;  // the components being read, innermost last
    std::string between;
    std::size_t number = 0;
    for (const LogicalLine& logical : lines) {
      ++number;
      std::optional<VdirContentLine> line = VdirContentLine::parse(logical.unfolded);
      if (line && line->name() == "BEGIN") {
        VdirComponent component(line->value());
        component.begin_ = std::string(logical.original);
        open.push_back(std::move(component));
        continue;
      }
      if (line && line->name() == "END") {
        if (open.empty()) {
          return documentError("line " + std::to_string(number) + ": END:" + line->value() + " without its BEGIN",
                               __LINE__);
        }
        if (!sameName(open.back().name_, line->value())) {
          return documentError("line " + std::to_string(number) + ": END:" + line->value() + " closes BEGIN:" +
                                   open.back().name_,
                               __LINE__);
        }
        VdirComponent done = std::move(open.back());
        open.pop_back();
        done.end_ = std::string(logical.original);
        if (open.empty()) {
          document.between_.back() = std::move(between);
          between.clear();
          document.components_.push_back(std::move(done));
          document.between_.emplace_back();
        } else {
          open.back().addComponent(std::move(done));
        }
        continue;
      }
      if (open.empty()) {
        between.append(logical.original);
      } else {
        open.back().properties_.push_back({std::move(line), std::string(logical.original)});
      }
    }
    if (!open.empty()) return documentError("BEGIN:" + open.back().name_ + " without its END", __LINE__);
    document.between_.back() = std::move(between);
    return document;
  }
};

rivet::RivetResult<VdirDocument> VdirDocument::parse(std::string_view text) { return VdirDocumentParser::parse(text); }

VdirComponent* VdirDocument::calendar() {
  for (VdirComponent& component : components_) {
    if (component.name() == "VCALENDAR") return &component;
  }
  return nullptr;
}

const VdirComponent* VdirDocument::calendar() const { return const_cast<VdirDocument*>(this)->calendar(); }

std::string VdirDocument::text() const {
  std::string out;
  out.reserve(original_.size() + 256);
  for (std::size_t at = 0; at < components_.size(); ++at) {
    if (at + 1 < between_.size()) out.append(between_[at]);
    components_[at].write(out, lineEnd_);
  }
  out.append(between_.back());
  return out;
}

// Free functions

std::string foldedLine(std::string_view line, std::string_view lineEnd) {
  constexpr std::size_t kOctets = 75;
  std::string out;
  out.reserve(line.size() + line.size() / 60 * (lineEnd.size() + 1) + lineEnd.size());
  std::size_t at = 0;
  bool first = true;
  do {
    std::size_t room = first ? kOctets : kOctets - 1;
    std::size_t cut = std::min(line.size(), at + room);
    if (cut < line.size()) {
      std::size_t backed = cut;
      while (backed > at && isContinuationByte(line[backed])) --backed;
      if (backed > at) cut = backed;
    }
    if (!first) out.append(1, ' ');
    for (char c : line.substr(at, cut - at)) out.append(1, c == '\r' || c == '\n' ? ' ' : c);
    out.append(lineEnd);
    at = cut;
    first = false;
  } while (at < line.size());
  return out;
}

std::string withLineEnd(std::string_view text, std::string_view lineEnd) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\r' || text[at] == '\n') {
      if (text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n') ++at;
      result += lineEnd;
    } else {
      result += text[at];
    }
  }
  return result;
}

std::string escapedText(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (std::size_t at = 0; at < text.size(); ++at) {
    char c = text[at];
    switch (c) {
      case '\\': out.append("\\\\"); break;
      case ';': out.append("\\;"); break;
      case ',': out.append("\\,"); break;
      case '\r':
        if (at + 1 < text.size() && text[at + 1] == '\n') ++at;
        out.append("\\n");
        break;
      case '\n': out.append("\\n"); break;
      default: out.append(1, c);
    }
  }
  return out;
}

std::string unescapedText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    char c = text[at];
    if (c != '\\' || at + 1 == text.size()) {
      out.append(1, c);
      continue;
    }
    char next = text[at + 1];
    if (next == 'n' || next == 'N') {
      out.append(1, '\n');
    } else if (next == '\\' || next == ';' || next == ',') {
      out.append(1, next);
    } else {
      out.append(1, c).append(1, next);
    }
    ++at;
  }
  return out;
}

}  // namespace vesp::vdir
