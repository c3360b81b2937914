// The small types the calendar manager is built from: the authorisation state, the calendar query
// and the two store-changed events.
#include <gtest/gtest.h>

#include <sstream>

#include "Vesp/VespAuthorisationStatus.h"
#include "Vesp/VespCalendarQuery.h"
#include "Vesp/VespEventStoreChangedEvent.h"
#include "Vesp/VespReminderStoreChangedEvent.h"
#include "support/rivet/RivetEventBus.h"
#include "support/rivet/RivetStateMachine.h"

namespace vesp {
namespace {

TEST(VespAuthorisationStatusTest, IsAStateWithItsIdentifierSpelledWithAZ) {
  static_assert(rivet::RivetStateCapturing<VespAuthorisationStatus>);
  rivet::RivetStateMachine<VespAuthorisationStatus> machine(VespAuthorisationStatus::unknown, nullptr, nullptr, 60.0);
  EXPECT_EQ(machine.identifier(), "com.ambrel.vesp.state.calendar-manager.authorization");
  EXPECT_EQ(machine.state(), VespAuthorisationStatus::unknown);
  std::ostringstream out;
  out << VespAuthorisationStatus::authorised;
  EXPECT_EQ(out.str(), "authorised");
}

TEST(VespAuthorisationStatusTest, CasesAreInTheirDocumentedOrder) {
  EXPECT_EQ(static_cast<int>(VespAuthorisationStatus::unknown), 0);
  EXPECT_EQ(static_cast<int>(VespAuthorisationStatus::notDetermined), 1);
  EXPECT_EQ(static_cast<int>(VespAuthorisationStatus::restricted), 2);
  EXPECT_EQ(static_cast<int>(VespAuthorisationStatus::denied), 3);
  EXPECT_EQ(static_cast<int>(VespAuthorisationStatus::authorised), 4);
}

TEST(VespCalendarQueryTest, SomeCarriesItsIdentifiersAndAllNone) {
  auto some = VespCalendarQuery::some({"work", "home"});
  EXPECT_EQ(some.kind(), VespCalendarQuery::Case::some);
  EXPECT_EQ(some.calendarIdentifiers(), (std::set<std::string>{"home", "work"}));
  EXPECT_EQ(VespCalendarQuery::all().kind(), VespCalendarQuery::Case::all);
  EXPECT_FALSE(VespCalendarQuery::all().calendarIdentifiers());
  EXPECT_NE(VespCalendarQuery::some({}), VespCalendarQuery::all());
  std::ostringstream out;
  out << some << " " << VespCalendarQuery::all();
  EXPECT_EQ(out.str(), "some([\"home\", \"work\"]) all");
}

TEST(VespStoreChangedEventTest, EventsTravelOnBusesUnderTheirIdentifiers) {
  static_assert(rivet::RivetEventBusable<VespEventStoreChangedEvent>);
  static_assert(rivet::RivetEventBusable<VespReminderStoreChangedEvent>);
  EXPECT_EQ(VespEventStoreChangedEvent::identifier(), "com.ambrel.vesp.event.event-store-changed");
  EXPECT_EQ(VespReminderStoreChangedEvent::identifier(), "com.ambrel.vesp.event.reminder-store-changed");
  rivet::RivetEventBus<VespReminderStoreChangedEvent> bus(nullptr);
  int received = 0;
  auto subscription = bus.subscribe([&](const VespReminderStoreChangedEvent&, const rivet::RivetVia&) { ++received; });
  bus.beginPublish(VespReminderStoreChangedEvent{}, rivet::RivetImpetus("test", std::nullopt, "Test", "test()", 1));
  bus.waitUntilDelivered();
  EXPECT_EQ(received, 1);
}

}  // namespace
}  // namespace vesp
