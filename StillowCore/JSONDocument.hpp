#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

namespace stillow::core {

/// A parsed JSON text: strict RFC 8259 in UTF-8, at most `nestingMax` containers inside one
/// another.
///
/// Every member is kept, duplicates included and in the order of the text, and every number keeps
/// its own digits, because the coding rules need both. Views stay valid as long as the document and
/// the parsed bytes do.
class JSONDocument {
 public:
  static constexpr std::size_t nestingMax = 512;

  enum class Kind : std::uint8_t { null, boolean, number, string, array, object };

  /// One value. `end` is the index of the first node behind it, so a container's children are
  /// walked by `child = node(child).end`. In an object each child is preceded by its key's own
  /// string node.
  struct Node {
    Kind kind;
    bool truth = false;       ///< of a boolean
    std::uint32_t end = 0;    ///< one past the last node of this value
    std::uint32_t count = 0;  ///< elements of an array, members of an object
    std::string_view text;    ///< a string's characters, a number's digits
  };

  /// Where and why the text is no JSON. `offset` is in bytes.
  struct ParseError {
    std::size_t offset;
    std::string reason;
  };

  /// `bytes` must outlive the document: its strings point into them where nothing was escaped.
  [[nodiscard]] static std::expected<JSONDocument, ParseError> parse(std::string_view bytes);

  [[nodiscard]] const Node& node(std::uint32_t index) const noexcept { return nodes_[index]; }
  [[nodiscard]] static constexpr std::uint32_t root() noexcept { return 0; }

 private:
  friend class JSONDocumentBuilder;
  std::vector<Node> nodes_;
  std::deque<std::string> unescaped_;
};

}  // namespace stillow::core
