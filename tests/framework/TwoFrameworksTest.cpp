/// Two frameworks on one module at the same time. Under ThreadSanitizer too.

#include <array>
#include <atomic>
#include <chrono>

#include "framework/MirelCTKFramework.h"
#include "support/ModuleTest.h"
#include "support/Threads.h"

namespace mirel::test {
namespace {

constexpr int kRounds = 20;

/// Long enough for another thread to make calls in the meantime, if nothing keeps it from that.
void takeTime() { std::this_thread::sleep_for(std::chrono::milliseconds{2}); }

class TwoFrameworks : public ModuleTest {
 protected:
  TwoFrameworks() {
    const CK_SLOT_ID other = script.addSlot("Reader B 01", emptyCard("OTHERCARD", "FEDCBA0987654321"));
    const Value modulus = patternValue(256, 0x5C);
    script.addObject(rsaPublicKey(bytesOf("01"), bytesOf("MyKey"), modulus), other);
    script.addObject(rsaPrivateKey(bytesOf("01"), bytesOf("MyKey"), modulus), other);
  }

  std::shared_ptr<MirelCTKFramework> newFramework() const {
    return std::make_shared<MirelCTKFramework>(servicesForAThread());
  }

  /// All that a signature on a freshly inserted card takes.
  static bool selectListAndSign(MirelCTKFramework& framework, const Text& reader, const Value& data) {
    if (!framework.EnumCards(reader) || !framework.OpenCardSession(reader, nullptr)) return false;
    constexpr std::array<CK_BYTE, 6> kPin{'1', '2', '3', '4', '5', '6'};
    CK_ULONG triesLeft = 0;
    if (!framework.PerformUserLogin(framework.p11ServiceInfo(), kPin.data(), kPin.size(), &triesLeft) ||
        !framework.EnumCardKeys(reader)) {
      return false;
    }
    std::array<CK_BYTE, 256> signature{};
    CK_ULONG length = signature.size();
    if (!framework.PerformSignHash(reader.toUtf8().c_str(), framework.p11ServiceInfo()->pAsymKeys()->at(0),
                                   Text{u"algorithm"}, 0, data.data(), data.size(), signature, &length)) {
      return false;
    }
    const bool closed = framework.CloseCardSession(reader, nullptr);
    return closed && Value(signature.begin(), signature.end()) == resultOf(CKM_RSA_X_509, data, 256);
  }
};

TEST_F(TwoFrameworks, NeverCallTheModuleAtTheSameTime) {
  const auto first = newFramework();
  const auto second = newFramework();
  ASSERT_TRUE(first->OpenFrameworkService());
  ASSERT_TRUE(second->OpenFrameworkService());
  script.hook<&CK_FUNCTION_LIST::C_FindObjectsInit>([](auto real, auto session, auto* filter, auto count) {
    takeTime();
    return real(session, filter, count);
  });
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [](auto real, auto session, auto* data, auto dataLen, auto* signature, auto* signatureLen) {
        takeTime();
        return real(session, data, dataLen, signature, signatureLen);
      });
  std::atomic<int> numSigned{0};
  const auto work = [&](MirelCTKFramework& framework, const char16_t* reader, CK_BYTE seed) {
    for (int i = 0; i < kRounds; ++i) {
      if (selectListAndSign(framework, Text{reader}, patternValue(32, seed))) ++numSigned;
    }
  };
  runAtOnce({[&] { work(*first, u"Reader A 00", 1); }, [&] { work(*second, u"Reader B 01", 2); }});
  EXPECT_FALSE(script.callsOverlapped());
  EXPECT_EQ(numSigned, 2 * kRounds);
}

TEST_F(TwoFrameworks, DoNotCallTheModuleWhileOneOfThemOpensIt) {
  const auto selecting = newFramework();
  ASSERT_TRUE(selecting->OpenFrameworkService());
  script.hook<&CK_FUNCTION_LIST::C_GetFunctionList>([](auto real, auto** list) {
    takeTime();
    return real(list);
  });
  std::atomic<int> numOpened{0};
  std::atomic<bool> alwaysSelected{false};
  std::atomic<bool> opening{true};
  runAtOnce({[&] {
               for (int i = 0; i < kRounds; ++i) {
                 if (newFramework()->OpenFrameworkService()) ++numOpened;
               }
               opening = false;
             },
             [&] {
               bool selected = true;
               while (opening) selected = selecting->EnumCards(Text{u"Reader A 00"}) && selected;
               alwaysSelected = selected;
             }});
  EXPECT_FALSE(script.callsOverlapped());
  EXPECT_EQ(numOpened, kRounds);
  EXPECT_TRUE(alwaysSelected);
}

}  // namespace
}  // namespace mirel::test
