#pragma once

#include <optional>
#include <string>

#include "host/Pkcs11Uri.h"

namespace mirel::test {

/// What p11-kit reads from a PKCS #11 URI of a key; nothing when it refuses it or knows an attribute not.
[[nodiscard]] std::optional<Pkcs11Uri> readByReference(const std::string& text);

}  // namespace mirel::test
