#include <array>

#include "EndToEndTest.h"
#include "ReferenceCryptography.h"
#include "support/TestLocale.h"

namespace mirel::test {
namespace {

const std::string kPrefix = "kSecKeyAlgorithm";
constexpr std::size_t kNumAlgorithms = 76;

class Algorithms : public EndToEndTest {
 protected:
  Algorithms() : EndToEndTest{severalKeys()} {}
};

TEST_F(Algorithms, AreARowEachWithAColumnForEachKeyAndNeedNoPin) {
  const Result result = run(staged("algorithms --all"));
  expectSuccess(result);
  const std::vector<std::string> lines = linesOf(result.out);
  ASSERT_THAT(lines, SizeIs(kNumAlgorithms + 1));
  for (const std::string& line : lines) EXPECT_THAT(cellsOf(line), SizeIs(1 + 3)) << line;
  EXPECT_EQ(cellsOf(lines.front()).front(), "ALGORITHM");
  EXPECT_THAT(cellsOf(lines.front()), UnorderedElementsAre("ALGORITHM", "KEY 3031", "KEY 3032", "KEY 3033"));
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
}

TEST_F(Algorithms, AreThoseThatWorkUnlessAllAreAskedFor) {
  std::vector<std::string> names;
  for (const std::string& line : linesOf(mireltoken("algorithms --key 01").out))
    names.push_back(cellsOf(line)[0]);
  EXPECT_THAT(mireltoken("algorithms").out,
              ContainsRegex("\nRSASignatureMessagePSSSHA256 .*as RSASignatureRaw"));
  EXPECT_THAT(names, ::testing::Contains("RSASignatureMessagePSSSHA256"));
  EXPECT_THAT(names, ::testing::Not(::testing::Contains("ECDSASignatureMessageX962SHA256")));
  EXPECT_THAT(names,
              SizeIs(1 + 22));  // raw, its padding, and five hashes of messages and digests with either
  const Result decrypting = mireltoken("algorithms --key 02");
  EXPECT_EQ(decrypting.out, "ALGORITHM           KEY 3032\nRSAEncryptionPKCS1  directly\n");
  EXPECT_THAT(mireltoken("algorithms --key 03").out, StartsWith("No algorithm works with this key; "));
  makeCards(
      "token label=Card\npublic type=rsa1024 id=01 label=A\n"
      "certificate type=rsa2048 id=01 label=A usage=digitalSignature subject=Other\n");
  const Result other = mireltoken("algorithms");
  EXPECT_THAT(other.out, StartsWith("No algorithm works with this key; "));
  EXPECT_THAT(other.out, HasSubstr("Key 3031: nothing: its certificate belongs to another key.\n"));
}

TEST_F(Algorithms, HaveNamesInOtherStandards) {
  const Result result = runWithPin("sign --key 01 --json --algorithm ps256", kMessage);
  EXPECT_EQ(Json::parse(result.out)["algorithm"], kPrefix + "RSASignatureMessagePSSSHA256");
  expectFailure(runWithPin("sign --key 01 --algorithm RSASignatureMesagePSSSHA256", kMessage), 2,
                {"(did you mean \"RSASignatureMessagePSSSHA256\"?)", "mireltoken algorithms --all"});
}

TEST_F(Algorithms, AreGivenAsJson) {
  const Result result = mireltoken("algorithms --json");
  expectSuccess(result);
  const Json json = Json::parse(result.out);
  ASSERT_THAT(json["keys"], SizeIs(3));
  for (const Json& key : json["keys"]) {
    const std::string objectID = key["objectID"];
    SCOPED_TRACE(objectID);
    const Json& accepted = key["accepted"];
    EXPECT_THAT(accepted, SizeIs(kNumAlgorithms));
    const Json raw = kPrefix + "RSASignatureRaw";
    const Json standard = kPrefix + "ECDHKeyExchangeStandard";
    EXPECT_EQ(accepted[kPrefix + "RSASignatureMessagePSSSHA1"], objectID == "01" ? raw : Json{});
    EXPECT_EQ(accepted[kPrefix + "RSASignatureRaw"], objectID == "01" ? raw : Json{});
    EXPECT_EQ(accepted[kPrefix + "ECDHKeyExchangeStandardX963SHA256"], objectID == "03" ? standard : Json{});
    EXPECT_EQ(accepted[kPrefix + "ECDHKeyExchangeCofactor"], Json{});
  }
  EXPECT_THAT(Json::parse(mireltoken("algorithms --json --key 02").out)["keys"], SizeIs(1));
}

class CertificateCommand : public EndToEndTest {};

TEST_F(CertificateCommand, WritesTheCertificateAsPem) {
  // So many that the last line has any length, one of them a whole line, and the end any padding.
  constexpr std::array kSizes{1000, 1008, 1016, 1024, 1032, 1040, 1048};
  for (const std::string type : {"rsa2048", "p256"}) {
    std::string card = "token label=Card\n";
    for (const int size : kSizes) {
      const std::string number = std::to_string(size);
      const std::string common = " label=Key type=" + type + " id=" + number;
      card += "public" + common + "\ncertificate" + common + " subject=Holder" + number + " size=" + number +
              "\n";
    }
    makeCards(card);
    for (const int size : kSizes) {
      const std::string number = std::to_string(size);
      SCOPED_TRACE(type + " " + number);
      const Result result = mireltoken("certificate --key " + number);
      expectSuccess(result);
      const std::string der = derOfCertificate(result.out);
      EXPECT_EQ(std::to_string(der.size()), number);
      EXPECT_EQ(pemOf(der), result.out);
      EXPECT_EQ(commonNameOf(result.out), "Holder" + number);
      EXPECT_TRUE(isSignedBy("rsa2048", result.out));
    }
  }
}

TEST_F(CertificateCommand, WritesAFileTooAndNeedsNoPin) {
  makeCard({{}});
  expectOutput(run(staged("certificate --key 01 --out " + path("certificate"))), "");
  EXPECT_EQ(stagedCallsOf("C_Login"), 0);
  EXPECT_EQ(read("certificate"), mireltoken("certificate --key 01").out);
}

constexpr const char* kWrongBefore = "a wrong PIN was entered since the last right one";

class Login : public EndToEndTest {
 protected:
  Login() : EndToEndTest{{{}}} {}
  [[nodiscard]] Result logInWith(const std::string& pin, const std::string& more = "") const {
    return mireltoken("login --pin-file " + write("pin", pin) + more);
  }
};

TEST_F(Login, SaysThatThePinIsRightAndWhatWasBefore) {
  expectOutput(logInWith(kPin), "The card accepts the PIN.\n");
  expectFailure(
      logInWith(kWrongPin), 7,
      {"the PIN is wrong, the token says \"The card did not accept the PIN (tries left: 0; 0 means that the "
       "card's software does not say)\": C_Login answered CKR_PIN_INCORRECT (0xA0), "
       "a wrong PIN was entered since the last right one; enter the PIN of this card"});
  expectOutput(logInWith(kPin),
               std::string{"The card accepts the PIN.\nBefore this: "} + kWrongBefore + ".\n");
  expectOutput(logInWith(kPin), "The card accepts the PIN.\n");
}

TEST_F(Login, SaysTheSameAsJson) {
  EXPECT_EQ(Json::parse(logInWith(kPin, " --json").out), (Json{{"schema", "mireltoken/login/1"},
                                                               {"reader", readerOf("Card")},
                                                               {"accepted", true},
                                                               {"before", ""}}));
  expectJsonFailure(logInWith(kWrongPin, " --json"), 7, {"The card did not accept the PIN"});
  EXPECT_EQ(Json::parse(logInWith(kPin, " --json").out)["before"], kWrongBefore);
}

TEST_F(Login, SaysAfterAWrongPinWhatIsLeft) {
  const std::string command = "login --last-try --pin-file " + write("pin", kWrongPin);
  expectFailures({{command, 7, {"one more wrong PIN locks the card"}, {}, {{"TOKEN_FLAGS", "20000"}}},
                  {command, 7, {"the PIN is locked"}, {}, {{"TOKEN_FLAGS", "40000"}}}});
}

TEST_F(Login, QuotesTheTokenInTheLanguageOfTheUserAndTheSystemInEnglish) {
  const auto inGerman = [this](const std::string& command) {
    Invocation call = onSoftHsm(command);
    for (const auto& [name, value] : testLocale(folder())) call.environment[name] = value;
    call.environment["LANGUAGE"] = "de";
    return run(call);
  };
  expectFailure(inGerman("login --pin-file " + write("pin", kWrongPin)), 7,
                {"the PIN is wrong, the token says \"Die Karte hat die PIN nicht akzeptiert (verbleibende "
                 "Versuche: 0; 0 hei\xC3\x9Ft, dass die Software der Karte keine Angabe macht)\": "});
  expectFailure(inGerman("login --pin-file " + path("none")), 14, {"No such file or directory"});
}

class CardThatLeaves : public EndToEndTest {
 protected:
  CardThatLeaves() : EndToEndTest{severalKeys()} {}
  const std::string sign = "sign --key 01 --out " + path("out");
};

TEST_F(CardThatLeaves, IsToldInTheSameWordsByEveryCommand) {
  const std::pair<std::string, std::string> rows[] = {{"login", "C_Login"},
                                                      {sign, "C_Sign"},
                                                      {sign + " --no-verify", "C_SignInit"},
                                                      {"decrypt --key 02", "C_Decrypt"}};
  for (const auto& [command, function] : rows) {
    expectFailures({{command,
                     16,
                     {function + " answered CKR_DEVICE_REMOVED (0x32), the card or its reader was taken away",
                      "put the card into its reader and run again"},
                     command.starts_with("decrypt") ? encrypted("rsa2048", "pkcs1", kPlain) : kMessage,
                     {{"ANSWERS", function + "=32"}}}});
  }
}

TEST_F(CardThatLeaves, LeavesNoSignatureOfAnotherOne) {
  for (const std::string more : {"", " --no-verify"}) {
    expectFailures({{sign + more,
                     15,
                     {"another card is in the reader", "9999999999999999"},
                     kMessage,
                     {{"SWAP", "C_Login"}}}});
    EXPECT_EQ(stagedCallsOf("C_SignInit"), 0);
  }
}

class KeyJson : public EndToEndTest {
 protected:
  KeyJson() : EndToEndTest{severalKeys()} {}
};

TEST_F(KeyJson, OfASignatureHoldsItAndHowItWasMade) {
  for (const std::string& out : {std::string{}, std::string{" --out -"}, " --out " + path("signature")}) {
    const Result result = runWithPin("sign --key 01 --json" + out, kMessage);
    expectSuccess(result);
    Json json = Json::parse(result.out);
    const std::string signature = bytesOfHex(json["signatureHex"].get<std::string>());
    EXPECT_TRUE(pssVerifies("rsa2048", "SHA256", digestOf("SHA256", kMessage), signature));
    EXPECT_EQ(read("signature"), exists("signature") ? signature : "");
    json.erase("signatureHex");
    EXPECT_EQ(json, (Json{{"schema", "mireltoken/sign/1"},
                          {"key", "01"},
                          {"algorithm", "kSecKeyAlgorithmRSASignatureMessagePSSSHA256"},
                          {"performed", "kSecKeyAlgorithmRSASignatureRaw"},
                          {"verified", true}}));
  }
  EXPECT_TRUE(exists("signature"));
  const Result result =
      runWithPin("sign --key 01 --json --no-verify --algorithm RSASignatureMessagePKCS1v15SHA256", kMessage);
  expectSuccess(result);
  EXPECT_EQ(Json::parse(result.out)["verified"], false);
  const Result good = runWithPin("sign --key 01 --json --no-verify", kMessage);
  EXPECT_EQ(Json::parse(good.out)["verified"], true);
}

TEST_F(KeyJson, OfAPlainTextHoldsItUnlessItIsInAFile) {
  const std::string cipher = encrypted("rsa2048", "pkcs1", "\x01plain");
  Json expected{{"schema", "mireltoken/decrypt/1"},
                {"key", "02"},
                {"algorithm", "kSecKeyAlgorithmRSAEncryptionPKCS1"},
                {"size", 6}};
  const Result withFile = runWithPin("decrypt --key 02 --json --out " + path("plain"), cipher);
  expectSuccess(withFile);
  EXPECT_EQ(Json::parse(withFile.out), expected);
  EXPECT_EQ(read("plain"), "\x01plain");
  expected["plainTextHex"] = "01706C61696E";
  const Result alone = runWithPin("decrypt --key 02 --json", cipher);
  expectSuccess(alone);
  EXPECT_EQ(Json::parse(alone.out), expected);
}

TEST_F(KeyJson, IsAnErrorWhenTheCommandFails) {
  expectFailures({
      {"sign --key 01 --json --algorithm RSASignatureMessagePKCS1v15SHA256", 11, {"does not pad"}},
      {"decrypt --key 02 --json", 13, {}, std::string(256, '\0'), {{"ANSWERS", "C_Decrypt=40"}}},
      {"exchange --key 03 --json", 10, {}, newPoint("p256")},
  });
}

}  // namespace
}  // namespace mirel::test
