#include <openssl/rsa.h>

#include <algorithm>

#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

const Value kMessage = bytesOf("a message");

/// What a module notices of another card in the slot.
enum class Notices { kAtOnce, kNoSessionEnds, kNoLoginEnds };

/// A client whose card leaves within a request, and may make room for another one: with keys of the same IDs,
/// the same PIN, and the same slot.
class SwappedInRequest : public KeyClientTest {
 protected:
  void begin() {
    script.reset();
    startAnew();
    script.hook<&CK_FUNCTION_LIST::C_Sign>(
        [&](auto real, auto session, auto* data, auto dataLen, auto* out, auto* outLen) {
          const CK_RV rv = real(session, data, dataLen, out, outLen);
          if (rv != CKR_OK || !out) return rv;
          const SoftwareKey& owner = script.card().info.label[0] == 'O' ? otherKey_ : key;
          const Value made = owner.rawPrivate(Value(data, data + dataLen));
          std::copy(made.begin(), made.end(), out);
          return rv;
        });
  }

  void swap(Notices notices) {
    Card other = script.card();
    setField(other.info.label, "OTHER");
    setField(other.info.serialNumber, "0000000000000002");
    for (auto& [handle, object] : other.objects) {
      const auto modulus = object.attributes.find(CKA_MODULUS);
      if (modulus != object.attributes.end()) modulus->second = otherKey_.modulus();
    }
    other.loggedIn = other.loggedIn && notices == Notices::kNoLoginEnds;
    if (notices == Notices::kAtOnce) script.pullCard();
    script.insertCard(other);
  }

 private:
  const SoftwareKey& otherKey_ = SoftwareKey::rsa(kBits, "other card");
};

TEST_F(SwappedInRequest, SignsNothingAsTheOneThatWasInserted) {
  for (const auto notices : {Notices::kAtOnce, Notices::kNoSessionEnds, Notices::kNoLoginEnds}) {
    for (const bool afterLogin : {false, true}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(notices)) + (afterLogin ? ", after the login" : ""));
      std::size_t numSwaps = 0;
      for (bool came = true; came; ++numSwaps) {
        SCOPED_TRACE(numSwaps);
        begin();
        GivenPins given{{u"123456", u"123456"}};
        if (afterLogin) {
          EXPECT_TRUE(client->logIn(given));
        }
        script.beforeCall(numSwaps, [&] { swap(notices); });
        GivenInput input{{kMessage}};
        const auto made = client->sign(published(u"01"), kSignByPss, input, given);
        came = script.cameToCall();
        if (!made) {
          EXPECT_TRUE(came);
          EXPECT_THAT(made.failure().kind, AnyOf(FailureKind::kAnotherCard, FailureKind::kCardGone));
          continue;
        }
        EXPECT_TRUE(made->fault || verified(kSignByPss, *made));
      }
      EXPECT_GT(numSwaps, 30U);
    }
  }
}

TEST_F(SwappedInRequest, LeavesWhatTheCardMadeBeforeItWasTakenOut) {
  EXPECT_TRUE(client->logIn(pins));
  script.hook<&CK_FUNCTION_LIST::C_Sign>([&](auto, auto, auto*, auto, auto* out, auto* outLen) {
    std::fill_n(out, *outLen = key.blockSize(), CK_BYTE{1});  // whether it verifies is not asked here
    script.pullCard();
    return CKR_OK;
  });
  EXPECT_FALSE(signature(kSignByPss, kMessage).fault);
}

TEST_F(SwappedInRequest, IsLookedForOnceItWasToldThatTheSignatureDoesNotVerify) {
  EXPECT_TRUE(client->logIn(pins));
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [&](auto real, auto session, auto* data, auto dataLen, auto* out, auto* outLen) {
        const CK_RV rv = real(session, data, dataLen, out, outLen);
        if (rv == CKR_OK && out) std::fill_n(out, *outLen, CK_BYTE{1});
        return rv;
      });
  std::vector<FailureKind> told;
  std::size_t numLooksBefore = 0;
  client->whenItFails([&](const Failure& failure) {
    told.push_back(failure.kind);
    numLooksBefore = script.countOf("C_GetTokenInfo");
  });
  EXPECT_FALSE(signature(kSignByPss, kMessage).fault);
  EXPECT_THAT(told, ElementsAre(FailureKind::kVerificationFailed));
  EXPECT_GT(script.countOf("C_GetTokenInfo"), numLooksBefore);
}

// ---- Modules that do not say that the card has left ----

TEST_F(SwappedInRequest, IsWhyNoPinIsTaken) {
  script.hook<&CK_FUNCTION_LIST::C_Login>([&](auto, auto...) {
    script.pullCard();
    return CKR_GENERAL_ERROR;
  });
  const Failure failure = failureOf(client->logIn(pins));
  expectPresentable(failure);
  EXPECT_EQ(failure.kind, FailureKind::kCardGone);
  EXPECT_EQ(failure.what, "the card is not in the reader \"Reader A 00\" any more");
}

TEST_F(SwappedInRequest, IsWhyThereIsNoSignature) {
  EXPECT_TRUE(client->logIn(pins));
  script.hook<&CK_FUNCTION_LIST::C_SignInit>([&](auto, auto...) {
    swap(Notices::kNoSessionEnds);
    return CKR_USER_NOT_LOGGED_IN;
  });
  const Signature made = signature(kSignByPss, kMessage);
  ASSERT_TRUE(made.fault && made.fault->failure);
  EXPECT_EQ(made.fault->failure->kind, FailureKind::kAnotherCard);
}

TEST_F(SwappedInRequest, IsWhyThereIsNoPlainText) {
  EXPECT_TRUE(client->logIn(pins));
  script.hook<&CK_FUNCTION_LIST::C_Decrypt>([&](auto, auto...) {
    swap(Notices::kAtOnce);
    return CKR_ENCRYPTED_DATA_INVALID;
  });
  EXPECT_EQ(decryptFailure(kDecryptPkcs1, key.encrypted(kMessage, RSA_PKCS1_PADDING)).kind,
            FailureKind::kAnotherCard);
}

TEST_F(SwappedInRequest, IsNotBlamedForAPinThatIsWrong) {
  script.hook<&CK_FUNCTION_LIST::C_Login>([&](auto, auto...) {
    script.pullCard();
    return CKR_PIN_LOCKED;
  });
  EXPECT_EQ(failureOf(client->logIn(pins)).kind, FailureKind::kPinLocked);
}

}  // namespace
}  // namespace mirel::test
