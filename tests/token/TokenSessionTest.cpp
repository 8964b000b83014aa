#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kStart = "default: CTK [MirelSCTokenSession-70] +++START+++";
constexpr const char* kRefused = "process: [MirelSCTokenSession-73] ERROR";
constexpr const char* kNoProvider = "process: [MirelSCTokenSession-78] ERROR";
constexpr const char* kEnd = "default: CTK [MirelSCTokenSession-81] ---END---";

/// A session that is not yet initialised, beside the token and session of the base class.
class TokenSession : public ClientSessionTest {
 protected:
  [[nodiscard]] bool init(const MirelSCToken* of, bool isTaken = true) {
    return session.initWithToken(of, [&] {
      log->process("super");
      return isTaken;
    });
  }

  MirelSCTokenSession session{services()};
};

// ---- The initialiser ----

TEST_F(TokenSession, TakesTheProviderOfItsTokenAndIsNotAuthenticatedAtFirst) {
  EXPECT_EQ(session.sp(), nullptr);
  EXPECT_TRUE(init(&token->core));
  EXPECT_TRUE(session.sp());
  EXPECT_EQ(session.sp(), token->core.sp());
  EXPECT_THAT(log->allLines, ElementsAre(kStart, "process: super", kEnd));
  EXPECT_EQ(session.authState(), 0);
  session.setAuthState(1);
  EXPECT_EQ(session.authState(), 1);
}

TEST_F(TokenSession, TakesTheProviderThatTheTokenHasBehindThePlatformsInitialiser) {
  const auto super = [&] {
    token->core.setSp(nullptr);
    return true;
  };
  EXPECT_TRUE(session.initWithToken(&token->core, super));
  EXPECT_FALSE(session.sp());
}

TEST_F(TokenSession, KeepsItsProviderWhenTheTokenGetsAnotherOrEnds) {
  EXPECT_TRUE(init(&token->core));
  const std::weak_ptr<CryptTKitSProvider> provider = token->core.sp();
  token->core.setSp(nullptr);
  client.reset();
  token.reset();
  EXPECT_EQ(session.sp(), provider.lock());
  EXPECT_FALSE(provider.expired());
  session.setSp(nullptr);
  EXPECT_TRUE(provider.expired());
}

TEST_F(TokenSession, FailsWhenThePlatformRefuses) {
  EXPECT_FALSE(init(&token->core, false));
  EXPECT_FALSE(session.sp());
  EXPECT_THAT(log->allLines, ElementsAre(kStart, "process: super", kRefused));
}

TEST_F(TokenSession, GoesOnWithoutAProvider) {
  const MirelSCToken withoutProvider{services()};
  for (const MirelSCToken* const of : {&withoutProvider, static_cast<const MirelSCToken*>(nullptr)}) {
    SCOPED_TRACE(of ? "of a token" : "of no token");
    log->allLines.clear();
    EXPECT_TRUE(init(of));
    EXPECT_FALSE(session.sp());
    EXPECT_THAT(log->allLines, ElementsAre(kStart, "process: super", kNoProvider, kEnd));
  }
}

// ---- How a token makes one ----

TEST_F(TokenSession, IsMadeByTheTokenBetweenItsLines) {
  constexpr const char* kToken = "process: [MirelSCToken-148] token = <t>";
  constexpr const char* kNew = "process: new";
  constexpr const char* kSession = "process: [MirelSCToken-155] token session = <s>";
  const std::optional<TKError> none;
  const std::optional<TKError> withText = tokenError(-9, Text{u"Why"});
  const std::optional<TKError> withoutText = tokenError(-9);
  const auto expectLines = [&](const std::optional<TKError>* error, const std::vector<std::string>& lines) {
    log->allLines.clear();
    token->core.createSessionWithError(Text{u"<t>"}, error, [&] {
      log->process("new");
      return Text{u"<s>"};
    });
    EXPECT_EQ(log->allLines, lines);
  };
  expectLines(&none, {kToken, kNew, kSession});
  expectLines(nullptr,
              {kToken, "process: [MirelSCToken-150] token createSessionWithError NO ERROR!", kNew, kSession});
  const std::string error = "process: [MirelSCToken-152] Error: Error Domain=CryptoTokenKit Code=-9 ";
  expectLines(&withText, {kToken, error + "\"Why\"", kNew, kSession});
  expectLines(&withoutText, {kToken, error + "\"(null)\"", kNew, kSession});
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(TokenSession, IsLoggedAsNullWhereThereIsNone) {
  const std::optional<TKError> none;
  token->core.createSessionWithError(Text{}, &none, [] { return Text{}; });
  EXPECT_THAT(log->allLines, ElementsAre("process: [MirelSCToken-148] token = (null)",
                                         "process: [MirelSCToken-155] token session = (null)"));
}

// ---- The beginning of an authentication ----

constexpr const char* kRefusalKey = "Not suppport this constraint";

class BeginAuth : public ClientSessionTest {
 protected:
  [[nodiscard]] bool begin(const Text& constraint, TKErrorPointer outError = nullptr) {
    return client->core->beginAuthForOperation(constraint, outError);
  }
};

TEST_F(BeginAuth, IsForThePinConstraintsAndDoesNothingElse) {
  for (const Text& constraint : {Text{u"PIN"}, Text{u"PINAlways"}}) {
    SCOPED_TRACE(constraint.toUtf8());
    EXPECT_TRUE(begin(constraint));
    for (const auto& before : kErrorsBefore) {
      std::optional<TKError> error = before;
      EXPECT_TRUE(begin(constraint, &error));
      EXPECT_EQ(error, before);
    }
  }
  EXPECT_EQ(client->core->authState(), 0);
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(BeginAuth, RefusesOtherConstraints) {
  using namespace std::string_view_literals;
  // None, others, and neighbours of those that there are: the last one is in wide letters.
  for (const Text& constraint :
       {Text{}, Text{u""}, Text{u"Biometry"}, Text{u"pin"}, Text{u"PINALWAYS"}, Text{u"PINAlway"},
        Text{u"PINS"}, Text{u"PIN "}, Text{u"PIN\0"sv}, Text{u"\uFF30\uFF29\uFF2E"}}) {
    SCOPED_TRACE(constraint.toUtf8());
    EXPECT_FALSE(begin(constraint));
    for (const auto& before : kErrorsBefore) {
      std::optional<TKError> error = before;
      EXPECT_FALSE(begin(constraint, &error));
      EXPECT_EQ(error, tokenError(-8, Text::fromUtf8(kRefusalKey)));
    }
  }
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(BeginAuth, ExplainsARefusalInTheUsersLanguage) {
  strings->texts[kRefusalKey] = Text{u"So geht es nicht: %lu"};
  std::optional<TKError> error;
  EXPECT_FALSE(begin(Text{u"Biometry"}, &error));
  EXPECT_EQ(error, tokenError(-8, Text{u"So geht es nicht: %lu"}));
  EXPECT_THAT(strings->askedFor, ElementsAre(kRefusalKey));
}

}  // namespace
}  // namespace mirel::test
