/// Loading, initialising, finalising and unloading.

#include <utility>

#include "framework/FrameworkTest.h"
#include "support/Threads.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

/// What cannot be loaded as a module: no file, and one that gives no function list.
constexpr const char* kFaultyModules[] = {"", kModuleNullList};

void expectReset(const PKCS11_SERVICE_INFO& record) {
  EXPECT_EQ(record.hSession(), kNoHandle);
  EXPECT_EQ(record.slotID(), kNoHandle);
  EXPECT_EQ(record.m_certIndex(), -1);
  EXPECT_EQ(record.m_keyIndex(), -1);
}

/// For tests of a framework that may be past use.
class Lifecycle : public FrameworkTest {
 protected:
  void useFaultyModule(const char* path) {
    useModule(path);
    newFramework();
    loader->calls.clear();
  }
  /// The process must be none the worse for what happened: the next framework works.
  void expectUsableAgain() override {
    script.reset();
    newFramework();
    ASSERT_TRUE(framework->OpenFrameworkService());
    FrameworkTest::expectUsableAgain();
  }
};

// ---- Loading and unloading ----

using FrameworkLoad = Lifecycle;

TEST_F(FrameworkLoad, MakesABridgeAndAnEmptyRecordAndLoadsTheModule) {
  EXPECT_FALSE(framework->p11Bridge());
  EXPECT_FALSE(framework->p11ServiceInfo());
  EXPECT_TRUE(framework->Framework_Load());
  ASSERT_TRUE(framework->p11Bridge());
  EXPECT_NE(framework->p11Bridge()->ckFunc(), nullptr);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_THAT(certificates(), IsEmpty());
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()"));
  // The bridge's line, and none of the framework's own.
  EXPECT_EQ(log->allLines.size(), 1U);
}

TEST_F(FrameworkLoad, IsRefusedWhereThereIsABridge) {
  ASSERT_TRUE(framework->Framework_Load());
  const auto bridge = framework->p11Bridge();
  const auto stored = framework->p11ServiceInfo();
  loader->calls.clear();
  EXPECT_FALSE(framework->Framework_Load());
  EXPECT_EQ(framework->p11Bridge(), bridge);
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_THAT(loader->calls, IsEmpty());
  newFramework();
  framework->setP11Bridge(std::make_shared<P11Bridge>(services()));
  EXPECT_FALSE(framework->Framework_Load());
  EXPECT_FALSE(framework->p11ServiceInfo());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(FrameworkLoad, FailsOnceAndForAllWithAModuleThatCannotBeLoaded) {
  for (const char* fault : kFaultyModules) {
    SCOPED_TRACE(fault);
    useFaultyModule(fault);
    EXPECT_FALSE(framework->Framework_Load());
    // All the same they are there, so there is no second attempt.
    EXPECT_TRUE(framework->p11Bridge());
    EXPECT_TRUE(framework->p11ServiceInfo());
    EXPECT_FALSE(framework->Framework_Load());
    EXPECT_FALSE(framework->Framework_Initialize());
    expectReset(record());

    // OpenFrameworkService and CloseFrameworkService likewise, and nothing is closed.
    useFaultyModule(fault);
    EXPECT_FALSE(framework->OpenFrameworkService());
    EXPECT_FALSE(framework->CloseFrameworkService());
    EXPECT_THAT(loader->calls, Not(Contains("close")));
    // No call finds its way into such a module.
    EXPECT_FALSE(framework->EnumCards(reader()));
    EXPECT_FALSE(framework->OpenCardSession(reader(), nullptr));
    EXPECT_FALSE(framework->Framework_Finalize());
  }
}

TEST_F(FrameworkLoad, CanBeUndoneOnceButNotMadeAgain) {
  EXPECT_FALSE(framework->Framework_Unload()) << "there is no bridge";
  ASSERT_TRUE(framework->Framework_Load());
  const auto bridge = framework->p11Bridge();
  loader->calls.clear();
  EXPECT_TRUE(framework->Framework_Unload());
  EXPECT_THAT(loader->calls, ElementsAre("close"));
  EXPECT_EQ(framework->p11Bridge(), bridge);
  EXPECT_FALSE(framework->Framework_Load());
  useFaultyModule("");
  ASSERT_FALSE(framework->Framework_Load());
  EXPECT_FALSE(framework->Framework_Unload()) << "no module was opened";
}

// ---- Framework_Initialize ----

using FrameworkInitialize = Lifecycle;

TEST_F(FrameworkInitialize, ResetsTheRecordAndInitialisesTheModuleWithoutArguments) {
  ASSERT_TRUE(framework->Framework_Load());
  script.forgetCalls();
  record().setHSession(5);
  record().setSlotID(1);
  record().setM_keyIndex(3);
  record().setM_certIndex(2);
  CK_TOKEN_INFO tokenInfo{};
  tokenInfo.flags = 7;
  record().setTokenInfo(tokenInfo);
  const auto stored = framework->p11ServiceInfo();
  EXPECT_TRUE(framework->Framework_Initialize());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Initialize(null)"));
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  expectReset(record());
  EXPECT_EQ(record().tokenInfo().flags, 7U);
  EXPECT_TRUE(record().pAsymKeys());
}

TEST_F(FrameworkInitialize, FailsWithoutABridgeHavingResetTheRecord) {
  EXPECT_FALSE(framework->Framework_Initialize());
  framework->setP11ServiceInfo(std::make_shared<PKCS11_SERVICE_INFO>());
  EXPECT_FALSE(framework->Framework_Initialize());
  expectReset(record());
}

TEST_F(FrameworkInitialize, TakesAModuleThatIsInitialisedAlreadyForASuccessAndNoOtherFailure) {
  // Of the last two the lower 32 bits alone look like a success.
  for (const CK_RV code :
       {CKR_OK, CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_CANCEL, CKR_GENERAL_ERROR, CKR_CANT_LOCK,
        CKR_CRYPTOKI_NOT_INITIALIZED, CKR_VENDOR_DEFINED | CKR_CRYPTOKI_ALREADY_INITIALIZED, 0x100000000UL,
        0x100000191UL}) {
    SCOPED_TRACE(code);
    script.reset();
    newFramework();
    ASSERT_TRUE(framework->Framework_Load());
    script.failCallOf("C_Initialize", 0, code);
    EXPECT_EQ(framework->Framework_Initialize(), code == CKR_OK || code == CKR_CRYPTOKI_ALREADY_INITIALIZED);
    expectReset(record());
  }
}

// ---- Framework_Finalize ----

using FrameworkFinalize = Lifecycle;

TEST_F(FrameworkFinalize, FinalisesTheModuleAndReleasesTheRecord) {
  const RetainedRecord retained = openAndList();
  EXPECT_TRUE(framework->Framework_Finalize());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Finalize(null)"));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectReleased(retained);
  script.setInitialised(true);
  EXPECT_TRUE(framework->Framework_Finalize()) << "without a record";
  EXPECT_FALSE(framework->p11ServiceInfo());
  leavesOpen({});  // the module has closed it
}

TEST_F(FrameworkFinalize, KeepsTheRecordWhenTheModuleRefusesOrThereIsNoBridge) {
  const RetainedRecord retained = openAndList();
  script.failCallOf("C_Finalize", 0, CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_FALSE(framework->Framework_Finalize());
  framework->setP11Bridge(nullptr);
  EXPECT_FALSE(framework->Framework_Finalize());
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  expectUntouched(retained);
}

// ---- OpenFrameworkService ----

using OpenService = Lifecycle;

TEST_F(OpenService, LoadsAndInitialises) {
  EXPECT_TRUE(framework->OpenFrameworkService());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()", "C_Initialize(null)"));
  expectReset(record());
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_THAT(certificates(), IsEmpty());
}

TEST_F(OpenService, IsNeitherRepeatedNorClosedAndLeavesTheModuleAsItIs) {
  const RetainedRecord retained = openAndList();
  EXPECT_FALSE(framework->OpenFrameworkService());
  EXPECT_FALSE(framework->CloseFrameworkService());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  expectUntouched(retained);
}

TEST_F(OpenService, FailsWithEitherCallAndUndoesNothing) {
  failEachCall(2, [&](FailPoint& point) {
    newFramework();
    loader->calls.clear();
    point.arm();
    const bool succeeded = framework->OpenFrameworkService();
    EXPECT_EQ(succeeded, !point.fired());
    if (point.n() > 0) expectReset(record());
    EXPECT_FALSE(framework->OpenFrameworkService()) << "a framework is opened once only";
    EXPECT_FALSE(framework->CloseFrameworkService()) << "nor closed after that";
    EXPECT_EQ(script.countOf("C_Finalize"), 0U);
    EXPECT_THAT(loader->calls, Not(Contains("close")));
  });
}

// ---- CloseFrameworkService ----

using CloseService = Lifecycle;

TEST_F(CloseService, RunsAFrameworkThatWasNeverLoadedThroughItsWholeLifeOnce) {
  EXPECT_TRUE(framework->CloseFrameworkService());
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetFunctionList()", "C_Initialize(null)", "C_Finalize(null)"));
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList", "close"));
  EXPECT_TRUE(framework->p11Bridge());
  EXPECT_FALSE(framework->p11ServiceInfo());
  loader->calls.clear();
  EXPECT_FALSE(framework->CloseFrameworkService());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(CloseService, FailsWithTheFirstTwoCallsAndIgnoresTheThird) {
  failEachCall(3, [&](FailPoint& point) {
    newFramework();
    loader->calls.clear();
    point.arm();
    const bool closed = framework->CloseFrameworkService();
    EXPECT_EQ(closed, point.n() >= 2);
    EXPECT_EQ(script.countOf("C_Finalize"), closed ? 1U : 0U);
    EXPECT_EQ(loader->calls.back() == "close", closed);
    // What a module that refuses to finalise leaves behind is the record.
    EXPECT_EQ(framework->p11ServiceInfo() != nullptr, point.n() <= 2);
  });
}

// ---- The object itself ----

using FrameworkObject = Lifecycle;

TEST_F(FrameworkObject, ReleasesTheRecordBeforeTheBridge) {
  std::vector<std::string> released;
  const auto noted = [&](const char* name, auto object) {
    const std::shared_ptr<void> end{nullptr, [&released, name](void*) { released.emplace_back(name); }};
    const auto both = std::make_shared<std::pair<decltype(object), std::shared_ptr<void>>>(object, end);
    return decltype(object){both, object.get()};
  };
  framework->setP11Bridge(noted("bridge", std::make_shared<P11Bridge>(services())));
  framework->setP11ServiceInfo(noted("record", std::make_shared<PKCS11_SERVICE_INFO>()));
  framework.reset();
  EXPECT_THAT(released, ElementsAre("record", "bridge"));
}

TEST_F(FrameworkObject, LeavesTheModuleLoadedInitialisedAndItsSessionOpenAtItsEnd) {
  (void)openAndList();
  framework.reset();
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
}

TEST_F(FrameworkObject, HandsOutWholeBridgesWhileAnotherThreadReplacesThem) {
  const auto first = std::make_shared<P11Bridge>(services());
  const auto second = std::make_shared<P11Bridge>(services());
  framework->setP11Bridge(first);
  const auto get = [&] { return framework->p11Bridge(); };
  const auto set = [&](const auto& bridge) { framework->setP11Bridge(bridge); };
  EXPECT_EQ(numTornReads(first, second, get, set), 0);
}

TEST_F(FrameworkObject, FailsInEveryOperationWithoutABridgeAndTouchesNoModule) {
  const auto stored = std::make_shared<PKCS11_SERVICE_INFO>();
  stored->setSlotID(kSlot);
  stored->setHSession(kFirstSession);
  framework->setP11ServiceInfo(stored);
  EXPECT_FALSE(framework->OpenCardSession(reader(), stored));
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  const auto certificate = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  certificate->setPbCertData(Bytes{{0x30}});
  EXPECT_FALSE(framework->BindingKeyCert(Text{}, kPublicKey, certificate));
  EXPECT_TRUE(framework->IsCardStateChanged("")) << "cannot tell";
  EXPECT_EQ(framework->p11ServiceInfo(), stored);

  // These two release the record.
  stored->setPAsymKeys(std::make_shared<KeyRecords>(1, std::make_shared<PKCS11_ASYMKEY_INFO>()));
  EXPECT_FALSE(framework->EnumCards(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  EXPECT_THAT(*stored->pAsymKeys(), IsEmpty());
  stored->pAsymKeys()->push_back(nullptr);
  framework->setP11ServiceInfo(stored);
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  EXPECT_THAT(*stored->pAsymKeys(), IsEmpty());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
}

}  // namespace
}  // namespace mirel::test
