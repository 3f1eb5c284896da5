#pragma once

#include <span>
#include <string>
#include <string_view>

#include "StillowIPC/CodeIdentity.hpp"

namespace stillow::ipc {

/// What a peer's signature has to show before it is spoken to: a text in the requirement language
/// of CodeRequirementLanguage.hpp, the same on every platform.
struct CodeSigningRequirement {
  /// The developer team of every signed component.
  static constexpr std::string_view teamIdentifier = "Q4ZT8NWK2R";

  std::string text;

  /// Signed by `team` under one of `identifiers`. The names go into the text as they are: one that
  /// holds a quotation mark, or no identifier at all, gives a text that is not valid.
  [[nodiscard]] static CodeSigningRequirement signedBy(
      std::string_view team, std::span<const std::string_view> identifiers);

  /// Every component of ours and nothing else. Built on first use; any thread.
  [[nodiscard]] static const CodeSigningRequirement& trustedPeers();

  /// The text compiles. Whoever sets a requirement that does not compile refuses every peer.
  [[nodiscard]] bool isValid() const;

  /// False for every identity if the text does not compile.
  [[nodiscard]] bool isSatisfiedBy(const CodeIdentity& identity) const;

  friend bool operator==(const CodeSigningRequirement&, const CodeSigningRequirement&) = default;
};

}  // namespace stillow::ipc
