#include "host/HostTest.h"

namespace mirel::test {
namespace {

constexpr unsigned kDigitalSignature = 1U << 0U;

}  // namespace

HostTest::HostTest() { setCertificate({.keyUsage = kDigitalSignature}); }

void HostTest::setCertificate(const CertificateRequest& request) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, testCertificate(request));
}

void HostTest::addKeyAndCertificate(Value id, Value label, const CertificateRequest& request) {
  script.addObject(ecPublicKey(id, label, p256Params(), p256Point(0x11)));
  script.addObject(certificate(std::move(id), std::move(label), testCertificate(request)));
}

std::vector<Reader> HostTest::readers(const Text& readerName) {
  const auto outcome = host.readers(readerName);
  if (outcome) return *outcome;
  ADD_FAILURE() << outcome.failure().what << ": " << outcome.failure().why;
  return {};
}

InsertedCard HostTest::inserted(const Text& readerName) {
  const auto outcome = host.insert(readerName);
  if (outcome) return *outcome;
  ADD_FAILURE() << outcome.failure().what << ": " << outcome.failure().why;
  return {};
}

void InsertedCardTest::TearDown() {
  leavesOpen(script.openSessions());
  HostTest::TearDown();
}

std::vector<Text> namesOf(const std::vector<Reader>& readers) {
  std::vector<Text> names;
  names.reserve(readers.size());
  for (const Reader& reader : readers) names.push_back(reader.name);
  return names;
}

}  // namespace mirel::test
