#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/ModuleTest.h"
#include "token/FakePorts.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"
#include "token/TestCertificates.h"

namespace mirel::test {

/// The session of the module that a good insertion leaves open: the two before it were only opened to read
/// the token's information.
inline constexpr CK_SESSION_HANDLE kCardSession = kFirstSession + 2;
/// The session that the first login leaves open; the one before it only served to read the token's
/// information.
inline constexpr CK_SESSION_HANDLE kLoginSession = kCardSession + 2;

/// The object identifier of the card's key.
inline const Text kKey{u"01"};
/// One that no key has.
inline const Text kNoKey{u"99"};

/// What the default card's token publishes (see `itemTexts`).
inline constexpr const char* kCertificateItem = "certificate cert_MyKey_01, label 01";
inline constexpr const char* kKeyItem =
    "key 01, label 01, certificate cert_MyKey_01, can sign, for login, PIN always, {2: PINAlways}";
/// The key when the platform is asked whether it takes it.
inline constexpr const char* kNewKeyItem = "key 01, label , certificate cert_MyKey_01, PIN always, {}";

// The lines for a key.
inline constexpr const char* kKeyStart = "default: CTK [MirelSCToken-15] +++START+++";
inline constexpr const char* kKeyEnd = "default: CTK [MirelSCToken-21] ---END---";

/// An error of the token's domain with that code and text.
[[nodiscard]] TKError tokenError(std::int64_t code, const Text& text = Text{});

/// An error that was there before.
inline const TKError kEarlierError{Text{u"Somebody"}, 7, Text{u"else"}};
/// What an error pointer may point to: nothing, and an error that was there before.
inline const std::optional<TKError> kErrorsBefore[] = {std::nullopt, kEarlierError};

// Bits of a certificate's key usage (RFC 5280, section 4.2.1.3).
inline constexpr unsigned kDigitalSignature = 1U << 0U;
inline constexpr unsigned kKeyEncipherment = 1U << 2U;
inline constexpr unsigned kKeyAgreement = 1U << 4U;

/// The platform's token around one of ours. Its super records "super".
class FakeToken {
 public:
  explicit FakeToken(const PlatformServices& services, PortCalls* calls = nullptr,
                     const Text& reader = Text{kReader})
      : card{calls, reader}, contents{services.log, calls}, core{services}, calls_{calls} {}

  [[nodiscard]] bool init(TKErrorPointer outError = nullptr);

  FakeSmartCard card;
  FakeContents contents;
  MirelSCToken core;
  /// The platform refuses it.
  bool isRefused = false;
  /// Called when the platform's initialiser runs.
  std::function<void()> whenRegistered = [] {};
  /// The identifier of each time that it ran.
  std::vector<Text> instanceIDs;

 private:
  PortCalls* calls_;
};

/// The platform's request for a PIN around one of ours, already initialised and with the PIN entered.
class FakePinEntry {
 public:
  FakePinEntry(const PlatformServices& services, const std::shared_ptr<MirelSCTokenSession>& session,
               FakeSession& platform, std::u16string_view pin, PortCalls* calls = nullptr);
  [[nodiscard]] bool finish(TKErrorPointer outError = nullptr) {
    return core.finishWithError(request, outError);
  }

  FakePinRequest request;
  MirelSCTokenAuth core;
};

/// The platform's session around one of ours, already initialised.
class FakeClient {
 public:
  FakeClient(const PlatformServices& services, FakeToken& token, PortCalls* calls = nullptr);

  [[nodiscard]] bool login(std::u16string_view pin = u"123456", TKErrorPointer outError = nullptr);
  [[nodiscard]] Bytes sign(const Value& data, TKErrorPointer outError = nullptr);
  [[nodiscard]] Bytes decrypt(const Value& cipher, TKErrorPointer outError = nullptr);

  FakeSession platform;
  std::shared_ptr<MirelSCTokenSession> core;

 private:
  PlatformServices services_;
  PortCalls* calls_;
};

/// A test with the scripted module, whose card holds a real certificate for signing (label "MyKey", ID
/// "01", P-256).
class TokenTest : public ModuleTest {
 protected:
  TokenTest() { resetCard(); }

  /// Forgets all that the script was told and puts the certificate on the card again.
  void resetCard();
  /// Replaces the value of the card's certificate.
  void setCertificate(const CertificateRequest& request);
  /// Adds a key (by its public part) and a certificate with the same ID.
  void addKeyAndCertificate(Value id, Value label, const CertificateRequest& request);

  /// What the bridge logs when it loads the module of the user's home.
  [[nodiscard]] std::string moduleLine() const;

  /// Of all ports that the test gives it to.
  PortCalls calls;
};

/// A test with a client's session on a token. The card is that of the scripted module: an RSA key of 2048
/// bits, which the token's contents have as "01", for everything. All calls and lines up to then are
/// forgotten.
class ClientSessionTest : public TokenTest {
 protected:
  ClientSessionTest();

  /// Another card, token and session, for tests that go in rounds.
  void startAnew();
  /// The same with a login.
  void logInAnew();
  /// Forgets all calls and lines.
  void forget();

  [[nodiscard]] FakePinEntry pinEntry(std::u16string_view pin = u"123456");
  /// The session is in that state, on a connection with or without a mark.
  void isIn(std::int64_t state, bool marked);
  /// The items of the token's contents are these keys and no other.
  void publish(const std::vector<MirelCTKTokenKeychainKey>& keys);
  /// A key that can do everything.
  [[nodiscard]] static MirelCTKTokenKeychainKey keyItem(const Text& objectID, bool alwaysAuthenticate);

  std::optional<FakeToken> token;
  std::optional<FakeClient> client;
};

/// The same after a login in that session.
class LoggedInTest : public ClientSessionTest {
 protected:
  LoggedInTest();
};

}  // namespace mirel::test
