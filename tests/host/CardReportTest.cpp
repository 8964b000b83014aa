#include "host/CardReportTest.h"

#include <algorithm>
#include <iterator>

#include "platform/CertificateFields.h"

namespace mirel::test {

void CardReportTest::addPublicKey(const char* id, const char* label, const SoftwareKey& key) {
  script.addObject(rsaPublicKey(bytesOf(id), bytesOf(label), key.modulus()));
}

void CardReportTest::addPrivateKey(const char* id, const char* label, const SoftwareKey& key) {
  script.addObject(rsaPrivateKey(bytesOf(id), bytesOf(label), key.modulus()));
}

void CardReportTest::addCertificate(const char* id, const char* label, std::optional<unsigned> usage,
                                    const SoftwareKey& key) {
  script.addObject(certificate(bytesOf(id), bytesOf(label), key.certificate(usage)));
}

void CardReportTest::addKey(const char* id, const char* label, std::optional<unsigned> usage,
                            const SoftwareKey& key) {
  addPublicKey(id, label, key);
  addPrivateKey(id, label, key);
  addCertificate(id, label, usage, key);
}

void CardReportTest::addEcKey(const char* id, const char* label, std::optional<unsigned> usage) {
  const SoftwareKey& key = SoftwareKey::ec("P-256");
  Value point{0x04, 0x41};
  const Value bare = pointOf(key);
  point.insert(point.end(), bare.begin(), bare.end());
  script.addObject(ecPublicKey(bytesOf(id), bytesOf(label), p256Params(), point));
  script.addObject(ecPrivateKey(bytesOf(id), bytesOf(label), p256Params()));
  addCertificate(id, label, usage, key);
}

Object& CardReportTest::lastObject(std::size_t before) {
  return std::prev(script.card().objects.end(), static_cast<std::ptrdiff_t>(before) + 1)->second;
}

CardReport CardReportTest::reportAfterLogin() {
  const InsertedCard card = inserted();
  const auto client = host.newClient(card);
  GivenPins pins{{u"123456"}};
  EXPECT_TRUE(client && (*client)->logIn(pins));
  return host.examine(card, true);
}

Finding theFinding(const CardReport& report, FindingID id) {
  const auto isIt = [&](const Finding& finding) { return finding.id == id; };
  EXPECT_EQ(std::count_if(report.findings.begin(), report.findings.end(), isIt), 1) << entryOf(id).title;
  const auto found = std::find_if(report.findings.begin(), report.findings.end(), isIt);
  return found == report.findings.end() ? Finding{} : *found;
}

std::vector<std::string> troubles(const CardReport& report) {
  std::vector<std::string> codes;
  for (const Finding& finding : report.findings) {
    if (finding.severity == Severity::kFailure || finding.severity == Severity::kWarning)
      codes.emplace_back(entryOf(finding.id).code);
  }
  return codes;
}

Value withTime(Value certificate, const std::string& from, const std::string& to) {
  const auto found = std::search(certificate.begin(), certificate.end(), from.begin(), from.end());
  EXPECT_NE(found, certificate.end());
  if (found != certificate.end()) std::copy(to.begin(), to.end(), found);
  return certificate;
}

Value authorityCertificate(std::optional<unsigned> usage) {
  // In place of an extension that nobody reads, whose value is as long.
  const Value padding{0x88, 0x37, 0x01, 0x04, 0x05, 0x55, 0x55, 0x55, 0x55, 0x55};
  const Value constraints{0x55, 0x1D, 0x13, 0x04, 0x05, 0x30, 0x03, 0x01, 0x01, 0xFF};
  Value made = testCertificate({.keyUsage = usage, .padding = 5});
  const auto found = std::search(made.begin(), made.end(), padding.begin(), padding.end());
  EXPECT_NE(found, made.end());
  if (found != made.end()) std::copy(constraints.begin(), constraints.end(), found);
  return made;
}

Value pointOf(const SoftwareKey& key) { return fieldsOfCertificate(key.certificate()).value().publicKeyBits; }

}  // namespace mirel::test
