#include "PlatformLinuxFilter/NetfilterRules.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <span>

#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/PayloadMatch.hpp"

namespace stillow::platform {

namespace {

constexpr std::string_view mangleTable = "mangle";
constexpr std::string_view filterTable = "filter";

/// Seconds that a command waits for another that holds the lock on the rules. Only the older
/// implementation of iptables has that lock; its limit lies below ours for a whole command.
constexpr std::string_view lockWaitSeconds = "3";

/// The built-in chains that see a flow's packets on their way out: those of this machine's own
/// sockets, and those of containers and virtual machines behind it.
constexpr std::array<std::string_view, 2> hooks{"OUTPUT", "FORWARD"};

/// One rule of ours, its arguments without the command that adds or checks it.
struct Rule {
  std::string_view chain;
  std::vector<std::string> match;
};

/// A table's part of the rules. The chains stand in an order in which each may be deleted.
struct TablePart {
  std::string_view table;
  std::vector<std::string_view> chains;
  std::string_view jumpTarget;
  std::vector<Rule> rules;
};

std::string hexadecimal(std::uint32_t value) {
  std::array<char, 8> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
  return "0x" + std::string(digits.data(), end);
}

/// "VALUE/MASK", as every mark match and target takes it.
std::string masked(std::uint32_t bits) {
  return hexadecimal(bits) + "/" + hexadecimal(FlowMark::mask);
}

Rule queueRule(std::string_view protocol, const PayloadMatch& match) {
  // Only the direction of the client: a server on this machine, or one behind it, names nobody. The
  // direction exists only for tracked packets, so this also leaves the untracked ones alone, whose
  // decision could not be kept anywhere.
  return {NetfilterRules::holdChain,
          {"-p", std::string(protocol), "-m", "conntrack", "--ctdir", "ORIGINAL", "-m", "bpf",
           "--bytecode", std::string(match.bytecode), "-j", "NFQUEUE", "--queue-num",
           std::to_string(filterQueueNumber), "--queue-bypass"}};
}

TablePart manglePart(IPFamily family) {
  const bool isV4 = family == IPFamily::v4;
  constexpr auto hold = NetfilterRules::holdChain;
  constexpr auto answer = NetfilterRules::answerChain;
  return {
      mangleTable,
      {hold, answer},
      hold,
      {
          // Local proxies and the resolver's stub live there; what they send on is seen.
          {hold, {"-o", "lo", "-j", "RETURN"}},
          // A packet that comes back from the program (it answers "repeat", so the packet enters
          // this table again and no rule of anybody else is skipped).
          {hold,
           {"-m", "mark", "!", "--mark", masked(FlowMark::undecided), "-g", std::string(answer)}},
          // A new connection over the ports of an earlier one. Connection tracking may still hold
          // the old entry (always, if it ended by a reset from the far side, which is what the
          // client of a dropped flow sees), and the old decision with it.
          {hold,
           {"-p", "tcp", "-m", "tcp", "--syn", "-m", "conntrack", "--ctdir", "ORIGINAL", "-m",
            "connmark", "!", "--mark", masked(FlowMark::undecided), "-j", "CONNMARK", "--set-xmark",
            masked(FlowMark::undecided)}},
          // Decided: where bulk traffic leaves. Not ACCEPT, which would skip others' rules.
          {hold, {"-m", "connmark", "!", "--mark", masked(FlowMark::undecided), "-j", "RETURN"}},
          queueRule("tcp", isV4 ? tcpPayloadIPv4 : tcpPayloadIPv6),
          queueRule("udp", isV4 ? quicInitialIPv4 : quicInitialIPv6),
          {answer,
           {"-m", "mark", "--mark", masked(FlowMark::dropped), "-j", "CONNMARK", "--set-xmark",
            masked(FlowMark::dropped)}},
          // A decision to drop stands: later segments may have been judged without the name.
          {answer,
           {"-m", "mark", "--mark", masked(FlowMark::released), "-m", "connmark", "--mark",
            masked(FlowMark::undecided), "-j", "CONNMARK", "--set-xmark",
            masked(FlowMark::released)}},
          // Before the packet leaves this table, so that it is routed by others' bits alone.
          {answer, {"-j", "MARK", "--set-xmark", masked(FlowMark::undecided)}},
      }};
}

TablePart filterPart(IPFamily family) {
  constexpr auto verdict = NetfilterRules::verdictChain;
  const auto dropped = masked(FlowMark::dropped);
  const std::string prohibited =
      family == IPFamily::v4 ? "icmp-admin-prohibited" : "icmp6-adm-prohibited";
  // Positive matches only: a negated one is false for untracked packets too, and a reject behind it
  // once broke neighbour discovery. ICMP is never rejected, because the error that a rejection
  // sends belongs to the dropped flow, and neither are its resets.
  return {filterTable,
          {verdict},
          verdict,
          {
              {verdict,
               {"-p", "tcp", "-m", "connmark", "--mark", dropped, "-m", "tcp", "!", "--tcp-flags",
                "RST", "RST", "-j", "REJECT", "--reject-with", "tcp-reset"}},
              {verdict,
               {"-p", "udp", "-m", "connmark", "--mark", dropped, "-j", "REJECT", "--reject-with",
                prohibited}},
          }};
}

std::size_t jumpCount(const InstalledRules::Jumps& jumps, std::string_view hook) {
  return hook == "OUTPUT" ? jumps.output : jumps.forward;
}

const InstalledRules::Jumps& jumpsOf(const TablePart& part, const InstalledRules& installed) {
  return part.table == mangleTable ? installed.hold : installed.verdict;
}

void appendArgument(std::string& line, std::string_view argument) {
  line += ' ';
  const bool isQuoted = argument.find(' ') != std::string_view::npos;
  if (isQuoted) line += '"';
  line += argument;
  if (isQuoted) line += '"';
}

void appendBeginning(std::string& text, const TablePart& part) {
  text.append("*").append(part.table).append("\n");
  // Declaring a chain creates it or, where it exists, empties it.
  for (const auto chain : part.chains) text.append(":").append(chain).append(" - [0:0]\n");
}

void appendJumpDeletions(std::string& text, const TablePart& part,
                         const InstalledRules& installed) {
  for (const auto hook : hooks) {
    for (std::size_t count = jumpCount(jumpsOf(part, installed), hook); count > 0; --count) {
      text.append("-D ").append(hook).append(" -j ").append(part.jumpTarget).append("\n");
    }
  }
}

void appendArming(std::string& text, const TablePart& part, const InstalledRules& installed) {
  appendBeginning(text, part);
  for (const auto& rule : part.rules) {
    text.append("-A ").append(rule.chain);
    for (const auto& argument : rule.match) appendArgument(text, argument);
    text += '\n';
  }
  appendJumpDeletions(text, part, installed);
  for (const auto hook : hooks) {
    text.append("-I ").append(hook).append(" 1 -j ").append(part.jumpTarget).append("\n");
  }
  text += "COMMIT\n";
}

void appendDisarming(std::string& text, const TablePart& part, const InstalledRules& installed) {
  appendBeginning(text, part);
  appendJumpDeletions(text, part, installed);
  for (const auto chain : part.chains) text.append("-X ").append(chain).append("\n");
  text += "COMMIT\n";
}

std::string program(IPFamily family, std::string_view suffix) {
  return (family == IPFamily::v4 ? "iptables" : "ip6tables") + std::string(suffix);
}

void appendChecks(std::vector<RuleCommand>& commands, IPFamily family, const TablePart& part) {
  const RuleCommand head{program(family, ""),     "-w", std::string(lockWaitSeconds), "-t",
                         std::string(part.table), "-C"};
  for (const auto hook : hooks) {
    auto& command = commands.emplace_back(head);
    command.insert(command.end(), {std::string(hook), "-j", std::string(part.jumpTarget)});
  }
  for (const auto& rule : part.rules) {
    auto& command = commands.emplace_back(head);
    command.emplace_back(rule.chain);
    command.insert(command.end(), rule.match.begin(), rule.match.end());
  }
}

std::size_t ruleCount(const TablePart& part, std::string_view chain) {
  return static_cast<std::size_t>(
      std::ranges::count_if(part.rules, [chain](const Rule& rule) { return rule.chain == chain; }));
}

/// Counts the lines of one listing that are about us.
class ListingReader {
 public:
  InstalledRules result;

  void readLine(std::string_view line) {
    if (line.starts_with('*')) {
      table_ = line.substr(1);
    } else if (table_ == mangleTable) {
      countJump(line, NetfilterRules::holdChain, result.hold);
      result.holdRules += isRuleOf(line, NetfilterRules::holdChain);
      result.answerRules += isRuleOf(line, NetfilterRules::answerChain);
    } else if (table_ == filterTable) {
      countJump(line, NetfilterRules::verdictChain, result.verdict);
      result.verdictRules += isRuleOf(line, NetfilterRules::verdictChain);
    }
  }

 private:
  static bool isRuleOf(std::string_view line, std::string_view chain) {
    return line.starts_with("-A ") && line.substr(3).starts_with(chain) &&
           line.substr(3 + chain.size()).starts_with(' ');
  }

  static void countJump(std::string_view line, std::string_view target,
                        InstalledRules::Jumps& jumps) {
    for (const auto hook : hooks) {
      // A jump with a match of its own is not ours: it would not be found for deletion either.
      std::string expected("-A ");
      expected.append(hook).append(" -j ").append(target);
      if (line == expected) ++(hook == "OUTPUT" ? jumps.output : jumps.forward);
    }
  }

  std::string_view table_;
};

}  // namespace

InstalledRules InstalledRules::parse(std::string_view listing) {
  ListingReader reader;
  while (!listing.empty()) {
    const auto length = std::min(listing.find('\n'), listing.size());
    auto line = listing.substr(0, length);
    while (line.ends_with(' ') || line.ends_with('\r')) line.remove_suffix(1);
    reader.readLine(line);
    listing.remove_prefix(std::min(length + 1, listing.size()));
  }
  return reader.result;
}

std::string NetfilterRules::armText(IPFamily family, const InstalledRules& installed) {
  std::string text;
  appendArming(text, filterPart(family), installed);
  appendArming(text, manglePart(family), installed);
  return text;
}

std::string NetfilterRules::disarmText(IPFamily family, const InstalledRules& installed) {
  std::string text;
  appendDisarming(text, manglePart(family), installed);
  appendDisarming(text, filterPart(family), installed);
  return text;
}

RuleCommand NetfilterRules::restoreCommand(IPFamily family) {
  return {program(family, "-restore"), "--noflush", "-w", std::string(lockWaitSeconds)};
}

std::vector<RuleCommand> NetfilterRules::listCommands(IPFamily family) {
  std::vector<RuleCommand> commands;
  for (const auto table : {mangleTable, filterTable}) {
    commands.push_back({program(family, "-save"), "-t", std::string(table)});
  }
  return commands;
}

std::vector<RuleCommand> NetfilterRules::checkCommands(IPFamily family) {
  std::vector<RuleCommand> commands;
  appendChecks(commands, family, manglePart(family));
  appendChecks(commands, family, filterPart(family));
  return commands;
}

bool NetfilterRules::areInPlace(IPFamily family, const InstalledRules& installed) {
  const auto mangle = manglePart(family);
  const auto filter = filterPart(family);
  return installed.hold.output > 0 && installed.hold.forward > 0 && installed.verdict.output > 0 &&
         installed.verdict.forward > 0 && installed.holdRules == ruleCount(mangle, holdChain) &&
         installed.answerRules == ruleCount(mangle, answerChain) &&
         installed.verdictRules == ruleCount(filter, verdictChain);
}

}  // namespace stillow::platform
