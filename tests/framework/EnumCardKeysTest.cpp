/// Listing keys and certificates: what a card's objects become.

#include <algorithm>
#include <set>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class EnumCardKeys : public FrameworkTest {
 protected:
  EnumCardKeys() { openSession(); }

  void enumerate() { ASSERT_TRUE(framework->EnumCardKeys(reader())); }

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

TEST_F(EnumCardKeys, MakesExactlyTheseCalls) {
  enumerate();
  EXPECT_THAT(
      script.callTexts(),
      ElementsAre(
          // The keys, one handle at a time, then the certificates.
          "C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_CLASS=0200000000000000])", "C_FindObjects(5, 1)",
          "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)",
          "C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_CLASS=0100000000000000])", "C_FindObjects(5, 1)",
          "C_FindObjects(5, 1)", "C_FindObjectsFinal(5)",
          // The key: all lengths at once, then each value, which the bridge reads twice.
          "C_GetAttributeValue(5, 21, [CKA_LABEL null 0, CKA_KEY_TYPE null 0, CKA_ID null 0])",
          "C_GetAttributeValue(5, 21, [CKA_KEY_TYPE room 8])",
          "C_GetAttributeValue(5, 21, [CKA_KEY_TYPE room 8])",
          "C_GetAttributeValue(5, 21, [CKA_LABEL room 5])", "C_GetAttributeValue(5, 21, [CKA_LABEL room 5])",
          "C_GetAttributeValue(5, 21, [CKA_ID room 2])", "C_GetAttributeValue(5, 21, [CKA_ID room 2])",
          // Its modulus: once for the length alone, once for the value. The bridge reads it either way.
          "C_GetAttributeValue(5, 21, [CKA_MODULUS null 0])",
          "C_GetAttributeValue(5, 21, [CKA_MODULUS room 256])",
          "C_GetAttributeValue(5, 21, [CKA_MODULUS room 256])",
          "C_GetAttributeValue(5, 21, [CKA_MODULUS null 0])",
          "C_GetAttributeValue(5, 21, [CKA_MODULUS room 256])",
          "C_GetAttributeValue(5, 21, [CKA_MODULUS room 256])",
          // The certificate.
          "C_GetAttributeValue(5, 23, [CKA_LABEL null 0, CKA_ID null 0, CKA_VALUE null 0])",
          "C_GetAttributeValue(5, 23, [CKA_LABEL room 5])", "C_GetAttributeValue(5, 23, [CKA_LABEL room 5])",
          "C_GetAttributeValue(5, 23, [CKA_ID room 2])", "C_GetAttributeValue(5, 23, [CKA_ID room 2])",
          "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])",
          "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])"));
}

TEST_F(EnumCardKeys, ListsTheKey) {
  enumerate();
  EXPECT_EQ(record().m_keyIndex(), 1);
  ASSERT_THAT(keys(), SizeIs(1));
  EXPECT_EQ(keys().at(0)->hPubKey(), kPublicKey);
  EXPECT_EQ(keys().at(0)->hPriKey(), 0U);
  EXPECT_EQ(keys().at(0)->keyID(), Text{u"01"});
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(patternValue(256, 0xC5)));
}

TEST_F(EnumCardKeys, ListsTheCertificate) {
  enumerate();
  EXPECT_EQ(record().m_certIndex(), 1);
  ASSERT_THAT(certificates(), SizeIs(1));
  EXPECT_EQ(certificates().at(0)->hCert(), kCertificate);
  EXPECT_EQ(certificates().at(0)->strID(), Text{u"01"});
  EXPECT_EQ(certificates().at(0)->strLabel(), Text{u"MyKey"});
  EXPECT_EQ(certificates().at(0)->pbCertData(), bytesLike(patternValue(700, 0x30)));
}

TEST_F(EnumCardKeys, KeepsSessionSlotAndToken) {
  enumerate();
  EXPECT_EQ(record().hSession(), kFirstSession);
  EXPECT_EQ(record().slotID(), kSlot);
  expectSessionInfo(record().hSessionInfo(), {kSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION, 0});
  expectSlotInfo(record().slotInfo(), script.slot());
  expectTokenInfo(record().tokenInfo(), script.card().info);
}

TEST_F(EnumCardKeys, DoesNotLookAtItsArgument) {
  for (const Text& ignored : {Text{}, Text{u""}, Text{u"No such reader"}}) {
    EXPECT_TRUE(framework->EnumCardKeys(ignored));
    EXPECT_THAT(keys(), SizeIs(1));
  }
}

TEST_F(EnumCardKeys, LogsNothing) {
  log->allLines.clear();
  enumerate();
  script.failCallOf("C_FindObjects", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(EnumCardKeys, ListsThePublicKeysAloneEvenWithTheUserLoggedIn) {
  script.card().loggedIn = true;
  enumerate();
  EXPECT_THAT(keys(), SizeIs(1));
}

TEST_F(EnumCardKeys, ListsOnlyWhatIsOnTheToken) {
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Fleeting"), patternValue(128, 1))
                       .with(CKA_TOKEN, boolValue(false)));
  script.addObject(certificate(bytesOf("01"), bytesOf("Fleeting"), patternValue(100, 1))
                       .with(CKA_TOKEN, boolValue(false)));
  enumerate();
  EXPECT_THAT(keys(), SizeIs(1));
  EXPECT_THAT(certificates(), SizeIs(1));
}

// ---- Names ----

TEST_F(EnumCardKeys, NamesAKeyBySerialNumberTypeIdentifierAndLabel) {
  const struct {
    const char* what;
    std::string serialNumber;  // 16 bytes
    Value keyType;
    Value id;
    Value label;
    Text name;
  } kRows[] = {
      {"RSA", "1234567890ABCDEF", ulongValue(CKK_RSA), bytesOf("01"), bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_RSA_01_MyKey"}},
      {"EC", "1234567890ABCDEF", ulongValue(CKK_EC), bytesOf("02"), bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_EC_02_MyKey"}},
      {"DSA", "1234567890ABCDEF", ulongValue(CKK_DSA), bytesOf("03"), bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_(null)03_MyKey"}},
      {"no standard type", "1234567890ABCDEF", ulongValue(CKR_VENDOR_DEFINED | 0x7F), bytesOf("03"),
       bytesOf("MyKey"), Text{u"1234567890ABCDEF_(null)03_MyKey"}},
      // The first byte of the type decides, however many there are.
      {"RSA in one byte",
       "1234567890ABCDEF",
       {0x00},
       bytesOf("01"),
       bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_RSA_01_MyKey"}},
      {"EC in one byte",
       "1234567890ABCDEF",
       {0x03},
       bytesOf("01"),
       bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_EC_01_MyKey"}},
      {"EC in four bytes",
       "1234567890ABCDEF",
       {0x03, 0, 0, 0},
       bytesOf("01"),
       bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_EC_01_MyKey"}},
      {"EC with more bytes behind",
       "1234567890ABCDEF",
       {0x03, 0xFF, 0xFF},
       bytesOf("01"),
       bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_EC_01_MyKey"}},
      {"0x100 looks like RSA", "1234567890ABCDEF", ulongValue(0x100), bytesOf("01"), bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_RSA_01_MyKey"}},
      {"0x10",
       "1234567890ABCDEF",
       {0x10},
       bytesOf("01"),
       bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_(null)01_MyKey"}},
      // Nothing is trimmed, and every byte counts.
      {"a padded serial number", "42              ", ulongValue(CKK_RSA), bytesOf("01"), bytesOf("MyKey"),
       Text{u"42              _RSA_01_MyKey"}},
      {"padded identifier and label", "1234567890ABCDEF", ulongValue(CKK_RSA), bytesOf(" 01 "),
       bytesOf(" My "), Text{u"1234567890ABCDEF_RSA_ 01 _ My "}},
      {"NUL in the serial number", std::string{"12\0\0ABCDEFGHIJKL", 16}, ulongValue(CKK_RSA), bytesOf("01"),
       bytesOf("MyKey"), Text{u"12\0\0ABCDEFGHIJKL_RSA_01_MyKey"sv}},
      {"one binary byte",
       "1234567890ABCDEF",
       ulongValue(CKK_RSA),
       {0x01},
       bytesOf("MyKey"),
       Text{u"1234567890ABCDEF_RSA_\u0001_MyKey"}},
      {"NUL in identifier and label",
       "1234567890ABCDEF",
       ulongValue(CKK_EC),
       {0x00, 0x01},
       {'a', 0, 'b', 0},
       Text{u"1234567890ABCDEF_EC_\0\1_a\0b\0"sv}},
      {"bytes above 0x7F",
       "1234567890ABCDEF",
       ulongValue(CKK_RSA),
       {0x80, 0xFF},
       {0xC3, 0xA9},
       Text{u"1234567890ABCDEF_RSA_\u0080\u00FF_\u00C3\u00A9"}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    emptyTheCard();
    CK_TOKEN_INFO tokenInfo = record().tokenInfo();
    ASSERT_EQ(row.serialNumber.size(), sizeof tokenInfo.serialNumber);
    setField(tokenInfo.serialNumber, row.serialNumber);
    record().setTokenInfo(tokenInfo);
    Object key = rsaPublicKey(row.id, row.label, patternValue(128, 1))
                     .with(CKA_EC_PARAMS, p256Params())
                     .with(CKA_EC_POINT, p256Point(1))
                     .with(CKA_KEY_TYPE, row.keyType);
    script.addObject(std::move(key));
    enumerate();
    EXPECT_THAT(keyNames(), ElementsAre(row.name));
    EXPECT_EQ(keys().at(0)->keyID().length(), row.id.size());
  }
}

TEST_F(EnumCardKeys, TakesTheSerialNumberOfTheRecord) {
  setField(script.card().info.serialNumber, "ANOTHER");
  enumerate();
  EXPECT_THAT(keyNames(), ElementsAre(Text{u"1234567890ABCDEF_RSA_01_MyKey"}));
}

// ---- Public values ----

TEST_F(EnumCardKeys, TakesThePointAsTheModuleGivesIt) {
  emptyTheCard();
  addEcKey(bytesOf("02"));
  enumerate();
  ASSERT_THAT(keys(), SizeIs(1));
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(p256Point(3)));
  EXPECT_EQ(keys().at(0)->pKeyValue().size(), 67U);
}

TEST_F(EnumCardKeys, ListsAKeyOfAnotherTypeWithoutAPublicValue) {
  emptyTheCard();
  script.addObject(rsaPublicKey(bytesOf("03"), bytesOf("MyKey"), patternValue(128, 1))
                       .with(CKA_KEY_TYPE, ulongValue(CKK_DSA))
                       .without(CKA_MODULUS));
  addCertificate(bytesOf("03"));
  enumerate();
  ASSERT_THAT(keys(), SizeIs(1));
  EXPECT_TRUE(keys().at(0)->pKeyValue().isNull());
  EXPECT_THAT(certificates(), SizeIs(1)) << "it can be bound like any other";
}

TEST_F(EnumCardKeys, LeavesOutAKeyWhosePublicValueHasNoReadableLength) {
  const Object rsa = rsaPublicKey(bytesOf("02"), bytesOf("Odd"), patternValue(128, 1));
  const Object ec = ecPublicKey(bytesOf("02"), bytesOf("Odd"), p256Params(), p256Point(1));
  Object sensitive = ec;
  sensitive.sensitive.insert(CKA_EC_POINT);
  const struct {
    const char* what;
    Object key;
  } kRows[] = {
      {"no modulus", rsa.without(CKA_MODULUS)},
      {"an empty modulus", rsa.with(CKA_MODULUS, {})},
      {"no point", ec.without(CKA_EC_POINT)},
      {"an empty point", ec.with(CKA_EC_POINT, {})},
      {"a point that must not be read", sensitive},
      {"no domain parameters", ec.without(CKA_EC_PARAMS)},
      {"empty domain parameters", ec.with(CKA_EC_PARAMS, {})},
      {"a point of 201 bytes", ec.with(CKA_EC_POINT, patternValue(201, 4))},
      {"a point of 520 bytes", ec.with(CKA_EC_POINT, patternValue(520, 4))},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    script.card().objects.clear();
    addRsaKey(bytesOf("01"), "Before");
    script.addObject(row.key);
    addRsaKey(bytesOf("03"), "Behind");
    addCertificate(bytesOf("02"));
    addCertificate(bytesOf("03"));
    enumerate();
    EXPECT_THAT(keyNames(), ElementsAre(Text{u"1234567890ABCDEF_RSA_01_Before"},
                                        Text{u"1234567890ABCDEF_RSA_03_Behind"}));
    EXPECT_EQ(record().m_keyIndex(), 2);
    ASSERT_THAT(certificates(), SizeIs(1)) << "there is no key for the other one";
    EXPECT_EQ(certificates().at(0)->strID(), Text{u"03"});
  }
}

TEST_F(EnumCardKeys, TakesPublicValuesUpToTheirLimits) {
  const Object rsa = rsaPublicKey(bytesOf("01"), bytesOf("K"), {});
  const Object ec = ecPublicKey(bytesOf("01"), bytesOf("K"), p256Params(), {});
  const struct {
    const char* what;
    Object key;
    CK_ATTRIBUTE_TYPE attribute;
    std::size_t size;
    bool succeeds;
  } kRows[] = {
      {"a modulus of 1 byte", rsa, CKA_MODULUS, 1, true},
      {"4096 bits", rsa, CKA_MODULUS, 512, true},
      {"a modulus of 639 bytes", rsa, CKA_MODULUS, 639, true},
      // The length can be read, the value cannot.
      {"a modulus of 640 bytes", rsa, CKA_MODULUS, 640, false},
      {"a modulus of 2000 bytes", rsa, CKA_MODULUS, 2000, false},
      {"a modulus of 2001 bytes", rsa, CKA_MODULUS, 2001, false},
      {"a point of 1 byte", ec, CKA_EC_POINT, 1, true},
      {"a point of 200 bytes", ec, CKA_EC_POINT, 200, true},
      {"a point of 521 bytes", ec, CKA_EC_POINT, 521, false},
      {"a point of 2001 bytes", ec, CKA_EC_POINT, 2001, false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    script.reset();
    newFramework();
    openSession();
    emptyTheCard();
    const Value value = patternValue(row.size, 9);
    script.addObject(row.key.with(row.attribute, value));
    ASSERT_EQ(framework->EnumCardKeys(reader()), row.succeeds);
    if (!row.succeeds) continue;
    ASSERT_THAT(keys(), SizeIs(1));
    EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(value));
  }
}

// ---- Limits of the other values ----

TEST_F(EnumCardKeys, TakesOtherValuesUpToTheirLimits) {
  const struct {
    const char* what;
    CK_OBJECT_HANDLE object;
    CK_ATTRIBUTE_TYPE attribute;
    std::size_t size;
    bool succeeds;
  } kRows[] = {
      {"a key's label of 1 byte", kPublicKey, CKA_LABEL, 1, true},
      {"a key's label of 2000 bytes", kPublicKey, CKA_LABEL, 2000, true},
      {"a key's label of 2001 bytes", kPublicKey, CKA_LABEL, 2001, false},
      {"a key's ID of 2000 bytes", kPublicKey, CKA_ID, 2000, true},
      {"a key's ID of 2001 bytes", kPublicKey, CKA_ID, 2001, false},
      {"a key's type of 2000 bytes", kPublicKey, CKA_KEY_TYPE, 2000, true},
      {"a key's type of 2001 bytes", kPublicKey, CKA_KEY_TYPE, 2001, false},
      {"a certificate's label of 256 bytes", kCertificate, CKA_LABEL, 256, true},
      {"a certificate's label of 257 bytes", kCertificate, CKA_LABEL, 257, false},
      {"a certificate's ID of 256 bytes", kCertificate, CKA_ID, 256, true},
      {"a certificate's ID of 257 bytes", kCertificate, CKA_ID, 257, false},
      {"a certificate of 1 byte", kCertificate, CKA_VALUE, 1, true},
      {"a certificate of 1999 bytes", kCertificate, CKA_VALUE, 1999, true},
      {"a certificate of 2000 bytes", kCertificate, CKA_VALUE, 2000, true},
      {"a certificate of 2001 bytes", kCertificate, CKA_VALUE, 2001, false},
      {"a certificate of 5000 bytes", kCertificate, CKA_VALUE, 5000, false},
      // An empty attribute has no length that could be read.
      {"an empty label of a key", kPublicKey, CKA_LABEL, 0, false},
      {"an empty ID of a key", kPublicKey, CKA_ID, 0, false},
      {"an empty type of a key", kPublicKey, CKA_KEY_TYPE, 0, false},
      {"an empty label of a certificate", kCertificate, CKA_LABEL, 0, false},
      {"an empty ID of a certificate", kCertificate, CKA_ID, 0, false},
      {"an empty certificate", kCertificate, CKA_VALUE, 0, false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    script.reset();
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    Object& changed = script.object(row.object);
    changed = changed.with(row.attribute, patternValue(row.size, 7));
    EXPECT_EQ(framework->EnumCardKeys(reader()), row.succeeds);
    if (row.succeeds) {
      EXPECT_EQ(record().m_keyIndex(), 1);
    } else {
      EXPECT_FALSE(framework->p11ServiceInfo());
      expectEmptied(retained);
    }
  }
}

TEST_F(EnumCardKeys, FailsWithAnObjectThatLacksAnAttribute) {
  constexpr struct {
    const char* what;
    CK_OBJECT_HANDLE object;
    CK_ATTRIBUTE_TYPE attribute;
  } kRows[] = {
      {"a key's label", kPublicKey, CKA_LABEL},     {"a key's type", kPublicKey, CKA_KEY_TYPE},
      {"a key's ID", kPublicKey, CKA_ID},           {"a certificate's label", kCertificate, CKA_LABEL},
      {"a certificate's ID", kCertificate, CKA_ID}, {"a certificate's value", kCertificate, CKA_VALUE},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    script.reset();
    newFramework();
    openSession();
    Object& changed = script.object(row.object);
    changed = changed.without(row.attribute);
    EXPECT_FALSE(framework->EnumCardKeys(reader()));
    EXPECT_FALSE(framework->p11ServiceInfo());
    expectUsable();
  }
}

TEST_F(EnumCardKeys, FailsForEveryKeyWhenOneOfThemHasNoLabel) {
  addRsaKey(bytesOf("02"), "");
  addRsaKey(bytesOf("03"), "Behind");
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
}

// ---- Binding ----

TEST_F(EnumCardKeys, ListsNeitherKeysNorCertificatesOfAnEmptyCard) {
  emptyTheCard();
  enumerate();
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_EQ(record().m_certIndex(), 0);
  EXPECT_TRUE(!record().pAsymKeys() || keys().empty());
  EXPECT_TRUE(!record().pCerts() || certificates().empty());
}

TEST_F(EnumCardKeys, EmptiesTheListsOfACardThatHasBecomeEmpty) {
  enumerate();
  emptyTheCard();
  enumerate();
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_EQ(record().m_certIndex(), 0);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_THAT(certificates(), IsEmpty());
}

TEST_F(EnumCardKeys, ListsAKeyWithoutACertificate) {
  emptyTheCard();
  addRsaKey(bytesOf("01"));
  enumerate();
  EXPECT_EQ(record().m_keyIndex(), 1);
  EXPECT_EQ(record().m_certIndex(), 0);
}

TEST_F(EnumCardKeys, DoesNotListACertificateWithoutAKey) {
  addCertificate(bytesOf("02"));
  addCertificate(bytesOf("0"));
  addCertificate(bytesOf("010"));
  enumerate();
  EXPECT_THAT(certificateHandles(), ElementsAre(kCertificate));
  EXPECT_EQ(record().m_certIndex(), 1);
}

TEST_F(EnumCardKeys, DoesNotListCertificatesOfACardWithoutKeys) {
  emptyTheCard();
  addCertificate(bytesOf("01"));
  enumerate();
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_EQ(record().m_certIndex(), 0);
  EXPECT_THAT(certificates(), IsEmpty());
}

TEST_F(EnumCardKeys, ListsACertificateOnceForEachKeyWithItsIdentifier) {
  emptyTheCard();
  addRsaKey(bytesOf("01"), "First");
  addEcKey(bytesOf("02"), "Other");
  addEcKey(bytesOf("01"), "Second");
  const CK_OBJECT_HANDLE bound = addCertificate(bytesOf("01"));
  enumerate();
  EXPECT_EQ(record().m_keyIndex(), 3);
  EXPECT_EQ(record().m_certIndex(), 2);
  EXPECT_THAT(certificateHandles(), ElementsAre(bound, bound));
  EXPECT_NE(certificates().at(0), certificates().at(1)) << "each is a record of its own";
}

TEST_F(EnumCardKeys, ListsSeveralCertificatesOfOneKey) {
  emptyTheCard();
  addRsaKey(bytesOf("01"));
  const CK_OBJECT_HANDLE first = addCertificate(bytesOf("01"), "One");
  const CK_OBJECT_HANDLE second = addCertificate(bytesOf("01"), "Two");
  enumerate();
  EXPECT_THAT(certificateHandles(), ElementsAre(first, second));
}

TEST_F(EnumCardKeys, ListsInTheOrderOfTheSearches) {
  emptyTheCard();
  const CK_OBJECT_HANDLE c2 = addCertificate(bytesOf("02"));
  addRsaKey(bytesOf("01"), "K1");
  const CK_OBJECT_HANDLE c1 = addCertificate(bytesOf("01"));
  addEcKey(bytesOf("02"), "K2");
  addRsaKey(bytesOf("03"), "K3");
  const CK_OBJECT_HANDLE c3 = addCertificate(bytesOf("03"));
  enumerate();
  EXPECT_THAT(keyNames(), ElementsAre(Text{u"1234567890ABCDEF_RSA_01_K1"}, Text{u"1234567890ABCDEF_EC_02_K2"},
                                      Text{u"1234567890ABCDEF_RSA_03_K3"}));
  EXPECT_THAT(certificateHandles(), ElementsAre(c2, c1, c3));
}

TEST_F(EnumCardKeys, BindsByTheIdentifierAloneAndToTheLetter) {
  emptyTheCard();
  addRsaKey(bytesOf("aB"), "Same label");
  addCertificate(bytesOf("ab"), "Same label");
  addCertificate(bytesOf("aB "), "Same label");
  const CK_OBJECT_HANDLE bound = addCertificate(bytesOf("aB"), "Another label");
  enumerate();
  EXPECT_THAT(certificateHandles(), ElementsAre(bound));
}

/// Identifiers of real cards, and neighbours of theirs.
std::vector<Value> binaryIdentifiers() {
  // SHA-1 of "abc" (FIPS 180-2, appendix A.1).
  const Value sha1{0xA9, 0x99, 0x3E, 0x36, 0x47, 0x06, 0x81, 0x6A, 0xBA, 0x3E,
                   0x25, 0x71, 0x78, 0x50, 0xC2, 0x6C, 0x9C, 0xD0, 0xD8, 0x9D};
  Value almostSha1 = sha1;
  almostSha1.back() = 0x9E;
  Value upTo254(254, 0x41);
  Value upTo255(255, 0x41);
  Value upTo256(256, 0x41);
  return {
      {0x01},           {0x00},
      {0x00, 0x01},     {0x01, 0x00},
      {0x00, 0x00},     {0x01, 0x01},
      {0x80},           {0xFF},
      {0x7F},           {0x3F},  // what a character outside ASCII is often replaced with
      {0xC3, 0xA9},     {0xE9},
      {0xC3},           {0xEF, 0xBF, 0xBD},
      bytesOf("01"),    bytesOf("1"),
      {'0', '1', 0x00}, sha1,
      almostSha1,       Value(sha1.begin(), sha1.end() - 1),
      upTo254,          upTo255,
      upTo256,
  };
}

TEST_F(EnumCardKeys, BindsBinaryIdentifiersByteForByte) {
  emptyTheCard();
  const std::vector<Value> identifiers = binaryIdentifiers();
  for (const Value& id : identifiers) addRsaKey(id);
  // In reverse, so that no order can bind them by chance.
  std::vector<CK_OBJECT_HANDLE> handles;
  for (std::size_t i = identifiers.size(); i-- > 0;) handles.push_back(addCertificate(identifiers[i]));
  enumerate();

  ASSERT_EQ(keys().size(), identifiers.size());
  ASSERT_EQ(certificateHandles(), handles) << "each is bound once, to its own key";
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    SCOPED_TRACE(i);
    const Text id = keys().at(i)->keyID();
    EXPECT_TRUE(
        std::equal(id.units().begin(), id.units().end(), identifiers[i].begin(), identifiers[i].end()));
    EXPECT_EQ(certificates().at(identifiers.size() - 1 - i)->strID(), id);
  }
}

// ---- Many objects ----

TEST_F(EnumCardKeys, ListsUpTo160KeysAndCertificates) {
  for (const int numObjects : {0, 1, 19, 20, 21, 40, 159, 160, 161, 200, 300}) {
    SCOPED_TRACE(numObjects);
    emptyTheCard();
    script.forgetCalls();
    std::vector<CK_OBJECT_HANDLE> expectedKeys;
    std::vector<CK_OBJECT_HANDLE> expectedCertificates;
    const auto id = [](int i) { return Value{static_cast<CK_BYTE>(i / 256), static_cast<CK_BYTE>(i % 256)}; };
    for (int i = 0; i < numObjects; ++i) expectedKeys.push_back(addRsaKey(id(i)));
    for (int i = 0; i < numObjects; ++i) expectedCertificates.push_back(addCertificate(id(i)));
    const std::size_t expected = static_cast<std::size_t>(std::min(numObjects, 160));
    expectedKeys.resize(expected);
    expectedCertificates.resize(expected);

    enumerate();
    EXPECT_EQ(record().m_keyIndex(), static_cast<std::int32_t>(expected));
    EXPECT_EQ(record().m_certIndex(), static_cast<std::int32_t>(expected));
    if (expected == 0) continue;
    std::vector<CK_OBJECT_HANDLE> listedKeys;
    for (const auto& key : keys()) listedKeys.push_back(key->hPubKey());
    EXPECT_EQ(listedKeys, expectedKeys);
    EXPECT_EQ(certificateHandles(), expectedCertificates);
  }
}

TEST_F(EnumCardKeys, DoesNotListACertificateWhoseKeyIsBeyondThe160th) {
  emptyTheCard();
  for (int i = 0; i < 160; ++i) addRsaKey({static_cast<CK_BYTE>(i)});
  addRsaKey(bytesOf("beyond"));
  addCertificate(bytesOf("beyond"));
  enumerate();
  EXPECT_THAT(keys(), SizeIs(160));
  EXPECT_THAT(certificates(), IsEmpty());
}

// ---- The record before and after ----

TEST_F(EnumCardKeys, RebuildsTheListsEachTime) {
  enumerate();
  const RetainedRecord first{framework->p11ServiceInfo()};
  addRsaKey(bytesOf("02"), "New");
  enumerate();
  EXPECT_THAT(keys(), SizeIs(2));
  EXPECT_EQ(record().m_keyIndex(), 2);
  EXPECT_NE(keys().at(0), first.listedKeys[0]);
  EXPECT_THAT(certificates(), SizeIs(1));
  EXPECT_NE(certificates().at(0), first.listedCertificates[0]);
}

TEST_F(EnumCardKeys, EmptiesTheListsOfTheRecordItReplacesButNotTheKeysListedThere) {
  enumerate();
  const RetainedRecord first{framework->p11ServiceInfo()};
  enumerate();
  EXPECT_NE(framework->p11ServiceInfo(), first.record);
  EXPECT_THAT(*first.keys, IsEmpty());
  EXPECT_THAT(*first.certificates, IsEmpty());
  EXPECT_EQ(first.listedKeys[0]->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(first.listedKeys[0]->pKeyValue().size(), 256U);
  EXPECT_EQ(first.listedCertificates[0]->pbCertData().size(), 700U);
}

TEST_F(EnumCardKeys, EmptiesTheListsBetweenTheTwoSearches) {
  enumerate();
  const RetainedRecord first{framework->p11ServiceInfo()};
  std::vector<std::size_t> numListed;  // when each of the searches begins
  script.hook<&CK_FUNCTION_LIST::C_FindObjectsInit>([&](auto real, auto session, auto* filter, auto count) {
    numListed.push_back(first.keys->size() + first.certificates->size());
    return real(session, filter, count);
  });
  enumerate();
  EXPECT_THAT(numListed, ElementsAre(2, 0));
}

TEST_F(EnumCardKeys, OpensNoSessionOfItsOwn) {
  enumerate();
  EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
  EXPECT_EQ(script.countOf("C_CloseSession"), 0U);
}

TEST_F(EnumCardKeys, FailsWithoutARecord) {
  framework->setP11ServiceInfo(nullptr);
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

/// The bridge opens a session for such a record, but the record cannot hold it.
TEST_F(EnumCardKeys, FailsForARecordWhoseSessionWasClosed) {
  enumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  ASSERT_TRUE(framework->CloseCardSession(reader(), nullptr));
  script.forgetCalls();
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetSessionInfo(6)",
                          "C_GetTokenInfo(1)", "C_CloseSession(6)"));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(retained);
  expectMembersReleased(retained);
  EXPECT_THAT(script.openSessions(), IsEmpty());
  expectUsable();
}

TEST_F(EnumCardKeys, FailsForARecordWithoutSessionWithAnyCall) {
  failEachCall(CKR_DEVICE_ERROR, 5, [&](FailPoint& point) {
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    ASSERT_TRUE(framework->CloseCardSession(reader(), nullptr));
    point.arm();
    EXPECT_FALSE(framework->EnumCardKeys(reader()));
    EXPECT_FALSE(framework->p11ServiceInfo());
    expectEmptied(retained);
    const bool left =
        point.fired() && (point.n() == 4 || (point.n() >= 2 && point.times() == Times::kFromThenOn));
    EXPECT_EQ(script.openSessions().size(), left ? 1U : 0U);
  });
}

TEST_F(EnumCardKeys, FailsBeforeACardWasSelected) {
  newFramework();
  script.reset();
  openService();
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(script.callTexts(), IsEmpty()) << "there is no slot to open a session on";
  EXPECT_FALSE(framework->p11ServiceInfo());
  leavesOpen({});
}

TEST_F(EnumCardKeys, FailsAfterASelectionWithoutOpeningASession) {
  ASSERT_TRUE(framework->EnumCards(reader()));
  script.forgetCalls();
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_FindObjectsInit(0, [CKA_TOKEN=01, CKA_CLASS=0200000000000000])"));
  EXPECT_FALSE(framework->p11ServiceInfo());
}

TEST_F(EnumCardKeys, FailsWhenTheCardWasPulled) {
  enumerate();
  const RetainedRecord retained{framework->p11ServiceInfo()};
  script.pullCard(kSlot, CKR_DEVICE_REMOVED);
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(retained);
  expectMembersReleased(retained);
  leavesOpen({});
}

TEST_F(EnumCardKeys, KeepsALogin) {
  const Value pin = bytesOf("123456");
  ASSERT_EQ(framework->p11Bridge()->pkcs11_UserLogin(record().hSession(), pin.data(), pin.size()), CKR_OK);
  enumerate();
  script.failCallOf("C_GetAttributeValue", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_TRUE(script.card().loggedIn);
}

}  // namespace
}  // namespace mirel::test
