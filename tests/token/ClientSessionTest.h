#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "token/FakeKeyAlgorithm.h"
#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"
#include "token/TokenTest.h"

namespace mirel::test {

/// The object identifier of the card's key.
inline const Text kKey{u"01"};
/// One that no key has.
inline const Text kNoKey{u"99"};

/// The session that the first login leaves open; the one before it only served to read the token's
/// information.
inline constexpr CK_SESSION_HANDLE kLoginSession = kCardSession + 2;

/// An error of the token's domain with that code and text.
[[nodiscard]] TKError tokenError(std::int64_t code, const Text& text = Text{});

/// An error that was there before.
inline const TKError kEarlierError{Text{u"Somebody"}, 7, Text{u"else"}};

// ---- The lines of the search for an authenticated key ----

inline constexpr const char* kGeneralStart = "default: CTK [MirelSCTokenSession-184] +++START+++";
inline constexpr const char* kAuthenticatedStart = "default: CTK [MirelSCTokenSession-157] +++START+++";
inline constexpr const char* kKeyIsNil = "error: keyItem is nil.";
inline constexpr const char* kNeeded =
    "process: [MirelSCTokenSession-170] Error Domain=CryptoTokenKit Code=-9 \"(null)\"";
inline constexpr const char* kAuthenticatedEnd = "default: CTK [MirelSCTokenSession-177] ---END---";
inline constexpr const char* kFailed = "process: [MirelSCTokenSession-187] keyObjectID = 01";
inline constexpr const char* kFailedNoKey = "process: [MirelSCTokenSession-187] keyObjectID = 99";
inline constexpr const char* kGeneralEnd = "default: CTK [MirelSCTokenSession-190] ---END---";

/// A test with a client's session on a token. The card is that of the scripted module: an RSA key of 2048
/// bits, which the token publishes as "01", for signing and for decrypting. (Nothing here looks at the key in
/// the certificate, so that is one that is quickly made.) Calls and lines up to then are forgotten.
class ClientSessionTest : public TokenTest {
 protected:
  ClientSessionTest();

  /// A session and the platform's session below it.
  struct Client {
    std::shared_ptr<FakeTokenSession> base;
    std::shared_ptr<MirelSCTokenSession> session;
  };
  [[nodiscard]] Client newClient();

  /// Another card, token and session, for tests that go in rounds.
  void startAnew();

  /// Forgets calls and lines.
  void forget();

  /// An operation of that session, with the PIN entered.
  [[nodiscard]] static std::shared_ptr<MirelSCTokenAuth> pinOperation(MirelSCTokenSession& session,
                                                                      std::u16string_view pin);
  [[nodiscard]] bool login(std::u16string_view pin = u"123456", TKErrorPointer outError = nullptr);

  /// The items of the token's contents are these keys and no other.
  void publish(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items);
  /// A key of that type that can do everything.
  [[nodiscard]] std::shared_ptr<MirelCTKTokenKeychainKey> newKey(const Text& objectID,
                                                                 bool alwaysAuthenticate,
                                                                 TestKey type = TestKey::kP256);

  std::shared_ptr<MirelSCToken> token;
  std::shared_ptr<FakeTokenSession> base;
  std::shared_ptr<MirelSCTokenSession> session;
};

/// The same after a login in that session.
class LoggedInTest : public ClientSessionTest {
 protected:
  LoggedInTest();

  /// Starts anew and logs in.
  void logInAnew();
};

}  // namespace mirel::test
