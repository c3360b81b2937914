// JSON text written as it is made, with no document in memory: the vesp program prints tens of
// thousands of records this way. The layout is exactly nlohmann::json's dump of the same document
// (members in ascending key order, which the writer checks; pretty: two spaces of indentation per
// level; compact: no spaces at all), so either way of printing gives the same bytes.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace vesp::tool {

class VespJsonWriter {
 public:
  VespJsonWriter(std::ostream& out, bool pretty);
  VespJsonWriter(const VespJsonWriter&) = delete;
  VespJsonWriter& operator=(const VespJsonWriter&) = delete;
  ~VespJsonWriter();  // flushes

  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  // The next member's name. Names must ascend within an object, as a dumped document's do
  // (std::logic_error otherwise); they must outlive the object (literals, in practice).
  VespJsonWriter& key(std::string_view name);

  void string(std::string_view text);  // invalid UTF-8 becomes U+FFFD, as dump's "replace" does
  void number(std::int64_t value);
  void number(std::uint64_t value);
  void number(double value);
  template <class T>
  void number(T) = delete;  // no silent conversion: an integer prints as 3, a double as 3.0
  void boolean(bool value);
  void null();
  void value(const nlohmann::json& document);

  // A line break after a top-level value, and everything written so far handed to the stream.
  void endLine();
  void flush();

 private:
  struct Level {
    bool object = false;
    bool empty = true;
    std::string_view lastKey;
  };

  void beforeValue();
  void newLine();
  void open(char bracket, bool object);
  void close(char bracket);
  void raw(std::string_view text);
  void quoted(std::string_view text);

  std::ostream& out_;
  bool pretty_;
  bool afterKey_ = false;
  std::vector<Level> levels_;
  std::string buffer_;
};

}  // namespace vesp::tool
