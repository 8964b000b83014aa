#include "Keys.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <stdexcept>

namespace mirel::cardmaker {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

Key generated(const std::string& type) {
  if (type == "p256") return Key{EVP_EC_gen("P-256")};
  if (type == "p384") return Key{EVP_EC_gen("P-384")};
  unsigned bits = 0;
  const bool rsa =
      type.starts_with("rsa") &&
      std::from_chars(type.data() + 3, type.data() + type.size(), bits).ptr == type.data() + type.size();
  if (!rsa || bits == 0) throw std::invalid_argument{"no such type of key: " + type};
  return Key{EVP_RSA_gen(bits)};
}

Key readFrom(const std::filesystem::path& path) {
  const File file{std::fopen(path.c_str(), "rb")};
  return file ? Key{PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr)} : Key{};
}

/// Whole or not at all, and not if another run was faster: all are to use the same key.
void keepIn(const std::filesystem::path& path, EVP_PKEY* key) {
  std::filesystem::create_directories(path.parent_path());
  const std::filesystem::path draft = path.string() + "." + std::to_string(getpid());
  {
    const File file{std::fopen(draft.c_str(), "wb")};
    if (!file || PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
      throw std::runtime_error{"cannot write " + draft.string()};
  }
  std::error_code exists;
  std::filesystem::create_hard_link(draft, path, exists);
  std::filesystem::remove(draft);
}

}  // namespace

EVP_PKEY* KeyStore::pair(const std::string& type) {
  Key& key = pairs_[type];
  if (key) return key.get();
  const std::filesystem::path path = folder_ / (type + ".pem");
  if (!folder_.empty()) key = readFrom(path);
  if (key) return key.get();

  key = generated(type);
  if (!key) throw std::runtime_error{"OpenSSL makes no key of type " + type};
  if (!folder_.empty()) {
    keepIn(path, key.get());
    key = readFrom(path);
    if (!key) throw std::runtime_error{"cannot read " + path.string()};
  }
  return key.get();
}

}  // namespace mirel::cardmaker
