#pragma once

#include <memory>

#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/MirelCTKFramework.h"
#include "provider/CryptTKitSProvider.h"
#include "support/ModuleTest.h"
#include "support/Values.h"

namespace mirel::test {

using namespace std::string_view_literals;

/// The session that `openTKSmartCardTokenSession` opens on the default card: the one before it served
/// to read the token information.
inline constexpr CK_SESSION_HANDLE kCardSession = kFirstSession + 1;

/// A test with a provider on the scripted module. Nothing is loaded at its start.
class ProviderTest : public ModuleTest {
 protected:
  ProviderTest() { newProvider(); }

  void newProvider() { provider = std::make_shared<CryptTKitSProvider>(services()); }

  /// Initialises the provider. Forgets calls and log lines.
  void init();
  /// The same, then opens the session kCardSession, which the end of the test must find open, and logs the
  /// user in.
  void openSession();
  /// The same with a new provider on a module as at the start of the test.
  void startAnew();

  /// Has the module behave again, in the state it has after C_Initialize, and expects this provider to
  /// describe the token, open its session and list its key and certificate.
  void expectUsableAgain() override;

  [[nodiscard]] MirelCTKFramework& framework() const;
  /// The framework's record. One must be there.
  [[nodiscard]] PKCS11_SERVICE_INFO& record() const;

  /// What the two queries that read the card's objects append to an empty list; fails the test when they
  /// fail.
  [[nodiscard]] CryptTKitSProvider::KeyList listedKeys();
  [[nodiscard]] CryptTKitSProvider::CertificateList listedCertificates();

  /// Puts another RSA key in the place of the card's objects, with the ID "01".
  void useKey(std::size_t modulusLen, std::string_view label = "MyKey", CK_KEY_TYPE type = CKK_RSA);

  std::shared_ptr<CryptTKitSProvider> provider;
};

/// How many calls of the module a card's selection takes, opening its session, and reading the default card's
/// objects.
inline constexpr std::size_t kNumSelectingCalls = 8;
inline constexpr std::size_t kNumOpeningCalls = 7;
inline constexpr std::size_t kNumReadingCalls = 28;

}  // namespace mirel::test
