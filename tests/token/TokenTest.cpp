#include "token/TokenTest.h"

namespace mirel::test {

TKError tokenError(std::int64_t code, const Text& text) {
  return TKError{Text{u"CryptoTokenKit"}, code, text};
}

// ---- The platform's objects ----

bool FakeToken::init(TKErrorPointer outError) {
  const auto super = [this](const Text& instanceID) {
    if (calls_) calls_->emplace_back("super");
    instanceIDs.push_back(instanceID);
    whenRegistered();
    return !isRefused;
  };
  return core.initWithSmartCard(card, contents, super, outError);
}

FakePinEntry::FakePinEntry(const PlatformServices& services,
                           const std::shared_ptr<MirelSCTokenSession>& session, FakeSession& platform,
                           std::u16string_view pin, PortCalls* calls)
    : request{platform, calls}, core{services} {
  EXPECT_TRUE(core.initWithSession(session, request, [] { return true; }));
  request.pin = std::make_shared<const SecretText>(pin);
}

FakeClient::FakeClient(const PlatformServices& services, FakeToken& token, PortCalls* calls)
    : platform{&token.contents, calls, token.card.readerName},
      core{std::make_shared<MirelSCTokenSession>(services)},
      services_{services},
      calls_{calls} {
  EXPECT_TRUE(core->initWithToken(&token.core, [] { return true; }));
}

bool FakeClient::login(std::u16string_view pin, TKErrorPointer outError) {
  return FakePinEntry{services_, core, platform, pin, calls_}.finish(outError);
}

Bytes FakeClient::sign(const Value& data, TKErrorPointer outError) {
  const FakeKeyAlgorithm raw{SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw};
  return core->signData(platform, Bytes{data}, kKey, raw, outError);
}

Bytes FakeClient::decrypt(const Value& cipher, TKErrorPointer outError) {
  const FakeKeyAlgorithm pkcs1{SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1};
  return core->decryptData(platform, Bytes{cipher}, kKey, pkcs1, outError);
}

// ---- Tests with a card ----

void TokenTest::resetCard() {
  script.reset();
  setCertificate({.keyUsage = kDigitalSignature});
}

void TokenTest::setCertificate(const CertificateRequest& request) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, testCertificate(request));
}

void TokenTest::addKeyAndCertificate(Value id, Value label, const CertificateRequest& request) {
  script.addObject(ecPublicKey(id, label, p256Params(), p256Point(0x11)));
  script.addObject(certificate(std::move(id), std::move(label), testCertificate(request)));
}

std::string TokenTest::moduleLine() const {
  return "process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = " + home.modulePath();
}

// ---- Tests with a session ----

ClientSessionTest::ClientSessionTest() {
  startAnew();
  leavesOpen({kCardSession});
}

void ClientSessionTest::startAnew() {
  resetCard();
  client.reset();
  token.emplace(services());
  EXPECT_TRUE(token->init());
  publish({keyItem(kKey, true)});
  client.emplace(services(), *token, &calls);
  forget();
}

void ClientSessionTest::logInAnew() {
  startAnew();
  EXPECT_TRUE(client->login());
  forget();
}

void ClientSessionTest::forget() {
  script.forgetCalls();
  log->allLines.clear();
  calls.clear();
}

FakePinEntry ClientSessionTest::pinEntry(std::u16string_view pin) {
  return {services(), client->core, client->platform, pin, &calls};
}

void ClientSessionTest::isIn(std::int64_t state, bool marked) {
  client->core->setAuthState(state);
  client->platform.card.marked = marked;
  forget();
}

void ClientSessionTest::publish(const std::vector<MirelCTKTokenKeychainKey>& keys) {
  for (const MirelCTKTokenKeychainKey& key : keys) token->contents.append(key);
  token->contents.fillWithItems();
}

MirelCTKTokenKeychainKey ClientSessionTest::keyItem(const Text& objectID, bool alwaysAuthenticate) {
  MirelCTKTokenKeychainKey key;
  key.objectID = objectID;
  key.certificateID = Text{u"certificate"};
  key.alwaysAuthenticate = alwaysAuthenticate;
  key.canSign = key.canDecrypt = key.canPerformKeyExchange = true;
  return key;
}

LoggedInTest::LoggedInTest() {
  EXPECT_TRUE(client->login());
  forget();
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace mirel::test
