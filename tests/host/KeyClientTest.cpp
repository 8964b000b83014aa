#include "host/KeyClientTest.h"

#include <openssl/rsa.h>

#include <algorithm>

#include "host/Verification.h"

namespace mirel::test {
namespace {

// Bits of the certificate's key usage (RFC 5280, section 4.2.1.3).
constexpr unsigned kDigitalSignature = 1U << 0U;
constexpr unsigned kKeyEncipherment = 1U << 2U;
constexpr unsigned kKeyAgreement = 1U << 4U;

/// The outcome's value; a failure fails the test.
template <typename Value>
[[nodiscard]] Value successOf(const Result<Value>& outcome) {
  if (outcome) return *outcome;
  ADD_FAILURE() << outcome.failure().what << ": " << outcome.failure().why;
  return {};
}

class HandedOn final : public PinSource {
 public:
  explicit HandedOn(GivenPins& pins) : pins_{pins} {}
  Result<std::shared_ptr<const SecretText>> askForPin(const std::string& card) override {
    return pins_.askForPin(card);
  }
  void showRefusal(const std::string& text) override { pins_.showRefusal(text); }
  [[nodiscard]] bool canAskAgain() const override { return pins_.canAskAgain(); }

 private:
  GivenPins& pins_;
};

}  // namespace

std::unique_ptr<PinSource> handedOn(GivenPins& pins) { return std::make_unique<HandedOn>(pins); }

Result<std::size_t> GivenInput::read(std::span<std::uint8_t> room) {
  ++timesRead;
  while (piece_ < pieces_.size() && position_ == pieces_[piece_].size()) {
    ++piece_;
    position_ = 0;
  }
  if (piece_ == pieces_.size()) {
    if (failure) return *failure;
    return std::size_t{0};
  }
  const Value& piece = pieces_[piece_];
  const std::size_t count = std::min(room.size(), piece.size() - position_);
  std::copy_n(piece.begin() + static_cast<std::ptrdiff_t>(position_), count, room.begin());
  position_ += count;
  return count;
}

KeyClientTest::KeyClientTest() { startAnew(); }

void KeyClientTest::startAnew() {
  script.card().objects.clear();
  const auto add = [&](const char* name, const char* label, unsigned usage, bool isRsa) {
    const Value id = bytesOf(name);
    const Value text = bytesOf(label);
    script.addObject(isRsa ? rsaPublicKey(id, text, key.modulus())
                           : ecPublicKey(id, text, p256Params(), p256Point(1)));
    script.addObject(isRsa ? rsaPrivateKey(id, text, key.modulus()) : ecPrivateKey(id, text, p256Params()));
    const SoftwareKey& owner = isRsa ? key : SoftwareKey::ec(kCurve);
    script.addObject(certificate(id, text, owner.certificate(usage)));
  };
  add("01", "Signer", kDigitalSignature, true);
  add("02", "Vault", kKeyEncipherment, true);
  add("03", "Curve", kDigitalSignature, false);
  add("04", "Agree", kKeyAgreement, false);

  // Raw RSA, of which the real one only checks that it may be done.
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [&](auto real, auto session, auto* data, auto dataLen, auto* out, auto* outLen) {
        const CK_RV rv = real(session, data, dataLen, out, outLen);
        if (rv != CKR_OK || !out) return rv;
        Value block(key.blockSize() - dataLen, 0x00);
        block.insert(block.end(), data, data + dataLen);
        const Value made = key.rawPrivate(block);
        std::copy(made.begin(), made.end(), out);
        return made.empty() ? CKR_DATA_INVALID : CKR_OK;
      });
  decryptInTheModule(key);

  insertAnew();
  script.forgetCalls();
}

void KeyClientTest::insertAnew(const Text& readerName) {
  card = inserted(readerName);
  client = newClient();
}

void KeyClientTest::TearDown() {
  EXPECT_TRUE(script.openOperations().empty());
  InsertedCardTest::TearDown();
}

std::unique_ptr<KeyClient> KeyClientTest::newClient() {
  auto outcome = host.newClient(card);
  if (outcome) return std::move(*outcome);
  ADD_FAILURE() << outcome.failure().what;
  return nullptr;
}

const PublishedKey& KeyClientTest::published(const char16_t* objectID) const {
  for (const PublishedItem& item : card.items) {
    const auto* found = std::get_if<PublishedKey>(&item);
    if (found && found->objectID == Text{objectID}) return *found;
  }
  ADD_FAILURE() << "there is no such key";
  static const PublishedKey kNone;
  return kNone;
}

void KeyClientTest::padInTheModule(const SoftwareKey& own) {
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [&own](auto real, auto session, auto* data, auto dataLen, auto* out, auto* outLen) {
        const CK_RV rv = real(session, data, dataLen, out, outLen);
        if (rv != CKR_OK || !out) return rv;
        const Value block(data, data + dataLen);
        const bool isWhole = dataLen == own.blockSize();
        const Value made = isWhole ? own.rawPrivate(block) : own.signature(block, nullptr, RSA_PKCS1_PADDING);
        std::copy(made.begin(), made.end(), out);
        return rv;
      });
}

void KeyClientTest::decryptInTheModule(const SoftwareKey& own) {
  // The real one takes the padding away.
  script.hook<&CK_FUNCTION_LIST::C_Decrypt>(
      [&own](auto real, auto session, auto* data, auto dataLen, auto* out, auto* outLen) {
        Value block = own.rawPrivate(Value(data, data + dataLen));
        return real(session, block.data(), block.size(), out, outLen);
      });
}

void KeyClientTest::decryptRawInTheModule() {
  script.hook<&CK_FUNCTION_LIST::C_Decrypt>(
      [&](auto real, auto session, auto* data, auto dataLen, auto* out, auto* outLen) {
        script.deviations.plainText = key.rawPrivate(Value(data, data + dataLen));
        return real(session, data, dataLen, out, outLen);
      });
}

Signature KeyClientTest::signature(SecKeyAlgorithm algorithm, const Value& data, const char16_t* objectID) {
  GivenInput input{{data}};
  return successOf(client->sign(published(objectID), algorithm, input, pins));
}

Result<void> KeyClientTest::verified(SecKeyAlgorithm algorithm, const Signature& made) const {
  PublishedCertificate certificate;
  certificate.data = Bytes{key.certificate()};
  auto result = verifySignature(certificate, published(u"01"), algorithm, made);
  EXPECT_EQ(made.whyNotVerified ? made.whyNotVerified->why : "", result ? "" : result.failure().why);
  return result;
}

Value KeyClientTest::plainText(SecKeyAlgorithm algorithm, const Value& cipher) {
  GivenInput input{{cipher}};
  const Bytes plain = successOf(client->decrypt(published(u"02"), algorithm, input, pins));
  EXPECT_FALSE(plain.isNull());
  return valueOf(plain);
}

Failure KeyClientTest::signFailure(SecKeyAlgorithm algorithm, const Value& data, const char16_t* objectID) {
  GivenInput input{{data}};
  return failureOf(client->sign(published(objectID), algorithm, input, pins));
}

Failure KeyClientTest::decryptFailure(SecKeyAlgorithm algorithm, const Value& cipher,
                                      const char16_t* objectID) {
  GivenInput input{{cipher}};
  return failureOf(client->decrypt(published(objectID), algorithm, input, pins));
}

Failure KeyClientTest::exchangeFailure(SecKeyAlgorithm algorithm, const Value& point,
                                       const char16_t* objectID) {
  GivenInput input{{point}};
  return failureOf(client->exchange(published(objectID), algorithm, input, pins));
}

std::vector<std::string> KeyClientTest::secretCalls() const {
  constexpr std::string_view kNames[] = {"C_Login",   "C_SignInit",  "C_Sign",  "C_DecryptInit",
                                         "C_Decrypt", "C_DeriveKey", "C_Logout"};
  std::vector<std::string> names;
  for (const Call& call : script.calls()) {
    if (std::find(std::begin(kNames), std::end(kNames), call.function) != std::end(kNames))
      names.push_back(call.function);
  }
  return names;
}

Value valueOf(const Bytes& bytes) { return {bytes.view().begin(), bytes.view().end()}; }

}  // namespace mirel::test
