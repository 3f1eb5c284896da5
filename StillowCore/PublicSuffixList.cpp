#include "StillowCore/PublicSuffixList.hpp"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/ResourceBundle.hpp"
#include "StillowCore/SuffixHash.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

namespace {

enum Kind : std::uint8_t { exact = 1, wildcardParent = 2, exception = 4 };

/// All three rule sets in one table, with every suffix that a rule ends in. So a look-up that walks
/// a host from its right end makes one probe per label and stops where no rule can follow, which
/// for most hosts is after two.
class RuleTable {
 public:
  void insert(std::string_view rule, Kind kind) {
    const std::string composed = text::canonicallyComposed(rule);
    const auto isSeparator = [&](std::size_t at) { return text::isWholeCharacter(composed, at); };
    require(text_.size() + composed.size() <= std::numeric_limits<std::uint32_t>::max(),
            "the public suffix list is too long");
    const std::size_t start = text_.size();
    text_ += composed;
    hash_.forEachSuffix(composed, 1, isSeparator, [&](const SuffixHash::Suffix& suffix) {
      Node& node = nodeFor({.hash = suffix.hash,
                            .offset = static_cast<std::uint32_t>(start + suffix.offset),
                            .length = static_cast<std::uint32_t>(composed.size() - suffix.offset)});
      if (suffix.offset == 0) node.kinds |= kind;
      return false;
    });
  }

  /// The kinds of rule that `suffix` is: 0 if rules only end in it, -1 if none does.
  [[nodiscard]] int kindsOf(std::string_view suffix, std::uint64_t hash) const noexcept {
    for (std::size_t at = slotOf(hash); slots_[at].node != 0; at = next(at)) {
      if (slots_[at].tag != tagOf(hash)) continue;
      const Node& node = nodes_[slots_[at].node - 1];
      if (textOf(node) == suffix) return node.kinds;
    }
    return -1;
  }

  [[nodiscard]] const SuffixHash& hash() const noexcept { return hash_; }

 private:
  struct Node {
    std::uint64_t hash;
    std::uint32_t offset;  ///< in `text_`
    std::uint32_t length;
    std::uint8_t kinds = 0;
  };
  /// Small, because most look-ups end at a free slot or at one with another tag.
  struct Slot {
    std::uint32_t tag = 0;
    std::uint32_t node = 0;  ///< counts from 1; 0 marks a free slot
  };

  static constexpr std::uint32_t tagOf(std::uint64_t hash) noexcept {
    return static_cast<std::uint32_t>(hash);
  }
  [[nodiscard]] std::size_t slotOf(std::uint64_t hash) const noexcept {
    const int indexBits = std::countr_zero(slots_.size());
    return static_cast<std::size_t>(hash >> (64U - static_cast<unsigned>(indexBits)));
  }
  [[nodiscard]] std::size_t next(std::size_t slot) const noexcept {
    return (slot + 1) & (slots_.size() - 1);
  }
  [[nodiscard]] std::string_view textOf(const Node& node) const noexcept {
    return std::string_view(text_).substr(node.offset, node.length);
  }

  Node& nodeFor(const Node& wanted) {
    std::size_t at = slotOf(wanted.hash);
    for (; slots_[at].node != 0; at = next(at)) {
      Node& node = nodes_[slots_[at].node - 1];
      if (node.hash == wanted.hash && textOf(node) == textOf(wanted)) return node;
    }
    nodes_.push_back(wanted);
    slots_[at] = {tagOf(wanted.hash), static_cast<std::uint32_t>(nodes_.size())};
    if (2 * nodes_.size() > slots_.size()) doubleSlots();
    return nodes_.back();
  }

  void doubleSlots() {
    slots_.assign(2 * slots_.size(), Slot{});
    for (std::uint32_t node = 1; node <= nodes_.size(); ++node) {
      const std::uint64_t hash = nodes_[node - 1].hash;
      std::size_t at = slotOf(hash);
      while (slots_[at].node != 0) at = next(at);
      slots_[at] = {tagOf(hash), node};
    }
  }

  // The rules ship with the product, so nobody can choose them to collide.
  SuffixHash hash_ = SuffixHash::fixed();
  std::vector<Slot> slots_ = std::vector<Slot>(2);  // A power of two, at most half of them taken.
  std::vector<Node> nodes_;
  std::string text_;
};

void insertWithASCIIForm(PublicSuffixList::RuleSet& rules, std::string_view rule) {
  rules.emplace(rule);
  if (text::isASCII(rule)) return;
  if (auto ascii = text::asciiHost(rule)) rules.insert(std::move(*ascii));
}

/// Without empty ones.
std::vector<std::string_view> labelsOf(std::string_view host) {
  std::vector<std::string_view> labels;
  for (std::size_t start = 0; start <= host.size();) {
    const std::size_t end = std::min(text::find(host, ".", start), host.size());
    if (end > start) labels.push_back(host.substr(start, end - start));
    start = end + 1;
  }
  return labels;
}

std::string joined(const std::vector<std::string_view>& labels, std::size_t first) {
  std::string name;
  for (std::size_t i = first; i < labels.size(); ++i) {
    if (i > first) name += '.';
    name += labels[i];
  }
  return name;
}

}  // namespace

struct PublicSuffixList::Rules {
  RuleSet exactRules;
  RuleSet wildcardParents;
  RuleSet exceptionRules;
  RuleTable table;

  [[nodiscard]] bool holds(const std::string& candidate, Kind kind) const {
    const std::string composed = text::canonicallyComposed(candidate);
    const int kinds = table.kindsOf(composed, table.hash()(composed));
    return kinds > 0 && (kinds & kind) != 0;
  }

  /// Index of the label that the public suffix begins with, for at least two labels of any text.
  [[nodiscard]] std::size_t suffixStart(const std::vector<std::string_view>& labels) const {
    for (std::size_t i = 0; i + 1 < labels.size(); ++i) {
      const std::string candidate = joined(labels, i);
      if (holds(candidate, exception)) return i + 1;
      if (holds(candidate, exact)) return i;
      if (holds(joined(labels, i + 1), wildcardParent)) return i;
    }
    const std::size_t last = labels.size() - 1;
    return holds(joined(labels, last), exception) ? labels.size() : last;
  }
};

PublicSuffixList::PublicSuffixList(std::string_view contents) {
  auto rules = std::make_shared<Rules>();
  for (std::string_view line : text::lines(contents)) {
    line = text::trimmingWhitespace(line);
    if (line.empty() || text::hasPrefix(line, "//")) continue;
    const std::string lower = text::lowercased(line.substr(0, text::find(line, " ")));
    const std::string_view rule = lower;
    if (text::hasPrefix(rule, "!")) {
      insertWithASCIIForm(rules->exceptionRules, rule.substr(1));
    } else if (text::hasPrefix(rule, "*.")) {
      insertWithASCIIForm(rules->wildcardParents, rule.substr(2));
    } else {
      insertWithASCIIForm(rules->exactRules, rule);
    }
  }

  const std::pair<const RuleSet&, Kind> sets[]{{rules->exactRules, exact},
                                               {rules->wildcardParents, wildcardParent},
                                               {rules->exceptionRules, exception}};
  for (const auto& [set, kind] : sets) {
    for (const auto& rule : set) rules->table.insert(rule, kind);
  }
  rules_ = std::move(rules);
}

const PublicSuffixList& PublicSuffixList::fromResource() {
  static const PublicSuffixList list =
      fromResource(ResourceBundle::named("StillowCore_StillowCore"));
  return list;
}

PublicSuffixList PublicSuffixList::fromResource(const ResourceBundle& bundle) {
  const auto contents = bundle.contents("public_suffix_list", "dat");
  if (!contents || !text::isValidUTF8(*contents)) {
    stopProcess("StillowCore is missing its bundled public_suffix_list.dat resource");
  }
  return PublicSuffixList(*contents);
}

const PublicSuffixList::RuleSet& PublicSuffixList::exactRules() const noexcept {
  return rules_->exactRules;
}
const PublicSuffixList::RuleSet& PublicSuffixList::wildcardParents() const noexcept {
  return rules_->wildcardParents;
}
const PublicSuffixList::RuleSet& PublicSuffixList::exceptionRules() const noexcept {
  return rules_->exceptionRules;
}

std::optional<PublicSuffixList::Split> PublicSuffixList::split(
    std::string_view host) const noexcept {
  if (host.empty() || !text::isASCII(host)) return std::nullopt;
  const RuleTable& table = rules_->table;
  // Candidates come shortest first, so a later hit beats an earlier one. `end` is where the
  // candidate before this one began, less its dot.
  std::size_t end = host.size();
  std::size_t previous = host.size();
  std::size_t suffix = host.size();
  std::size_t registrable = host.size();
  std::size_t labels = 0;
  std::size_t suffixLabels = 0;
  bool isBelowWildcard = false;
  bool hasEmptyLabel = false;
  const auto isSeparator = [](std::size_t) { return true; };
  table.hash().forEachSuffix(host, 1, isSeparator, [&](const SuffixHash::Suffix& candidate) {
    if (candidate.offset == end) return hasEmptyLabel = true;
    labels = candidate.labels;
    const int kinds = table.kindsOf(host.substr(candidate.offset), candidate.hash);
    const bool isRule = kinds > 0;
    if (isRule && (kinds & exception) != 0) {
      suffix = previous;
      suffixLabels = labels - 1;
    } else if ((isRule && (kinds & exact) != 0) || isBelowWildcard || labels == 1) {
      suffix = candidate.offset;
      suffixLabels = labels;
    }
    if (labels == suffixLabels + 1) registrable = candidate.offset;
    isBelowWildcard = isRule && (kinds & wildcardParent) != 0;
    previous = candidate.offset;
    end = candidate.offset == 0 ? 0 : candidate.offset - 1;
    // One label more is looked at even where no rule follows: it may be the registrable one.
    return kinds < 0 && labels > suffixLabels;
  });
  if (hasEmptyLabel) return std::nullopt;
  if (labels == 1 || suffix == 0) return Split{host, {}};
  return Split{host.substr(suffix), host.substr(registrable)};
}

std::string PublicSuffixList::publicSuffix(std::string_view host) const {
  if (const auto found = split(host)) return std::string(found->publicSuffix);
  const auto labels = labelsOf(host);
  return labels.size() < 2 ? std::string(host) : joined(labels, rules_->suffixStart(labels));
}

std::optional<std::string> PublicSuffixList::registrableDomain(std::string_view host) const {
  if (const auto found = split(host)) {
    if (found->registrableDomain.empty()) return std::nullopt;
    return std::string(found->registrableDomain);
  }
  const auto labels = labelsOf(host);
  if (labels.size() < 2) return std::nullopt;
  const std::size_t start = rules_->suffixStart(labels);
  if (start == 0) return std::nullopt;
  return joined(labels, start - 1);
}

}  // namespace stillow::core
