#include "platform/PublicKey.h"

#include <openssl/bn.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>

#include "OpenSslErrors.h"

namespace mirel {
namespace {

using KeyHolder = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using ContextHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

constexpr std::size_t kLongestNumbers = 132;  // bytes, two of P-521

/// Sets the padding and hash that the name of the algorithm asks for.
bool configure(EVP_PKEY_CTX* context, const EVP_PKEY* key, SecKeyAlgorithm algorithm) {
  const std::string_view name = nameOf(algorithm);
  const auto has = [&](std::string_view part) { return name.find(part) != std::string_view::npos; };
  const int kind = EVP_PKEY_base_id(key);
  const bool fits = (kind == EVP_PKEY_RSA && name.starts_with("kSecKeyAlgorithmRSASignature")) ||
                    (kind == EVP_PKEY_EC && name.starts_with("kSecKeyAlgorithmECDSASignature"));
  if (!fits) return false;
  if (kind == EVP_PKEY_RSA) {
    const int padding = has("PSS")        ? RSA_PKCS1_PSS_PADDING
                        : has("PKCS1v15") ? RSA_PKCS1_PADDING
                                          : RSA_NO_PADDING;
    if (EVP_PKEY_CTX_set_rsa_padding(context, padding) != 1) return false;
  }
  const auto hash = hashOf(algorithm);
  if (!hash) return true;
  const EVP_MD* algorithmOfHash = EVP_get_digestbyname(std::string{factsOf(*hash).name}.c_str());
  if (EVP_PKEY_CTX_set_signature_md(context, algorithmOfHash) != 1) return false;
  return !has("PSS") || EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1;
}

/// The two numbers of equal length (RFC 4754, section 7) as OpenSSL wants them, a DER sequence; empty when
/// they are none.
ByteVector sequenceOf(std::span<const std::uint8_t> numbers) {
  if (numbers.empty() || numbers.size() % 2 != 0 || numbers.size() > kLongestNumbers) return {};
  const auto half = static_cast<int>(numbers.size() / 2);
  const std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature{ECDSA_SIG_new(), &ECDSA_SIG_free};
  BIGNUM* r = BN_bin2bn(numbers.data(), half, nullptr);
  BIGNUM* s = BN_bin2bn(numbers.data() + half, half, nullptr);
  if (!signature || !r || !s || ECDSA_SIG_set0(signature.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return {};
  }
  ByteVector der(static_cast<std::size_t>(std::max(i2d_ECDSA_SIG(signature.get(), nullptr), 0)));
  unsigned char* next = der.data();
  (void)i2d_ECDSA_SIG(signature.get(), &next);
  return der;
}

class OpenSslPublicKey final : public PublicKey {
 public:
  explicit OpenSslPublicKey(KeyHolder key) noexcept : key_{std::move(key)} {}

  [[nodiscard]] bool verifies(SecKeyAlgorithm algorithm, std::span<const std::uint8_t> data,
                              std::span<const std::uint8_t> signature) const noexcept override {
    const ErrorMark mark;
    ByteVector converted;
    if (algorithm == SecKeyAlgorithm::kSecKeyAlgorithmECDSASignatureRFC4754) {
      converted = sequenceOf(signature);
      signature = converted;
    }
    const ContextHolder context{EVP_PKEY_CTX_new(key_.get(), nullptr), &EVP_PKEY_CTX_free};
    return context && EVP_PKEY_verify_init(context.get()) == 1 &&
           configure(context.get(), key_.get(), algorithm) &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
  }

  [[nodiscard]] ByteVector recoveredBlock(std::span<const std::uint8_t> signature) const noexcept override {
    const ErrorMark mark;
    const ContextHolder context{EVP_PKEY_CTX_new(key_.get(), nullptr), &EVP_PKEY_CTX_free};
    std::size_t size = static_cast<std::size_t>(std::max(EVP_PKEY_get_size(key_.get()), 0));
    ByteVector block(size);
    const bool recovered =
        context && signature.size() == size && EVP_PKEY_verify_recover_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1 &&
        EVP_PKEY_verify_recover(context.get(), block.data(), &size, signature.data(), signature.size()) == 1;
    block.resize(recovered ? size : 0);
    return block;
  }

 private:
  KeyHolder key_;
};

}  // namespace

std::unique_ptr<PublicKey> publicKeyOfCertificate(std::span<const std::uint8_t> der) noexcept {
  const ErrorMark mark;
  if (der.size() > LONG_MAX) return nullptr;
  const unsigned char* next = der.data();
  const std::unique_ptr<X509, decltype(&X509_free)> certificate{
      d2i_X509(nullptr, &next, static_cast<long>(der.size())), &X509_free};
  KeyHolder key{certificate ? X509_get_pubkey(certificate.get()) : nullptr, &EVP_PKEY_free};
  return key ? std::make_unique<OpenSslPublicKey>(std::move(key)) : nullptr;
}

}  // namespace mirel
