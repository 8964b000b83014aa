// The functions that work on a caller's memory are marked as old, and there are no others.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "include/CommonCrypto/CommonDigest.h"

#include <openssl/sha.h>

#include <new>

namespace {

template <typename State>
State* stateIn(DoubleDigest* digest) {
  static_assert(sizeof(State) <= sizeof(digest->state));
  return std::launder(reinterpret_cast<State*>(digest->state));
}

template <typename State>
State* newStateIn(DoubleDigest* digest) {
  return new (digest->state) State{};
}

}  // namespace

#define DOUBLE_DEFINE_DIGEST(name, context, State)                               \
  int CC_##name##_Init(context* c) { return name##_Init(newStateIn<State>(c)); } \
  int CC_##name##_Update(context* c, const void* data, CC_LONG length) {         \
    return name##_Update(stateIn<State>(c), data, length);                       \
  }                                                                              \
  int CC_##name##_Final(unsigned char* digest, context* c) { return name##_Final(digest, stateIn<State>(c)); }
DOUBLE_DEFINE_DIGEST(SHA1, CC_SHA1_CTX, SHA_CTX)
DOUBLE_DEFINE_DIGEST(SHA224, CC_SHA256_CTX, SHA256_CTX)
DOUBLE_DEFINE_DIGEST(SHA256, CC_SHA256_CTX, SHA256_CTX)
DOUBLE_DEFINE_DIGEST(SHA384, CC_SHA512_CTX, SHA512_CTX)
DOUBLE_DEFINE_DIGEST(SHA512, CC_SHA512_CTX, SHA512_CTX)
