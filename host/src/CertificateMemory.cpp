#include "CertificateMemory.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

namespace mirel {
namespace {

class KnownCertificate final : public SecCertificate {
 public:
  explicit KnownCertificate(const SecCertificate& certificate)
      : data_{certificate.data()},
        keyUsage_{certificate.keyUsage()},
        subject_{certificate.subject()},
        notAfter_{certificate.notAfter()},
        keyType_{certificate.keyType()},
        keySizeInBits_{certificate.keySizeInBits()} {}

  [[nodiscard]] Bytes data() const noexcept override { return data_; }
  [[nodiscard]] std::optional<std::int32_t> keyUsage() const noexcept override { return keyUsage_; }
  [[nodiscard]] Text subject() const noexcept override { return subject_; }
  [[nodiscard]] Text notAfter() const noexcept override { return notAfter_; }
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return keyType_; }
  [[nodiscard]] int keySizeInBits() const noexcept override { return keySizeInBits_; }

 private:
  Bytes data_;
  std::optional<std::int32_t> keyUsage_;
  Text subject_;
  Text notAfter_;
  CertificateKeyType keyType_;
  int keySizeInBits_;
};

class ParserWithMemory final : public CertificateParser {
 public:
  explicit ParserWithMemory(std::shared_ptr<CertificateParser> next) : next_{std::move(next)} {}

  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    if (der.isNull()) return next_->createWithData(der);
    const auto [entry, isNew] =
        known_.try_emplace(std::string{der.view().begin(), der.view().end()}, nullptr);
    if (isNew) {
      if (const auto made = next_->createWithData(der))
        entry->second = std::make_shared<KnownCertificate>(*made);
    }
    return entry->second;
  }

 private:
  std::shared_ptr<CertificateParser> next_;
  std::unordered_map<std::string, std::shared_ptr<SecCertificate>> known_;  // by their encoding
};

}  // namespace

std::shared_ptr<CertificateParser> parserWithMemory(std::shared_ptr<CertificateParser> next) {
  return std::make_shared<ParserWithMemory>(std::move(next));
}

}  // namespace mirel
