/// StillowCore's text rules over ICU.
#include <array>
#include <string>

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/uidna.h>

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

}  // namespace

char32_t lowercased(char32_t codePoint) noexcept {
  return static_cast<char32_t>(u_tolower(static_cast<UChar32>(codePoint)));
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

/// The rules of UAX #29 that look at no more than the two beside the place, in their order.
bool areSeparateCharacters(char32_t left, char32_t right) noexcept {
  const auto kindOf = [](char32_t codePoint) {
    return u_getIntPropertyValue(static_cast<UChar32>(codePoint), UCHAR_GRAPHEME_CLUSTER_BREAK);
  };
  const auto isControl = [](int32_t kind) {
    return kind == U_GCB_CONTROL || kind == U_GCB_CR || kind == U_GCB_LF;
  };
  const int32_t before = kindOf(left);
  const int32_t after = kindOf(right);
  if (before == U_GCB_CR && after == U_GCB_LF) return false;
  if (isControl(before) || isControl(after)) return true;
  const bool isVowel = after == U_GCB_V;
  const bool isTrail = after == U_GCB_T;
  const bool isSyllable = after == U_GCB_LV || after == U_GCB_LVT;
  if (before == U_GCB_L && (after == U_GCB_L || isVowel || isSyllable)) return false;
  if ((before == U_GCB_LV || before == U_GCB_V) && (isVowel || isTrail)) return false;
  if ((before == U_GCB_LVT || before == U_GCB_T) && isTrail) return false;
  if (after == U_GCB_EXTEND || after == U_GCB_ZWJ || after == U_GCB_SPACING_MARK) return false;
  if (before == U_GCB_PREPEND) return false;
  return before != U_GCB_REGIONAL_INDICATOR || after != U_GCB_REGIONAL_INDICATOR;
}

std::optional<std::string> idnaToASCII(std::string_view host) {
  // The platform's URL reader gives up beyond this length.
  constexpr std::size_t codeUnitsMax = 2048;
  // No code point takes more units of UTF-16 than bytes.
  if (host.size() > codeUnitsMax && utf16Length(host) > codeUnitsMax) return std::nullopt;
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
