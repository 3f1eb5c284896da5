#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace stillow::platform {

/// A program to run, what it reads from its standard input, and for how long it may run.
struct Command {
  /// Program name and arguments. A name without "/" is looked for where system programs lie, never
  /// along a PATH.
  std::vector<std::string> arguments;
  std::string input = {};
  /// In the place of the limit that the implementation has for all.
  std::optional<std::chrono::nanoseconds> limit = {};
};

struct CommandResult {
  int exitStatus = 0;
  std::string output;  ///< standard output, whole
  std::string errors;  ///< the beginning of standard error

  friend bool operator==(const CommandResult&, const CommandResult&) = default;
};

/// Why a command gave no result.
struct CommandFailure {
  enum class Reason : std::uint8_t {
    notStarted,
    tookTooLong,  ///< and was ended
    endedBySignal,
    printedTooMuch,  ///< and was ended
  };

  Reason reason;
  std::string description;  ///< one sentence for the log, with the program's name

  friend bool operator==(const CommandFailure&, const CommandFailure&) = default;
};

class CommandRunning {
 public:
  virtual ~CommandRunning() = default;
  /// Runs `command` to its end. Blocks, but not for longer than the limit.
  [[nodiscard]] virtual std::expected<CommandResult, CommandFailure> run(
      const Command& command) = 0;

 protected:
  CommandRunning() = default;
  CommandRunning(const CommandRunning&) = default;
  CommandRunning& operator=(const CommandRunning&) = default;
};

/// Runs system programs: without a shell, in "/", with an environment that nobody else chose, with
/// default signal handling, and with no descriptor of ours but the three standard ones.
///
/// A child that takes too long or prints too much is killed; its death is awaited by a descriptor,
/// and its id is not given back before, so that no later process can be hit. Any thread; several
/// commands at once.
class CommandRunner final : public CommandRunning {
 public:
  static constexpr std::chrono::nanoseconds defaultLimit = std::chrono::seconds(5);
  /// Far above the listing of any rule set that a kernel copes with.
  static constexpr std::size_t outputBytesMax = std::size_t{32} << 20;
  static constexpr std::size_t errorBytesMax = 4096;

  explicit CommandRunner(std::chrono::nanoseconds limit = defaultLimit,
                         std::vector<std::string> programDirectories = {"/usr/sbin", "/usr/bin",
                                                                        "/sbin", "/bin"});

  [[nodiscard]] std::expected<CommandResult, CommandFailure> run(const Command& command) override;

 private:
  /// The whole path; the name itself if it is in none of the directories.
  [[nodiscard]] std::string programPath(const std::string& name) const;

  void takeAbandoned();
  void abandon(pid_t pid);

  const std::chrono::nanoseconds limit_;
  const std::vector<std::string> programDirectories_;

  std::mutex mutex_;
  /// Killed, but stuck in the kernel when we looked. Taken off the process table some other time.
  std::vector<pid_t> abandoned_;
};

}  // namespace stillow::platform
