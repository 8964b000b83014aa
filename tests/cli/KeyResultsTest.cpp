#include <gmock/gmock.h>

#include <array>
#include <map>

#include "KeyTest.h"
#include "ReferenceCryptography.h"
#include "support/TestLocale.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr const char* kMessage = "What is to be signed\n";
constexpr const char* kPrefix = "kSecKeyAlgorithm";
constexpr std::size_t kNumAlgorithms = 76;

class Algorithms : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard(severalKeys());
  }
};

TEST_F(Algorithms, AreARowEachWithAColumnForEachKey) {
  const Result result = mireltoken({"algorithms"});
  expectSuccess(result);
  const std::vector<std::string> lines = linesOf(result.out);
  ASSERT_THAT(lines, SizeIs(kNumAlgorithms + 1));
  for (const std::string& line : lines) EXPECT_THAT(cellsOf(line), SizeIs(1 + 3)) << line;
  std::vector<std::string> heading = cellsOf(lines.front());
  EXPECT_EQ(heading.front(), "ALGORITHM");
  EXPECT_THAT(heading, ::testing::UnorderedElementsAre("ALGORITHM", "KEY 01", "KEY 02", "KEY 03"));
}

TEST_F(Algorithms, AreShownForOneKeyOnly) {
  for (const char* name : {"01", "02", "03"}) {
    const Result result = mireltoken({"algorithms", "--key", name});
    expectSuccess(result);
    const std::vector<std::string> lines = linesOf(result.out);
    ASSERT_THAT(lines, SizeIs(kNumAlgorithms + 1));
    EXPECT_THAT(cellsOf(lines.front()), ::testing::ElementsAre("ALGORITHM", std::string{"KEY "} + name));
  }
}

/// How often each answer stands in the table of a key.
struct AlgorithmsOfKey {
  const char* key;
  std::map<std::string, int> answers;
};

TEST_F(Algorithms, AreThoseOfTheKeysUsageAndWhatBecomesOfThem) {
  const std::vector<AlgorithmsOfKey> rows{
      // Two raw forms; ten to be wrapped, ten PSS; three of ECDSA and their messages.
      {"01",
       {{"directly", 5},
        {"as RSASignatureDigestPKCS1v15Raw", 10},
        {"as RSASignatureRaw", 10},
        {"as ECDSASignatureDigestX962SHA256", 1},
        {"as ECDSASignatureDigestX962SHA384", 1},
        {"as ECDSASignatureDigestX962SHA512", 1},
        {"-", 48}}},
      {"02", {{"directly", 3}, {"as RSAEncryptionRaw", 8}, {"as RSAEncryptionOAEPSHA256", 1}, {"-", 64}}},
      {"03", {{"directly", 1}, {"as ECDHKeyExchangeStandard", 14}, {"-", 61}}},
  };
  for (const AlgorithmsOfKey& row : rows) {
    SCOPED_TRACE(row.key);
    std::map<std::string, int> answers;
    std::vector<std::string> lines = linesOf(mireltoken({"algorithms", "--key", row.key}).out);
    ASSERT_FALSE(lines.empty());
    lines.erase(lines.begin());
    for (const std::string& line : lines) ++answers[cellsOf(line).at(1)];
    EXPECT_EQ(answers, row.answers);
  }
}

TEST_F(Algorithms, AreAskedOfTheCardInTheFormThatTheTableShows) {
  (void)write("message", kMessage);
  const Json json = Json::parse(mireltoken({"algorithms", "--key", "01", "--json"}).out);
  const Json& accepted = json["keys"][0]["accepted"];
  for (const char* name : {"RSASignatureMessagePSSSHA256", "RSASignatureMessagePKCS1v15SHA512",
                           "RSASignatureDigestPKCS1v15Raw"}) {
    const Json result = Json::parse(runWithPin({"sign", "--key", "01", "--algorithm", name, "--in",
                                                path("message"), "--no-verify", "--json"})
                                        .out);
    EXPECT_EQ(result["performed"], accepted[kPrefix + std::string{name}]) << name;
  }
}

TEST_F(Algorithms, AreGivenAsJson) {
  const Result result = mireltoken({"algorithms", "--json"});
  expectSuccess(result);
  const Json json = Json::parse(result.out);
  ASSERT_THAT(json["keys"], SizeIs(3));
  for (const Json& key : json["keys"]) {
    const std::string objectID = key["objectID"];
    SCOPED_TRACE(objectID);
    const Json& accepted = key["accepted"];
    EXPECT_THAT(accepted, SizeIs(kNumAlgorithms));
    const auto formOf = [&](const char* name) { return accepted[kPrefix + std::string{name}]; };
    const Json raw = std::string{kPrefix} + "RSASignatureRaw";
    const Json standard = std::string{kPrefix} + "ECDHKeyExchangeStandard";
    EXPECT_EQ(formOf("RSASignatureMessagePSSSHA1"), objectID == "01" ? raw : Json{});
    EXPECT_EQ(formOf("RSASignatureRaw"), objectID == "01" ? raw : Json{});
    EXPECT_EQ(formOf("ECDHKeyExchangeStandardX963SHA256"), objectID == "03" ? standard : Json{});
    EXPECT_EQ(formOf("ECDHKeyExchangeCofactor"), Json{});
  }
  EXPECT_THAT(Json::parse(mireltoken({"algorithms", "--json", "--key", "02"}).out)["keys"], SizeIs(1));
}

TEST_F(Algorithms, NeedNoPin) {
  expectSuccess(run(staged({"algorithms"})));
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

class CertificateCommand : public KeyTest {};

TEST_F(CertificateCommand, WritesTheCertificateAsPem) {
  // Made once, so that there is a key to make certificates for.
  makeCard({{"rsa2048", "01", "Signature"}, {"p256", "02", "Other"}});
  // Names of several lengths, so that the last line has any length and the end any padding.
  for (const char* type : {"rsa2048", "p256"}) {
    for (std::size_t size = 1; size <= 40; size += 3) {
      SCOPED_TRACE(std::string{type} + " " + std::to_string(size));
      const std::string der = newCertificate(type, std::string(size, 'n'));
      std::filesystem::remove_all(path("tokens"));
      makeCards("token label=Card\npublic type=" + std::string{type} +
                " id=01 label=Key\ncertificate id=01 label=Key value=0x" + hexOfBytes(der) + "\n");
      const Result result = mireltoken({"certificate", "--key", "01"});
      expectSuccess(result);
      EXPECT_EQ(result.out, pemOfCertificate(der));
    }
  }
}

TEST_F(CertificateCommand, WritesAFileToo) {
  makeCard({{"rsa2048", "01", "Signature"}});
  const Result result = mireltoken({"certificate", "--key", "01", "--out", path("certificate")});
  expectSuccess(result);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_EQ(read("certificate"), mireltoken({"certificate", "--key", "01"}).out);
}

TEST_F(CertificateCommand, NeedsNoPin) {
  makeCard({{"rsa2048", "01", "Signature"}});
  expectSuccess(run(staged({"certificate", "--key", "01"})));
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

class Login : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard({{"rsa2048", "01", "Signature"}});
  }
  [[nodiscard]] Result logInWith(const std::string& pin, const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"login", "--pin-file", write("pin", pin)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return mireltoken(arguments);
  }
};

TEST_F(Login, SaysThatThePinIsRight) {
  const Result result = logInWith(kPin);
  expectSuccess(result);
  EXPECT_EQ(result.out, "The card accepts the PIN.\n");
}

TEST_F(Login, SaysThatThePinIsWrongAndWhatTheCardSaysOfIt) {
  expectFailure(logInWith(kWrongPin), 7,
                {"The card did not accept the PIN (tries left: 0; 0 means that the card's software does not "
                 "say): C_Login answered CKR_PIN_INCORRECT (0xA0), "
                 "a wrong PIN was entered since the last right one; enter the PIN of this card"});
}

TEST_F(Login, SaysWhatWasBefore) {
  (void)logInWith(kWrongPin);
  const Result second = logInWith(kPin);
  expectSuccess(second);
  EXPECT_EQ(second.out,
            "The card accepts the PIN.\nBefore this: a wrong PIN was entered since the last right one.\n");
  EXPECT_EQ(logInWith(kPin).out, "The card accepts the PIN.\n");
}

TEST_F(Login, SaysTheSameAsJson) {
  const Json first = Json::parse(logInWith(kPin, {"--json"}).out);
  EXPECT_EQ(first, (Json{{"reader", readerOf("Card")}, {"accepted", true}, {"before", ""}}));
  (void)logInWith(kWrongPin);
  const Json second = Json::parse(logInWith(kPin, {"--json"}).out);
  EXPECT_EQ(second["before"], "a wrong PIN was entered since the last right one");
}

TEST_F(Login, FailsWithoutJsonWhenThePinIsWrong) {
  expectFailure(logInWith(kWrongPin, {"--json"}), 7, {"The card did not accept the PIN"});
}

TEST_F(Login, TellsOfALastTryThatIsLeft) {
  Invocation call = staged({"login", "--last-try", "--pin-file", write("pin", kWrongPin)}, {}, "20000");
  expectFailure(run(call), 7, {"one more wrong PIN locks the card"});
}

TEST_F(Login, SpeaksTheLanguageOfTheUser) {
  struct Row {
    const char* locale;  ///< null: one without a language of its own
    const char* language;
    const char* text;
  };
  const std::array rows{
      Row{nullptr, "de",
          "mireltoken: Die Karte hat die PIN nicht akzeptiert (verbleibende Versuche: 0; 0 hei\xC3\x9Ft, "
          "dass "
          "die Software der Karte keine Angabe macht): "},
      Row{nullptr, "xx",
          "mireltoken: The card did not accept the PIN (tries left: 0; 0 means that the card's software does "
          "not say): "},
      Row{nullptr, "xx:de",
          "mireltoken: Die Karte hat die PIN nicht akzeptiert (verbleibende Versuche: 0; 0 hei\xC3\x9Ft, "
          "dass "
          "die Software der Karte keine Angabe macht): "},
      Row{nullptr, "",
          "mireltoken: The card did not accept the PIN (tries left: 0; 0 means that the card's software does "
          "not say): "},
      Row{"C", "de",
          "mireltoken: The card did not accept the PIN (tries left: 0; 0 means that the card's software does "
          "not say): "},
      Row{"xx_XX.UTF-8", "de",
          "mireltoken: The card did not accept the PIN (tries left: 0; 0 means that the card's software does "
          "not say): "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string{row.locale ? row.locale : "a locale"} + " " + row.language);
    Invocation call = onSoftHsm({"login", "--pin-file", write("pin", kWrongPin)});
    for (const auto& [name, value] : testLocale(folder())) call.environment[name] = value;
    if (row.locale) call.environment["LC_ALL"] = row.locale;
    call.environment["LANGUAGE"] = row.language;
    const Result result = run(call);
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_THAT(result.err, StartsWith(row.text));
  }
}

TEST_F(Login, LeavesTheItemsAsTheyWere) {
  const Json before = items();
  expectSuccess(logInWith(kPin));
  EXPECT_EQ(items(), before);
}

class CardThatLeaves : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard(severalKeys());
  }
};

TEST_F(CardThatLeaves, IsToldInTheSameWordsByEveryCommand) {
  const std::string pin = write("pin", kPin);
  const struct {
    std::vector<std::string> arguments;
    const char* function;
  } rows[] = {
      {{"login", "--pin-file", pin}, "C_Login"},
      {{"sign", "--key", "01", "--out", path("signature"), "--pin-file", pin}, "C_Sign"},
      {{"sign", "--key", "01", "--no-verify", "--out", path("signature"), "--pin-file", pin}, "C_SignInit"},
      {{"decrypt", "--key", "02", "--pin-file", pin}, "C_Decrypt"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.function);
    Invocation call = staged(row.arguments, std::string{row.function} + "=32");
    call.input = row.arguments.front() == "decrypt" ? encrypted("rsa2048", "pkcs1", "plain") : kMessage;
    expectFailure(run(call), 16,
                  {std::string{row.function} +
                       " answered CKR_DEVICE_REMOVED (0x32), the card or its reader was taken away",
                   "put the card into its reader and run again"});
    EXPECT_FALSE(std::filesystem::exists(path("signature")));
  }
}

TEST_F(CardThatLeaves, LeavesNoSignatureOfAnotherOne) {
  for (const bool verify : {true, false}) {
    SCOPED_TRACE(verify);
    std::vector<std::string> arguments{"sign",       "--key",           "01", "--out", path("signature"),
                                       "--pin-file", write("pin", kPin)};
    if (!verify) arguments.emplace_back("--no-verify");
    Invocation call = staged(arguments);
    call.environment["MIREL_STAGED_SWAP"] = "C_Login";
    call.input = kMessage;
    expectFailure(run(call), 15, {"another card is in the reader", "9999999999999999"});
    EXPECT_FALSE(std::filesystem::exists(path("signature")));
    EXPECT_EQ(stagedCallsOf("C_SignInit"), 0);
  }
}

class KeyJson : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (!IsSkipped()) makeCard(severalKeys());
  }
};

TEST_F(KeyJson, OfASignatureHoldsItAndHowItWasMade) {
  for (const std::vector<std::string>& out :
       {std::vector<std::string>{}, std::vector<std::string>{"--out", "-"}}) {
    std::vector<std::string> arguments{"sign", "--key", "01", "--json"};
    arguments.insert(arguments.end(), out.begin(), out.end());
    const Result result = runWithPin(arguments, kMessage);
    expectSuccess(result);
    Json json = Json::parse(result.out);
    EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage),
                            bytesOfHex(json["signatureHex"].get<std::string>())));
    json.erase("signatureHex");
    EXPECT_EQ(json, (Json{{"key", "01"},
                          {"algorithm", "kSecKeyAlgorithmRSASignatureMessagePSSSHA256"},
                          {"performed", "kSecKeyAlgorithmRSASignatureRaw"},
                          {"verified", true}}));
  }
}

TEST_F(KeyJson, OfASignatureGoesWithAFile) {
  const Result result = runWithPin({"sign", "--key", "01", "--json", "--out", path("signature")}, kMessage);
  expectSuccess(result);
  EXPECT_EQ(Json::parse(result.out)["signatureHex"], hexOfBytes(read("signature")));
}

TEST_F(KeyJson, OfASignatureTellsThatItWasNotVerified) {
  const Result result = runWithPin(
      {"sign", "--key", "01", "--json", "--no-verify", "--algorithm", "RSASignatureMessagePKCS1v15SHA256"},
      kMessage);
  expectSuccess(result);
  EXPECT_EQ(Json::parse(result.out)["verified"], false);
}

TEST_F(KeyJson, OfAPlainTextHoldsItUnlessItIsInAFile) {
  const std::string cipher = encrypted("rsa2048", "pkcs1", "\x01plain");
  const Result alone = runWithPin({"decrypt", "--key", "02", "--json"}, cipher);
  expectSuccess(alone);
  EXPECT_EQ(Json::parse(alone.out), (Json{{"key", "02"},
                                          {"algorithm", "kSecKeyAlgorithmRSAEncryptionPKCS1"},
                                          {"size", 6},
                                          {"plainTextHex", "01706C61696E"}}));
  const Result withFile = runWithPin({"decrypt", "--key", "02", "--json", "--out", path("plain")}, cipher);
  expectSuccess(withFile);
  EXPECT_EQ(Json::parse(withFile.out),
            (Json{{"key", "02"}, {"algorithm", "kSecKeyAlgorithmRSAEncryptionPKCS1"}, {"size", 6}}));
  EXPECT_EQ(read("plain"), "\x01plain");
}

TEST_F(KeyJson, IsNotWrittenWhenTheCommandFails) {
  expectFailure(
      runWithPin({"sign", "--key", "01", "--json", "--algorithm", "RSASignatureMessagePKCS1v15SHA256"},
                 kMessage),
      11, {"does not pad"});
  Invocation decrypting =
      staged({"decrypt", "--key", "02", "--json", "--pin-file", write("pin", kPin)}, "C_Decrypt=40");
  decrypting.input = std::string(256, '\0');
  expectFailure(run(decrypting), 13, {});
  expectFailure(runWithPin({"exchange", "--key", "03", "--json"}, newPoint("p256")), 10, {});
}

}  // namespace
}  // namespace mirel::test
