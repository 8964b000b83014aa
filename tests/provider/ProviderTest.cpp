#include "provider/ProviderTest.h"

#include <stdexcept>

#include "platform/Log.h"

namespace mirel {

void PrintTo(const Text& text, std::ostream* out) {
  *out << (text.isNull() ? "null" : '"' + printableLine(text.toUtf8()) + '"');
}

}  // namespace mirel

namespace mirel::test {

Text reader() { return Text{u"Reader A 00"}; }

void ProviderTest::newProvider() {
  observer->events.clear();
  provider = std::make_shared<CryptTKitSProvider>(services());
}

void ProviderTest::useModule(const char* path) {
  otherHomes_.push_back(std::make_unique<ModuleHome>(path));
  user = std::make_shared<FakeUserDirectory>("alice", otherHomes_.back()->home());
  newProvider();
}

void ProviderTest::init() {
  ASSERT_EQ(provider->initWithMirelCTKFramwork(), provider);
  script.forgetCalls();
  log->allLines.clear();
}

void ProviderTest::openSession() {
  ASSERT_NO_FATAL_FAILURE(init());
  ASSERT_EQ(provider->openTKSmartCardTokenSession(reader()), kCardSession);
  script.forgetCalls();
  leavesOpen({kCardSession});
}

void ProviderTest::expectUsable() {
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

void ProviderTest::failEachCall(CK_RV code, std::size_t numCalls,
                                const std::function<void(FailPoint&)>& round) {
  forEachFailingCall(script, code, numCalls, round, [this] { expectUsable(); });
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

}  // namespace mirel::test
