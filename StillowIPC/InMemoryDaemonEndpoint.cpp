#include "StillowIPC/InMemoryDaemonEndpoint.hpp"

#include <algorithm>
#include <map>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::ipc {

namespace {

PlatformError interrupted() {
  return {.domain = std::string(PlatformError::cocoaDomain),
          .code = 4097,
          .description = "The connection to the daemon was interrupted.",
          .payload = std::nullopt};
}

}  // namespace

/// Both ends of one connection. Everything happens on the strand, so no member needs a lock.
class InMemoryDaemonEndpoint::Link final : public ServedConnection,
                                           public std::enable_shared_from_this<Link> {
 public:
  using OnError = std::function<void(PlatformError)>;
  using OnReply = std::function<void(DaemonReply)>;

  Link(const concurrency::Executor& executor, Identities identities,
       std::weak_ptr<DaemonListenerDelegate> delegate, DaemonConnectionHandlers handlers)
      : strand_(boost::asio::make_strand(executor)),
        identities_(std::move(identities)),
        delegate_(std::move(delegate)),
        handlers_(std::move(handlers)) {}

  [[nodiscard]] ConnectionID identity() const noexcept override { return id_; }

  void push(SharedBytes status) override {
    post([status = std::move(status)](Link& link) {
      if (link.isOpen_) link.handlers_.statusChanged(status);
    });
  }

  void resume(std::optional<CodeSigningRequirement> ofDaemon) {
    post([ofDaemon = std::move(ofDaemon)](Link& link) { link.open(ofDaemon); });
  }

  void send(DaemonOperation operation, SharedBytes request, OnReply onReply, OnError onError) {
    post([=, onReply = std::move(onReply), onError = std::move(onError)](Link& link) {
      link.deliver(operation, request, onReply, onError);
    });
  }

  void end() {
    post([](Link& link) { link.close(); });
  }

 private:
  struct PendingCall {
    OnReply onReply;
    OnError onError;
  };

  template <class Function>
  void post(Function function) {
    boost::asio::post(
        strand_, [self = shared_from_this(), function = std::move(function)] { function(*self); });
  }

  void open(const std::optional<CodeSigningRequirement>& ofDaemon) {
    if (hasEnded_) return;
    const auto delegate = delegate_.lock();
    if (!delegate) return close();
    const auto terms = delegate->shouldAcceptNewConnection(shared_from_this());
    isAccepted_ = terms.has_value();
    if (!terms) return close();
    const bool clientIsKnown =
        !terms->requirement || terms->requirement->isSatisfiedBy(identities_.client);
    const bool daemonIsKnown = !ofDaemon || ofDaemon->isSatisfiedBy(identities_.daemon);
    if (!clientIsKnown || !daemonIsKnown) return close();
    isOpen_ = true;
  }

  void deliver(DaemonOperation operation, const SharedBytes& request, const OnReply& onReply,
               const OnError& onError) {
    const auto delegate = delegate_.lock();
    if (!isOpen_ || !delegate) return onError(interrupted());
    const std::uint64_t number = ++lastCall_;
    calls_.emplace(number, PendingCall{onReply, onError});
    delegate->received(
        shared_from_this(),
        {.operation = operation,
         .request = request,
         .answer = CallAnswer([weak = weak_from_this(), number](const DaemonReply& reply) {
           if (const auto self = weak.lock()) {
             self->post([number, reply](Link& link) { link.answer(number, reply); });
           }
         })});
  }

  void answer(std::uint64_t number, const DaemonReply& reply) {
    const auto call = calls_.extract(number);
    if (call) call.mapped().onReply(reply);
  }

  void close() {
    if (std::exchange(hasEnded_, true)) return;
    isOpen_ = false;
    const auto calls = std::exchange(calls_, {});
    for (const auto& [number, call] : calls) call.onError(interrupted());
    if (isAccepted_) {
      if (const auto delegate = delegate_.lock()) delegate->ended(id_);
    }
    handlers_.lost();
  }

  const ConnectionID id_ = ConnectionID::next();
  boost::asio::strand<concurrency::Executor> strand_;
  const Identities identities_;
  const std::weak_ptr<DaemonListenerDelegate> delegate_;
  const DaemonConnectionHandlers handlers_;
  bool isAccepted_ = false;
  bool isOpen_ = false;
  bool hasEnded_ = false;
  std::uint64_t lastCall_ = 0;
  std::map<std::uint64_t, PendingCall> calls_;
};

class InMemoryDaemonEndpoint::Proxy final : public DaemonProxy {
 public:
  Proxy(std::shared_ptr<Link> link, Link::OnError onError)
      : link_(std::move(link)), onError_(std::move(onError)) {}

  void send(DaemonOperation operation, SharedBytes request,
            std::function<void(DaemonReply)> reply) override {
    link_->send(operation, std::move(request), std::move(reply), onError_);
  }

 private:
  std::shared_ptr<Link> link_;
  Link::OnError onError_;
};

class InMemoryDaemonEndpoint::ClientConnection final : public DaemonConnection {
 public:
  explicit ClientConnection(std::shared_ptr<Link> link) : link_(std::move(link)) {}
  ~ClientConnection() override { link_->end(); }
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  void setCodeSigningRequirement(const CodeSigningRequirement& requirement) override {
    requirement_ = requirement;
  }
  void resume() override { link_->resume(requirement_); }
  [[nodiscard]] std::shared_ptr<DaemonProxy> remoteProxy(
      std::function<void(PlatformError)> onError) override {
    return std::make_shared<Proxy>(link_, std::move(onError));
  }
  void invalidate() override { link_->end(); }

 private:
  std::shared_ptr<Link> link_;
  std::optional<CodeSigningRequirement> requirement_;
};

InMemoryDaemonEndpoint::Identities InMemoryDaemonEndpoint::Identities::signedByMaker() {
  const auto signedAs = [](std::string_view identifier) {
    return CodeIdentity{
        .identifier = std::string(identifier),
        .leafOrganizationalUnit = std::string(CodeSigningRequirement::teamIdentifier),
        .anchorIsTrusted = true};
  };
  return {.client = signedAs(StillowDaemonService::appBundleIdentifier),
          .daemon = signedAs(StillowDaemonService::machServiceName)};
}

std::shared_ptr<InMemoryDaemonEndpoint> InMemoryDaemonEndpoint::make(concurrency::Executor executor,
                                                                     Identities identities) {
  return std::shared_ptr<InMemoryDaemonEndpoint>(
      new InMemoryDaemonEndpoint(std::move(executor), std::move(identities)));
}

InMemoryDaemonEndpoint::InMemoryDaemonEndpoint(concurrency::Executor executor,
                                               Identities identities)
    : executor_(std::move(executor)), identities_(std::move(identities)) {}

InMemoryDaemonEndpoint::~InMemoryDaemonEndpoint() = default;

std::expected<void, std::string> InMemoryDaemonEndpoint::start(
    std::weak_ptr<DaemonListenerDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
  return {};
}

std::weak_ptr<DaemonListenerDelegate> InMemoryDaemonEndpoint::delegate() {
  const std::lock_guard lock(mutex_);
  return delegate_;
}

std::shared_ptr<DaemonConnection> InMemoryDaemonEndpoint::makeConnection(
    DaemonConnectionHandlers handlers) {
  auto link = std::make_shared<Link>(executor_, identities_, delegate(), std::move(handlers));
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(links_, [](const std::weak_ptr<Link>& old) { return old.expired(); });
    links_.push_back(link);
  }
  return std::make_shared<ClientConnection>(std::move(link));
}

void InMemoryDaemonEndpoint::interruptAll() {
  std::vector<std::weak_ptr<Link>> links;
  {
    const std::lock_guard lock(mutex_);
    links = links_;
  }
  for (const auto& weak : links) {
    if (const auto link = weak.lock()) link->end();
  }
}

std::size_t InMemoryDaemonEndpoint::connectionCount() {
  const std::lock_guard lock(mutex_);
  std::erase_if(links_, [](const std::weak_ptr<Link>& old) { return old.expired(); });
  return links_.size();
}

}  // namespace stillow::ipc
