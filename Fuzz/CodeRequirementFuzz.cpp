// The requirement language: a text that compiles means the same after it was written out plainly,
// with every chain and negation in parentheses; and no identity satisfies it and its negation
// alike.

#include <cstdint>
#include <string>
#include <string_view>

#include "StillowCore/Invariant.hpp"
#include "StillowIPC/CodeRequirementLanguage.hpp"

namespace {

using stillow::core::require;
using stillow::ipc::CodeIdentity;
using Expression = stillow::ipc::CodeRequirementExpression;

std::string quoted(std::string_view value) {
  std::string text = "\"";
  for (const char c : value) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

std::string written(const Expression& expression);

std::string chain(const std::vector<Expression>& operands, std::string_view word) {
  std::string text;
  for (const auto& operand : operands) {
    if (!text.empty()) text += word;
    text += written(operand);
  }
  return "(" + text + ")";
}

std::string written(const Expression& expression) {
  return stillow::core::match(
      expression,
      [](const Expression::appleGenericAnchor&) { return std::string("anchor apple generic"); },
      [](const Expression::leafOrganizationalUnit& unit) {
        return "certificate leaf[subject.OU] = " + quoted(unit.value);
      },
      [](const Expression::identifier& name) { return "identifier " + quoted(name.value); },
      [](const Expression::negation& negation) { return "!" + written(negation.operand.front()); },
      [](const Expression::conjunction& all) { return chain(all.operands, " and "); },
      [](const Expression::disjunction& any) { return chain(any.operands, " or "); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto compiled = stillow::ipc::compileCodeRequirement(text);
  if (!compiled) {
    require(compiled.error().offset <= text.size(), "an error lies within the text");
    return 0;
  }
  const auto plain = written(*compiled);
  const auto again = stillow::ipc::compileCodeRequirement(plain);
  // Plain parentheses may be more, so that the bounds of length and depth can be met; nothing else.
  if (!again) {
    require(plain.size() > stillow::ipc::codeRequirementBytesMax ||
                again.error().message == "nested too deeply",
            "what was written plainly compiles");
    return 0;
  }
  require(*again == *compiled, "what was written plainly means the same");

  for (const auto& identity :
       {CodeIdentity{}, CodeIdentity{"com.larchmoor.Stillow", "Q4ZT8NWK2R", true},
        CodeIdentity{"a", "b", false}}) {
    const Expression negated = Expression::negation{{*compiled}};
    require(isSatisfied(*compiled, identity) != isSatisfied(negated, identity),
            "a requirement or its negation, not both");
    require(isSatisfied(*compiled, identity) == isSatisfied(*again, identity),
            "what was written plainly admits the same");
  }
  return 0;
}
