// An attendee or organiser of a calendar item.
#pragma once

#include <optional>
#include <string>

#include "support/platform/EKTypes.h"
#include "support/platform/NSObject.h"
#include "support/platform/URL.h"

namespace vesp::platform {

class EKParticipant : public NSObject {
 public:
  virtual bool isCurrentUser() const = 0;
  virtual std::optional<std::string> name() const = 0;
  virtual EKParticipantRole participantRole() const = 0;
  virtual EKParticipantStatus participantStatus() const = 0;
  virtual EKParticipantType participantType() const = 0;
  virtual platform::URL URL() const = 0;
};

}  // namespace vesp::platform
