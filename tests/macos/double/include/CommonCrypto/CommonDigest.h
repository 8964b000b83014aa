#pragma once

/// The hash functions of the platform. Each returns 1.

#include <cstddef>
#include <cstdint>

typedef std::uint32_t CC_LONG;

/// What OpenSSL keeps of a digest in the making.
struct DoubleDigest {
  alignas(std::max_align_t) unsigned char state[256];
};
struct CC_SHA1_CTX : DoubleDigest {};
struct CC_SHA256_CTX : DoubleDigest {};
struct CC_SHA512_CTX : DoubleDigest {};

#define DOUBLE_DECLARE_DIGEST(name, context)                                       \
  extern "C" int CC_##name##_Init(context* c);                                     \
  extern "C" int CC_##name##_Update(context* c, const void* data, CC_LONG length); \
  extern "C" int CC_##name##_Final(unsigned char* digest, context* c);
DOUBLE_DECLARE_DIGEST(SHA1, CC_SHA1_CTX)
DOUBLE_DECLARE_DIGEST(SHA224, CC_SHA256_CTX)
DOUBLE_DECLARE_DIGEST(SHA256, CC_SHA256_CTX)
DOUBLE_DECLARE_DIGEST(SHA384, CC_SHA512_CTX)
DOUBLE_DECLARE_DIGEST(SHA512, CC_SHA512_CTX)
#undef DOUBLE_DECLARE_DIGEST
