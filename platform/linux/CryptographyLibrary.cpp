#include "platform/CryptographyLibrary.h"

#include <openssl/crypto.h>

namespace mirel {

std::string cryptographyLibrary() {
  return std::string{"OpenSSL "} + OpenSSL_version(OPENSSL_VERSION_STRING);
}

}  // namespace mirel
