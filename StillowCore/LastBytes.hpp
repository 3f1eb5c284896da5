#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#if defined(__x86_64__)
#include <emmintrin.h>  // SSE2, which every such processor has
#endif

namespace stillow::core {

/// The last bytes of a text, up to 24, as numbers: letters of ASCII in lower case, the last byte
/// topmost in `right`, zeros before the first.
struct LastBytes {
  static constexpr std::size_t size = 24;
  /// Bytes are read eight at a time, and none outside of the text: it must not be shorter.
  static constexpr std::size_t textBytesMin = 8;

  std::uint64_t right = 0;
  std::uint64_t middle = 0;
  std::uint64_t left = 0;
  /// Bit 31 - n: a "." stands before the last n bytes. Counted from the highest bit, those near the
  /// end come first.
  std::uint32_t dots = 0;
  bool isASCII = true;

  friend constexpr bool operator==(const LastBytes&, const LastBytes&) = default;

  /// Of what lies before `end` in the text.
  [[nodiscard]] static LastBytes before(std::size_t end, std::string_view text) noexcept {
#if defined(__x86_64__)
    return withVectors(end, text);
#else
    return withWords(end, text);
#endif
  }
  /// Of the whole text; a little faster.
  [[nodiscard]] static LastBytes of(std::string_view text) noexcept {
#if defined(__x86_64__)
    const Reach& reach = reaches[std::min(text.size(), size)];
    const char* const end = text.data() + text.size();
    return combined(word(end - wordBytes), end, reach);
#else
    return withWords(text.size(), text);
#endif
  }
  /// The beginning of a text as a bit like those of `dots`; none if more bytes may come before.
  [[nodiscard]] static std::uint32_t beginning(std::size_t textSize) noexcept {
    return reaches[std::min(textSize, size)].beginning;
  }

  /// What `before` does on machines without vectors that it knows.
  [[nodiscard]] static LastBytes withWords(std::size_t end, std::string_view text) noexcept {
    const Reach& reach = reaches[std::min(end, size)];
    const char* const at = text.data() + end;
    LastBytes bytes{.right = shifted(load(at + reach.right), reach.rightShift),
                    .middle = shifted(load(at + reach.middle), reach.middleShift),
                    .left = shifted(load(at + reach.left), reach.leftShift)};
    bytes.isASCII = ((bytes.right | bytes.middle | bytes.left) & topBits) == 0;
    bytes.right = lowerCased(bytes.right);
    bytes.middle = lowerCased(bytes.middle);
    bytes.left = lowerCased(bytes.left);
    bytes.dots =
        dotsOf(bytes.right) << 24U | dotsOf(bytes.middle) << 16U | dotsOf(bytes.left) << 8U;
    return bytes;
  }
#if defined(__x86_64__)
  [[nodiscard]] static LastBytes withVectors(std::size_t end, std::string_view text) noexcept {
    const Reach& reach = reaches[std::min(end, size)];
    const char* const at = text.data() + end;
    return combined(shifted(word(at + reach.right), reach.rightShift), at, reach);
  }
#endif

 private:
  static constexpr std::uint64_t eachByte = 0x0101'0101'0101'0101;
  static constexpr std::uint64_t topBits = 0x80 * eachByte;

  static constexpr std::size_t wordBytes = textBytesMin;

  /// How to read a number of bytes up to 24: where the words begin, counted from the end, and by
  /// how many bits they have to be shifted since they reach beyond their place. In a table, because
  /// lengths are as good as random and a branch that is guessed wrong costs as much as all the
  /// rest.
  struct Reach {
    std::int8_t right;
    std::int8_t middle;
    std::int8_t left;
    std::uint8_t rightShift;
    std::int32_t middleShift;
    std::int32_t leftShift;
    std::uint32_t beginning;
  };
  static constexpr std::array<Reach, size + 1> reaches = [] {
    std::array<Reach, size + 1> table{};
    for (std::size_t count = 0; count <= size; ++count) {
      const std::size_t right = std::min<std::size_t>(count, 8);
      const std::size_t middle = std::min<std::size_t>(count, 16);
      table[count] = {.right = static_cast<std::int8_t>(-static_cast<int>(right)),
                      .middle = static_cast<std::int8_t>(-static_cast<int>(middle)),
                      .left = static_cast<std::int8_t>(-static_cast<int>(count)),
                      .rightShift = static_cast<std::uint8_t>(8 * (8 - right)),
                      .middleShift = static_cast<std::int32_t>(8 * (16 - middle)),
                      .leftShift = static_cast<std::int32_t>(8 * (24 - count)),
                      .beginning = (count < size ? 0x8000'0000 >> count : 0)};
    }
    return table;
  }();

  static std::uint64_t load(const char* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
    return word;
  }
  static constexpr std::uint64_t shifted(std::uint64_t word, std::int32_t bits) noexcept {
    return bits < 64 ? word << bits : 0;
  }
  static constexpr std::uint64_t lowerCased(std::uint64_t word) noexcept {
    const std::uint64_t sevenBits = word & ~topBits;  // Adding must not carry into the next byte.
    const std::uint64_t fromA = sevenBits + (0x80 - 'A') * eachByte;
    const std::uint64_t beyondZ = sevenBits + (0x80 - 'Z' - 1) * eachByte;
    return word | (((fromA ^ beyondZ) & ~word & topBits) >> 2U);
  }
  /// A bit for each byte that is ".", the lowest for the lowest.
  static constexpr std::uint32_t dotsOf(std::uint64_t word) noexcept {
    const std::uint64_t other = word ^ ('.' * eachByte);
    const std::uint64_t flags = ~(((other & ~topBits) + ~topBits) | other) & topBits;
    // The product gathers the flags in its topmost byte.
    return static_cast<std::uint32_t>(((flags >> 7U) * 0x0102'0408'1020'4080) >> 56U);
  }

#if defined(__x86_64__)
  static __m128i word(const void* bytes) noexcept {
    return _mm_loadl_epi64(static_cast<const __m128i*>(bytes));
  }
  /// By 64 or more gives zero.
  static __m128i shifted(__m128i word, std::int32_t bits) noexcept {
    return _mm_sll_epi64(word, _mm_cvtsi32_si128(bits));
  }
  static LastBytes combined(__m128i right, const char* end, const Reach& reach) noexcept {
    __m128i left = shifted(word(end + reach.left), reach.leftShift);
    __m128i last = _mm_unpacklo_epi64(shifted(word(end + reach.middle), reach.middleShift), right);
    const std::uint32_t dots = dotsOf(last) << 16U | dotsOf(left) << 8U;
    left = lowerCased(left);
    last = lowerCased(last);
    return {.right = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(last, last))),
            .middle = static_cast<std::uint64_t>(_mm_cvtsi128_si64(last)),
            .left = static_cast<std::uint64_t>(_mm_cvtsi128_si64(left)),
            .dots = dots,
            .isASCII = _mm_movemask_epi8(_mm_or_si128(last, left)) == 0};
  }
  static __m128i lowerCased(__m128i bytes) noexcept {
    // Moves the capitals to the top of the signed bytes.
    constexpr char toTop = 0x7f - 'Z';
    const __m128i capitals =
        _mm_cmpgt_epi8(_mm_add_epi8(bytes, _mm_set1_epi8(toTop)), _mm_set1_epi8('A' - 1 + toTop));
    return _mm_or_si128(bytes, _mm_and_si128(capitals, _mm_set1_epi8(0x20)));
  }
  static std::uint32_t dotsOf(__m128i bytes) noexcept {
    return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('.'))));
  }
#endif
};

}  // namespace stillow::core
