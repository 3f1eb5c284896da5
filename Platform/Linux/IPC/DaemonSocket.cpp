#include "PlatformLinuxIPC/DaemonSocket.hpp"

#include <array>
#include <utility>

namespace stillow::platform {

namespace {

using Failure = DaemonConnectionFailure;

/// What each detail begins with. A client recognises the failure by it.
struct Sentence {
  Failure failure;
  std::string_view beginning;
};
constexpr std::array<Sentence, 8> sentences{
    {{Failure::socketMissing, "There is no socket at "},
     {Failure::connectionRefused, "Nobody listens at "},
     {Failure::notPermitted, "Connecting is not permitted at "},
     {Failure::timedOut, "No connection was accepted in time at "},
     {Failure::notTrusted, "The daemon is not to be trusted at "},
     {Failure::closedUnanswered, "The connection was closed before an answer came from "},
     {Failure::answerUnreadable, "An answer that cannot be read came from "},
     {Failure::other, "Connecting failed at "}}};

}  // namespace

std::filesystem::path daemonSocketPath(std::string_view serviceName) {
  return std::filesystem::path(STILLOW_RUNTIME_DIRECTORY) / (std::string(serviceName) + ".sock");
}

ipc::PlatformError connectionError(Failure failure, const std::filesystem::path& socketPath,
                                   std::string_view reason) {
  std::string words;
  for (const auto& sentence : sentences) {
    if (sentence.failure == failure) words = sentence.beginning;
  }
  words += socketPath.string();
  if (!reason.empty()) words.append(": ").append(reason);
  if (!words.ends_with('.')) words += '.';
  return {.domain = std::string(ipc::PlatformError::connectionDomain),
          .code = static_cast<std::int64_t>(failure),
          .description = std::move(words),
          .payload = std::nullopt};
}

std::optional<Failure> connectionFailure(const ipc::DaemonError& error) {
  const auto* const unavailable = core::getIf<ipc::DaemonError::daemonUnavailable>(error);
  if (unavailable == nullptr) return std::nullopt;
  for (const auto& sentence : sentences) {
    if (unavailable->detail.starts_with(sentence.beginning)) return sentence.failure;
  }
  return std::nullopt;
}

}  // namespace stillow::platform
