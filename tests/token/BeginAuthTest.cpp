#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using enum TKTokenOperation;

constexpr const char* kRefusalKey = "Not suppport this constraint";

class BeginAuth : public ClientSessionTest {
 protected:
  [[nodiscard]] std::shared_ptr<TKTokenAuthOperation> begin(const Text& constraint,
                                                            TKErrorPointer outError = nullptr) {
    return session->beginAuthForOperation(session, kSignData, constraint, outError);
  }
};

TEST_F(BeginAuth, MakesAPinOperationOfItsSessionForThePinConstraints) {
  for (const Text& constraint : {Text{u"PIN"}, Text{u"PINAlways"}}) {
    SCOPED_TRACE(constraint.toUtf8());
    const auto operation = std::dynamic_pointer_cast<MirelSCTokenAuth>(begin(constraint));
    ASSERT_TRUE(operation);
    EXPECT_EQ(operation->session(), session);
  }
}

TEST_F(BeginAuth, MakesANewOperationEachTime) {
  const auto first = begin(Text{u"PIN"});
  const auto second = begin(Text{u"PIN"});
  ASSERT_TRUE(first);
  EXPECT_NE(first, second);
}

TEST_F(BeginAuth, DoesNotLookAtTheOperation) {
  for (const auto operation : {kNone, kReadData, kSignData, kDecryptData, kPerformKeyExchange,
                               TKTokenOperation{5}, TKTokenOperation{-1}}) {
    SCOPED_TRACE(static_cast<std::int64_t>(operation));
    EXPECT_TRUE(session->beginAuthForOperation(session, operation, Text{u"PINAlways"}, nullptr));
    EXPECT_FALSE(session->beginAuthForOperation(session, operation, Text{u"Biometry"}, nullptr));
  }
}

TEST_F(BeginAuth, IsOfTheReceiverNotOfTheArgument) {
  const Client other = newClient();
  const auto operation = std::dynamic_pointer_cast<MirelSCTokenAuth>(
      session->beginAuthForOperation(other.session, kSignData, Text{u"PIN"}, nullptr));
  ASSERT_TRUE(operation);
  EXPECT_EQ(operation->session(), session);
  EXPECT_TRUE(session->beginAuthForOperation(nullptr, kSignData, Text{u"PIN"}, nullptr));
}

TEST_F(BeginAuth, LeavesErrorsAloneWhenAllIsWell) {
  std::optional<TKError> none;
  EXPECT_TRUE(begin(Text{u"PINAlways"}, &none));
  EXPECT_EQ(none, std::nullopt);
  std::optional<TKError> earlier = kEarlierError;
  EXPECT_TRUE(begin(Text{u"PINAlways"}, &earlier));
  EXPECT_EQ(earlier, kEarlierError);
}

TEST_F(BeginAuth, LeavesTheCardAlone) {
  EXPECT_TRUE(begin(Text{u"PIN"}));
  EXPECT_FALSE(begin(Text{u"Biometry"}));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(BeginAuth, DoesNotAuthenticate) {
  EXPECT_TRUE(begin(Text{u"PIN"}));
  EXPECT_EQ(session->authState(), 0);
  EXPECT_EQ(base->card->context(), std::nullopt);
  EXPECT_FALSE(base->card->sensitive());
}

TEST_F(BeginAuth, RefusesOtherConstraints) {
  using namespace std::string_view_literals;
  const struct {
    const char* name;
    Text constraint;
  } rows[] = {
      {"no text", Text{}},
      {"empty", Text{u""}},
      {"biometric", Text{u"Biometry"}},
      {"small letters", Text{u"pin"}},
      {"capital letters", Text{u"PINALWAYS"}},
      {"one letter less", Text{u"PINAlway"}},
      {"one letter more", Text{u"PINS"}},
      {"a blank behind", Text{u"PIN "}},
      {"a NUL behind", Text{u"PIN\0"sv}},
      {"wide letters", Text{u"\uFF30\uFF29\uFF2E"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::optional<TKError> error;
    EXPECT_FALSE(begin(row.constraint, &error));
    EXPECT_EQ(error, tokenError(-8, Text::fromUtf8(kRefusalKey)));
    EXPECT_FALSE(begin(row.constraint, nullptr));
  }
}

TEST_F(BeginAuth, ExplainsARefusalInTheUsersLanguage) {
  strings->texts[kRefusalKey] = Text{u"So geht es nicht: %lu"};
  std::optional<TKError> error;
  EXPECT_FALSE(begin(Text{u"Biometry"}, &error));
  EXPECT_EQ(error, tokenError(-8, Text{u"So geht es nicht: %lu"}));
}

TEST_F(BeginAuth, AsksForTheTextOfARefusalLetterForLetter) {
  std::optional<TKError> error;
  EXPECT_FALSE(begin(Text{u"Biometry"}, &error));
  EXPECT_THAT(strings->askedFor, ElementsAre("Not suppport this constraint"));
}

TEST_F(BeginAuth, ReplacesAnEarlierErrorByARefusal) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_FALSE(begin(Text{u"Biometry"}, &error));
  EXPECT_EQ(error, tokenError(-8, Text::fromUtf8(kRefusalKey)));
}

TEST_F(BeginAuth, LogsNothingOfARefusal) {
  std::optional<TKError> error;
  EXPECT_FALSE(begin(Text{u"Biometry"}, &error));
  EXPECT_FALSE(begin(Text{}, nullptr));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(BeginAuth, IsNullWithoutAnErrorWhenThePlatformRefusesTheOperation) {
  kit->script->refusesPinOperations = true;
  std::optional<TKError> none;
  EXPECT_FALSE(begin(Text{u"PIN"}, &none));
  EXPECT_EQ(none, std::nullopt);
  std::optional<TKError> earlier = kEarlierError;
  EXPECT_FALSE(begin(Text{u"PINAlways"}, &earlier));
  EXPECT_EQ(earlier, kEarlierError);
}

}  // namespace
}  // namespace mirel::test
