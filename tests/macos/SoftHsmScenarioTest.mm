#include <dlfcn.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>

#import "AdapterScenarioDriver.h"
#import "CoreHolder.h"
#include "CoreScenarioDriver.h"
#include "ExtensionServices.h"
#include "bridge/cryptoki.h"
#include "cli/ChildProcess.h"
#include "cli/ReferenceCryptography.h"
#include "cli/cardmaker/SoftHsm.h"
#include "support/FakeUserDirectory.h"
#include "support/ModuleHome.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirel::test {
namespace {

using Data = std::vector<std::uint8_t>;
using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::StartsWith;

constexpr const char* kCard = "token label=Card pin=123456\n"
                              "public type=rsa2048 id=01 label=Signature\n"
                              "private type=rsa2048 id=01 label=Signature allow=sign\n"
                              "certificate type=rsa2048 id=01 label=Signature usage=digitalSignature\n"
                              "public type=rsa1024 id=02 label=Decryption\n"
                              "private type=rsa1024 id=02 label=Decryption allow=decrypt\n"
                              "certificate type=rsa1024 id=02 label=Decryption usage=keyEncipherment\n";

Data dataOf(const std::string& text) { return Data(text.begin(), text.end()); }

/// Both implementations on a card of SoftHSM2, in this very process.
class OnSoftHsm : public ::testing::Test {
 protected:
  struct Record {
    std::vector<std::string> lines;
    Data signature;
    Data plain;
  };

  void SetUp() override {
    if (softHsmModule().empty()) GTEST_SKIP() << kSoftHsmIsMissing;
    (void)cardmaker({"make", folder_.path().string(), "--keys", MIREL_KEY_FOLDER}, kCard);
    const auto slots = nlohmann::json::parse(cardmaker({"list", folder_.path().string()}, "").out);
    reader_ = textOfField(slots.at(0).at("description").get<std::string>());
    ASSERT_EQ(setenv("SOFTHSM2_CONF", (folder_.path() / "softhsm2.conf").c_str(), 1), 0);
    home_ = std::make_unique<ModuleHome>(softHsmModule());
  }

  /// Fresh services: nothing is shared with what was played before, but the module.
  [[nodiscard]] PlatformServices services() const {
    PlatformServices all = extensionServices();
    all.user = std::make_shared<FakeUserDirectory>("alice", home_->home());
    return all;
  }

  [[nodiscard]] Record played(ScenarioDriver& driver) const {
    Play play{driver};
    Record record;
    play.insert(reader_);
    play.openSession();
    play.supportOfEverything(0, "01");
    play.sign(0, block);
    play.logIn(0, "654321");
    play.logIn(0);
    play.sign(0, block);
    record.signature = play.lastData().value_or(Data{});
    play.decrypt(0, cipher, "RSAEncryptionPKCS1", "02");
    record.plain = play.lastData().value_or(Data{});
    play.decrypt(0, Data(128, 0x12), "RSAEncryptionPKCS1", "02");
    play.exchange(0, "01");
    play.remove();
    record.lines = play.lines();
    return record;
  }

  /// Takes back the login, which holds for the whole process. There must be one.
  void logOut() const {
    // It stays mapped, as it does for the implementations.
    void* const library = dlopen(home_->modulePath().c_str(), RTLD_NOW);
    ASSERT_TRUE(library != nullptr);
    const auto list = reinterpret_cast<CK_RV (*)(CK_FUNCTION_LIST**)>(dlsym(library, "C_GetFunctionList"));
    CK_FUNCTION_LIST* module = nullptr;
    ASSERT_EQ(list(&module), CKR_OK);
    CK_SLOT_ID slots[2] = {};
    CK_ULONG numSlots = 2;
    ASSERT_EQ(module->C_GetSlotList(CK_TRUE, slots, &numSlots), CKR_OK);
    CK_SESSION_HANDLE session = 0;
    ASSERT_EQ(module->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    EXPECT_EQ(module->C_Logout(session), CKR_OK);
    EXPECT_EQ(module->C_CloseSession(session), CKR_OK);
  }

  Data block;
  Data cipher;

 private:
  static Result cardmaker(std::vector<std::string> arguments, const std::string& input) {
    Invocation invocation{.program = MIREL_CARDMAKER, .arguments = std::move(arguments), .input = input};
    invocation.environment["MIREL_SOFTHSM2_MODULE"] = softHsmModule().string();
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) invocation.environment[name] = value;
    }
    Result result = run(invocation);
    if (result.exitCode != 0) throw std::runtime_error{"cardmaker failed: " + result.err};
    return result;
  }

  /// Of a blank-padded field in hexadecimal digits.
  static std::string textOfField(const std::string& digits) {
    std::string text;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
      text.push_back(static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  }

  TemporaryFolder folder_;
  std::string reader_;
  std::unique_ptr<ModuleHome> home_;
};

TEST_F(OnSoftHsm, BothImplementationsSayTheSameAndSignAndDecrypt) {
  block.resize(256);
  for (std::size_t i = 1; i < block.size(); ++i) block[i] = static_cast<std::uint8_t>(i * 7);
  const std::string plain = "what is to be kept";
  cipher = dataOf(encrypted("rsa1024", "pkcs1", plain));

  const Record core = played(*coreScenarioDriver(services()));
  logOut();
  Record adapter;
  {
    ScopedExtensionServices scope{services()};
    adapter = played(*adapterScenarioDriver());
  }
  logOut();
  EXPECT_THAT(adapter.lines, ElementsAreArray(core.lines));
  EXPECT_THAT(adapter.lines,
              Contains(StartsWith("sign RSASignatureRaw 01: failed, error CryptoTokenKit -9")));
  EXPECT_THAT(adapter.lines, Contains(StartsWith("finish: failed, error CryptoTokenKit -5")));
  EXPECT_THAT(adapter.lines, Contains("finish: succeeded, no error"));

  EXPECT_EQ(dataOf(blockOf("rsa2048", std::string(adapter.signature.begin(), adapter.signature.end()))),
            block);
  EXPECT_EQ(adapter.plain, dataOf(plain));
}

}  // namespace
}  // namespace mirel::test
