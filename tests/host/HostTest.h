#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/Host.h"
#include "host/Outcomes.h"
#include "support/ModuleTest.h"
#include "token/TestCertificates.h"

namespace mirel::test {

// What most tests of the host use.
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Eq;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

/// The session that a good insertion leaves open: the two before it were only opened to read the
/// token's information.
inline constexpr CK_SESSION_HANDLE kCardSession = kFirstSession + 2;

/// A test with the scripted module, whose card holds a real certificate for signing (label "MyKey", ID
/// "01", P-256), and a host.
class HostTest : public ModuleTest {
 protected:
  HostTest();

  /// Replaces the value of the card's certificate.
  void setCertificate(const CertificateRequest& request);
  /// Adds a key (by its public part) and a certificate with the same ID.
  void addKeyAndCertificate(Value id, Value label, const CertificateRequest& request);

  /// The readers; a failure fails the test.
  [[nodiscard]] std::vector<Reader> readers(const Text& readerName = Text{});

  /// The inserted card; a failure fails the test.
  [[nodiscard]] InsertedCard inserted(const Text& readerName = Text{});

  Host host{services()};
};

/// The same where each card that is inserted may leave its session open: that is the token's affair.
class InsertedCardTest : public HostTest {
 protected:
  void TearDown() override;
};

/// The names of the readers.
[[nodiscard]] std::vector<Text> namesOf(const std::vector<Reader>& readers);

}  // namespace mirel::test
