#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/Result.h"

namespace mirel {

/// A PKCS #11 URI (RFC 7512) that names a key: "pkcs11:id=%01;object=Signature". Values are bytes, with the
/// percent-encoding taken off; one that is not there leaves all possibilities open.
struct Pkcs11Uri {
  enum class Type { kPublicKey, kPrivateKey, kCertificate, kSecretKey, kData };

  std::optional<std::string> id;      ///< CKA_ID
  std::optional<std::string> object;  ///< CKA_LABEL
  std::optional<Type> type;           ///< CKA_CLASS
  std::optional<std::string> token;   ///< the label of the token
  std::optional<std::string> serial;
  std::optional<std::string> manufacturer;  ///< of the token
  std::optional<std::string> model;
  std::optional<std::uint64_t> slotID;
  std::optional<std::string> slotDescription;
};

/// True for a text that begins as such a URI, in whatever case (RFC 3986, section 3.1).
[[nodiscard]] bool isPkcs11Uri(std::string_view text) noexcept;

/// Reads a text that begins so, by the grammar of RFC 7512, section 2.3: what has to be percent-encoded must
/// be, and an attribute is there once. kBadInput for all else, and for what names no key here: attributes of
/// the library, of vendors, and of the query. The failure never shows a value, which may be a PIN.
[[nodiscard]] Result<Pkcs11Uri> parsePkcs11Uri(std::string_view text);

}  // namespace mirel
