/// Making and releasing a provider.

#include <thread>

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kLoadFaults[] = {
    "",
    kNotALibrary,
    kModuleWithoutEntry,
    kModuleEntryFails,
    kModuleEntryFailsWild,
    kModuleNullList,
    kModuleSilentEntry,
};

// ---- initWithMirelCTKFramwork ----

/// For tests of a provider that may be past use.
class ProviderLifecycleTest : public ProviderTest {
 protected:
  /// The process must be none the worse for what happened: the next provider works.
  void expectNextOneUsable() {
    script.reset();
    newProvider();
    ASSERT_NO_FATAL_FAILURE(init());
    expectUsable();
  }
};

class ProviderInit : public ProviderLifecycleTest {};

TEST_F(ProviderInit, OpensTheFrameworksServiceAndReturnsTheProvider) {
  EXPECT_FALSE(provider->pCTKFramework());
  EXPECT_EQ(provider->initWithMirelCTKFramwork(), provider);
  EXPECT_TRUE(provider->pCTKFramework());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()", "C_Initialize(null)"));
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList"));
}

TEST_F(ProviderInit, LogsNothingButTheModulesPath) {
  EXPECT_TRUE(provider->initWithMirelCTKFramwork());
  EXPECT_THAT(log->allLines,
              ElementsAre("process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = " + home.modulePath()));
}

TEST_F(ProviderInit, OpensTheFrameworkThatIsThere) {
  const auto own = std::make_shared<MirelCTKFramework>(services());
  provider->setPCTKFramework(own);
  EXPECT_EQ(provider->initWithMirelCTKFramwork(), provider);
  EXPECT_EQ(provider->pCTKFramework(), own);
  EXPECT_TRUE(own->p11Bridge());
}

TEST_F(ProviderInit, FailsTheSecondTimeAndLeavesTheModuleAsItIs) {
  init();
  const auto first = provider->pCTKFramework();
  loader->calls.clear();
  EXPECT_EQ(provider->initWithMirelCTKFramwork(), nullptr);
  EXPECT_EQ(provider->pCTKFramework(), first);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  expectUsable();
}

TEST_F(ProviderInit, FailsWithAModuleThatCannotBeLoadedAndLogsNothingOfItsOwn) {
  for (const char* const fault : kLoadFaults) {
    SCOPED_TRACE(fault);
    useModule(fault);
    log->allLines.clear();
    EXPECT_EQ(provider->initWithMirelCTKFramwork(), nullptr);
    EXPECT_THAT(loader->calls, Not(Contains("close")));
    EXPECT_THAT(log->allLines,
                ElementsAre("process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = " +
                            user->homeOf("alice") + "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib"));
  }
}

TEST_F(ProviderInit, FailsWithEitherCall) {
  const auto round = [&](FailPoint& point) {
    newProvider();
    loader->calls.clear();
    point.arm();
    const auto result = provider->initWithMirelCTKFramwork();
    EXPECT_EQ(result != nullptr, !point.fired());
    EXPECT_EQ(script.countOf("C_Finalize"), 0U);
    EXPECT_THAT(loader->calls, Not(Contains("close")));
  };
  forEachFailingCall(script, CKR_DEVICE_ERROR, 2, round, [&] { expectNextOneUsable(); });
}

TEST_F(ProviderInit, LeavesNoFrameworkBehindWhenTheHalfMadeProviderIsDropped) {
  script.failCallOf("C_Initialize", 0, CKR_GENERAL_ERROR);
  ASSERT_EQ(provider->initWithMirelCTKFramwork(), nullptr);
  const std::weak_ptr<MirelCTKFramework> made = provider->pCTKFramework();
  ASSERT_FALSE(made.expired());
  provider.reset();
  EXPECT_TRUE(made.expired());
}

// ---- releaseWithMirelCTKFramework ----

class ProviderRelease : public ProviderLifecycleTest {};

TEST_F(ProviderRelease, SucceedsWithoutAFramework) {
  EXPECT_TRUE(provider->releaseWithMirelCTKFramework());
  EXPECT_FALSE(provider->pCTKFramework());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(ProviderRelease, FailsAfterASuccessfulInitAndKeepsTheFramework) {
  openSession();
  const auto kept = provider->pCTKFramework();
  loader->calls.clear();
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(provider->releaseWithMirelCTKFramework());
    EXPECT_EQ(provider->pCTKFramework(), kept);
  }
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
  EXPECT_EQ(record().hSession(), kCardSession);
}

TEST_F(ProviderRelease, FailsAfterAFailedInitAndKeepsTheFramework) {
  script.failCallOf("C_Initialize", 0, CKR_GENERAL_ERROR);
  ASSERT_EQ(provider->initWithMirelCTKFramwork(), nullptr);
  const auto kept = provider->pCTKFramework();
  EXPECT_FALSE(provider->releaseWithMirelCTKFramework());
  EXPECT_EQ(provider->pCTKFramework(), kept);
}

TEST_F(ProviderRelease, DropsAFrameworkWhoseServiceCouldBeClosed) {
  std::weak_ptr<MirelCTKFramework> dropped;
  {
    const auto fresh = std::make_shared<MirelCTKFramework>(services());
    dropped = fresh;
    provider->setPCTKFramework(fresh);
  }
  EXPECT_TRUE(provider->releaseWithMirelCTKFramework());
  EXPECT_FALSE(provider->pCTKFramework());
  EXPECT_TRUE(dropped.expired());
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetFunctionList()", "C_Initialize(null)", "C_Finalize(null)"));
}

TEST_F(ProviderRelease, SucceedsTheSecondTime) {
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  ASSERT_TRUE(provider->releaseWithMirelCTKFramework());
  loader->calls.clear();
  EXPECT_TRUE(provider->releaseWithMirelCTKFramework());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(ProviderRelease, LeavesAProviderThatCanBeInitialisedAnew) {
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  ASSERT_TRUE(provider->releaseWithMirelCTKFramework());
  init();
  expectUsable();
}

TEST_F(ProviderRelease, FailsWithTheFirstTwoCallsAndIgnoresTheThird) {
  const auto round = [&](FailPoint& point) {
    newProvider();
    const auto fresh = std::make_shared<MirelCTKFramework>(services());
    provider->setPCTKFramework(fresh);
    point.arm();
    const bool released = provider->releaseWithMirelCTKFramework();
    EXPECT_EQ(released, point.n() >= 2);
    EXPECT_EQ(provider->pCTKFramework(), released ? nullptr : fresh);
  };
  forEachFailingCall(script, CKR_DEVICE_ERROR, 3, round, [&] { expectNextOneUsable(); });
}

// ---- The object itself ----

class ProviderObject : public ProviderTest {};

TEST_F(ProviderObject, ReleasesItsFrameworkAtItsEndAndClosesNothing) {
  openSession();
  loader->calls.clear();
  const std::weak_ptr<MirelCTKFramework> owned = provider->pCTKFramework();
  provider.reset();
  EXPECT_TRUE(owned.expired());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
}

TEST_F(ProviderObject, LeavesAFrameworkThatSomebodyElseHolds) {
  openSession();
  const auto held = provider->pCTKFramework();
  provider.reset();
  EXPECT_TRUE(held->EnumCardKeys(reader()));
}

TEST_F(ProviderObject, HandsOutWholeFrameworksWhileAnotherThreadReplacesThem) {
  const auto first = std::make_shared<MirelCTKFramework>(services());
  const auto second = std::make_shared<MirelCTKFramework>(services());
  provider->setPCTKFramework(first);
  std::thread writer{[&] {
    for (int i = 0; i < 2000; ++i) provider->setPCTKFramework(i % 2 == 0 ? second : first);
  }};
  int wrong = 0;
  for (int i = 0; i < 2000; ++i) {
    const auto seen = provider->pCTKFramework();
    wrong += seen == first || seen == second ? 0 : 1;
  }
  writer.join();
  EXPECT_EQ(wrong, 0);
}

// ---- Without a framework ----

class WithoutAFramework : public ProviderTest {};

TEST_F(WithoutAFramework, EveryQueryFindsNothing) {
  const auto key = std::make_shared<PKCS11_ASYMKEY_INFO>();
  const auto certificate = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  CryptTKitSProvider::KeyList keys;
  CryptTKitSProvider::CertificateList certificates;
  EXPECT_TRUE(provider->getSupportedTokenDescription(reader()).isNull());
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_FALSE(provider->getTokenPubKeys(reader(), &keys));
  EXPECT_FALSE(provider->getTokenPubKeys(reader(), nullptr));
  EXPECT_FALSE(provider->getTokenCerts(reader(), &certificates));
  EXPECT_FALSE(provider->getTokenCerts(reader(), nullptr));
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(certificates, IsEmpty());
  EXPECT_EQ(provider->getTokenKeyName(key), Text{u""});
  EXPECT_EQ(provider->getCertName(certificate), Text{u""});
  EXPECT_EQ(provider->getCertID(certificate), Text{u""});
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), nullptr);
  EXPECT_TRUE(provider->getCertData(certificate).isNull());
  EXPECT_TRUE(provider->getPublicKeyValue(key).isNull());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(WithoutAFramework, DescriptionAndIdentifierAreLogged) {
  (void)provider->getSupportedTokenDescription(reader());
  (void)provider->getCertID(std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>());
  EXPECT_THAT(log->allLines,
              ElementsAre(kNoFrameworkLine, "process: [CryptTKitSProvider-143] pCerts.count = 0"));
}

TEST_F(WithoutAFramework, NothingElseIsLogged) {
  (void)provider->openTKSmartCardTokenSession(reader());
  (void)provider->getTokenPubKeys(reader(), nullptr);
  (void)provider->getTokenCerts(reader(), nullptr);
  (void)provider->getCertName(nullptr);
  (void)provider->getCertData(nullptr);
  (void)provider->getKeyFromCertID(Text{});
  (void)provider->getTokenKeyName(nullptr);
  (void)provider->getPublicKeyValue(nullptr);
  (void)provider->releaseWithMirelCTKFramework();
  EXPECT_THAT(log->allLines, IsEmpty());
}

}  // namespace
}  // namespace mirel::test
