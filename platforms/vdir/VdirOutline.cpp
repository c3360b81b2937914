#include "platforms/vdir/VdirOutline.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace vesp::vdir {

namespace {

// Whether `line` starts with the property name `word` (in any case), as the parser reads names.
bool namedLine(std::string_view line, std::string_view word) {
  if (line.size() <= word.size() || (line[word.size()] != ':' && line[word.size()] != ';')) return false;
  for (std::size_t i = 0; i < word.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(line[i])) != word[i]) return false;
  return true;
}

bool plainComponentName(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name)
    if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-')) return false;
  return true;
}

constexpr std::size_t kLongestKnownLine = 256, kMostKnownLines = 1024;

// Follows a text's component lines; see outlineOf.
class Outliner {
 public:
  explicit Outliner(std::string_view text) : text_(text) {}

  // False when a line is not plain: the outline is then empty.
  bool line(std::size_t at, std::size_t next, std::string_view line) {
    const bool folded = !line.empty() && (line[0] == ' ' || line[0] == '\t');
    if (folded) {
      if (mustNotFold_) return false;
      // A calendar line goes on (the line before was it or its own folded line).
      if (auto& lines = outline_.calendarLines; !lines.empty() && lines.back().to == at) {
        lines.back().text = text_.substr(lines.back().from, at + line.size() - lines.back().from);
        lines.back().to = next;
      }
      return true;
    }
    mustNotFold_ = false;
    const bool begins = namedLine(line, "BEGIN"), ends = namedLine(line, "END");
    if (begins || ends) return component(at, next, line, begins);
    if (zone_ && open_.size() == 2 && namedLine(line, "TZID")) {
      // The zone's own TZID, written plainly once: the parser gives the same value.
      if (!line.starts_with("TZID:") || !zone_->tzid.empty()) return false;
      zone_->tzid = line.substr(5);
      mustNotFold_ = true;
      return !zone_->tzid.empty() && zone_->tzid.find('\\') == std::string_view::npos;
    }
    if (inCalendar() && !line.empty()) outline_.calendarLines.push_back({line, at, next});
    return true;
  }

  VdirOutline take() { return std::move(outline_); }

 private:
  bool inCalendar() const { return open_.size() == 1 && open_.front() == "VCALENDAR"; }

  bool component(std::size_t at, std::size_t next, std::string_view line, bool begins) {
    if (!line.starts_with(begins ? "BEGIN:" : "END:")) return false;
    const std::string_view name = line.substr(begins ? 6 : 4);
    if (!plainComponentName(name)) return false;
    mustNotFold_ = true;
    if (begins) {
      if (name == "VTIMEZONE" && inCalendar()) zone_ = VdirWrittenZone{{}, {}, at, 0};
      open_.push_back(name);
      return true;
    }
    if (open_.empty() || open_.back() != name) return false;
    open_.pop_back();
    if (!zone_ || !inCalendar()) return true;
    if (zone_->tzid.empty()) return false;
    for (const auto& other : outline_.zones)
      if (other.tzid == zone_->tzid) return false;
    zone_->text = text_.substr(zone_->from, at + line.size() - zone_->from);
    zone_->to = next;
    outline_.zones.push_back(*zone_);
    zone_.reset();
    return true;
  }

  std::string_view text_;
  VdirOutline outline_;
  std::vector<std::string_view> open_;    // the components the lines so far opened, outermost first
  std::optional<VdirWrittenZone> zone_;   // the one being read
  bool mustNotFold_ = false;              // the line before was a component or TZID line
};

}  // namespace

VdirOutline outlineOf(std::string_view text) {
  Outliner outliner(text);
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t lineEnd = std::min(text.find('\n', at), text.size());
    const std::size_t next = std::min(lineEnd + 1, text.size());
    std::string_view line = text.substr(at, lineEnd - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!outliner.line(at, next, line)) return {};
    at = next;
  }
  return outliner.take();
}

bool VdirKnownLines::contains(std::string_view line) const {
  rivet::RivetMutexLock lock(mutex_);
  return lines_.find(line) != lines_.end();
}

void VdirKnownLines::add(std::string_view line) {
  if (line.size() > kLongestKnownLine) return;
  rivet::RivetMutexLock lock(mutex_);
  if (lines_.size() < kMostKnownLines) lines_.emplace(line);
}

}  // namespace vesp::vdir
