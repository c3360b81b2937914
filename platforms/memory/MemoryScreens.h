// The memory platform's screens. They record what was presented and dismissed in a shared
// MemoryScreenLog, and let a test play the user: tap Done or Cancel, change a selection, save or
// delete. Presentation and dismissal complete at once (their completions run before they return).
//
// A presenting controller owns what it presents until that is dismissed; screens hold their
// delegates weakly. Dismissing a controller that presents nothing dismisses it from its presenter;
// a screen inside a navigation container is dismissed with its container.
//
// Thread safety: like the platform's screens, these are meant for one (main) thread; their state
// is nonetheless guarded, so a test may inspect it from another.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/platform/Screens.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::memory {

class MemoryEventStore;
class MemoryWorld;

// One presentation or dismissal.
struct MemoryScreenLogEntry {
  enum class Kind { presented, dismissed };
  Kind kind;
  std::weak_ptr<platform::UIViewController> receiver;   // the controller the call was sent to
  std::weak_ptr<platform::UIViewController> presented;  // the controller shown or taken away
  bool animated;
};

class MemoryScreenLog {
 public:
  void record(MemoryScreenLogEntry entry);
  std::vector<MemoryScreenLogEntry> entries() const;
  std::size_t presentationCount() const;
  std::size_t dismissalCount() const;
  void clear();

 private:
  mutable rivet::RivetMutex mutex_;
  std::vector<MemoryScreenLogEntry> entries_ RIVET_GUARDED_BY(mutex_);
};

// The presentation links every memory screen keeps: what it presents, what presents it, and the
// navigation container holding it.
class MemoryScreenLinks {
 public:
  explicit MemoryScreenLinks(std::shared_ptr<MemoryScreenLog> log) : log_(std::move(log)) {}
  virtual ~MemoryScreenLinks() = default;

  // What this controller presents, or null.
  std::shared_ptr<platform::UIViewController> presentedViewController() const;
  // The controller presenting this one, or null.
  std::shared_ptr<platform::UIViewController> presentingViewController() const;
  // The navigation container holding this controller, or null.
  std::shared_ptr<platform::UIViewController> parentViewController() const;
  // True while this controller, or the container holding it, is presented.
  bool isOnScreen() const;

 protected:
  void present(const std::shared_ptr<platform::UIViewController>& self,
               std::shared_ptr<platform::UIViewController> viewController, bool animated);
  void dismiss(const std::shared_ptr<platform::UIViewController>& self, bool animated);
  const std::shared_ptr<MemoryScreenLog>& log() const { return log_; }

 private:
  friend class MemoryNavigationController;
  static MemoryScreenLinks* links(const std::shared_ptr<platform::UIViewController>& controller);
  void setParent(std::weak_ptr<platform::UIViewController> parent);

  std::shared_ptr<MemoryScreenLog> log_;
  mutable rivet::RivetMutex mutex_;
  std::shared_ptr<platform::UIViewController> presented_ RIVET_GUARDED_BY(mutex_);
  std::weak_ptr<platform::UIViewController> presenting_ RIVET_GUARDED_BY(mutex_);
  std::weak_ptr<platform::UIViewController> parent_ RIVET_GUARDED_BY(mutex_);
};

// Presentation and dismissal for a screen interface, completing at once.
template <class Interface>
class MemoryPresenting : public Interface, public MemoryScreenLinks {
 public:
  explicit MemoryPresenting(std::shared_ptr<MemoryScreenLog> log) : MemoryScreenLinks(std::move(log)) {}

  void presentViewController(std::shared_ptr<platform::UIViewController> viewController, bool animated,
                             std::function<void()> completion) override {
    present(selfController(), std::move(viewController), animated);
    if (completion) completion();
  }
  void dismissViewControllerAnimated(bool animated, std::function<void()> completion) override {
    auto keepAlive = selfController();
    dismiss(keepAlive, animated);
    if (completion) completion();
  }

 protected:
  std::shared_ptr<platform::UIViewController> selfController() {
    return std::static_pointer_cast<platform::UIViewController>(this->shared_from_this());
  }
};

// A host application's own controller, for tests to present on.
class MemoryHostViewController final : public MemoryPresenting<platform::UIViewController> {
 public:
  using MemoryPresenting::MemoryPresenting;
  std::string description() const override { return "<UIViewController host>"; }
};

class MemoryNavigationController final : public MemoryPresenting<platform::UINavigationController> {
 public:
  // Makes the container and records it as the parent of its root.
  static std::shared_ptr<MemoryNavigationController> make(std::shared_ptr<MemoryScreenLog> log,
                                                          std::shared_ptr<platform::UIViewController> root);
  MemoryNavigationController(std::shared_ptr<MemoryScreenLog> log,
                             std::shared_ptr<platform::UIViewController> rootViewController);
  std::shared_ptr<platform::UIViewController> rootViewController() const override { return root_; }
  std::string description() const override { return "<UINavigationController>"; }

 private:
  std::shared_ptr<platform::UIViewController> root_;
};

class MemoryEventViewController final : public MemoryPresenting<platform::EKEventViewController> {
 public:
  // Deleting removes the event from `world`.
  MemoryEventViewController(std::shared_ptr<MemoryScreenLog> log, std::weak_ptr<MemoryWorld> world);
  void setEvent(std::shared_ptr<platform::EKEvent> event) override;
  std::shared_ptr<platform::EKEvent> event() const override;
  void setDelegate(std::weak_ptr<platform::EKEventViewDelegate> delegate) override;
  std::shared_ptr<platform::EKEventViewDelegate> delegate() const override;
  std::string description() const override { return "<EKEventViewController>"; }

  // The user's taps: each calls the delegate, if it is still alive, with the matching action, and
  // returns whether a delegate was reached.
  bool tapDone();
  bool respond();
  bool deleteEvent();  // also removes the event from its world when it is a memory event

 private:
  bool complete(platform::EKEventViewAction action);
  std::weak_ptr<MemoryWorld> world_;
  mutable rivet::RivetMutex mutex_;
  std::shared_ptr<platform::EKEvent> event_ RIVET_GUARDED_BY(mutex_);
  std::weak_ptr<platform::EKEventViewDelegate> delegate_ RIVET_GUARDED_BY(mutex_);
};

class MemoryEventEditViewController final : public MemoryPresenting<platform::EKEventEditViewController> {
 public:
  using MemoryPresenting::MemoryPresenting;
  void setEventStore(std::shared_ptr<platform::EKEventStore> eventStore) override;
  std::shared_ptr<platform::EKEventStore> eventStore() const override;
  void setEvent(std::shared_ptr<platform::EKEvent> event) override;
  std::shared_ptr<platform::EKEvent> event() const override;
  void setEditViewDelegate(std::weak_ptr<platform::EKEventEditViewDelegate> delegate) override;
  std::shared_ptr<platform::EKEventEditViewDelegate> editViewDelegate() const override;
  std::string description() const override { return "<EKEventEditViewController>"; }

  // The order in which the library set the store, event and delegate ("eventStore", "event",
  // "editViewDelegate").
  std::vector<std::string> settingOrder() const;

  // The user's taps. Save writes the event to its memory store and Delete removes it (each posts
  // the store-changed notification); then the delegate, if still alive, is told. Each returns
  // whether a delegate was reached.
  bool cancel();
  bool save();
  bool deleteEvent();

 private:
  bool complete(platform::EKEventEditViewAction action);
  mutable rivet::RivetMutex mutex_;
  std::shared_ptr<platform::EKEventStore> store_ RIVET_GUARDED_BY(mutex_);
  std::shared_ptr<platform::EKEvent> event_ RIVET_GUARDED_BY(mutex_);
  std::weak_ptr<platform::EKEventEditViewDelegate> delegate_ RIVET_GUARDED_BY(mutex_);
  std::vector<std::string> settingOrder_ RIVET_GUARDED_BY(mutex_);
};

class MemoryCalendarChooser final : public MemoryPresenting<platform::EKCalendarChooser> {
 public:
  MemoryCalendarChooser(std::shared_ptr<MemoryScreenLog> log, platform::EKCalendarChooserSelectionStyle selectionStyle,
                        platform::EKCalendarChooserDisplayStyle displayStyle, platform::EKEntityType entityType,
                        std::shared_ptr<platform::EKEventStore> eventStore);

  platform::EKCalendarChooserSelectionStyle selectionStyle() const override { return selectionStyle_; }
  platform::EKCalendarChooserDisplayStyle displayStyle() const override { return displayStyle_; }
  platform::EKEntityType entityType() const override { return entityType_; }
  std::shared_ptr<platform::EKEventStore> eventStore() const override { return eventStore_; }
  void setSelectedCalendars(platform::EKCalendarSet calendars) override;
  platform::EKCalendarSet selectedCalendars() const override;
  void setDelegate(std::weak_ptr<platform::EKCalendarChooserDelegate> delegate) override;
  std::shared_ptr<platform::EKCalendarChooserDelegate> delegate() const override;
  void setShowsDoneButton(bool shows) override;
  bool showsDoneButton() const override;
  void setShowsCancelButton(bool shows) override;
  bool showsCancelButton() const override;
  std::string description() const override { return "<EKCalendarChooser>"; }

  // The user's actions; each returns whether a delegate was reached. A new selection replaces the
  // chooser's selection and tells the delegate that it changed.
  bool select(platform::EKCalendarSet calendars);
  bool tapDone();
  bool tapCancel();

 private:
  platform::EKCalendarChooserSelectionStyle selectionStyle_;
  platform::EKCalendarChooserDisplayStyle displayStyle_;
  platform::EKEntityType entityType_;
  std::shared_ptr<platform::EKEventStore> eventStore_;
  mutable rivet::RivetMutex mutex_;
  platform::EKCalendarSet selected_ RIVET_GUARDED_BY(mutex_);
  std::weak_ptr<platform::EKCalendarChooserDelegate> delegate_ RIVET_GUARDED_BY(mutex_);
  bool showsDone_ RIVET_GUARDED_BY(mutex_) = false;
  bool showsCancel_ RIVET_GUARDED_BY(mutex_) = false;
};

}  // namespace vesp::memory
