/// Loading, initialising, finalising and unloading.

#include <thread>
#include <utility>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

/// What cannot be loaded as a module. An empty path: there is no file.
struct LoadFault {
  const char* name;
  const char* path;
  bool opens;  ///< the loader gets hold of it
};
constexpr LoadFault kLoadFaults[] = {
    {"no file", "", false},
    {"not a library", kNotALibrary, false},
    {"no entry point", kModuleWithoutEntry, true},
    {"entry point fails", kModuleEntryFails, true},
    {"entry point fails having written a pointer", kModuleEntryFailsWild, true},
    {"entry point gives a null list", kModuleNullList, true},
    {"entry point writes nothing", kModuleSilentEntry, true},
};

// ---- Framework_Load ----

class FrameworkLoad : public FrameworkTest {};

TEST_F(FrameworkLoad, MakesABridgeAndAnEmptyRecord) {
  EXPECT_FALSE(framework->p11Bridge());
  EXPECT_FALSE(framework->p11ServiceInfo());
  EXPECT_TRUE(framework->Framework_Load());
  ASSERT_TRUE(framework->p11Bridge());
  EXPECT_NE(framework->p11Bridge()->ckFunc(), nullptr);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_THAT(certificates(), IsEmpty());
}

TEST_F(FrameworkLoad, OpensTheModuleInTheUsersHome) {
  EXPECT_TRUE(framework->Framework_Load());
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()"));
}

TEST_F(FrameworkLoad, LogsNothingButTheModulesPath) {
  EXPECT_TRUE(framework->Framework_Load());
  EXPECT_THAT(log->allLines,
              ElementsAre("process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = " + home.modulePath()));
}

TEST_F(FrameworkLoad, RefusesASecondLoad) {
  ASSERT_TRUE(framework->Framework_Load());
  const auto bridge = framework->p11Bridge();
  const auto stored = framework->p11ServiceInfo();
  const auto loaderCalls = loader->calls;
  EXPECT_FALSE(framework->Framework_Load());
  EXPECT_EQ(framework->p11Bridge(), bridge);
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(loader->calls, loaderCalls);
}

TEST_F(FrameworkLoad, TakesABridgeThatIsThereForALoadedModule) {
  framework->setP11Bridge(std::make_shared<P11Bridge>(services()));
  EXPECT_FALSE(framework->Framework_Load());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_FALSE(framework->p11ServiceInfo());
}

TEST_F(FrameworkLoad, FailsWithAModuleThatCannotBeLoaded) {
  for (const LoadFault& fault : kLoadFaults) {
    SCOPED_TRACE(fault.name);
    useModule(fault.path);
    EXPECT_FALSE(framework->Framework_Load());
    // All the same they are there, so there is no second attempt.
    EXPECT_TRUE(framework->p11Bridge());
    EXPECT_TRUE(framework->p11ServiceInfo());
    EXPECT_FALSE(framework->Framework_Load());
  }
}

// ---- Framework_Unload ----

class FrameworkUnload : public FrameworkTest {};

TEST_F(FrameworkUnload, FailsWithoutABridge) {
  EXPECT_FALSE(framework->Framework_Unload());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(FrameworkUnload, ClosesTheModuleAndKeepsTheBridge) {
  ASSERT_TRUE(framework->Framework_Load());
  const auto bridge = framework->p11Bridge();
  loader->calls.clear();
  EXPECT_TRUE(framework->Framework_Unload());
  EXPECT_THAT(loader->calls, ElementsAre("close"));
  EXPECT_EQ(framework->p11Bridge(), bridge);
}

TEST_F(FrameworkUnload, FailsWhenNoModuleWasOpened) {
  useModule("");
  ASSERT_FALSE(framework->Framework_Load());
  loader->calls.clear();
  EXPECT_FALSE(framework->Framework_Unload());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(FrameworkUnload, LeavesAFrameworkThatCannotBeLoadedAgain) {
  ASSERT_TRUE(framework->Framework_Load());
  ASSERT_TRUE(framework->Framework_Unload());
  EXPECT_FALSE(framework->Framework_Load());
}

// ---- Framework_Initialize ----

class FrameworkInitialize : public FrameworkTest {
 protected:
  static void expectReset(const PKCS11_SERVICE_INFO& record) {
    EXPECT_EQ(record.hSession(), kNoHandle);
    EXPECT_EQ(record.slotID(), kNoHandle);
    EXPECT_EQ(record.m_certIndex(), -1);
    EXPECT_EQ(record.m_keyIndex(), -1);
  }
};

TEST_F(FrameworkInitialize, InitialisesTheModuleWithoutArguments) {
  ASSERT_TRUE(framework->Framework_Load());
  script.forgetCalls();
  EXPECT_TRUE(framework->Framework_Initialize());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Initialize(null)"));
}

TEST_F(FrameworkInitialize, ResetsTheRecord) {
  ASSERT_TRUE(framework->Framework_Load());
  record().setHSession(5);
  record().setSlotID(1);
  record().setM_keyIndex(3);
  record().setM_certIndex(2);
  CK_TOKEN_INFO tokenInfo{};
  tokenInfo.flags = 7;
  record().setTokenInfo(tokenInfo);
  const auto stored = framework->p11ServiceInfo();

  EXPECT_TRUE(framework->Framework_Initialize());
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  expectReset(record());
  EXPECT_EQ(record().tokenInfo().flags, 7U);
  EXPECT_TRUE(record().pAsymKeys());
}

TEST_F(FrameworkInitialize, ResetsTheRecordEvenWithoutABridge) {
  framework->setP11ServiceInfo(std::make_shared<PKCS11_SERVICE_INFO>());
  EXPECT_FALSE(framework->Framework_Initialize());
  expectReset(record());
}

TEST_F(FrameworkInitialize, FailsWithoutBridgeAndRecord) {
  EXPECT_FALSE(framework->Framework_Initialize());
  EXPECT_FALSE(framework->p11ServiceInfo());
}

TEST_F(FrameworkInitialize, OnlySuccessAndAnInitialisedModuleCount) {
  constexpr struct {
    CK_RV code;
    bool succeeds;
  } kRows[] = {
      {CKR_OK, true},
      {CKR_CRYPTOKI_ALREADY_INITIALIZED, true},
      {CKR_CANCEL, false},
      {CKR_HOST_MEMORY, false},
      {CKR_GENERAL_ERROR, false},
      {CKR_FUNCTION_FAILED, false},
      {CKR_ARGUMENTS_BAD, false},
      {CKR_NEED_TO_CREATE_THREADS, false},
      {CKR_CANT_LOCK, false},
      {CKR_CRYPTOKI_NOT_INITIALIZED, false},
      {CKR_VENDOR_DEFINED | CKR_CRYPTOKI_ALREADY_INITIALIZED, false},
      // The lower 32 bits alone look like a success.
      {0x100000000, false},
      {0x100000191, false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.code);
    script.reset();
    newFramework();
    ASSERT_TRUE(framework->Framework_Load());
    script.failCallOf("C_Initialize", 0, row.code);
    EXPECT_EQ(framework->Framework_Initialize(), row.succeeds);
    expectReset(record());
  }
}

TEST_F(FrameworkInitialize, FailsWithAModuleThatHasNoSuchFunction) {
  ASSERT_TRUE(framework->Framework_Load());
  script.removeEntry("C_Initialize");
  EXPECT_FALSE(framework->Framework_Initialize());
}

TEST_F(FrameworkInitialize, FailsAfterALoadThatFailed) {
  for (const LoadFault& fault : kLoadFaults) {
    SCOPED_TRACE(fault.name);
    useModule(fault.path);
    ASSERT_FALSE(framework->Framework_Load());
    EXPECT_FALSE(framework->Framework_Initialize());
    expectReset(record());
  }
}

// ---- Framework_Finalize ----

class FrameworkFinalize : public FrameworkTest {};

TEST_F(FrameworkFinalize, FailsWithoutABridgeAndKeepsTheRecord) {
  const auto stored = std::make_shared<PKCS11_SERVICE_INFO>();
  framework->setP11ServiceInfo(stored);
  EXPECT_FALSE(framework->Framework_Finalize());
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
}

TEST_F(FrameworkFinalize, FinalisesTheModuleAndReleasesTheRecord) {
  openSessionAndEnumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_TRUE(framework->Framework_Finalize());
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Finalize(null)"));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(retained);
  expectMembersReleased(retained);
  leavesOpen({});  // the module has closed it
}

TEST_F(FrameworkFinalize, KeepsTheRecordWhenTheModuleRefuses) {
  for (const CK_RV code : {CKR_GENERAL_ERROR, CKR_CRYPTOKI_NOT_INITIALIZED, CKR_ARGUMENTS_BAD}) {
    SCOPED_TRACE(code);
    script.reset();
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    script.failCallOf("C_Finalize", 0, code);
    EXPECT_FALSE(framework->Framework_Finalize());
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    expectUntouched(retained);
  }
}

TEST_F(FrameworkFinalize, SucceedsWithoutARecord) {
  openService();
  framework->setP11ServiceInfo(nullptr);
  EXPECT_TRUE(framework->Framework_Finalize());
  EXPECT_FALSE(framework->p11ServiceInfo());
}

// ---- OpenFrameworkService ----

/// For tests of a framework that may be past use.
class ServiceTest : public FrameworkTest {
 protected:
  /// The process must be none the worse for what happened: the next framework works.
  void expectNextOneUsable() {
    script.reset();
    newFramework();
    ASSERT_TRUE(framework->OpenFrameworkService());
    expectUsable();
  }
};

class OpenService : public ServiceTest {};

TEST_F(OpenService, LoadsAndInitialises) {
  EXPECT_TRUE(framework->OpenFrameworkService());
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()", "C_Initialize(null)"));
  EXPECT_TRUE(script.isInitialised());
  EXPECT_EQ(record().slotID(), kNoHandle);
  EXPECT_EQ(record().hSession(), kNoHandle);
  EXPECT_EQ(record().m_keyIndex(), -1);
  EXPECT_EQ(record().m_certIndex(), -1);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_THAT(certificates(), IsEmpty());
}

TEST_F(OpenService, AcceptsAModuleThatSomebodyElseInitialised) {
  script.setInitialised(true);
  EXPECT_TRUE(framework->OpenFrameworkService());
}

TEST_F(OpenService, RefusesASecondOpenAndLeavesTheModuleAsItIs) {
  openSessionAndEnumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  loader->calls.clear();
  EXPECT_FALSE(framework->OpenFrameworkService());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  expectUntouched(retained);
}

TEST_F(OpenService, FailsWithAModuleThatCannotBeLoadedAndClosesNothing) {
  for (const LoadFault& fault : kLoadFaults) {
    SCOPED_TRACE(fault.name);
    useModule(fault.path);
    loader->calls.clear();
    EXPECT_FALSE(framework->OpenFrameworkService());
    EXPECT_EQ(loader->calls.size(), fault.opens ? 2U : 1U);
    EXPECT_THAT(loader->calls, Not(::testing::Contains("close")));
    // No call finds its way into such a module.
    EXPECT_FALSE(framework->EnumCards(reader()));
    EXPECT_FALSE(framework->OpenCardSession(reader(), nullptr));
    EXPECT_FALSE(framework->Framework_Finalize());
  }
}

TEST_F(OpenService, FailsWithEitherCallAndUndoesNothing) {
  const auto round = [&](FailPoint& point) {
    newFramework();
    loader->calls.clear();
    point.arm();
    const bool opened = framework->OpenFrameworkService();
    EXPECT_EQ(opened, !point.fired());
    EXPECT_EQ(script.countOf("C_Finalize"), 0U);
    EXPECT_THAT(loader->calls, Not(::testing::Contains("close")));
    EXPECT_TRUE(framework->p11Bridge());
    EXPECT_FALSE(framework->OpenFrameworkService()) << "a framework is opened once only";
  };
  forEachFailingCall(script, CKR_DEVICE_ERROR, 2, round, [&] { expectNextOneUsable(); });
}

TEST_F(OpenService, KeepsAResetRecordWhenTheModuleRefusesToInitialise) {
  script.failCallOf("C_Initialize", 0, CKR_GENERAL_ERROR);
  EXPECT_FALSE(framework->OpenFrameworkService());
  EXPECT_EQ(record().slotID(), kNoHandle);
  EXPECT_EQ(record().m_keyIndex(), -1);
}

// ---- CloseFrameworkService ----

class CloseService : public ServiceTest {};

TEST_F(CloseService, RunsAFrameworkThatWasNeverLoadedThroughItsWholeLife) {
  EXPECT_TRUE(framework->CloseFrameworkService());
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetFunctionList()", "C_Initialize(null)", "C_Finalize(null)"));
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList", "close"));
  EXPECT_FALSE(script.isInitialised());
  EXPECT_TRUE(framework->p11Bridge());
  EXPECT_FALSE(framework->p11ServiceInfo());
}

TEST_F(CloseService, DoesNothingAfterASuccessfulOpen) {
  openSessionAndEnumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  loader->calls.clear();
  EXPECT_FALSE(framework->CloseFrameworkService());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  expectUntouched(retained);
}

TEST_F(CloseService, DoesNothingAfterAnOpenThatFailed) {
  script.failCallOf("C_Initialize", 0, CKR_GENERAL_ERROR);
  ASSERT_FALSE(framework->OpenFrameworkService());
  loader->calls.clear();
  script.forgetCalls();
  EXPECT_FALSE(framework->CloseFrameworkService());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(CloseService, IsRefusedTheSecondTime) {
  ASSERT_TRUE(framework->CloseFrameworkService());
  loader->calls.clear();
  EXPECT_FALSE(framework->CloseFrameworkService());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(CloseService, FailsWithAModuleThatCannotBeLoaded) {
  for (const LoadFault& fault : kLoadFaults) {
    SCOPED_TRACE(fault.name);
    useModule(fault.path);
    loader->calls.clear();
    EXPECT_FALSE(framework->CloseFrameworkService());
    EXPECT_THAT(loader->calls, Not(::testing::Contains("close")));
  }
}

TEST_F(CloseService, FailsWithTheFirstTwoCallsAndIgnoresTheThird) {
  const auto round = [&](FailPoint& point) {
    newFramework();
    loader->calls.clear();
    point.arm();
    const bool closed = framework->CloseFrameworkService();
    EXPECT_EQ(closed, point.n() >= 2);
    EXPECT_EQ(script.countOf("C_Finalize"), closed ? 1U : 0U);
    EXPECT_EQ(loader->calls.back() == "close", closed);
    // What a module that refuses to finalise leaves behind is the record.
    if (point.n() == 2) {
      EXPECT_TRUE(framework->p11ServiceInfo());
    }
  };
  forEachFailingCall(script, CKR_DEVICE_ERROR, 3, round, [&] { expectNextOneUsable(); });
}

// ---- The object itself ----

class FrameworkObject : public FrameworkTest {};

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
  openSessionAndEnumerate();
  loader->calls.clear();
  framework.reset();
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_TRUE(script.isInitialised());
}

TEST_F(FrameworkObject, HandsOutWholeBridgesWhileAnotherThreadReplacesThem) {
  const auto first = std::make_shared<P11Bridge>(services());
  const auto second = std::make_shared<P11Bridge>(services());
  framework->setP11Bridge(first);
  std::thread writer{[&] {
    for (int i = 0; i < 2000; ++i) framework->setP11Bridge(i % 2 == 0 ? second : first);
  }};
  int wrong = 0;
  for (int i = 0; i < 2000; ++i) {
    const auto seen = framework->p11Bridge();
    wrong += seen == first || seen == second ? 0 : 1;
  }
  writer.join();
  EXPECT_EQ(wrong, 0);
}

// ---- Without a bridge ----

class WithoutABridge : public FrameworkTest {
 protected:
  WithoutABridge() {
    stored->setSlotID(kSlot);
    stored->setHSession(kFirstSession);
    CK_TOKEN_INFO tokenInfo{};
    tokenInfo.flags = CKF_RNG;
    stored->setTokenInfo(tokenInfo);
    framework->setP11ServiceInfo(stored);
  }

  std::shared_ptr<PKCS11_SERVICE_INFO> stored = std::make_shared<PKCS11_SERVICE_INFO>();
};

TEST_F(WithoutABridge, EveryOperationFailsAndTouchesNoModule) {
  EXPECT_FALSE(framework->Framework_Unload());
  EXPECT_FALSE(framework->Framework_Finalize());
  EXPECT_FALSE(framework->OpenCardSession(reader(), stored));
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  const auto certificate = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  certificate->setPbCertData(Bytes{{0x30}});
  EXPECT_FALSE(framework->BindingKeyCert(Text{}, kPublicKey, certificate));
  EXPECT_TRUE(framework->IsCardStateChanged("")) << "cannot tell";
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_FALSE(framework->EnumCards(reader()));
  framework->setP11ServiceInfo(stored);
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  framework->setP11ServiceInfo(stored);
  EXPECT_FALSE(framework->Framework_Initialize());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(WithoutABridge, SelectingACardReleasesTheRecord) {
  stored->setPAsymKeys(std::make_shared<KeyRecords>(1, std::make_shared<PKCS11_ASYMKEY_INFO>()));
  const RetainedRecord retained{stored};
  EXPECT_FALSE(framework->EnumCards(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(retained);
}

TEST_F(WithoutABridge, ListingKeysReleasesTheRecord) {
  stored->setPAsymKeys(std::make_shared<KeyRecords>(1, std::make_shared<PKCS11_ASYMKEY_INFO>()));
  const RetainedRecord retained{stored};
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(retained);
}

}  // namespace
}  // namespace mirel::test
