// The manager's screens: creating, viewing and editing an event, and picking calendars.
#include "Vesp/VespCalendarManager.h"

#include "support/platform/EKEventStoreWrapper.h"

#include "tests/support/ManagerFixture.h"
#include "tests/support/RivetMatchers.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using memory::MemoryCalendarChooser;
using memory::MemoryEventEditViewController;
using memory::MemoryEventViewController;
using memory::MemoryNavigationController;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::UnorderedElementsAre;
using rivet::testing::IsRivetFailure;
using rivet::testing::IsRivetSuccess;
using Identifier = VespEventInstanceIdentifier;

const Date origin(694224000);

class VespCalendarManagerScreensTest : public ManagerFixture {
 protected:
  void SetUp() override { authoriseAll(); }
  std::shared_ptr<memory::MemorySource> source = platform->addSource("Local");
  std::shared_ptr<memory::MemoryCalendar> work = platform->addCalendar("Work", source);
  std::shared_ptr<memory::MemoryCalendar> home = platform->addCalendar("Home", source);
  std::shared_ptr<memory::MemoryHostViewController> host = platform->makeHostViewController();

  template <class Screen>
  std::shared_ptr<Screen> presented() {
    auto shown = host->presentedViewController();
    if (auto navigation = std::dynamic_pointer_cast<MemoryNavigationController>(shown))
      return std::dynamic_pointer_cast<Screen>(navigation->rootViewController());
    return std::dynamic_pointer_cast<Screen>(shown);
  }
};

TEST_F(VespCalendarManagerScreensTest, CreatingPresentsTheEditorEvenWithoutAuthorisation) {
  setStatus(platform::EKAuthorizationStatusDenied, platform::EKAuthorizationStatusDenied);
  ASSERT_THAT(manager->createCalendarEvent(origin, false, work->calendarIdentifier(), host), IsRivetSuccess());
  auto editor = presented<MemoryEventEditViewController>();
  ASSERT_TRUE(editor);
  EXPECT_THAT(editor->settingOrder(), ElementsAre("editViewDelegate", "eventStore", "event"));
  EXPECT_EQ(editor->eventStore(), manager->eventStore());
  EXPECT_EQ(editor->editViewDelegate(), manager->eventViewDelegate());
  EXPECT_EQ(editor->event()->calendar(), work);
  EXPECT_TRUE(platform->screenLog().entries().at(0).animated);
}

TEST_F(VespCalendarManagerScreensTest, AnAllDayEventStillEndsOneHourLater) {
  ASSERT_THAT(manager->createCalendarEvent(origin, true, std::nullopt, host), IsRivetSuccess());
  auto event = presented<MemoryEventEditViewController>()->event();
  EXPECT_EQ(event->startDate(), origin);
  EXPECT_EQ(event->endDate(), origin.addingTimeInterval(3600));
  EXPECT_TRUE(event->isAllDay());
  EXPECT_EQ(event->calendar(), nullptr);  // untouched: the platform chooses
}

TEST_F(VespCalendarManagerScreensTest, AnUnknownCalendarSetsTheCalendarToNone) {
  ASSERT_THAT(manager->createCalendarEvent(origin, false, "no such calendar", host), IsRivetSuccess());
  auto editor = presented<MemoryEventEditViewController>();
  ASSERT_TRUE(editor);
  EXPECT_EQ(editor->event()->calendar(), nullptr);
}

TEST_F(VespCalendarManagerScreensTest, SavingOrDeletingOnlyDismissesTheEditor) {
  auto series = platform->addEvent(work, "Standup", origin, origin.addingTimeInterval(900));
  ASSERT_THAT(manager->editCalendarEvent(Identifier::withOccurrenceDate(*series->eventIdentifier(), origin), host),
              IsRivetSuccess());
  auto editor = presented<MemoryEventEditViewController>();
  ASSERT_TRUE(editor);
  EXPECT_THAT(editor->settingOrder(), ElementsAre("event", "eventStore", "editViewDelegate"));
  auto before = manager->getAllEventCalendars();
  EXPECT_TRUE(editor->save());
  EXPECT_EQ(host->presentedViewController(), nullptr);
  EXPECT_EQ(manager->getAllEventCalendars().value(), before.value());
  EXPECT_TRUE(editor->deleteEvent());
  EXPECT_EQ(platform->screenLog().dismissalCount(), 2u);
}

// A host's platform double that hands out wrapped stores, as a test that counts queries would.
class WrappingPlatform : public platform::PlatformWrapper {
 public:
  using PlatformWrapper::PlatformWrapper;
  std::shared_ptr<platform::EKEventStore> makeEventStore() override {
    auto store = std::make_shared<platform::EKEventStoreWrapper>(PlatformWrapper::makeEventStore());
    store->forwardChanges(defaultCenter());
    return store;
  }
};

TEST_F(VespCalendarManagerScreensTest, TheEditorSavesAndDeletesThroughAWrappedStoreAndTheManagerHearsIt) {
  auto wrapped = VespCalendarManager::make(logger, std::make_shared<WrappingPlatform>(platform));
  ASSERT_THAT(wrapped->applicationDidBecomeActive(impetus), IsRivetSuccess());
  ASSERT_TRUE(std::dynamic_pointer_cast<platform::EKEventStoreWrapper>(wrapped->eventStore()));
  BusCounter<VespEventStoreChangedEvent> changes(wrapped->eventStoreChangedEventBus());

  ASSERT_THAT(wrapped->createCalendarEvent(origin, false, work->calendarIdentifier(), host), IsRivetSuccess());
  auto editor = presented<MemoryEventEditViewController>();
  ASSERT_TRUE(editor);
  // The user types a title, then saves.
  std::dynamic_pointer_cast<memory::MemoryEvent>(editor->event())->update([](memory::MemoryEventFields& fields) {
    fields.item.title = "Lunch";
  });
  EXPECT_TRUE(editor->save());
  ASSERT_EQ(platform->world()->events().size(), 1u);
  auto found = wrapped->getEventInstances(origin, origin.addingTimeInterval(3600), VespCalendarQuery::all());
  ASSERT_THAT(found, IsRivetSuccess());
  EXPECT_EQ(found.value().size(), 1u);
  EXPECT_EQ(changes.delivered(), 1);

  EXPECT_TRUE(editor->deleteEvent());
  EXPECT_TRUE(platform->world()->events().empty());
  EXPECT_EQ(changes.delivered(), 2);
  platform->postStoreChanged();
  EXPECT_EQ(changes.delivered(), 3);
}

TEST_F(VespCalendarManagerScreensTest, ViewingShowsTheExactOccurrenceInANavigationContainer) {
  auto series = platform->addEvent(work, "Standup", origin, origin.addingTimeInterval(900));
  auto second = platform->addOccurrence(series, origin.addingTimeInterval(86400));
  ASSERT_THAT(manager->viewCalendarEvent(
                  Identifier::withOccurrenceDate(*series->eventIdentifier(), origin.addingTimeInterval(86400)), host),
              IsRivetSuccess());
  ASSERT_TRUE(std::dynamic_pointer_cast<MemoryNavigationController>(host->presentedViewController()));
  auto viewer = presented<MemoryEventViewController>();
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->event(), second);
  EXPECT_TRUE(viewer->tapDone());
  EXPECT_EQ(host->presentedViewController(), nullptr);
}

TEST_F(VespCalendarManagerScreensTest, ViewingAnOccurrenceBeyondEverySpanPresentsNothing) {
  auto series = platform->addEvent(work, "Standup", origin, origin.addingTimeInterval(900));
  auto result = manager->viewCalendarEvent(
      Identifier::withOccurrenceDate(*series->eventIdentifier(), origin.addingTimeInterval(400 * 86400.0)), host);
  ASSERT_THAT(result, IsRivetFailure(Eq("Cannot find specified recurrence instance")));
  expectLink(result.error(), "Cannot find specified recurrence instance",
             {"self", "eventInstanceIdentifier", "presentingViewController"},
             "viewCalendarEvent(eventInstanceIdentifier:presentingViewController:)", 898);
  EXPECT_EQ(result.error().cause()->lineNumber(), 611u);
  EXPECT_EQ(platform->screenLog().presentationCount(), 0u);
  auto edit = manager->editCalendarEvent(Identifier::noOccurrenceDate("nothing"), host);
  expectLink(edit.error(), "No such event", {"self", "eventInstanceIdentifier", "presentingViewController"},
             "editCalendarEvent(eventInstanceIdentifier:presentingViewController:)", 933);
}

TEST_F(VespCalendarManagerScreensTest, PickingWithoutAuthorisationFailsAndNeverCallsBack) {
  setStatus(platform::EKAuthorizationStatusNotDetermined, platform::EKAuthorizationStatusAuthorized);
  bool called = false;
  auto result = manager->pickEventCalendars(
      VespCalendarQuery::all(), [&](const auto&, const auto&) { called = true; return rivet::RivetResultVoidSuccess; },
      host);
  ASSERT_FALSE(result.has_value());
  expectLink(result.error(), "No authorised", {"self", "initiallySelected", "presentingViewController"},
             "pickEventCalendars(initiallySelected:callback:presentingViewController:)", 965);
  EXPECT_FALSE(called);
  EXPECT_FALSE(manager->calendarChooser());
}

TEST_F(VespCalendarManagerScreensTest, DoneWithoutChangesDeliversTheInitialSelection) {
  std::set<std::string> delivered;
  std::vector<rivet::RivetViaLink> provenance;
  ASSERT_THAT(manager->pickEventCalendars(
                  VespCalendarQuery::all(),
                  [&](const std::set<std::string>& identifiers, const rivet::RivetVia& via) {
                    delivered = identifiers;
                    provenance = via.provenance();
                    // The screen is already on its way out.
                    EXPECT_EQ(host->presentedViewController(), nullptr);
                    return rivet::RivetResultVoidSuccess;
                  },
                  host),
              IsRivetSuccess());
  auto chooser = presented<MemoryCalendarChooser>();
  ASSERT_TRUE(chooser);
  EXPECT_EQ(chooser->selectionStyle(), platform::EKCalendarChooserSelectionStyleMultiple);
  EXPECT_EQ(chooser->displayStyle(), platform::EKCalendarChooserDisplayAllCalendars);
  EXPECT_EQ(chooser->entityType(), platform::EKEntityTypeEvent);
  EXPECT_TRUE(chooser->showsDoneButton());
  EXPECT_TRUE(chooser->showsCancelButton());
  EXPECT_EQ(manager->calendarChooser()->viewController(), chooser);
  EXPECT_TRUE(chooser->tapDone());
  EXPECT_THAT(delivered, UnorderedElementsAre(work->calendarIdentifier(), home->calendarIdentifier()));
  ASSERT_EQ(provenance.size(), 1u);
  EXPECT_EQ(provenance[0].name, "Calendar chooser finished");
  EXPECT_EQ(provenance[0].fileName, "VespCalendarPicker");
  EXPECT_EQ(provenance[0].functionName, "calendarChooserDidFinish(_:)");
  EXPECT_EQ(provenance[0].lineNumber, 54u);
  EXPECT_EQ(provenance[0].args->keys(), (std::vector<std::string>{"self", "calendarChooser"}));
}

TEST_F(VespCalendarManagerScreensTest, SomeWithUnknownIdentifiersStartsEmptyAndDeliversEmpty) {
  std::optional<std::set<std::string>> delivered;
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::some({"unknown"}),
                                          [&](const std::set<std::string>& identifiers, const rivet::RivetVia&) {
                                            delivered = identifiers;
                                            return rivet::RivetResultVoidSuccess;
                                          },
                                          host),
              IsRivetSuccess());
  auto chooser = presented<MemoryCalendarChooser>();
  EXPECT_TRUE(chooser->selectedCalendars().empty());
  chooser->tapDone();
  ASSERT_TRUE(delivered);
  EXPECT_TRUE(delivered->empty());
}

TEST_F(VespCalendarManagerScreensTest, CancelNeverCallsBackEvenAfterChanges) {
  int calls = 0;
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::some({work->calendarIdentifier()}),
                                          [&](const auto&, const auto&) {
                                            ++calls;
                                            return rivet::RivetResultVoidSuccess;
                                          },
                                          host),
              IsRivetSuccess());
  auto chooser = presented<MemoryCalendarChooser>();
  EXPECT_TRUE(chooser->select({home}));
  EXPECT_EQ(manager->calendarChooser()->selected(), platform::EKCalendarSet{home});
  EXPECT_TRUE(chooser->tapCancel());
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(host->presentedViewController(), nullptr);
  EXPECT_TRUE(manager->calendarChooser());  // kept until the next pick
}

TEST_F(VespCalendarManagerScreensTest, AChangedSelectionIsWhatDoneDelivers) {
  std::set<std::string> delivered;
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::all(),
                                          [&](const std::set<std::string>& identifiers, const rivet::RivetVia&) {
                                            delivered = identifiers;
                                            return rivet::RivetResultVoidSuccess;
                                          },
                                          host),
              IsRivetSuccess());
  auto chooser = presented<MemoryCalendarChooser>();
  chooser->select({home});
  chooser->tapDone();
  EXPECT_THAT(delivered, ElementsAre(home->calendarIdentifier()));
}

TEST_F(VespCalendarManagerScreensTest, ASecondPickReleasesTheFirstPickerAndItsDoneReachesNoCallback) {
  int firstCalls = 0;
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::all(),
                                          [&](const auto&, const auto&) {
                                            ++firstCalls;
                                            return rivet::RivetResultVoidSuccess;
                                          },
                                          host),
              IsRivetSuccess());
  auto firstChooser = presented<MemoryCalendarChooser>();
  std::weak_ptr<VespCalendarPicker> firstPicker = manager->calendarChooser();
  auto otherHost = platform->makeHostViewController();
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::all(),
                                          [&](const auto&, const auto&) { return rivet::RivetResultVoidSuccess; },
                                          otherHost),
              IsRivetSuccess());
  EXPECT_TRUE(firstPicker.expired());
  EXPECT_FALSE(firstChooser->tapDone());
  EXPECT_EQ(firstCalls, 0);
}

TEST_F(VespCalendarManagerScreensTest, AFailingCallbackIsLoggedOnceAfterTheDismissal) {
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::all(),
                                          [&](const auto&, const auto&) {
                                            return rivet::RivetResult<void>("Host refused", std::nullopt, "Host",
                                                                            "apply()", 7);
                                          },
                                          host),
              IsRivetSuccess());
  presented<MemoryCalendarChooser>()->tapDone();
  EXPECT_EQ(host->presentedViewController(), nullptr);
  auto entries = logger->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, rivet::RivetRecordingLogger::Level::failure);
  EXPECT_EQ(entries[0].error.message(), "Host refused");
  EXPECT_EQ(entries[0].via->provenance().front().name, "Calendar chooser finished");
}

TEST_F(VespCalendarManagerScreensTest, TheDelegateLivesAsLongAsTheManagerAndNothingKeepsTheManagerAlive) {
  ASSERT_THAT(manager->createCalendarEvent(origin, false, std::nullopt, host), IsRivetSuccess());
  ASSERT_THAT(manager->pickEventCalendars(VespCalendarQuery::all(),
                                          [](const auto&, const auto&) { return rivet::RivetResultVoidSuccess; },
                                          platform->makeHostViewController()),
              IsRivetSuccess());
  std::weak_ptr<VespEventViewDelegate> delegate = manager->eventViewDelegate();
  std::weak_ptr<VespCalendarPicker> picker = manager->calendarChooser();
  std::weak_ptr<VespCalendarManager> watch = manager;
  manager.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(delegate.expired());
  EXPECT_TRUE(picker.expired());
  // The editor still shown has lost its delegate; a tap reaches nobody.
  EXPECT_FALSE(presented<MemoryEventEditViewController>()->cancel());
}

TEST(VespCalendarPickerDeathTest, TheArgumentlessConstructionStopsTheProcess) {
  EXPECT_DEATH(VespCalendarPicker(), "unimplemented initializer 'init\\(\\)'");
}

}  // namespace
}  // namespace vesp
