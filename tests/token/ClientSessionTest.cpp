#include "token/ClientSessionTest.h"

#include "platform/Certificate.h"
#include "token/MirelCTKTokenKeychainKey.h"

namespace mirel::test {
namespace {

// Bits of the certificate's key usage (RFC 5280, section 4.2.1.3).
constexpr unsigned kDigitalSignature = 1U << 0U;
constexpr unsigned kKeyEncipherment = 1U << 2U;

}  // namespace

TKError tokenError(std::int64_t code, const Text& text) {
  return TKError{Text{u"CryptoTokenKit"}, code, text};
}

ClientSessionTest::ClientSessionTest() {
  startAnew();
  leavesOpen({kCardSession});
}

ClientSessionTest::Client ClientSessionTest::newClient() {
  Client client;
  client.base = std::make_shared<FakeTokenSession>(kit->script);
  client.session = std::make_shared<MirelSCTokenSession>(services(), client.base);
  EXPECT_TRUE(client.session->initWithToken(token));
  return client;
}

void ClientSessionTest::startAnew() {
  resetCard();
  setCertificate({.keyUsage = kDigitalSignature | kKeyEncipherment});
  token = newToken();
  EXPECT_TRUE(init(token));
  const Client client = newClient();
  base = client.base;
  session = client.session;
  forget();
}

void ClientSessionTest::forget() {
  script.forgetCalls();
  log->allLines.clear();
}

std::shared_ptr<MirelSCTokenAuth> ClientSessionTest::pinOperation(MirelSCTokenSession& session,
                                                                  std::u16string_view pin) {
  auto operation = std::dynamic_pointer_cast<MirelSCTokenAuth>(
      session.beginAuthForOperation(nullptr, TKTokenOperation::kSignData, Text{u"PINAlways"}, nullptr));
  if (operation) operation->setPIN(std::make_shared<const SecretText>(pin));
  return operation;
}

bool ClientSessionTest::login(std::u16string_view pin, TKErrorPointer outError) {
  const auto operation = pinOperation(*session, pin);
  return operation && operation->finishWithError(outError);
}

void ClientSessionTest::publish(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) {
  token->keychainContents()->fillWithItems(items);
}

std::shared_ptr<MirelCTKTokenKeychainKey> ClientSessionTest::newKey(const Text& objectID,
                                                                    bool alwaysAuthenticate, TestKey type) {
  const Bytes der{testCertificate({.key = type})};
  auto key = std::make_shared<MirelCTKTokenKeychainKey>(services(), kit->allocKeychainKey());
  EXPECT_TRUE(key->initWithCertificate(systemCertificateParser()->createWithData(der), objectID,
                                       Text{u"certificate"}, alwaysAuthenticate));
  key->setCanSign(true);
  key->setCanDecrypt(true);
  key->setCanPerformKeyExchange(true);
  return key;
}

LoggedInTest::LoggedInTest() {
  EXPECT_TRUE(login());
  forget();
  leavesOpen({kCardSession, kLoginSession});
}

void LoggedInTest::logInAnew() {
  startAnew();
  EXPECT_TRUE(login());
  forget();
}

}  // namespace mirel::test
