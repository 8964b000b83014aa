#include <filesystem>
#include <optional>

#include "host/Home.h"
#include "host/HostTest.h"

namespace mirel::test {
namespace {

class ModuleFailure : public HostTest {
 protected:
  /// What becomes of a user whose home has that file as its module; empty: none.
  [[nodiscard]] Failure failureWith(const std::filesystem::path& module) {
    otherHome.emplace(module);
    PlatformServices mine = services();
    mine.user = std::make_shared<FakeUserDirectory>("alice", otherHome->home());
    Host other{mine};
    Failure failure = failureOf(other.readers());
    EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
    EXPECT_THAT(failure.what, HasSubstr(otherHome->modulePath()));
    return failure;
  }

  std::optional<ModuleHome> otherHome;
};

TEST_F(ModuleFailure, AFileThatIsNoModuleIsExplained) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "libTorvo_p11v1.dylib: .*No such file or directory$"},
      {kNotALibrary, "libTorvo_p11v1.dylib: .*(invalid ELF|too short)"},
      {kModuleWithoutEntry, "undefined symbol: C_GetFunctionList$"},
      {kModuleEntryFails, "^C_GetFunctionList answered CKR_GENERAL_ERROR \\(0x5\\)$"},
      {kModuleEntryFailsWild, "^C_GetFunctionList answered CKR_GENERAL_ERROR \\(0x5\\)$"},
      {kModuleNullList, "^it gives no function list$"},
      {kModuleSilentEntry, "^it gives no function list$"},
  };
  for (const auto& [module, why] : rows) {
    SCOPED_TRACE(module);
    EXPECT_THAT(failureWith(module).why, ContainsRegex(why));
  }
}

TEST_F(ModuleFailure, TheLoadersWordsAreKept) {
  PlatformServices mine = services();
  mine.loader = std::make_shared<RecordingLoader>();
  Host withoutLoader{mine};
  const Failure failure = failureOf(withoutLoader.readers());
  EXPECT_EQ(failure.kind, FailureKind::kModuleNotLoadable);
  EXPECT_EQ(failure.why, "no loader");
}

TEST_F(ModuleFailure, InStartingIsToldByTheNameThatTheUserGaveTheModule) {
  Host named{services(), "./my module.so"};
  script.failCallOf("C_Initialize", 0, CKR_DEVICE_ERROR);
  const Failure failure = failureOf(named.readers());
  EXPECT_THAT(failure.what, AllOf(HasSubstr("./my module.so"), Not(HasSubstr(home.home()))));
}

TEST_F(ModuleFailure, AHomeWithALineEndIsToldInOneLine) {
  PlatformServices mine = services();
  mine.user = userWithHome(user, "/no/such\nhome");
  Host odd{mine};
  EXPECT_EQ(failureOf(odd.readers()).kind, FailureKind::kModuleNotLoadable);
}

TEST_F(ModuleFailure, AModuleThatDoesNotStartIsNamedWithItsResult) {
  script.failCallOf("C_Initialize", 0, CKR_DEVICE_ERROR);
  const Failure failure = failureOf(host.readers());
  EXPECT_EQ(failure.kind, FailureKind::kModuleRefuses);
  EXPECT_THAT(failure.what, HasSubstr(home.modulePath()));
  EXPECT_THAT(failure.why, StartsWith("C_Initialize answered CKR_DEVICE_ERROR (0x30)"));
}

TEST_F(ModuleFailure, AModuleThatWantsParametersIsToldHowToGetThem) {
  script.failCallOf("C_Initialize", 0, CKR_ARGUMENTS_BAD);
  const Failure failure = failureOf(host.readers());
  EXPECT_EQ(failure.kind, FailureKind::kModuleRefuses);
  EXPECT_EQ(failure.why,
            "C_Initialize answered CKR_ARGUMENTS_BAD (0x7), the module wants parameters at its start");
  EXPECT_THAT(failure.advice.words(), HasSubstr("x-init-reserved"));
}

TEST_F(ModuleFailure, AModuleThatRunsAlreadyIsNone) {
  script.setInitialised(true);
  EXPECT_EQ(readers().size(), 1U);
}

TEST_F(ModuleFailure, AModuleThatDoesNotListItsSlotsIsNamedWithItsResult) {
  for (const std::size_t call : {0U, 1U}) {
    SCOPED_TRACE(call);
    script.reset();
    script.failCallOf("C_GetSlotList", call, CKR_GENERAL_ERROR);
    const Failure failure = failureOf(host.readers());
    EXPECT_EQ(failure.kind, FailureKind::kModuleRefuses);
    EXPECT_THAT(failure.why, StartsWith("C_GetSlotList answered CKR_GENERAL_ERROR (0x5)"));
  }
  script.reset();
  script.removeEntry("C_GetSlotList");
  EXPECT_THAT(failureOf(host.readers()).why,
              StartsWith("C_GetSlotList answered CKR_FUNCTION_NOT_SUPPORTED (0x54)"));
}

TEST_F(ModuleFailure, IsForgottenAtTheNextTry) {
  ModuleHome lateHome{{}};
  PlatformServices mine = services();
  mine.user = std::make_shared<FakeUserDirectory>("alice", lateHome.home());
  Host late{mine};
  EXPECT_EQ(failureOf(late.readers()).kind, FailureKind::kModuleNotLoadable);
  EXPECT_EQ(failureOf(late.insert(Text{})).kind, FailureKind::kModuleNotLoadable);
  std::filesystem::create_symlink(kScriptedModule, lateHome.modulePath());
  EXPECT_TRUE(late.readers());
}

TEST_F(ModuleFailure, ReachesWhoeverInsertsAlsoWhenItComesAfterTheListing) {
  for (const std::size_t call : {0U, 1U}) {
    script.reset();
    script.failCallOf("C_Initialize", call, CKR_DEVICE_MEMORY);
    const Failure failure = failureOf(host.insert(Text{}));
    EXPECT_EQ(failure.kind, FailureKind::kModuleRefuses);
    EXPECT_THAT(failure.why, StartsWith("C_Initialize answered CKR_DEVICE_MEMORY (0x31)"));
  }
}

TEST_F(ModuleFailure, AFunctionListThatIsGoneWhenTheCardIsInsertedIsTold) {
  int calls = 0;
  script.hook<&CK_FUNCTION_LIST::C_GetFunctionList>([&](auto real, auto** list) {
    if (++calls == 1) return real(list);
    *list = nullptr;
    return CKR_OK;
  });
  EXPECT_EQ(failureOf(host.insert(Text{})).kind, FailureKind::kModuleRefuses);
}

}  // namespace
}  // namespace mirel::test
