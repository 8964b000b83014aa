#include <gmock/gmock.h>

#include "EndToEndTest.h"
#include "cardmaker/SoftHsm.h"

namespace mirel::test {
namespace {

/// What `mireltoken doctor --bundle` writes for support.
class DoctorBundle : public EndToEndTest {
 protected:
  DoctorBundle()
      : EndToEndTest{{{.label = "JanesLabel", .subject = "JaneExample"},
                      {.id = "02",
                       .label = "JanesOther",
                       .usage = "keyEncipherment",
                       .allow = "decrypt",
                       .subject = "JaneExample"}}} {}

  [[nodiscard]] std::string bundleOf(Invocation call) const {
    call.environment["LD_LIBRARY_PATH"] = MIREL_FAKE_PCSC_FOLDER;
    call.arguments.insert(call.arguments.end(), {"--bundle", path("bundle")});
    const Result result = run(call);
    EXPECT_THAT(result.out, HasSubstr("PKCS #11 version"));
    log_ = result.err;
    return read("bundle");
  }

  mutable std::string log_;  // of the last run
};

TEST_F(DoctorBundle, HasAllThatSupportNeeds) {
  const std::string bundle = bundleOf(onSoftHsm("doctor"));
  for (const std::string text :
       {"\nDate      20", "\nSystem    ", "\nmireltoken " MIREL_PROJECT_VERSION, "\nOpenSSL ",
        "\n== Module ==\nPath      /", "\nBuilt for ", "\nSHA-256   ",
        "\nok: module file: ", "\n== Findings ==\nMT-", "\"labelOnCard\": \"JanesLabel\"",
        "\n[-[P11Bridge pkcs11_Load:]-30] P11Bridge path = "}) {
    EXPECT_THAT(bundle, HasSubstr(text));
  }
  EXPECT_THAT(bundle, HasSubstr("card in reader \"" + readerOf("Card") + "\""));
  EXPECT_THAT(bundle, Not(HasSubstr("\n== Replaced")));
  const std::string content = contentOf(softHsmModule());
  EXPECT_THAT(bundle, HasSubstr("\nSize      " + std::to_string(content.size()) + " bytes\n"));
}

TEST_F(DoctorBundle, HoldsNeitherThePinNorWhatWasSignedOrDecrypted) {
  const std::string bundle = bundleOf(withPin("doctor --login -v"));
  EXPECT_THAT(bundle, HasSubstr("ok: login: the card accepts the PIN"));
  EXPECT_THAT(bundle, HasSubstr("\n(From the login on nothing is kept"));
  for (const std::string line : {"dataToSign", "decryptData", "PerformSignHash"}) {
    EXPECT_THAT(log_, HasSubstr(line)) << "without such a line this shows nothing";
    EXPECT_THAT(bundle, Not(HasSubstr(line)));
  }
  const std::string pin = kPin;
  for (const std::string& secret :
       {pin, pin.substr(0, 4), hexOfBytes(pin), std::string{"Trial"}, hexOfBytes("Trial")})
    EXPECT_THAT(bundle, Not(HasSubstr(secret)));
}

TEST_F(DoctorBundle, ReplacesNamesOnRequest) {
  const std::string bundle = bundleOf(withPin("doctor --anonymous --login"));
  const std::string serial = textOf(slots()[0]["serialNumber"]);
  for (const std::string& name :
       {std::string{"Jane"}, readerOf("Card"), serial, std::string{"\"Card\""}, hexOfBytes("Card")}) {
    ASSERT_NE(name, "");
    EXPECT_THAT(bundle, Not(HasSubstr(name)));
  }
  EXPECT_THAT(bundle, HasSubstr("\"reader\": \"reader-1\""));
  EXPECT_THAT(bundle, HasSubstr("(card in reader \"reader-1\")"));
  EXPECT_THAT(bundle, ContainsRegex("\"objectID\": \"cert_(label-[0-9]+)_01\""));
  EXPECT_THAT(bundle, HasSubstr("\n== Replaced ==\nnames of readers (reader-N): 2\n"));
  EXPECT_THAT(bundle, ContainsRegex("\nhome folders \\(home-N\\): [12]\n"));
}

TEST_F(DoctorBundle, ReplacesTheHomeAlsoBehindALink) {
  namespace fs = std::filesystem;
  const fs::path place = fs::path{path("JanesHome")} / "Library/LunetLocalSignServer";
  fs::create_directories(place);
  fs::copy_file(softHsmModule(), place / "libTorvo_p11v1.dylib");
  fs::create_directory_symlink(path("JanesHome"), path("link"));
  const std::string bundle =
      bundleOf(invocation({"doctor", "--anonymous", "--trust-module", "--home", path("link")}));
  EXPECT_THAT(bundle,
              ContainsRegex("\nPath      home-[12]/Library/LunetLocalSignServer/libTorvo_p11v1.dylib\n"));
  for (const char* name : {"JanesHome", "/link"}) EXPECT_THAT(bundle, Not(HasSubstr(name)));
}

TEST_F(DoctorBundle, OfAModuleThatDoesNotStartIsWrittenToo) {
  const std::string bundle = bundleOf(invocation({"doctor", "--module", path("none.so"), "--anonymous"}));
  EXPECT_THAT(bundle, HasSubstr("\n== Module ==\nThere is none.\n"));
  EXPECT_THAT(bundle, HasSubstr("\nMT-M01 failure: "));
  EXPECT_THAT(bundle, HasSubstr("\n== Cards ==\nNo card was inserted.\n"));
}

TEST_F(DoctorBundle, IsNotAskedForInVain) {
  expectFailures({{"doctor --login --anonymous", 2, {"--anonymous is of no use without --bundle"}},
                  {"doctor --login --bundle -", 2, {"--bundle needs a file"}}});
}

}  // namespace
}  // namespace mirel::test
