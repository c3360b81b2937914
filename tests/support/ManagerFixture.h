// The world a calendar manager test owns: the memory platform first, then a recording logger,
// then the manager; plus helpers to check failures and count bus events.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Vesp/VespCalendarManager.h"
#include "platforms/memory/MemoryPlatform.h"
#include "support/rivet/RivetRecordingLogger.h"

namespace vesp::testing {

using platform::Date;
using vesp::memory::MemoryPlatform;

// Checks one link of a failure: message, args keys in order, file, signature text and line.
inline void expectLink(const rivet::RivetError& error, const std::string& message,
                       const std::vector<std::string>& keys, const std::string& function, std::uint64_t line,
                       const std::string& file = "VespCalendarManager") {
  EXPECT_EQ(error.message(), message);
  if (keys.empty()) {
    EXPECT_TRUE(!error.args() || error.args()->empty()) << error.description();
  } else {
    ASSERT_TRUE(error.args()) << error.description();
    EXPECT_EQ(error.args()->keys(), keys) << error.description();
  }
  EXPECT_EQ(error.fileName(), file);
  EXPECT_EQ(error.functionName(), function);
  EXPECT_EQ(error.lineNumber(), line);
  EXPECT_FALSE(error.frameworkError());
}

// Counts what a bus delivers.
template <class Event>
class BusCounter {
 public:
  explicit BusCounter(rivet::RivetEventBus<Event>& bus) : bus_(bus) {
    subscription_ = bus_.subscribe([this](const Event&, const rivet::RivetVia&) { ++count_; });
  }
  int delivered() {
    bus_.waitUntilDelivered();
    return count_.load();
  }

 private:
  rivet::RivetEventBus<Event>& bus_;
  rivet::RivetSubscription subscription_;
  std::atomic<int> count_{0};
};

class ManagerFixture : public ::testing::Test {
 protected:
  std::shared_ptr<MemoryPlatform> platform = MemoryPlatform::make();
  std::shared_ptr<rivet::RivetRecordingLogger> logger = std::make_shared<rivet::RivetRecordingLogger>();
  std::shared_ptr<VespCalendarManager> manager = VespCalendarManager::make(logger, platform);
  rivet::RivetImpetus impetus{"test", std::nullopt, "ManagerTest", "test()", 1};

  std::shared_ptr<memory::MemoryEventStore> eventStore() const {
    return std::static_pointer_cast<memory::MemoryEventStore>(manager->eventStore());
  }
  std::shared_ptr<memory::MemoryEventStore> reminderStore() const {
    return std::static_pointer_cast<memory::MemoryEventStore>(manager->reminderStore());
  }
  void setStatus(platform::EKAuthorizationStatus events, platform::EKAuthorizationStatus reminders) {
    platform->setAuthorizationStatus(platform::EKEntityTypeEvent, events);
    platform->setAuthorizationStatus(platform::EKEntityTypeReminder, reminders);
  }
  void authoriseAll() { setStatus(platform::EKAuthorizationStatusAuthorized, platform::EKAuthorizationStatusAuthorized); }
  std::size_t observerCount() const { return platform->defaultCenter()->observations().size(); }
  std::vector<std::string> selectors() const {
    std::vector<std::string> names;
    for (const auto& observation : platform->defaultCenter()->observations()) names.push_back(observation.selectorName);
    return names;
  }
  void declareUsage(bool calendars, bool reminders, bool contacts) {
    auto set = [&](const char* key, bool present) {
      platform->setInfoDictionaryValue(key, present ? std::optional<platform::AnyObject>(platform::AnyObject("why"))
                                                    : std::nullopt);
    };
    set("NSCalendarsUsageDescription", calendars);
    set("NSRemindersUsageDescription", reminders);
    set("NSContactsUsageDescription", contacts);
  }
  // Brings both machines in line with the platform, as an activation would.
  void activate() { ASSERT_TRUE(manager->applicationDidBecomeActive(impetus).has_value()); }
};

}  // namespace vesp::testing
