#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/FailingRounds.h"
#include "framework/MirelCTKFramework.h"
#include "provider/CryptTKitSProvider.h"
#include "support/ModuleTest.h"

namespace mirel {

/// How a failing comparison shows a text: quoted, with control characters as \xNN; or null.
void PrintTo(const Text& text, std::ostream* out);

}  // namespace mirel

namespace mirel::test {

using namespace std::string_view_literals;

/// The name of the default card's reader.
[[nodiscard]] Text reader();

/// The session that `openTKSmartCardTokenSession` opens on the default card: the one before it served
/// to read the token information.
inline constexpr CK_SESSION_HANDLE kCardSession = kFirstSession + 1;

/// The lines that a failing description logs.
inline constexpr const char* kNoFrameworkLine =
    "error: [CryptTKitSProvider: 49] -[CryptTKitSProvider getSupportedTokenDescription:] nil == "
    "_pCTKFramework";
inline constexpr const char* kEnumCardsFailedLine =
    "error: [CryptTKitSProvider: 54] -[CryptTKitSProvider getSupportedTokenDescription:] "
    "_pCTKFramework EnumCards failed";

/// A test with a provider on the scripted module. Nothing is loaded at its start.
class ProviderTest : public ModuleTest {
 protected:
  ProviderTest() { newProvider(); }

  void newProvider();
  /// The same, in a home where another file is in the module's place. An empty path: no file is.
  void useModule(const char* path);

  /// Initialises the provider. Forgets calls and log lines.
  void init();
  /// The same, then opens the session kCardSession, which the end of the test must find open.
  void openSession();

  /// Has the module behave again, in the state it has after C_Initialize, and expects this provider to
  /// describe the token, open its session and list its key and certificate.
  void expectUsable();

  /// Runs `round` for each of the `numCalls` calls of an operation, that call failing with `code` (see
  /// FailingRounds.h), and expects to be usable after each round.
  void failEachCall(CK_RV code, std::size_t numCalls, const std::function<void(FailPoint&)>& round);

  [[nodiscard]] MirelCTKFramework& framework() const;
  /// The framework's record. One must be there.
  [[nodiscard]] PKCS11_SERVICE_INFO& record() const;

  /// What the two queries that read the card's objects append to an empty list; fails the test when they
  /// fail.
  [[nodiscard]] CryptTKitSProvider::KeyList listedKeys();
  [[nodiscard]] CryptTKitSProvider::CertificateList listedCertificates();

  /// Removes all objects of the default card.
  void emptyTheCard() { script.card().objects.clear(); }

  std::shared_ptr<CryptTKitSProvider> provider;

 private:
  std::vector<std::unique_ptr<ModuleHome>> otherHomes_;
};

}  // namespace mirel::test
