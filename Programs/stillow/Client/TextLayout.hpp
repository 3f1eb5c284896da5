#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Setting text for a screen of character cells. All text is UTF-8.
namespace stillow::client {

/// How texts are set for one stream at one moment.
struct TextStyle {
  std::size_t columns = 0;  ///< 0: lines are never broken, as for a file or a pipe
  std::size_t rows = 0;     ///< 0: as many as it takes
  bool hasColour = false;
  bool showsBar = false;

  friend bool operator==(const TextStyle&, const TextStyle&) = default;
};

enum class Tone : unsigned char { strong, good, uncertain, bad, quiet };

/// `text` in that tone where there is colour, else as it is.
[[nodiscard]] std::string toned(std::string text, Tone tone, const TextStyle& style);

/// Whether colour is wanted: on a terminal that knows what it means, unless the environment says
/// no. Either may be null, as getenv gives it.
[[nodiscard]] bool wantsColour(bool isTerminal, const char* noColor, const char* term) noexcept;
/// Whether the cursor may be moved about: a terminal that is not "dumb".
[[nodiscard]] bool canRewrite(bool isTerminal, const char* term) noexcept;

/// `text` with U+FFFD in place of whatever could steer a terminal or turn the reading direction,
/// and of ill-formed bytes. For names that come from a file, the network or the command line.
[[nodiscard]] std::string printable(std::string_view text);
/// Whether `printable` would leave it alone.
[[nodiscard]] bool isPrintable(std::string_view text);
/// `text`, printable, in the quotation marks that every message uses.
[[nodiscard]] std::string quoted(std::string_view text);

/// Cells that `text` takes. A character of an East Asian script or an emoji takes two, a combining
/// mark none; the sequences of `toned` take none either.
[[nodiscard]] std::size_t displayWidth(std::string_view text);

/// `text` in lines of at most `columns` cells, broken at blanks; a longer word is broken where it
/// has to be. Lines after the first, and those after a line end inside `text`, begin with `indent`
/// blanks. No line end follows the last. `columns` 0 leaves the text alone.
[[nodiscard]] std::string wrapped(std::string_view text, std::size_t columns,
                                  std::size_t indent = 0);

/// The beginning of `text` in at most `columns` cells, with "…" where something was left out.
[[nodiscard]] std::string shortened(std::string_view text, std::size_t columns);

/// "1 site", "2 sites".
[[nodiscard]] std::string counted(std::size_t count, std::string_view singular);

}  // namespace stillow::client
