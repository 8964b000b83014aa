#include "provider/KeyOperationTest.h"

namespace mirel::test {

std::string hexOf(const Value& value) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string digits;
  for (const CK_BYTE byte : value) {
    digits += kDigits[byte >> 4U];
    digits += kDigits[byte & 0xFU];
  }
  return digits;
}

void KeyOperationTest::logIn() {
  openSession();
  script.card().loggedIn = true;
}

void KeyOperationTest::useKey(std::size_t modulusLen, std::string_view label) {
  emptyTheCard();
  const Value modulus = patternValue(modulusLen, 0xC5);
  script.addObject(rsaPublicKey(bytesOf("01"), bytesOf(label), modulus));
  script.addObject(rsaPrivateKey(bytesOf("01"), bytesOf(label), modulus));
}

void KeyOperationTest::useKeyOfAnotherType(std::size_t modulusLen) {
  useKey(modulusLen);
  for (auto& [handle, object] : script.card().objects) {
    object.attributes[CKA_KEY_TYPE] = ulongValue(CKK_DSA);
  }
}

void KeyOperationTest::useEcKey() {
  emptyTheCard();
  script.addObject(ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1)));
  script.addObject(ecPrivateKey(bytesOf("01"), bytesOf("MyKey"), p256Params()));
}

std::vector<std::string> KeyOperationTest::callsBehindTheReading() {
  std::vector<std::string> calls = script.callTexts();
  script.forgetCalls();
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), nullptr));
  const std::vector<std::string> reading = script.callTexts();
  script.forgetCalls();
  EXPECT_FALSE(reading.empty());
  if (calls.size() < reading.size() || !std::equal(reading.begin(), reading.end(), calls.begin())) {
    ADD_FAILURE() << "the card's objects were not read first";
    return calls;
  }
  calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(reading.size()));
  return calls;
}

}  // namespace mirel::test
