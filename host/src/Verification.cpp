#include "host/Verification.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "Adaptation.h"
#include "Digest.h"
#include "RsaEncoding.h"

namespace mirel {
namespace {

constexpr const char* kPssName =
    "a key with PSS in its name signs by PSS in the card, and that signature is not handed out";
constexpr int kLongestSigningKey = 2048;  // bits

using KeyHolder = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using ContextHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

/// Takes back the errors that OpenSSL records in its lifetime.
class ErrorMark {
 public:
  ErrorMark() noexcept { ERR_set_mark(); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
  ~ErrorMark() { ERR_pop_to_mark(); }
};

KeyHolder publicKeyOf(const Bytes& der) {
  const unsigned char* next = der.view().data();
  const std::unique_ptr<X509, decltype(&X509_free)> certificate{
      d2i_X509(nullptr, &next, static_cast<long>(der.size())), &X509_free};
  return {certificate ? X509_get_pubkey(certificate.get()) : nullptr, &EVP_PKEY_free};
}

const EVP_MD* algorithmOf(Hash hash) { return EVP_get_digestbyname(std::string{factsOf(hash).name}.c_str()); }

/// Sets the padding and hash that the name of the algorithm asks for.
bool configure(EVP_PKEY_CTX* context, const EVP_PKEY* key, SecKeyAlgorithm algorithm) {
  const auto hash = hashOf(algorithm);
  const std::string_view name = nameOf(algorithm);
  const auto has = [&](std::string_view part) { return name.find(part) != std::string_view::npos; };
  if (EVP_PKEY_base_id(key) == EVP_PKEY_RSA) {
    const int padding = has("PSS")        ? RSA_PKCS1_PSS_PADDING
                        : has("PKCS1v15") ? RSA_PKCS1_PADDING
                                          : RSA_NO_PADDING;
    if (EVP_PKEY_CTX_set_rsa_padding(context, padding) != 1) return false;
  }
  if (!hash) return true;
  if (EVP_PKEY_CTX_set_signature_md(context, algorithmOf(*hash)) != 1) return false;
  return !has("PSS") || EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1;
}

bool verifies(EVP_PKEY* key, SecKeyAlgorithm algorithm, const Signature& signature) {
  const ContextHolder context{EVP_PKEY_CTX_new(key, nullptr), &EVP_PKEY_CTX_free};
  if (!context || EVP_PKEY_verify_init(context.get()) != 1 || !configure(context.get(), key, algorithm))
    return false;
  return EVP_PKEY_verify(context.get(), signature.value.view().data(), signature.value.size(),
                         signature.data.view().data(), signature.data.size()) == 1;
}

/// The block that raw RSA with the public key makes of the signature; empty when it cannot.
ByteVector recoveredBlock(EVP_PKEY* key, const Bytes& signature) {
  const ContextHolder context{EVP_PKEY_CTX_new(key, nullptr), &EVP_PKEY_CTX_free};
  std::size_t size = static_cast<std::size_t>(std::max(EVP_PKEY_get_size(key), 0));
  ByteVector block(size);
  const bool recovered = context && EVP_PKEY_verify_recover_init(context.get()) == 1 &&
                         EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1 &&
                         EVP_PKEY_verify_recover(context.get(), block.data(), &size, signature.view().data(),
                                                 signature.size()) == 1;
  block.resize(recovered ? size : 0);
  return block;
}

/// True for zeros with, at the end, exactly the data that PKCS #1 v1.5 should have padded.
bool isUnpadded(const ByteVector& block, SecKeyAlgorithm algorithm, const Bytes& data) {
  const auto hash = hashOf(algorithm);
  const ByteVector wanted =
      hash ? digestInfo(*hash, data.view()) : ByteVector{data.view().begin(), data.view().end()};
  if (block.size() < wanted.size()) return false;
  const auto start = block.end() - static_cast<std::ptrdiff_t>(wanted.size());
  return std::equal(start, block.end(), wanted.begin()) &&
         std::all_of(block.begin(), start, [](std::uint8_t byte) { return byte == 0; });
}

bool allZero(const Bytes& bytes) {
  return std::all_of(bytes.view().begin(), bytes.view().end(), [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

std::string signatureTrouble(const PublishedCertificate& certificate, const PublishedKey& key,
                             SecKeyAlgorithm algorithm, const Signature& signature) {
  const std::string because = signature.cardTrouble.empty() ? "" : " (" + signature.cardTrouble + ")";
  if (signature.value.size() == 0) {
    if (key.keyType != CertificateKeyType::kRSA) {
      return "the signature is empty: only RSA keys sign through this card layer" + because;
    }
    if (key.keySizeInBits > kLongestSigningKey) {
      return "the signature is empty: RSA keys above 2048 bits do not sign through this card layer" + because;
    }
    if (containsIgnoringCase(key.certificateID, u"PSS")) return std::string{kPssName} + because;
    return "the signature is empty" + because;
  }
  const ErrorMark mark;
  const KeyHolder publicKey = publicKeyOf(certificate.data);
  if (!publicKey) return "the public key of the certificate cannot be read";
  if (verifies(publicKey.get(), algorithm, signature)) return {};

  if (allZero(signature.value)) {
    if (!signature.cardTrouble.empty()) return "the signature is all zeros: the card made none" + because;
    if (containsIgnoringCase(key.certificateID, u"PSS")) return kPssName;
    return "the signature is all zeros: the card layer handed none out";
  }
  const bool isPKCS1 = nameOf(algorithm).find("PKCS1v15") != std::string_view::npos;
  if (isPKCS1 && isUnpadded(recoveredBlock(publicKey.get(), signature.value), algorithm, signature.data)) {
    return "the signature does not verify: the module does not pad, so PKCS #1 v1.5 through this card does "
           "not verify; PSS does";
  }
  return "the signature does not verify with the public key of the certificate" + because;
}

}  // namespace mirel
