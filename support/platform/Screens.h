// The platform's screens: view controllers, presentation and dismissal, the navigation container,
// the event view and edit screens, the calendar chooser, and their delegate protocols.
//
// Screens hold their delegates weakly, as the platform does: the owner of a delegate keeps it
// alive. A presenting controller owns what it presents until that is dismissed.
//
// Thread safety: screens are made, presented, dismissed and called back on the main thread.
#pragma once

#include <functional>
#include <memory>

#include "support/platform/EKCalendar.h"
#include "support/platform/EKEvent.h"
#include "support/platform/EKEventStore.h"
#include "support/platform/EKTypes.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

class EKEventViewController;
class EKEventEditViewController;
class EKCalendarChooser;

class UIViewController : public NSObject {
 public:
  // Presents `viewController` over this one; the completion (if any) runs once it is shown.
  virtual void presentViewController(std::shared_ptr<UIViewController> viewController, bool animated,
                                     std::function<void()> completion) = 0;
  // Dismisses this controller (or what it presents); the completion (if any) runs once it is gone.
  virtual void dismissViewControllerAnimated(bool animated, std::function<void()> completion) = 0;
};

class UINavigationController : public UIViewController {
 public:
  virtual std::shared_ptr<UIViewController> rootViewController() const = 0;
};

class EKEventViewDelegate {
 public:
  virtual ~EKEventViewDelegate() = default;
  virtual void eventViewController(const std::shared_ptr<EKEventViewController>& controller,
                                   EKEventViewAction action) = 0;
};

class EKEventEditViewDelegate {
 public:
  virtual ~EKEventEditViewDelegate() = default;
  virtual void eventEditViewController(const std::shared_ptr<EKEventEditViewController>& controller,
                                       EKEventEditViewAction action) = 0;
};

class EKCalendarChooserDelegate {
 public:
  virtual ~EKCalendarChooserDelegate() = default;
  virtual void calendarChooserSelectionDidChange(const std::shared_ptr<EKCalendarChooser>& chooser) = 0;
  virtual void calendarChooserDidFinish(const std::shared_ptr<EKCalendarChooser>& chooser) = 0;
  virtual void calendarChooserDidCancel(const std::shared_ptr<EKCalendarChooser>& chooser) = 0;
};

// Shows one event.
class EKEventViewController : public UIViewController {
 public:
  virtual void setEvent(std::shared_ptr<EKEvent> event) = 0;
  virtual std::shared_ptr<EKEvent> event() const = 0;
  virtual void setDelegate(std::weak_ptr<EKEventViewDelegate> delegate) = 0;
  virtual std::shared_ptr<EKEventViewDelegate> delegate() const = 0;
};

// Edits one event and writes it to its store; it is its own navigation container.
class EKEventEditViewController : public UIViewController {
 public:
  virtual void setEventStore(std::shared_ptr<EKEventStore> eventStore) = 0;
  virtual std::shared_ptr<EKEventStore> eventStore() const = 0;
  virtual void setEvent(std::shared_ptr<EKEvent> event) = 0;
  virtual std::shared_ptr<EKEvent> event() const = 0;
  virtual void setEditViewDelegate(std::weak_ptr<EKEventEditViewDelegate> delegate) = 0;
  virtual std::shared_ptr<EKEventEditViewDelegate> editViewDelegate() const = 0;
};

// Lets the user choose calendars.
class EKCalendarChooser : public UIViewController {
 public:
  virtual EKCalendarChooserSelectionStyle selectionStyle() const = 0;
  virtual EKCalendarChooserDisplayStyle displayStyle() const = 0;
  virtual EKEntityType entityType() const = 0;
  virtual std::shared_ptr<EKEventStore> eventStore() const = 0;
  virtual void setSelectedCalendars(EKCalendarSet calendars) = 0;
  virtual EKCalendarSet selectedCalendars() const = 0;
  virtual void setDelegate(std::weak_ptr<EKCalendarChooserDelegate> delegate) = 0;
  virtual std::shared_ptr<EKCalendarChooserDelegate> delegate() const = 0;
  virtual void setShowsDoneButton(bool shows) = 0;
  virtual bool showsDoneButton() const = 0;
  virtual void setShowsCancelButton(bool shows) = 0;
  virtual bool showsCancelButton() const = 0;
};

}  // namespace vesp::platform
