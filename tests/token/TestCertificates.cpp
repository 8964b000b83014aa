#include "token/TestCertificates.h"

#include "platform/CertificateBuilder.h"
#include "support/KeptKeys.h"

namespace mirel::test {
namespace {

EVP_PKEY* keyOf(TestKey kind) {
  switch (kind) {
    case TestKey::kRsa2048: {
      static const KeyHolder key{keptRsaKey(2048, "certificates")};
      return key.get();
    }
    case TestKey::kEd25519: {
      static const KeyHolder key = makeKey("ED25519");
      return key.get();
    }
    case TestKey::kP256: break;
  }
  static const KeyHolder key = makeEcKey("P-256");
  return key.get();
}

}  // namespace

Value testCertificate(const CertificateRequest& request) {
  const std::vector<NameEntry> name{{"CN", MBSTRING_UTF8, request.commonName}};
  CertificateWish wish{
      .issuer = name, .subject = name, .notAfter = "350102030405Z", .padding = request.padding};
  wish.key = wish.signer = request.owner ? request.owner : keyOf(request.key);
  if (request.keyUsage) wish.keyUsages.push_back(keyUsageOf(*request.keyUsage));
  return makeCertificate(wish);
}

}  // namespace mirel::test
