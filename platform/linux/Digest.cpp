#include "platform/Digest.h"

#include <openssl/evp.h>

#include <stdexcept>
#include <string>

namespace mirel {
namespace {

void require(int result) {
  if (result != 1) throw std::runtime_error{"OpenSSL cannot compute a digest"};
}

}  // namespace

struct Digest::State {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

Digest::Digest(Hash hash) : state_{std::make_unique<State>()} {
  // OpenSSL knows the hashes by the same names.
  const EVP_MD* algorithm = EVP_get_digestbyname(std::string{factsOf(hash).name}.c_str());
  require(EVP_DigestInit_ex(state_->context.get(), algorithm, nullptr));
}

Digest::~Digest() = default;

void Digest::update(std::span<const std::uint8_t> data) {
  require(EVP_DigestUpdate(state_->context.get(), data.data(), data.size()));
}

ByteVector Digest::finish() {
  ByteVector digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  require(EVP_DigestFinal_ex(state_->context.get(), digest.data(), &size));
  digest.resize(size);
  return digest;
}

}  // namespace mirel
