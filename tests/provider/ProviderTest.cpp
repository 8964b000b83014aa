#include "provider/ProviderTest.h"

#include <stdexcept>

namespace mirel::test {

void ProviderTest::init() {
  ASSERT_EQ(provider->initWithMirelCTKFramwork(), provider);
  script.forgetCalls();
  loader->calls.clear();
  log->allLines.clear();
}

void ProviderTest::openSession() {
  ASSERT_NO_FATAL_FAILURE(init());
  ASSERT_EQ(provider->openTKSmartCardTokenSession(reader()), kCardSession);
  script.card().loggedIn = true;
  script.forgetCalls();
  leavesOpen({kCardSession});
}

void ProviderTest::startAnew() {
  script.reset();
  newProvider();
  openSession();
}

void ProviderTest::expectUsableAgain() {
  script.reset();
  script.setInitialised(true);
  EXPECT_EQ(provider->getSupportedTokenDescription(reader()).units().substr(0, 9), u"TESTCARD ");
  // Two sessions were opened and closed for the token information.
  ASSERT_EQ(provider->openTKSmartCardTokenSession(reader()), kFirstSession + 2);
  leavesOpen({kFirstSession + 2});
  const auto certificates = listedCertificates();
  ASSERT_EQ(certificates.size(), 1U);
  EXPECT_EQ(provider->getCertName(certificates.front()), Text{u"cert_MyKey_01"});
  EXPECT_TRUE(provider->getKeyFromCertID(Text{u"01"}));
}

MirelCTKFramework& ProviderTest::framework() const {
  if (!provider->pCTKFramework()) throw std::logic_error{"the provider has no framework"};
  return *provider->pCTKFramework();
}

PKCS11_SERVICE_INFO& ProviderTest::record() const {
  if (!framework().p11ServiceInfo()) throw std::logic_error{"the framework has no record"};
  return *framework().p11ServiceInfo();
}

CryptTKitSProvider::KeyList ProviderTest::listedKeys() {
  CryptTKitSProvider::KeyList keys;
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), &keys));
  return keys;
}

CryptTKitSProvider::CertificateList ProviderTest::listedCertificates() {
  CryptTKitSProvider::CertificateList certificates;
  EXPECT_TRUE(provider->getTokenCerts(reader(), &certificates));
  return certificates;
}

void ProviderTest::useKey(std::size_t modulusLen, std::string_view label, CK_KEY_TYPE type) {
  script.card().objects.clear();
  const Value modulus = patternValue(modulusLen, 0xC5);
  script.addObject(rsaPublicKey(bytesOf("01"), bytesOf(label), modulus).with(CKA_KEY_TYPE, ulongValue(type)));
  script.addObject(rsaPrivateKey(bytesOf("01"), bytesOf(label), modulus));
}

}  // namespace mirel::test
