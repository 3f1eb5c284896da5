#include "PlatformDarwinFilter/DispatchDirectoryEvents.hpp"

#include <dispatch/dispatch.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "StillowFiltering/FileWay.hpp"

namespace stillow::platform {

using filtering::FileWay;

/// Everything but the queue is touched on the queue only.
class DispatchDirectoryEvents::Watch final
    : public std::enable_shared_from_this<DispatchDirectoryEvents::Watch> {
 public:
  using Outcome = std::expected<void, std::error_code>;

  Watch(const std::string& directory, const std::string& fileName) : way_(directory, fileName) {
    dispatch_queue_set_specific(queue_, &queueKey, this, nullptr);
  }
  ~Watch() { cancelSources(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  Outcome start(std::function<void()> changed) {
    const auto handler = std::make_shared<const std::function<void()>>(std::move(changed));
    return onQueue([&]() -> Outcome {
      auto watched = watchWay();
      if (watched) changed_ = handler;
      return watched;
    });
  }

  void stop() {
    (void)onQueue([&]() -> Outcome {
      changed_ = nullptr;
      cancelSources();
      return {};
    });
  }

  void drain() {
    (void)onQueue([&]() -> Outcome {
      if (changed_ && way_.lookAtFile() != last_.file) lookAgain();
      return {};
    });
  }

 private:
  /// A way that changes at every look is not worth following: its next event comes anyhow.
  static constexpr int attemptsMax = 10;

  template <class Function>
  Outcome onQueue(const Function& function) {
    if (dispatch_get_specific(&queueKey) == this) return function();
    const auto outcome = std::make_shared<Outcome>();
    const Function* const borrowed = &function;  // the call waits for the block
    dispatch_sync(queue_, ^{
      *outcome = (*borrowed)();
    });
    return *outcome;
  }

  void lookAgain() {
    const FileWay::Look before = last_;
    FileWay::Look now = way_.look();
    if (now == before) return;
    // What cannot be watched now is tried again with the next event above it.
    if (now.directories != before.directories) {
      (void)watchWay();
    } else {
      last_ = std::move(now);
    }
    // Kept here as well, for the case that it stops us.
    const auto changed = changed_;
    if (changed) (*changed)();
  }

  /// Watches as much of the way as there is, and looks at it afterwards: what happens in between is
  /// then an event or has been seen.
  Outcome watchWay() {
    for (int attempt = 0; attempt < attemptsMax; ++attempt) {
      cancelSources();
      const FileWay::Look before = way_.look();
      for (std::size_t level = 0; level < before.directories.size(); ++level) {
        if (const int error = watchDirectory(way_.directories()[level]); error != 0) {
          if (error == ENOENT || error == ENOTDIR) break;  // gone since the look
          cancelSources();
          return std::unexpected(std::error_code(error, std::generic_category()));
        }
      }
      last_ = way_.look();
      if (last_.directories == before.directories) return {};
    }
    return {};
  }

  /// 0, or the system's number of what went wrong.
  int watchDirectory(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_EVTONLY | O_CLOEXEC);
    if (descriptor < 0) return errno;
    const dispatch_source_t source = dispatch_source_create(
        DISPATCH_SOURCE_TYPE_VNODE, static_cast<uintptr_t>(descriptor),
        DISPATCH_VNODE_WRITE | DISPATCH_VNODE_RENAME | DISPATCH_VNODE_DELETE, queue_);
    if (source == nil) {
      (void)::close(descriptor);  // nothing was written
      return ENOMEM;
    }
    const std::weak_ptr<Watch> weak = weak_from_this();
    dispatch_source_set_event_handler(source, ^{
      if (const auto self = weak.lock(); self && self->changed_) self->lookAgain();
    });
    dispatch_source_set_cancel_handler(source, ^{
      (void)::close(descriptor);  // nothing was written
    });
    dispatch_resume(source);
    sources_.push_back(source);
    return 0;
  }

  void cancelSources() {
    for (const auto& source : sources_) dispatch_source_cancel(source);
    sources_.clear();
  }

  static constexpr char queueKey = 0;

  const dispatch_queue_t queue_ =
      dispatch_queue_create("com.larchmoor.Stillow.filter.directive", DISPATCH_QUEUE_SERIAL);
  const FileWay way_;
  FileWay::Look last_;
  std::vector<dispatch_source_t> sources_;
  std::shared_ptr<const std::function<void()>> changed_;
};

DispatchDirectoryEvents::DispatchDirectoryEvents(const std::string& directory,
                                                 const std::string& fileName)
    : watch_(std::make_shared<Watch>(directory, fileName)) {}

DispatchDirectoryEvents::~DispatchDirectoryEvents() { watch_->stop(); }

std::expected<void, std::error_code> DispatchDirectoryEvents::start(std::function<void()> changed) {
  return watch_->start(std::move(changed));
}

void DispatchDirectoryEvents::stop() { watch_->stop(); }

void DispatchDirectoryEvents::drain() { watch_->drain(); }

}  // namespace stillow::platform
