#include "platform/LocalizedStrings.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "cli/ChildProcess.h"
#include "support/StringsFile.h"
#include "support/TemporaryFolder.h"
#include "support/TestLocale.h"

namespace mirel {
namespace {

using test::Result;
using Environment = std::map<std::string, std::string>;

constexpr const char* kTriesLeft = "VERIFY_TRY_LEFT";
constexpr const char* kConstraint = "Not suppport this constraint";

std::string textIn(const std::string& language, const std::string& key) {
  return test::readStringsFile(MIREL_RESOURCES "/" + language + ".lproj/Localizable.strings").at(key);
}

/// A program in a folder of its own, with the catalogues that the build has made where a test puts them.
class LocalizedStringsOfAProgram : public ::testing::Test {
 protected:
  /// `programFolder`, `localeFolder`: relative to one and the same folder. An empty second: no catalogues.
  void place(const std::string& programFolder, const std::string& localeFolder) {
    program_ = folder_.path() / programFolder / "program";
    std::filesystem::create_directories(program_.parent_path());
    std::filesystem::copy_file(MIREL_PRINT_LOCALIZED_STRING, program_);
    if (localeFolder.empty()) return;
    const auto locale = folder_.path() / localeFolder;
    std::filesystem::create_directories(locale.parent_path());
    std::filesystem::create_directory_symlink(MIREL_LOCALE_FOLDER, locale);
  }

  [[nodiscard]] Environment inLanguage(const std::string& language) const {
    Environment environment = test::testLocale(folder_.path());
    environment["LANGUAGE"] = language;
    return environment;
  }

  /// Both texts are those of that folder.
  void expectTexts(const Environment& environment, const char* folder) const {
    for (const char* key : {kTriesLeft, kConstraint})
      EXPECT_EQ(printed(key, environment), textIn(folder, key));
  }

  [[nodiscard]] std::string printed(const std::string& key, const Environment& environment) const {
    const Result result = test::run({.program = program_, .arguments = {key}, .environment = environment});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.out;
  }

 private:
  test::TemporaryFolder folder_;
  std::filesystem::path program_;
};

TEST_F(LocalizedStringsOfAProgram, AreEnglishInTheCLocale) {
  place("build", "build/locale");
  expectTexts({}, "en");
  expectTexts({{"LC_ALL", "C"}, {"LANGUAGE", "de"}}, "en");
  expectTexts({{"LC_ALL", "POSIX"}}, "en");
}

TEST_F(LocalizedStringsOfAProgram, FollowTheLanguage) {
  place("build", "build/locale");
  const std::pair<const char*, const char*> rows[] = {
      {"zh_CN", "zh-Hans"},
      // A country's variant is read in its language, and the first known language of a list counts.
      {"de_AT", "de"},
      {"pt_BR", "pt"},
      {"xx:fr:de", "fr"},
      // Without a catalogue
      {"xx", "en"},
      {"zh_TW", "en"},
      {"xx:yy", "en"},
  };
  for (const auto& [language, folder] : rows) {
    SCOPED_TRACE(language);
    expectTexts(inLanguage(language), folder);
  }
  for (const char* language : {"en", "de", "es", "fr", "it", "ja", "nl", "pl", "pt", "ru", "tr"}) {
    SCOPED_TRACE(language);
    expectTexts(inLanguage(language), language);
  }
}

TEST_F(LocalizedStringsOfAProgram, AreFoundWhereAnInstallationPutsThem) {
  place("prefix/bin", "prefix/share/locale");
  expectTexts(inLanguage("de"), "de");
}

TEST_F(LocalizedStringsOfAProgram, AreEnglishWithoutCatalogues) {
  place("alone", "");
  expectTexts(inLanguage("de"), "en");
}

TEST_F(LocalizedStringsOfAProgram, AreTheKeyItselfForAnUnknownKey) {
  place("build", "build/locale");
  for (const char* key : {"UNKNOWN", "VERIFY_TRY_LEF", "verify_try_left", "%s", ""}) {
    SCOPED_TRACE(key);
    EXPECT_EQ(printed(key, inLanguage("de")), key);
    EXPECT_EQ(printed(key, {}), key);
  }
}

TEST(LocalizedStrings, TakesAKeyForItsLengthAlone) {
  const std::string_view longer = "VERIFY_TRY_LEFT and more";
  const auto strings = systemLocalizedStrings();
  EXPECT_EQ(strings->localizedString(longer.substr(0, 15)).toUtf8(), textIn("en", kTriesLeft));
  EXPECT_EQ(strings->localizedString(longer).toUtf8(), longer);
  EXPECT_FALSE(strings->localizedString({}).isNull());
}

TEST(EnglishString, IsThatOfTheEnglishTable) {
  for (const char* key : {kTriesLeft, kConstraint}) EXPECT_EQ(englishString(key), textIn("en", key));
}

TEST(EnglishString, IsTheKeyWhenThereIsNone) { EXPECT_EQ(englishString("no such key"), "no such key"); }

}  // namespace
}  // namespace mirel
