/// What happens when several threads use one provider, or one session. Under ThreadSanitizer too.

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "platform/Certificate.h"
#include "platform/CryptokiObserver.h"
#include "provider/CryptTKitSProvider.h"
#include "support/QuietLog.h"
#include "support/Threads.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using namespace std::chrono_literals;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kSignaturesPerThread = 200;
/// Where two threads do different things.
constexpr int kUsesPerThread = 50;

/// A wait that nothing but a deadlock outlasts.
constexpr auto kTooLong = 30s;

/// Does something before and after each call of the module.
class AroundCalls final : public CryptokiObserver {
 public:
  explicit AroundCalls(std::function<void(const char* function)> before, std::function<void()> after)
      : before_{std::move(before)}, after_{std::move(after)} {}

  void callStarts(const char* function) noexcept override { before_(function); }
  void callReturned(const char*, std::uint64_t) noexcept override { after_(); }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}

 private:
  std::function<void(const char*)> before_;
  std::function<void()> after_;
};

/// A token whose key signs, and two sessions of clients on it.
class SharedProvider : public TokenTest {
 protected:
  SharedProvider() {
    EXPECT_TRUE(isMade);
    EXPECT_TRUE(first.login());
    EXPECT_TRUE(second.login());
  }

  void TearDown() override {
    leavesOpen(script.openSessions());  // one more for each login
    EXPECT_FALSE(script.callsOverlapped());
    TokenTest::TearDown();
  }

  /// Other threads may go on after each call of the module, so that they get in wherever they can.
  [[nodiscard]] PlatformServices threadServices() const {
    PlatformServices services = servicesForAThread();
    services.observer =
        std::make_shared<AroundCalls>([](const char*) {}, [] { std::this_thread::sleep_for(10us); });
    return services;
  }

  /// Signs that many different blocks; how many of the signatures are right.
  static int numRight(FakeClient& client, int numSignatures, CK_BYTE seed) {
    int right = 0;
    for (int i = 0; i < numSignatures; ++i) {
      Value data = patternValue(40, seed);
      data[0] = static_cast<CK_BYTE>(i);
      data[1] = static_cast<CK_BYTE>(i / 256);
      if (client.sign(data) == Bytes{resultOf(CKM_RSA_X_509, data, 256)}) ++right;
    }
    return right;
  }

  /// Every signature of the first session is right, and everything that another thread does at the same time.
  void expectAllRightWhile(const std::function<bool()>& other) {
    int right = 0;
    int otherRight = 0;
    runAtOnce({[&] { right = numRight(first, kUsesPerThread, 1); },
               [&] {
                 for (int i = 0; i < kUsesPerThread; ++i) otherRight += other() ? 1 : 0;
               }});
    EXPECT_EQ(right, kUsesPerThread);
    EXPECT_EQ(otherRight, kUsesPerThread);
  }

  FakeToken token{threadServices()};
  const bool isMade = token.init();  // the clients take the provider that it then has
  FakeClient first{threadServices(), token};
  FakeClient second{threadServices(), token};
};

TEST_F(SharedProvider, SignsForTwoSessionsAtTheSameTime) {
  std::atomic<int> right{0};
  runAtOnce({[&] { right += numRight(first, kSignaturesPerThread, 1); },
             [&] { right += numRight(second, kSignaturesPerThread, 2); }});
  EXPECT_EQ(right, 2 * kSignaturesPerThread);
}

TEST_F(SharedProvider, SignsForOneSessionWhileAnotherLogsIn) {
  expectAllRightWhile([&] { return second.login(); });
}

TEST_F(SharedProvider, SignsAndLogsInForTwoThreadsInOneSession) {
  expectAllRightWhile([&] { return first.login(); });
}

TEST_F(SharedProvider, SignsForOneSessionWhileAnotherDecrypts) {
  const Value plain = patternValue(32, 3);
  expectAllRightWhile([&] { return second.decrypt(cipherOf(plain)) == Bytes{plain}; });
}

TEST_F(SharedProvider, AnswersTheSupportCheckWhileTheCardSigns) {
  std::promise<void> signing;
  std::promise<void> goOn;
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [&](auto real, auto session, auto* data, auto dataLen, auto* signature, auto* signatureLen) {
        signing.set_value();
        goOn.get_future().wait_for(kTooLong);
        return real(session, data, dataLen, signature, signatureLen);
      });
  auto signature = std::async(std::launch::async, [&] { return numRight(first, 1, 1); });
  ASSERT_EQ(signing.get_future().wait_for(kTooLong), std::future_status::ready);
  const FakeKeyAlgorithm algorithm{SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw};
  auto supported = std::async(std::launch::async, [&] {
    return second.core->supportsOperation(second.platform, TKTokenOperation::kSignData, kKey, algorithm);
  });
  EXPECT_EQ(supported.wait_for(kTooLong / 6), std::future_status::ready);
  EXPECT_EQ(signature.wait_for(0s), std::future_status::timeout) << "the signature is still being made";
  goOn.set_value();
  EXPECT_TRUE(supported.get());
  EXPECT_EQ(signature.get(), 1);
}

/// Stops the thread that writes its first line of the process log about a key, until it is let go. That line
/// is written within an operation of the provider and outside any call of the module.
class StoppingLog final : public Log {
 public:
  void systemDefault(std::string_view) noexcept override {}
  void systemError(std::string_view) noexcept override {}
  void process(std::string_view line) noexcept override {
    if (line.find("] keyName = ") == std::string_view::npos) return;
    stopped.set_value();
    goOn.get_future().wait_for(kTooLong);
  }

  std::promise<void> stopped;
  std::promise<void> goOn;
};

TEST_F(SharedProvider, DoesNotHoldUpAnotherTokens) {
  const CK_SLOT_ID slot = script.addSlot("Reader B 01", script.card());
  PlatformServices stoppedServices = threadServices();
  const auto stopping = std::make_shared<StoppingLog>();
  stoppedServices.log = stopping;
  FakeToken otherToken{stoppedServices, nullptr, Text{u"Reader B 01"}};
  ASSERT_TRUE(otherToken.init());
  FakeClient other{stoppedServices, otherToken};
  ASSERT_TRUE(other.login());
  ASSERT_TRUE(script.card(slot).loggedIn);

  auto otherSignature = std::async(std::launch::async, [&] { return numRight(other, 1, 1); });
  ASSERT_EQ(stopping->stopped.get_future().wait_for(kTooLong), std::future_status::ready);
  EXPECT_FALSE(isFree(otherToken.core.sp()->gate()));
  auto signature = std::async(std::launch::async, [&] { return numRight(first, 1, 2); });
  EXPECT_EQ(signature.wait_for(kTooLong / 6), std::future_status::ready);
  EXPECT_EQ(otherSignature.wait_for(0s), std::future_status::timeout) << "that thread is still stopped";
  stopping->goOn.set_value();
  EXPECT_EQ(signature.get(), 1);
  EXPECT_EQ(otherSignature.get(), 1);
}

TEST_F(SharedProvider, PublishesAllItemsWhileSomebodySelectsTheCardAnew) {
  constexpr int kRounds = 20;
  PlatformServices services = threadServices();
  services.observer = nullptr;
  for (int i = 0; i < kRounds; ++i) {
    SCOPED_TRACE(i);
    FakeToken inserted{services};
    std::atomic<bool> done{false};
    std::atomic<bool> begun{false};
    std::thread selecting;
    // From here on the platform may have given the token to somebody else.
    inserted.whenRegistered = [&] {
      selecting = std::thread{[&, provider = inserted.core.sp()] {
        while (!done) {
          begun = true;
          // Not to sleep while waiting gets in more often.
          const std::unique_lock alone{provider->gate(), std::try_to_lock};
          if (alone) (void)provider->getSupportedTokenDescription(Text{kReader});
        }
      }};
      while (!begun) std::this_thread::yield();
    };
    EXPECT_TRUE(inserted.init());
    done = true;
    selecting.join();
    EXPECT_THAT(inserted.contents.items(), SizeIs(2));
  }
}

TEST_F(SharedProvider, CallsTheModuleBehindItsGateAlone) {
  std::optional<FakeToken> inserted;
  std::size_t numCalls = 0;
  std::vector<std::string> calledWithoutTheGate;
  const auto look = [&](const char* function) {
    ++numCalls;
    // While the provider is made, nobody else can know of it.
    const auto provider = inserted->core.sp();
    if (provider && isFree(provider->gate())) calledWithoutTheGate.emplace_back(function);
  };
  PlatformServices services = threadServices();
  services.observer = std::make_shared<AroundCalls>(look, [] {});
  inserted.emplace(services);
  ASSERT_TRUE(inserted->init());
  FakeClient client{services, *inserted};
  ASSERT_TRUE(client.login());
  EXPECT_EQ(numRight(client, 1, 1), 1);
  const Value plain = patternValue(32, 3);
  EXPECT_EQ(client.decrypt(cipherOf(plain)), Bytes{plain});
  EXPECT_GT(numCalls, 100U);
  EXPECT_THAT(calledWithoutTheGate, IsEmpty());
}

/// Tells whether the gate is free whenever a certificate is parsed.
class LookingParser final : public CertificateParser {
 public:
  explicit LookingParser(std::function<void()> look) : look_{std::move(look)} {}
  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    look_();
    return real_->createWithData(der);
  }

 private:
  std::function<void()> look_;
  const std::shared_ptr<CertificateParser> real_ = systemCertificateParser();
};

TEST_F(SharedProvider, LeavesItsGateWhileAnInsertionCallsThePlatform) {
  std::vector<bool> wasFree;
  std::optional<FakeToken> inserted;
  const auto look = [&] { wasFree.push_back(isFree(inserted->core.sp()->gate())); };
  PlatformServices services = threadServices();
  services.certificates = std::make_shared<LookingParser>(look);
  inserted.emplace(services);
  inserted->card.whenAsked = look;
  inserted->whenRegistered = look;
  inserted->contents.whenFilled = look;
  EXPECT_TRUE(inserted->init());
  EXPECT_THAT(wasFree, SizeIs(4));
  EXPECT_THAT(wasFree, Each(true));
}

TEST_F(SharedProvider, LeavesItsGateWhileAClientsUseAsksTheCardOfThePlatform) {
  std::vector<bool> wasFree;
  first.platform.card.whenAsked = [&] { wasFree.push_back(isFree(first.core->sp()->gate())); };
  EXPECT_TRUE(first.login());
  EXPECT_EQ(numRight(first, 1, 1), 1);
  EXPECT_EQ(first.decrypt(cipherOf(patternValue(32, 3))).size(), 32U);
  EXPECT_THAT(wasFree, SizeIs(4 + 2 + 2));  // of a login, a signature and a decryption
  EXPECT_THAT(wasFree, Each(true));
}

}  // namespace
}  // namespace mirel::test
