#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/ModuleTest.h"
#include "token/FakeTokenKit.h"
#include "token/MirelSCToken.h"
#include "token/TestCertificates.h"

namespace mirel::test {

inline constexpr const char16_t* kReader = u"Reader A 00";

/// The session that a good insertion leaves open: the two before it were only opened to read the
/// token's information.
inline constexpr CK_SESSION_HANDLE kCardSession = kFirstSession + 2;

/// A test with the scripted module, whose card holds a real certificate for signing (label "MyKey", ID
/// "01", P-256), and with a fake of the platform's token framework.
class TokenTest : public ModuleTest {
 protected:
  TokenTest();

  /// Forgets all that the script was told and puts the certificate on the card again.
  void resetCard();

  /// The module's services and the token kit.
  [[nodiscard]] PlatformServices services() const;

  /// The user gets another home, in which there is no module.
  void takeModuleAway();

  /// Replaces the value of the card's certificate.
  void setCertificate(const CertificateRequest& request);
  /// Adds a key (by its public part) and a certificate with the same ID.
  void addKeyAndCertificate(Value id, Value label, const CertificateRequest& request);

  /// The driver's answer when that card is inserted.
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> insert(TKErrorPointer outError = nullptr,
                                                         const Text& readerName = Text{kReader});

  /// A token on a base that the test can look at.
  [[nodiscard]] std::shared_ptr<MirelSCToken> newToken();
  [[nodiscard]] std::shared_ptr<FakeSmartCardToken> baseOfNewToken() const { return base_; }

  /// Initialises the token with a card in that reader.
  [[nodiscard]] std::shared_ptr<MirelSCToken> init(const std::shared_ptr<MirelSCToken>& token,
                                                   TKErrorPointer outError = nullptr,
                                                   const Text& readerName = Text{kReader});

  /// What the bridge logs when it loads the module of the user's home.
  [[nodiscard]] std::string moduleLine() const;

  const std::shared_ptr<FakeTokenKit> kit = std::make_shared<FakeTokenKit>();
  const std::shared_ptr<TKSmartCardTokenDriver> systemDriver = std::make_shared<TKSmartCardTokenDriver>();

 private:
  std::optional<ModuleHome> otherHome_;
  std::shared_ptr<FakeSmartCardToken> base_;
};

/// The items of a token, each in one line:
///   certificate cert_MyKey_01, label 01
///   key 01, label 01, certificate cert_MyKey_01, can sign, for login, PIN always, {2: PINAlways}
[[nodiscard]] std::vector<std::string> itemTexts(
    const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items);
[[nodiscard]] std::vector<std::string> itemTexts(const TKSmartCardToken& token);

/// How the platform's formatter shows an object; "(null)" for none.
[[nodiscard]] std::string shown(std::string_view className, const void* object);

}  // namespace mirel::test
