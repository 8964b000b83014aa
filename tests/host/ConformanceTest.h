#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/CardReportTest.h"
#include "host/Conformance.h"

namespace mirel::test {

using Verdicts = std::map<std::string, RuleVerdict>;

/// A card that keeps every rule: the keys "01", which signs, and "02", which decrypts, and a module that
/// pads.
class ConformanceTest : public KeyClientTest {
 protected:
  ConformanceTest() { makeGood(); }

  void makeGood() {
    script.reset();
    given.emplace(std::deque<std::u16string>{u"123456"});
    module = {};
    reader = {};
    makeCard(SoftwareKey::rsa(1024));
  }
  void makeCard(const SoftwareKey& own) {
    script.card().objects.clear();
    objects.clear();
    addKey("01", "Signer", kForSigning, own);
    addKey("02", "Vault", kForDecrypting, own);
    padInTheModule(own);
    decryptInTheModule(own);
  }
  void addKey(const char* name, const char* label, unsigned usage, const SoftwareKey& own) {
    const Value id = bytesOf(name);
    const Value text = bytesOf(label);
    objects.push_back(script.addObject(rsaPublicKey(id, text, own.modulus())));
    objects.push_back(script.addObject(rsaPrivateKey(id, text, own.modulus())));
    objects.push_back(script.addObject(certificate(id, text, own.certificate(usage))));
  }
  void addEcKey(unsigned usage) {
    const Value id = bytesOf("03");
    Value point = pointOf(SoftwareKey::ec("P-256"));
    point.insert(point.begin(), {0x04, 0x41});
    objects.push_back(script.addObject(ecPublicKey(id, bytesOf("Curve"), p256Params(), point)));
    objects.push_back(script.addObject(ecPrivateKey(id, bytesOf("Curve"), p256Params())));
    objects.push_back(
        script.addObject(certificate(id, bytesOf("Curve"), SoftwareKey::ec("P-256").certificate(usage))));
  }
  /// The public key, private key and certificate of "01", of "02", and of what was added.
  [[nodiscard]] Value& value(std::size_t object, CK_ATTRIBUTE_TYPE type) {
    return script.object(objects.at(object)).attributes[type];
  }

  [[nodiscard]] Conformance tested(bool withLogin = true) {
    Examination wanted{{module, true}, reader};
    if (withLogin) wanted.pins = [this](Host&, const Reader&) { return handedOn(*given); };
    return testConformance(services(), wanted);
  }
  [[nodiscard]] static Verdicts verdictsOf(const Conformance& conformance) {
    Verdicts verdicts;
    for (const RuleResult& result : conformance.results)
      verdicts[std::string{result.rule.number}] = result.verdict;
    return verdicts;
  }
  [[nodiscard]] static std::vector<std::string> numbersWith(RuleVerdict verdict,
                                                            const Conformance& conformance) {
    std::vector<std::string> numbers;
    for (const RuleResult& result : conformance.results) {
      if (result.verdict == verdict) numbers.emplace_back(result.rule.number);
    }
    return numbers;
  }

  std::vector<CK_OBJECT_HANDLE> objects;
  std::optional<std::string> module;
  Text reader;
  std::optional<GivenPins> given;
};

}  // namespace mirel::test
