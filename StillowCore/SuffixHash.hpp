#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace stillow::core {

/// Hashes all suffixes of a host name that begin at a label, in one pass over its bytes from the
/// right end: eight bytes are mixed at a time, and each "." on the way yields the hash of what lies
/// right of it. The hash of a suffix does not depend on what stands before it.
///
/// The hash is keyed but not cryptographic. Names in a table come from the user, perhaps from a
/// list that a stranger wrote; hosts come from the network. With a known key that stranger could
/// write names that all fall into one slot, and every flow would then walk through them. So tables
/// over such names take the key of this process, which nobody outside sees and no answer depends
/// on. Somebody who only sends hosts cannot lengthen a chain: looking up stores nothing. Equal
/// hashes are never taken for equal names; whoever keeps a table compares the text.
class SuffixHash {
 public:
  /// A key of its own for each process, from the system's random source.
  [[nodiscard]] static SuffixHash ofThisProcess();
  /// The same in every process: for names that ship with the product.
  [[nodiscard]] static constexpr SuffixHash fixed() noexcept {
    return {0x9e37'79b9'7f4a'7c15, 0xbf58'476d'1ce4'e5b9, 0x94d0'49bb'1331'11eb};
  }

  constexpr SuffixHash(std::uint64_t seed, std::uint64_t multiplier,
                       std::uint64_t finisher) noexcept
      // An even multiplier would drop the top bits of what it multiplies.
      : seed_(seed), multiplier_(multiplier | 1U), finisher_(finisher) {}

  struct Suffix {
    std::size_t offset;  ///< of its first byte in the host
    std::size_t labels;  ///< how many labels it has, empty ones included
    std::uint64_t hash;
  };

  enum class Letters : std::uint8_t { asTheyAre, lowerCased };

  /// Calls `visit` with each suffix, the shortest first and the whole host last, until it returns
  /// true. `isSeparator` is asked about the offset of each "."; the host is only cut where it
  /// agrees. `lowerCased` hashes ASCII letters as if they were lower case and takes hosts of ASCII
  /// only.
  template <Letters letters = Letters::asTheyAre, class IsSeparator, class Visit>
  void forEachSuffix(std::string_view host, IsSeparator isSeparator, Visit visit) const {
    std::uint64_t state = seed_;
    std::size_t labels = 1;
    for (std::size_t end = host.size();; end -= wordBytes) {
      const std::size_t count = std::min(end, wordBytes);
      std::uint64_t word = wordBefore(host, end, count);
      if constexpr (letters == Letters::lowerCased) word = lowerCased(word);
      for (std::uint64_t dots = dotsOf(word); dots != 0;) {
        // The topmost flag is the rightmost dot. What lies above it is the suffix's share of the
        // word.
        const auto flag = static_cast<unsigned>(std::bit_width(dots)) - 1;
        dots ^= std::uint64_t{1} << flag;
        const std::size_t offset = end - (wordBytes - 1 - flag / 8);
        if (!isSeparator(offset - 1)) continue;
        const std::uint64_t share = (word >> 1U) >> flag;
        if (visit(Suffix{offset, labels, finished(state, share, host.size() - offset)})) return;
        ++labels;
      }
      if (count < wordBytes) {
        const std::uint64_t share = count == 0 ? 0 : word >> (8 * (wordBytes - count));
        (void)visit(Suffix{0, labels, finished(state, share, host.size())});
        return;
      }
      state = mixed(state ^ word, multiplier_);
    }
  }

  /// The hash that `forEachSuffix` gives for a suffix with these bytes.
  [[nodiscard]] std::uint64_t operator()(std::string_view text) const noexcept {
    std::uint64_t whole = 0;
    const auto isNoSeparator = [](std::size_t) { return false; };
    forEachSuffix(text, isNoSeparator, [&](const Suffix& suffix) {
      whole = suffix.hash;
      return true;
    });
    return whole;
  }

  /// Whether `host`, ASCII only, reads `lowerName` when its letters are lower-cased.
  [[nodiscard]] static bool isEqualLowerCased(std::string_view host,
                                              std::string_view lowerName) noexcept {
    if (host.size() != lowerName.size()) return false;
    for (std::size_t end = host.size(); end > 0;) {
      const std::size_t count = std::min(end, wordBytes);
      if (lowerCased(wordBefore(host, end, count)) != wordBefore(lowerName, end, count)) {
        return false;
      }
      end -= count;
    }
    return true;
  }

 private:
  static constexpr std::size_t wordBytes = 8;
  static constexpr std::uint64_t eachByte = 0x0101'0101'0101'0101;
  static constexpr std::uint64_t topBits = 0x80 * eachByte;

  static std::uint64_t load(const char* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, wordBytes);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
    return word;
  }

  /// The `count` bytes before `end`, the last of them topmost, zeros below.
  static std::uint64_t wordBefore(std::string_view text, std::size_t end,
                                  std::size_t count) noexcept {
    if (count == wordBytes) return load(text.data() + end - wordBytes);
    if (count == 0) return 0;
    if (text.size() >= wordBytes) return load(text.data()) << (8 * (wordBytes - count));
    char bytes[wordBytes] = {};
    std::memcpy(bytes + (wordBytes - count), text.data(), count);
    return load(bytes);
  }

  /// A flag in the top bit of each byte that is ".".
  static constexpr std::uint64_t dotsOf(std::uint64_t word) noexcept {
    const std::uint64_t difference = word ^ ('.' * eachByte);
    return ~(((difference & ~topBits) + ~topBits) | difference) & topBits;
  }

  /// For bytes below 0x80 only: adding must not carry into the next byte.
  static constexpr std::uint64_t lowerCased(std::uint64_t word) noexcept {
    const std::uint64_t fromA = word + (0x80 - 'A') * eachByte;
    const std::uint64_t beyondZ = word + (0x80 - 'Z' - 1) * eachByte;
    return word | ((fromA & ~beyondZ & topBits) >> 2U);
  }

  static constexpr std::uint64_t mixed(std::uint64_t left, std::uint64_t right) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(left) * right;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
  }

  /// The length tells a short share from one that happens to end in zero bytes.
  [[nodiscard]] constexpr std::uint64_t finished(std::uint64_t state, std::uint64_t share,
                                                 std::size_t length) const noexcept {
    return mixed(state ^ share, finisher_ + 2 * length);
  }

  std::uint64_t seed_;
  std::uint64_t multiplier_;
  std::uint64_t finisher_;
};

}  // namespace stillow::core
