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
  explicit RuleTable(std::size_t nodesMax) : slots_(std::bit_ceil(2 * nodesMax + 2)) {}

  void insert(std::string_view rule, Kind kind) {
    const std::string composed = text::canonicallyComposed(rule);
    const auto isSeparator = [&](std::size_t at) { return text::isWholeCharacter(composed, at); };
    hash_.forEachSuffix(composed, isSeparator, [&](const SuffixHash::Suffix& suffix) {
      Slot& slot = slotFor(std::string_view(composed).substr(suffix.offset), suffix.hash);
      if (suffix.offset == 0) slot.kinds |= kind;
      return false;
    });
  }

  /// The kinds of rule that `suffix` is: 0 if rules only end in it, -1 if none does.
  [[nodiscard]] int kindsOf(std::string_view suffix, std::uint64_t hash) const noexcept {
    for (std::size_t at = indexOf(hash);; at = (at + 1) & (slots_.size() - 1)) {
      const Slot& slot = slots_[at];
      if (!slot.isTaken) return -1;
      if (slot.tag == tagOf(hash) && textOf(slot) == suffix) return slot.kinds;
    }
  }

  [[nodiscard]] const SuffixHash& hash() const noexcept { return hash_; }

 private:
  struct Slot {
    std::uint32_t tag = 0;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::uint8_t kinds = 0;
    bool isTaken = false;
  };

  static constexpr std::uint32_t tagOf(std::uint64_t hash) noexcept {
    return static_cast<std::uint32_t>(hash);
  }
  [[nodiscard]] std::size_t indexOf(std::uint64_t hash) const noexcept {
    return static_cast<std::size_t>(hash >>
                                    (64U - static_cast<unsigned>(std::countr_zero(slots_.size()))));
  }
  [[nodiscard]] std::string_view textOf(const Slot& slot) const noexcept {
    return std::string_view(text_).substr(slot.offset, slot.length);
  }

  Slot& slotFor(std::string_view suffix, std::uint64_t hash) {
    for (std::size_t at = indexOf(hash);; at = (at + 1) & (slots_.size() - 1)) {
      Slot& slot = slots_[at];
      if (slot.isTaken) {
        if (slot.tag == tagOf(hash) && textOf(slot) == suffix) return slot;
        continue;
      }
      require(text_.size() + suffix.size() <= std::numeric_limits<std::uint32_t>::max(),
              "the public suffix list is too long");
      slot = {tagOf(hash), static_cast<std::uint32_t>(text_.size()),
              static_cast<std::uint32_t>(suffix.size()), 0, true};
      text_ += suffix;
      return slot;
    }
  }

  // The rules ship with the product, so nobody can choose them to collide.
  SuffixHash hash_ = SuffixHash::fixed();
  std::vector<Slot> slots_;
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
  RuleTable table{0};

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
  std::size_t nodesMax = 0;
  for (const auto& [set, kind] : sets) {
    for (const auto& rule : set) {
      nodesMax += 1 + static_cast<std::size_t>(std::ranges::count(rule, '.'));
    }
  }
  rules->table = RuleTable(nodesMax);
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
  bool isMalformed = false;
  const auto isSeparator = [](std::size_t) { return true; };
  table.hash().forEachSuffix(host, isSeparator, [&](const SuffixHash::Suffix& candidate) {
    if (candidate.offset == end) return isMalformed = true;
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
  if (isMalformed) return std::nullopt;
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
