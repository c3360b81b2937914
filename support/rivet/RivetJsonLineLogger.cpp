#include "support/rivet/RivetJsonLineLogger.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

namespace vesp::rivet {

namespace {

using Json = nlohmann::ordered_json;

Json toJson(const RivetValue& value);

Json toJson(const RivetArgs& args) {
  Json object = Json::object();
  for (const auto& [key, value] : args) object[key] = toJson(value);
  return object;
}

Json toJson(const RivetValue& value) {
  switch (value.kind()) {
    case RivetValue::Kind::null: return nullptr;
    case RivetValue::Kind::boolean: return *value.boolean();
    case RivetValue::Kind::signedInteger: return *value.signedInteger();
    case RivetValue::Kind::unsignedInteger: return *value.unsignedInteger();
    case RivetValue::Kind::floatingPoint: {
      double number = *value.floatingPoint();
      // JSON has no NaN or infinity: keep them readable as text.
      if (number != number || number - number != 0) return value.description();
      return number;
    }
    case RivetValue::Kind::text: return *value.text();
    case RivetValue::Kind::list: {
      Json array = Json::array();
      for (const auto& element : *value.list()) array.push_back(toJson(element));
      return array;
    }
    case RivetValue::Kind::dictionary: return toJson(*value.dictionary());
    case RivetValue::Kind::object: return value.description();
  }
  return nullptr;
}

Json toJson(const std::optional<RivetArgs>& args) { return args ? toJson(*args) : Json(nullptr); }

std::string isoTime(std::chrono::system_clock::time_point time) {
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  std::time_t seconds = static_cast<std::time_t>(millis / 1000);
  long fraction = static_cast<long>(millis % 1000);
  if (fraction < 0) {
    fraction += 1000;
    seconds -= 1;
  }
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char buffer[40];
  std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(buffer + length, sizeof buffer - length, ".%03ldZ", fraction);
  return buffer;
}

}  // namespace

RivetJsonLineLogger::RivetJsonLineLogger(std::ostream* out, std::unique_ptr<std::ofstream> file, Clock clock)
    : file_(std::move(file)), out_(file_ ? file_.get() : out), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return std::chrono::system_clock::now(); };
}

std::shared_ptr<RivetJsonLineLogger> RivetJsonLineLogger::toStream(std::ostream& out, Clock clock) {
  return std::shared_ptr<RivetJsonLineLogger>(new RivetJsonLineLogger(&out, nullptr, std::move(clock)));
}

RivetResult<std::shared_ptr<RivetJsonLineLogger>> RivetJsonLineLogger::toFile(const std::filesystem::path& path,
                                                                            Clock clock) {
  auto file = std::make_unique<std::ofstream>(path, std::ios::app);
  if (!*file) {
    int code = errno;
    return RivetResult<std::shared_ptr<RivetJsonLineLogger>>(
        "Cannot open log file", RivetArgs{{"path", path.string()}}, "RivetJsonLineLogger", "toFile(path:clock:)", __LINE__,
        platform::NSError("NSPOSIXErrorDomain", code, std::strerror(code)));
  }
  return std::shared_ptr<RivetJsonLineLogger>(new RivetJsonLineLogger(nullptr, std::move(file), std::move(clock)));
}

std::string RivetJsonLineLogger::renderLine(std::string_view level, const RivetError& error, const RivetVia& via,
                                            std::chrono::system_clock::time_point time) {
  Json line = Json::object();
  line["time"] = isoTime(time);
  line["level"] = std::string(level);
  line["message"] = error.message();
  line["args"] = toJson(error.args());
  Json errors = Json::array();
  for (const RivetError* link : error.chain()) {
    Json entry = Json::object();
    entry["message"] = link->message();
    entry["args"] = toJson(link->args());
    entry["fileName"] = link->fileName();
    entry["functionName"] = link->functionName();
    entry["lineNumber"] = link->lineNumber();
    if (link->frameworkError()) {
      const auto& framework = *link->frameworkError();
      entry["frameworkError"] = Json{{"domain", framework.domain()},
                                     {"code", framework.code()},
                                     {"description", framework.localizedDescription()}};
    }
    errors.push_back(std::move(entry));
  }
  line["errorChain"] = std::move(errors);
  Json vias = Json::array();
  for (const RivetViaLink& link : via.provenance()) {
    Json entry = Json::object();
    entry["kind"] = link.kind == RivetViaLink::Kind::impetus ? "impetus" : "fork";
    if (link.kind == RivetViaLink::Kind::impetus) entry["name"] = link.name;
    entry["args"] = toJson(link.args);
    entry["fileName"] = link.fileName;
    entry["functionName"] = link.functionName;
    entry["lineNumber"] = link.lineNumber;
    vias.push_back(std::move(entry));
  }
  line["viaChain"] = std::move(vias);
  // Invalid UTF-8 in a message must not stop the report: replace it.
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void RivetJsonLineLogger::write(std::string_view level, const RivetError& error, const RivetVia& via) {
  std::string text = renderLine(level, error, via, clock_());
  text += '\n';
  RivetMutexLock lock(mutex_);
  out_->write(text.data(), static_cast<std::streamsize>(text.size()));
  out_->flush();
}

void RivetJsonLineLogger::reportFailure(const RivetError& error, const RivetVia& via) { write("failure", error, via); }
void RivetJsonLineLogger::reportAnomaly(const RivetError& error, const RivetVia& via) { write("anomaly", error, via); }

}  // namespace vesp::rivet
