#include <algorithm>
#include <functional>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class UnpublishedObjects : public HostTest {
 protected:
  /// What is left out of the card in the first reader.
  [[nodiscard]] std::vector<UnpublishedObject> unpublished() {
    const auto found = readers();
    if (found.empty()) return {};
    const auto sessions = script.openSessions();
    auto objects = host.unpublishedObjects(found.front());
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

TEST_F(UnpublishedObjects, AreNoneOnAGoodCard) { EXPECT_THAT(unpublished(), IsEmpty()); }

TEST_F(UnpublishedObjects, AreNoneOnAnEmptyCard) {
  script.card().objects.clear();
  EXPECT_THAT(unpublished(), IsEmpty());
}

TEST_F(UnpublishedObjects, AreCertificatesWithoutAKey) {
  script.addObject(certificate({0x00, 0xFF}, bytesOf("Lonely"), testCertificate({})));
  const UnpublishedObject object = theUnpublished();
  EXPECT_EQ(object.kind, "certificate");
  EXPECT_EQ(object.label, Text{u"Lonely"});
  using namespace std::string_view_literals;
  EXPECT_EQ(object.id.units(), u"\0\u00FF"sv);
  EXPECT_THAT(object.reason, HasSubstr("key"));
  EXPECT_FALSE(object.blocksCard);
}

TEST_F(UnpublishedObjects, AreKeysWithoutACertificate) {
  script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Lonely"), p256Params(), p256Point(1)));
  const UnpublishedObject object = theUnpublished();
  EXPECT_EQ(object.kind, "public key");
  EXPECT_EQ(object.label, Text{u"Lonely"});
  EXPECT_EQ(object.id, Text{u"02"});
  EXPECT_THAT(object.reason, HasSubstr("certificate"));
  EXPECT_FALSE(object.blocksCard);
}

TEST_F(UnpublishedObjects, AreCertificatesThatAreNone) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  const auto objects = unpublished();
  const bool told = std::any_of(objects.begin(), objects.end(), [](const UnpublishedObject& candidate) {
    return candidate.kind == "certificate" && candidate.reason.find("X.509") != std::string::npos;
  });
  EXPECT_TRUE(told);
}

TEST_F(UnpublishedObjects, AreKeysOfAKindThatTheKeychainDoesNotKnow) {
  setCertificate({.key = TestKey::kEd25519});
  EXPECT_THAT(theUnpublished().reason, HasSubstr("kind"));
}

TEST_F(UnpublishedObjects, AreKeysWhoseOnlyCertificateCannotBeRead) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  const auto objects = unpublished();
  ASSERT_EQ(objects.size(), 2U);
  EXPECT_EQ(objects.front().kind, "public key");
  EXPECT_EQ(objects.front().id, Text{u"01"});
  EXPECT_EQ(objects.front().reason, "no certificate with its ID can be read");
  EXPECT_FALSE(objects.front().blocksCard);
  EXPECT_EQ(objects.back().kind, "certificate");
}

TEST_F(UnpublishedObjects, AreNoKeysWithOneCertificateThatCanBeRead) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  script.addObject(certificate(bytesOf("01"), bytesOf("Second"), testCertificate({})));
  EXPECT_EQ(theUnpublished().kind, "certificate");
  EXPECT_EQ(theUnpublished().label, Text{u"MyKey"});
}

// ---- What keeps the whole card from being published ----

/// A change to the card that has a key (kPublicKey) and its certificate (kCertificate).
struct Change {
  const char* name;
  std::function<void(Script&)> make;
  bool blocks;
};

void change(Script& script, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE type, Value value) {
  Object& object = script.object(handle);
  object = object.with(type, std::move(value));
}
void remove(Script& script, CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE type) {
  Object& object = script.object(handle);
  object = object.without(type);
}
/// An ID for both, so that they still belong together.
void setBothIds(Script& script, const Value& id) {
  change(script, kPublicKey, CKA_ID, id);
  change(script, kCertificate, CKA_ID, id);
}
void makeEcKey(Script& script, std::size_t pointSize) {
  script.object(kPublicKey) =
      ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), patternValue(pointSize, 4));
}

const Change kChanges[] = {
    {"nothing", [](Script&) {}, false},
    // Labels and IDs.
    {"key: no label", [](Script& s) { remove(s, kPublicKey, CKA_LABEL); }, true},
    {"key: empty label", [](Script& s) { change(s, kPublicKey, CKA_LABEL, {}); }, true},
    {"key: label of 2000", [](Script& s) { change(s, kPublicKey, CKA_LABEL, Value(2000, 'x')); }, false},
    {"key: label of 2001", [](Script& s) { change(s, kPublicKey, CKA_LABEL, Value(2001, 'x')); }, true},
    {"key: no ID", [](Script& s) { remove(s, kPublicKey, CKA_ID); }, true},
    {"key: empty ID", [](Script& s) { change(s, kPublicKey, CKA_ID, {}); }, true},
    {"key: ID of 2001", [](Script& s) { change(s, kPublicKey, CKA_ID, Value(2001, 'x')); }, true},
    {"key: no type", [](Script& s) { remove(s, kPublicKey, CKA_KEY_TYPE); }, true},
    {"key: type of one byte", [](Script& s) { change(s, kPublicKey, CKA_KEY_TYPE, {0}); }, false},
    {"certificate: no label", [](Script& s) { remove(s, kCertificate, CKA_LABEL); }, true},
    {"certificate: empty label", [](Script& s) { change(s, kCertificate, CKA_LABEL, {}); }, true},
    {"certificate: label of 256", [](Script& s) { change(s, kCertificate, CKA_LABEL, Value(256, 'x')); },
     false},
    {"certificate: label of 257", [](Script& s) { change(s, kCertificate, CKA_LABEL, Value(257, 'x')); },
     true},
    {"certificate: no ID", [](Script& s) { remove(s, kCertificate, CKA_ID); }, true},
    {"certificate: empty ID", [](Script& s) { change(s, kCertificate, CKA_ID, {}); }, true},
    {"IDs of 256", [](Script& s) { setBothIds(s, Value(256, 'x')); }, false},
    {"IDs of 257", [](Script& s) { setBothIds(s, Value(257, 'x')); }, true},
    {"certificate: sensitive label", [](Script& s) { s.object(kCertificate).sensitive.insert(CKA_LABEL); },
     true},
    // Certificates.
    {"certificate: no value", [](Script& s) { remove(s, kCertificate, CKA_VALUE); }, true},
    {"certificate: empty value", [](Script& s) { change(s, kCertificate, CKA_VALUE, {}); }, true},
    {"certificate: value of 2000", [](Script& s) { change(s, kCertificate, CKA_VALUE, Value(2000, 'x')); },
     false},
    {"certificate: value of 2001", [](Script& s) { change(s, kCertificate, CKA_VALUE, Value(2001, 'x')); },
     true},
    // RSA keys.
    {"RSA: no modulus", [](Script& s) { remove(s, kPublicKey, CKA_MODULUS); }, false},
    {"RSA: empty modulus", [](Script& s) { change(s, kPublicKey, CKA_MODULUS, {}); }, false},
    {"RSA: modulus of 639", [](Script& s) { change(s, kPublicKey, CKA_MODULUS, Value(639, 1)); }, false},
    {"RSA: modulus of 640", [](Script& s) { change(s, kPublicKey, CKA_MODULUS, Value(640, 1)); }, true},
    {"RSA: modulus of 2000", [](Script& s) { change(s, kPublicKey, CKA_MODULUS, Value(2000, 1)); }, true},
    {"RSA: modulus of 2001", [](Script& s) { change(s, kPublicKey, CKA_MODULUS, Value(2001, 1)); }, true},
    // EC keys.
    {"EC: point of 200", [](Script& s) { makeEcKey(s, 200); }, false},
    {"EC: point of 201", [](Script& s) { makeEcKey(s, 201); }, false},
    {"EC: point of 520", [](Script& s) { makeEcKey(s, 520); }, false},
    {"EC: point of 521", [](Script& s) { makeEcKey(s, 521); }, true},
    {"EC: point of 2001", [](Script& s) { makeEcKey(s, 2001); }, true},
    {"EC: no point",
     [](Script& s) {
       makeEcKey(s, 67);
       remove(s, kPublicKey, CKA_EC_POINT);
     },
     false},
    {"EC: no parameters",
     [](Script& s) {
       makeEcKey(s, 67);
       remove(s, kPublicKey, CKA_EC_PARAMS);
     },
     false},
    {"EC: point of 521, no parameters",
     [](Script& s) {
       makeEcKey(s, 521);
       remove(s, kPublicKey, CKA_EC_PARAMS);
     },
     false},
    // Keys of other kinds have no value that is read.
    {"DSA key", [](Script& s) { change(s, kPublicKey, CKA_KEY_TYPE, ulongValue(CKK_DSA)); }, false},
};

TEST_F(UnpublishedObjects, TellWhichObjectBlocksTheCard) {
  for (const Change& row : kChanges) {
    SCOPED_TRACE(row.name);
    script.reset();
    setCertificate({});
    row.make(script);
    const auto objects = unpublished();
    const auto blocking = std::count_if(objects.begin(), objects.end(),
                                        [](const UnpublishedObject& object) { return object.blocksCard; });
    EXPECT_EQ(blocking > 0, row.blocks);
  }
}

TEST_F(UnpublishedObjects, BlockTheCardWhereTheInsertionFails) {
  for (const Change& row : kChanges) {
    SCOPED_TRACE(row.name);
    script.reset();
    setCertificate({});
    row.make(script);
    const auto outcome = host.insert(Text{});
    EXPECT_EQ(!outcome, row.blocks);
    if (!row.blocks) continue;
    const Failure failure = failureOf(outcome);
    EXPECT_EQ(failure.kind, FailureKind::kCardEnumerationFailed);
    EXPECT_THAT(failure.why, ::testing::AnyOf(HasSubstr("certificate"), HasSubstr("public key")));
  }
  leavesOpen(script.openSessions());
}

TEST_F(UnpublishedObjects, HaveNoLabelOrIdThatCannotBeRead) {
  remove(script, kCertificate, CKA_LABEL);
  change(script, kCertificate, CKA_ID, {});
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

TEST_F(UnpublishedObjects, AreNoneBeforeTheModuleIsLoaded) {
  EXPECT_THAT(host.unpublishedObjects(Reader{}), IsEmpty());
}

TEST_F(UnpublishedObjects, AreNoneWithoutASession) {
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT);
  EXPECT_THAT(unpublished(), IsEmpty());
}

TEST_F(UnpublishedObjects, AreNoneOnACardThatIsGone) {
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  script.pullCard();
  EXPECT_THAT(host.unpublishedObjects(found.front()), IsEmpty());
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
    for (const UnpublishedObject& object : host.unpublishedObjects(found.front())) {
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
    (void)host.unpublishedObjects(found.front());
    // Calls in a row fail, or the last one: then the session cannot be closed.
    const auto& calls = script.calls();
    const bool closeFailed =
        !calls.empty() && calls.back().function == "C_CloseSession" && calls.back().result != CKR_OK;
    EXPECT_EQ(script.openSessions().empty(), !closeFailed);
  });
}

}  // namespace
}  // namespace mirel::test
