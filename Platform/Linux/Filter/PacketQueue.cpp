#include "PlatformLinuxFilter/PacketQueue.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

// Before <linux/netfilter.h>, which otherwise declares the same names.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "PlatformLinuxFilter/NetlinkSocket.hpp"
#include "PlatformLinuxFilter/QueueStatus.hpp"

namespace stillow::platform {

namespace {

/// Room beside the copied bytes for the netlink header and the attributes about a packet.
constexpr std::size_t messageOverheadBytes = 1024;
constexpr std::size_t messageBytesMax = PacketQueue::copyBytes + messageOverheadBytes;
/// Netlink header, netfilter header, verdict and mark.
constexpr std::size_t verdictBytes = MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(nfgenmsg)) +
                                     MNL_ATTR_HDRLEN + MNL_ALIGN(sizeof(nfqnl_msg_verdict_hdr)) +
                                     MNL_ATTR_HDRLEN + MNL_ALIGN(sizeof(std::uint32_t));

/// Puts the beginning of a message to the queue subsystem at `memory`.
nlmsghdr* beginMessage(void* memory, std::uint16_t type, std::uint16_t queueNumber) noexcept {
  nlmsghdr* const message = mnl_nlmsg_put_header(memory);
  message->nlmsg_type = static_cast<std::uint16_t>((NFNL_SUBSYS_QUEUE << 8) | type);
  message->nlmsg_flags = NLM_F_REQUEST;
  auto* const header =
      static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
  header->nfgen_family = AF_UNSPEC;
  header->version = NFNETLINK_V0;
  header->res_id = htons(queueNumber);
  return message;
}

/// Reads one attribute about a packet. Its length has been checked against the message's.
int readPacketAttribute(const nlattr* attribute, void* result) {
  auto& packet = *static_cast<std::optional<QueuedPacket>*>(result);
  const std::size_t size = mnl_attr_get_payload_len(attribute);
  const auto* const bytes = static_cast<const std::uint8_t*>(mnl_attr_get_payload(attribute));
  switch (mnl_attr_get_type(attribute)) {
    case NFQA_PACKET_HDR:  // the kernel puts it first
      if (size < sizeof(nfqnl_msg_packet_hdr)) break;
      nfqnl_msg_packet_hdr header;
      std::memcpy(&header, bytes, sizeof(header));
      packet = QueuedPacket{.id = ntohl(header.packet_id)};
      break;
    case NFQA_MARK:
      if (packet && size == sizeof(std::uint32_t))
        packet->mark = ntohl(mnl_attr_get_u32(attribute));
      break;
    case NFQA_PAYLOAD:
      if (packet) packet->payload = {bytes, size};
      break;
    default:
      break;
  }
  return MNL_CB_OK;
}

/// None for another message, or if there is no identifier to answer with.
std::optional<QueuedPacket> readPacket(const nlmsghdr& message) {
  std::optional<QueuedPacket> packet;
  if (message.nlmsg_type == ((NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_PACKET)) {
    (void)mnl_attr_parse(&message, sizeof(nfgenmsg), readPacketAttribute, &packet);
  }
  return packet;
}

PacketQueueError errorFor(int number, std::uint16_t queueNumber) {
  const auto status = QueueStatus::read(queueNumber);
  const auto queueName = "packet queue " + std::to_string(queueNumber);
  const auto code = systemError(number);
  if (number == EPROTONOSUPPORT || number == EAFNOSUPPORT ||
      (!status && status.error() == std::errc::no_such_file_or_directory)) {
    return {PacketQueueFailure::kernelWithoutQueue, code,
            "this kernel has no packet queues (nfnetlink_queue): " + code.message()};
  }
  // The kernel gives one answer to whoever is too late and to whoever lacks the capability.
  if ((number == EPERM || number == EBUSY) && status && *status) {
    return {PacketQueueFailure::heldByAnotherProgram, code,
            queueName + " is held by " + queueHolderDescription((*status)->portID)};
  }
  if (number == EPERM || number == EACCES) {
    return {PacketQueueFailure::notPermitted, code,
            queueName + " cannot be bound without CAP_NET_ADMIN"};
  }
  return {PacketQueueFailure::systemError, code, queueName + " cannot be bound: " + code.message()};
}

}  // namespace

struct PacketQueue::Impl {
  Impl(NetlinkSocket ownedSocket, std::uint16_t queueNumber)
      : socket(std::move(ownedSocket)),
        number(queueNumber),
        received(batchMax * messageBytesMax),
        verdicts(batchMax * verdictBytes) {}

  [[nodiscard]] int descriptor() const noexcept { return mnl_socket_get_fd(socket.get()); }
  [[nodiscard]] int configure();
  [[nodiscard]] int awaitAcknowledgement();
  void collect(std::size_t slot, std::size_t size);
  void enlargeReceiveBuffer() const noexcept;

  NetlinkSocket socket;
  std::uint16_t number;
  std::vector<std::uint8_t> received;
  std::array<QueuedPacket, batchMax> packets;
  std::size_t packetCount = 0;
  std::vector<std::uint8_t> verdicts;
  std::size_t verdictCount = 0;
  std::uint64_t overruns = 0;
};

/// Binds and sets everything in one message, so that there is no moment in which the queue is bound
/// and its packets are discarded for lack of a copy mode. Gives 0 or the error's number.
int PacketQueue::Impl::configure() {
  alignas(NLMSG_ALIGNTO) std::array<std::uint8_t, 256> memory{};
  nlmsghdr* const message = beginMessage(memory.data(), NFQNL_MSG_CONFIG, number);
  message->nlmsg_flags |= NLM_F_ACK;
  nfqnl_msg_config_cmd command{};
  command.command = NFQNL_CFG_CMD_BIND;
  mnl_attr_put(message, NFQA_CFG_CMD, sizeof(command), &command);
  nfqnl_msg_config_params parameters{};
  parameters.copy_range = htonl(static_cast<std::uint32_t>(copyBytes));
  parameters.copy_mode = NFQNL_COPY_PACKET;
  mnl_attr_put(message, NFQA_CFG_PARAMS, sizeof(parameters), &parameters);
  mnl_attr_put_u32(message, NFQA_CFG_QUEUE_MAXLEN, htonl(lengthMax));
  // Not NFQA_CFG_F_GSO: datagrams that were sent together would come glued into one.
  mnl_attr_put_u32(message, NFQA_CFG_FLAGS, htonl(NFQA_CFG_F_FAIL_OPEN));
  mnl_attr_put_u32(message, NFQA_CFG_MASK, htonl(NFQA_CFG_F_FAIL_OPEN));
  if (mnl_socket_sendto(socket.get(), message, message->nlmsg_len) < 0) return errno;
  return awaitAcknowledgement();
}

int PacketQueue::Impl::awaitAcknowledgement() {
  for (;;) {
    const ssize_t size = mnl_socket_recvfrom(socket.get(), received.data(), messageBytesMax);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return errno;
    packetCount = 0;
    int remaining = static_cast<int>(size);
    const auto* message = reinterpret_cast<const nlmsghdr*>(received.data());
    for (; mnl_nlmsg_ok(message, remaining); message = mnl_nlmsg_next(message, &remaining)) {
      if (message->nlmsg_type == NLMSG_ERROR) {
        return -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message))->error;
      }
      // Queued between the binding and its acknowledgement: nobody is there yet to judge it.
      if (const auto packet = readPacket(*message)) {
        alignas(NLMSG_ALIGNTO) std::array<std::uint8_t, verdictBytes> memory{};
        nlmsghdr* const answer = beginMessage(memory.data(), NFQNL_MSG_VERDICT, number);
        const nfqnl_msg_verdict_hdr verdict{htonl(NF_ACCEPT), htonl(packet->id)};
        mnl_attr_put(answer, NFQA_VERDICT_HDR, sizeof(verdict), &verdict);
        if (mnl_socket_sendto(socket.get(), answer, answer->nlmsg_len) < 0) return errno;
      }
    }
  }
}

void PacketQueue::Impl::enlargeReceiveBuffer() const noexcept {
  const int bytes = receiveBufferBytes;
  if (::setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) == 0) return;
  // In a user namespace only the system's limit is to be had; a smaller buffer fails open earlier.
  (void)::setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
}

/// Takes the packets out of what was received into `slot`.
void PacketQueue::Impl::collect(std::size_t slot, std::size_t size) {
  int remaining = static_cast<int>(size);
  const auto* message = reinterpret_cast<const nlmsghdr*>(received.data() + slot * messageBytesMax);
  for (; mnl_nlmsg_ok(message, remaining); message = mnl_nlmsg_next(message, &remaining)) {
    // An error message is about an answer that came too late: the packet left with its flow's
    // rules or device, and nobody waits for it.
    const auto packet = readPacket(*message);
    if (packet && packetCount < packets.size()) packets[packetCount++] = *packet;
  }
}

PacketQueue::PacketQueue(std::unique_ptr<Impl> impl) noexcept : impl_(std::move(impl)) {}
PacketQueue::PacketQueue(PacketQueue&&) noexcept = default;
PacketQueue& PacketQueue::operator=(PacketQueue&&) noexcept = default;
PacketQueue::~PacketQueue() = default;

std::expected<PacketQueue, PacketQueueError> PacketQueue::bind(std::uint16_t number) {
  NetlinkSocket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
  if (!socket) return std::unexpected(errorFor(errno, number));
  if (mnl_socket_bind(socket.get(), 0, ::getpid()) != 0) {
    return std::unexpected(errorFor(errno, number));
  }
  auto impl = std::make_unique<Impl>(std::move(socket), number);
  impl->enlargeReceiveBuffer();
  if (const int error = impl->configure(); error != 0) {
    return std::unexpected(errorFor(error, number));
  }
  return PacketQueue(std::move(impl));
}

int PacketQueue::descriptor() const noexcept { return impl_->descriptor(); }

std::expected<std::span<const QueuedPacket>, std::error_code> PacketQueue::receive() {
  std::array<iovec, batchMax> vectors;
  std::array<mmsghdr, batchMax> messages{};
  for (std::size_t slot = 0; slot < batchMax; ++slot) {
    vectors[slot] = {impl_->received.data() + slot * messageBytesMax, messageBytesMax};
    messages[slot].msg_hdr.msg_iov = &vectors[slot];
    messages[slot].msg_hdr.msg_iovlen = 1;
  }
  impl_->packetCount = 0;
  const int count =
      ::recvmmsg(impl_->descriptor(), messages.data(), batchMax, MSG_DONTWAIT, nullptr);
  if (count < 0) {
    switch (errno) {
      case ENOBUFS:  // the socket was full and packets passed; what is in it is still good
        ++impl_->overruns;
        return std::span<const QueuedPacket>{};
      case EAGAIN:
      case EINTR:
        return std::span<const QueuedPacket>{};
      default:
        return std::unexpected(systemError(errno));
    }
  }
  for (std::size_t slot = 0; slot < static_cast<std::size_t>(count); ++slot) {
    impl_->collect(slot, messages[slot].msg_len);
  }
  return std::span<const QueuedPacket>(impl_->packets).first(impl_->packetCount);
}

std::error_code PacketQueue::answer(const QueuedPacket& packet, std::uint32_t mark) {
  if (impl_->verdictCount == batchMax) {
    if (const auto error = flush()) return error;
  }
  void* const memory = impl_->verdicts.data() + impl_->verdictCount * verdictBytes;
  nlmsghdr* const message = beginMessage(memory, NFQNL_MSG_VERDICT, impl_->number);
  const nfqnl_msg_verdict_hdr verdict{htonl(NF_REPEAT), htonl(packet.id)};
  mnl_attr_put(message, NFQA_VERDICT_HDR, sizeof(verdict), &verdict);
  mnl_attr_put_u32(message, NFQA_MARK, htonl(mark));
  ++impl_->verdictCount;
  return {};
}

std::error_code PacketQueue::flush() {
  if (impl_->verdictCount == 0) return {};
  const std::size_t size = impl_->verdictCount * verdictBytes;
  // The kernel takes a batch whole. It can refuse it for lack of memory for a moment.
  constexpr int attemptsMax = 100;
  for (int attempt = 1;; ++attempt) {
    if (mnl_socket_sendto(impl_->socket.get(), impl_->verdicts.data(), size) >= 0) break;
    const bool mayPass = errno == EINTR || errno == ENOBUFS || errno == ENOMEM || errno == EAGAIN;
    if (!mayPass || attempt == attemptsMax) return systemError(errno);
    (void)::usleep(1000);
  }
  impl_->verdictCount = 0;
  return {};
}

std::uint64_t PacketQueue::overrunCount() const noexcept { return impl_->overruns; }

}  // namespace stillow::platform
