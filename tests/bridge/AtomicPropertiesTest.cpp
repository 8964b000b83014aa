/// Hammers the atomic properties from several threads. Every value written is one that a reader can
/// recognise as whole; ThreadSanitizer sees what the values do not show.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "bridge/P11Bridge.h"
#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "platform/PlatformServices.h"
#include "support/Threads.h"

namespace mirel::test {
namespace {

constexpr int kRounds = 4000;

/// Value `which` (0 or 1), every part of which tells which one it is. Those that have storage are new each
/// time, so that the last reference goes away while others read.
template <typename Value>
Value valueOf(unsigned which);
template <>
CK_ULONG valueOf(unsigned which) {
  return which == 0 ? 0x1111111111111111 : 0x2222222222222222;
}
template <>
std::int32_t valueOf(unsigned which) {
  return which == 0 ? -1 : 0x22222222;
}
template <>
Text valueOf(unsigned which) {
  return Text{std::u16string(which == 0 ? 40 : 80, which == 0 ? u'a' : u'b')};
}
template <>
Bytes valueOf(unsigned which) {
  return Bytes{std::vector<std::uint8_t>(which == 0 ? 40 : 80, static_cast<std::uint8_t>(which))};
}

CK_RV someEntry(CK_FUNCTION_LIST**) { return CKR_OK; }
CK_RV otherEntry(CK_FUNCTION_LIST**) { return CKR_GENERAL_ERROR; }
CK_FUNCTION_LIST lists[2]{};
int modules[2]{};

template <>
std::shared_ptr<const std::string> valueOf(unsigned which) {
  return std::make_shared<const std::string>(which == 0 ? 40U : 80U, which == 0 ? 'a' : 'b');
}
template <>
void* valueOf(unsigned which) {
  return &modules[which];
}
template <>
CK_C_GetFunctionList valueOf(unsigned which) {
  return which == 0 ? &someEntry : &otherEntry;
}
template <>
CK_FUNCTION_LIST* valueOf(unsigned which) {
  return &lists[which];
}

template <typename Value>
bool isWhole(const Value& value) {
  return value == valueOf<Value>(0) || value == valueOf<Value>(1);
}
bool isWhole(const std::shared_ptr<const std::string>& path) {
  return path && (*path == std::string(40, 'a') || *path == std::string(80, 'b'));
}

/// Two threads write both values of the property in turn while two others read; every value read must be one
/// of those written.
template <typename Record, typename Value, typename Argument>
void hammer(const char* name, Record& record, Value (Record::*get)() const noexcept,
            void (Record::*set)(Argument) noexcept) {
  SCOPED_TRACE(name);
  (record.*set)(valueOf<Value>(0));
  std::atomic<bool> whole{true};
  const auto writeInTurn = [&](unsigned first) {
    for (unsigned i = 0; i < kRounds; ++i) (record.*set)(valueOf<Value>((i + first) % 2));
  };
  const auto readOften = [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (!isWhole((record.*get)())) whole = false;
    }
  };
  runAtOnce({[&] { writeInTurn(0); }, readOften, [&] { writeInTurn(1); }, readOften});
  EXPECT_TRUE(whole);
}

TEST(AtomicProperties, OfAKeyRecord) {
  using Record = PKCS11_ASYMKEY_INFO;
  Record record;
  hammer("hPubKey", record, &Record::hPubKey, &Record::setHPubKey);
  hammer("hPriKey", record, &Record::hPriKey, &Record::setHPriKey);
  hammer("keyID", record, &Record::keyID, &Record::setKeyID);
  hammer("keyName", record, &Record::keyName, &Record::setKeyName);
  hammer("pKeyValue", record, &Record::pKeyValue, &Record::setPKeyValue);
}

TEST(AtomicProperties, OfAKeyRecordThatIsCopied) {
  PKCS11_ASYMKEY_INFO record;
  record.setKeyID(valueOf<Text>(0));
  bool whole = true;
  const auto write = [&] {
    for (unsigned i = 0; i < kRounds; ++i) record.setKeyID(valueOf<Text>(i % 2));
  };
  const auto copy = [&] {
    for (int i = 0; i < kRounds; ++i) whole = whole && isWhole(record.mutableCopyWithZone()->keyID());
  };
  runAtOnce({write, copy});
  EXPECT_TRUE(whole);
}

TEST(AtomicProperties, OfACertificateRecord) {
  using Record = PKCS11_CERTIFICATEOBJ_INFO;
  Record record;
  hammer("hCert", record, &Record::hCert, &Record::setHCert);
  hammer("strID", record, &Record::strID, &Record::setStrID);
  hammer("strLabel", record, &Record::strLabel, &Record::setStrLabel);
  hammer("pbCertData", record, &Record::pbCertData, &Record::setPbCertData);
}

TEST(AtomicProperties, OfACardRecord) {
  using Record = PKCS11_SERVICE_INFO;
  Record record;
  hammer("m_keyIndex", record, &Record::m_keyIndex, &Record::setM_keyIndex);
  hammer("m_certIndex", record, &Record::m_certIndex, &Record::setM_certIndex);
}

TEST(AtomicProperties, OfTheBridge) {
  P11Bridge bridge{PlatformServices{}};
  hammer("p11dylib", bridge, &P11Bridge::p11dylib, &P11Bridge::setP11dylib);
  hammer("phP11Module", bridge, &P11Bridge::phP11Module, &P11Bridge::setPhP11Module);
  hammer("phFunctionList", bridge, &P11Bridge::phFunctionList, &P11Bridge::setPhFunctionList);
  hammer("ckFunc", bridge, &P11Bridge::ckFunc, &P11Bridge::setCkFunc);
}

}  // namespace
}  // namespace mirel::test
