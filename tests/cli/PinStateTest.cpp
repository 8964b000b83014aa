/// What the flags of the card say about its PIN, and what comes of that.

#include <gmock/gmock.h>

#include "KeyTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

constexpr int kDescriptor = 41;
constexpr const char* kFinalTry = "20000";
constexpr const char* kLocked = "40000";
constexpr const char* kBoth = "60000";
constexpr const char* kCountLow = "10000";
constexpr const char* kPinPad = "100";

class PinFlags : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard({{"rsa2048", "01", "Signature"}});
  }

  /// The same command with the PIN from a file and from a descriptor.
  [[nodiscard]] std::vector<Invocation> withPinFrom(const std::vector<std::string>& command,
                                                    const char* tokenFlags) const {
    std::vector<std::string> fromFile = command;
    fromFile.insert(fromFile.end(), {"--pin-file", write("pin", kPin)});
    std::vector<std::string> fromDescriptor = command;
    fromDescriptor.insert(fromDescriptor.end(), {"--pin-fd", std::to_string(kDescriptor)});
    std::vector<Invocation> calls{staged(fromFile, {}, tokenFlags), staged(fromDescriptor, {}, tokenFlags)};
    calls.back().pipes[kDescriptor] = kPin;
    return calls;
  }

  /// Has the token's information fail from the moment when the flags are looked at, just before the PIN is
  /// had: that is the last look but one of a login that finds no PIN, which looks again to tell of it.
  void loseTokenInfo(Invocation& call) const {
    expectFailure(run(staged({"login", "--pin-file", path("none")})), 14, {"none"});
    call.environment["MIREL_STAGED_TOKEN_INFOS"] = std::to_string(stagedCallsOf("C_GetTokenInfo") - 2);
  }
};

TEST_F(PinFlags, KeepTheLastTryForTheUser) {
  const std::pair<const char*, const char*> kRows[] = {{kFinalTry, "one more wrong PIN locks the card"},
                                                       {kLocked, "the PIN is locked"},
                                                       {kBoth, "the PIN is locked"}};
  for (const auto& [flags, why] : kRows) {
    for (const Invocation& call : withPinFrom({"login"}, flags)) {
      expectFailure(run(call), 17, {"the PIN was not sent to the card: ", why, "--last-try"});
      EXPECT_EQ(stagedCallsOf("C_Login"), 0);
    }
  }
  for (const Invocation& call : withPinFrom({"sign", "--key", "01", "--out", path("signature")}, kFinalTry)) {
    expectFailure(run(call), 17, {"the PIN was not sent to the card"});
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
}

TEST_F(PinFlags, KeepNoTryThatTheUserHasGivenAway) {
  for (const char* flags : {kFinalTry, kLocked}) {
    for (const Invocation& call : withPinFrom({"login", "--last-try"}, flags)) {
      EXPECT_EQ(run(call).exitCode, 0);
      EXPECT_EQ(stagedCallsOf("C_Login"), 1);
    }
  }
}

TEST_F(PinFlags, KeepNoOtherTry) {
  for (const Invocation& call : withPinFrom({"login"}, kCountLow)) {
    EXPECT_EQ(run(call).exitCode, 0);
    EXPECT_EQ(stagedCallsOf("C_Login"), 1);
  }
}

TEST_F(PinFlags, KeepTheTryWhenTheyCannotBeRead) {
  for (Invocation call : withPinFrom({"login"}, "")) {
    loseTokenInfo(call);
    expectFailure(run(call), 13,
                  {"the PIN was not sent to the card: whether it could lock the card is not known",
                   "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)", "--last-try"});
    EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  }
}

TEST_F(PinFlags, AreNotGuessedAtThePrompt) {
  PseudoTerminal terminal;
  Invocation call = staged({"login"});
  loseTokenInfo(call);
  call.terminal = &terminal;
  RunningChild child{call};
  EXPECT_TRUE(terminal.waitFor("PIN for \"Card\" (whether tries are left is not known): "));
  terminal.type("\x03");
  EXPECT_EQ(child.wait().exitCode, 9);
}

TEST_F(PinFlags, TellOfAPinThatCannotBeTyped) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"login"}, {"login", "--last-try"}}) {
    for (const Invocation& call : withPinFrom(command, kPinPad)) {
      expectFailure(run(call), 18, {"cannot be entered here: the card takes it from the keys of the reader"});
      EXPECT_EQ(stagedCallsOf("C_Login"), 0);
    }
  }
  PseudoTerminal terminal;
  Invocation call = staged({"login"}, {}, kPinPad);
  call.terminal = &terminal;
  expectFailure(run(call), 18, {"cannot be entered here: the card takes it from the keys of the reader"});
  EXPECT_THAT(terminal.shown(), IsEmpty());
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

TEST_F(PinFlags, DoNotMatterWhereTheModuleIsLoggedIn) {
  expectFailure(run(staged({"login", "--pin-file", write("pin", kWrongPin)}, "C_Login=100")), 13,
                {"the PIN was not checked", "was logged in already", "CKR_USER_ALREADY_LOGGED_IN (0x100)"});
}

}  // namespace
}  // namespace mirel::test
