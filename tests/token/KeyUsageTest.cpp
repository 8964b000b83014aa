#include "token/MirelCTKTokenKeychainKey.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

// RFC 5280, section 4.2.1.3: bit n of the bit string.
constexpr unsigned kDigitalSignature = 1U << 0U;
constexpr unsigned kNonRepudiation = 1U << 1U;
constexpr unsigned kKeyEncipherment = 1U << 2U;
constexpr unsigned kDataEncipherment = 1U << 3U;
constexpr unsigned kKeyAgreement = 1U << 4U;
constexpr unsigned kKeyCertSign = 1U << 5U;
constexpr unsigned kCRLSign = 1U << 6U;
constexpr unsigned kEncipherOnly = 1U << 7U;
constexpr unsigned kDecipherOnly = 1U << 8U;
constexpr unsigned kAllBits = 0x1FF;

/// What a key may do.
enum class Ability { kNothing, kSign, kDecrypt, kExchangeKeys };

struct Row {
  const char* name;
  std::optional<unsigned> keyUsage;
  Ability ability;
};

const Row kRows[] = {
    // One bit.
    {"digitalSignature", kDigitalSignature, Ability::kSign},
    {"nonRepudiation", kNonRepudiation, Ability::kNothing},
    {"keyEncipherment", kKeyEncipherment, Ability::kDecrypt},
    {"dataEncipherment", kDataEncipherment, Ability::kNothing},
    {"keyAgreement", kKeyAgreement, Ability::kExchangeKeys},
    {"keyCertSign", kKeyCertSign, Ability::kNothing},
    {"cRLSign", kCRLSign, Ability::kNothing},
    {"encipherOnly", kEncipherOnly, Ability::kNothing},
    {"decipherOnly", kDecipherOnly, Ability::kNothing},
    // Several: the first of signature, encipherment and agreement is the only one that counts.
    {"signature and non-repudiation", kDigitalSignature | kNonRepudiation, Ability::kSign},
    {"signature and encipherment", kDigitalSignature | kKeyEncipherment, Ability::kSign},
    {"signature and agreement", kDigitalSignature | kKeyAgreement, Ability::kSign},
    {"signature, encipherment and agreement", kDigitalSignature | kKeyEncipherment | kKeyAgreement,
     Ability::kSign},
    {"encipherment and agreement", kKeyEncipherment | kKeyAgreement, Ability::kDecrypt},
    {"key and data encipherment", kKeyEncipherment | kDataEncipherment, Ability::kDecrypt},
    {"agreement, encipherOnly", kKeyAgreement | kEncipherOnly, Ability::kExchangeKeys},
    {"agreement, decipherOnly", kKeyAgreement | kDecipherOnly, Ability::kExchangeKeys},
    {"certificates and lists", kKeyCertSign | kCRLSign, Ability::kNothing},
    {"all bits", kAllBits, Ability::kSign},
    {"all but signature", kAllBits & ~kDigitalSignature, Ability::kDecrypt},
    {"all but signature and encipherment", kAllBits & ~(kDigitalSignature | kKeyEncipherment),
     Ability::kExchangeKeys},
    {"all but these three", kAllBits & ~(kDigitalSignature | kKeyEncipherment | kKeyAgreement),
     Ability::kNothing},
    // None.
    {"no bit", 0U, Ability::kNothing},
    {"no extension", std::nullopt, Ability::kNothing},
};

class KeyUsage : public TokenTest {
 protected:
  /// The key item that is published for a certificate with that key usage.
  [[nodiscard]] std::shared_ptr<MirelCTKTokenKeychainKey> keyFor(const std::optional<unsigned>& keyUsage) {
    script.reset();
    setCertificate({.keyUsage = keyUsage});
    const auto token = newToken();
    EXPECT_TRUE(init(token));
    const auto items = token->keychainContents()->items();
    EXPECT_EQ(items.size(), 2U);
    leavesOpen({kCardSession});
    return items.empty() ? nullptr : std::dynamic_pointer_cast<MirelCTKTokenKeychainKey>(items.back());
  }
};

TEST_F(KeyUsage, DecidesWhatAKeyCanDo) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const auto key = keyFor(row.keyUsage);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->canSign(), row.ability == Ability::kSign);
    EXPECT_EQ(key->canDecrypt(), row.ability == Ability::kDecrypt);
    EXPECT_EQ(key->canPerformKeyExchange(), row.ability == Ability::kExchangeKeys);
  }
}

TEST_F(KeyUsage, DecidesWhichOperationNeedsThePin) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    TKTokenConstraints expected;
    if (row.ability == Ability::kSign) expected[TKTokenOperation{2}] = Text{u"PINAlways"};
    if (row.ability == Ability::kDecrypt) expected[TKTokenOperation{3}] = Text{u"PINAlways"};
    if (row.ability == Ability::kExchangeKeys) expected[TKTokenOperation{4}] = Text{u"PINAlways"};
    const auto key = keyFor(row.keyUsage);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->constraints(), expected);
  }
}

TEST_F(KeyUsage, MakesKeysForSignatureAndEnciphermentAloneSuitableForLogin) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const auto key = keyFor(row.keyUsage);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->suitableForLogin(), row.ability == Ability::kSign || row.ability == Ability::kDecrypt);
  }
}

TEST_F(KeyUsage, LeavesThePinNecessaryForEveryUse) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const auto key = keyFor(row.keyUsage);
    ASSERT_TRUE(key);
    EXPECT_TRUE(key->alwaysAuthenticate());
  }
}

}  // namespace
}  // namespace mirel::test
