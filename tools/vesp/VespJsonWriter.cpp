#include "tools/vesp/VespJsonWriter.h"

#include <charconv>
#include <stdexcept>

#include "platforms/vdir/VdirText.h"

namespace vesp::tool {

namespace {

constexpr std::size_t kFlushAt = 1 << 16;

}  // namespace

VespJsonWriter::VespJsonWriter(std::ostream& out, bool pretty) : out_(out), pretty_(pretty) {
  buffer_.reserve(kFlushAt + 4096);
}

VespJsonWriter::~VespJsonWriter() { flush(); }

void VespJsonWriter::flush() {
  out_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
  buffer_.clear();
}

void VespJsonWriter::raw(std::string_view text) { buffer_.append(text); }

void VespJsonWriter::newLine() {
  buffer_ += '\n';
  buffer_.append(2 * levels_.size(), ' ');
}

// A value inside an array is preceded by a comma after the first, and by a line break when pretty;
// a member's value follows its name.
void VespJsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (levels_.empty()) return;
  Level& level = levels_.back();
  if (level.object) throw std::logic_error("JSON writer: an object member without a name");
  if (!level.empty) buffer_ += ',';
  level.empty = false;
  if (pretty_) newLine();
}

VespJsonWriter& VespJsonWriter::key(std::string_view name) {
  if (levels_.empty() || !levels_.back().object || afterKey_)
    throw std::logic_error("JSON writer: a name outside an object");
  Level& level = levels_.back();
  if (!level.empty && !(level.lastKey < name))
    throw std::logic_error("JSON writer: \"" + std::string(name) + "\" after \"" + std::string(level.lastKey) + "\"");
  if (!level.empty) buffer_ += ',';
  level.empty = false;
  level.lastKey = name;
  if (pretty_) newLine();
  quoted(name);
  buffer_ += pretty_ ? ": " : ":";
  afterKey_ = true;
  return *this;
}

void VespJsonWriter::open(char bracket, bool object) {
  beforeValue();
  buffer_ += bracket;
  levels_.push_back(Level{object, true, {}});
}

void VespJsonWriter::close(char bracket) {
  if (levels_.empty() || afterKey_ || levels_.back().object != (bracket == '}'))
    throw std::logic_error(std::string("JSON writer: a '") + bracket + "' that closes nothing open");
  const bool empty = levels_.back().empty;
  levels_.pop_back();
  if (pretty_ && !empty) newLine();
  buffer_ += bracket;
  if (buffer_.size() >= kFlushAt) flush();
}

void VespJsonWriter::beginObject() { open('{', true); }
void VespJsonWriter::endObject() { close('}'); }
void VespJsonWriter::beginArray() { open('[', false); }
void VespJsonWriter::endArray() { close(']'); }

void VespJsonWriter::string(std::string_view text) {
  beforeValue();
  quoted(text);
}

void VespJsonWriter::quoted(std::string_view text) {
  const std::size_t start = buffer_.size();
  buffer_ += '"';
  bool verified = false;  // the text from its first non-ASCII byte on is valid UTF-8
  std::size_t written = 0;  // the text before this is in the buffer; runs that need no escape go in whole
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto c = static_cast<unsigned char>(text[at]);
    if (c >= 0x80) {
      // UTF-8 is written as it is. Text that is not goes through the JSON library's own escaping,
      // which replaces each invalid sequence with U+FFFD.
      if (!verified && !vdir::isValidUtf8(text.substr(at))) {
        buffer_.resize(start);
        buffer_.append(
            nlohmann::json(std::string(text)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
        return;
      }
      verified = true;
      continue;
    }
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    buffer_.append(text.substr(written, at - written));
    written = at + 1;
    switch (c) {
      case '"': buffer_ += "\\\""; break;
      case '\\': buffer_ += "\\\\"; break;
      case '\b': buffer_ += "\\b"; break;
      case '\f': buffer_ += "\\f"; break;
      case '\n': buffer_ += "\\n"; break;
      case '\r': buffer_ += "\\r"; break;
      case '\t': buffer_ += "\\t"; break;
      default: {
        static constexpr char kHex[] = "0123456789abcdef";
        buffer_ += "\\u00";
        buffer_ += kHex[c >> 4];
        buffer_ += kHex[c & 0xF];
      }
    }
  }
  buffer_.append(text.substr(written));
  buffer_ += '"';
}

void VespJsonWriter::number(std::int64_t value) {
  beforeValue();
  char text[24];
  buffer_.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

void VespJsonWriter::number(std::uint64_t value) {
  beforeValue();
  char text[24];
  buffer_.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

void VespJsonWriter::number(double value) {
  beforeValue();
  buffer_.append(nlohmann::json(value).dump());
}

void VespJsonWriter::boolean(bool value) {
  beforeValue();
  raw(value ? "true" : "false");
}

void VespJsonWriter::null() {
  beforeValue();
  raw("null");
}

void VespJsonWriter::value(const nlohmann::json& document) {
  switch (document.type()) {
    case nlohmann::json::value_t::object:
      beginObject();
      for (const auto& [name, member] : document.items()) {
        key(name);
        value(member);
      }
      endObject();
      return;
    case nlohmann::json::value_t::array:
      beginArray();
      for (const auto& element : document) value(element);
      endArray();
      return;
    case nlohmann::json::value_t::string: string(document.get_ref<const std::string&>()); return;
    default:
      beforeValue();
      buffer_.append(document.dump());
  }
}

void VespJsonWriter::endLine() {
  buffer_ += '\n';
  if (levels_.empty()) flush();
}

}  // namespace vesp::tool
