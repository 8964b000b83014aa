#include "platform/Digest.h"

#import <CommonCrypto/CommonDigest.h>

#include <algorithm>
#include <array>
#include <limits>

namespace mirel {
namespace {

/// One of the families of functions, which differ in nothing but their names.
struct Functions {
  int (*init)(void* context);
  int (*update)(void* context, const void* data, CC_LONG length);
  int (*final)(unsigned char* digest, void* context);
};

template <typename Context, auto Init, auto Update, auto Final>
constexpr Functions kFunctions{
    [](void* context) { return Init(static_cast<Context*>(context)); },
    [](void* context, const void* data, CC_LONG length) {
      return Update(static_cast<Context*>(context), data, length);
    },
    [](unsigned char* digest, void* context) { return Final(digest, static_cast<Context*>(context)); }};

/// In the order of Hash. SHA-224 and SHA-384 work on the contexts of their longer sisters.
constexpr std::array<const Functions*, 5> kFamilies{
    &kFunctions<CC_SHA1_CTX, CC_SHA1_Init, CC_SHA1_Update, CC_SHA1_Final>,
    &kFunctions<CC_SHA256_CTX, CC_SHA224_Init, CC_SHA224_Update, CC_SHA224_Final>,
    &kFunctions<CC_SHA256_CTX, CC_SHA256_Init, CC_SHA256_Update, CC_SHA256_Final>,
    &kFunctions<CC_SHA512_CTX, CC_SHA384_Init, CC_SHA384_Update, CC_SHA384_Final>,
    &kFunctions<CC_SHA512_CTX, CC_SHA512_Init, CC_SHA512_Update, CC_SHA512_Final>,
};

union Context {
  CC_SHA1_CTX sha1;
  CC_SHA256_CTX sha256;
  CC_SHA512_CTX sha512;
};

}  // namespace

struct Digest::State {
  explicit State(Hash wanted) noexcept
      : functions{kFamilies[static_cast<std::size_t>(wanted)]}, size{factsOf(wanted).size} {}

  const Functions* functions;
  std::size_t size;  // bytes
  Context context{};
};

// These functions cannot fail: their results are 1, always.

Digest::Digest(Hash hash) : state_{std::make_unique<State>(hash)} {
  (void)state_->functions->init(&state_->context);
}

Digest::~Digest() = default;

void Digest::update(std::span<const std::uint8_t> data) {
  while (!data.empty()) {
    const auto part = data.first(std::min<std::size_t>(data.size(), std::numeric_limits<CC_LONG>::max()));
    (void)state_->functions->update(&state_->context, part.data(), static_cast<CC_LONG>(part.size()));
    data = data.subspan(part.size());
  }
}

ByteVector Digest::finish() {
  ByteVector digest(state_->size);
  (void)state_->functions->final(digest.data(), &state_->context);
  return digest;
}

}  // namespace mirel
