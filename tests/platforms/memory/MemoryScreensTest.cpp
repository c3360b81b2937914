#include "platforms/memory/MemoryScreens.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platforms/memory/MemoryPlatform.h"

namespace vesp::memory {
namespace {

using platform::Date;

class RecordingChooserDelegate : public platform::EKCalendarChooserDelegate {
 public:
  void calendarChooserSelectionDidChange(const std::shared_ptr<platform::EKCalendarChooser>& chooser) override {
    calls.push_back("changed:" + std::to_string(chooser->selectedCalendars().size()));
  }
  void calendarChooserDidFinish(const std::shared_ptr<platform::EKCalendarChooser>& chooser) override {
    calls.emplace_back("finished");
    chooser->dismissViewControllerAnimated(true, nullptr);
  }
  void calendarChooserDidCancel(const std::shared_ptr<platform::EKCalendarChooser>&) override {
    calls.emplace_back("cancelled");
  }
  std::vector<std::string> calls;
};

class DismissingEditDelegate : public platform::EKEventEditViewDelegate, public platform::EKEventViewDelegate {
 public:
  void eventEditViewController(const std::shared_ptr<platform::EKEventEditViewController>& controller,
                               platform::EKEventEditViewAction action) override {
    actions.push_back(action);
    controller->dismissViewControllerAnimated(true, nullptr);
  }
  void eventViewController(const std::shared_ptr<platform::EKEventViewController>& controller,
                           platform::EKEventViewAction action) override {
    actions.push_back(action);
    controller->dismissViewControllerAnimated(true, nullptr);
  }
  std::vector<std::int64_t> actions;
};

class MemoryScreensTest : public ::testing::Test {
 protected:
  std::shared_ptr<MemoryPlatform> platform = MemoryPlatform::make();
  std::shared_ptr<MemoryCalendar> work = platform->addCalendar("Work", platform->addSource("Local"));
  std::shared_ptr<MemoryCalendar> home = platform->addCalendar("Home", platform->addSource("Local"));
  std::shared_ptr<platform::EKEventStore> store = platform->makeEventStore();
  std::shared_ptr<MemoryHostViewController> host = platform->makeHostViewController();
};

TEST_F(MemoryScreensTest, PresentingRecordsTheScreenAndTheHostOwnsItUntilDismissed) {
  auto chooser = platform->makeCalendarChooser(platform::EKCalendarChooserSelectionStyleMultiple,
                                               platform::EKCalendarChooserDisplayAllCalendars,
                                               platform::EKEntityTypeEvent, store);
  auto navigation = platform->makeNavigationController(chooser);
  EXPECT_EQ(navigation->rootViewController(), chooser);
  bool completed = false;
  host->presentViewController(navigation, true, [&] { completed = true; });
  EXPECT_TRUE(completed);
  EXPECT_EQ(host->presentedViewController(), navigation);
  EXPECT_TRUE(std::dynamic_pointer_cast<MemoryCalendarChooser>(chooser)->isOnScreen());
  auto entries = platform->screenLog().entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].kind, MemoryScreenLogEntry::Kind::presented);
  EXPECT_EQ(entries[0].presented.lock(), navigation);
  EXPECT_TRUE(entries[0].animated);

  std::weak_ptr<platform::UIViewController> watch = navigation;
  navigation.reset();
  chooser->dismissViewControllerAnimated(true, nullptr);
  EXPECT_EQ(host->presentedViewController(), nullptr);
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(platform->screenLog().dismissalCount(), 1u);
}

TEST_F(MemoryScreensTest, TheChooserPlaysTheUsersSelectionDoneAndCancel) {
  auto chooser = std::static_pointer_cast<MemoryCalendarChooser>(platform->makeCalendarChooser(
      platform::EKCalendarChooserSelectionStyleMultiple, platform::EKCalendarChooserDisplayAllCalendars,
      platform::EKEntityTypeEvent, store));
  auto delegate = std::make_shared<RecordingChooserDelegate>();
  chooser->setDelegate(delegate);
  chooser->setSelectedCalendars({work});
  chooser->setShowsDoneButton(true);
  chooser->setShowsCancelButton(true);
  host->presentViewController(platform->makeNavigationController(chooser), true, nullptr);

  EXPECT_TRUE(chooser->select({work, home}));
  EXPECT_EQ(chooser->selectedCalendars().size(), 2u);
  EXPECT_TRUE(chooser->tapCancel());
  EXPECT_TRUE(chooser->tapDone());
  EXPECT_THAT(delegate->calls, ::testing::ElementsAre("changed:2", "cancelled", "finished"));
  EXPECT_FALSE(chooser->isOnScreen());
}

TEST_F(MemoryScreensTest, ScreensHoldTheirDelegatesWeakly) {
  auto chooser = std::static_pointer_cast<MemoryCalendarChooser>(platform->makeCalendarChooser(
      platform::EKCalendarChooserSelectionStyleMultiple, platform::EKCalendarChooserDisplayAllCalendars,
      platform::EKEntityTypeEvent, store));
  auto delegate = std::make_shared<RecordingChooserDelegate>();
  std::weak_ptr<RecordingChooserDelegate> watch = delegate;
  chooser->setDelegate(delegate);
  delegate.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(chooser->tapDone());
}

TEST_F(MemoryScreensTest, TheEditScreenRecordsSettingOrderAndSavesToItsStore) {
  auto edit = std::static_pointer_cast<MemoryEventEditViewController>(platform->makeEventEditViewController());
  auto delegate = std::make_shared<DismissingEditDelegate>();
  auto event = platform->eventWithEventStore(store);
  event->setStartDate(Date(0));
  event->setEndDate(Date(3600));
  event->setCalendar(work);
  edit->setEditViewDelegate(delegate);
  edit->setEventStore(store);
  edit->setEvent(event);
  EXPECT_THAT(edit->settingOrder(), ::testing::ElementsAre("editViewDelegate", "eventStore", "event"));
  host->presentViewController(edit, true, nullptr);

  int notifications = 0;
  auto observer = std::make_shared<int>(0);
  platform->defaultCenter()->addObserver(observer, "changed:", [&](const platform::Notification&) { ++notifications; },
                                         platform::EKEventStoreChangedNotification, store.get());
  EXPECT_TRUE(edit->save());
  EXPECT_EQ(platform->world()->events().size(), 1u);
  EXPECT_EQ(notifications, 1);
  EXPECT_THAT(delegate->actions, ::testing::ElementsAre(platform::EKEventEditViewActionSaved));
  EXPECT_EQ(host->presentedViewController(), nullptr);

  EXPECT_TRUE(edit->deleteEvent());
  EXPECT_TRUE(platform->world()->events().empty());
  EXPECT_EQ(notifications, 2);
}

TEST_F(MemoryScreensTest, TheViewScreenPlaysDoneAndDelete) {
  auto event = platform->addEvent(work, "Standup", Date(0), Date(900));
  auto view = std::static_pointer_cast<MemoryEventViewController>(platform->makeEventViewController());
  auto delegate = std::make_shared<DismissingEditDelegate>();
  view->setEvent(event);
  view->setDelegate(delegate);
  host->presentViewController(platform->makeNavigationController(view), true, nullptr);
  EXPECT_TRUE(view->tapDone());
  EXPECT_EQ(host->presentedViewController(), nullptr);
  EXPECT_TRUE(view->deleteEvent());
  EXPECT_TRUE(platform->world()->events().empty());
  EXPECT_THAT(delegate->actions,
              ::testing::ElementsAre(platform::EKEventViewActionDone, platform::EKEventViewActionDeleted));
}

}  // namespace
}  // namespace vesp::memory
