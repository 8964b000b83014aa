#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/KeyClientTest.h"

namespace mirel::test {

// Bits of a certificate's key usage (RFC 5280, section 4.2.1.3).
inline constexpr unsigned kForSigning = 1U << 0U;
inline constexpr unsigned kForDecrypting = 1U << 2U;
inline constexpr unsigned kForAgreement = 1U << 4U;
inline constexpr unsigned kForCertificates = 1U << 5U;

/// A card that holds what a test puts on it, and what its report says.
class CardReportTest : public HostTest {
 protected:
  CardReportTest() { clearCard(); }
  void TearDown() override {
    leavesOpen(script.openSessions());
    HostTest::TearDown();
  }

  void clearCard() { script.card().objects.clear(); }

  // Objects of an RSA key of 1024 bits, or of the other one of that size.
  void addPublicKey(const char* id, const char* label, const SoftwareKey& key = rsa());
  void addPrivateKey(const char* id, const char* label, const SoftwareKey& key = rsa());
  void addCertificate(const char* id, const char* label, std::optional<unsigned> usage = kForSigning,
                      const SoftwareKey& key = rsa());
  /// All three.
  void addKey(const char* id, const char* label, std::optional<unsigned> usage = kForSigning,
              const SoftwareKey& key = rsa());
  /// The same on P-256.
  void addEcKey(const char* id, const char* label, std::optional<unsigned> usage);

  /// The object that was added last but `before`.
  [[nodiscard]] Object& lastObject(std::size_t before = 0);

  /// The card as it is inserted, and looked at once more.
  [[nodiscard]] CardReport report() { return host.examine(inserted()); }
  /// The same after a login by a client.
  [[nodiscard]] CardReport reportAfterLogin();

  [[nodiscard]] static const SoftwareKey& rsa() { return SoftwareKey::rsa(1024); }
  [[nodiscard]] static const SoftwareKey& otherRsa() { return SoftwareKey::rsa(1024, "other"); }
};

/// The only finding of that kind; several or none fail the test.
[[nodiscard]] Finding theFinding(const CardReport& report, FindingID id);

/// The codes of those findings that are failures or warnings, in their order.
[[nodiscard]] std::vector<std::string> troubles(const CardReport& report);

/// The certificate with its time of validity from 2020 on ending, or beginning, at another one; the texts are
/// "YYMMDD".
[[nodiscard]] Value withTime(Value certificate, const std::string& from, const std::string& to);

/// A certificate whose basic constraints say that it may sign others.
[[nodiscard]] Value authorityCertificate(std::optional<unsigned> usage);

/// The uncompressed point of a key on a curve.
[[nodiscard]] Value pointOf(const SoftwareKey& key);

}  // namespace mirel::test
