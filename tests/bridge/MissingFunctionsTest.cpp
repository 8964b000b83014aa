#include <functional>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

constexpr CK_RV kNotSupported = 0x54;

/// Modules whose function list is there but has a null entry.
class MissingFunction : public SessionTest {
 protected:
  /// What `operation` answers on a module without that function.
  CK_RV without(const char* function, const std::function<CK_RV()>& operation) {
    SCOPED_TRACE(function);
    script.reset();
    openAgain();
    script.card().loggedIn = true;
    script.removeEntry(function);
    const CK_RV rv = operation();
    // The entry is null, so the module cannot have been called there.
    EXPECT_EQ(script.countOf(function), 0U);
    return rv;
  }

  CK_RV findSlot() {
    slot = 77;
    return bridge.pkcs11_FindSlot(Text{u"Reader"}, &slot);
  }
  CK_RV getTokenInfo() {
    record.reset();
    return bridge.pkcs11_GetTokenInfo(kSlot, &record);
  }
  CK_RV openSession() {
    record.reset();
    return bridge.pkcs11_OpenReadOnlySession(kSlot, &record);
  }
  CK_RV closeSession() {
    const auto held = std::make_shared<PKCS11_SERVICE_INFO>();
    held->setSlotID(kSlot);
    held->setHSession(session);
    return bridge.pkcs11_CloseSession(kSlot, held);
  }
  CK_RV getSessionInfo() { return bridge.pkcs11_GetSessionInfo(session, nullptr); }
  CK_RV login() {
    script.card().loggedIn = false;
    const Value pin = bytesOf("123456");
    return bridge.pkcs11_UserLogin(session, pin.data(), pin.size());
  }
  CK_RV findObjects() {
    CK_OBJECT_HANDLE found[10];
    return bridge.pkcs11_FindObjects(session, nullptr, 0, found, &number, 10);
  }
  CK_RV readModulus() { return bridge.pkcs11_getRSAKeyModulus(session, kPublicKey, nullptr, &number); }
  CK_RV readPoint() { return bridge.pkcs11_getECPublicKey(session, kPublicKey, nullptr, &number); }
  CK_RV readCertificate() { return bridge.pkcs11_getCertificate(session, kCertificate, nullptr, &number); }
  CK_RV findPrivateKey() {
    CK_OBJECT_HANDLE key = 0;
    return bridge.pkcs11_getCorrespondingPrivateKey(session, kPublicKey, &key);
  }
  CK_RV readByLabel() {
    const Value label = bytesOf("MyKey");
    return bridge.GetCertBlobByLabel(session, label.data(), label.size(), nullptr, &number);
  }

  CK_SLOT_ID slot = 77;
  CK_ULONG number = 77;
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
};

TEST_F(MissingFunction, IsReportedByTheOperationsOfTheModuleItself) {
  CK_INFO info{};
  EXPECT_EQ(without("C_Initialize", [&] { return bridge.pkcs11_Initial(nullptr); }), kNotSupported);
  EXPECT_EQ(without("C_Finalize", [&] { return bridge.pkcs11_Finalize(nullptr); }), kNotSupported);
  EXPECT_EQ(without("C_GetInfo", [&] { return bridge.pkcs11_GetInfo(&info); }), kNotSupported);
  EXPECT_EQ(without("C_GetSlotList", [&] { return bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, &number); }),
            kNotSupported);
}

TEST_F(MissingFunction, IsReportedWithNoSlot) {
  EXPECT_EQ(without("C_GetSlotList", [&] { return findSlot(); }), kNotSupported);
  EXPECT_EQ(slot, kAllOnes);
}

TEST_F(MissingFunction, MakesEverySlotUnreadable) {
  EXPECT_EQ(without("C_GetSlotInfo", [&] { return findSlot(); }), CK_RV{3});
  EXPECT_EQ(slot, kAllOnes);
}

TEST_F(MissingFunction, IsReportedByTheTokenInformationUnlessItIsNotNeeded) {
  EXPECT_EQ(without("C_GetSlotInfo", [&] { return getTokenInfo(); }), kNotSupported);
  EXPECT_EQ(without("C_GetTokenInfo", [&] { return getTokenInfo(); }), kNotSupported);
  EXPECT_EQ(script.openSessions().size(), 1U);  // the test's own
  EXPECT_EQ(without("C_OpenSession", [&] { return getTokenInfo(); }), CKR_OK);
  EXPECT_NE(record, nullptr);
  EXPECT_EQ(without("C_CloseSession", [&] { return getTokenInfo(); }), CKR_OK);
  EXPECT_NE(record, nullptr);
  script.closeSession(session + 1);
}

TEST_F(MissingFunction, IsReportedByTheOperationsOfSessions) {
  for (const char* function : {"C_GetSlotInfo", "C_OpenSession", "C_GetSessionInfo", "C_GetTokenInfo"}) {
    EXPECT_EQ(without(function, [&] { return openSession(); }), kNotSupported);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(script.openSessions().size(), 1U);
  }
  EXPECT_EQ(without("C_CloseSession", [&] { return closeSession(); }), kNotSupported);
  EXPECT_EQ(without("C_GetSessionInfo", [&] { return getSessionInfo(); }), kNotSupported);
  EXPECT_EQ(without("C_Login", [&] { return login(); }), kNotSupported);
  EXPECT_EQ(without("C_GetSessionInfo", [&] { return login(); }), kNotSupported);
}

TEST_F(MissingFunction, IsReportedByASearchUnlessItIsItsEnd) {
  EXPECT_EQ(without("C_FindObjectsInit", [&] { return findObjects(); }), kNotSupported);
  EXPECT_EQ(without("C_FindObjects", [&] { return findObjects(); }), kNotSupported);
  EXPECT_EQ(number, 0U);
  EXPECT_EQ(without("C_FindObjectsFinal", [&] { return findObjects(); }), CKR_OK);
  EXPECT_EQ(number, 3U);
  script.reset();
  openAgain();
}

TEST_F(MissingFunction, IsReportedByTheReaders) {
  EXPECT_EQ(without("C_GetAttributeValue", [&] { return readModulus(); }), kNotSupported);
  EXPECT_EQ(without("C_GetAttributeValue", [&] { return readPoint(); }), kNotSupported);
  EXPECT_EQ(without("C_GetAttributeValue", [&] { return readCertificate(); }), kNotSupported);
  EXPECT_EQ(number, 0U);
}

TEST_F(MissingFunction, IsReportedByTheLookUps) {
  for (const char* function : {"C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects"}) {
    EXPECT_EQ(without(function, [&] { return findPrivateKey(); }), kNotSupported);
  }
  EXPECT_EQ(without("C_GetAttributeValue", [&] { return readByLabel(); }), kNotSupported);
  EXPECT_EQ(without("C_FindObjectsInit", [&] { return readByLabel(); }), CK_RV{6});
  EXPECT_EQ(without("C_FindObjects", [&] { return readByLabel(); }), CK_RV{6});
  EXPECT_EQ(number, 0U);
}

// ---- The observer ----

using Kind = RecordingObserver::Event::Kind;

TEST_F(MissingFunction, IsReportedToTheObserver) {
  script.removeEntry("C_GetSessionInfo");
  EXPECT_EQ(getSessionInfo(), kNotSupported);
  EXPECT_THAT(observer->events,
              ::testing::ElementsAre(
                  RecordingObserver::Event{Kind::kCallStarts, "C_GetSessionInfo", 0},
                  RecordingObserver::Event{Kind::kCallReturned, "C_GetSessionInfo", 0x54},
                  RecordingObserver::Event{Kind::kOperationReturned, "pkcs11_GetSessionInfo", 0x54}));
}

TEST_F(MissingFunction, IsReportedWithoutAnObserverToo) {
  PlatformServices withoutObserver = services();
  withoutObserver.observer = nullptr;
  P11Bridge unobserved{withoutObserver};
  ASSERT_TRUE(unobserved.pkcs11_Load(Text{}));
  script.removeEntry("C_GetSessionInfo");
  EXPECT_EQ(unobserved.pkcs11_GetSessionInfo(session, nullptr), kNotSupported);
}

class Observer : public SessionTest {};

TEST_F(Observer, IsToldOfCallsAndOfTheResultOfTheOperation) {
  script.failCallOf("C_GetSessionInfo", 0, kSomeFailure);
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), kSomeFailure);
  using Event = RecordingObserver::Event;
  EXPECT_THAT(
      observer->events,
      ::testing::ElementsAre(
          Event{Kind::kCallStarts, "C_GetSlotInfo", 0}, Event{Kind::kCallReturned, "C_GetSlotInfo", 0},
          Event{Kind::kCallStarts, "C_OpenSession", 0}, Event{Kind::kCallReturned, "C_OpenSession", 0},
          Event{Kind::kCallStarts, "C_GetSessionInfo", 0},
          Event{Kind::kCallReturned, "C_GetSessionInfo", kSomeFailure},
          Event{Kind::kCallStarts, "C_CloseSession", 0}, Event{Kind::kCallReturned, "C_CloseSession", 0},
          Event{Kind::kOperationReturned, "pkcs11_OpenReadOnlySession", kSomeFailure}));
}

TEST_F(Observer, IsToldOfEachOperationByItsName) {
  const auto expectLast = [&](const char* name, CK_RV rv) {
    SCOPED_TRACE(name);
    ASSERT_FALSE(observer->events.empty());
    EXPECT_EQ(observer->events.back(), (RecordingObserver::Event{Kind::kOperationReturned, name, rv}));
  };
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  CK_INFO info{};
  CK_ULONG number = 0;
  CK_SLOT_ID slot = 0;
  CK_OBJECT_HANDLE key = 0;
  CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
  const Value text = bytesOf("MyKey");

  expectLast("pkcs11_GetInfo", bridge.pkcs11_GetInfo(&info));
  expectLast("pkcs11_C_GetSlotList", bridge.pkcs11_C_GetSlotList(CK_TRUE, nullptr, &number));
  expectLast("pkcs11_FindSlot", bridge.pkcs11_FindSlot(Text{u"None"}, &slot));
  expectLast("pkcs11_GetTokenInfo", bridge.pkcs11_GetTokenInfo(99, &record));
  expectLast("pkcs11_GetSessionInfo", bridge.pkcs11_GetSessionInfo(session, &record));
  expectLast("pkcs11_CloseSession", bridge.pkcs11_CloseSession(kAllOnes, record));
  expectLast("pkcs11_UserLogin", bridge.pkcs11_UserLogin(session, text.data(), text.size()));
  expectLast("pkcs11_FindObjects", bridge.pkcs11_FindObjects(session, nullptr, 0, nullptr, &number, 10));
  expectLast("pkcs11_getObjsAttriValue",
             bridge.pkcs11_getObjsAttriValue(session, kPublicKey, &attribute, 1, 1, 10));
  expectLast("pkcs11_getRSAKeyModulus",
             bridge.pkcs11_getRSAKeyModulus(session, kPublicKey, nullptr, &number));
  expectLast("pkcs11_getECPublicKey", bridge.pkcs11_getECPublicKey(session, kPublicKey, nullptr, &number));
  expectLast("pkcs11_getCertificate", bridge.pkcs11_getCertificate(session, kCertificate, nullptr, &number));
  expectLast("pkcs11_getCorrespondingPrivateKey",
             bridge.pkcs11_getCorrespondingPrivateKey(session, kPublicKey, &key));
  expectLast("GetCertBlobByLabel",
             bridge.GetCertBlobByLabel(session, text.data(), text.size(), nullptr, &number));
  expectLast("pkcs11_genSignaturePKCS1",
             bridge.pkcs11_genSignaturePKCS1(session, 0, nullptr, 0, nullptr, nullptr, 0));
  expectLast("pkcs11_genSignaturePSS",
             bridge.pkcs11_genSignaturePSS(session, 0, CKM_SHA256, nullptr, 0, nullptr, nullptr, 0));
  expectLast("pkcs11_genECDSA", bridge.pkcs11_genECDSA(session, 0, 256, nullptr, 0, nullptr, nullptr, 0));
  expectLast("pkcs11_genDecryptPKCS1",
             bridge.pkcs11_genDecryptPKCS1(session, 0, nullptr, 0, nullptr, nullptr, 0));
  expectLast("pkcs11_genDecryptOAEP",
             bridge.pkcs11_genDecryptOAEP(session, 0, nullptr, 0, CKM_SHA256, nullptr, nullptr, 0));
  expectLast("pkcs11_genSymKeyFromECDH", bridge.pkcs11_genSymKeyFromECDH(session, 0, nullptr, 0, &key));
  expectLast("pkcs11_Initial", bridge.pkcs11_Initial(nullptr));
  expectLast("pkcs11_Finalize", bridge.pkcs11_Finalize(nullptr));
  leavesOpen({});
  // None of them logs anything.
  EXPECT_THAT(log->allLines, ::testing::IsEmpty());
}

}  // namespace
}  // namespace mirel::test
