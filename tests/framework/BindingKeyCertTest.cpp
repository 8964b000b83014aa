/// Which certificate belongs to an object.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BindingKeyCert : public FrameworkTest {
 protected:
  BindingKeyCert() {
    openSessionAndEnumerate();
    log->allLines.clear();
    own->setStrID(Text{u"own"});
    own->setPbCertData(Bytes{{0x30, 0x00}});
  }

  void addToRecord(std::u16string_view id, const Bytes& data) {
    const auto listed = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
    listed->setStrID(Text{id});
    listed->setPbCertData(data);
    record().pCerts()->push_back(listed);
  }

  CK_OBJECT_HANDLE addKey(Value id) {
    return script.addObject(rsaPublicKey(std::move(id), bytesOf("Label"), patternValue(128, 1)));
  }

  /// A certificate that the caller brings along.
  std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> own = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
};

TEST_F(BindingKeyCert, ReadsTheIdentifierInTheStoredSession) {
  EXPECT_TRUE(framework->BindingKeyCert(reader(), kPublicKey, own));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 21, [CKA_ID room 256])",
                                              "C_GetAttributeValue(5, 21, [CKA_ID room 2])"));
}

TEST_F(BindingKeyCert, ChoosesTheListedCertificateAndLogsItTwice) {
  EXPECT_TRUE(framework->BindingKeyCert(reader(), kPublicKey, nullptr));
  EXPECT_THAT(log->allLines, ElementsAre("process: [MirelCTKFramework-366] cert.strID = 01",
                                         "process: [MirelCTKFramework-374] pCertInfo.strID = 01"));
}

TEST_F(BindingKeyCert, WorksForACertificateObjectToo) {
  EXPECT_TRUE(framework->BindingKeyCert(reader(), kCertificate, nullptr));
}

TEST_F(BindingKeyCert, ChoosesTheFirstOfSeveral) {
  record().pCerts()->clear();
  addToRecord(u"02", Bytes{{0x01}});
  addToRecord(u"01", Bytes{});  // without data
  addToRecord(u"01", Bytes{{0x02}});
  EXPECT_FALSE(framework->BindingKeyCert(reader(), kPublicKey, own));
  EXPECT_THAT(log->allLines, ElementsAre("process: [MirelCTKFramework-366] cert.strID = 01",
                                         "process: [MirelCTKFramework-374] pCertInfo.strID = 01"));
}

TEST_F(BindingKeyCert, FallsBackOnTheCertificateGiven) {
  const CK_OBJECT_HANDLE key = addKey(bytesOf("02"));
  EXPECT_TRUE(framework->BindingKeyCert(reader(), key, own));
  EXPECT_THAT(log->allLines, ElementsAre("process: [MirelCTKFramework-374] pCertInfo.strID = own"));
}

TEST_F(BindingKeyCert, FailsWhenTheCertificateGivenHasNoData) {
  const CK_OBJECT_HANDLE key = addKey(bytesOf("02"));
  own->setPbCertData(Bytes{});
  EXPECT_FALSE(framework->BindingKeyCert(reader(), key, own));
  EXPECT_THAT(log->allLines, ElementsAre("process: [MirelCTKFramework-374] pCertInfo.strID = own"));
}

TEST_F(BindingKeyCert, TakesEmptyDataForData) {
  const CK_OBJECT_HANDLE key = addKey(bytesOf("02"));
  own->setPbCertData(Bytes{std::vector<std::uint8_t>{}});
  EXPECT_TRUE(framework->BindingKeyCert(reader(), key, own));
}

TEST_F(BindingKeyCert, LogsNullForAMissingIdentifierOrCertificate) {
  const CK_OBJECT_HANDLE key = addKey(bytesOf("02"));
  own->setStrID(Text{});
  EXPECT_TRUE(framework->BindingKeyCert(reader(), key, own));
  EXPECT_FALSE(framework->BindingKeyCert(reader(), key, nullptr));
  EXPECT_THAT(log->allLines, ElementsAre("process: [MirelCTKFramework-374] pCertInfo.strID = (null)",
                                         "process: [MirelCTKFramework-374] pCertInfo.strID = (null)"));
}

TEST_F(BindingKeyCert, DoesNotHandTheChosenCertificateBack) {
  const auto listed = certificates().at(0);
  EXPECT_TRUE(framework->BindingKeyCert(reader(), kPublicKey, own));
  EXPECT_EQ(own->strID(), Text{u"own"});
  EXPECT_EQ(own->pbCertData().size(), 2U);
  EXPECT_THAT(certificates(), ElementsAre(listed));
}

TEST_F(BindingKeyCert, FallsBackWithoutAList) {
  record().setPCerts(nullptr);
  EXPECT_TRUE(framework->BindingKeyCert(reader(), kPublicKey, own));
  EXPECT_FALSE(framework->BindingKeyCert(reader(), kPublicKey, nullptr));
}

TEST_F(BindingKeyCert, PassesOverNullEntries) {
  record().pCerts()->insert(record().pCerts()->begin(), nullptr);
  EXPECT_TRUE(framework->BindingKeyCert(reader(), kPublicKey, nullptr));
}

// ---- The name ----

TEST_F(BindingKeyCert, ComparesTheNameWithTheStartOfTheStoredDescription) {
  const std::u16string full = u"Lecteur \u00E9 " + std::u16string(54, u'x');
  ASSERT_EQ(full.size(), 64U);
  CK_SLOT_INFO info = record().slotInfo();
  setField(info.slotDescription, "Lecteur \xE9 " + std::string(54, 'x'));
  record().setSlotInfo(info);
  const struct {
    const char* what;
    Text name;
    bool matches;
  } kRows[] = {
      {"all 64 characters, one of them above 0x7F", Text{full}, true},
      {"a prefix", Text{u"Lecteur"}, true},
      {"an empty name", Text{u""}, true},
      {"no name", Text{}, true},
      {"another name", Text{u"Reader A 00"}, false},
      {"only the low byte is alike", Text{u"Lecteur \u01E9"}, false},
      {"only the low bytes are alike", Text{u"\u014Cecteur"}, false},
      {"65 characters that go on as the manufacturer does", Text{full + u"S"}, false},
      {"the description and the whole manufacturer", Text{full + u"Scripted readers                "}, false},
      {"very long", Text{std::u16string(100000, u'L')}, false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    script.forgetCalls();
    EXPECT_EQ(framework->BindingKeyCert(row.name, kPublicKey, nullptr), row.matches);
    EXPECT_EQ(script.calls().empty(), !row.matches);
  }
}

TEST_F(BindingKeyCert, MatchesNoNameThatRunsThroughTheWholeStructure) {
  CK_SLOT_INFO info{};
  setField(info.slotDescription, std::string(64, 'A'));
  setField(info.manufacturerID, std::string(32, 'A'));
  info.flags = 0x4141414141414141;
  info.hardwareVersion = {'A', 'A'};
  info.firmwareVersion = {'A', 'A'};
  record().setSlotInfo(info);
  for (const std::size_t length : {65U, 96U, 104U, 108U, 112U, 113U, 200U}) {
    SCOPED_TRACE(length);
    EXPECT_FALSE(framework->BindingKeyCert(Text{std::u16string(length, u'A')}, kPublicKey, own));
  }
  EXPECT_TRUE(framework->BindingKeyCert(Text{std::u16string(64, u'A')}, kPublicKey, own));
}

// ---- Identifiers ----

TEST_F(BindingKeyCert, BindsBinaryIdentifiersByteForByte) {
  const struct {
    const char* what;
    Value id;
    Text text;
  } kRows[] = {
      {"one byte", {0x01}, Text{u"\u0001"}},
      {"NUL", {0x00}, Text{u"\0"sv}},
      {"NUL and one", {0x00, 0x01}, Text{u"\0\1"sv}},
      {"one and NUL", {0x01, 0x00}, Text{u"\1\0"sv}},
      {"above 0x7F", {0x80, 0xFF}, Text{u"\u0080\u00FF"}},
      {"256 bytes", Value(256, 'x'), Text{std::u16string(256, u'x')}},
  };
  record().pCerts()->clear();
  for (const auto& row : kRows) addToRecord(row.text.units(), Bytes{{0x30}});
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    log->allLines.clear();
    EXPECT_TRUE(framework->BindingKeyCert(reader(), addKey(row.id), nullptr));
    EXPECT_THAT(log->allLines,
                ElementsAre("process: [MirelCTKFramework-366] cert.strID = " + row.text.toUtf8(),
                            "process: [MirelCTKFramework-374] pCertInfo.strID = " + row.text.toUtf8()));
  }
  EXPECT_FALSE(framework->BindingKeyCert(reader(), addKey({0x01, 0x01}), nullptr));
  EXPECT_FALSE(framework->BindingKeyCert(reader(), addKey(Value(255, 'x')), nullptr));
}

// ---- Failures ----

TEST_F(BindingKeyCert, FailsWithoutARecord) {
  framework->setP11ServiceInfo(nullptr);
  EXPECT_FALSE(framework->BindingKeyCert(Text{}, kPublicKey, own));
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(BindingKeyCert, FailsWhenTheIdentifierCannotBeRead) {
  const Object key = rsaPublicKey(bytesOf("01"), bytesOf("Label"), patternValue(128, 1));
  Object sensitive = key;
  sensitive.sensitive.insert(CKA_ID);
  const struct {
    const char* what;
    Object object;
  } kRows[] = {
      {"none", key.without(CKA_ID)},
      {"an empty one", key.with(CKA_ID, {})},
      {"one of 257 bytes", key.with(CKA_ID, Value(257, 'x'))},
      {"one that must not be read", sensitive},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    EXPECT_FALSE(framework->BindingKeyCert(reader(), script.addObject(row.object), own));
  }
  EXPECT_FALSE(framework->BindingKeyCert(reader(), 12345, own)) << "there is no such object";
  EXPECT_FALSE(framework->BindingKeyCert(reader(), 0, own));
  EXPECT_FALSE(framework->BindingKeyCert(reader(), kNoHandle, own));
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(BindingKeyCert, FailsWithEitherCall) {
  failEachCall(CKR_DEVICE_ERROR, 2, [&](FailPoint& point) {
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    log->allLines.clear();
    point.arm();
    const bool succeeded = framework->BindingKeyCert(reader(), kPublicKey, own);
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(log->allLines.empty(), point.fired());
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    expectUntouched(retained);
  });
}

TEST_F(BindingKeyCert, FailsWithALengthThatIsALie) {
  for (const std::size_t n : {0U, 1U}) {
    for (const CK_ULONG lie : {CK_ULONG{0}, CK_UNAVAILABLE_INFORMATION, CK_ULONG{257}, CK_ULONG{4000},
                               CK_ULONG{0x100000002}, CK_ULONG{1} << 40U, CK_ULONG{1} << 62U}) {
      SCOPED_TRACE(::testing::Message() << "read " << n << ", length " << lie);
      script.forgetCalls();
      std::vector<std::optional<CK_ULONG>> claims(n);
      claims.emplace_back(lie);
      claims.emplace_back(std::nullopt);
      script.deviations.claimedLengths[CKA_ID] = claims;
      EXPECT_FALSE(framework->BindingKeyCert(reader(), kPublicKey, own));
    }
  }
}

TEST_F(BindingKeyCert, FailsWhenTheModuleWritesNothing) {
  script.deviations.silent = {"C_GetAttributeValue"};
  // It leaves the room it was given for the length: 256 bytes of zero, which no certificate has.
  EXPECT_FALSE(framework->BindingKeyCert(reader(), kPublicKey, nullptr));
}

}  // namespace
}  // namespace mirel::test
