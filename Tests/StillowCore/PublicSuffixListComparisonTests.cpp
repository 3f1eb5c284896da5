// The public suffix list against its rules taken word by word.

#include <algorithm>
#include <cstddef>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "StillowCore/PublicSuffixList.hpp"
#include "StillowCore/ResourceBundle.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {
namespace {

/// The rules read line by line, and applied label by label as they are worded. Lines end in LF.
class LiteralRules {
 public:
  explicit LiteralRules(const std::string& contents) {
    std::istringstream lines(contents);
    for (std::string line; std::getline(lines, line);) {
      line.erase(0, std::min(line.find_first_not_of(" \t"), line.size()));
      line.erase(line.find_last_not_of(" \t") + 1);
      if (line.empty() || line.starts_with("//")) continue;
      insert(line.substr(0, line.find(' ')));
    }
  }

  void expectAreThoseOf(const PublicSuffixList& list) const {
    EXPECT_EQ(list.exactRules(), exactRules_);
    EXPECT_EQ(list.wildcardParents(), wildcardParents_);
    EXPECT_EQ(list.exceptionRules(), exceptionRules_);
  }

  [[nodiscard]] std::string publicSuffix(const std::string& host) const {
    const auto labels = labelsOf(host);
    if (labels.size() < 2) return host;
    for (std::size_t i = 0;; ++i) {
      if (exceptionRules_.contains(joined(labels, i))) return joined(labels, i + 1);
      if (exactRules_.contains(joined(labels, i))) return joined(labels, i);
      if (i + 1 < labels.size() && wildcardParents_.contains(joined(labels, i + 1))) {
        return joined(labels, i);
      }
      if (i + 1 == labels.size()) return labels.back();
    }
  }

  [[nodiscard]] std::optional<std::string> registrableDomain(const std::string& host) const {
    const auto suffix = publicSuffix(host);
    const auto labels = labelsOf(host);
    const auto suffixLabels = labelsOf(suffix);
    if (suffix == host || suffixLabels.size() >= labels.size()) return std::nullopt;
    return joined(labels, labels.size() - suffixLabels.size() - 1);
  }

 private:
  void insert(std::string rule) {
    rule = text::lowercased(rule);
    if (rule.starts_with("!")) return insertBothForms(exceptionRules_, rule.substr(1));
    if (rule.starts_with("*.")) return insertBothForms(wildcardParents_, rule.substr(2));
    insertBothForms(exactRules_, rule);
  }
  static void insertBothForms(PublicSuffixList::RuleSet& rules, const std::string& rule) {
    rules.insert(text::canonicallyComposed(rule));
    const auto ascii = text::asciiHost(rule);
    if (!text::isASCII(rule) && ascii) rules.insert(*ascii);
  }

  static std::vector<std::string> labelsOf(const std::string& host) {
    std::vector<std::string> labels;
    std::string label;
    for (const char c : host + ".") {
      if (c != '.') {
        label += c;
      } else if (!label.empty()) {
        labels.push_back(std::exchange(label, ""));
      }
    }
    return labels;
  }
  static std::string joined(const std::vector<std::string>& labels, std::size_t first) {
    std::string name;
    for (std::size_t i = first; i < labels.size(); ++i) name += (i > first ? "." : "") + labels[i];
    return name;
  }

  PublicSuffixList::RuleSet exactRules_;
  PublicSuffixList::RuleSet wildcardParents_;
  PublicSuffixList::RuleSet exceptionRules_;
};

class Comparison {
 public:
  explicit Comparison(const std::string& contents) : list_(contents), literal_(contents) {
    literal_.expectAreThoseOf(list_);
  }

  void check(const std::string& host) const {
    const auto suffix = literal_.publicSuffix(host);
    const auto registrable = literal_.registrableDomain(host);
    ASSERT_EQ(list_.publicSuffix(host), suffix) << host;
    ASSERT_EQ(list_.registrableDomain(host), registrable) << host;
    const auto split = list_.split(host);
    if (split) {
      ASSERT_EQ(split->publicSuffix, suffix) << host;
      ASSERT_EQ(split->registrableDomain, registrable.value_or("")) << host;
    } else {
      ASSERT_TRUE(mayHaveNoSplit(host)) << host;
    }
  }

 private:
  /// It has empty labels, or is not ASCII.
  static bool mayHaveNoSplit(const std::string& host) {
    return host.empty() || host.front() == '.' || host.back() == '.' ||
           host.find("..") != std::string::npos || !text::isASCII(host);
  }

  PublicSuffixList list_;
  LiteralRules literal_;
};

TEST(PublicSuffixList, agreesWithTheRulesWordByWordOnRandomLists) {
  std::mt19937_64 random(2001);
  const auto randomName = [&](std::size_t labelsMax, bool mayHaveEmptyLabels) {
    std::string name;
    for (auto labels = 1 + random() % labelsMax; labels > 0; --labels) {
      if (!mayHaveEmptyLabels || random() % 4 != 0) name += static_cast<char>('a' + random() % 3);
      if (labels > 1) name += '.';
    }
    return name;
  };
  for (int round = 0; round < 400; ++round) {
    std::string contents;
    for (auto rules = random() % 12; rules > 0; --rules) {
      constexpr std::string_view prefixes[]{"", "", "*.", "!"};
      contents += prefixes[random() % 4];
      contents += randomName(4, false) + "\n";
    }
    const Comparison comparison(contents);
    for (int i = 0; i < 60; ++i) comparison.check(randomName(6, random() % 3 == 0));
  }
}

/// Lists and hosts of the same few labels, so that most hosts meet rules. What is looked up fast
/// ends at 23 bytes: many names are about as long.
class RandomNames {
 public:
  explicit RandomNames(std::mt19937_64& random) : random_(random) {
    labels_ = {"a",
               "b",
               "com",
               "x_y",
               "1",
               "\u00FC",
               "xn--tda",
               letters(1 + below(12)),
               letters(7 + below(20))};
  }

  std::string list() {
    std::string contents;
    for (auto count = below(16); count > 0; --count) {
      constexpr std::string_view prefixes[]{"", "", "", "*.", "!", " ", "// ", "*.*."};
      constexpr std::string_view endings[]{"\n", "\n", " \n", " com\n", "\n\n"};
      std::string rule = name(1 + below(4));
      if (below(8) == 0) rule = withCapital(std::move(rule));
      rules_.push_back(rule);
      contents += prefixes[below(std::size(prefixes))];
      contents += rule;
      contents += endings[below(std::size(endings))];
    }
    return contents;
  }

  std::string host() {
    std::string host = below(256) == 0 ? name(127) : name(1 + below(5));
    if (!rules_.empty() && below(2) == 0) {
      host = rules_[below(rules_.size())];
      if (below(8) != 0) host = "." + host;
      const std::size_t size = 20 + below(10);
      if (host.size() < size && below(2) == 0) host = letters(size - host.size()) + host;
      if (host.front() == '.' && below(8) != 0) host = name(1 + below(3)) + host;
    }
    if (below(16) == 0) host = withCapital(std::move(host));
    if (below(16) == 0) host.insert(below(host.size() + 1), ".");
    if (below(16) == 0) host.insert(below(host.size() + 1), "_");
    if (below(16) == 0) host += '.';
    return host;
  }

 private:
  std::size_t below(std::size_t limit) { return random_() % limit; }
  std::string letters(std::size_t count) {
    return std::string(count, static_cast<char>('a' + below(3)));
  }
  std::string name(std::size_t labelCount) {
    std::string name = labels_[below(labels_.size())];
    while (--labelCount > 0) name = labels_[below(labels_.size())] + "." + name;
    return name;
  }
  std::string withCapital(std::string name) {
    char& c = name[below(name.size())];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return name;
  }

  std::mt19937_64& random_;
  std::vector<std::string> labels_;
  std::vector<std::string> rules_;
};

TEST(PublicSuffixList, agreesWithTheRulesWordByWordOnNamesOfAllLengths) {
  std::mt19937_64 random(2'324);
  for (int round = 0; round < 300; ++round) {
    RandomNames names(random);
    const Comparison comparison(names.list());
    for (int i = 0; i < 40; ++i) comparison.check(names.host());
    ASSERT_FALSE(::testing::Test::HasFailure()) << "round " << round;
  }
}

TEST(PublicSuffixList, agreesWithTheRulesWordByWordWhereNamesAreAsLongAsABlock) {
  for (std::size_t length = 1; length <= 40; ++length) {
    const std::string label(length, 'l');
    for (const std::string prefix : {"", "*.", "!"}) {
      for (const std::string& rule : {label, label + ".b", "b." + label, "b.c." + label}) {
        const Comparison comparison(prefix + rule + "\nb\n");
        for (const std::string below :
             {"", ".", "a.", "a.b.", "a..", ".a.", "_.", "A.", "a.c.b."}) {
          comparison.check(below + rule);
          comparison.check(below + rule + ".");
          comparison.check(below + rule.substr(1));
          comparison.check(below + "l" + rule);
        }
      }
    }
  }
}

TEST(PublicSuffixList, holdsMoreRulesThanItsSizeLetsExpect) {
  std::string contents;
  for (char first = 'a'; first <= 'z'; ++first) {
    for (char second = 'a'; second <= 'z'; ++second) contents += {first, second, '\n'};
  }
  const Comparison comparison(contents);
  for (const std::string host : {"aa", "x.aa", "x.zz", "www.example.mn", "x.a"}) {
    comparison.check(host);
  }
}

TEST(PublicSuffixList, agreesWithTheRulesWordByWordOnTheBundledList) {
  const auto contents =
      ResourceBundle::named("StillowCore_StillowCore").contents("public_suffix_list", "dat");
  ASSERT_TRUE(contents);
  const Comparison comparison(*contents);
  const PublicSuffixList list(*contents);
  for (const auto& rules : {list.exactRules(), list.wildcardParents(), list.exceptionRules()}) {
    for (const auto& rule : rules) {
      comparison.check(rule);
      comparison.check("a." + rule);
      comparison.check("www.example." + rule);
      comparison.check(rule.substr(1));
    }
  }
}

}  // namespace
}  // namespace stillow::core
