#pragma once

#include "framework/FrameworkTest.h"
#include "support/ResultBuffer.h"

namespace mirel::test {

/// A test with a framework that has listed the default card's key, whose user is logged in.
class CardOperationsTest : public FrameworkTest {
 protected:
  CardOperationsTest() { prepare(); }

  void prepare() {
    openSessionAndEnumerate();
    script.card().loggedIn = true;
    key = keys().front();
    log->allLines.clear();
    log->processLines.clear();
    memory->reset();
  }

  /// What a reset of the script undoes.
  void prepareAgain() {
    newFramework();
    prepare();
  }

  /// Gives the default card's key that many bytes.
  void setModulusLen(std::size_t size) {
    for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey}) {
      script.object(object).attributes[CKA_MODULUS] = patternValue(size, 0xC5);
    }
  }

  /// How the private key of the default card is looked up.
  [[nodiscard]] static std::vector<std::string> lookUpCalls(CK_OBJECT_HANDLE object = kPublicKey) {
    const std::string read = "C_GetAttributeValue(5, " + std::to_string(object) + ", [CKA_ID room ";
    return {read + "255])",
            read + "2])",
            "C_FindObjectsInit(5, [CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=3031])",
            "C_FindObjects(5, 1)",
            "C_FindObjects(5, 1)",
            "C_FindObjectsFinal(5)"};
  }
  /// How the length of a modulus of 256 bytes is read.
  [[nodiscard]] static std::vector<std::string> modulusCalls(CK_OBJECT_HANDLE object) {
    const std::string read = "C_GetAttributeValue(5, " + std::to_string(object) + ", [CKA_MODULUS ";
    return {read + "null 0])", read + "room 256])", read + "room 256])"};
  }
  [[nodiscard]] static std::vector<std::string> inOrder(
      std::initializer_list<std::vector<std::string>> sequences) {
    std::vector<std::string> all;
    for (const auto& sequence : sequences) all.insert(all.end(), sequence.begin(), sequence.end());
    return all;
  }

  static constexpr std::size_t kNumLookUpCalls = 6;
  static constexpr std::size_t kNumModulusCalls = 3;

  std::shared_ptr<PKCS11_ASYMKEY_INFO> key;
};

}  // namespace mirel::test
