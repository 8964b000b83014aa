#pragma once

#include <openssl/pem.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace mirel::test {

/// An RSA key of that many bits, the caller's; null when OpenSSL makes none. To make one takes longer than
/// most tests, so it is kept in the build folder: the same `name` (of a file) gives the same key in every run
/// and every program.
[[nodiscard]] inline EVP_PKEY* keptRsaKey(unsigned bits, const std::string& name) {
  using FileHolder = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  const std::string path = MIREL_TEST_KEYS "/rsa-" + std::to_string(bits) + "-" + name + ".pem";
  if (const FileHolder file{std::fopen(path.c_str(), "r"), &std::fclose}; file) {
    if (EVP_PKEY* const kept = PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr)) return kept;
  }
  EVP_PKEY* const key = EVP_RSA_gen(bits);
  if (!key) return nullptr;
  // Several programs may be at it: the last one's key stays, and this run of each goes on with its own.
  const std::string mine = path + "." + std::to_string(getpid());
  bool written = false;
  if (const FileHolder file{std::fopen(mine.c_str(), "w"), &std::fclose}; file) {
    written = PEM_write_PKCS8PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
              std::fflush(file.get()) == 0;
  }
  if (!written || std::rename(mine.c_str(), path.c_str()) != 0) (void)std::remove(mine.c_str());
  return key;
}

}  // namespace mirel::test
