// A host, a zero byte, a list: the one-pass look-up agrees with the rules taken word by word.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/PublicSuffixList.hpp"
#include "StillowCore/Text.hpp"

namespace {

using namespace stillow::core;

std::vector<std::string> labelsOf(std::string_view host) {
  std::vector<std::string> labels(1);
  for (const char c : host) {
    if (c == '.') {
      if (!labels.back().empty()) labels.emplace_back();
    } else {
      labels.back() += c;
    }
  }
  if (labels.back().empty()) labels.pop_back();
  return labels;
}

std::string joined(const std::vector<std::string>& labels, std::size_t first) {
  std::string name;
  for (std::size_t i = first; i < labels.size(); ++i) name += (i > first ? "." : "") + labels[i];
  return name;
}

/// Index of the first label of the public suffix, for ASCII hosts of at least two labels.
std::size_t suffixStart(const PublicSuffixList& list, const std::vector<std::string>& labels) {
  const auto exactRules = list.exactRules();
  const auto wildcardParents = list.wildcardParents();
  const auto exceptionRules = list.exceptionRules();
  for (std::size_t i = 0; i < labels.size(); ++i) {
    if (exceptionRules.contains(joined(labels, i))) return i + 1;
    if (exactRules.contains(joined(labels, i))) return i;
    if (i + 1 < labels.size() && wildcardParents.contains(joined(labels, i + 1))) return i;
  }
  return labels.size() - 1;
}

void checkASCIIHost(const PublicSuffixList& list, std::string_view host) {
  const auto labels = labelsOf(host);
  if (labels.size() < 2) {
    require(list.publicSuffix(host) == host, "a single label is its own suffix");
    require(!list.registrableDomain(host), "and nothing below it");
    return;
  }
  const std::size_t start = suffixStart(list, labels);
  require(list.publicSuffix(host) == joined(labels, start), "the public suffix");
  const auto registrable = list.registrableDomain(host);
  require(registrable.has_value() == (start > 0), "whether there is a registrable domain");
  if (registrable) require(*registrable == joined(labels, start - 1), "the registrable domain");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t hostBytesMax = 256;  // The check is quadratic, the look-up is not.
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t zero = std::min(input.find('\0'), input.size());
  const std::string_view host = input.substr(0, std::min(zero, hostBytesMax));
  const PublicSuffixList list(input.substr(std::min(zero + 1, input.size())));
  if (text::isASCII(host)) {
    checkASCIIHost(list, host);
  } else if (const auto registrable = list.registrableDomain(host)) {
    require(registrable->ends_with(list.publicSuffix(host)), "a registrable domain has the suffix");
  }
  return 0;
}
