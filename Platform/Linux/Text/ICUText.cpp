/// StillowCore's text rules over ICU.
#include <array>
#include <memory>
#include <string>

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/uidna.h>
#include <unicode/utext.h>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core::text::platform {

namespace {

/// ICU fails here only where its data cannot be loaded: an installation without them is broken.
void requireSuccess(UErrorCode status, std::string_view what) { require(U_SUCCESS(status), what); }

/// Code units of UTF-16 that the UTF-8 text takes.
std::size_t utf16Length(std::string_view text) noexcept {
  std::size_t units = 0;
  for (std::size_t at = 0; at < text.size();) {
    const auto next = codePointAt(text, at);
    units += next.value > 0xFFFF ? 2 : 1;
    at += next.length;
  }
  return units;
}

const UIDNA* uts46() {
  static const UIDNA* const instance = [] {
    UErrorCode status = U_ZERO_ERROR;
    const UIDNA* opened =
        uidna_openUTS46(UIDNA_CHECK_BIDI | UIDNA_CHECK_CONTEXTJ | UIDNA_NONTRANSITIONAL_TO_ASCII |
                            UIDNA_NONTRANSITIONAL_TO_UNICODE,
                        &status);
    requireSuccess(status, "ICU has no IDNA data");
    return opened;
  }();
  return instance;
}

struct BreakIteratorDeleter {
  void operator()(UBreakIterator* iterator) const noexcept { ubrk_close(iterator); }
};
using BreakIterator = std::unique_ptr<UBreakIterator, BreakIteratorDeleter>;

/// An iterator keeps a position, so each thread has its own.
UBreakIterator* characterIterator() {
  thread_local const BreakIterator iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    BreakIterator opened(ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status));
    requireSuccess(status, "ICU has no rules for characters");
    return opened;
  }();
  return iterator.get();
}

}  // namespace

std::string lowercased(std::string_view text) {
  // Not ucasemap_utf8ToLower: that has the final-sigma rule. U+0130 is the only code point whose
  // full mapping differs from the simple one.
  constexpr char32_t capitalIWithDotAbove = 0x130;
  std::string lower;
  lower.reserve(text.size() + 4);
  for (std::size_t at = 0; at < text.size();) {
    const auto next = codePointAt(text, at);
    if (next.value == capitalIWithDotAbove) {
      lower += "i\u0307";
    } else {
      appendUTF8(lower, static_cast<char32_t>(u_tolower(static_cast<UChar32>(next.value))));
    }
    at += next.length;
  }
  return lower;
}

bool isWhitespace(char32_t codePoint) noexcept {
  return u_isUWhiteSpace(static_cast<UChar32>(codePoint)) != 0;
}

std::string canonicallyComposed(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const composer = icu::Normalizer2::getNFCInstance(status);
  requireSuccess(status, "ICU has no normalization data");
  std::string composed;
  composed.reserve(text.size());
  icu::StringByteSink<std::string> sink(&composed);
  composer->normalizeUTF8(0, icu::StringPiece(text.data(), static_cast<int32_t>(text.size())), sink,
                          nullptr, status);
  requireSuccess(status, "ICU could not compose a text");
  return composed;
}

std::size_t graphemeLength(std::string_view text, std::size_t offset) {
  UErrorCode status = U_ZERO_ERROR;
  UText storage = UTEXT_INITIALIZER;
  UText* const opened = utext_openUTF8(&storage, text.data() + offset,
                                       static_cast<int64_t>(text.size() - offset), &status);
  UBreakIterator* const iterator = characterIterator();
  ubrk_setUText(iterator, opened, &status);
  requireSuccess(status, "ICU could not read a text");
  const int32_t end = ubrk_next(iterator);
  (void)utext_close(opened);  // Gives nothing back for a text on the stack.
  return end == UBRK_DONE ? text.size() - offset : static_cast<std::size_t>(end);
}

std::optional<std::string> idnaToASCII(std::string_view host) {
  // The platform's URL reader gives up beyond this length.
  constexpr std::size_t codeUnitsMax = 2048;
  if (utf16Length(host) > codeUnitsMax) return std::nullopt;
  std::array<char, codeUnitsMax> ascii;
  UIDNAInfo info = UIDNA_INFO_INITIALIZER;
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length =
      uidna_nameToASCII_UTF8(uts46(), host.data(), static_cast<int32_t>(host.size()), ascii.data(),
                             static_cast<int32_t>(ascii.size()), &info, &status);
  if (U_FAILURE(status) || info.errors != 0 || length <= 0) return std::nullopt;
  return std::string(ascii.data(), static_cast<std::size_t>(length));
}

}  // namespace stillow::core::text::platform
