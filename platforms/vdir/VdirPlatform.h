// The platform served from a vdir tree of iCalendar files: store connections over one shared,
// watched copy of the tree, authorisation kept in the user's access-decisions file and asked
// through the host's consent handler, a notification centre and an information dictionary of the
// host's own. The platform has no screens of its own: screen requests go to `screens` (by default
// a headless memory platform, whose screens record what was shown and draw nothing).
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirAccess.h"
#include "platforms/vdir/VdirEventStore.h"
#include "platforms/vdir/VdirStore.h"
#include "support/platform/Platform.h"

namespace vesp::vdir {

struct VdirPlatformOptions {
  VdirStoreOptions store;
  std::string accessFile;                 // empty: VdirAccess::defaultFile()
  std::string applicationIdentifier = "vesp";  // whose decisions the access file holds
  VdirConsentHandler consentHandler;      // null: access cannot be asked for
  std::shared_ptr<platform::Platform> screens;
};

class VdirPlatform : public platform::Platform {
 public:
  static std::shared_ptr<VdirPlatform> make(VdirPlatformOptions options);

  std::shared_ptr<platform::EKEventStore> makeEventStore() override;
  platform::EKAuthorizationStatus authorizationStatusForEntityType(platform::EKEntityType entityType) override;
  std::shared_ptr<platform::EKEvent> eventWithEventStore(
      const std::shared_ptr<platform::EKEventStore>& eventStore) override;
  std::shared_ptr<platform::NSNotificationCenter> defaultCenter() override { return services_->center; }
  std::shared_ptr<platform::NSBundle> mainBundle() override { return services_->bundle; }
  std::shared_ptr<platform::EKEventViewController> makeEventViewController() override;
  std::shared_ptr<platform::EKEventEditViewController> makeEventEditViewController() override;
  std::shared_ptr<platform::UINavigationController> makeNavigationController(
      std::shared_ptr<platform::UIViewController> rootViewController) override;
  std::shared_ptr<platform::EKCalendarChooser> makeCalendarChooser(
      platform::EKCalendarChooserSelectionStyle selectionStyle, platform::EKCalendarChooserDisplayStyle displayStyle,
      platform::EKEntityType entityType, std::shared_ptr<platform::EKEventStore> eventStore) override;

  // Sets (or removes) an entry of the host's information dictionary (usage descriptions).
  void setInfoDictionaryValue(const std::string& key, std::optional<platform::AnyObject> value);

  const std::shared_ptr<VdirStore>& store() const { return services_->store; }
  const std::shared_ptr<VdirAccess>& access() const { return services_->access; }
  // What was skipped, repaired or cut short in the store, and why.
  std::vector<VdirDiagnostic> diagnostics() const { return services_->store->diagnostics(); }

 private:
  explicit VdirPlatform(VdirPlatformOptions options);
  std::shared_ptr<VdirServices> services_;
  std::shared_ptr<platform::Platform> screens_;
};

}  // namespace vesp::vdir
