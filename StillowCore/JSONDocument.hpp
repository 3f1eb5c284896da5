#pragma once

#include <cstddef>
#include <cstdint>
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

  [[nodiscard]] Node node(std::uint32_t index) const noexcept {
    const Stored& stored = nodes_[index];
    const bool isContainer = stored.kind == Kind::array || stored.kind == Kind::object;
    return {.kind = stored.kind,
            .truth = stored.truth,
            .end = stored.end,
            .count = isContainer ? stored.size : 0,
            .text = isContainer ? std::string_view() : textOf(stored)};
  }
  [[nodiscard]] static constexpr std::uint32_t root() noexcept { return 0; }

  // Parts of a node, for who needs no more of it.
  [[nodiscard]] Kind kind(std::uint32_t index) const noexcept { return nodes_[index].kind; }
  [[nodiscard]] std::uint32_t end(std::uint32_t index) const noexcept { return nodes_[index].end; }
  /// Of a string or a number.
  [[nodiscard]] std::string_view text(std::uint32_t index) const noexcept {
    return textOf(nodes_[index]);
  }

 private:
  friend class JSONDocumentParser;

  /// A node as it is kept: half the size.
  struct Stored {
    Kind kind;
    bool truth = false;
    bool isUnescaped = false;  ///< the text is not in the source
    std::uint32_t end = 0;
    std::uint32_t begin = 0;  ///< of the text
    std::uint32_t size = 0;   ///< of the text, or the count
  };

  [[nodiscard]] std::string_view textOf(const Stored& stored) const noexcept {
    return {(stored.isUnescaped ? unescaped_.data() : source_) + stored.begin, stored.size};
  }

  const char* source_ = nullptr;
  std::vector<Stored> nodes_;
  std::vector<char> unescaped_;  ///< the strings with escapes, one behind the other
};

}  // namespace stillow::core
