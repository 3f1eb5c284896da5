#include "PlatformLinuxPeer/CodeSignature.hpp"

#include <ctime>
#include <memory>
#include <optional>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "PlatformLinuxPeer/LogText.hpp"

namespace stillow::platform {
namespace {

template <auto function>
struct Freeing {
  template <class T>
  void operator()(T* object) const noexcept {
    function(object);
  }
};
using ContentInfo = std::unique_ptr<CMS_ContentInfo, Freeing<CMS_ContentInfo_free>>;
using Stream = std::unique_ptr<BIO, Freeing<BIO_free_all>>;
using Store = std::unique_ptr<X509_STORE, Freeing<X509_STORE_free>>;

/// Certificates between the one that signed and the anchor.
constexpr int intermediatesMax = 4;
/// OpenSSL's level for 112 bits of security: no SHA-1, no short RSA keys in the chain.
constexpr int securityLevel = 2;

/// The most telling of OpenSSL's queued errors; empties the queue.
std::string takeLibraryError() {
  const char* detail = nullptr;
  int flags = 0;
  const auto code = ERR_peek_last_error_data(&detail, &flags);
  const char* reason = ERR_reason_error_string(code);
  std::string text = reason == nullptr ? "unknown error" : reason;
  if ((flags & ERR_TXT_STRING) != 0 && detail != nullptr && *detail != '\0') {
    text += " (" + std::string(detail) + ")";
  }
  ERR_clear_error();
  return text;
}

ContentInfo parse(std::string_view signature) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(signature.data());
  const auto* position = bytes;
  ContentInfo message(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(signature.size())));
  if (position != bytes + signature.size()) return {};
  return message;
}

/// When the signer says that the signature was made: an attribute under the signature itself.
std::optional<std::time_t> signingTime(const CMS_SignerInfo& signer) {
  constexpr int exactlyOnce = -3;
  auto* type = OBJ_nid2obj(NID_pkcs9_signingTime);
  const void* value = CMS_signed_get0_data_by_OBJ(&signer, type, exactlyOnce, V_ASN1_UTCTIME);
  if (value == nullptr) {
    value = CMS_signed_get0_data_by_OBJ(&signer, type, exactlyOnce, V_ASN1_GENERALIZEDTIME);
  }
  std::tm calendar{};
  if (value == nullptr || ASN1_TIME_to_tm(static_cast<const ASN1_TIME*>(value), &calendar) != 1) {
    return {};
  }
  return ::timegm(&calendar);
}

Store storeWith(const CodeSigningAnchor& anchor, std::time_t validAt) {
  Store store(X509_STORE_new());
  // The library's own purposes are about mail and TLS; what the leaf is for is checked by hand.
  const bool isReady = store && X509_STORE_add_cert(store.get(), anchor.certificate()) == 1 &&
                       X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY) == 1 &&
                       X509_STORE_set_depth(store.get(), intermediatesMax) == 1;
  if (!isReady) return {};
  auto* parameters = X509_STORE_get0_param(store.get());
  X509_VERIFY_PARAM_set_time(parameters, validAt);
  X509_VERIFY_PARAM_set_auth_level(parameters, securityLevel);
  return store;
}

std::optional<std::string> onlyOrganizationalUnit(X509& certificate) {
  const auto* subject = X509_get_subject_name(&certificate);
  const int first = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
  if (first < 0 || X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, first) >= 0) {
    return {};
  }
  unsigned char* bytes = nullptr;
  const int length =
      ASN1_STRING_to_UTF8(&bytes, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, first)));
  if (length < 0) return {};
  std::string unit(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  if (unit.empty()) return {};
  return unit;
}

bool isMadeForSigningCode(X509& certificate) {
  return (X509_get_extension_flags(&certificate) & EXFLAG_XKUSAGE) != 0 &&
         (X509_get_extended_key_usage(&certificate) & XKU_CODE_SIGN) != 0;
}

std::expected<VerifiedCodeStatement, std::string> verify(std::string_view signature,
                                                         const CodeSigningAnchor& anchor) {
  const auto message = parse(signature);
  if (!message || OBJ_obj2nid(CMS_get0_type(message.get())) != NID_pkcs7_signed) {
    return std::unexpected("is not a CMS signature");
  }
  auto** content = CMS_get0_content(message.get());
  if (content == nullptr || *content == nullptr) return std::unexpected("holds no statement");
  const auto* signers = CMS_get0_SignerInfos(message.get());
  if (sk_CMS_SignerInfo_num(signers) != 1)
    return std::unexpected("does not have exactly one signer");
  const auto madeAt = signingTime(*sk_CMS_SignerInfo_value(signers, 0));
  if (!madeAt) return std::unexpected("does not say when it was made");

  const auto store = storeWith(anchor, *madeAt);
  const Stream output(BIO_new(BIO_s_mem()));
  if (!store || !output) return std::unexpected("could not be verified for want of memory");
  if (CMS_verify(message.get(), nullptr, store.get(), nullptr, output.get(), CMS_BINARY) != 1) {
    return std::unexpected("does not hold: " + takeLibraryError());
  }

  auto* certificates = CMS_get0_signers(message.get());
  X509* leaf = sk_X509_num(certificates) == 1 ? sk_X509_value(certificates, 0) : nullptr;
  auto unit = leaf == nullptr ? std::nullopt : onlyOrganizationalUnit(*leaf);
  const bool isForCode = leaf != nullptr && isMadeForSigningCode(*leaf);
  sk_X509_free(certificates);
  if (!isForCode)
    return std::unexpected("was made with a certificate that is not for signing code");
  if (!unit)
    return std::unexpected("was made with a certificate that does not name exactly one team");

  char* bytes = nullptr;
  const auto length = BIO_get_mem_data(output.get(), &bytes);
  auto statement = CodeStatement::parse({bytes, static_cast<std::size_t>(length)});
  if (!statement) return std::unexpected("is over something else than a code statement");
  return VerifiedCodeStatement{std::move(*statement), std::move(*unit)};
}

}  // namespace

std::expected<VerifiedCodeStatement, std::string> verifyCodeSignature(
    std::string_view signature, const CodeSigningAnchor& anchor) {
  // Errors are queued per thread, and what somebody else left there is not ours to report.
  ERR_clear_error();
  auto result = verify(signature, anchor);
  ERR_clear_error();
  return result;
}

}  // namespace stillow::platform
