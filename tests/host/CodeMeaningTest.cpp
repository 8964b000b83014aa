#include "CodeMeaning.h"

#include <set>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

constexpr FailureKind kElse = FailureKind::kCardRefuses;

struct Row {
  CK_RV code;
  FailureKind kind;
};

const Row kGoneRows[] = {
    {CKR_DEVICE_REMOVED, FailureKind::kCardGone},  {CKR_TOKEN_NOT_PRESENT, FailureKind::kCardGone},
    {CKR_SLOT_ID_INVALID, FailureKind::kCardGone}, {CKR_SESSION_HANDLE_INVALID, FailureKind::kCardGone},
    {CKR_SESSION_CLOSED, FailureKind::kCardGone},  {CKR_CRYPTOKI_NOT_INITIALIZED, FailureKind::kCardGone}};

const Row kOtherRows[] = {{CKR_TOKEN_NOT_RECOGNIZED, kElse},
                          {CKR_DEVICE_ERROR, kElse},
                          {CKR_DEVICE_MEMORY, kElse},
                          {CKR_HOST_MEMORY, kElse},
                          {CKR_GENERAL_ERROR, kElse},
                          {CKR_FUNCTION_FAILED, kElse},
                          {CKR_USER_NOT_LOGGED_IN, kElse},
                          {CKR_KEY_FUNCTION_NOT_PERMITTED, kElse},
                          {CKR_KEY_TYPE_INCONSISTENT, kElse},
                          {CKR_KEY_HANDLE_INVALID, kElse},
                          {CKR_MECHANISM_INVALID, kElse},
                          {CKR_DATA_LEN_RANGE, kElse},
                          {CKR_ENCRYPTED_DATA_INVALID, kElse},
                          {CKR_ENCRYPTED_DATA_LEN_RANGE, kElse},
                          {CKR_PIN_EXPIRED, kElse},
                          {CKR_PIN_INVALID, FailureKind::kPinWrong},
                          {CKR_PIN_LEN_RANGE, FailureKind::kPinWrong}};

void expectKnown(const Row& row) {
  const Failure failure = failureBecauseOf({"C_Sign", row.code}, "what", kElse);
  expectPresentable(failure);
  EXPECT_EQ(failure.kind, row.kind);
  EXPECT_THAT(failure.why, Not(HasSubstr("no known reason")));
  EXPECT_THAT(failure.why, HasSubstr("), ")) << "no reason";
}

TEST(CodeMeaning, KnowsTheCodesOfACardThatIsGone) {
  for (const Row& row : kGoneRows) {
    SCOPED_TRACE(row.code);
    expectKnown(row);
  }
}

TEST(CodeMeaning, KnowsTheOtherCodesOfCards) {
  for (const Row& row : kOtherRows) {
    SCOPED_TRACE(row.code);
    expectKnown(row);
  }
}

TEST(CodeMeaning, KnowsWhatToDoAboutAPin) {
  EXPECT_EQ(meaningOf("C_Login", CKR_PIN_INCORRECT).kind, FailureKind::kPinWrong);
  EXPECT_EQ(meaningOf("C_Login", CKR_PIN_LOCKED).kind, FailureKind::kPinLocked);
  EXPECT_THAT(std::string{meaningOf("C_Login", CKR_PIN_LOCKED).remedy.words()}, HasSubstr("issuer"));
}

TEST(CodeMeaning, IsTheSameInEveryFunctionForACardThatIsGone) {
  for (const Row& row : kGoneRows) {
    std::set<std::string> remedies;
    for (const char* function : {"C_GetTokenInfo", "C_GetAttributeValue", "C_Login", "C_Sign", "C_Decrypt"})
      remedies.emplace(meaningOf(function, row.code).remedy.words());
    EXPECT_EQ(remedies.size(), 1U) << row.code;
  }
}

TEST(CodeMeaning, AdvisesToLookAtTheDataOnlyWhereTheyCanBeTheCause) {
  for (const CK_RV code : {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED}) {
    EXPECT_THAT(std::string{meaningOf("C_Decrypt", code).remedy.words()},
                HasSubstr("encrypted for this key"));
    EXPECT_THAT(std::string{meaningOf("C_Sign", code).remedy.words()}, Not(HasSubstr("encrypted")));
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
