#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ExtensionServices.h"
#include "double/LogRecorder.h"
#include "double/Switches.h"
#include "double/TokenSystem.h"
#include "support/ModuleTest.h"
#include "token/TestCertificates.h"

namespace mirel::test {

inline constexpr const char* kReaderName = "Reader A 00";

// Operations of a key, by the platform's numbers.
inline constexpr long kSign = 2;
inline constexpr long kDecrypt = 3;
inline constexpr long kExchange = 4;

/// A test of the extension's Objective-C classes on the scripted module, with the platform's services, except
/// for the home folder. The card holds one RSA key ("01", "MyKey") whose certificate allows signing.
///
/// After each test the module may have open sessions (each login and token leaves one), but no object of the
/// platform may live on.
class AdapterTest : public ModuleTest {
 protected:
  AdapterTest();
  ~AdapterTest() override;
  void TearDown() override;

  /// What a certificate of that key usage (bit n of RFC 5280's bit string) lets its key do.
  void setKeyUsage(unsigned usage);

  /// Offers the card and opens a session, number 0.
  void insertAndOpen();
  /// Begins, enters the PIN, and ends an authentication for signing.
  Outcome logIn(const std::optional<std::string>& pin = "123456", SessionNumber session = 0,
                ErrorPointer pointer = ErrorPointer::kEmpty);

  ScopedSwitches switches;
  LogRecorder recorder;
  std::optional<TokenSystem> system;

  std::unique_ptr<ScopedExtensionServices> services_;
};

[[nodiscard]] SystemError platformError(long code);

}  // namespace mirel::test
