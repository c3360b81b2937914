// The platform served from a vdir tree of iCalendar files: store connections over one shared,
// watched copy of the tree, authorisation kept in the user's access-decisions file and asked
// through the host's consent handler, a notification centre and an information dictionary of the
// host's own. The platform has no screens of its own: screen requests go to `screens` (by default
// a headless memory platform, whose screens record what was shown and draw nothing).
//
// This header and those it includes are what a host needs; none of them includes libical.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirAccess.h"
#include "platforms/vdir/VdirOptions.h"
#include "support/platform/Platform.h"

namespace vesp::vdir {

class VdirStore;
struct VdirServices;

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
  std::shared_ptr<platform::EKReminder> reminderWithEventStore(
      const std::shared_ptr<platform::EKEventStore>& eventStore) override;
  std::shared_ptr<platform::EKEvent> eventWithEventStore(
      const std::shared_ptr<platform::EKEventStore>& eventStore) override;
  std::shared_ptr<platform::NSNotificationCenter> defaultCenter() override;
  std::shared_ptr<platform::NSBundle> mainBundle() override;
  std::shared_ptr<platform::EKEventViewController> makeEventViewController() override;
  std::shared_ptr<platform::EKEventEditViewController> makeEventEditViewController() override;
  std::shared_ptr<platform::UINavigationController> makeNavigationController(
      std::shared_ptr<platform::UIViewController> rootViewController) override;
  std::shared_ptr<platform::EKCalendarChooser> makeCalendarChooser(
      platform::EKCalendarChooserSelectionStyle selectionStyle, platform::EKCalendarChooserDisplayStyle displayStyle,
      platform::EKEntityType entityType, std::shared_ptr<platform::EKEventStore> eventStore) override;

  // Sets (or removes) an entry of the host's information dictionary (usage descriptions).
  void setInfoDictionaryValue(const std::string& key, std::optional<platform::AnyObject> value);

  // The shared store (its interface is internal to the platform) and the access decisions.
  const std::shared_ptr<VdirStore>& store() const;
  const std::shared_ptr<VdirAccess>& access() const;
  // What was skipped, repaired or cut short in the store, and why.
  std::vector<VdirDiagnostic> diagnostics() const;
  // Rescans the tree now (for hosts that do not watch); each connection posts a change
  // notification when anything changed. Returns whether it did.
  bool refresh();
  // Whether the persistent cache was used, and why not.
  VdirCacheStatus cacheStatus() const;
  // Waits until the cache written in the background after a scan is on disk.
  void flushCache();

 private:
  explicit VdirPlatform(VdirPlatformOptions options);
  std::shared_ptr<VdirStore> store_;  // the source of the connections' snapshots
  std::shared_ptr<VdirServices> services_;
  std::shared_ptr<platform::Platform> screens_;
};

}  // namespace vesp::vdir
