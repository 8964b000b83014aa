/// Hammers the atomic properties from several threads. Every value written is one that a reader can
/// recognise as whole; ThreadSanitizer sees what the values do not show.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "bridge/P11Bridge.h"
#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "platform/PlatformServices.h"

namespace mirel::test {
namespace {

constexpr int kRounds = 4000;

/// Two threads write values 0 and 1 of the property in turn while two others read; every value read must
/// be one of those written.
void hammer(const char* name, const std::function<void(unsigned)>& write,
            const std::function<bool()>& readsWhole) {
  SCOPED_TRACE(name);
  write(0);
  std::atomic<bool> whole{true};
  std::atomic<int> ready{0};
  const auto started = [&] {
    ++ready;
    while (ready < 4) std::this_thread::yield();
  };
  std::vector<std::thread> threads;
  for (unsigned writer = 0; writer < 2; ++writer) {
    threads.emplace_back([&, writer] {
      started();
      for (unsigned i = 0; i < kRounds; ++i) write((i + writer) % 2);
    });
    threads.emplace_back([&] {
      started();
      for (int i = 0; i < kRounds; ++i) {
        if (!readsWhole()) whole = false;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(whole);
}

/// Values of which every part tells which one it belongs to.
CK_ULONG handleOf(unsigned which) { return which == 0 ? 0x1111111111111111 : 0x2222222222222222; }
bool isHandle(CK_ULONG handle) { return handle == handleOf(0) || handle == handleOf(1); }

std::int32_t indexOf(unsigned which) { return which == 0 ? -1 : 0x22222222; }
bool isIndex(std::int32_t index) { return index == indexOf(0) || index == indexOf(1); }

// Fresh objects each time, so that the last reference goes away while others read.
Text textOf(unsigned which) { return Text{std::u16string(which == 0 ? 40 : 80, which == 0 ? u'a' : u'b')}; }
bool isText(const Text& text) { return text == textOf(0) || text == textOf(1); }

Bytes bytesOfKind(unsigned which) {
  return Bytes{std::vector<std::uint8_t>(which == 0 ? 40 : 80, static_cast<std::uint8_t>(which))};
}
bool isBytes(const Bytes& bytes) { return bytes == bytesOfKind(0) || bytes == bytesOfKind(1); }

TEST(AtomicProperties, OfAKeyRecord) {
  PKCS11_ASYMKEY_INFO record;
  hammer(
      "hPubKey", [&](unsigned i) { record.setHPubKey(handleOf(i)); },
      [&] { return isHandle(record.hPubKey()); });
  hammer(
      "hPriKey", [&](unsigned i) { record.setHPriKey(handleOf(i)); },
      [&] { return isHandle(record.hPriKey()); });
  hammer(
      "keyID", [&](unsigned i) { record.setKeyID(textOf(i)); }, [&] { return isText(record.keyID()); });
  hammer(
      "keyName", [&](unsigned i) { record.setKeyName(textOf(i)); }, [&] { return isText(record.keyName()); });
  hammer(
      "pKeyValue", [&](unsigned i) { record.setPKeyValue(bytesOfKind(i)); },
      [&] { return isBytes(record.pKeyValue()); });
}

TEST(AtomicProperties, OfAKeyRecordThatIsCopied) {
  PKCS11_ASYMKEY_INFO record;
  record.setKeyName(textOf(0));
  hammer(
      "mutableCopyWithZone", [&](unsigned i) { record.setKeyID(textOf(i)); },
      [&] {
        const auto copy = record.mutableCopyWithZone();
        return isText(copy->keyID()) && isText(copy->keyName());
      });
}

TEST(AtomicProperties, OfACertificateRecord) {
  PKCS11_CERTIFICATEOBJ_INFO record;
  hammer(
      "hCert", [&](unsigned i) { record.setHCert(handleOf(i)); }, [&] { return isHandle(record.hCert()); });
  hammer(
      "strID", [&](unsigned i) { record.setStrID(textOf(i)); }, [&] { return isText(record.strID()); });
  hammer(
      "strLabel", [&](unsigned i) { record.setStrLabel(textOf(i)); },
      [&] { return isText(record.strLabel()); });
  hammer(
      "pbCertData", [&](unsigned i) { record.setPbCertData(bytesOfKind(i)); },
      [&] { return isBytes(record.pbCertData()); });
}

TEST(AtomicProperties, OfACardRecord) {
  PKCS11_SERVICE_INFO record;
  hammer(
      "m_keyIndex", [&](unsigned i) { record.setM_keyIndex(indexOf(i)); },
      [&] { return isIndex(record.m_keyIndex()); });
  hammer(
      "m_certIndex", [&](unsigned i) { record.setM_certIndex(indexOf(i)); },
      [&] { return isIndex(record.m_certIndex()); });
}

/// Takes the value by one read: two might see two different ones.
template <typename Pointer>
bool isOneOf(Pointer value, std::type_identity_t<Pointer> first, std::type_identity_t<Pointer> second) {
  return value == first || value == second;
}

CK_RV someEntry(CK_FUNCTION_LIST**) { return CKR_OK; }
CK_RV otherEntry(CK_FUNCTION_LIST**) { return CKR_GENERAL_ERROR; }

TEST(AtomicProperties, OfTheBridge) {
  P11Bridge bridge{PlatformServices{}};
  CK_FUNCTION_LIST lists[2]{};
  int modules[2]{};

  hammer(
      "p11dylib",
      [&](unsigned i) {
        bridge.setP11dylib(std::make_shared<const std::string>(i == 0 ? 40U : 80U, i == 0 ? 'a' : 'b'));
      },
      [&] {
        const auto path = bridge.p11dylib();
        return path && (*path == std::string(40, 'a') || *path == std::string(80, 'b'));
      });
  hammer(
      "phP11Module", [&](unsigned i) { bridge.setPhP11Module(&modules[i]); },
      [&] { return isOneOf(bridge.phP11Module(), &modules[0], &modules[1]); });
  hammer(
      "phFunctionList", [&](unsigned i) { bridge.setPhFunctionList(i == 0 ? &someEntry : &otherEntry); },
      [&] { return isOneOf(bridge.phFunctionList(), &someEntry, &otherEntry); });
  hammer(
      "ckFunc", [&](unsigned i) { bridge.setCkFunc(&lists[i]); },
      [&] { return isOneOf(bridge.ckFunc(), &lists[0], &lists[1]); });
}

}  // namespace
}  // namespace mirel::test
