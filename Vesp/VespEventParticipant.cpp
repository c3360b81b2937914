#include "Vesp/VespEventParticipant.h"

namespace vesp {

VespEventParticipant::VespEventParticipant(bool isCurrentUser, std::optional<std::string> name,
                                           VespParticipantRole role, VespParticipantStatus status,
                                           VespParticipantType type, platform::URL url)
    : isCurrentUser_(isCurrentUser),
      name_(std::move(name)),
      role_(role),
      status_(status),
      type_(type),
      url_(std::move(url)) {}

VespEventParticipant::VespEventParticipant(const platform::EKParticipant& participant)
    : isCurrentUser_(participant.isCurrentUser()),
      name_(participant.name()),
      role_(vespParticipantRole(participant.participantRole())),
      status_(vespParticipantStatus(participant.participantStatus())),
      type_(vespParticipantType(participant.participantType())),
      url_(participant.URL()) {}

std::ostream& operator<<(std::ostream& out, const VespEventParticipant& p) {
  return out << "VespEventParticipant(" << (p.name() ? "\"" + *p.name() + "\"" : "nil") << ", " << p.url() << ", "
             << p.role() << ", " << p.status() << ", " << p.type() << (p.isCurrentUser() ? ", current user" : "")
             << ")";
}

}  // namespace vesp
