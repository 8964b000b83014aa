#include "CodeMeaning.h"

#include <set>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

constexpr FailureKind kElse = FailureKind::kCardRefuses;

constexpr CK_RV kGone[] = {CKR_DEVICE_REMOVED,         CKR_TOKEN_NOT_PRESENT, CKR_SLOT_ID_INVALID,
                           CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED,    CKR_CRYPTOKI_NOT_INITIALIZED};

constexpr CK_RV kOthers[] = {CKR_TOKEN_NOT_RECOGNIZED,
                             CKR_DEVICE_ERROR,
                             CKR_DEVICE_MEMORY,
                             CKR_HOST_MEMORY,
                             CKR_GENERAL_ERROR,
                             CKR_FUNCTION_FAILED,
                             CKR_USER_NOT_LOGGED_IN,
                             CKR_KEY_FUNCTION_NOT_PERMITTED,
                             CKR_KEY_TYPE_INCONSISTENT,
                             CKR_KEY_HANDLE_INVALID,
                             CKR_MECHANISM_INVALID,
                             CKR_DATA_LEN_RANGE,
                             CKR_ENCRYPTED_DATA_INVALID,
                             CKR_ENCRYPTED_DATA_LEN_RANGE,
                             CKR_PIN_EXPIRED};

void expectKnown(CK_RV code, FailureKind kind) {
  SCOPED_TRACE(code);
  const Failure failure = failureBecauseOf({"C_Sign", code}, "what", kElse);
  expectPresentable(failure);
  EXPECT_EQ(failure.kind, kind);
  EXPECT_THAT(failure.why, Not(HasSubstr("no known reason")));
  EXPECT_THAT(failure.why, HasSubstr("), ")) << "no reason";
}

TEST(CodeMeaning, KnowsTheCodesOfCards) {
  for (const CK_RV code : kGone) expectKnown(code, FailureKind::kCardGone);
  for (const CK_RV code : {CKR_PIN_INVALID, CKR_PIN_LEN_RANGE}) expectKnown(code, FailureKind::kPinWrong);
  for (const CK_RV code : kOthers) expectKnown(code, kElse);
}

TEST(CodeMeaning, KnowsWhatToDoAboutAPin) {
  EXPECT_EQ(meaningOf("C_Login", CKR_PIN_INCORRECT).kind, FailureKind::kPinWrong);
  EXPECT_EQ(meaningOf("C_Login", CKR_PIN_LOCKED).kind, FailureKind::kPinLocked);
  EXPECT_THAT(std::string{meaningOf("C_Login", CKR_PIN_LOCKED).remedy.words()}, HasSubstr("issuer"));
}

TEST(CodeMeaning, AdvisesToRunAgainFirstWhereTheModuleDoesNotSayWhatFailed) {
  for (const CK_RV code : {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED}) {
    for (const char* function : {"C_GetTokenInfo", "C_OpenSession", "C_FindObjects"}) {
      EXPECT_THAT(std::string{meaningOf(function, code).remedy.words()},
                  ::testing::StartsWith("run again; "));
      EXPECT_THAT(std::string{meaningOf(function, code).reason},
                  HasSubstr("another program may use the card"));
    }
    // A PIN may cost a try.
    EXPECT_THAT(std::string{meaningOf("C_Login", code).remedy.words()}, ::testing::StartsWith("check "));
  }
}

TEST(CodeMeaning, IsTheSameInEveryFunctionForACardThatIsGone) {
  for (const CK_RV code : kGone) {
    std::set<std::string> remedies;
    for (const char* function : {"C_GetTokenInfo", "C_GetAttributeValue", "C_Login", "C_Sign", "C_Decrypt"})
      remedies.emplace(meaningOf(function, code).remedy.words());
    EXPECT_EQ(remedies.size(), 1U) << code;
  }
}

TEST(CodeMeaning, AdvisesToLookAtTheDataOnlyWhereTheyCanBeTheCause) {
  for (const CK_RV code : {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED}) {
    EXPECT_THAT(std::string{meaningOf("C_Decrypt", code).remedy.words()},
                HasSubstr("encrypted for this key"));
    EXPECT_THAT(std::string{meaningOf("C_Sign", code).remedy.words()}, Not(HasSubstr("encrypted")));
  }
}

TEST(CodeMeaning, BlamesAnObjectOnlyWhereOneWasAsked) {
  for (const CK_RV code : {CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_SENSITIVE}) {
    EXPECT_THAT(std::string{meaningOf("C_GetAttributeValue", code).reason}, HasSubstr("an object"));
    EXPECT_THAT(std::string{meaningOf("C_FindObjectsInit", code).reason}, Not(HasSubstr("an object")));
  }
}

TEST(CodeMeaning, SaysThatACodeIsNotKnown) {
  for (const CK_RV code : {CK_RV{CKR_VENDOR_DEFINED | 0x123}, CK_RV{CKR_FUNCTION_NOT_PARALLEL}}) {
    const Failure failure = failureBecauseOf({"C_Sign", code}, "what", kElse);
    expectPresentable(failure);
    EXPECT_EQ(failure.kind, kElse);
    EXPECT_THAT(failure.why, HasSubstr("a code that has no known reason here"));
  }
}

TEST(CodeMeaning, NamesOperationsOfTheSystemItselfAsSuch) {
  EXPECT_EQ(answerText({"pkcs11_FindSlot", CKR_SLOT_ID_INVALID}),
            "pkcs11_FindSlot ended with CKR_SLOT_ID_INVALID (0x3)");
}

}  // namespace
}  // namespace mirel::test
