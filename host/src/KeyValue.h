#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "CardContents.h"
#include "platform/CertificateFields.h"

namespace mirel {

/// What makes a public key that one: its modulus, or its point. Empty where it was not read.
struct KeyValue {
  bool isRsa = false;
  std::span<const std::uint8_t> value;  ///< in the object that it was taken from
};

[[nodiscard]] KeyValue valueOf(const CardObject& publicKey);
[[nodiscard]] KeyValue valueOf(const CertificateFields& certificate);

/// Whether both are of one key. A point may be compressed in one of them.
[[nodiscard]] bool areSame(const KeyValue& a, const KeyValue& b);

/// "an RSA modulus of 128 bytes that ends with c0ffee01": enough to tell two apart.
[[nodiscard]] std::string textOf(const KeyValue& key);

}  // namespace mirel
