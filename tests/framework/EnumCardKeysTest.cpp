/// Listing keys and certificates: what a card's objects become.

#include <algorithm>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class EnumCardKeys : public FrameworkTest {
 protected:
  EnumCardKeys() { openSession(); }

  void list() { ASSERT_TRUE(framework->EnumCardKeys(reader())); }
  void emptyTheCard() { script.card().objects.clear(); }

  CK_OBJECT_HANDLE addRsaKey(const Value& id, std::string_view label = "MyKey") {
    return script.addObject(rsaPublicKey(id, bytesOf(label), patternValue(128, 0x80)));
  }
  CK_OBJECT_HANDLE addEcKey(const Value& id, std::string_view label = "MyKey") {
    return script.addObject(ecPublicKey(id, bytesOf(label), p256Params(), p256Point(3)));
  }
  CK_OBJECT_HANDLE addCertificate(const Value& id, std::string_view label = "MyKey") {
    return script.addObject(certificate(id, bytesOf(label), patternValue(300, 0x30)));
  }

  [[nodiscard]] std::vector<Text> keyNames() const {
    std::vector<Text> names;
    for (const auto& key : keys()) names.push_back(key->keyName());
    return names;
  }
  [[nodiscard]] std::vector<CK_OBJECT_HANDLE> certificateHandles() const {
    std::vector<CK_OBJECT_HANDLE> handles;
    for (const auto& certificate : certificates()) handles.push_back(certificate->hCert());
    return handles;
  }
};

// ---- The default card ----

TEST_F(EnumCardKeys, MakesExactlyTheseCallsAndLogsNothing) {
  EXPECT_TRUE(framework->EnumCardKeys(Text{u"is not looked at"}));
  const auto twice = [](const std::string& value) {
    return std::vector<std::string>{"C_GetAttributeValue(5, " + value, "C_GetAttributeValue(5, " + value};
  };
  EXPECT_EQ(
      script.callTexts(),
      inOrder({// The keys, one handle at a time, then the certificates.
               {"C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_CLASS=0200000000000000])", "C_FindObjects(5, 1)",
                "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)",
                "C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_CLASS=0100000000000000])", "C_FindObjects(5, 1)",
                "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)"},
               // The key: all lengths at once, then each value, which the bridge reads twice.
               {"C_GetAttributeValue(5, 21, [CKA_LABEL null 0, CKA_KEY_TYPE null 0, CKA_ID null 0])"},
               twice("21, [CKA_KEY_TYPE room 8])"),
               twice("21, [CKA_LABEL room 5])"),
               twice("21, [CKA_ID room 2])"),
               // Its modulus: once for the length alone, once for the value. The bridge reads it either way.
               modulusCalls(kPublicKey),
               modulusCalls(kPublicKey),
               // The certificate.
               {"C_GetAttributeValue(5, 23, [CKA_LABEL null 0, CKA_ID null 0, CKA_VALUE null 0])"},
               twice("23, [CKA_LABEL room 5])"),
               twice("23, [CKA_ID room 2])"),
               twice("23, [CKA_VALUE room 700])")}));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(EnumCardKeys, ListsTheKeyAndTheCertificateAndKeepsAllElse) {
  script.card().loggedIn = true;  // still no private key is listed
  const auto before = framework->p11ServiceInfo();
  list();
  expectCounts(1, 1);
  ASSERT_THAT(keys(), SizeIs(1));
  EXPECT_EQ(keys().at(0)->hPubKey(), kPublicKey);
  EXPECT_EQ(keys().at(0)->hPriKey(), 0U);
  EXPECT_EQ(keys().at(0)->keyID(), Text{u"01"});
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(patternValue(256, 0xC5)));
  ASSERT_THAT(certificates(), SizeIs(1));
  EXPECT_EQ(certificates().at(0)->hCert(), kCertificate);
  EXPECT_EQ(certificates().at(0)->strID(), Text{u"01"});
  EXPECT_EQ(certificates().at(0)->strLabel(), Text{u"MyKey"});
  EXPECT_EQ(certificates().at(0)->pbCertData(), bytesLike(patternValue(700, 0x30)));
  EXPECT_EQ(record().hSession(), kFirstSession);
  EXPECT_EQ(record().slotID(), kSlot);
  EXPECT_EQ(membersOf(record().hSessionInfo()), membersOf(before->hSessionInfo()));
  EXPECT_EQ(membersOf(record().slotInfo()), membersOf(before->slotInfo()));
  EXPECT_EQ(membersOf(record().tokenInfo()), membersOf(before->tokenInfo()));
  EXPECT_TRUE(script.card().loggedIn);
}

TEST_F(EnumCardKeys, ListsOnlyWhatIsOnTheToken) {
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Fleeting"), patternValue(128, 1))
                       .with(CKA_TOKEN, boolValue(false)));
  script.addObject(certificate(bytesOf("01"), bytesOf("Fleeting"), patternValue(100, 1))
                       .with(CKA_TOKEN, boolValue(false)));
  list();
  EXPECT_THAT(keys(), SizeIs(1));
  EXPECT_THAT(certificates(), SizeIs(1));
}

// ---- Names ----

TEST_F(EnumCardKeys, NamesAKeyBySerialNumberTypeIdentifierAndLabel) {
  const Value rsa = ulongValue(CKK_RSA);
  const struct {
    const char* what;
    std::u16string_view nameBehindTheNumber;
    Value keyType;
    Value id = bytesOf("01");
    Value label = bytesOf("MyKey");
    std::u16string_view serialNumber = u"1234567890ABCDEF";
  } rows[] = {
      {"RSA", u"_RSA_01_MyKey", rsa},
      {"EC", u"_EC_01_MyKey", ulongValue(CKK_EC)},
      {"DSA", u"_(null)01_MyKey", ulongValue(CKK_DSA)},
      {"no standard type", u"_(null)01_MyKey", ulongValue(CKR_VENDOR_DEFINED | 0x7F)},
      // The first byte of the type decides, however many there are.
      {"RSA in one byte", u"_RSA_01_MyKey", {0x00}},
      {"EC in four bytes", u"_EC_01_MyKey", {3, 0, 0, 0}},
      {"EC with more behind", u"_EC_01_MyKey", {3, 0xFF}},
      {"0x100", u"_RSA_01_MyKey", ulongValue(0x100)},
      {"0x10", u"_(null)01_MyKey", {0x10}},
      // Nothing is trimmed, and every byte counts.
      {"padded texts", u"_RSA_ 01 _ My ", rsa, bytesOf(" 01 "), bytesOf(" My "), u"42              "},
      {"NUL", u"_RSA_\0\1_a\0b\0"sv, rsa, {0, 1}, {'a', 0, 'b', 0}, u"12\0\0ABCDEFGHIJKL"sv},
      {"bytes above 0x7F", u"_RSA_\u0080\u00FF_\u00C3\u00A9", rsa, {0x80, 0xFF}, {0xC3, 0xA9}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    emptyTheCard();
    CK_TOKEN_INFO tokenInfo = record().tokenInfo();
    setField(tokenInfo.serialNumber, Text{row.serialNumber}.toUtf8());
    record().setTokenInfo(tokenInfo);  // the record's counts, not the card's
    script.addObject(rsaPublicKey(row.id, row.label, patternValue(128, 1))
                         .with(CKA_EC_PARAMS, p256Params())
                         .with(CKA_EC_POINT, p256Point(1))
                         .with(CKA_KEY_TYPE, row.keyType));
    list();
    EXPECT_THAT(keyNames(), ElementsAre(joined({Text{row.serialNumber}, Text{row.nameBehindTheNumber}})));
    EXPECT_EQ(keys().at(0)->keyID().length(), row.id.size());
  }
}

// ---- Public values ----

TEST_F(EnumCardKeys, TakesThePointAsTheModuleGivesItAndNoValueOfAKeyOfAnotherType) {
  emptyTheCard();
  addEcKey(bytesOf("02"));
  script.addObject(rsaPublicKey(bytesOf("03"), bytesOf("MyKey"), patternValue(128, 1))
                       .with(CKA_KEY_TYPE, ulongValue(CKK_DSA))
                       .without(CKA_MODULUS));
  addCertificate(bytesOf("03"));
  list();
  ASSERT_THAT(keys(), SizeIs(2));
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(p256Point(3)));
  EXPECT_TRUE(keys().at(1)->pKeyValue().isNull());
  EXPECT_THAT(certificates(), SizeIs(1)) << "it can be bound like any other";
}

TEST_F(EnumCardKeys, LeavesOutAKeyWhosePublicValueHasNoReadableLength) {
  const Object rsa = rsaPublicKey(bytesOf("02"), bytesOf("Odd"), patternValue(128, 1));
  const Object ec = ecPublicKey(bytesOf("02"), bytesOf("Odd"), p256Params(), p256Point(1));
  const struct {
    const char* what;
    Object key;
  } rows[] = {
      {"no modulus", rsa.without(CKA_MODULUS)},
      {"an empty modulus", rsa.with(CKA_MODULUS, {})},
      {"no point", ec.without(CKA_EC_POINT)},
      {"no domain parameters", ec.without(CKA_EC_PARAMS)},
      {"a point of 201 bytes", ec.with(CKA_EC_POINT, patternValue(201, 4))},
      {"a point of 520 bytes", ec.with(CKA_EC_POINT, patternValue(520, 4))},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    emptyTheCard();
    addRsaKey(bytesOf("01"), "Before");
    script.addObject(row.key);
    addRsaKey(bytesOf("03"), "Behind");
    addCertificate(bytesOf("02"));
    addCertificate(bytesOf("03"));
    list();
    EXPECT_THAT(keyNames(), ElementsAre(Text{u"1234567890ABCDEF_RSA_01_Before"},
                                        Text{u"1234567890ABCDEF_RSA_03_Behind"}));
    EXPECT_EQ(record().m_keyIndex(), 2);
    ASSERT_THAT(certificates(), SizeIs(1)) << "there is no key for the other one";
    EXPECT_EQ(certificates().at(0)->strID(), Text{u"03"});
  }
}

// ---- Limits ----

TEST_F(EnumCardKeys, TakesValuesUpToTheirLimitsAndNoneThatIsEmptyOrMissing) {
  const Object rsa = script.object(kPublicKey);
  const Object ec = ecPublicKey(bytesOf("01"), bytesOf("K"), p256Params(), {});
  const Object cert = script.object(kCertificate);
  constexpr std::size_t kMissing = ~std::size_t{0};
  const struct {
    const char* what;
    CK_OBJECT_HANDLE handle;
    Object object;
    CK_ATTRIBUTE_TYPE attribute;
    std::vector<std::size_t> taken;
    std::vector<std::size_t> refused;
  } rows[] = {
      {"a key's label", kPublicKey, rsa, CKA_LABEL, {1, 2000}, {2001, 0, kMissing}},
      {"a key's ID", kPublicKey, rsa, CKA_ID, {1, 2000}, {2001, 0, kMissing}},
      {"a key's type", kPublicKey, rsa, CKA_KEY_TYPE, {1, 2000}, {2001, 0, kMissing}},
      // From 640 bytes on the length can be read, the value cannot.
      {"a modulus", kPublicKey, rsa, CKA_MODULUS, {1, 512, 639}, {640, 2000, 2001}},
      {"a point", kPublicKey, ec, CKA_EC_POINT, {1, 200}, {521, 2001}},
      {"a certificate's label", kCertificate, cert, CKA_LABEL, {1, 256}, {257, 0, kMissing}},
      {"a certificate's ID", kCertificate, cert, CKA_ID, {1, 256}, {257, 0, kMissing}},
      {"a certificate", kCertificate, cert, CKA_VALUE, {1, 1999, 2000}, {2001, 5000, 0, kMissing}},
  };
  for (const auto& row : rows) {
    for (const auto* sizes : {&row.taken, &row.refused}) {
      for (const std::size_t size : *sizes) {
        SCOPED_TRACE(row.what);
        SCOPED_TRACE(size);
        const bool taken = sizes == &row.taken;
        const RetainedRecord retained = startAnew();
        Value value = patternValue(size == kMissing ? 0 : size, 7);
        if (row.attribute == CKA_KEY_TYPE && size > 0 && size != kMissing) value[0] = CKK_DSA;
        script.object(row.handle) =
            size == kMissing ? row.object.without(row.attribute) : row.object.with(row.attribute, value);
        EXPECT_EQ(framework->EnumCardKeys(reader()), taken);
        EXPECT_EQ(framework->p11ServiceInfo() != nullptr, taken);
        if (!taken) {
          expectEmptied(retained);
          continue;
        }
        EXPECT_EQ(record().m_keyIndex(), 1);
        if (row.attribute == CKA_MODULUS || row.attribute == CKA_EC_POINT) {
          EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(value));
        }
      }
    }
  }
}

TEST_F(EnumCardKeys, FailsForEveryKeyWhenOneOfThemHasNoLabel) {
  addRsaKey(bytesOf("02"), "");
  addRsaKey(bytesOf("03"), "Behind");
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
}

TEST_F(EnumCardKeys, ListsUpTo160KeysAndCertificates) {
  for (const std::size_t numObjects : {0U, 20U, 21U, 159U, 160U, 161U, 300U}) {
    SCOPED_TRACE(numObjects);
    emptyTheCard();
    std::vector<CK_OBJECT_HANDLE> expectedKeys;
    std::vector<CK_OBJECT_HANDLE> expectedCertificates;
    const auto id = [](std::size_t i) { return ulongValue(i); };
    for (std::size_t i = 0; i < numObjects; ++i) expectedKeys.push_back(addRsaKey(id(i)));
    for (std::size_t i = 0; i < numObjects; ++i) expectedCertificates.push_back(addCertificate(id(i)));
    // A certificate whose key is beyond the 160th is not listed, nor is one beyond the 160th.
    const std::size_t expected = std::min<std::size_t>(numObjects, 160);
    expectedKeys.resize(expected);
    expectedCertificates.resize(expected);
    list();
    expectCounts(static_cast<std::int32_t>(expected), static_cast<std::int32_t>(expected));
    if (expected == 0) continue;
    std::vector<CK_OBJECT_HANDLE> listedKeys;
    for (const auto& key : keys()) listedKeys.push_back(key->hPubKey());
    EXPECT_EQ(listedKeys, expectedKeys);
    EXPECT_EQ(certificateHandles(), expectedCertificates);
  }
}

// ---- Binding ----

TEST_F(EnumCardKeys, ListsNoCertificateWithoutAKeyAndEmptiesTheListsOfACardThatHasBecomeEmpty) {
  addCertificate(bytesOf("02"));
  addCertificate(bytesOf("0"));
  addCertificate(bytesOf("010"));
  list();
  EXPECT_THAT(certificateHandles(), ElementsAre(kCertificate));
  script.card().objects.erase(kPublicKey);
  for (const bool isEmpty : {false, true}) {
    if (isEmpty) emptyTheCard();
    list();
    expectCounts(0, 0);
    EXPECT_THAT(keys(), IsEmpty());
    EXPECT_THAT(certificates(), IsEmpty());
  }
}

TEST_F(EnumCardKeys, ListsACertificateOnceForEachKeyWithItsIdentifierInTheOrderOfTheSearches) {
  emptyTheCard();
  const CK_OBJECT_HANDLE other = addCertificate(bytesOf("02"));
  addRsaKey(bytesOf("01"), "First");
  addEcKey(bytesOf("02"), "Other");
  addEcKey(bytesOf("01"), "Second");
  const CK_OBJECT_HANDLE bound = addCertificate(bytesOf("01"), "One");
  const CK_OBJECT_HANDLE second = addCertificate(bytesOf("01"), "Two");
  list();
  EXPECT_THAT(keyNames(),
              ElementsAre(Text{u"1234567890ABCDEF_RSA_01_First"}, Text{u"1234567890ABCDEF_EC_02_Other"},
                          Text{u"1234567890ABCDEF_EC_01_Second"}));
  expectCounts(3, 5);
  EXPECT_THAT(certificateHandles(), ElementsAre(other, bound, bound, second, second));
  EXPECT_NE(certificates().at(1), certificates().at(2)) << "each is a record of its own";
}

TEST_F(EnumCardKeys, BindsByTheIdentifierAloneByteForByte) {
  // "?" is what a character outside ASCII is often replaced with.
  std::vector<Value> identifiers{patternValue(20, 0xA9), patternValue(19, 0xA9), Value(255, 0x41),
                                 Value(256, 0x41)};
  for (const auto id : {"\1"sv, "\0"sv, "\0\1"sv, "\1\0"sv, "\0\0"sv, "\x80"sv, "\xFF"sv, "?"sv, "\xC3\xA9"sv,
                        "\xE9"sv, "\xC3"sv, "aB"sv, "ab"sv}) {
    identifiers.push_back(bytesOf(id));
  }
  emptyTheCard();
  for (const Value& id : identifiers) addRsaKey(id);
  // In reverse, so that no order can bind them by chance.
  std::vector<CK_OBJECT_HANDLE> handles;
  for (std::size_t i = identifiers.size(); i-- > 0;) handles.push_back(addCertificate(identifiers[i]));
  list();
  ASSERT_EQ(keys().size(), identifiers.size());
  ASSERT_EQ(certificateHandles(), handles) << "each is bound once, to its own key";
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(keys().at(i)->keyID(), Text::fromBytes(identifiers[i]));
    EXPECT_EQ(certificates().at(identifiers.size() - 1 - i)->strID(), keys().at(i)->keyID());
  }
}

// ---- The record before and after ----

TEST_F(EnumCardKeys, EmptiesTheListsOfTheRecordItReplacesBetweenTheSearchesButNotTheKeysListedThere) {
  list();
  const RetainedRecord first{framework->p11ServiceInfo()};
  std::vector<std::size_t> numListed;  // when each of the searches begins
  script.hook<&CK_FUNCTION_LIST::C_FindObjectsInit>([&](auto real, auto session, auto* filter, auto count) {
    numListed.push_back(first.keys->size() + first.certificates->size());
    return real(session, filter, count);
  });
  list();
  EXPECT_THAT(numListed, ElementsAre(2, 0));
  EXPECT_NE(framework->p11ServiceInfo(), first.record);
  EXPECT_NE(keys().at(0), first.listedKeys[0]);
  EXPECT_THAT(*first.keys, IsEmpty());
  EXPECT_THAT(*first.certificates, IsEmpty());
  EXPECT_EQ(first.listedKeys[0]->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(first.listedKeys[0]->pKeyValue().size(), 256U);
  EXPECT_EQ(first.listedCertificates[0]->pbCertData().size(), 700U);
}

}  // namespace
}  // namespace mirel::test
