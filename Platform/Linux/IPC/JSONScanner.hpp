#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace stillow::platform {

/// Reads one JSON text from left to right and builds nothing: strict RFC 8259 in UTF-8, as deep as
/// `core::JSONDocument` allows, in memory that does not depend on the text.
///
/// What a stranger's line costs must not be a multiple of its length before anybody knows what it
/// is for. A document of every value would be: `[1,1,1...]` takes 2 bytes a value there and 16
/// here.
class JSONScanner {
 public:
  enum class Kind : std::uint8_t { null, boolean, number, string, array, object };
  struct Value {
    Kind kind;
    std::string_view text;  ///< as it stands in the source, quotes and brackets included
  };
  enum class Failure : std::uint8_t {
    malformed,      ///< no JSON
    tooManyValues,  ///< JSON so far, but more values and keys than allowed
  };

  /// `valuesMax` counts keys and values at any depth. `source` has to outlive the scanner and all
  /// that it gives out.
  JSONScanner(std::string_view source, std::size_t valuesMax)
      : source_(source), valuesLeft_(valuesMax) {}

  /// The kind of the value that begins here, blanks aside; none if nothing does.
  [[nodiscard]] std::optional<Kind> peek();

  /// Reads one whole value. None: see `failure`.
  [[nodiscard]] std::optional<Value> value();

  /// To walk a container's members oneself: enters it, then gives its elements' places one by one.
  ///
  ///     if (scanner.enter('[')) {
  ///       while (scanner.next(']')) { auto element = scanner.value(); ... }
  ///     }
  ///
  /// `next` is false behind the last element and on failure. In an object read `key` before
  /// `value`.
  [[nodiscard]] bool enter(char bracket);
  [[nodiscard]] bool next(char closingBracket);
  /// The key of a member and the colon behind it.
  [[nodiscard]] std::optional<Value> key();

  /// Nothing but blanks is left.
  [[nodiscard]] bool atEnd();

  [[nodiscard]] std::optional<Failure> failure() const noexcept { return failure_; }

 private:
  void skipBlanks() noexcept;
  bool consume(char expected) noexcept;
  bool fail(Failure failure = Failure::malformed) noexcept;
  bool countValue() noexcept;
  bool scalar() noexcept;
  bool string() noexcept;
  bool escape() noexcept;
  bool hexDigits(unsigned& value) noexcept;
  bool multibyte() noexcept;
  bool number() noexcept;
  bool digits() noexcept;
  bool literal(std::string_view word) noexcept;

  std::string_view source_;
  std::size_t at_ = 0;
  std::size_t valuesLeft_;
  std::size_t depth_ = 0;   ///< containers entered with `enter`
  bool isAtFirst_ = false;  ///< no element of the innermost of them was given yet
  std::optional<Failure> failure_;
};

}  // namespace stillow::platform
