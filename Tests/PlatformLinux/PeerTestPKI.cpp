#include "PeerTestPKI.hpp"

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::platform::test {
namespace {

using core::require;

template <auto function>
struct Freeing {
  template <class T>
  void operator()(T* object) const noexcept {
    function(object);
  }
};
using Stream = std::unique_ptr<BIO, Freeing<BIO_free_all>>;

std::string contentOf(BIO& stream) {
  char* bytes = nullptr;
  const auto length = BIO_get_mem_data(&stream, &bytes);
  return {bytes, static_cast<std::size_t>(length)};
}

void addExtension(X509& certificate, X509& issuer, int type, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, &issuer, &certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, Freeing<X509_EXTENSION_free>> extension(
      X509V3_EXT_conf_nid(nullptr, &context, type, value));
  require(extension && X509_add_ext(&certificate, extension.get(), -1) == 1, "extension");
}

void addName(X509_NAME& name, const char* field, const std::string& value) {
  require(X509_NAME_add_entry_by_txt(&name, field, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(value.data()),
                                     static_cast<int>(value.size()), -1, 0) == 1,
          "name");
}

}  // namespace

std::string KeyPair::pem() const {
  const Stream output(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_X509(output.get(), certificate.get()) == 1, "PEM");
  return contentOf(*output);
}

KeyPair makeKeyPair(const CertificateTraits& traits, const KeyPair* issuer) {
  KeyPair pair{{traits.isWeak ? EVP_RSA_gen(1024) : EVP_EC_gen("P-256"), &EVP_PKEY_free},
               {X509_new(), &X509_free}};
  require(pair.key != nullptr && pair.certificate != nullptr, "key");
  X509& certificate = *pair.certificate;
  static long serial = 0;
  require(X509_set_version(&certificate, X509_VERSION_3) == 1, "version");
  require(ASN1_INTEGER_set(X509_get_serialNumber(&certificate), ++serial) == 1, "serial");
  require(ASN1_TIME_set(X509_getm_notBefore(&certificate), traits.notBefore) != nullptr, "date");
  require(ASN1_TIME_set(X509_getm_notAfter(&certificate), traits.notAfter) != nullptr, "date");
  auto* name = X509_get_subject_name(&certificate);
  addName(*name, "CN", traits.commonName);
  for (const auto& unit : traits.organizationalUnits) addName(*name, "OU", unit);
  require(X509_set_pubkey(&certificate, pair.key.get()) == 1, "public key");

  const KeyPair& authority = issuer == nullptr ? pair : *issuer;
  require(
      X509_set_issuer_name(&certificate, X509_get_subject_name(authority.certificate.get())) == 1,
      "issuer");
  X509& issuing = *authority.certificate;
  addExtension(certificate, issuing, NID_basic_constraints,
               traits.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(
      certificate, issuing, NID_key_usage,
      traits.isAuthority ? "critical,keyCertSign,digitalSignature" : "critical,digitalSignature");
  if (!traits.isAuthority) {
    addExtension(certificate, issuing, NID_ext_key_usage,
                 traits.isForSigningCode ? "codeSigning" : "serverAuth");
  }
  addExtension(certificate, issuing, NID_subject_key_identifier, "hash");
  require(X509_sign(&certificate, authority.key.get(), EVP_sha256()) > 0, "signature");
  return pair;
}

KeyPair makeAuthority(std::string commonName) {
  return makeKeyPair({.commonName = std::move(commonName), .isAuthority = true});
}

KeyPair makeSigner(const KeyPair& authority, std::string organizationalUnit) {
  return makeKeyPair({.organizationalUnits = {std::move(organizationalUnit)}}, &authority);
}

std::string sign(std::string_view content, const SignatureTraits& traits) {
  unsigned flags = CMS_BINARY | CMS_NOSMIMECAP;
  if (traits.isDetached) flags |= CMS_DETACHED;
  const std::unique_ptr<CMS_ContentInfo, Freeing<CMS_ContentInfo_free>> message(
      CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
  require(message != nullptr, "message");
  for (const auto* signer : traits.signers) {
    // The library adds the present time to whatever attributes there are, so "no time" is "none".
    auto* info = CMS_add1_signer(message.get(), signer->certificate.get(), signer->key.get(),
                                 EVP_sha256(), flags | (traits.madeAt ? 0U : CMS_NOATTR));
    require(info != nullptr, "signer");
    if (!traits.madeAt) continue;
    const std::unique_ptr<ASN1_TIME, Freeing<ASN1_TIME_free>> time(
        ASN1_TIME_set(nullptr, *traits.madeAt));
    require(CMS_signed_add1_attr_by_NID(info, NID_pkcs9_signingTime, ASN1_STRING_type(time.get()),
                                        time.get(), -1) == 1,
            "signing time");
  }
  for (const auto* certificate : traits.intermediates) {
    require(CMS_add1_cert(message.get(), certificate->certificate.get()) == 1, "certificate");
  }
  const Stream input(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  require(CMS_final(message.get(), input.get(), nullptr, flags) == 1, "final");
  const Stream output(BIO_new(BIO_s_mem()));
  require(i2d_CMS_bio(output.get(), message.get()) == 1, "DER");
  return contentOf(*output);
}

std::string sign(std::string_view content, const KeyPair& signer) {
  return sign(content, SignatureTraits{.signers = {&signer}});
}

CodeStatement statementOf(const std::string& path, std::string identifier) {
  const auto content = readFile(path);
  CodeStatement statement{std::move(identifier), content.size(), {}};
  require(EVP_Digest(content.data(), content.size(), statement.sha256.data(), nullptr, EVP_sha256(),
                     nullptr) == 1,
          "digest");
  return statement;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  require(file.good(), "the file of a test cannot be read");
  return std::move(content).str();
}

void writeFile(const std::string& path, std::string_view content, unsigned mode) {
  int file = -1;
  // A program that has ended keeps its file busy until the kernel has let go of its memory.
  for (int tries = 0; tries < 10'000; ++tries) {
    file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (file >= 0 || errno != ETXTBSY) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  require(file >= 0, "the file of a test cannot be opened");
  require(::write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
          "the file of a test cannot be written");
  require(::close(file) == 0, "the file of a test cannot be closed");
}

}  // namespace stillow::platform::test
