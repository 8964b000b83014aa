#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bridge/P11Bridge.h"
#include "recording/Recorder.h"
#include "support/ModuleTest.h"
#include "support/Values.h"

namespace mirel::test {

/// Keeps what it is told.
class KeptRecords final : public recording::RecordSink {
 public:
  void note(const recording::Record& record) noexcept override { records.push_back(record); }

  void callStarts(const recording::RecordedCall& call) noexcept override {
    started.emplace_back(calls().size(), call);
  }

  [[nodiscard]] std::vector<recording::RecordedCall> calls() const {
    std::vector<recording::RecordedCall> calls;
    for (const auto& record : records) {
      if (const auto* call = std::get_if<recording::RecordedCall>(&record)) calls.push_back(*call);
    }
    return calls;
  }

  std::vector<recording::Record> records;
  std::vector<std::pair<std::size_t, recording::RecordedCall>> started;  // after how many had come back
};

/// The scripted module behind a recorder.
class RecordedBridgeTest : public ModuleTest {
 protected:
  RecordedBridgeTest() {
    prepareCard();
    PlatformServices all = services();
    (void)recording::recordInto({kept}, all);
    bridge = std::make_unique<P11Bridge>(all);
  }

  /// The card as at the start of the test.
  void prepareCard() {
    script.reset();
    script.card().pin = kPin;
    setValue(kCertificate, sequenceOf(300));
    ecKey = script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params()));
  }

  /// Loads, looks, logs in, signs, decrypts and derives a key; what came of it, as text.
  std::string useEverything(P11Bridge& used) {
    std::string text;
    const auto note = [&](const char* what, CK_RV rv) {
      text.append(what).append(" ").append(std::to_string(rv)).append("\n");
    };
    const auto bytes = [&](const Value& value) { text.append(hexText(value)).append("\n"); };
    note("load", used.pkcs11_Load(Text{}) ? 0 : 1);
    note("init", used.pkcs11_Initial(nullptr));
    CK_SLOT_ID slots[kAnnouncedSlots] = {};
    CK_ULONG count = 0;
    note("slots", used.pkcs11_C_GetSlotList(CK_TRUE, slots, &count));
    std::shared_ptr<PKCS11_SERVICE_INFO> record;
    note("token", used.pkcs11_GetTokenInfo(slots[0], &record));
    record.reset();
    note("open", used.pkcs11_OpenReadOnlySession(slots[0], &record));
    const CK_SESSION_HANDLE session = record ? record->hSession() : 0;
    text += std::to_string(session) + " " + instanceIDOf(record->tokenInfo()).toUtf8() + "\n";

    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_ATTRIBUTE filter{CKA_CLASS, &objectClass, sizeof objectClass};
    CK_OBJECT_HANDLE found[4] = {};
    count = 0;
    note("find", used.pkcs11_FindObjects(session, &filter, 1, found, &count, 4));
    text += std::to_string(count) + " " + std::to_string(found[0]) + "\n";
    Value value(2000);
    CK_ULONG length = value.size();
    note("certificate", used.pkcs11_getCertificate(session, found[0], value.data(), &length));
    value.resize(std::min<std::size_t>(length, value.size()));
    bytes(value);
    CK_RV rv = used.pkcs11_UserLogin(session, reinterpret_cast<const CK_BYTE*>("654321"), 6);
    note("wrong login", rv);
    rv = used.pkcs11_UserLogin(session, reinterpret_cast<const CK_BYTE*>(kPin), 6);
    note("login", rv);
    Value signature(256);
    length = signature.size();
    rv = used.pkcs11_genSignaturePKCS1(session, kPrivateKey, kData.data(), kData.size(), signature.data(),
                                       &length, signature.size());
    note("sign", rv);
    bytes(signature);
    Value plain(256);
    length = plain.size();
    const Value cipher = cipherOf(bytesOf(kPlainText));
    rv = used.pkcs11_genDecryptPKCS1(session, kPublicKey, cipher.data(), cipher.size(), plain.data(), &length,
                                     plain.size());
    note("decrypt", rv);
    text += std::to_string(length) + "\n";
    CK_OBJECT_HANDLE derived = 0;
    const Value point = p256Point(7);
    note("derive", used.pkcs11_genSymKeyFromECDH(session, ecKey, point.data(), point.size(), &derived));
    text += std::to_string(derived) + "\n";
    Value secret(64);
    length = secret.size();
    note("secret", used.pkcs11_getCertificate(session, derived, secret.data(), &length));
    return text;
  }

  void setValue(CK_OBJECT_HANDLE object, const Value& value) {
    Object& changed = script.card().objects.at(object);
    changed = changed.with(CKA_VALUE, value);
  }

  static Value sequenceOf(std::size_t size) {
    Value der{0x30, 0x82, static_cast<CK_BYTE>(size >> 8U), static_cast<CK_BYTE>(size)};
    der.push_back(0x30);
    der.resize(4 + size, 0x41);
    return der;
  }

  static constexpr const char* kPin = "975310";
  static constexpr const char* kPlainText = "nobody is to read this";
  const Value kData = patternValue(256, 0x11);

  CK_OBJECT_HANDLE ecKey = 0;
  std::shared_ptr<KeptRecords> kept = std::make_shared<KeptRecords>();
  std::unique_ptr<P11Bridge> bridge;
};

}  // namespace mirel::test
