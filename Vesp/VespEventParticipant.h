// An attendee or organiser of a calendar item, copied from the platform's participant.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "Vesp/VespParticipantRole.h"
#include "Vesp/VespParticipantStatus.h"
#include "Vesp/VespParticipantType.h"
#include "support/platform/EKParticipant.h"
#include "support/platform/URL.h"

namespace vesp {

class VespEventParticipant {
 public:
  VespEventParticipant(bool isCurrentUser, std::optional<std::string> name, VespParticipantRole role,
                       VespParticipantStatus status, VespParticipantType type, platform::URL url);
  // Reads isCurrentUser, name, participantRole, participantStatus, participantType and URL, in order.
  explicit VespEventParticipant(const platform::EKParticipant& participant);

  bool isCurrentUser() const { return isCurrentUser_; }
  const std::optional<std::string>& name() const { return name_; }
  VespParticipantRole role() const { return role_; }
  VespParticipantStatus status() const { return status_; }
  VespParticipantType type() const { return type_; }
  const platform::URL& url() const { return url_; }

  friend bool operator==(const VespEventParticipant&, const VespEventParticipant&) = default;

 private:
  bool isCurrentUser_;
  std::optional<std::string> name_;
  VespParticipantRole role_;
  VespParticipantStatus status_;
  VespParticipantType type_;
  platform::URL url_;
};

std::ostream& operator<<(std::ostream& out, const VespEventParticipant& participant);

}  // namespace vesp
