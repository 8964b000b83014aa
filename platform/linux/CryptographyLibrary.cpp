#include "platform/CryptographyLibrary.h"

#include <openssl/crypto.h>

namespace mirel {

std::string cryptographyLibrary() {
  return std::string{"OpenSSL "} + OpenSSL_version(OPENSSL_VERSION_STRING);
}

void leaveCryptographyLibraryToExit() noexcept {
  // When it fails, nothing else is lost than the time.
  (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

}  // namespace mirel
