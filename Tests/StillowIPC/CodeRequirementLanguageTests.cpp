#include <string>

#include <gtest/gtest.h>

#include "StillowIPC/CodeRequirementLanguage.hpp"

namespace stillow::ipc {
namespace {

using Expression = CodeRequirementExpression;

Expression identifier(std::string value) { return Expression::identifier{std::move(value)}; }
Expression unit(std::string value) { return Expression::leafOrganizationalUnit{std::move(value)}; }
Expression anchor() { return Expression::appleGenericAnchor{}; }
Expression negated(Expression operand) { return Expression::negation{{std::move(operand)}}; }
Expression all(std::vector<Expression> operands) {
  return Expression::conjunction{std::move(operands)};
}
Expression any(std::vector<Expression> operands) {
  return Expression::disjunction{std::move(operands)};
}

TEST(CodeRequirementLanguage, compilesToTheTreeThatTheTextMeans) {
  struct Row {
    std::string text;
    Expression tree;
  };
  const Row rows[]{
      {"anchor apple generic", anchor()},
      {"identifier \"com.larchmoor.Stillow\"", identifier("com.larchmoor.Stillow")},
      {"identifier = \"a\"", identifier("a")},
      {"identifier com.larchmoor.Stillow", identifier("com.larchmoor.Stillow")},
      {"identifier \"\"", identifier("")},
      {"identifier \"and\"", identifier("and")},
      {"identifier \"two words\"", identifier("two words")},
      {"identifier \"a\\\"b\\\\c\"", identifier("a\"b\\c")},
      {"identifier \"/* text */ // too\"", identifier("/* text */ // too")},
      {"identifier \"\xc3\xa9\"", identifier("\xc3\xa9")},
      {"certificate leaf[subject.OU] = \"Q4ZT8NWK2R\"", unit("Q4ZT8NWK2R")},
      {"certificate leaf[subject.OU] = Q4ZT8NWK2R", unit("Q4ZT8NWK2R")},
      {"certificate leaf [ subject.OU ]=\"X\"", unit("X")},
      {"(anchor apple generic)", anchor()},
      {"((anchor apple generic))", anchor()},
      {"!anchor apple generic", negated(anchor())},
      {"! ! anchor apple generic", negated(negated(anchor()))},
      {"not anchor apple generic", negated(anchor())},
      {"!(identifier a or identifier b)", negated(any({identifier("a"), identifier("b")}))},
      {"identifier a and identifier b and identifier c",
       all({identifier("a"), identifier("b"), identifier("c")})},
      {"identifier a or identifier b and identifier c",
       any({identifier("a"), all({identifier("b"), identifier("c")})})},
      {"identifier a and identifier b or identifier c",
       any({all({identifier("a"), identifier("b")}), identifier("c")})},
      {"(identifier a or identifier b) and identifier c",
       all({any({identifier("a"), identifier("b")}), identifier("c")})},
      {"!identifier a and identifier b", all({negated(identifier("a")), identifier("b")})},
      {" \t\r\n anchor\napple\tgeneric ", anchor()},
      {"/* who */ anchor apple generic // and no more", anchor()},
      {"anchor/**/apple/* * / ** */generic", anchor()},
      {"// first line\nanchor apple generic", anchor()},
      {"// first line\ranchor apple generic", anchor()},
      {"anchor apple generic //", anchor()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto compiled = compileCodeRequirement(row.text);
    ASSERT_TRUE(compiled.has_value())
        << compiled.error().message << " at " << compiled.error().offset;
    EXPECT_EQ(*compiled, row.tree);
  }
}

TEST(CodeRequirementLanguage, refusesWhateverElseAndSaysWhere) {
  struct Row {
    std::string text;
    std::size_t offset;
  };
  const Row rows[]{
      {"", 0},
      {"   ", 3},
      {"// nothing", 10},
      {"/* no end", 0},
      {"/*/", 0},
      {"anchor apple generic /* no end", 21},
      {"anchor", 6},
      {"anchor apple", 12},
      {"anchor apple and identifier a", 13},
      {"anchor generic", 7},
      {"anchor trusted", 7},
      {"anchor = \"/path\"", 7},
      {"Anchor apple generic", 0},
      {"anchor apple generic extra", 21},
      {"anchor apple generic anchor apple generic", 21},
      {"anchor apple generic)", 20},
      {"(anchor apple generic", 21},
      {"()", 1},
      {"(", 1},
      {")", 0},
      {"and", 0},
      {"or anchor apple generic", 0},
      {"anchor apple generic and", 24},
      {"anchor apple generic or", 23},
      {"anchor apple generic and and identifier a", 25},
      {"anchor apple generic AND identifier a", 21},
      {"anchor apple generic && identifier a", 21},
      {"anchor apple generic, identifier a", 20},
      {"!", 1},
      {"not", 3},
      {"!!", 2},
      {"! = identifier a", 2},
      {"identifier", 10},
      {"identifier =", 12},
      {"identifier = = a", 13},
      {"identifier and", 11},
      {"identifier or identifier a", 11},
      {"identifier true", 11},
      {"identifier cdhash", 11},
      {"identifier a.b-c", 14},
      {"identifier \"a*\"*", 15},
      {"identifier *\"a\"", 11},
      {"identifier \"no end", 11},
      {"identifier \"no end\\\"", 11},
      {"identifier \"no end\\", 11},
      {"identifier \"bad \\n escape\"", 16},
      {std::string("identifier \"nul \0\"", 18), 16},
      {"identifier \"line\nend\"", 16},
      {"identifier 'a'", 11},
      {"identifier /Applications", 11},
      {"identifier H\"00\"", 12},
      {"certificate", 11},
      {"certificate leaf", 16},
      {"certificate root[subject.OU] = \"X\"", 12},
      {"certificate 0[subject.OU] = \"X\"", 12},
      {"certificate leaf[subject.CN] = \"X\"", 17},
      {"certificate leaf[subject.OU]", 28},
      {"certificate leaf[subject.OU = \"X\"", 28},
      {"certificate leaf[subject.OU] \"X\"", 29},
      {"certificate leaf[subject.OU] exists", 29},
      {"certificate leaf[subject.OU] = ", 31},
      {"certificate leaf[\"subject.OU\"] = \"X\"", 17},
      {"certificate leaf = H\"0123456789abcdef\"", 17},
      {"cdhash H\"00\"", 0},
      {"info[CFBundleVersion] = \"1\"", 0},
      {"entitlement[\"a\"] exists", 0},
      {"always", 0},
      {"true", 0},
      {"\"anchor apple generic\"", 0},
      {"# comment\nanchor apple generic", 0},
      {"designated => identifier a", 0},
      {std::string("anchor apple generic\0", 21), 20},
      {"anchor apple generic \xc3\xa9", 21},
      {"anchor apple generic \xff", 21},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto compiled = compileCodeRequirement(row.text);
    ASSERT_FALSE(compiled.has_value());
    EXPECT_EQ(compiled.error().offset, row.offset) << compiled.error().message;
    EXPECT_FALSE(compiled.error().message.empty());
  }
}

TEST(CodeRequirementLanguage, boundsNesting) {
  const auto nested = [](std::size_t levels, const std::string& open, const std::string& close) {
    std::string text;
    for (std::size_t i = 0; i < levels; ++i) text += open;
    text += "anchor apple generic";
    for (std::size_t i = 0; i < levels; ++i) text += close;
    return text;
  };
  EXPECT_TRUE(compileCodeRequirement(nested(codeRequirementDepthMax, "(", ")")).has_value());
  EXPECT_FALSE(compileCodeRequirement(nested(codeRequirementDepthMax + 1, "(", ")")).has_value());
  EXPECT_TRUE(compileCodeRequirement(nested(codeRequirementDepthMax, "!", "")).has_value());
  EXPECT_FALSE(compileCodeRequirement(nested(codeRequirementDepthMax + 1, "!", "")).has_value());
  EXPECT_TRUE(compileCodeRequirement(nested(codeRequirementDepthMax / 2, "!(", ")")).has_value());
  EXPECT_FALSE(
      compileCodeRequirement(nested(codeRequirementDepthMax / 2 + 1, "!(", ")")).has_value());
}

// A chain is not nesting: it may be as long as the text.
TEST(CodeRequirementLanguage, boundsTheLengthOfTheText) {
  std::string text = "identifier a";
  while (text.size() + 16 <= codeRequirementBytesMax) text += " or identifier a";
  text.resize(codeRequirementBytesMax, ' ');
  EXPECT_TRUE(compileCodeRequirement(text).has_value());
  text += ' ';
  EXPECT_FALSE(compileCodeRequirement(text).has_value());
}

TEST(CodeRequirementLanguage, evaluatesEachConstraintAndOperator) {
  const CodeIdentity app{"app", "TEAM", true};
  const CodeIdentity unanchored{"app", "TEAM", false};
  const CodeIdentity stranger;
  struct Row {
    const char* text;
    bool forApp;
    bool forUnanchored;
    bool forStranger;
  };
  const Row rows[]{
      {"anchor apple generic", true, false, false},
      {"!anchor apple generic", false, true, true},
      {"not anchor apple generic", false, true, true},
      {"!!anchor apple generic", true, false, false},
      {"identifier app", true, true, false},
      {"identifier \"App\"", false, false, false},
      {"identifier ap", false, false, false},
      {"identifier apps", false, false, false},
      // What was not proven equals nothing, so that no slip in a text admits a stranger.
      {"identifier \"\"", false, false, false},
      {"certificate leaf[subject.OU] = \"\"", false, false, false},
      {"certificate leaf[subject.OU] = TEAM", true, true, false},
      {"certificate leaf[subject.OU] = team", false, false, false},
      {"anchor apple generic and identifier app", true, false, false},
      {"anchor apple generic and identifier other", false, false, false},
      {"anchor apple generic or identifier app", true, true, false},
      {"identifier other or identifier app", true, true, false},
      {"identifier x or identifier y or identifier z", false, false, false},
      {"identifier app or identifier other and anchor apple generic", true, true, false},
      {"(identifier app or identifier other) and anchor apple generic", true, false, false},
      {"!identifier other and anchor apple generic", true, false, false},
      {"!(identifier other or anchor apple generic)", false, true, true},
      {"identifier app and !(identifier app)", false, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto compiled = compileCodeRequirement(row.text);
    ASSERT_TRUE(compiled.has_value());
    EXPECT_EQ(isSatisfied(*compiled, app), row.forApp);
    EXPECT_EQ(isSatisfied(*compiled, unanchored), row.forUnanchored);
    EXPECT_EQ(isSatisfied(*compiled, stranger), row.forStranger);
  }
}

}  // namespace
}  // namespace stillow::ipc
