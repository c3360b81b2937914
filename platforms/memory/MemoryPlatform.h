// The in-memory platform: every platform service served from memory and scriptable, for the
// library's tests and for hosts' own tests.
//
//   auto platform = vesp::memory::MemoryPlatform::make();
//   auto calendar = platform->addCalendar("Work", platform->addSource("Local"));
//   platform->addEvent(calendar, "Standup", start, start.addingTimeInterval(900));
//   platform->setAuthorizationStatus(platform::EKEntityTypeEvent, platform::EKAuthorizationStatusAuthorized);
//
// Everything the platform hands out shares one MemoryWorld (see MemoryEventStore.h for the query
// rules). Changing the world through these helpers posts no notification; call postStoreChanged
// (every store) or MemoryEventStore::postChanged (one store) to announce a change, as a test
// needs. Completions (access answers, reminder fetches) arrive on the platform's delivery thread.
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platforms/memory/MemoryDelivery.h"
#include "platforms/memory/MemoryEventStore.h"
#include "platforms/memory/MemoryObjects.h"
#include "platforms/memory/MemoryScreens.h"
#include "support/platform/Platform.h"

namespace vesp::memory {

class MemoryPlatform final : public platform::Platform {
 public:
  static std::shared_ptr<MemoryPlatform> make();
  MemoryPlatform();
  ~MemoryPlatform() override;

  // The platform services.
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

  // The shared state, for everything not offered below.
  const std::shared_ptr<MemoryWorld>& world() const { return world_; }

  // Contents. Identifiers are generated ("source-1", "calendar-1", "event-1", "item-1", ...).
  std::shared_ptr<MemorySource> addSource(std::string title, platform::EKSourceType sourceType = platform::EKSourceTypeLocal);
  // A calendar with a colour, the given source and allowed entity types.
  std::shared_ptr<MemoryCalendar> addCalendar(std::string title, std::shared_ptr<MemorySource> source,
                                              platform::EKEntityMask allowedEntityTypes = platform::EKEntityMaskEvent);
  // A single, complete occurrence: its own event identifier, item identifiers, creation date and
  // an occurrence date equal to its start.
  std::shared_ptr<MemoryEvent> addEvent(std::shared_ptr<MemoryCalendar> calendar, std::string title,
                                        platform::Date startDate, platform::Date endDate);
  // Another occurrence of `series` (same event and item identifiers), with occurrence date
  // `occurrenceDate`, starting at `startDate` and as long as the series' first occurrence.
  std::shared_ptr<MemoryEvent> addOccurrence(const std::shared_ptr<MemoryEvent>& series, platform::Date occurrenceDate,
                                             std::optional<platform::Date> startDate = std::nullopt);
  // An occurrence exactly as given, nothing filled in.
  std::shared_ptr<MemoryEvent> addEvent(MemoryEventFields fields);
  std::shared_ptr<MemoryReminder> addReminder(std::shared_ptr<MemoryCalendar> calendar, std::string title,
                                              std::optional<platform::DateComponents> dueDateComponents = std::nullopt);
  // A reminder exactly as given, nothing filled in.
  std::shared_ptr<MemoryReminder> addReminder(MemoryReminderFields fields);

  // Authorisation and the scripted user.
  void setAuthorizationStatus(platform::EKEntityType entityType, platform::EKAuthorizationStatus status);
  void setAccessAnswer(platform::EKEntityType entityType, MemoryAccessAnswer answer);

  // The information dictionary; with nothing, removes the key.
  void setInfoDictionaryValue(const std::string& key, std::optional<platform::AnyObject> value);

  // Screens: a host controller to present on, and the log of presentations and dismissals.
  std::shared_ptr<MemoryHostViewController> makeHostViewController();
  MemoryScreenLog& screenLog() { return *world_->screenLog(); }

  // Notifications and deliveries.
  void postStoreChanged() { world_->postStoreChanged(); }
  std::vector<std::shared_ptr<MemoryEventStore>> stores() const { return world_->stores(); }
  std::size_t releaseHeldDeliveries() { return world_->deliveries().releaseHeld(); }
  void waitForDeliveries() { world_->deliveries().waitUntilIdle(); }

 private:
  std::shared_ptr<MemoryWorld> world_;
  std::shared_ptr<platform::NSBundle> bundle_;
};

}  // namespace vesp::memory
