/// Making and releasing a provider.

#include "provider/ProviderTest.h"
#include "support/Threads.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// For tests of a provider that may be past use.
class ProviderLifecycle : public ProviderTest {
 protected:
  /// The process must be none the worse for what happened: the next provider works.
  void expectUsableAgain() override {
    script.reset();
    newProvider();
    ASSERT_NO_FATAL_FAILURE(init());
    ProviderTest::expectUsableAgain();
  }
  std::shared_ptr<MirelCTKFramework> giveFreshFramework() {
    const auto fresh = std::make_shared<MirelCTKFramework>(services());
    provider->setPCTKFramework(fresh);
    return fresh;
  }
};

// ---- initWithMirelCTKFramwork ----

using ProviderInit = ProviderLifecycle;

TEST_F(ProviderInit, OpensAFrameworksServiceAndReturnsTheProvider) {
  EXPECT_FALSE(provider->pCTKFramework());
  EXPECT_EQ(provider->initWithMirelCTKFramwork(), provider);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()", "C_Initialize(null)"));
  EXPECT_EQ(log->allLines.size(), 1U) << "the bridge's line";
  newProvider();
  const auto own = giveFreshFramework();
  EXPECT_EQ(provider->initWithMirelCTKFramwork(), provider);
  EXPECT_EQ(provider->pCTKFramework(), own) << "one that is there is opened";
  EXPECT_TRUE(own->p11Bridge());
}

TEST_F(ProviderInit, FailsTheSecondTimeAndLeavesTheModuleAsItIs) {
  init();
  const auto first = provider->pCTKFramework();
  EXPECT_EQ(provider->initWithMirelCTKFramwork(), nullptr);
  EXPECT_EQ(provider->pCTKFramework(), first);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  ProviderTest::expectUsableAgain();
}

TEST_F(ProviderInit, FailsWithEitherCallAndLeavesNoFrameworkBehindWhenItIsDropped) {
  failEachCall(2, [&](FailPoint& point) {
    newProvider();
    point.arm();
    const bool succeeded = provider->initWithMirelCTKFramwork() != nullptr;
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(script.countOf("C_Finalize"), 0U);
    const std::weak_ptr<MirelCTKFramework> made = provider->pCTKFramework();
    EXPECT_FALSE(made.expired());
    EXPECT_FALSE(provider->releaseWithMirelCTKFramework()) << "it is opened once only";
    EXPECT_EQ(provider->pCTKFramework(), made.lock());
    provider.reset();
    EXPECT_TRUE(made.expired());
  });
}

// ---- releaseWithMirelCTKFramework ----

using ProviderRelease = ProviderLifecycle;

TEST_F(ProviderRelease, FailsAfterASuccessfulInitAndKeepsTheFramework) {
  openSession();
  const auto kept = provider->pCTKFramework();
  EXPECT_FALSE(provider->releaseWithMirelCTKFramework());
  EXPECT_EQ(provider->pCTKFramework(), kept);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_EQ(record().hSession(), kCardSession);
}

TEST_F(ProviderRelease, DropsAFrameworkWhoseServiceCouldBeClosedAndSucceedsWithoutOne) {
  const std::weak_ptr<MirelCTKFramework> dropped = giveFreshFramework();
  EXPECT_TRUE(provider->releaseWithMirelCTKFramework());
  EXPECT_TRUE(dropped.expired());
  EXPECT_FALSE(provider->pCTKFramework());
  EXPECT_EQ(script.countOf("C_Finalize"), 1U);
  EXPECT_TRUE(provider->releaseWithMirelCTKFramework());
  EXPECT_EQ(script.countOf("C_Finalize"), 1U);
  init();
  ProviderTest::expectUsableAgain();
}

TEST_F(ProviderRelease, FailsWithTheFirstTwoCallsAndIgnoresTheThird) {
  failEachCall(3, [&](FailPoint& point) {
    newProvider();
    const auto fresh = giveFreshFramework();
    point.arm();
    const bool released = provider->releaseWithMirelCTKFramework();
    EXPECT_EQ(released, point.n() >= 2);
    EXPECT_EQ(provider->pCTKFramework(), released ? nullptr : fresh);
  });
}

// ---- The object itself ----

using ProviderObject = ProviderLifecycle;

TEST_F(ProviderObject, ReleasesItsFrameworkAtItsEndAndClosesNothing) {
  openSession();
  const std::weak_ptr<MirelCTKFramework> owned = provider->pCTKFramework();
  provider.reset();
  EXPECT_TRUE(owned.expired());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
}

TEST_F(ProviderObject, HandsOutWholeFrameworksWhileAnotherThreadReplacesThem) {
  const auto first = giveFreshFramework();
  const auto second = std::make_shared<MirelCTKFramework>(services());
  const auto get = [&] { return provider->pCTKFramework(); };
  const auto set = [&](const auto& given) { provider->setPCTKFramework(given); };
  EXPECT_EQ(numTornReads(first, second, get, set), 0);
}

TEST_F(ProviderObject, FindsNothingWithoutAFrameworkAndLogsTwoOfTheQueries) {
  const auto key = std::make_shared<PKCS11_ASYMKEY_INFO>();
  const auto certificate = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  CryptTKitSProvider::KeyList keys;
  CryptTKitSProvider::CertificateList certificates;
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_FALSE(provider->getTokenPubKeys(reader(), &keys));
  EXPECT_FALSE(provider->getTokenCerts(reader(), &certificates));
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(certificates, IsEmpty());
  EXPECT_EQ(provider->getTokenKeyName(key), Text{u""});
  EXPECT_EQ(provider->getCertName(certificate), Text{u""});
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), nullptr);
  EXPECT_TRUE(provider->getCertData(certificate).isNull());
  EXPECT_TRUE(provider->getPublicKeyValue(key).isNull());
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_TRUE(provider->getSupportedTokenDescription(reader()).isNull());
  EXPECT_EQ(provider->getCertID(certificate), Text{u""});
  EXPECT_THAT(log->allLines, ElementsAre("error: [CryptTKitSProvider: 49] -[CryptTKitSProvider "
                                         "getSupportedTokenDescription:] nil == _pCTKFramework",
                                         "process: [CryptTKitSProvider-143] pCerts.count = 0"));
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
}

}  // namespace
}  // namespace mirel::test
