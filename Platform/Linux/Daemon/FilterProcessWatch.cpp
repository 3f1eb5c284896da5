#include "PlatformLinuxDaemon/FilterProcessWatch.hpp"

#include <atomic>
#include <utility>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>
#include <fcntl.h>
#include <sys/types.h>

namespace stillow::platform {

namespace {

namespace asio = boost::asio;
using concurrency::Task;
using Descriptor = asio::posix::stream_descriptor;

}  // namespace

/// Touched on the strand only, but for the flag.
struct FilterProcessWatch::State {
  using WatchStrand = asio::strand<concurrency::Executor>;

  struct Followed {
    Followed(const WatchStrand& strand, PinnedProcess pinned)
        : process(std::move(pinned)), death(strand) {}
    PinnedProcess process;
    Descriptor death;
    bool isTold = false;
  };

  State(const concurrency::Executor& executor, std::function<void()> handler)
      : strand(asio::make_strand(executor)), ended(std::move(handler)) {}

  void replace(const std::shared_ptr<State>& self, PinnedProcess process) {
    if (isClosed) return;
    if (followed) {
      if (followed->process.isRunning()) {
        // The same id, and it has not ended: the same process.
        if (followed->process.pid() == process.pid()) return;
      } else {
        tell(*followed);
      }
      forget();
    }
    // Given once more by somebody who had not heard of its end yet.
    if (process.pid() == toldProcess && !process.isRunning()) return;
    // A descriptor of its own, which asio closes.
    const int death = ::fcntl(process.pidfd(), F_DUPFD_CLOEXEC, 0);
    followed = std::make_shared<Followed>(strand, std::move(process));
    boost::system::error_code error;
    if (death >= 0) {
      (void)followed->death.assign(death, error);
      if (error) (void)::close(death);
    }
    isFollowing = followed->death.is_open();
    concurrency::spawn(strand, waitForEnd(self, followed));
  }

  static Task<void> waitForEnd(std::shared_ptr<State> self, std::shared_ptr<Followed> followed) {
    if (!followed->death.is_open()) co_return;
    boost::system::error_code error;
    do {
      co_await followed->death.async_wait(Descriptor::wait_read,
                                          asio::redirect_error(asio::use_awaitable, error));
      if (error || self->followed != followed) co_return;
      // While descriptors come and go on other threads, asio now and then passes the event of one
      // that was closed on to its successor.
    } while (followed->process.isRunning());
    self->tell(*followed);
    self->forget();
  }

  void tell(Followed& process) {
    isFollowing = false;
    toldProcess = process.process.pid();
    if (!std::exchange(process.isTold, true)) ended();
  }

  void forget() {
    boost::system::error_code ignored;  // closed is closed
    if (followed) (void)followed->death.close(ignored);
    followed.reset();
    isFollowing = false;
  }

  WatchStrand strand;
  std::function<void()> ended;
  std::shared_ptr<Followed> followed;
  pid_t toldProcess = 0;  ///< whose end was told last
  std::atomic<bool> isFollowing{false};
  bool isClosed = false;
};

FilterProcessWatch::FilterProcessWatch(const concurrency::Executor& executor,
                                       std::function<void()> ended)
    : state_(std::make_shared<State>(executor, std::move(ended))) {}

FilterProcessWatch::~FilterProcessWatch() {
  asio::post(state_->strand, [state = state_] {
    state->isClosed = true;
    state->ended = [] {};
    state->forget();
  });
}

void FilterProcessWatch::follow(PinnedProcess process) {
  // Movable only, and a posted function need not be copied.
  asio::post(state_->strand, [state = state_, process = std::move(process)]() mutable {
    state->replace(state, std::move(process));
  });
}

bool FilterProcessWatch::isFollowing() const { return state_->isFollowing; }

}  // namespace stillow::platform
