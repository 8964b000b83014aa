#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <fstream>
#include <sstream>

#include "doctor/SystemTools.h"
#include "host/DoctorTest.h"
#include "host/HostTest.h"
#include "host/SoftwareKey.h"
#include "support/FakeProgramRunner.h"

namespace mirel::test {
namespace {

using End = ProgramAnswer::End;

constexpr const char* kPluginkit = "/usr/bin/pluginkit";
constexpr const char* kSecurity = "/usr/bin/security";
constexpr const char* kScAuth = "/usr/sbin/sc_auth";
constexpr const char* kXattr = "/usr/bin/xattr";
constexpr const char* kSpctl = "/usr/sbin/spctl";
constexpr const char* kVerify = "/usr/bin/codesign -vvv --deep --strict ";
constexpr const char* kApp = "/Applications/Mirel Token.app";
constexpr const char* kExtension = "/Applications/Mirel Token.app/Contents/PlugIns/MirelToken.appex";
constexpr const char* kOurToken = "com.mirel.token.extension:1234567890ABCDEF\n";
constexpr const char* kOtherToken = "com.apple.CryptoTokenKit.pivtoken:0123\n";

std::string copyAt(const std::string& path, const char* sign = "+") {
  return std::string{sign} + "    com.mirel.token.extension(1.0)\t1B2C-3D\t2026-01-31 12:00:00 +0000\t" +
         path + "\n";
}

/// SHA-1 of the public key, by another hand.
std::string keyHashOf(const PublishedCertificate& certificate) {
  const Bytes& der = certificate.data;
  const auto* start = der.view().data();
  X509* parsed = d2i_X509(nullptr, &start, static_cast<long>(der.size()));
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  EXPECT_EQ(X509_pubkey_digest(parsed, EVP_sha1(), digest.data(), &size), 1);
  X509_free(parsed);
  std::ostringstream hex;
  for (unsigned i = 0; i < size; ++i) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    hex << kDigits[digest[i] >> 4U] << kDigits[digest[i] & 0xFU];
  }
  return hex.str();
}

/// What `doctor` says on a Mac, where all is well unless a test changes an answer.
class DoctorOnAMac : public InsertedCardTest {
 protected:
  DoctorOnAMac() {
    const InsertedCard card = inserted();
    const auto& first = std::get<PublishedCertificate>(card.items.front());
    hash = keyHashOf(first);
    der = {first.data.view().begin(), first.data.view().end()};
    tools->answer(kPluginkit, copyAt(kExtension));
    tools->answer(kSecurity, kOurToken);
    tools->answer(kScAuth, "Unpaired identities:\n" + hash + "\tCertificate for signing\n");
    tools->answer(kXattr, "");
    tools->answer("/usr/bin/codesign", "");
    std::ifstream entitlements{MIREL_SOURCE_FOLDER "/packaging/macos/Extension.entitlements"};
    std::ostringstream text;
    text << "Executable=/somewhere\n" << entitlements.rdbuf();
    tools->answer(std::string{"/usr/bin/codesign -d --entitlements - --xml "} + kExtension, text.str());
    tools->answer(kSpctl, std::string{kApp} + ": accepted\nsource=Notarized Developer ID\n");
  }

  [[nodiscard]] Diagnosis diagnosis() const {
    Examination wanted{{std::nullopt, true}};
    wanted.systemTools = tools;
    return diagnose(services(), wanted);
  }
  /// The codes of findings about the system.
  [[nodiscard]] static std::vector<std::string> systemCodesOf(const Diagnosis& found) {
    std::vector<std::string> codes = codesOf(found);
    std::erase_if(codes, [](const std::string& code) { return !code.starts_with("MT-X"); });
    return codes;
  }

  std::shared_ptr<FakeProgramRunner> tools = std::make_shared<FakeProgramRunner>();
  std::string hash;
  Value der;  // of the certificate
};

TEST_F(DoctorOnAMac, FindsNothingWhereAllIsWell) {
  const Diagnosis found = diagnosis();
  EXPECT_THAT(systemCodesOf(found), IsEmpty());
  const std::pair<const char*, const char*> rows[] = {
      {"extension", kExtension},
      {"cards in the system", "com.mirel.token.extension:1234567890ABCDEF"},
      {"keys in the system", "1 of 1 key listed as identities"},
      {"other drivers", "none has a token"},
      {"code signatures", "app, module with a valid one"},
      {"entitlements", "the extension has those that it needs"},
      {"notarisation", "/Applications/Mirel Token.app: accepted"},
      {"quarantine", "app, module not held back"}};
  for (const auto& [name, evidence] : rows) {
    EXPECT_EQ(checkIn(found, name).evidence, evidence);
    EXPECT_EQ(checkIn(found, name).severity, Severity::kOk) << name;
    EXPECT_EQ(checkIn(found, name).station, Station::kSystem);
  }
  EXPECT_THAT(tools->lines, ::testing::Contains("/usr/bin/pluginkit -mADv -p com.apple.ctk-tokens"));
  EXPECT_THAT(found.systemTokens, ElementsAre("com.mirel.token.extension:1234567890ABCDEF"));
}

TEST_F(DoctorOnAMac, SaysOnceWhyTheSystemHasNeitherTheCardNorItsKeys) {
  tools->answer(kSecurity, "No smartcards found.\n");
  tools->answer(kScAuth, "");
  EXPECT_THAT(systemCodesOf(diagnosis()), ElementsAre("MT-X04"));
  tools->answer(kPluginkit, "");
  EXPECT_THAT(systemCodesOf(diagnosis()), ElementsAre("MT-X01"));
}

TEST_F(DoctorOnAMac, ExpectsOneTokenOfTwoCardsWithOneInstanceID) {
  (void)script.addSlot("Reader B", script.card());
  EXPECT_THAT(codesOf(diagnosis()),
              ::testing::AllOf(::testing::Contains("MT-T03"), ::testing::Not(::testing::Contains("MT-X04"))));
}

TEST_F(DoctorOnAMac, OnlyThereAsksTools) {
  EXPECT_EQ(checkIn(diagnose(services(), {{std::nullopt, true}}), "extension").evidence, "none");
  EXPECT_THAT(tools->lines, IsEmpty());
}

TEST_F(DoctorOnAMac, TellsWhatTheSystemDoesNotHaveOrSee) {
  const std::string module = std::filesystem::canonical(home.modulePath());
  const struct {
    std::string tool;
    std::string output;
    int code;
    const char* finding;
    Severity severity;
    std::string evidence;
  } rows[] = {
      // The extension.
      {kPluginkit, "", 0, "MT-X01", Severity::kFailure, "the system knows 0 token extensions, not this one"},
      {kPluginkit, "+ com.apple.CryptoTokenKit.pivtoken(1.0) /System/a.appex", 0, "MT-X01",
       Severity::kFailure, "the system knows 1 token extension, not this one"},
      {kPluginkit, copyAt(kExtension, "-"), 0, "MT-X02", Severity::kFailure, "it is marked with \"-\""},
      {kPluginkit, copyAt("/old/A.app/Contents/PlugIns/B.appex", "=") + copyAt(kExtension), 0, "MT-X03",
       Severity::kWarning,
       std::string{"the system uses "} + kExtension + ", and there is /old/A.app/Contents/PlugIns/B.appex"},
      // What the system sees.
      {kSecurity, "No smartcards found.\n", 0, "MT-X04", Severity::kFailure,
       "the module shows 1 card, the system 0"},
      {kScAuth, "", 0, "MT-X05", Severity::kWarning, "public-key hash "},
      {kSecurity, std::string{kOurToken} + kOtherToken, 0, "MT-X06", Severity::kUnknown,
       "2 tokens for 1 card"},
      // The files.
      {std::string{kXattr} + " " + module, "com.apple.provenance\ncom.apple.quarantine\n", 0, "MT-X07",
       Severity::kWarning, module},
      {std::string{kVerify} + kApp, "a sealed resource is missing or invalid\n", 1, "MT-X08",
       Severity::kFailure, "a sealed resource is missing or invalid"},
      {kVerify + module, "code object is not signed at all\n", 1, "MT-X08", Severity::kWarning,
       "code object is not signed at all"},
      {std::string{"/usr/bin/codesign -d --entitlements - --xml "} + kExtension,
       "<dict><key>com.apple.security.app-sandbox</key><true/><key>com.apple.security.smartcard</key><false/"
       ">",
       0, "MT-X09", Severity::kFailure,
       "com.apple.security.smartcard, com.apple.security.cs.disable-library-validation"},
      {kSpctl, "rejected\n", 3, "MT-X10", Severity::kWarning, "rejected"},
  };
  for (const auto& [tool, output, code, finding, severity, evidence] : rows) {
    SCOPED_TRACE(tool + ": " + output);
    const auto before = tools->answers;
    tools->answer(tool, output, code);
    const Diagnosis found = diagnosis();
    EXPECT_THAT(systemCodesOf(found), ElementsAre(finding));
    const Finding seen = findingIn(found, findEntry(finding)->id);
    EXPECT_EQ(seen.severity, severity);
    EXPECT_THAT(seen.evidence, StartsWith(evidence));
    tools->answers = before;
  }
}

TEST_F(DoctorOnAMac, TellsOfAKeyThatTwoDriversPublish) {
  tools->answer(kSecurity, std::string{kOurToken} + kOtherToken);
  tools->answer(kScAuth, hash + "\tone\n" + hash + "\tthe other\n");
  const Finding seen = findingIn(diagnosis(), FindingID::kOtherDriverOnCard);
  EXPECT_EQ(seen.severity, Severity::kWarning);
  EXPECT_EQ(seen.subject, "com.apple.CryptoTokenKit.pivtoken:0123");
  EXPECT_THAT(seen.evidence, StartsWith("both publish the key with the hash "));
}

TEST_F(DoctorOnAMac, TakesTwoCertificatesOfOneKeyForNoOtherDriver) {
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Second"), patternValue(256, 1)));
  script.addObject(rsaPrivateKey(bytesOf("02"), bytesOf("Second"), patternValue(256, 1)));
  script.addObject(certificate(bytesOf("02"), bytesOf("Second"), der));
  tools->answer(kSecurity, std::string{kOurToken} + kOtherToken);
  tools->answer(kScAuth, hash + "\tone\n" + hash + "\tthe other\n");
  const Diagnosis found = diagnosis();
  EXPECT_EQ(findingIn(found, FindingID::kOtherDriverOnCard).severity, Severity::kUnknown);
  EXPECT_EQ(checkIn(found, "keys in the system").evidence, "1 of 1 key listed as identities");
}

TEST_F(DoctorOnAMac, ExcusesByACardThatIsNotShownNoKeyOfTheOther) {
  const SoftwareKey& own = SoftwareKey::rsa(1024);
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Second"), own.modulus()));
  script.addObject(certificate(bytesOf("02"), bytesOf("Second"), own.certificate(1)));
  const auto second = inserted();
  const std::string ofSecond = keyHashOf(std::get<PublishedCertificate>(second.items[2]));
  Card other = emptyCard("OTHER", "2");
  const SoftwareKey& others = SoftwareKey::rsa(1024, "other");
  other.objects[901] = rsaPublicKey(bytesOf("01"), bytesOf("Key"), others.modulus());
  other.objects[902] = certificate(bytesOf("01"), bytesOf("Key"), others.certificate(1));
  (void)script.addSlot("Reader B", other);
  const struct {
    std::string listed;
    std::vector<std::string> codes;
    const char* evidence;
  } rows[] = {{hash + "\n" + ofSecond + "\n", {"MT-X04"}, "2 of 3 keys listed as identities"},
              {hash + "\n", {"MT-X04", "MT-X05"}, "1 of 3 keys listed as identities"},
              {"", {"MT-X04", "MT-X05"}, "0 of 3 keys listed as identities"}};
  for (const auto& [listed, codes, evidence] : rows) {
    SCOPED_TRACE(evidence);
    tools->answer(kScAuth, listed);
    const Diagnosis found = diagnosis();
    EXPECT_EQ(systemCodesOf(found), codes);
    EXPECT_EQ(checkIn(found, "keys in the system").evidence, evidence);
    const std::string hashes = findingIn(found, FindingID::kKeyNotInSystem).evidence;
    EXPECT_EQ(std::count(hashes.begin(), hashes.end(), ','), listed.empty() ? 2 : 0) << hashes;
  }
}

TEST_F(DoctorOnAMac, TakesAQuarantinedAppForGoodWhereTheSystemAcceptsIt) {
  tools->answer(std::string{kXattr} + " " + kApp, "com.apple.quarantine\n");
  EXPECT_THAT(systemCodesOf(diagnosis()), IsEmpty());
  tools->answer(kSpctl, "rejected\n", 3);
  EXPECT_THAT(systemCodesOf(diagnosis()), ElementsAre("MT-X10", "MT-X07"));
}

TEST_F(DoctorOnAMac, TellsThatTheSystemUsesAnotherCopyThanTheProgramsOwn) {
  Examination wanted{{std::nullopt, true}};
  wanted.systemTools = tools;
  wanted.app = "/Users/me/Mirel Token.app";
  const Diagnosis found = diagnose(services(), wanted);
  EXPECT_THAT(findingIn(found, FindingID::kExtensionCopies).evidence,
              HasSubstr("/Users/me/Mirel Token.app/"));
  EXPECT_THAT(tools->lines, ::testing::Contains(std::string{kVerify} + "/Users/me/Mirel Token.app"));
}

// ---- Tools that are of no help ----

TEST_F(DoctorOnAMac, TellsOfMissingToolsAndSaysNothingElseBecauseOfThem) {
  tools->answers.clear();
  const Diagnosis found = diagnosis();
  for (const std::string& code : systemCodesOf(found)) EXPECT_EQ(code, "MT-X11");
  EXPECT_EQ(checkIn(found, "extension").severity, Severity::kUnknown);
  EXPECT_EQ(findingIn(found, FindingID::kSystemToolMissing).subject, "pluginkit");
  EXPECT_EQ(checkIn(found, "entitlements").evidence, "it is not known where the extension lies");
}

TEST_F(DoctorOnAMac, ConcludesNothingFromAToolThatFails) {
  const std::string garbage = "\x01\xFF<?xml\n\0\n:::\n((((\n" + std::string(100000, 'x');
  const struct {
    ProgramAnswer answer;
    const char* evidence;
  } rows[] = {{{End::kTooSlow, 0, {}}, "it did not end in time"},
              {{End::kTooLong, 0, std::string(1000, 'x')}, "it did not stop writing"},
              {{End::kSignal, 11, {}}, "it was ended by signal 11"},
              {{End::kNotStarted, EPERM, {}}, "it does not start: Operation not permitted"},
              {{End::kExited, 1, "no permission\n"}, "exit code 1: no permission"},
              {{End::kExited, 64, garbage}, "exit code 64: \\x01\\xFF<?xml"}};
  for (const auto& [answer, evidence] : rows) {
    for (const char* tool : {kPluginkit, kSecurity, kScAuth, kSpctl}) {
      SCOPED_TRACE(std::string{tool} + ": " + evidence);
      const auto before = tools->answers;
      tools->answers[tool] = answer;
      const Diagnosis found = diagnosis();
      EXPECT_THAT(systemCodesOf(found), ElementsAre("MT-X12"));
      EXPECT_EQ(findingIn(found, FindingID::kSystemToolFails).severity, Severity::kUnknown);
      EXPECT_EQ(findingIn(found, FindingID::kSystemToolFails).evidence, evidence);
      tools->answers = before;
    }
  }
  tools->answer(std::string{kVerify} + kApp, "usage: codesign\n", 2);
  EXPECT_THAT(systemCodesOf(diagnosis()), ElementsAre("MT-X12"));
  tools->answer(std::string{kVerify} + kApp, "");
  tools->answer(kPluginkit, garbage);
  EXPECT_THAT(systemCodesOf(diagnosis()), ElementsAre("MT-X12"));
}

TEST_F(DoctorOnAMac, LooksForTheExtensionThatIsPackaged) {
  std::ifstream file{MIREL_SOURCE_FOLDER "/packaging/macos/ExtensionInfo.plist.in"};
  std::ostringstream list;
  list << file.rdbuf();
  EXPECT_THAT(list.str(),
              HasSubstr("<key>com.apple.ctk.class-id</key>\n\t\t\t<string>com.mirel.token.extension<"));
}

// ---- What the tools print ----

TEST(SystemTools, ReadsExtensionsInAnyOrderOfTheirColumns) {
  const auto copies = extensionsIn(
      "  +  a.b.c(1.0)\t/A/x.appex\n"
      "-a.b.d (1.0)  UUID  /A/With Blank.appex  \r\n"
      "     a.b.e\n"
      "nonsense\n a.b;c /x\n\n");
  ASSERT_THAT(copies, SizeIs(3));
  EXPECT_EQ(copies[0].sign, '+');
  EXPECT_EQ(copies[0].path, "/A/x.appex");
  EXPECT_EQ(copies[1].id, "a.b.d");
  EXPECT_EQ(copies[1].path, "/A/With Blank.appex");
  EXPECT_EQ(copies[2].sign, ' ');
  EXPECT_EQ(copies[2].path, "");
}

TEST(SystemTools, ReadsHashesOfFortyDigitsOnly) {
  const std::string hash(40, 'A');
  EXPECT_THAT(keyHashesIn(hash + "\n(" + hash + ")"),
              ElementsAre(std::string(40, 'a'), std::string(40, 'a')));
  EXPECT_THAT(keyHashesIn(std::string(39, 'a') + " " + std::string(41, 'a') + " " + std::string(40, 'g')),
              IsEmpty());
}

TEST(SystemTools, ReadsOnlyLinesWithADriverAndACardAsTokens) {
  EXPECT_THAT(tokenIDsIn("a.b:1 2\nNo cards: none\na.b:\n:c\nab:c\n"), ElementsAre("a.b:1 2"));
}

}  // namespace
}  // namespace mirel::test
