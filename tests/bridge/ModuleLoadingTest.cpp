#include <cstring>
#include <iterator>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A bridge for the user "alice" of a Mac, on which nothing can be loaded.
struct AliceOnAMac {
  AliceOnAMac() {
    services.loader = loader;
    services.user = std::make_shared<FakeUserDirectory>("alice", "/Users/alice");
    services.log = log;
    services.memory = std::make_shared<FailingMemory>();
  }
  std::shared_ptr<RecordingLoader> loader = std::make_shared<RecordingLoader>();
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  PlatformServices services;
};

constexpr const char* kPathOfAlice = "/Users/alice/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";

TEST(Load, OpensTheFixedPathWhateverItIsGiven) {
  const struct {
    const char* name;
    Text path;
  } rows[] = {
      {"none", Text{}},
      {"empty", Text{u""}},
      {"what the framework passes", Text{u"libs/libTorvo_p11v1.dylib"}},
      {"another place", Text{u"/tmp/other.dylib"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    AliceOnAMac alice;
    P11Bridge bridge{alice.services};
    EXPECT_FALSE(bridge.pkcs11_Load(row.path));
    EXPECT_THAT(alice.loader->calls, ElementsAre(std::string{"open "} + kPathOfAlice));
  }
}

TEST(Load, StoresThePath) {
  AliceOnAMac alice;
  P11Bridge bridge{alice.services};
  EXPECT_EQ(bridge.p11dylib(), nullptr);
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  ASSERT_NE(bridge.p11dylib(), nullptr);
  EXPECT_EQ(*bridge.p11dylib(), kPathOfAlice);
}

TEST(Load, LogsThePathOnceAndNothingElse) {
  AliceOnAMac alice;
  P11Bridge bridge{alice.services};
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_THAT(
      alice.log->allLines,
      ElementsAre(std::string{"process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = "} + kPathOfAlice));
}

TEST(Load, TakesThePathAsItIs) {
  AliceOnAMac alice;
  alice.services.user = std::make_shared<FakeUserDirectory>("%s", "/home/%s %n \xC3\xBC");
  P11Bridge bridge{alice.services};
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  const std::string path = "/home/%s %n \xC3\xBC/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";
  EXPECT_THAT(alice.loader->calls, ElementsAre("open " + path));
  EXPECT_THAT(alice.log->processLines, ElementsAre(::testing::EndsWith("path = " + path)));
}

TEST(Load, ResolvesTheHomeFromTheLoginName) {
  AliceOnAMac alice;
  const auto user = std::make_shared<FakeUserDirectory>("bob", "/home/elsewhere");
  alice.services.user = user;
  P11Bridge bridge{alice.services};
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_THAT(user->askedFor(), ElementsAre("bob"));
  EXPECT_THAT(alice.loader->calls,
              ElementsAre("open /home/elsewhere/Library/LunetLocalSignServer/libTorvo_p11v1.dylib"));
}

TEST(Load, FailsWithoutOpeningAnythingWhenTheUserIsUnknown) {
  AliceOnAMac alice;
  alice.services.user = std::make_shared<FakeUserDirectory>("", "");
  P11Bridge bridge{alice.services};
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_THAT(alice.loader->calls, IsEmpty());
  EXPECT_EQ(bridge.ckFunc(), nullptr);
}

TEST(Load, FailsWithoutOpeningAnythingWhenTheUserHasNoHome) {
  AliceOnAMac alice;
  alice.services.user = std::make_shared<FakeUserDirectory>("alice", "");
  P11Bridge bridge{alice.services};
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_THAT(alice.loader->calls, IsEmpty());
}

class LoadModule : public UnloadedBridgeTest {};

TEST_F(LoadModule, TakesTheFunctionListOfAGoodModule) {
  EXPECT_TRUE(bridge.pkcs11_Load(Text{}));
  EXPECT_NE(bridge.phP11Module(), nullptr);
  EXPECT_NE(bridge.phFunctionList(), nullptr);
  ASSERT_NE(bridge.ckFunc(), nullptr);
  EXPECT_EQ(bridge.ckFunc()->version.major, 2);
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()"));
}

TEST_F(LoadModule, DoesNotInitialiseTheModule) {
  EXPECT_TRUE(bridge.pkcs11_Load(Text{}));
  EXPECT_FALSE(script.isInitialised());
}

TEST_F(LoadModule, FailsWhenTheEntryPointDoes) {
  script.failCallOf("C_GetFunctionList", 0, CKR_HOST_MEMORY);
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_TRUE(script.fired());
  EXPECT_EQ(bridge.ckFunc(), nullptr);
}

TEST_F(LoadModule, CanBeTriedAgainAfterAFailure) {
  script.failCallOf("C_GetFunctionList", 0, CKR_HOST_MEMORY);
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_TRUE(bridge.pkcs11_Load(Text{}));
  EXPECT_NE(bridge.ckFunc(), nullptr);
}

TEST_F(LoadModule, FailsOnEveryFaultOfTheLibraryAndKeepsWhatItReached) {
  const struct {
    const char* name;
    const char* module;  // empty: no file
    bool opens;
    bool hasEntry;
  } rows[] = {
      {"no file", "", false, false},
      {"not a library", kNotALibrary, false, false},
      {"dangling link", "/nonexistent/module", false, false},
      {"no entry point", kModuleWithoutEntry, true, false},
      {"entry point fails", kModuleEntryFails, true, true},
      {"entry point fails with a wild list", kModuleEntryFailsWild, true, true},
      {"null list", kModuleNullList, true, true},
      {"entry point succeeds without writing", kModuleSilentEntry, true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const ModuleHome faulty{row.module};
    PlatformServices faultyServices = services();
    faultyServices.user = std::make_shared<FakeUserDirectory>("alice", faulty.home());
    loader->calls.clear();
    P11Bridge fresh{faultyServices};
    EXPECT_FALSE(fresh.pkcs11_Load(Text{}));
    EXPECT_EQ(fresh.phP11Module() != nullptr, row.opens);
    EXPECT_EQ(fresh.phFunctionList() != nullptr, row.hasEntry);
    EXPECT_EQ(fresh.ckFunc(), nullptr);
    EXPECT_EQ(*fresh.p11dylib(), faulty.modulePath());
    EXPECT_THAT(loader->calls, ::testing::Not(::testing::Contains("close")));
    CK_INFO info{};
    EXPECT_EQ(fresh.pkcs11_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

TEST_F(LoadModule, NeedsNoObserver) {
  PlatformServices withoutObserver = services();
  withoutObserver.observer = nullptr;
  P11Bridge unobserved{withoutObserver};
  EXPECT_TRUE(unobserved.pkcs11_Load(Text{}));
  EXPECT_EQ(unobserved.pkcs11_Initial(nullptr), CKR_OK);
}

class UnLoad : public UnloadedBridgeTest {};

TEST_F(UnLoad, FailsWithoutAModule) {
  EXPECT_FALSE(bridge.pkcs11_UnLoad(nullptr));
  EXPECT_THAT(loader->calls, IsEmpty());
}

TEST_F(UnLoad, ClosesTheModuleAndKeepsAllProperties) {
  ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
  void* const module = bridge.phP11Module();
  const auto entry = bridge.phFunctionList();
  CK_FUNCTION_LIST* const list = bridge.ckFunc();
  loader->calls.clear();

  EXPECT_TRUE(bridge.pkcs11_UnLoad(module));

  EXPECT_THAT(loader->calls, ElementsAre("close"));
  EXPECT_EQ(bridge.phP11Module(), module);
  EXPECT_EQ(bridge.phFunctionList(), entry);
  EXPECT_EQ(bridge.ckFunc(), list);
  EXPECT_EQ(*bridge.p11dylib(), home.modulePath());
}

TEST_F(UnLoad, IgnoresItsArgument) {
  ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
  EXPECT_TRUE(bridge.pkcs11_UnLoad(nullptr));
}

// The list is stale by design. This module stays mapped, because the test holds it too.
TEST_F(UnLoad, LeavesTheOperationsCallingThroughTheOldList) {
  ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
  ASSERT_TRUE(bridge.pkcs11_UnLoad(nullptr));
  script.forgetCalls();
  EXPECT_EQ(bridge.pkcs11_Initial(nullptr), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Initialize(null)"));
}

TEST(UnLoadTwice, ClosesTheSameHandleAgain) {
  AliceOnAMac alice;
  P11Bridge bridge{alice.services};
  bridge.setPhP11Module(&alice);
  (void)bridge.pkcs11_UnLoad(nullptr);
  (void)bridge.pkcs11_UnLoad(nullptr);
  EXPECT_THAT(alice.loader->calls, ElementsAre("close", "close"));
}

TEST(UnLoadAnswer, IsYesWhateverTheLoaderSays) {
  AliceOnAMac alice;  // its loader fails to close anything
  P11Bridge bridge{alice.services};
  bridge.setPhP11Module(&alice);
  EXPECT_TRUE(bridge.pkcs11_UnLoad(nullptr));
}

class Initial : public UnloadedBridgeTest {};

TEST_F(Initial, AnswersGeneralErrorWithoutAFunctionList) {
  EXPECT_EQ(bridge.pkcs11_Initial(nullptr), CK_RV{5});
}

TEST_F(Initial, HandsItsArgumentOn) {
  ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
  script.forgetCalls();
  CK_C_INITIALIZE_ARGS args{};
  CK_VOID_PTR received = nullptr;
  script.hook<&CK_FUNCTION_LIST::C_Initialize>([&](auto real, CK_VOID_PTR given) {
    received = given;
    return real(given);
  });
  EXPECT_EQ(bridge.pkcs11_Initial(&args), CKR_OK);
  EXPECT_EQ(received, &args);
  EXPECT_TRUE(script.isInitialised());
}

TEST_F(Initial, AnswersWhatTheModuleAnswers) {
  ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
  for (const CK_RV code : {CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_HOST_MEMORY, CKR_CANT_LOCK, ~CK_RV{0}}) {
    SCOPED_TRACE(code);
    script.failCall(0, code);
    EXPECT_EQ(bridge.pkcs11_Initial(nullptr), code);
  }
}

class Finalize : public UnloadedBridgeTest {};

TEST_F(Finalize, NeedsAFunctionListBeforeAllElse) {
  int argument = 0;
  EXPECT_EQ(bridge.pkcs11_Finalize(nullptr), CK_RV{0x190});
  EXPECT_EQ(bridge.pkcs11_Finalize(&argument), CK_RV{0x190});
}

class FinalizeLoaded : public BridgeTest {};

TEST_F(FinalizeLoaded, FinalisesWithANullArgument) {
  EXPECT_EQ(bridge.pkcs11_Finalize(nullptr), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Finalize(null)"));
  EXPECT_FALSE(script.isInitialised());
}

TEST_F(FinalizeLoaded, RefusesAnArgumentWithoutACall) {
  int argument = 0;
  EXPECT_EQ(bridge.pkcs11_Finalize(&argument), CK_RV{6});
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(FinalizeLoaded, AnswersWhatTheModuleAnswers) {
  script.failCall(0, CKR_DEVICE_REMOVED);
  EXPECT_EQ(bridge.pkcs11_Finalize(nullptr), CKR_DEVICE_REMOVED);
}

class GetInfo : public BridgeTest {};

TEST_F(GetInfo, CopiesEveryField) {
  CK_INFO info{};
  std::memset(&info, 0xAA, sizeof info);
  EXPECT_EQ(bridge.pkcs11_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 2);
  EXPECT_EQ(info.cryptokiVersion.minor, 40);
  EXPECT_EQ(std::string(std::begin(info.manufacturerID), std::end(info.manufacturerID)),
            "Scripted modules                ");
  EXPECT_EQ(info.flags, 0U);
  EXPECT_EQ(std::string(std::begin(info.libraryDescription), std::end(info.libraryDescription)),
            "Plays a script                  ");
  EXPECT_EQ(info.libraryVersion.major, 1);
  EXPECT_EQ(info.libraryVersion.minor, 7);
}

TEST_F(GetInfo, CopiesWhatAFailingModuleWrote) {
  script.hook<&CK_FUNCTION_LIST::C_GetInfo>([](auto, CK_INFO* info) {
    info->flags = 77;
    return CKR_FUNCTION_FAILED;
  });
  CK_INFO info{};
  std::memset(&info, 0xAA, sizeof info);
  EXPECT_EQ(bridge.pkcs11_GetInfo(&info), CKR_FUNCTION_FAILED);
  EXPECT_EQ(info.flags, 77U);
  EXPECT_EQ(info.manufacturerID[0], 0);
}

TEST_F(GetInfo, GivesZerosWhenTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetInfo"};
  CK_INFO info{};
  std::memset(&info, 0xAA, sizeof info);
  EXPECT_EQ(bridge.pkcs11_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 0);
  EXPECT_EQ(info.flags, 0U);
  for (const CK_BYTE byte : info.libraryDescription) EXPECT_EQ(byte, 0);
}

TEST_F(GetInfo, RefusesANullDestinationWithoutACall) {
  EXPECT_EQ(bridge.pkcs11_GetInfo(nullptr), CK_RV{7});
  EXPECT_THAT(script.calls(), IsEmpty());
}

class GetInfoUnloaded : public UnloadedBridgeTest {};

TEST_F(GetInfoUnloaded, TestsTheFunctionListFirst) {
  EXPECT_EQ(bridge.pkcs11_GetInfo(nullptr), CK_RV{0x190});
}

}  // namespace
}  // namespace mirel::test
