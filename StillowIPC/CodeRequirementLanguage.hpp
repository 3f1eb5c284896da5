#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "StillowCore/SumType.hpp"
#include "StillowIPC/CodeIdentity.hpp"

/// The part of the platform's code-signing requirement language that our requirements are written
/// in.
///
///     expression  = term { "or" term }                        "and" binds tighter than "or",
///     term        = factor { "and" factor }                   "!" tighter than "and"
///     factor      = ( "!" | "not" ) factor | "(" expression ")" | constraint
///     constraint  = "anchor" "apple" "generic"
///                 | "certificate" "leaf" "[" "subject.OU" "]" "=" string
///                 | "identifier" [ "=" ] string
///     string      = '"' ... '"' with \" and \\, or letters, digits and periods that are no keyword
///
/// Between tokens stand white space, /* ... */ and // to the end of the line. Keywords are lower
/// case. Everything else that the platform knows (cdhash, info, entitlement, wildcards ...) is
/// refused: nothing here could evaluate it, and a constraint that is not evaluated must not pass.
namespace stillow::ipc {

/// A compiled requirement.
struct CodeRequirementExpression {
  /// The signature's chain ends in the anchor that the platform trusts for signed code.
  struct appleGenericAnchor {
    bool operator==(const appleGenericAnchor&) const = default;
  };
  struct leafOrganizationalUnit {
    std::string value;
    bool operator==(const leafOrganizationalUnit&) const = default;
  };
  struct identifier {
    std::string value;
    bool operator==(const identifier&) const = default;
  };
  /// Exactly one operand.
  struct negation {
    std::vector<CodeRequirementExpression> operand;
    bool operator==(const negation&) const;
  };
  /// At least two operands, in the order of the text.
  struct conjunction {
    std::vector<CodeRequirementExpression> operands;
    bool operator==(const conjunction&) const;
  };
  struct disjunction {
    std::vector<CodeRequirementExpression> operands;
    bool operator==(const disjunction&) const;
  };

  using Cases = std::variant<appleGenericAnchor, leafOrganizationalUnit, identifier, negation,
                             conjunction, disjunction>;
  Cases cases;

  template <class Case>
    requires core::CaseOf<std::remove_cvref_t<Case>, Cases>
  CodeRequirementExpression(Case&& value) : cases(std::forward<Case>(value)) {}

  bool operator==(const CodeRequirementExpression&) const;
};

/// Bounds for the text of a requirement, so that compiling and evaluating it cannot exhaust the
/// stack. Ours are about 200 bytes and two levels.
inline constexpr std::size_t codeRequirementBytesMax = 4096;
/// Parentheses and negations within one another.
inline constexpr std::size_t codeRequirementDepthMax = 32;

struct CodeRequirementSyntaxError {
  /// Where in the text, in bytes.
  std::size_t offset = 0;
  /// What was expected there; for the log.
  std::string message;

  friend bool operator==(const CodeRequirementSyntaxError&,
                         const CodeRequirementSyntaxError&) = default;
};

[[nodiscard]] std::expected<CodeRequirementExpression, CodeRequirementSyntaxError>
compileCodeRequirement(std::string_view text);

/// Texts are compared byte for byte. A property that the identity does not prove equals nothing,
/// not even "".
[[nodiscard]] bool isSatisfied(const CodeRequirementExpression& expression,
                               const CodeIdentity& identity);

}  // namespace stillow::ipc
