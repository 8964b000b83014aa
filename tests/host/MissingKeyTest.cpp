#include "host/HostTest.h"
#include "host/KeyChoice.h"

namespace mirel::test {
namespace {

/// A card with the keys "01" (label "MyKey") and "02" (label "Second"), which may be read in part only.
class MissingKey : public InsertedCardTest {
 protected:
  MissingKey() { begin(); }

  void begin() {
    setCertificate({});
    addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {});
  }

  /// The key's object identifier; null where the name stands for none.
  [[nodiscard]] static Text chosen(const InsertedCard& card, std::string_view name) {
    const auto outcome = chooseKey(card, name);
    return outcome ? outcome->key.objectID : Text{};
  }
};

TEST_F(MissingKey, DoesNotLendItsNumberToAnother) {
  bool failed = false;
  script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
      [&](auto real, auto session, auto object, auto* values, auto count) {
        if (values->type != CKA_MODULUS || std::exchange(failed, true))
          return real(session, object, values, count);
        return CK_RV{CKR_DEVICE_ERROR};
      });
  const InsertedCard card = inserted();
  ASSERT_EQ(keysOf(card).size(), 1U);
  for (const char* name : {"#1", "#2", "MyKey", "Second"}) {
    const Failure failure = failureOf(chooseKey(card, name));
    EXPECT_EQ(failure.kind, FailureKind::kCardEnumerationFailed) << name;
    EXPECT_THAT(failure.why, HasSubstr("C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)"));
  }
  EXPECT_EQ(chosen(card, "02"), Text{u"02"});
  EXPECT_EQ(failureOf(chooseKey(card, "01")).kind, FailureKind::kCardEnumerationFailed);
}

TEST_F(MissingKey, NeverChangesWhatANameStandsForWhateverCallFails) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_GENERAL_ERROR, CKR_SESSION_HANDLE_INVALID}) {
    forEachFailingCall(script, code, [&](FailPoint& point) {
      begin();
      point.arm();
      const auto card = host.insert(Text{});
      if (!card) return;
      for (const auto& [name, objectID] :
           {std::pair{"#1", u"01"}, {"#2", u"02"}, {"MyKey", u"01"}, {"Second", u"02"}}) {
        const Text got = chosen(*card, name);
        EXPECT_TRUE(got.isNull() || got == Text{objectID}) << name << " stands for " << got.toUtf8();
        EXPECT_TRUE(point.fired() || !got.isNull()) << name;
      }
    });
  }
}

TEST_F(MissingKey, ThatTheCardNeverShowsIsNotCounted) {
  Object& object = script.object(kPublicKey);
  object = object.without(CKA_MODULUS);
  const InsertedCard card = inserted();
  EXPECT_FALSE(card.incomplete);
  EXPECT_EQ(chosen(card, "#1"), Text{u"02"});
}

}  // namespace
}  // namespace mirel::test
