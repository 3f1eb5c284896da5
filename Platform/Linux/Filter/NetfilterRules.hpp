#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace stillow::platform {

enum class IPFamily : std::uint8_t { v4, v6 };

/// One command for the kernel's rules of one family: program name and arguments, without a path.
using RuleCommand = std::vector<std::string>;

/// What a family's own listing says about our rules. Read before each load, because a load has to
/// take away exactly the jumps that are there.
struct InstalledRules {
  /// How often a built-in chain jumps to ours. More than once is harmless but a sign of two loads
  /// at the same time; the next load leaves one.
  struct Jumps {
    std::size_t output = 0;
    std::size_t forward = 0;
    friend bool operator==(const Jumps&, const Jumps&) = default;
  };
  Jumps hold;     ///< in table mangle
  Jumps verdict;  ///< in table filter
  /// Rules in our chains; 0 also when a chain is not there.
  std::size_t holdRules = 0;
  std::size_t answerRules = 0;
  std::size_t verdictRules = 0;

  /// From the output of `NetfilterRules::listCommands`, joined in any order. Lines about anybody
  /// else's rules are passed over.
  [[nodiscard]] static InstalledRules parse(std::string_view listing);

  friend bool operator==(const InstalledRules&, const InstalledRules&) = default;
};

/// The kernel rules that bring flows to stillow-filter and carry out what it decides, as text for
/// `iptables-restore --noflush -w` and `ip6tables-restore --noflush -w`. Pure: runs nothing.
///
/// Each family's text holds two transactions, one for each table, in the order in which no packet
/// is ever held without somebody to carry out the answer. docs/filter.md explains the rules one by
/// one.
///
/// Only bits of FlowMark::mask are ever changed in a mark. The loopback interface, packets that
/// connection tracking does not track, replies, and whatever is neither TCP nor UDP pass untouched.
class NetfilterRules {
 public:
  /// Jumped to from OUTPUT and FORWARD in table mangle: queues what is undecided.
  static constexpr std::string_view holdChain = "STILLOW-HOLD";
  /// In table mangle: moves an answer from the packet's mark to the connection's.
  static constexpr std::string_view answerChain = "STILLOW-ANSWER";
  /// Jumped to from OUTPUT and FORWARD in table filter: refuses the packets of dropped flows.
  static constexpr std::string_view verdictChain = "STILLOW-VERDICT";

  NetfilterRules() = delete;

  /// Brings every rule in place, each exactly once and ours first in the built-in chains, whatever
  /// of them was there before. Fails as a whole in a table if `installed` no longer holds: list
  /// again, then.
  [[nodiscard]] static std::string armText(IPFamily family, const InstalledRules& installed);

  /// Takes every rule and chain away. Harmless when none is there; fails like `armText`.
  [[nodiscard]] static std::string disarmText(IPFamily family, const InstalledRules& installed);

  /// The program, with arguments, whose standard input takes the texts.
  [[nodiscard]] static RuleCommand restoreCommand(IPFamily family);

  /// The commands whose outputs, joined, `InstalledRules::parse` understands.
  [[nodiscard]] static std::vector<RuleCommand> listCommands(IPFamily family);

  /// One command for each of our jumps and rules that succeeds only while the kernel has it. All of
  /// them succeed exactly when nothing of ours was taken away; the first that fails settles it.
  [[nodiscard]] static std::vector<RuleCommand> checkCommands(IPFamily family);

  /// A cheaper read-back from one listing: every jump is there and every chain of ours has as many
  /// rules as we put there. Sees what any ordinary program does (flush, delete, reload of its own
  /// rule set), not a rule of ours exchanged for another.
  [[nodiscard]] static bool areInPlace(IPFamily family, const InstalledRules& installed);
};

}  // namespace stillow::platform
