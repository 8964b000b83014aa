/// Loading, initialising, asking, finalising and unloading the module.

#include <cstring>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kTail = "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";

/// A bridge on a system on which nothing can be loaded.
class LoadPath : public ::testing::Test {
 protected:
  /// Has a user of that name and home load a module.
  void load(const std::string& loginName, const std::string& home, const Text& path = Text{}) {
    PlatformServices services;
    services.loader = loader;
    user = std::make_shared<FakeUserDirectory>(loginName, home);
    services.user = user;
    services.log = log;
    bridge = std::make_unique<P11Bridge>(services);
    EXPECT_EQ(bridge->p11dylib(), nullptr);
    EXPECT_FALSE(bridge->pkcs11_Load(path));
    EXPECT_EQ(bridge->ckFunc(), nullptr);
  }

  std::shared_ptr<RecordingLoader> loader = std::make_shared<RecordingLoader>();
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  std::shared_ptr<FakeUserDirectory> user;
  std::unique_ptr<P11Bridge> bridge;
};

TEST_F(LoadPath, IsInTheHomeOfTheLoginNameWhateverPathIsGivenStoredAndLoggedOnce) {
  const struct {
    const char* what;
    std::string loginName;
    std::string home;
    Text path{};
  } rows[] = {
      {"a usual home", "alice", "/Users/alice"},
      {"a home that is elsewhere", "bob", "/home/elsewhere"},
      {"characters that mean something to others", "%s", "/home/%s %n \xC3\xBC"},
      {"an empty path", "alice", "/Users/alice", Text{u""}},
      {"a relative path", "alice", "/Users/alice", Text{u"libs/libTorvo_p11v1.dylib"}},
      {"a full path", "alice", "/Users/alice", Text{u"/tmp/other.dylib"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    loader->calls.clear();
    log->allLines.clear();
    load(row.loginName, row.home, row.path);
    EXPECT_THAT(user->askedFor(), ElementsAre(row.loginName));
    EXPECT_THAT(loader->calls, ElementsAre("open " + row.home + kTail));
    ASSERT_NE(bridge->p11dylib(), nullptr);
    EXPECT_EQ(*bridge->p11dylib(), row.home + kTail);
    EXPECT_THAT(log->allLines,
                ElementsAre("process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = " + row.home + kTail));
  }
}

TEST_F(LoadPath, IsNowhereForAnUnknownUserOrOneWithoutAHome) {
  load("", "");
  load("alice", "");
  EXPECT_THAT(loader->calls, IsEmpty());
  EXPECT_EQ(bridge->p11dylib(), nullptr);
}

// ---- pkcs11_Load and pkcs11_UnLoad ----

class LoadModule : public UnloadedBridgeTest {};

TEST_F(LoadModule, TakesTheFunctionListOfAGoodModuleAndDoesNotInitialiseIt) {
  EXPECT_TRUE(bridge.pkcs11_Load(Text{}));
  EXPECT_NE(bridge.phP11Module(), nullptr);
  EXPECT_NE(bridge.phFunctionList(), nullptr);
  ASSERT_NE(bridge.ckFunc(), nullptr);
  EXPECT_EQ(bridge.ckFunc()->version.major, 2);
  EXPECT_THAT(loader->calls, ElementsAre("open " + home.modulePath(), "symbol C_GetFunctionList"));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetFunctionList()"));
  EXPECT_FALSE(script.isInitialised());
  using Event = RecordingObserver::Event;
  EXPECT_THAT(observer->events, ElementsAre(Event{Event::Kind::kCallStarts, "C_GetFunctionList"},
                                            Event{Event::Kind::kCallReturned, "C_GetFunctionList"}));
}

TEST_F(LoadModule, CanBeTriedAgainAfterTheEntryPointFailed) {
  script.failCallOf("C_GetFunctionList", 0, CKR_HOST_MEMORY);
  EXPECT_FALSE(bridge.pkcs11_Load(Text{}));
  EXPECT_TRUE(script.fired());
  EXPECT_EQ(bridge.ckFunc(), nullptr);
  EXPECT_TRUE(bridge.pkcs11_Load(Text{}));
  EXPECT_NE(bridge.ckFunc(), nullptr);
}

TEST_F(LoadModule, FailsOnEveryFaultOfTheLibraryAndKeepsWhatItReached) {
  const struct {
    const char* what;
    const char* module;  // empty: no file
    bool opens = true;
    bool hasEntry = true;
  } rows[] = {
      {"no file", "", false, false},
      {"not a library", kNotALibrary, false, false},
      {"dangling link", "/nonexistent/module", false, false},
      {"no entry point", kModuleWithoutEntry, true, false},
      {"entry point fails", kModuleEntryFails},
      {"entry point fails with a wild list", kModuleEntryFailsWild},
      {"null list", kModuleNullList},
      {"entry point succeeds without writing", kModuleSilentEntry},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    useModule(row.module);
    loader->calls.clear();
    P11Bridge fresh{services()};
    EXPECT_FALSE(fresh.pkcs11_Load(Text{}));
    EXPECT_EQ(fresh.phP11Module() != nullptr, row.opens);
    EXPECT_EQ(fresh.phFunctionList() != nullptr, row.hasEntry);
    EXPECT_EQ(fresh.ckFunc(), nullptr);
    EXPECT_EQ(*fresh.p11dylib(), user->homeOf("alice") + kTail);
    EXPECT_THAT(loader->calls, Not(Contains("close")));
    CK_INFO info{};
    EXPECT_EQ(fresh.pkcs11_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

class UnLoad : public UnloadedBridgeTest {};

// The list is stale by design. This module stays mapped, because the test holds it too.
TEST_F(UnLoad, ClosesTheModuleIfThereIsOneKeepsAllPropertiesAndGoesOnCallingThroughTheOldList) {
  EXPECT_FALSE(bridge.pkcs11_UnLoad(nullptr));
  EXPECT_THAT(loader->calls, IsEmpty());
  ASSERT_TRUE(bridge.pkcs11_Load(Text{}));
  void* const module = bridge.phP11Module();
  const auto entry = bridge.phFunctionList();
  CK_FUNCTION_LIST* const list = bridge.ckFunc();
  loader->calls.clear();
  EXPECT_TRUE(bridge.pkcs11_UnLoad(nullptr));
  EXPECT_THAT(loader->calls, ElementsAre("close"));
  EXPECT_EQ(bridge.phP11Module(), module);
  EXPECT_EQ(bridge.phFunctionList(), entry);
  EXPECT_EQ(bridge.ckFunc(), list);
  EXPECT_EQ(*bridge.p11dylib(), home.modulePath());
  script.forgetCalls();
  EXPECT_EQ(bridge.pkcs11_Initial(nullptr), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_Initialize(null)"));
}

TEST_F(UnLoad, ClosesTheSameHandleAgainAndSucceedsWhateverTheLoaderAnswers) {
  PlatformServices withoutLoader = services();
  loader = std::make_shared<RecordingLoader>();  // fails to close anything
  withoutLoader.loader = loader;
  P11Bridge other{withoutLoader};
  other.setPhP11Module(&other);
  EXPECT_TRUE(other.pkcs11_UnLoad(nullptr));
  EXPECT_TRUE(other.pkcs11_UnLoad(nullptr));
  EXPECT_THAT(loader->calls, ElementsAre("close", "close"));
}

// ---- pkcs11_Initial, pkcs11_Finalize, pkcs11_GetInfo ----

class LoadedModule : public BridgeTest {};

TEST_F(LoadedModule, IsInitialisedWithTheArgumentGiven) {
  script.setInitialised(false);
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

TEST_F(LoadedModule, IsFinalisedWithANullArgumentAndNoOther) {
  EXPECT_EQ(bridge.pkcs11_Finalize(this), CKR_FUNCTION_FAILED);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_TRUE(script.isInitialised());
  EXPECT_EQ(bridge.pkcs11_Finalize(nullptr), CKR_OK);
  EXPECT_FALSE(script.isInitialised());
}

class GetInfo : public BridgeTest {
 protected:
  GetInfo() { std::memset(&info, 0xAA, sizeof info); }

  CK_INFO info;
};

TEST_F(GetInfo, NeedsADestinationAndCopiesEveryField) {
  EXPECT_EQ(bridge.pkcs11_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_EQ(bridge.pkcs11_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 2);
  EXPECT_EQ(info.cryptokiVersion.minor, 40);
  EXPECT_EQ(fieldText(info.manufacturerID), "Scripted modules                ");
  EXPECT_EQ(info.flags, 0U);
  EXPECT_EQ(fieldText(info.libraryDescription), "Plays a script                  ");
  EXPECT_EQ(info.libraryVersion.major, 1);
  EXPECT_EQ(info.libraryVersion.minor, 7);
}

TEST_F(GetInfo, CopiesWhatAFailingModuleWroteAndZerosWhereNoneDid) {
  script.hook<&CK_FUNCTION_LIST::C_GetInfo>([](auto, CK_INFO* out) {
    out->flags = 77;
    return CKR_FUNCTION_FAILED;
  });
  EXPECT_EQ(bridge.pkcs11_GetInfo(&info), CKR_FUNCTION_FAILED);
  EXPECT_EQ(info.flags, 77U);
  EXPECT_EQ(info.manufacturerID[0], 0);
  script.deviations.silent = {"C_GetInfo"};
  EXPECT_EQ(bridge.pkcs11_GetInfo(&info), CKR_OK);
  EXPECT_EQ(info.cryptokiVersion.major, 0);
  EXPECT_EQ(info.flags, 0U);
  EXPECT_EQ(fieldText(info.libraryDescription), std::string(32, '\0'));
}

}  // namespace
}  // namespace mirel::test
