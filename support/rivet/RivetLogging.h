// Loggers. The library reports two kinds of thing it cannot return to anybody: failures of work
// that began outside any caller, and anomalies that it tolerates.
//
// Thread safety: every logger must accept reports from any thread at once.
#pragma once

#include "support/rivet/RivetError.h"
#include "support/rivet/RivetVia.h"

namespace vesp::rivet {

class RivetLogging {
 public:
  virtual ~RivetLogging() = default;

  // Reports a failure that could not be returned to a caller (a failed notification handler,
  // completion handler or picker callback).
  virtual void reportFailure(const RivetError& error, const RivetVia& via) = 0;
  // Reports an anomaly that the library tolerates (an unknown platform status, say).
  virtual void reportAnomaly(const RivetError& error, const RivetVia& via) = 0;
};

}  // namespace vesp::rivet
