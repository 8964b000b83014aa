#include <malloc.h>

#include <array>
#include <memory>
#include <string_view>

#include "platform/Memory.h"
#include "token/ProcessMemory.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

/// A copy of the PIN in a place of the test's choice, until the copy ends.
template <typename Character>
class PlantedPin {
 public:
  explicit PlantedPin(const HiddenPin& pin) {
    for (std::size_t i = 0; i < HiddenPin::kSize; ++i) characters_[i] = static_cast<Character>(pin.at(i));
  }
  PlantedPin(const PlantedPin&) = delete;
  PlantedPin& operator=(const PlantedPin&) = delete;
  ~PlantedPin() { wipe(characters_, sizeof characters_); }

  [[nodiscard]] std::basic_string_view<Character> text() const { return {characters_, HiddenPin::kSize}; }

 private:
  Character characters_[HiddenPin::kSize];
};

/// Calls it far down the stack, where nothing writes afterwards over what it leaves behind.
template <typename Function>
[[gnu::noinline]] auto farDown(const Function& function) {
  constexpr std::size_t kGap = 262144;  // bytes
  volatile char gap[kGap];
  gap[0] = 0;
  const auto result = function();
  gap[kGap - 1] = gap[0];
  return result;
}

/// A login with a PIN that nobody else in this process has. The scripted module keeps it only as the
/// hexadecimal digits of its record of calls.
class PinInMemory : public ClientSessionTest {
 protected:
  PinInMemory() {
    script.hook<&CK_FUNCTION_LIST::C_Login>(
        [this](auto, CK_SESSION_HANDLE, CK_USER_TYPE, CK_UTF8CHAR_PTR bytes, CK_ULONG size) -> CK_RV {
          bool matches = size == HiddenPin::kSize;
          for (std::size_t i = 0; matches && i < HiddenPin::kSize; ++i) matches = bytes[i] == pin.at(i);
          gotPin = matches;
          if (!matches || !accepts) return CKR_PIN_INCORRECT;
          script.card().loggedIn = true;
          return CKR_OK;
        });
    leavesOpen({kCardSession, kLoginSession});
  }

  [[nodiscard]] std::shared_ptr<const SecretText> entered() const {
    return std::make_shared<const SecretText>(PlantedPin<char16_t>{pin}.text());
  }

  /// Enters the PIN and finishes the operation, which drops what the user has entered.
  [[nodiscard]] bool enterAndFinish(TKErrorPointer outError = nullptr) {
    FakePinEntry entry = pinEntry(u"");
    entry.request.pin = entered();
    const bool accepted = farDown([&] { return entry.finish(outError); });
    expectNowhere();
    EXPECT_FALSE(entry.request.pin);
    return accepted;
  }

  void expectNowhere() const { expectCopies(0, 0); }
  void expectCopies(std::size_t ascii, std::size_t utf16) const {
    const PinCopies copies = copiesInMemory(pin);
    EXPECT_EQ(copies.ascii, ascii);
    EXPECT_EQ(copies.utf16, utf16);
  }

  const HiddenPin pin;
  bool accepts = true;
  bool gotPin = false;
};

TEST_F(PinInMemory, IsFoundWhereItIs) {
  expectNowhere();
  {
    const PlantedPin<char> onTheStack{pin};
    const auto onTheHeap = std::make_unique<PlantedPin<char>>(pin);
    const auto wide = std::make_unique<PlantedPin<char16_t>>(pin);
    expectCopies(2, 1);
  }
  expectNowhere();
  leavesOpen({kCardSession});
}

TEST_F(PinInMemory, IsFoundInABlockThatWasGivenBackAsItWas) {
  // Far from the front, which the heap uses for itself and for the next small blocks, and below another
  // block, so that the heap keeps it.
  constexpr std::size_t kBlockSize = 65536;
  constexpr std::size_t kPlace = 60000;
#ifdef M_PERTURB
  (void)mallopt(M_PERTURB, 0);  // The environment may tell the heap to write over what it gets back.
#endif
  auto block = std::make_unique<std::array<char, kBlockSize>>();
  const auto above = std::make_unique<std::array<char, kBlockSize>>();
  for (std::size_t i = 0; i < HiddenPin::kSize; ++i) (*block)[kPlace + i] = static_cast<char>(pin.at(i));
  block.reset();
  expectCopies(1, 0);
  leavesOpen({kCardSession});
}

TEST_F(PinInMemory, IsFoundOnAStackThatWasGivenBackAsItWas) {
  const bool planted = farDown([this] {
    volatile char copy[HiddenPin::kSize];
    for (std::size_t i = 0; i < HiddenPin::kSize; ++i) copy[i] = static_cast<char>(pin.at(i));
    return copy[0] != 0;
  });
  EXPECT_TRUE(planted);
  expectCopies(1, 0);
  leavesOpen({kCardSession});
}

TEST_F(PinInMemory, IsThereAsLongAsItIsEntered) {
  FakePinEntry entry = pinEntry(u"");
  entry.request.pin = entered();
  expectCopies(0, 1);
  EXPECT_TRUE(entry.finish());
}

TEST_F(PinInMemory, IsNowhereAfterALoginAndASignature) {
  EXPECT_TRUE(enterAndFinish());
  EXPECT_TRUE(gotPin);
  const Value data = patternValue(256, 1);
  EXPECT_EQ(client->sign(data), Bytes{resultOf(CKM_RSA_X_509, data, 256)});
  expectNowhere();
}

TEST_F(PinInMemory, IsNowhereAfterARefusal) {
  accepts = false;
  std::optional<TKError> error;
  EXPECT_FALSE(enterAndFinish(&error));
  EXPECT_TRUE(gotPin);
}

TEST_F(PinInMemory, IsNowhereAfterALoginThatNeverReachedTheCard) {
  script.pullCard();
  EXPECT_FALSE(enterAndFinish());
  client->core->setSp(nullptr);
  EXPECT_FALSE(enterAndFinish());
  EXPECT_FALSE(gotPin);
  leavesOpen({});
}

}  // namespace
}  // namespace mirel::test
