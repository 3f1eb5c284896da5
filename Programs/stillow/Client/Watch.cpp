#include "StillowClient/Watch.hpp"

#include <algorithm>
#include <optional>
#include <ostream>
#include <utility>
#include <variant>

#include "StillowClient/LiveArea.hpp"
#include "StillowClient/StatusText.hpp"
#include "StillowClient/TimeText.hpp"
#include "StillowCore/Coding.hpp"

namespace stillow::client {

using concurrency::SleepOutcome;
using concurrency::Task;
using ipc::DaemonStatus;

namespace {

struct ConnectionLost {};
struct SecondPassed {};
using Event = std::variant<DaemonStatus, ConnectionLost, SecondPassed, Suspension>;

/// Room for what comes while a line is written; a status is a full snapshot, so if ever something
/// is dropped the next one tells the whole truth.
constexpr std::size_t eventsMax = 64;
using Events = concurrency::Channel<Event>;

/// Statuses of one connection after another.
Task<void> follow(WatchCollaborators with, Events events) {
  ReconnectDelay delay;
  while (!with.enough.isCancelled()) {
    const ipc::DaemonStatusStream stream = with.daemon->statusChanges();
    bool wasConnected = false;
    while (true) {
      std::optional<DaemonStatus> status = co_await stream.next();
      if (!status) break;
      wasConnected = true;
      delay.reset();
      (void)events.give(Event(std::move(*status)));  // false once it is enough
    }
    if (wasConnected) (void)events.give(Event(ConnectionLost{}));
    (void)co_await with.sleeper->sleep(delay.next(), with.enough);
  }
}

Task<void> countSeconds(WatchCollaborators with, Events events) {
  while (true) {
    const SleepOutcome outcome = co_await with.sleeper->sleep(std::chrono::seconds(1), with.enough);
    if (outcome == SleepOutcome::cancelled) co_return;
    (void)events.give(Event(SecondPassed{}));
  }
}

Task<void> forwardSuspensions(WatchCollaborators with, Events events) {
  while (true) {
    std::optional<Suspension> suspension = co_await with.suspensions.next();
    if (!suspension) co_return;
    (void)events.give(Event(std::move(*suspension)));
  }
}

/// What has been shown, and how.
class View {
 public:
  View(Console console, core::WallClock clock, bool asJSON)
      : console_(std::move(console)),
        clock_(std::move(clock)),
        asJSON_(asJSON),
        isLive_(console_.canRewrite && !asJSON) {}

  [[nodiscard]] bool isLive() const noexcept { return isLive_; }

  void take(Event event) {
    if (auto* const status = std::get_if<DaemonStatus>(&event)) {
      takeStatus(std::move(*status));
    } else if (std::holds_alternative<ConnectionLost>(event)) {
      isConnected_ = false;
      tell("The connection to the daemon was lost; waiting for it to come back.");
    } else if (const auto* const suspend = std::get_if<Suspension>(&event)) {
      leave();
      (*suspend)();
    }
    redraw();
  }

  void leave() { console_.out << area_.leave() << std::flush; }

 private:
  void takeStatus(DaemonStatus status) {
    const bool isBack = !std::exchange(isConnected_, true) && last_.has_value();
    if (isBack) tell("The daemon is back.");
    if (asJSON_) {
      console_.printRecord(status);
    } else if (!last_) {
      put(firstText(status));
    } else {
      std::string text;
      for (const std::string& change : changesBetween(*last_, status)) {
        text += wrapped(momentText(clock_(), clock_()) + "  " + change, console_.outStyle().columns,
                        changeIndent) +
                "\n";
      }
      put(text);
    }
    last_ = std::move(status);
  }

  /// What a live area says anyway is left to it.
  std::string firstText(const DaemonStatus& status) const {
    const TextStyle style = console_.outStyle();
    if (!isLive_) return statusText(status, style);
    const ipc::ActiveCommitmentStatus* const active = status.active();
    if (active == nullptr) return "";
    return wrapped("Blocked: " + scopeText(active->scope), style.columns, 2) + "\n";
  }
  void put(const std::string& text) {
    if (text.empty()) return;
    console_.out << (isLive_ ? area_.print(text, console_.outStyle().columns) : text) << std::flush;
  }
  /// News of the connection is no result.
  void tell(std::string_view text) {
    if (!isLive_) return console_.tell(text);
    put(wrapped(momentText(clock_(), clock_()) + "  " + std::string(text),
                console_.outStyle().columns, changeIndent) +
        "\n");
  }
  void redraw() {
    if (!isLive_ || !last_) return;
    const TextStyle style = console_.outStyle();
    console_.out << area_.show(liveLines(*last_, clock_(), isConnected_, style), style.columns)
                 << std::flush;
  }

  /// "18:05:09" and two blanks.
  static constexpr std::size_t changeIndent = 10;

  Console console_;
  core::WallClock clock_;
  bool asJSON_;
  bool isLive_;
  bool isConnected_ = false;
  std::optional<DaemonStatus> last_;
  LiveArea area_;
};

}  // namespace

std::chrono::milliseconds ReconnectDelay::next() {
  const std::chrono::milliseconds delay = delay_;
  delay_ = std::min(2 * delay_, longest);
  return delay;
}

Task<ExitStatus> watch(Console console, WatchCollaborators with, bool asJSON) {
  // A call first: its error says why the daemon cannot be reached, which a stream does not.
  const ipc::CommitmentAuthorityClient::Result first = co_await with.daemon->status();
  if (!first) co_return with.report(first.error());
  const concurrency::Executor executor = co_await boost::asio::this_coro::executor;
  const Events events(eventsMax);
  const auto registration = with.enough.onCancel([events, suspensions = with.suspensions] {
    events.finish();
    suspensions.finish();
  });
  View view(console, with.clock, asJSON);
  concurrency::spawn(executor, follow(with, events));
  concurrency::spawn(executor, forwardSuspensions(with, events));
  if (view.isLive()) concurrency::spawn(executor, countSeconds(with, events));
  while (!with.enough.isCancelled()) {
    std::optional<Event> event = co_await events.next();
    if (!event) break;
    view.take(std::move(*event));
  }
  view.leave();
  // Ends the stream, and with it the loop that follows it.
  with.daemon->invalidate();
  co_return ExitStatus::success;
}

}  // namespace stillow::client
