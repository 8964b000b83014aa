#include <algorithm>
#include <functional>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

class UnpublishedObjects : public InsertedCardTest {
 protected:
  /// What is left out of the card in the first reader.
  [[nodiscard]] std::vector<UnpublishedObject> unpublished() {
    const auto found = readers();
    if (found.empty()) return {};
    const auto sessions = script.openSessions();
    auto objects = host.examine(found.front()).unpublished;
    EXPECT_EQ(script.openSessions(), sessions) << "a session was left open";
    EXPECT_THAT(script.openSearches(), IsEmpty());
    for (const UnpublishedObject& object : objects) {
      EXPECT_TRUE(object.kind == "certificate" || object.kind == "public key") << object.kind;
      EXPECT_FALSE(object.reason.empty());
    }
    return objects;
  }

  /// The only one; several or none fail the test.
  [[nodiscard]] UnpublishedObject theUnpublished() {
    const auto objects = unpublished();
    EXPECT_EQ(objects.size(), 1U);
    return objects.empty() ? UnpublishedObject{} : objects.front();
  }
};

// ---- What is left out ----

TEST_F(UnpublishedObjects, AreNoneOnAGoodCardAndOnAnEmptyOne) {
  EXPECT_THAT(unpublished(), IsEmpty());
  script.card().objects.clear();
  EXPECT_THAT(unpublished(), IsEmpty());
}

TEST_F(UnpublishedObjects, AreCertificatesAndKeysWithoutTheOther) {
  using namespace std::string_view_literals;
  const struct {
    Object object;
    const char* kind;
    std::u16string_view id;
    const char* missing;
  } rows[] = {
      {certificate({0x00, 0xFF}, bytesOf("Lonely"), testCertificate({})), "certificate", u"\0\u00FF"sv,
       "key"},
      {ecPublicKey(bytesOf("02"), bytesOf("Lonely"), p256Params(), p256Point(1)), "public key", u"02"sv,
       "certificate"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.kind);
    script.reset();
    setCertificate({});
    script.addObject(row.object);
    const UnpublishedObject object = theUnpublished();
    EXPECT_EQ(object.kind, row.kind);
    EXPECT_EQ(object.label, Text{u"Lonely"});
    EXPECT_EQ(object.id.units(), row.id);
    EXPECT_THAT(object.reason, HasSubstr(row.missing));
    EXPECT_FALSE(object.blocksCard);
  }
}

TEST_F(UnpublishedObjects, AreKeysOfAKindThatTheKeychainDoesNotKnow) {
  setCertificate({.key = TestKey::kEd25519});
  EXPECT_THAT(theUnpublished().reason, HasSubstr("kind"));
}

TEST_F(UnpublishedObjects, AreACertificateThatIsNoneAndItsKey) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  const auto objects = unpublished();
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects.front().kind, "public key");
  EXPECT_EQ(objects.front().id, Text{u"01"});
  EXPECT_EQ(objects.front().reason, "no certificate with its ID can be read");
  EXPECT_FALSE(objects.front().blocksCard);
  EXPECT_EQ(objects.back().kind, "certificate");
  EXPECT_THAT(objects.back().reason, HasSubstr("X.509"));
}

TEST_F(UnpublishedObjects, AreNoKeysWithOneCertificateThatCanBeRead) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  script.addObject(certificate(bytesOf("01"), bytesOf("Second"), testCertificate({})));
  EXPECT_EQ(theUnpublished().kind, "certificate");
  EXPECT_EQ(theUnpublished().label, Text{u"MyKey"});
}

TEST_F(UnpublishedObjects, AreObjectsThatAreNotOnTheToken) {
  Object& key = script.object(kPublicKey);
  key = key.with(CKA_TOKEN, boolValue(false));
  const auto objects = host.examine(inserted()).unpublished;
  ASSERT_EQ(objects.size(), 2U);
  for (const UnpublishedObject& object : objects) {
    EXPECT_EQ(object.label, Text{u"MyKey"});
    EXPECT_THAT(object.reason, HasSubstr("perhaps CKA_TOKEN is not true"));
  }
}

// ---- What keeps the whole card from being published ----

using Change = std::function<void(Script&)>;

Change with(CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE type, const Value& value) {
  return [=](Script& script) { script.object(handle) = script.object(handle).with(type, value); };
}
/// An ID for both, so that they still belong together.
Change withBothIds(std::size_t size) {
  return [=](Script& script) {
    for (const CK_OBJECT_HANDLE handle : {kPublicKey, kCertificate})
      with(handle, CKA_ID, Value(size, 1))(script);
  };
}

/// A change to the card that has a key and its certificate.
struct ChangedCard {
  const char* name;
  Change make;
  bool blocks;
};

/// What the tests of the rules of cards do not have, which go through all limits.
const ChangedCard kChangedCards[] = {
    {"nothing", [](Script&) {}, false},
    {"key: type of one byte", with(kPublicKey, CKA_KEY_TYPE, Value{0}), false},
    {"key: of another kind, which has no value that is read",
     with(kPublicKey, CKA_KEY_TYPE, ulongValue(CKK_DSA)), false},
    {"key: EC without parameters",
     [](Script& script) {
       script.object(kPublicKey) =
           ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1)).without(CKA_EC_PARAMS);
     },
     false},
    {"key: modulus that no key has room for", with(kPublicKey, CKA_MODULUS, Value(2001, 1)), true},
    {"certificate: sensitive label",
     [](Script& script) { script.object(kCertificate).sensitive.insert(CKA_LABEL); }, true},
    {"both: IDs of 256", withBothIds(256), false},
    {"both: IDs of 257", withBothIds(257), true},
};

TEST_F(UnpublishedObjects, BlockTheCardWhereTheInsertionFails) {
  for (const ChangedCard& row : kChangedCards) {
    SCOPED_TRACE(row.name);
    script.reset();
    setCertificate({});
    row.make(script);
    const auto objects = unpublished();
    EXPECT_EQ(std::any_of(objects.begin(), objects.end(),
                          [](const UnpublishedObject& object) { return object.blocksCard; }),
              row.blocks);
    const auto outcome = host.insert(Text{});
    EXPECT_EQ(!outcome, row.blocks);
    if (outcome) {
      EXPECT_EQ(objects.empty(), !outcome->items.empty()) << "what is not published is told";
      continue;
    }
    const Failure failure = failureOf(outcome);
    EXPECT_EQ(failure.kind, FailureKind::kCardEnumerationFailed);
    EXPECT_THAT(failure.why, AnyOf(HasSubstr("certificate"), HasSubstr("public key")));
  }
}

TEST_F(UnpublishedObjects, DoNotHideACardThatWasInsertedBeforeTheyWentBad) {
  const InsertedCard card = inserted();
  script.object(kCertificate) = script.object(kCertificate).with(CKA_LABEL, {});
  const CardReport report = host.examine(card);
  EXPECT_FALSE(report.hidden);
  ASSERT_EQ(report.unpublished.size(), 1U);
  const UnpublishedObject& object = report.unpublished.front();
  EXPECT_EQ(object.reason, "its label is empty");
  EXPECT_EQ(object.cause, FindingID::kObjectUnread);
  EXPECT_TRUE(object.unread);
  EXPECT_FALSE(object.blocksCard);
}

TEST_F(UnpublishedObjects, HaveNoLabelOrIdThatCannotBeRead) {
  Object& changed = script.object(kCertificate);
  changed = changed.without(CKA_LABEL).with(CKA_ID, Value{});
  const auto objects = unpublished();
  const auto certificate = std::find_if(objects.begin(), objects.end(), [](const UnpublishedObject& object) {
    return object.kind == "certificate";
  });
  ASSERT_NE(certificate, objects.end());
  EXPECT_TRUE(certificate->label.isNull());
  EXPECT_TRUE(certificate->id.isNull());
  EXPECT_TRUE(certificate->blocksCard);
}

// ---- Cards and modules that do not play along ----

TEST_F(UnpublishedObjects, AreNoneWhereTheCardCannotBeAsked) {
  EXPECT_THAT(host.examine(Reader{}).unpublished, IsEmpty()) << "the module is not loaded";
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT);
  EXPECT_THAT(unpublished(), IsEmpty());
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  script.pullCard();
  EXPECT_THAT(host.examine(found.front()).unpublished, IsEmpty());
}

TEST_F(UnpublishedObjects, AreNotBlamedWhenTheListingFailsForAnotherReason) {
  script.failCallOf("C_GetAttributeValue", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
  const Failure failure = failureOf(host.insert(Text{}));
  EXPECT_THAT(failure.why, StartsWith("C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)"));
  EXPECT_THAT(std::string{failure.advice.words()}, Not(HasSubstr("issuer")));
}

TEST_F(UnpublishedObjects, AreNotSoughtInVainWithoutAWord) {
  for (const bool initialised : {true, false}) {
    SCOPED_TRACE(initialised);
    // First the listing fails, then the look for its reason.
    const auto failure = [&](const std::function<void()>& arm) {
      script.reset();
      setCertificate({});
      if (!initialised) script.card().info.flags &= ~CKF_TOKEN_INITIALIZED;
      arm();
      return failureOf(host.insert(initialised ? Text{} : Text{u"Reader A 00"}));
    };
    const auto failListing = [&] { script.failCallOf("C_OpenSession", 2, CKR_TOKEN_NOT_RECOGNIZED); };
    const Failure plain = failure(failListing);
    const std::size_t sessions = script.countOf("C_OpenSession");
    EXPECT_EQ(std::string{plain.advice.words()}.find("prepare it") != std::string::npos, !initialised);
    const Failure told = failure([&] {
      failListing();
      script.failCallOf("C_OpenSession", sessions - 1, CKR_DEVICE_ERROR);
    });
    EXPECT_THAT(told.why, AllOf(StartsWith("C_OpenSession answered CKR_TOKEN_NOT_RECOGNIZED"),
                                HasSubstr("; whether an object is the reason cannot be told now, "
                                          "C_OpenSession answered CKR_DEVICE_ERROR")));
    EXPECT_THAT(std::string{told.advice.words()}, Not(HasSubstr("prepare it")));
  }
}

TEST_F(UnpublishedObjects, SurviveSearchesThatNeverEnd) {
  script.deviations.endlessSearches = true;
  EXPECT_LE(unpublished().size(), 320U);
}

TEST_F(UnpublishedObjects, SurviveSearchesThatReportMoreThanAsked) {
  script.deviations.foundPerCall = 5;
  EXPECT_THAT(unpublished(), IsEmpty());
}

TEST_F(UnpublishedObjects, SurviveLengthsThatAreWrong) {
  const CK_ULONG kLengths[] = {0, 3, 257, 5000, CK_ULONG{1} << 40U, 0x100000010, ~CK_ULONG{0}};
  const CK_ATTRIBUTE_TYPE kTypes[] = {CKA_LABEL, CKA_ID, CKA_KEY_TYPE, CKA_VALUE, CKA_MODULUS};
  for (const CK_ATTRIBUTE_TYPE type : kTypes) {
    for (const CK_ULONG first : kLengths) {
      for (const CK_ULONG second : kLengths) {
        SCOPED_TRACE(std::to_string(type) + ": " + std::to_string(first) + ", " + std::to_string(second));
        script.reset();
        setCertificate({});
        script.deviations.claimedLengths[type] = {first, second};
        for (const UnpublishedObject& object : unpublished()) {
          EXPECT_LE(object.label.length(), 2000U);
          EXPECT_LE(object.id.length(), 2000U);
        }
      }
    }
  }
}

TEST_F(UnpublishedObjects, SurviveFunctionsThatDoNothing) {
  for (const char* function :
       {"C_OpenSession", "C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal", "C_GetAttributeValue"}) {
    SCOPED_TRACE(function);
    script.reset();
    const auto found = readers();
    ASSERT_EQ(found.size(), 1U);
    script.deviations.silent = {function};
    for (const UnpublishedObject& object : host.examine(found.front()).unpublished) {
      EXPECT_FALSE(object.reason.empty());
    }
  }
  script.reset();
}

TEST_F(UnpublishedObjects, EndTheirSessionWhateverFails) {
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  forEachFailingCall(script, CKR_DEVICE_ERROR, [&](FailPoint& point) {
    script.setInitialised(true);
    setCertificate({});
    point.arm();
    (void)host.examine(found.front()).unpublished;
    // Calls in a row fail, or the last one: then the session cannot be closed.
    const auto& calls = script.calls();
    const bool closeFailed =
        !calls.empty() && calls.back().function == "C_CloseSession" && calls.back().result != CKR_OK;
    EXPECT_EQ(script.openSessions().empty(), !closeFailed);
  });
}

}  // namespace
}  // namespace mirel::test
