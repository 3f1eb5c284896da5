#include "PlatformLinuxFilter/QueueStatus.hpp"

#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>

namespace stillow::platform {

namespace {

constexpr const char* queueListPath = "/proc/net/netfilter/nfnetlink_queue";

/// Takes a decimal number and the blanks before it from the front of `line`.
template <class Number>
bool takeNumber(std::string_view& line, Number& number) noexcept {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
  if (error != std::errc()) return false;
  line.remove_prefix(static_cast<std::size_t>(end - line.data()));
  return line.empty() || line.front() == ' ';
}

/// The columns: queue, port, waiting, copy mode, copy range, dropped (queue full), dropped (socket
/// full), last packet, and a 1 that means nothing.
std::optional<QueueStatus> parseLine(std::string_view line, std::uint16_t number) noexcept {
  std::uint32_t queue = 0;
  std::uint32_t copyMode = 0;
  std::uint32_t copyRange = 0;
  QueueStatus status;
  const bool isWhole = takeNumber(line, queue) && takeNumber(line, status.portID) &&
                       takeNumber(line, status.waiting) && takeNumber(line, copyMode) &&
                       takeNumber(line, copyRange) && takeNumber(line, status.droppedQueueFull) &&
                       takeNumber(line, status.droppedSocketFull) &&
                       takeNumber(line, status.lastPacketID);
  if (!isWhole || queue != number) return std::nullopt;
  return status;
}

}  // namespace

std::optional<QueueStatus> QueueStatus::parse(std::string_view text,
                                              std::uint16_t number) noexcept {
  while (!text.empty()) {
    const auto length = std::min(text.find('\n'), text.size());
    if (const auto status = parseLine(text.substr(0, length), number)) return status;
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return std::nullopt;
}

std::expected<std::optional<QueueStatus>, std::error_code> QueueStatus::read(std::uint16_t number) {
  errno = 0;
  std::ifstream file(queueListPath);
  if (!file) {
    return std::unexpected(std::error_code(errno != 0 ? errno : EIO, std::generic_category()));
  }
  const std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) return std::unexpected(std::make_error_code(std::errc::io_error));
  return parse(text, number);
}

std::string queueHolderDescription(std::uint32_t portID) {
  std::ifstream file("/proc/" + std::to_string(portID) + "/comm");
  std::string name;
  if (!file || !std::getline(file, name) || name.empty()) {
    return "an unknown program (netlink port " + std::to_string(portID) + ")";
  }
  // A process chooses its own name: it must not be able to forge a log line.
  for (char& character : name) {
    if (character < ' ' || character > '~') character = '?';
  }
  return name + " (process " + std::to_string(portID) + ")";
}

}  // namespace stillow::platform
