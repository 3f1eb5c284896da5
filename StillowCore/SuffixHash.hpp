#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

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
  /// Up to 24 bytes of a text as three words: the last eight, and those that begin 16 and 24 bytes
  /// before the end or where the text begins. So the words of a shorter text overlap, and nothing
  /// has to be shifted; below eight bytes all three are the same, with zeros before the text.
  struct Block {
    static constexpr std::size_t size = 24;

    std::uint64_t right = 0;
    std::uint64_t middle = 0;
    std::uint64_t left = 0;

    /// Without a branch for each word.
    friend constexpr bool operator==(const Block& one, const Block& other) noexcept {
      return ((one.right ^ other.right) | (one.middle ^ other.middle) | (one.left ^ other.left)) ==
             0;
    }
  };

  struct Suffix {
    std::size_t offset;  ///< of its first byte in the host
    std::size_t length;
    std::size_t labels;  ///< how many there are, empty ones included
    std::uint64_t hash;
    /// All of it, ASCII letters in lower case, if it is shorter than `Block::size`. Suffixes of one
    /// length are equal but for case exactly if their blocks are.
    Block block;
  };

  /// A key of its own for each process, from the system's random source.
  [[nodiscard]] static SuffixHash ofThisProcess();
  /// The same in every process: for names that ship with the product.
  [[nodiscard]] static constexpr SuffixHash fixed() noexcept {
    return {0x9e37'79b9'7f4a'7c15, 0xbf58'476d'1ce4'e5b9, 0x94d0'49bb'1331'11eb};
  }
  constexpr SuffixHash(std::uint64_t key0, std::uint64_t key1, std::uint64_t key2) noexcept
      : key0_(key0), key1_(key1), key2_(key2) {}
  /// Another key, for whoever found two names that this one does not tell apart.
  [[nodiscard]] constexpr SuffixHash successor() const noexcept {
    return {key0_ + fixed().key0_, key1_ + fixed().key1_, key2_ + fixed().key2_};
  }

  /// Calls `visit` with each suffix of at least `labelsMin` labels, the shortest first and the
  /// whole host last, until it returns true. `isSeparator` is asked about the offset of each ".";
  /// the host is only cut where it agrees.
  template <class IsSeparator, class Visit>
  void forEachSuffix(std::string_view host, std::size_t labelsMin, IsSeparator isSeparator,
                     Visit visit) const {
    std::uint64_t state = key2_;
    std::size_t labels = 1;
    for (std::size_t end = host.size();; end -= Block::size) {
      Padding padding{};
      const Chunk chunk = chunkBefore(host, end, padding);
      for (std::uint32_t cuts = chunk.cuts; cuts != 0; cuts &= cuts - 1) {
        const auto share = static_cast<std::size_t>(std::countr_zero(cuts));
        const std::size_t offset = end - share;
        if (offset != 0 && !isSeparator(offset - 1)) continue;
        if (labels >= labelsMin) {
          const std::size_t length = host.size() - offset;
          const Block last = lowerCased(blockBefore(chunk.end, reaches[share]));
          if (visit(Suffix{offset, length, labels, finished(last, length, state), last})) return;
        }
        ++labels;
      }
      if (end < Block::size) return;
      state = mixed(lowerCased(chunk.block), state);
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

  /// The last bytes of a host, as many as a block takes, where they can be hashed as they stand.
  struct PlainEnd {
    const char* end;
    /// Bit n: a suffix begins n bytes before the end, behind a "." or at the beginning of the host.
    /// Counted from the lowest bit they come shortest first.
    std::uint32_t cuts;
    bool isPlain;  ///< ASCII without capital letters; otherwise the cuts mean nothing
  };

  /// `forEachSuffix` in steps, for the short suffixes of a host of at least `hostBytesMin` bytes
  /// that is plain there, as nearly every host is: those that begin at the cuts have the block and
  /// the hash that these give. A "." at the very beginning of the bytes is no cut, since nothing is
  /// known of what stands before it.
  static constexpr std::size_t hostBytesMin = 8;
  [[nodiscard]] static PlainEnd plainEnd(std::string_view host) noexcept {
    constexpr std::uint32_t dotAtBeginning = std::uint32_t{1} << (Block::size - 1);
    const char* const end = host.data() + host.size();
    const Reach& reach = reaches[std::min(host.size(), Block::size)];
    const Block words = wordsBefore(end, reach);
    const std::uint32_t dots = gathered(words, reach, plainDotsOf);
    return {end, (dots & ~dotAtBeginning) | reach.beginning, isPlain(words)};
  }
  [[nodiscard]] static Block lastBlock(const PlainEnd& host, std::size_t length) noexcept {
    return blockBefore(host.end, reaches[length]);
  }
  [[nodiscard]] std::uint64_t hashOf(const Block& suffix, std::size_t length) const noexcept {
    return finished(suffix, length, key2_);
  }

 private:
  static constexpr std::size_t wordBytes = hostBytesMin;
  static constexpr std::uint64_t eachByte = 0x0101'0101'0101'0101;
  static constexpr std::uint64_t topBits = 0x80 * eachByte;

  /// The bytes before some place in a host, as many as a block takes, and where it can be cut.
  struct Chunk {
    const char* end;
    Block block;         ///< as the bytes stand
    std::uint32_t cuts;  ///< as in `PlainEnd`
  };

  using Padding = std::array<char, wordBytes>;

  static std::uint64_t load(const void* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, wordBytes);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
    return word;
  }

  /// How to read a number of bytes up to 24. In a table, because places of dots are as good as
  /// random and a branch on them that is guessed wrong costs as much as the hash.
  struct Reach {
    std::uint64_t mask;       ///< what belongs to them in each word
    std::uint32_t beginning;  ///< the cut before them; none for 24, where more may follow
    std::uint8_t middle;      ///< how far before the end the words end
    std::uint8_t left;
  };
  static constexpr std::array<Reach, Block::size + 1> reaches = [] {
    std::array<Reach, Block::size + 1> table{};
    for (std::size_t count = 0; count <= Block::size; ++count) {
      const std::uint64_t all = ~std::uint64_t{0};
      const std::size_t rest = std::max(count, wordBytes) - wordBytes;
      table[count] = {
          .mask = count == 0 ? 0 : all << (8 * (wordBytes - std::min(count, wordBytes))),
          .beginning = count == Block::size ? 0 : std::uint32_t{1} << count,
          .middle = static_cast<std::uint8_t>(std::min(rest, wordBytes)),
          .left = static_cast<std::uint8_t>(rest)};
    }
    return table;
  }();

  /// Words are read whole, also where fewer bytes are left: then from a copy with room before it.
  static Chunk chunkBefore(std::string_view host, std::size_t end, Padding& padding) noexcept {
    if (end >= wordBytes) return chunkAt(host.data() + end, std::min(end, Block::size));
    if (end != 0) std::memcpy(padding.data() + (wordBytes - end), host.data(), end);
    return chunkAt(padding.data() + wordBytes, end);
  }
  static Chunk chunkAt(const char* end, std::size_t count) noexcept {
    const Reach& reach = reaches[count];
    const Block block = blockBefore(end, reach);
    return {end, block, gathered(block, reach, dotsOf) | reach.beginning};
  }

  static Block blockBefore(const char* end, const Reach& reach) noexcept {
    const Block words = wordsBefore(end, reach);
    return {words.right & reach.mask, words.middle & reach.mask, words.left & reach.mask};
  }
  static Block wordsBefore(const char* end, const Reach& reach) noexcept {
    end -= wordBytes;
    return {load(end), load(end - reach.middle), load(end - reach.left)};
  }

  /// A bit for each byte, the lowest for the last, of what `flagsOf` says of the words.
  template <class FlagsOf>
  static constexpr std::uint32_t gathered(const Block& words, const Reach& reach,
                                          FlagsOf flagsOf) noexcept {
    return gathered(flagsOf(words.right)) | gathered(flagsOf(words.middle)) << reach.middle |
           gathered(flagsOf(words.left)) << reach.left;
  }
  /// The product gathers the flags, one from the top of each byte, in its topmost byte.
  static constexpr std::uint32_t gathered(std::uint64_t flags) noexcept {
    return static_cast<std::uint32_t>(((flags >> 7U) * 0x8040'2010'0804'0201) >> 56U);
  }
  /// The top bit of each byte that is ".".
  static constexpr std::uint64_t dotsOf(std::uint64_t word) noexcept {
    const std::uint64_t other = word ^ ('.' * eachByte);
    return ~(((other & ~topBits) + ~topBits) | other) & topBits;
  }
  /// Likewise where every byte is ASCII.
  static constexpr std::uint64_t plainDotsOf(std::uint64_t word) noexcept {
    return (topBits - (word ^ ('.' * eachByte))) & topBits;
  }

  /// False also for what stands among the capitals in ASCII, such as "_", which is rare in a host.
  static constexpr bool isPlain(const Block& words) noexcept {
    // Bit 6 without bit 5: 0x40 to 0x5F.
    constexpr auto inColumnOfCapitals = [](std::uint64_t word) { return word & ~(word << 1U); };
    const std::uint64_t capitals = inColumnOfCapitals(words.right) |
                                   inColumnOfCapitals(words.middle) |
                                   inColumnOfCapitals(words.left);
    const std::uint64_t all = words.right | words.middle | words.left;
    return ((capitals & (topBits >> 1U)) | (all & topBits)) == 0;
  }

  static constexpr std::uint64_t lowerCased(std::uint64_t word) noexcept {
    const std::uint64_t sevenBits = word & ~topBits;  // Adding must not carry into the next byte.
    const std::uint64_t fromA = sevenBits + (0x80 - 'A') * eachByte;
    const std::uint64_t beyondZ = sevenBits + (0x80 - 'Z' - 1) * eachByte;
    return word | (((fromA ^ beyondZ) & ~word & topBits) >> 2U);
  }
  static constexpr Block lowerCased(const Block& block) noexcept {
    return {lowerCased(block.right), lowerCased(block.middle), lowerCased(block.left)};
  }

  static constexpr std::uint64_t folded(std::uint64_t left, std::uint64_t right) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(left) * right;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
  }

  [[nodiscard]] constexpr std::uint64_t mixed(const Block& block,
                                              std::uint64_t state) const noexcept {
    return folded(folded(block.right ^ key0_, block.middle ^ key1_) ^ block.left, state);
  }
  [[nodiscard]] constexpr std::uint64_t finished(const Block& last, std::size_t length,
                                                 std::uint64_t state) const noexcept {
    return mixed(last, state + 2 * length);
  }

  std::uint64_t key0_;
  std::uint64_t key1_;
  std::uint64_t key2_;
};

}  // namespace stillow::core
