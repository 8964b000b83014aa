#pragma once

#include <openssl/evp.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

namespace mirel::cardmaker {

struct FreeKey {
  void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeKey>;

/// Key pairs, one for each type. All objects of a type share it: generating RSA keys is what would
/// take the time.
class KeyStore {
 public:
  /// `folder`: where key pairs are kept from one run to the next; empty: nowhere.
  explicit KeyStore(std::filesystem::path folder) : folder_{std::move(folder)} {}

  /// The key pair of a type, ours: "rsa" with a number of bits, "p256" or "p384".
  /// Throws std::invalid_argument for another, std::runtime_error when the key cannot be made.
  [[nodiscard]] EVP_PKEY* pair(const std::string& type);

 private:
  std::filesystem::path folder_;
  std::map<std::string, Key> pairs_;
};

}  // namespace mirel::cardmaker
