#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "StillowCore/LastBytes.hpp"

namespace stillow::core {

/// Hashes all suffixes of a host name that begin at a label, in one pass over its bytes from the
/// right end: blocks of 24 bytes are mixed into a state, and each "." on the way yields the hash of
/// what lies right of it. The hash of a suffix does not depend on what stands before it, nor on the
/// case of letters in ASCII. Equal hashes are never taken for equal names; whoever keeps a table
/// compares the text.
///
/// The hash is keyed but not cryptographic. Names in a table come from the user, perhaps from a
/// list that a stranger wrote; hosts come from the network. With a known key that stranger could
/// write names that all fall into one slot, and every flow would then walk through them. So tables
/// over such names take the key of this process, which nobody outside sees and no answer depends
/// on. Somebody who only sends hosts cannot lengthen a chain: looking up stores nothing.
class SuffixHash {
 public:
  /// Fewer than 24 bytes of a text as three words: the last byte topmost in `right`, zeros before
  /// the first, letters of ASCII in lower case. The lowest byte of `left`, where none can be, holds
  /// how many they are. So texts are equal but for case exactly if their blocks are.
  struct Block {
    static constexpr std::size_t size = LastBytes::size;

    std::uint64_t right = 0;
    std::uint64_t middle = 0;
    std::uint64_t left = 0;

    /// 0 if they are the same.
    [[nodiscard]] constexpr std::uint64_t difference(const Block& other) const noexcept {
      return (right ^ other.right) | (middle ^ other.middle) | (left ^ other.left);
    }
    friend constexpr bool operator==(const Block& one, const Block& other) noexcept {
      return one.difference(other) == 0;
    }
  };

  struct Suffix {
    std::size_t offset;  ///< of its first byte in the host
    std::size_t length;
    std::size_t labels;  ///< how many there are, empty ones included
    std::uint64_t hash;
    Block block;  ///< all of it, if it is shorter than `Block::size`
  };

  /// A key of its own for each process, from the system's random source.
  [[nodiscard]] static SuffixHash ofThisProcess();
  /// The same in every process: for names that ship with the product.
  [[nodiscard]] static constexpr SuffixHash fixed() noexcept {
    return SuffixHash({0x9e37'79b9'7f4a'7c15, 0xbf58'476d'1ce4'e5b9, 0x94d0'49bb'1331'11eb,
                       0xd6e8'feb8'6659'fd93});
  }
  using Key = std::array<std::uint64_t, 4>;
  constexpr explicit SuffixHash(const Key& key) noexcept : key_(key) {}
  /// Another key, for whoever found two names that this one does not tell apart.
  [[nodiscard]] constexpr SuffixHash successor() const noexcept {
    SuffixHash next = *this;
    for (std::size_t i = 0; i < key_.size(); ++i) next.key_[i] += fixed().key_[i];
    return next;
  }

  /// Calls `visit` with each suffix of at least `labelsMin` labels, the shortest first and the
  /// whole host last, until it returns true. `isSeparator` is asked about the offset of each ".";
  /// the host is only cut where it agrees.
  template <class IsSeparator, class Visit>
  void forEachSuffix(std::string_view host, std::size_t labelsMin, IsSeparator isSeparator,
                     Visit visit) const {
    // Too short to be read whole: a copy with room before it.
    std::array<char, LastBytes::textBytesMin> padded{};
    std::string_view text = host;
    std::size_t padding = 0;
    if (host.size() < padded.size()) {
      padding = padded.size() - host.size();
      std::ranges::copy(host, padded.begin() + static_cast<std::ptrdiff_t>(padding));
      text = {padded.data(), padded.size()};
    }
    std::uint64_t state = key_[3];
    std::size_t labels = 1;
    for (std::size_t end = host.size();; end -= Block::size) {
      const LastBytes bytes = LastBytes::before(padding + end, text);
      for (std::uint32_t cuts = bytes.dots | LastBytes::beginning(end); cuts != 0;
           cuts = withoutFirst(cuts)) {
        const std::size_t share = firstOf(cuts);
        const std::size_t offset = end - share;
        if (offset != 0 && !isSeparator(offset - 1)) continue;
        if (labels >= labelsMin) {
          const Block last = blockOf(bytes, share);
          if (visit(Suffix{offset, host.size() - offset, labels, mixed(last, state), last})) return;
        }
        ++labels;
      }
      if (end < Block::size) return;
      state = mixed({bytes.right, bytes.middle, bytes.left}, state);
    }
  }

  /// The suffix that `forEachSuffix` visits last: the whole text, however many labels it has.
  [[nodiscard]] std::uint64_t operator()(std::string_view text) const noexcept {
    std::uint64_t whole = 0;
    const auto isNoSeparator = [](std::size_t) { return false; };
    forEachSuffix(text, 0, isNoSeparator, [&](const Suffix& suffix) {
      whole = suffix.hash;
      return true;
    });
    return whole;
  }

  /// `forEachSuffix` in steps, for suffixes shorter than a block. Cuts are where the host can be
  /// cut, bit 31 - n if its last n bytes are a suffix; there must be one.
  [[nodiscard]] static constexpr std::size_t firstOf(std::uint32_t cuts) noexcept {
    return static_cast<unsigned>(__builtin_clz(cuts));
  }
  [[nodiscard]] static constexpr std::uint32_t withoutFirst(std::uint32_t cuts) noexcept {
    return cuts & ~(1U << (31U ^ static_cast<unsigned>(__builtin_clz(cuts))));
  }
  /// The last `length` of the bytes.
  [[nodiscard]] static Block blockOf(const LastBytes& bytes, std::size_t length) noexcept {
    const unsigned char* const mask = masks.data() + length;
    return {bytes.right & load(mask + 16), bytes.middle & load(mask + 8),
            (bytes.left & load(mask)) | length};
  }
  [[nodiscard]] std::uint64_t hashOf(const Block& suffix) const noexcept {
    return mixed(suffix, key_[3]);
  }

 private:
  /// From any place up to 24 a mask of as many bytes.
  alignas(64) static constexpr std::array<unsigned char, 64> masks = [] {
    std::array<unsigned char, 64> bytes{};
    for (std::size_t at = Block::size; at < bytes.size(); ++at) bytes[at] = 0xff;
    return bytes;
  }();

  static std::uint64_t load(const unsigned char* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
    return word;
  }

  static constexpr std::uint64_t folded(std::uint64_t left, std::uint64_t right) noexcept {
    __extension__ using Wide = unsigned __int128;
    return left * right ^ static_cast<std::uint64_t>((static_cast<Wide>(left) * right) >> 64U);
  }

  [[nodiscard]] constexpr std::uint64_t mixed(const Block& block,
                                              std::uint64_t state) const noexcept {
    return folded(block.right ^ key_[0], block.middle ^ key_[1]) ^
           folded(block.left ^ key_[2], state);
  }

  Key key_;
};

}  // namespace stillow::core
