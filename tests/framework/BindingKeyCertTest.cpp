/// Which certificate belongs to an object. How the reader's name is compared is in ReaderNameTest.cpp.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kBoundLine = "process: [MirelCTKFramework-366] cert.strID = ";
const std::string kChosenLine = "process: [MirelCTKFramework-374] pCertInfo.strID = ";

class BindingKeyCert : public FrameworkTest {
 protected:
  BindingKeyCert() {
    (void)openAndList();
    own->setStrID(Text{u"own"});
    own->setPbCertData(Bytes{{0x30, 0x00}});
  }

  bool bind(CK_OBJECT_HANDLE object,
            const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate = nullptr) {
    forgetAll();
    return framework->BindingKeyCert(reader(), object, certificate);
  }
  void addToRecord(const Text& id, const Bytes& data) {
    record().pCerts()->push_back(std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>());
    record().pCerts()->back()->setStrID(id);
    record().pCerts()->back()->setPbCertData(data);
  }
  CK_OBJECT_HANDLE addKey(Value id) {
    return script.addObject(rsaPublicKey(std::move(id), bytesOf("Label"), patternValue(128, 1)));
  }

  /// A certificate that the caller brings along.
  std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> own = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
};

TEST_F(BindingKeyCert, ChoosesTheListedCertificateForAnObjectsIdAndLogsItTwice) {
  for (const CK_OBJECT_HANDLE object : {kPublicKey, kCertificate}) {
    EXPECT_TRUE(bind(object));
    const std::string read = "C_GetAttributeValue(5, " + std::to_string(object) + ", [CKA_ID room ";
    EXPECT_THAT(script.callTexts(), ElementsAre(read + "256])", read + "2])"));
    EXPECT_THAT(log->allLines, ElementsAre(kBoundLine + "01", kChosenLine + "01"));
  }
}

TEST_F(BindingKeyCert, DoesNotHandTheChosenCertificateBack) {
  const auto listed = certificates().at(0);
  EXPECT_TRUE(bind(kPublicKey, own));
  EXPECT_EQ(own->strID(), Text{u"own"});
  EXPECT_EQ(own->pbCertData().size(), 2U);
  EXPECT_THAT(certificates(), ElementsAre(listed));
}

TEST_F(BindingKeyCert, ChoosesTheFirstOfSeveralThoughItHaveNoData) {
  *record().pCerts() = {nullptr};
  addToRecord(Text{u"02"}, Bytes{{0x01}});
  addToRecord(Text{u"01"}, Bytes{});
  addToRecord(Text{u"01"}, Bytes{{0x02}});
  EXPECT_FALSE(bind(kPublicKey, own));
  EXPECT_THAT(log->allLines, ElementsAre(kBoundLine + "01", kChosenLine + "01"));
}

TEST_F(BindingKeyCert, FallsBackOnTheCertificateGivenIfThatHasDataAlsoWithoutAList) {
  const CK_OBJECT_HANDLE key = addKey(bytesOf("02"));
  EXPECT_TRUE(bind(key, own));
  EXPECT_THAT(log->allLines, ElementsAre(kChosenLine + "own"));
  own->setPbCertData(Bytes{std::vector<std::uint8_t>{}});
  EXPECT_TRUE(bind(key, own)) << "empty data is data";
  own->setStrID(Text{});
  own->setPbCertData(Bytes{});
  EXPECT_FALSE(bind(key, own));
  EXPECT_THAT(log->allLines, ElementsAre(kChosenLine + "(null)"));
  EXPECT_FALSE(bind(key));
  EXPECT_THAT(log->allLines, ElementsAre(kChosenLine + "(null)"));
  record().setPCerts(nullptr);
  EXPECT_FALSE(bind(kPublicKey));
  own->setPbCertData(Bytes{{0x30}});
  EXPECT_TRUE(bind(kPublicKey, own));
}

TEST_F(BindingKeyCert, BindsBinaryIdentifiersByteForByte) {
  const Value identifiers[] = {{0x01}, {0x00}, {0x00, 0x01}, {0x01, 0x00}, {0x80, 0xFF}, Value(256, 'x')};
  record().pCerts()->clear();
  for (const Value& id : identifiers) addToRecord(Text::fromBytes(id), Bytes{{0x30}});
  for (const Value& id : identifiers) {
    SCOPED_TRACE(hexText(id));
    const CK_OBJECT_HANDLE key = addKey(id);
    EXPECT_TRUE(bind(key));
    const std::string shown = Text::fromBytes(id).toUtf8();
    EXPECT_THAT(log->allLines, ElementsAre(kBoundLine + shown, kChosenLine + shown));
  }
  EXPECT_FALSE(bind(addKey({0x01, 0x01})));
  EXPECT_FALSE(bind(addKey(Value(255, 'x'))));
}

// ---- Failures ----

TEST_F(BindingKeyCert, FailsWhenTheIdentifierCannotBeReadOrThereIsNoRecord) {
  const CK_OBJECT_HANDLE unreadable[] = {addKey({}), addKey(Value(257, 'x')), 12345, 0, kNoHandle};
  for (const CK_OBJECT_HANDLE object : unreadable) {
    SCOPED_TRACE(object);
    EXPECT_FALSE(bind(object, own));
    EXPECT_THAT(log->allLines, IsEmpty());
  }
  script.deviations.silent = {"C_GetAttributeValue"};
  EXPECT_FALSE(bind(kPublicKey)) << "256 bytes of zero, which no certificate has";
  framework->setP11ServiceInfo(nullptr);
  EXPECT_FALSE(bind(kPublicKey, own));
  EXPECT_THAT(script.calls(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(BindingKeyCert, FailsWithEitherCall) {
  failEachCall(2, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    const bool succeeded = framework->BindingKeyCert(reader(), kPublicKey, own);
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(log->allLines.empty(), point.fired());
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
    expectUntouched(retained);
  });
}

}  // namespace
}  // namespace mirel::test
