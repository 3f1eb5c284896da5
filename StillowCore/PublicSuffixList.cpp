#include "StillowCore/PublicSuffixList.hpp"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/LastBytes.hpp"
#include "StillowCore/ResourceBundle.hpp"
#include "StillowCore/SuffixHash.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

namespace {

enum Kind : std::uint8_t { exact = 1, wildcardParent = 2, exception = 4 };

/// What the rules say of a suffix: which kinds of rule it is, and whether longer ones end in it.
using Kinds = std::uint8_t;
constexpr Kinds beginsInside = 8;

constexpr bool has(Kinds kinds, Kinds wanted) noexcept { return (kinds & wanted) != 0; }

// The rules ship with the product, so nobody can choose them to collide.
constexpr SuffixHash ruleHash = SuffixHash::fixed();

/// All three rule sets in one table, with every suffix that a rule ends in. So a look-up that walks
/// a host from its right end makes one probe per label and stops where no rule can follow, which
/// for most hosts is after two.
class RuleTable {
 public:
  /// With room for about as many rules as there are in a list of so many bytes.
  explicit RuleTable(std::size_t listBytes) {
    constexpr std::size_t listBytesPerSlot = 4;
    resize(std::bit_ceil(std::max<std::size_t>(listBytes / listBytesPerSlot, 4)));
    entries_.reserve(marks_.size() / 4);
    text_.reserve(listBytes / 2);
  }

  /// `rule` is in lower case. What is not ASCII is filed in both of its forms.
  void insert(std::string_view rule, Kind kind) {
    if (text::isASCII(rule)) return insertComposed(rule, kind);
    insertComposed(text::canonicallyComposed(rule), kind);
    if (const auto ascii = text::asciiHost(rule)) insertComposed(*ascii, kind);
  }

  /// None if no rule is the suffix, which reads `text`, or ends in it.
  [[nodiscard]] Kinds kindsOf(const SuffixHash::Suffix& suffix,
                              std::string_view text) const noexcept {
    const Block key = keyOf(suffix);
    return kindsAt(find(suffix.hash, [&](const Entry& entry) {
      return entry.key == key && textOf(entry) == text;
    }));
  }
  /// The same for a short one in lower case.
  [[nodiscard]] Kinds kindsOf(const SuffixHash::Block& suffix) const noexcept {
    return kindsAt(
        find(ruleHash.hashOf(suffix), [&](const Entry& entry) { return entry.key == suffix; }));
  }

  /// False if `label`, a short one, is the last of a host whose public suffix it is unless a longer
  /// rule is found: neither a wildcard nor an exception.
  [[nodiscard]] bool mayBeUnusual(const SuffixHash::Block& label) const noexcept {
    return unusual_[fingerprintOf(label)];
  }

  [[nodiscard]] PublicSuffixList::RuleSet rulesOf(Kind kind) const {
    PublicSuffixList::RuleSet rules;
    for (std::size_t at = 0; at < marks_.size(); ++at) {
      if (has(marks_[at], kind)) rules.emplace(textOf(entries_[entryOf_[at]]));
    }
    return rules;
  }

 private:
  using Block = SuffixHash::Block;

  struct Entry {
    Block key;
    std::uint32_t end;  ///< where the suffix ends in `text_`
    std::uint32_t length;
  };
  /// Of a short suffix its block, so that two are equal but for case if their keys are. Of a longer
  /// one the hash, with what is the length of no short one.
  static constexpr Block keyOf(const SuffixHash::Suffix& suffix) noexcept {
    return suffix.length < Block::size ? suffix.block : Block{suffix.hash, 0, isLong};
  }
  static constexpr std::uint64_t isLong = 0xff;
  static std::uint64_t hashOf(const Block& key) noexcept {
    return key.left == isLong ? key.right : ruleHash.hashOf(key);
  }

  /// The kinds of the suffix in a slot, 0 for none, and above them four bits of its hash.
  using Mark = std::uint8_t;
  static constexpr Mark kindBits = 0x0F;
  static constexpr Mark hashBits = 0xF0;

  static constexpr unsigned fingerprintBits = 9;
  static constexpr std::size_t fingerprintOf(const Block& label) noexcept {
    return static_cast<std::size_t>((label.right * 0x9e37'79b9'7f4a'7c15) >>
                                    (64 - fingerprintBits));
  }

  static constexpr bool mayBe(Mark mark, std::uint64_t hash) noexcept {
    return ((mark ^ hash) & hashBits) == 0;
  }
  [[nodiscard]] std::size_t slotOf(std::uint64_t hash) const noexcept {
    return static_cast<std::size_t>(hash >> slotShift_);
  }
  [[nodiscard]] std::string_view textOf(const Entry& entry) const noexcept {
    return {text_.data() + entry.end - entry.length, entry.length};
  }

  [[nodiscard]] Kinds kindsAt(std::size_t slot) const noexcept { return marks_[slot] & kindBits; }

  /// The slot of the suffix, or the free one where it is missing.
  template <class IsEqual>
  [[nodiscard]] std::size_t find(std::uint64_t hash, IsEqual isEqual) const noexcept {
    std::size_t at = slotOf(hash);
    while (marks_[at] != 0) {
      if (mayBe(marks_[at], hash) && isEqual(entries_[entryOf_[at]])) break;
      at = (at + 1) & (marks_.size() - 1);
    }
    return at;
  }

  void insertComposed(std::string_view rule, Kind kind) {
    text_ += rule;
    require(text_.size() <= std::numeric_limits<std::uint32_t>::max(),
            "the public suffix list is too long");
    const bool isASCII = text::isASCII(rule);
    const auto isSeparator = [&](std::size_t at) {
      return isASCII || text::isWholeCharacter(rule, at);
    };
    ruleHash.forEachSuffix(rule, 1, isSeparator, [&](const SuffixHash::Suffix& suffix) {
      Kinds kinds = beginsInside;
      if (suffix.offset == 0) {
        kinds = kind;
        if (suffix.labels == 1 && kind != exact) unusual_[fingerprintOf(suffix.block)] = true;
      }
      file(suffix, static_cast<std::uint32_t>(text_.size()), kinds);
      return false;
    });
  }

  void file(const SuffixHash::Suffix& suffix, std::uint32_t end, Kinds kinds) {
    if (2 * entries_.size() >= marks_.size()) resize(2 * marks_.size());
    const Entry wanted{keyOf(suffix), end, static_cast<std::uint32_t>(suffix.length)};
    const std::size_t at = find(suffix.hash, [&](const Entry& entry) {
      return entry.key == wanted.key &&
             (suffix.length < Block::size || textOf(entry) == textOf(wanted));
    });
    if (marks_[at] == 0) {
      fill(at, entries_.size(), static_cast<Mark>(suffix.hash & hashBits));
      entries_.push_back(wanted);
    }
    marks_[at] |= kinds;
  }

  void resize(std::size_t slotCount) {
    const auto oldMarks = std::exchange(marks_, std::vector<Mark>(slotCount));
    const auto oldEntryOf = std::exchange(entryOf_, std::vector<std::uint32_t>(slotCount));
    slotShift_ = 64U - static_cast<unsigned>(std::countr_zero(slotCount));
    for (std::size_t i = 0; i < oldMarks.size(); ++i) {
      if (oldMarks[i] == 0) continue;
      const std::uint32_t entry = oldEntryOf[i];
      fill(find(hashOf(entries_[entry].key), [](const Entry&) { return false; }), entry,
           oldMarks[i]);
    }
  }
  void fill(std::size_t slot, std::size_t entry, Mark mark) {
    marks_[slot] = mark;
    entryOf_[slot] = static_cast<std::uint32_t>(entry);
  }

  // A power of two, at most half of them taken. A byte for each slot, because most look-ups end at
  // a free one: they should find it in a near cache.
  std::vector<Mark> marks_;
  std::vector<std::uint32_t> entryOf_;
  std::vector<Entry> entries_;
  unsigned slotShift_ = 0;
  std::bitset<std::size_t{1} << fingerprintBits> unusual_;
  std::string text_;
};

/// Without empty ones.
std::vector<std::string_view> labelsOf(std::string_view host) {
  std::vector<std::string_view> labels;
  for (std::size_t start = 0; start <= host.size();) {
    const std::size_t end = std::min(text::find(host, '.', start), host.size());
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
  explicit Rules(std::size_t listBytes) : table(listBytes) {}

  RuleTable table;

  void insertLine(std::string_view line) {
    line = text::trimmingWhitespace(line);
    if (line.empty() || text::hasPrefix(line, "//")) return;
    const std::string_view rule = line.substr(0, text::find(line, ' '));
    insertRule(text::isLowercaseASCII(rule) ? rule : std::string_view(text::lowercased(rule)));
  }

  void insertRule(std::string_view rule) {
    if (text::hasPrefix(rule, "!")) {
      table.insert(rule.substr(1), exception);
    } else if (text::hasPrefix(rule, "*.")) {
      table.insert(rule.substr(2), wildcardParent);
    } else {
      table.insert(rule, exact);
    }
  }

  [[nodiscard]] bool holds(const std::string& candidate, Kind kind) const {
    const std::string composed = text::canonicallyComposed(candidate);
    Kinds kinds = 0;
    const auto isNoSeparator = [](std::size_t) { return false; };
    ruleHash.forEachSuffix(composed, 1, isNoSeparator, [&](const SuffixHash::Suffix& whole) {
      kinds = table.kindsOf(whole, composed);
      return true;
    });
    return has(kinds, kind);
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

  /// Bytes at the end of a host.
  struct Lengths {
    std::size_t publicSuffix = 0;
    std::size_t registrableDomain = 0;  ///< 0 where the host needs a closer look
  };
  /// The usual case: a lower-case host with a registrable domain, its rules plain and short.
  [[nodiscard]] Lengths usualLengths(std::string_view host) const noexcept;
  /// The same for all that `PublicSuffixList::split` answers.
  [[nodiscard]] std::optional<Split> split(std::string_view host) const noexcept;
};

PublicSuffixList::PublicSuffixList(std::string_view contents) {
  auto rules = std::make_shared<Rules>(contents.size());
  while (!contents.empty()) rules->insertLine(text::takeLine(contents));
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

PublicSuffixList::RuleSet PublicSuffixList::exactRules() const {
  return rules_->table.rulesOf(exact);
}
PublicSuffixList::RuleSet PublicSuffixList::wildcardParents() const {
  return rules_->table.rulesOf(wildcardParent);
}
PublicSuffixList::RuleSet PublicSuffixList::exceptionRules() const {
  return rules_->table.rulesOf(exception);
}

PublicSuffixList::Rules::Lengths PublicSuffixList::Rules::usualLengths(
    std::string_view host) const noexcept {
  // A host is compared as it stands, and `LastBytes` would give one with capitals in lower case.
  if (host.size() < LastBytes::textBytesMin || !text::isLowercaseASCII(host)) return {};
  const LastBytes bytes = LastBytes::of(host);
  const std::uint32_t all = bytes.dots | LastBytes::beginning(host.size());
  constexpr std::uint32_t atEnd = 0x8000'0000;
  const std::uint32_t behindEmptyLabels = all & (all >> 1U | atEnd);
  if (all == 0 || behindEmptyLabels != 0) return {};

  // The last label is a public suffix whether a rule says so or none knows it, so the look-up
  // begins with two: most hosts take one probe.
  std::size_t suffix = SuffixHash::firstOf(all);
  std::uint32_t cuts = SuffixHash::withoutFirst(all);
  if (cuts == 0 || table.mayBeUnusual(SuffixHash::blockOf(bytes, suffix))) return {};
  while (true) {
    const std::size_t length = SuffixHash::firstOf(cuts);
    const Kinds kinds = table.kindsOf(SuffixHash::blockOf(bytes, length));
    if (has(kinds, exception | wildcardParent)) return {};
    if (has(kinds, exact)) suffix = length;
    if (!has(kinds, beginsInside)) break;
    cuts = SuffixHash::withoutFirst(cuts);
    if (cuts == 0) return {};
  }
  const std::uint32_t beyond = all << suffix << 1U;
  if (beyond != 0) return {suffix, suffix + 1 + SuffixHash::firstOf(beyond)};
  if (host.size() <= suffix + 1) return {};
  const std::size_t labelEnd = host.size() - suffix - 1;
  const std::size_t start = host.rfind('.', labelEnd - 1) + 1;
  return {suffix, start == labelEnd ? 0 : host.size() - start};
}

std::optional<PublicSuffixList::Split> PublicSuffixList::Rules::split(
    std::string_view host) const noexcept {
  if (host.empty() || !text::isASCII(host)) return std::nullopt;
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
  ruleHash.forEachSuffix(host, 1, isSeparator, [&](const SuffixHash::Suffix& candidate) {
    if (candidate.offset == end) return hasEmptyLabel = true;
    labels = candidate.labels;
    const Kinds kinds = table.kindsOf(candidate, host.substr(candidate.offset));
    if (has(kinds, exception)) {
      suffix = previous;
      suffixLabels = labels - 1;
    } else if (has(kinds, exact) || isBelowWildcard || labels == 1) {
      suffix = candidate.offset;
      suffixLabels = labels;
    }
    if (labels == suffixLabels + 1) registrable = candidate.offset;
    isBelowWildcard = has(kinds, wildcardParent);
    previous = candidate.offset;
    end = candidate.offset == 0 ? 0 : candidate.offset - 1;
    // One label more is looked at even where no rule follows: it may be the registrable one, or
    // show that the host has more than one.
    const bool mayRuleFollow = has(kinds, beginsInside | wildcardParent);
    return !mayRuleFollow && labels > std::max<std::size_t>(suffixLabels, 1);
  });
  if (hasEmptyLabel) return std::nullopt;
  if (labels == 1 || suffix == 0) return Split{host, {}};
  return Split{host.substr(suffix), host.substr(registrable)};
}

std::optional<PublicSuffixList::Split> PublicSuffixList::split(
    std::string_view host) const noexcept {
  const auto [suffix, registrable] = rules_->usualLengths(host);
  if (registrable == 0) return rules_->split(host);
  const char* const end = host.data() + host.size();
  return Split{{end - suffix, suffix}, {end - registrable, registrable}};
}

std::string PublicSuffixList::publicSuffix(std::string_view host) const {
  if (const auto found = split(host)) return std::string(found->publicSuffix);
  const auto labels = labelsOf(host);
  return labels.size() < 2 ? std::string(host) : joined(labels, rules_->suffixStart(labels));
}

std::optional<std::string> PublicSuffixList::registrableDomain(std::string_view host) const {
  const auto usual = rules_->usualLengths(host).registrableDomain;
  if (usual != 0) {
    return std::optional<std::string>(std::in_place, host.data() + host.size() - usual, usual);
  }
  if (const auto found = rules_->split(host)) {
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
