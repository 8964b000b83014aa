#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/Host.h"
#include "platform/SecKeyAlgorithm.h"

namespace mirel {

/// The algorithm that a person means by `name`, for that operation; nothing when there is none. Taken are the
/// platform's names, with or without their prefix, and those of other standards: JOSE (RFC 7518: "PS256",
/// "RSA-OAEP"), X.509 ("sha256WithRSAEncryption"), PKCS #11 ("SHA256-RSA-PKCS-PSS", with or without "CKM_"),
/// TLS (RFC 8446: "rsa_pss_rsae_sha256"), Java ("SHA256withRSA"). The case of letters, "-", "_" and "/" do
/// not count. A name that leaves open whether a message or its digest is given stands for the message.
[[nodiscard]] std::optional<SecKeyAlgorithm> algorithmNamed(std::string_view name, KeyOperation operation);

/// " (did you mean "name"?)" where the name is near to one that is taken; else nothing.
[[nodiscard]] std::string suggestedAlgorithm(std::string_view name);

/// What `operation` does with a key of that type where no algorithm is named.
[[nodiscard]] SecKeyAlgorithm defaultAlgorithm(KeyOperation operation, CertificateKeyType type) noexcept;

}  // namespace mirel
