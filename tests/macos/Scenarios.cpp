#include "Scenarios.h"

#include <regex>

#include "platform/SecKeyAlgorithm.h"
#include "token/TestCertificates.h"

namespace mirel::test {
namespace {

using Data = std::vector<std::uint8_t>;

constexpr std::int64_t kSigning = 2;
constexpr std::int64_t kDecrypting = 3;
constexpr std::int64_t kExchanging = 4;

constexpr unsigned kDigitalSignature = 1U << 0U;
constexpr unsigned kKeyEncipherment = 1U << 2U;
constexpr unsigned kKeyAgreement = 1U << 4U;

std::string shown(const std::optional<std::string>& text) { return text ? '"' + *text + '"' : "nothing"; }

std::string shown(const PublishedItem& item) {
  std::string line = (item.isKey ? "key " : "certificate ") + shown(item.objectID) + ", label " +
                     shown(item.label) + ", constraints";
  if (!item.constraints) line += " unset";
  if (item.constraints) {
    for (const auto& [operation, constraint] : *item.constraints)
      line += ' ' + std::to_string(operation) + '=' + constraint;
  }
  if (!item.isKey) return line;
  line += ", can";
  if (item.canSign) line += " sign";
  if (item.canDecrypt) line += " decrypt";
  if (item.canPerformKeyExchange) line += " exchange";
  if (item.suitableForLogin) line += " log in";
  return line + ", certificate " + shown(item.certificateID) +
         (item.alwaysAuthenticate.value_or(false) ? ", asks always" : "");
}

std::string shown(const PinRequest& pin) {
  return "asks for a PIN of " + std::to_string(pin.minPinLength) + " to " + std::to_string(pin.maxPinLength) +
         " at bit " + std::to_string(pin.pinBitOffset) + " of " +
         (pin.apduTemplate ? hexText(*pin.apduTemplate) : "nothing") + " in " + shown(pin.readerName);
}

// ---- The cards ----

/// The same one each time: signatures on curves differ, also in length.
Value certificateFor(TestKey key, unsigned usage) {
  static std::map<std::pair<TestKey, unsigned>, Value> made;
  Value& value = made[{key, usage}];
  if (value.empty()) value = testCertificate({.key = key, .keyUsage = usage});
  return value;
}

void setUsage(Script& script, unsigned usage, TestKey key = TestKey::kRsa2048) {
  script.object(kCertificate).attributes[CKA_VALUE] = certificateFor(key, usage);
}

std::function<void(Script&)> cardFor(unsigned usage) {
  return [usage](Script& script) { setUsage(script, usage); };
}

void rename(Script& script, std::string_view id, std::string_view label) {
  for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate}) {
    script.object(object).attributes[CKA_ID] = bytesOf(id);
    script.object(object).attributes[CKA_LABEL] = bytesOf(label);
  }
}

void addKey(Script& script, std::string_view id, std::string_view label, TestKey key, unsigned usage) {
  const bool isRsa = key == TestKey::kRsa2048;
  const Value modulus = patternValue(256, 7);
  script.addObject(isRsa ? rsaPublicKey(bytesOf(id), bytesOf(label), modulus)
                         : ecPublicKey(bytesOf(id), bytesOf(label), p256Params(), p256Point(3)));
  script.addObject(isRsa ? rsaPrivateKey(bytesOf(id), bytesOf(label), modulus)
                         : ecPrivateKey(bytesOf(id), bytesOf(label), p256Params()));
  script.addObject(certificate(bytesOf(id), bytesOf(label), certificateFor(key, usage)));
}

void tellingTheTriesLeft(Script& script) { script.deviations.triesLeftAsDeviceError = true; }

void severalKeys(Script& script) {
  addKey(script, "02", "Second", TestKey::kP256, kDigitalSignature);
  addKey(script, "03", "Third", TestKey::kRsa2048, kKeyEncipherment);
}

// ---- The stories ----

const Data kBlock(256, 0x11);
const Data kDigest(32, 0x22);

void onlyInsert(Play& play, Script&) {
  play.insert();
  play.remove();
}

std::vector<Scenario> insertions() {
  return {
      {"KeyThatSigns", onlyInsert, {"can sign log in"}},
      {"KeyThatDecrypts", onlyInsert, {"can decrypt"}, cardFor(kKeyEncipherment)},
      {"KeyThatExchanges", onlyInsert, {"can exchange"}, cardFor(kKeyAgreement)},
      {"KeyThatDoesAll",
       onlyInsert,
       {"can sign log in"},
       cardFor(kDigitalSignature | kKeyEncipherment | kKeyAgreement)},
      {"KeyThatDoesNothing", onlyInsert, {"can, certificate"}, cardFor(1U << 6U)},
      {"SeveralKeys", onlyInsert, {"key \"01\"", "key \"02\"", "key \"03\""}, severalKeys},
      {"NoModule",
       onlyInsert,
       {"insert Reader A 00: failed", "initWithMirelCTKFramwork fail"},
       nullptr,
       false},
      {"NoCard",
       [](Play& play, Script&) { play.insert("Reader B 00"); },
       {"failed, error CryptoTokenKit -6", "Get token ID fail"}},
      {"UnreadableCertificate",
       onlyInsert,
       {"public key without mapping cert ID"},
       [](Script& script) {
         severalKeys(script);
         script.object(kCertificate).attributes[CKA_VALUE] = bytesOf("this is no certificate");
       }},
      {"KeyOfAnUnknownKind",
       onlyInsert,
       {"succeeded"},
       [](Script& script) { setUsage(script, kDigitalSignature, TestKey::kEd25519); }},
      {"OddTexts",
       onlyInsert,
       {"key"},
       [](Script& script) {
         rename(script, std::string_view{"\0\xFFx", 3}, "M\xC3\xBCller\n");
       }},
      {"FailingModule",
       onlyInsert,
       {"insert Reader A 00"},
       [](Script& script) {
         script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
       }},
      {"AnotherCard",
       [](Play& play, Script& script) {
         play.insert();
         play.remove();
         setUsage(script, kKeyEncipherment);
         play.insert();
       },
       {"can sign", "can decrypt"}},
  };
}

/// What happens in a session, number 0.
std::vector<Scenario> logins() {
  return {
      {"WrongPinThenRightPin",
       [](Play& play, Script&) {
         play.logIn(0, "000000");
         play.sign(0, kBlock);
         play.logIn(0);
         play.sign(0, kBlock);
       },
       {"finish: failed, error CryptoTokenKit -5 NSLocalizedDescription", "tries left: 2",
        "error CryptoTokenKit -9", "finish: succeeded", "sign RSASignatureRaw 01: succeeded, data"},
       tellingTheTriesLeft},
      {"LockedPin",
       [](Play& play, Script&) {
         for (int i = 0; i < 4; ++i) play.logIn(0, "000000");
         play.logIn(0);
         play.sign(0, kBlock);
       },
       {"finish: failed", "finish: failed", "finish: failed", "finish: failed", "finish: failed"}},
      {"NineCharacters",
       [](Play& play, Script&) {
         play.logIn(0, "123456789");
         play.logIn(0, "12\xC3\xA4");
       },
       {"finish: failed", "finish: failed"}},
      {"NoPinAndEmptyPin",
       [](Play& play, Script&) {
         play.logIn(0, std::nullopt);
         play.logIn(0, "");
       },
       {"finish: failed, error CryptoTokenKit -5", "finish: failed"}},
      {"TriesLeftOfTheDevice",
       [](Play& play, Script&) {
         for (int i = 0; i < 3; ++i) play.logIn(0, "000000");
       },
       {"tries left: 2", "tries left: 1", "finish: failed"},
       tellingTheTriesLeft},
      {"OtherConstraints",
       [](Play& play, Script&) {
         for (const char* constraint : {"YES", "NO", "Biometry", "", "pin", "PIN", "PINAlways"})
           play.beginAuth(0, kSigning, "01", constraint);
         play.beginAuth(0, kDecrypting, "01");
       },
       {"begin 2 01 YES: failed, error CryptoTokenKit -8", "begin 2 01 Biometry: failed",
        "begin 2 01 PIN: succeeded", "asks for a PIN of 4 to 8 at bit 40"}},
      {"TwoSessions",
       [](Play& play, Script&) {
         play.openSession();
         play.logIn(1);
         play.sign(0, kBlock);
         play.sign(1, kBlock);
         play.logIn(0);
         play.sign(0, kBlock);
       },
       {"failed, error CryptoTokenKit -9", "succeeded, data", "succeeded, data"}},
  };
}

/// The same.
std::vector<Scenario> uses() {
  return {
      {"SupportOfEveryAlgorithm",
       [](Play& play, Script&) {
         play.supportOfEverything(0, "01");
         play.supports(0, kSigning, "02", "RSASignatureRaw");
       },
       {"supports 2 01", "RSASignatureDigestPKCS1v15Raw", "supports 2 02 RSASignatureRaw: no"},
       cardFor(kDigitalSignature | kKeyEncipherment | kKeyAgreement)},
      {"SupportOfAKeyThatOnlySigns",
       [](Play& play, Script&) { play.supportOfEverything(0, "01"); },
       {"supports 2 01", "supports 3 01:"}},
      {"SignatureWithoutALogin",
       [](Play& play, Script&) {
         play.sign(0, kBlock);
         play.decrypt(0, kBlock);
       },
       {"sign RSASignatureRaw 01: failed, error CryptoTokenKit -9",
        "decrypt RSAEncryptionPKCS1 01: failed, error CryptoTokenKit -9"}},
      {"SignatureWithWhatThereIsNot",
       [](Play& play, Script&) {
         play.sign(0, kBlock, "RSASignatureRaw", "02");
         play.logIn(0);
         play.sign(0, kBlock, "RSASignatureRaw", "02");
         play.sign(0, kBlock, "RSASignatureMessagePSSSHA256");
         play.sign(0, {});
         play.sign(0, Data(257, 1));
       },
       {"sign RSASignatureRaw 02: failed, error CryptoTokenKit -6",
        "sign RSASignatureRaw 02: failed, error CryptoTokenKit -7",
        "sign RSASignatureMessagePSSSHA256 01: failed"}},
      {"SignaturesOfEveryKind",
       [](Play& play, Script&) {
         play.logIn(0);
         play.sign(0, kBlock);
         play.sign(0, kDigest, "RSASignatureDigestPKCS1v15Raw");
         for (const char* hash : {"256", "384", "512"})
           play.sign(0, kDigest, std::string{"ECDSASignatureDigestX962SHA"} + hash, "02");
       },
       {"sign RSASignatureRaw 01: succeeded, data",
        "sign ECDSASignatureDigestX962SHA256 02: succeeded, data"},
       severalKeys},
      {"KeyNamedForPss",
       [](Play& play, Script&) {
         play.logIn(0, "123456", kSigning, "pss1");
         play.sign(0, kDigest, "RSASignatureDigestPKCS1v15Raw", "pss1");
         play.sign(0, kBlock, "RSASignatureRaw", "pss1");
       },
       {"sign RSASignatureDigestPKCS1v15Raw pss1: succeeded, data"},
       [](Script& script) { rename(script, "pss1", "My PSS key"); }},
      {"CardPulledBeforeTheSignature",
       [](Play& play, Script& script) {
         play.logIn(0);
         script.pullCard();
         play.sign(0, kBlock);
       },
       {"finish: succeeded", "sign RSASignatureRaw 01: succeeded, data , no error"}},
      {"CardPulledBeforeTheLogin",
       [](Play& play, Script& script) {
         script.pullCard();
         play.logIn(0);
         play.sign(0, kBlock);
       },
       {"finish: failed, error CryptoTokenKit -5", "error CryptoTokenKit -9"}},
      {"CardRefusesTheSignature",
       [](Play& play, Script& script) {
         play.logIn(0);
         script.failCallOf("C_Sign", 0, CKR_FUNCTION_FAILED);
         play.sign(0, kBlock);
         play.sign(0, kBlock);
       },
       {"sign RSASignatureRaw 01: succeeded, data 00000000", "sign RSASignatureRaw 01: succeeded, data"}},
      {"Decryption",
       [](Play& play, Script&) {
         play.logIn(0, "123456", kDecrypting);
         play.decrypt(0, cipherOf({'h', 'i'}));
         play.decrypt(0, Data(256, 0x33));
         play.decrypt(0, Data(255, 0x33));
         play.decrypt(0, {});
         play.decrypt(0, cipherOf({'h', 'i'}), "RSAEncryptionOAEPSHA1");
         play.decrypt(0, cipherOf({'h', 'i'}), "RSAEncryptionPKCS1", "02");
       },
       {"decrypt RSAEncryptionPKCS1 01: succeeded, data 6869, no error",
        "decrypt RSAEncryptionPKCS1 02: failed, error CryptoTokenKit -7"},
       cardFor(kKeyEncipherment)},
      {"KeyExchange",
       [](Play& play, Script&) {
         play.exchange(0, "01");
         play.exchange(0, "02");
         play.logIn(0, "123456", kExchanging);
         play.exchange(0, "01");
         play.exchange(0, "02");
       },
       {"exchange 01: failed, no error", "exchange 02: failed, error CryptoTokenKit -7"},
       cardFor(kKeyAgreement)},
  };
}

}  // namespace

void Play::note(const std::string& step, const Outcome& result) {
  std::string line = step + (result.succeeded ? ": succeeded" : ": failed");
  if (result.data) line += ", data " + hexText(*result.data);
  if (result.error) {
    line += ", error " + result.error->domain + ' ' + std::to_string(result.error->code);
    for (const auto& [key, value] : result.error->userInfo)
      line.append(" ").append(key).append("=").append(value);
  } else {
    line += ", no error";
  }
  lines_.push_back(line);
  noteLog();
}

void Play::noteLog() {
  for (const std::string& line : driver_.takeLogLines()) lines_.push_back("  " + withoutAddresses(line));
}

void Play::insert(const std::string& readerName) {
  const Outcome result = driver_.insert(readerName);
  note("insert " + readerName, result);
  if (!result.succeeded) return;
  lines_.push_back("token " + driver_.instanceID());
  for (const PublishedItem& item : driver_.items()) lines_.push_back(shown(item));
}

void Play::remove() {
  driver_.remove();
  lines_.emplace_back("remove");
  noteLog();
}

void Play::openSession() { note("open a session", driver_.openSession()); }

void Play::supports(std::size_t session, std::int64_t operation, const std::string& key,
                    const std::string& algorithm) {
  const bool answer = driver_.supports(session, operation, key, algorithm);
  lines_.push_back("supports " + std::to_string(operation) + ' ' + key + ' ' + algorithm +
                   (answer ? ": yes" : ": no"));
  noteLog();
}

void Play::supportOfEverything(std::size_t session, const std::string& key) {
  for (std::int64_t operation = 0; operation <= kExchanging + 1; ++operation) {
    std::string line = "supports " + std::to_string(operation) + ' ' + key + ':';
    for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
      if (driver_.supports(session, operation, key, std::string{name})) line.append(" ").append(name);
    }
    lines_.push_back(line);
    noteLog();
  }
}

void Play::beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                     const std::optional<std::string>& constraint) {
  const Outcome result = driver_.beginAuth(session, operation, key, constraint);
  note("begin " + std::to_string(operation) + ' ' + key + ' ' + constraint.value_or("as the key wants"),
       result);
  if (result.succeeded) lines_.push_back(shown(driver_.pinRequest()));
}

void Play::logIn(std::size_t session, const std::optional<std::string>& pin, std::int64_t operation,
                 const std::string& key) {
  beginAuth(session, operation, key, "PIN");
  driver_.enterPin(pin);
  note("finish", driver_.finishAuth());
}

void Play::sign(std::size_t session, const Data& data, const std::string& algorithm, const std::string& key) {
  note("sign " + algorithm + ' ' + key, driver_.sign(session, data, key, algorithm));
}

void Play::decrypt(std::size_t session, const Data& data, const std::string& algorithm,
                   const std::string& key) {
  note("decrypt " + algorithm + ' ' + key, driver_.decrypt(session, data, key, algorithm));
}

void Play::exchange(std::size_t session, const std::string& key) {
  note("exchange " + key, driver_.exchange(session, Data(65, 4), key, "ECDHKeyExchangeStandard"));
}

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> table = insertions();
    for (const auto& part : {logins(), uses()}) {
      for (Scenario scenario : part) {
        scenario.run = [run = scenario.run](Play& play, Script& script) {
          play.insert();
          play.openSession();
          run(play, script);
        };
        table.push_back(std::move(scenario));
      }
    }
    return table;
  }();
  return all;
}

void prepare(const Scenario& scenario, Script& script) {
  setUsage(script, kDigitalSignature);
  if (scenario.prepare) scenario.prepare(script);
}

std::string withoutAddresses(std::string line) {
  static const std::regex address{"<([A-Za-z]+): 0x[0-9a-f]+>"};
  return std::regex_replace(line, address, "<$1>");
}

}  // namespace mirel::test
