// The platform services object: everything the library asks of its platform that is not a method
// of a platform object. A host installs the process default once at start-up (installDefault);
// code that is handed a platform explicitly (tests always are) never touches the default.
//
// Thread safety: every operation may be called from any thread. The result of Default() is shared
// and stays alive as long as anybody holds it.
#pragma once

#include <memory>

#include "support/platform/EKEvent.h"
#include "support/platform/EKEventStore.h"
#include "support/platform/EKTypes.h"
#include "support/platform/NSBundle.h"
#include "support/platform/NSNotificationCenter.h"
#include "support/platform/Screens.h"
#include "support/rivet/RivetDispatchGroup.h"

namespace vesp::platform {

class Platform {
 public:
  virtual ~Platform() = default;

  // A new, separate connection to the calendar store (EKEventStore's default construction).
  virtual std::shared_ptr<EKEventStore> makeEventStore() = 0;
  // The class-level authorisation status for an entity type, as an integer (0-3 when known).
  virtual EKAuthorizationStatus authorizationStatusForEntityType(EKEntityType entityType) = 0;
  // A new, unsaved event in `eventStore` (EKEvent's eventWithEventStore:).
  virtual std::shared_ptr<EKEvent> eventWithEventStore(const std::shared_ptr<EKEventStore>& eventStore) = 0;
  // A new, unsaved reminder in `eventStore` (EKReminder's reminderWithEventStore:).
  virtual std::shared_ptr<EKReminder> reminderWithEventStore(const std::shared_ptr<EKEventStore>& eventStore) = 0;
  // The default notification centre; the same object on every call.
  virtual std::shared_ptr<NSNotificationCenter> defaultCenter() = 0;
  // The main bundle, whose information dictionary declares the usage descriptions.
  virtual std::shared_ptr<NSBundle> mainBundle() = 0;

  // Screens (main thread only).
  virtual std::shared_ptr<EKEventViewController> makeEventViewController() = 0;
  virtual std::shared_ptr<EKEventEditViewController> makeEventEditViewController() = 0;
  // UINavigationController's initWithRootViewController:.
  virtual std::shared_ptr<UINavigationController> makeNavigationController(
      std::shared_ptr<UIViewController> rootViewController) = 0;
  // EKCalendarChooser's initWithSelectionStyle:displayStyle:entityType:eventStore:.
  virtual std::shared_ptr<EKCalendarChooser> makeCalendarChooser(EKCalendarChooserSelectionStyle selectionStyle,
                                                                 EKCalendarChooserDisplayStyle displayStyle,
                                                                 EKEntityType entityType,
                                                                 std::shared_ptr<EKEventStore> eventStore) = 0;

  // A new dispatch group (dispatch_group_create).
  virtual std::shared_ptr<rivet::RivetDispatchGroup> dispatch_group_create();

  // The process default. REQUIRES: installDefault was called; otherwise the process stops with a
  // diagnostic saying so.
  static std::shared_ptr<Platform> Default();
  // Installs (or, with null, removes) the process default.
  static void installDefault(std::shared_ptr<Platform> platform);
  static bool hasDefault();
};

// Forwards every call to a target platform, so that a subclass overrides only what it changes (a
// fetch that never completes, a status that flips).
class PlatformWrapper : public Platform {
 public:
  // REQUIRES: target is not null.
  explicit PlatformWrapper(std::shared_ptr<Platform> target);
  const std::shared_ptr<Platform>& target() const { return target_; }

  std::shared_ptr<EKEventStore> makeEventStore() override { return target_->makeEventStore(); }
  EKAuthorizationStatus authorizationStatusForEntityType(EKEntityType entityType) override {
    return target_->authorizationStatusForEntityType(entityType);
  }
  std::shared_ptr<EKEvent> eventWithEventStore(const std::shared_ptr<EKEventStore>& eventStore) override {
    return target_->eventWithEventStore(eventStore);
  }
  std::shared_ptr<EKReminder> reminderWithEventStore(const std::shared_ptr<EKEventStore>& eventStore) override {
    return target_->reminderWithEventStore(eventStore);
  }
  std::shared_ptr<NSNotificationCenter> defaultCenter() override { return target_->defaultCenter(); }
  std::shared_ptr<NSBundle> mainBundle() override { return target_->mainBundle(); }
  std::shared_ptr<EKEventViewController> makeEventViewController() override {
    return target_->makeEventViewController();
  }
  std::shared_ptr<EKEventEditViewController> makeEventEditViewController() override {
    return target_->makeEventEditViewController();
  }
  std::shared_ptr<UINavigationController> makeNavigationController(
      std::shared_ptr<UIViewController> rootViewController) override {
    return target_->makeNavigationController(std::move(rootViewController));
  }
  std::shared_ptr<EKCalendarChooser> makeCalendarChooser(EKCalendarChooserSelectionStyle selectionStyle,
                                                         EKCalendarChooserDisplayStyle displayStyle,
                                                         EKEntityType entityType,
                                                         std::shared_ptr<EKEventStore> eventStore) override {
    return target_->makeCalendarChooser(selectionStyle, displayStyle, entityType, std::move(eventStore));
  }
  std::shared_ptr<rivet::RivetDispatchGroup> dispatch_group_create() override {
    return target_->dispatch_group_create();
  }

 private:
  std::shared_ptr<Platform> target_;
};

}  // namespace vesp::platform
