#include "platforms/memory/MemoryScreens.h"

#include "platforms/memory/MemoryEventStore.h"
#include "platforms/memory/MemoryObjects.h"
#include "support/platform/EKEventStoreWrapper.h"

namespace vesp::memory {

using platform::UIViewController;

void MemoryScreenLog::record(MemoryScreenLogEntry entry) {
  rivet::RivetMutexLock lock(mutex_);
  entries_.push_back(std::move(entry));
}
std::vector<MemoryScreenLogEntry> MemoryScreenLog::entries() const {
  rivet::RivetMutexLock lock(mutex_);
  return entries_;
}
std::size_t MemoryScreenLog::presentationCount() const {
  rivet::RivetMutexLock lock(mutex_);
  std::size_t count = 0;
  for (const auto& entry : entries_) count += entry.kind == MemoryScreenLogEntry::Kind::presented;
  return count;
}
std::size_t MemoryScreenLog::dismissalCount() const {
  rivet::RivetMutexLock lock(mutex_);
  std::size_t count = 0;
  for (const auto& entry : entries_) count += entry.kind == MemoryScreenLogEntry::Kind::dismissed;
  return count;
}
void MemoryScreenLog::clear() {
  rivet::RivetMutexLock lock(mutex_);
  entries_.clear();
}

MemoryScreenLinks* MemoryScreenLinks::links(const std::shared_ptr<UIViewController>& controller) {
  return dynamic_cast<MemoryScreenLinks*>(controller.get());
}

std::shared_ptr<UIViewController> MemoryScreenLinks::presentedViewController() const {
  rivet::RivetMutexLock lock(mutex_);
  return presented_;
}
std::shared_ptr<UIViewController> MemoryScreenLinks::presentingViewController() const {
  rivet::RivetMutexLock lock(mutex_);
  return presenting_.lock();
}
std::shared_ptr<UIViewController> MemoryScreenLinks::parentViewController() const {
  rivet::RivetMutexLock lock(mutex_);
  return parent_.lock();
}
bool MemoryScreenLinks::isOnScreen() const {
  if (presentingViewController()) return true;
  auto parent = parentViewController();
  auto parentLinks = parent ? links(parent) : nullptr;
  return parentLinks && parentLinks->presentingViewController() != nullptr;
}
void MemoryScreenLinks::setParent(std::weak_ptr<UIViewController> parent) {
  rivet::RivetMutexLock lock(mutex_);
  parent_ = std::move(parent);
}

void MemoryScreenLinks::present(const std::shared_ptr<UIViewController>& self,
                                std::shared_ptr<UIViewController> viewController, bool animated) {
  if (auto presentedLinks = viewController ? links(viewController) : nullptr) {
    rivet::RivetMutexLock lock(presentedLinks->mutex_);
    presentedLinks->presenting_ = self;
  }
  log_->record(MemoryScreenLogEntry{MemoryScreenLogEntry::Kind::presented, self, viewController, animated});
  rivet::RivetMutexLock lock(mutex_);
  presented_ = std::move(viewController);
}

void MemoryScreenLinks::dismiss(const std::shared_ptr<UIViewController>& self, bool animated) {
  // A presenter dismisses what it presents; otherwise the controller (or its container) leaves
  // its presenter.
  std::shared_ptr<UIViewController> target = presentedViewController();
  std::shared_ptr<UIViewController> presenter = self;
  if (!target) {
    auto parent = parentViewController();
    target = parent ? parent : self;
    auto targetLinks = links(target);
    presenter = targetLinks ? targetLinks->presentingViewController() : nullptr;
  }
  log_->record(MemoryScreenLogEntry{MemoryScreenLogEntry::Kind::dismissed, self, target, animated});
  if (auto targetLinks = links(target)) {
    rivet::RivetMutexLock lock(targetLinks->mutex_);
    targetLinks->presenting_.reset();
  }
  if (auto presenterLinks = presenter ? links(presenter) : nullptr) {
    std::shared_ptr<UIViewController> released;
    rivet::RivetMutexLock lock(presenterLinks->mutex_);
    if (presenterLinks->presented_ == target) released = std::move(presenterLinks->presented_);
  }
}

std::shared_ptr<MemoryNavigationController> MemoryNavigationController::make(std::shared_ptr<MemoryScreenLog> log,
                                                                             std::shared_ptr<UIViewController> root) {
  auto navigation = std::make_shared<MemoryNavigationController>(std::move(log), root);
  if (auto rootLinks = links(root)) rootLinks->setParent(std::static_pointer_cast<UIViewController>(navigation));
  return navigation;
}

MemoryNavigationController::MemoryNavigationController(std::shared_ptr<MemoryScreenLog> log,
                                                       std::shared_ptr<UIViewController> rootViewController)
    : MemoryPresenting(std::move(log)), root_(std::move(rootViewController)) {}

// Event view screen.

MemoryEventViewController::MemoryEventViewController(std::shared_ptr<MemoryScreenLog> log,
                                                     std::weak_ptr<MemoryWorld> world)
    : MemoryPresenting(std::move(log)), world_(std::move(world)) {}

void MemoryEventViewController::setEvent(std::shared_ptr<platform::EKEvent> event) {
  rivet::RivetMutexLock lock(mutex_);
  event_ = std::move(event);
}
std::shared_ptr<platform::EKEvent> MemoryEventViewController::event() const {
  rivet::RivetMutexLock lock(mutex_);
  return event_;
}
void MemoryEventViewController::setDelegate(std::weak_ptr<platform::EKEventViewDelegate> delegate) {
  rivet::RivetMutexLock lock(mutex_);
  delegate_ = std::move(delegate);
}
std::shared_ptr<platform::EKEventViewDelegate> MemoryEventViewController::delegate() const {
  rivet::RivetMutexLock lock(mutex_);
  return delegate_.lock();
}
bool MemoryEventViewController::complete(platform::EKEventViewAction action) {
  auto keepAlive = std::static_pointer_cast<MemoryEventViewController>(shared_from_this());
  auto target = delegate();
  if (!target) return false;
  target->eventViewController(keepAlive, action);
  return true;
}
bool MemoryEventViewController::tapDone() { return complete(platform::EKEventViewActionDone); }
bool MemoryEventViewController::respond() { return complete(platform::EKEventViewActionResponded); }
bool MemoryEventViewController::deleteEvent() {
  auto world = world_.lock();
  if (auto current = event(); world && current && world->removeEvent(current.get())) world->postStoreChanged();
  return complete(platform::EKEventViewActionDeleted);
}

// Event edit screen.

void MemoryEventEditViewController::setEventStore(std::shared_ptr<platform::EKEventStore> eventStore) {
  rivet::RivetMutexLock lock(mutex_);
  store_ = std::move(eventStore);
  settingOrder_.emplace_back("eventStore");
}
std::shared_ptr<platform::EKEventStore> MemoryEventEditViewController::eventStore() const {
  rivet::RivetMutexLock lock(mutex_);
  return store_;
}
void MemoryEventEditViewController::setEvent(std::shared_ptr<platform::EKEvent> event) {
  rivet::RivetMutexLock lock(mutex_);
  event_ = std::move(event);
  settingOrder_.emplace_back("event");
}
std::shared_ptr<platform::EKEvent> MemoryEventEditViewController::event() const {
  rivet::RivetMutexLock lock(mutex_);
  return event_;
}
void MemoryEventEditViewController::setEditViewDelegate(std::weak_ptr<platform::EKEventEditViewDelegate> delegate) {
  rivet::RivetMutexLock lock(mutex_);
  delegate_ = std::move(delegate);
  settingOrder_.emplace_back("editViewDelegate");
}
std::shared_ptr<platform::EKEventEditViewDelegate> MemoryEventEditViewController::editViewDelegate() const {
  rivet::RivetMutexLock lock(mutex_);
  return delegate_.lock();
}
std::vector<std::string> MemoryEventEditViewController::settingOrder() const {
  rivet::RivetMutexLock lock(mutex_);
  return settingOrder_;
}
bool MemoryEventEditViewController::complete(platform::EKEventEditViewAction action) {
  auto keepAlive = std::static_pointer_cast<MemoryEventEditViewController>(shared_from_this());
  auto target = editViewDelegate();
  if (!target) return false;
  target->eventEditViewController(keepAlive, action);
  return true;
}
bool MemoryEventEditViewController::cancel() { return complete(platform::EKEventEditViewActionCanceled); }
// The screen writes to the memory store under any wrappers a host put around it.
bool MemoryEventEditViewController::save() {
  auto store = std::dynamic_pointer_cast<MemoryEventStore>(platform::EKEventStoreWrapper::innermost(eventStore()));
  auto memoryEvent = std::dynamic_pointer_cast<MemoryEvent>(event());
  if (store && memoryEvent) store->saveEvent(memoryEvent);
  return complete(platform::EKEventEditViewActionSaved);
}
bool MemoryEventEditViewController::deleteEvent() {
  auto store = std::dynamic_pointer_cast<MemoryEventStore>(platform::EKEventStoreWrapper::innermost(eventStore()));
  if (auto current = event(); store && current) store->removeEvent(current);
  return complete(platform::EKEventEditViewActionDeleted);
}

// Calendar chooser.

MemoryCalendarChooser::MemoryCalendarChooser(std::shared_ptr<MemoryScreenLog> log,
                                             platform::EKCalendarChooserSelectionStyle selectionStyle,
                                             platform::EKCalendarChooserDisplayStyle displayStyle,
                                             platform::EKEntityType entityType,
                                             std::shared_ptr<platform::EKEventStore> eventStore)
    : MemoryPresenting(std::move(log)),
      selectionStyle_(selectionStyle),
      displayStyle_(displayStyle),
      entityType_(entityType),
      eventStore_(std::move(eventStore)) {}

void MemoryCalendarChooser::setSelectedCalendars(platform::EKCalendarSet calendars) {
  rivet::RivetMutexLock lock(mutex_);
  selected_ = std::move(calendars);
}
platform::EKCalendarSet MemoryCalendarChooser::selectedCalendars() const {
  rivet::RivetMutexLock lock(mutex_);
  return selected_;
}
void MemoryCalendarChooser::setDelegate(std::weak_ptr<platform::EKCalendarChooserDelegate> delegate) {
  rivet::RivetMutexLock lock(mutex_);
  delegate_ = std::move(delegate);
}
std::shared_ptr<platform::EKCalendarChooserDelegate> MemoryCalendarChooser::delegate() const {
  rivet::RivetMutexLock lock(mutex_);
  return delegate_.lock();
}
void MemoryCalendarChooser::setShowsDoneButton(bool shows) {
  rivet::RivetMutexLock lock(mutex_);
  showsDone_ = shows;
}
bool MemoryCalendarChooser::showsDoneButton() const {
  rivet::RivetMutexLock lock(mutex_);
  return showsDone_;
}
void MemoryCalendarChooser::setShowsCancelButton(bool shows) {
  rivet::RivetMutexLock lock(mutex_);
  showsCancel_ = shows;
}
bool MemoryCalendarChooser::showsCancelButton() const {
  rivet::RivetMutexLock lock(mutex_);
  return showsCancel_;
}
bool MemoryCalendarChooser::select(platform::EKCalendarSet calendars) {
  auto keepAlive = std::static_pointer_cast<MemoryCalendarChooser>(shared_from_this());
  setSelectedCalendars(std::move(calendars));
  auto target = delegate();
  if (!target) return false;
  target->calendarChooserSelectionDidChange(keepAlive);
  return true;
}
bool MemoryCalendarChooser::tapDone() {
  auto keepAlive = std::static_pointer_cast<MemoryCalendarChooser>(shared_from_this());
  auto target = delegate();
  if (!target) return false;
  target->calendarChooserDidFinish(keepAlive);
  return true;
}
bool MemoryCalendarChooser::tapCancel() {
  auto keepAlive = std::static_pointer_cast<MemoryCalendarChooser>(shared_from_this());
  auto target = delegate();
  if (!target) return false;
  target->calendarChooserDidCancel(keepAlive);
  return true;
}

}  // namespace vesp::memory
