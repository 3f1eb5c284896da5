#include "StillowIPC/CodeRequirementLanguage.hpp"

#include <algorithm>
#include <array>

namespace stillow::ipc {

bool CodeRequirementExpression::negation::operator==(const negation&) const = default;
bool CodeRequirementExpression::conjunction::operator==(const conjunction&) const = default;
bool CodeRequirementExpression::disjunction::operator==(const disjunction&) const = default;
bool CodeRequirementExpression::operator==(const CodeRequirementExpression&) const = default;

namespace {

using Expression = CodeRequirementExpression;
using SyntaxError = CodeRequirementSyntaxError;
template <class T>
using Parsed = std::expected<T, SyntaxError>;

/// Words that are never taken for a string without quotation marks, whether this subset uses them
/// or not: a text must not mean one thing here and another on the platform that owns the language.
constexpr std::array<std::string_view, 29> keywords{
    "always",      "anchor",  "and",        "apple",       "cdhash",    "cert",
    "certificate", "code",    "designated", "entitlement", "exists",    "false",
    "generic",     "guest",   "host",       "identifier",  "info",      "leaf",
    "legacy",      "library", "never",      "not",         "notarized", "or",
    "platform",    "plugin",  "root",       "true",        "trusted"};

constexpr bool isBareCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.';
}

struct Token {
  enum class Kind { word, quoted, symbol, end };
  Kind kind = Kind::end;
  std::size_t offset = 0;
  /// What a quoted string stands for, else the characters themselves; empty at the end.
  std::string text;

  [[nodiscard]] bool isWord(std::string_view word) const {
    return kind == Kind::word && text == word;
  }
  [[nodiscard]] bool isSymbol(char symbol) const {
    return kind == Kind::symbol && text[0] == symbol;
  }
};

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  Parsed<Token> next() {
    if (auto skipped = skipBlanks(); !skipped) return std::unexpected(std::move(skipped.error()));
    const auto start = position_;
    if (start == text_.size()) return Token{Token::Kind::end, start, {}};
    if (text_[start] == '"') return quoted();
    if (isBareCharacter(text_[start])) {
      while (position_ < text_.size() && isBareCharacter(text_[position_])) ++position_;
      return Token{Token::Kind::word, start, std::string(text_.substr(start, position_ - start))};
    }
    if (std::string_view("()[]=!").find(text_[start]) == std::string_view::npos) {
      return std::unexpected(SyntaxError{start, "unexpected character"});
    }
    ++position_;
    return Token{Token::Kind::symbol, start, std::string(1, text_[start])};
  }

 private:
  Parsed<void> skipBlanks() {
    constexpr auto none = std::string_view::npos;
    for (;;) {
      position_ = std::min(text_.find_first_not_of(" \t\r\n", position_), text_.size());
      const auto rest = text_.substr(position_);
      if (rest.starts_with("//")) {
        position_ = std::min(text_.find_first_of("\r\n", position_), text_.size());
      } else if (rest.starts_with("/*")) {
        const auto end = text_.find("*/", position_ + 2);
        if (end == none) return std::unexpected(SyntaxError{position_, "comment without an end"});
        position_ = end + 2;
      } else {
        return {};
      }
    }
  }

  Parsed<Token> quoted() {
    Token token{Token::Kind::quoted, position_, {}};
    for (++position_; position_ < text_.size(); ++position_) {
      char c = text_[position_];
      if (c == '"') {
        ++position_;
        return token;
      }
      if (c == '\\') {
        if (++position_ == text_.size()) break;
        c = text_[position_];
        if (c != '"' && c != '\\') {
          return std::unexpected(SyntaxError{position_ - 1, "unknown escape in a string"});
        }
      } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
        return std::unexpected(SyntaxError{position_, "control character in a string"});
      }
      token.text += c;
    }
    return std::unexpected(SyntaxError{token.offset, "string without an end"});
  }

  std::string_view text_;
  std::size_t position_ = 0;
};

class Parser {
 public:
  explicit Parser(std::string_view text) : lexer_(text) {}

  Parsed<Expression> parse() {
    if (auto first = advance(); !first) return std::unexpected(std::move(first.error()));
    auto expression = parseDisjunction(0);
    if (expression && token_.kind != Token::Kind::end)
      return fail("expected \"and\", \"or\" or the end");
    return expression;
  }

 private:
  using Rule = Parsed<Expression> (Parser::*)(std::size_t depth);

  [[nodiscard]] std::unexpected<SyntaxError> fail(std::string message) const {
    return std::unexpected(SyntaxError{token_.offset, std::move(message)});
  }

  Parsed<void> advance() {
    auto token = lexer_.next();
    if (!token) return std::unexpected(std::move(token.error()));
    token_ = std::move(*token);
    return {};
  }

  Parsed<void> expectWord(std::string_view word) {
    if (!token_.isWord(word)) return fail("expected \"" + std::string(word) + "\"");
    return advance();
  }

  Parsed<void> expectSymbol(char symbol) {
    if (!token_.isSymbol(symbol)) return fail(std::string("expected \"") + symbol + '"');
    return advance();
  }

  /// One operand alone stands for itself; more become one node of kind `Chain`.
  template <class Chain>
  Parsed<Expression> parseChain(Rule operand, std::string_view word, std::size_t depth) {
    auto first = (this->*operand)(depth);
    if (!first || !token_.isWord(word)) return first;
    Chain chain;
    chain.operands.push_back(std::move(*first));
    while (token_.isWord(word)) {
      if (auto next = advance(); !next) return std::unexpected(std::move(next.error()));
      auto further = (this->*operand)(depth);
      if (!further) return further;
      chain.operands.push_back(std::move(*further));
    }
    return Expression(std::move(chain));
  }

  Parsed<Expression> parseDisjunction(std::size_t depth) {
    return parseChain<Expression::disjunction>(&Parser::parseConjunction, "or", depth);
  }
  Parsed<Expression> parseConjunction(std::size_t depth) {
    return parseChain<Expression::conjunction>(&Parser::parseFactor, "and", depth);
  }

  Parsed<Expression> parseFactor(std::size_t depth) {
    const bool isNegation = token_.isSymbol('!') || token_.isWord("not");
    if (!isNegation && !token_.isSymbol('(')) return parseConstraint();
    if (depth == codeRequirementDepthMax) return fail("nested too deeply");
    if (auto next = advance(); !next) return std::unexpected(std::move(next.error()));
    if (isNegation) {
      auto operand = parseFactor(depth + 1);
      if (!operand) return operand;
      Expression::negation negation;
      negation.operand.push_back(std::move(*operand));
      return Expression(std::move(negation));
    }
    auto inner = parseDisjunction(depth + 1);
    if (!inner) return inner;
    if (auto closed = expectSymbol(')'); !closed) return std::unexpected(std::move(closed.error()));
    return inner;
  }

  Parsed<Expression> parseConstraint() {
    if (token_.isWord("anchor")) {
      for (const std::string_view word : {"anchor", "apple", "generic"}) {
        if (auto met = expectWord(word); !met) return std::unexpected(std::move(met.error()));
      }
      return Expression(Expression::appleGenericAnchor{});
    }
    if (token_.isWord("certificate")) {
      auto value = parseLeafOrganizationalUnit();
      if (!value) return std::unexpected(std::move(value.error()));
      return Expression(Expression::leafOrganizationalUnit{std::move(*value)});
    }
    if (token_.isWord("identifier")) {
      auto next = advance();
      if (next && token_.isSymbol('=')) next = advance();
      if (!next) return std::unexpected(std::move(next.error()));
      auto value = parseString();
      if (!value) return std::unexpected(std::move(value.error()));
      return Expression(Expression::identifier{std::move(*value)});
    }
    return fail("expected \"anchor\", \"certificate\", \"identifier\", \"!\" or \"(\"");
  }

  Parsed<std::string> parseLeafOrganizationalUnit() {
    auto met = expectWord("certificate");
    if (met) met = expectWord("leaf");
    if (met) met = expectSymbol('[');
    if (met) met = expectWord("subject.OU");
    if (met) met = expectSymbol(']');
    if (met) met = expectSymbol('=');
    if (!met) return std::unexpected(std::move(met.error()));
    return parseString();
  }

  Parsed<std::string> parseString() {
    const bool isBare = token_.kind == Token::Kind::word &&
                        std::ranges::find(keywords, token_.text) == keywords.end();
    if (!isBare && token_.kind != Token::Kind::quoted) return fail("expected a string");
    auto value = std::move(token_.text);
    if (auto next = advance(); !next) return std::unexpected(std::move(next.error()));
    return value;
  }

  Lexer lexer_;
  Token token_;
};

bool isProven(const std::string& property, const std::string& wanted) {
  return !property.empty() && property == wanted;
}

}  // namespace

std::expected<CodeRequirementExpression, CodeRequirementSyntaxError> compileCodeRequirement(
    std::string_view text) {
  if (text.size() > codeRequirementBytesMax) {
    return std::unexpected(
        SyntaxError{codeRequirementBytesMax, "longer than a requirement may be"});
  }
  return Parser(text).parse();
}

bool isSatisfied(const CodeRequirementExpression& expression, const CodeIdentity& identity) {
  const auto holds = [&](const Expression& operand) { return isSatisfied(operand, identity); };
  return core::match(
      expression, [&](const Expression::appleGenericAnchor&) { return identity.anchorIsTrusted; },
      [&](const Expression::leafOrganizationalUnit& unit) {
        return isProven(identity.leafOrganizationalUnit, unit.value);
      },
      [&](const Expression::identifier& name) { return isProven(identity.identifier, name.value); },
      [&](const Expression::negation& negation) { return !holds(negation.operand.front()); },
      [&](const Expression::conjunction& chain) {
        return std::ranges::all_of(chain.operands, holds);
      },
      [&](const Expression::disjunction& chain) {
        return std::ranges::any_of(chain.operands, holds);
      });
}

}  // namespace stillow::ipc
