// A logger that writes one JSON object per report, on one line: time, level ("failure" or
// "anomaly"), message, args, the error chain (outermost first) and the via chain (innermost first).
//
// Thread safety: reports from any thread are serialised; each line is written whole.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "support/rivet/RivetLogging.h"
#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetResult.h"

namespace vesp::rivet {

class RivetJsonLineLogger final : public RivetLogging {
 public:
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  // Writes to `out`. REQUIRES: `out` outlives the logger.
  static std::shared_ptr<RivetJsonLineLogger> toStream(std::ostream& out, Clock clock = {});
  // Appends to the file at `path`, creating it; fails when it cannot be opened.
  static RivetResult<std::shared_ptr<RivetJsonLineLogger>> toFile(const std::filesystem::path& path,
                                                                  Clock clock = {});

  void reportFailure(const RivetError& error, const RivetVia& via) override;
  void reportAnomaly(const RivetError& error, const RivetVia& via) override;

  // The JSON line (without newline) for one report; exposed for tests and other sinks.
  static std::string renderLine(std::string_view level, const RivetError& error, const RivetVia& via,
                                std::chrono::system_clock::time_point time);

 private:
  RivetJsonLineLogger(std::ostream* out, std::unique_ptr<std::ofstream> file, Clock clock);
  void write(std::string_view level, const RivetError& error, const RivetVia& via) RIVET_EXCLUDES(mutex_);

  // Constant after construction; the stream they lead to is written only under mutex_, one whole
  // line at a time.
  std::unique_ptr<std::ofstream> file_;
  std::ostream* out_ RIVET_PT_GUARDED_BY(mutex_);
  Clock clock_;
  RivetMutex mutex_;
};

}  // namespace vesp::rivet
