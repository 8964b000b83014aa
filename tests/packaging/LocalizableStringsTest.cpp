/// The texts for users: that each language has them whole, and that the catalogues hold them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "cli/ChildProcess.h"
#include "packaging/StringsFile.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::UnorderedElementsAreArray;
using namespace std::string_literals;

const std::filesystem::path kResources{MIREL_RESOURCES};

void write(const std::filesystem::path& file, const std::string& content) {
  std::ofstream stream{file, std::ios::binary};
  stream << content;
  if (!stream.flush()) throw std::runtime_error{"cannot write " + file.string()};
}

constexpr const char* kTriesLeft = "\"VERIFY_TRY_LEFT\" = \"Tries left: %lu (0: not said).\";\n";
constexpr const char* kConstraint = "\"Not suppport this constraint\" = \"Not supported.\";\n";

TEST(LocalizableStrings, AreWholeInEveryLanguage) { EXPECT_THAT(faultsOfResources(kResources), IsEmpty()); }

TEST(LocalizableStrings, AreThereInEnglishAndSevenMore) {
  const auto languages = languagesIn(kResources);
  EXPECT_GE(languages.size(), 8U);
  EXPECT_THAT(languages, IsSupersetOf({"en"}));
}

TEST(LocalizableStrings, DifferBetweenLanguages) {
  const auto english = readStringsFile(stringsFileOf(kResources, "en"));
  for (const std::string& language : languagesIn(kResources)) {
    if (language == "en") continue;
    SCOPED_TRACE(language);
    for (const auto& [key, text] : readStringsFile(stringsFileOf(kResources, language))) {
      EXPECT_NE(text, textOf(english, key));
    }
  }
}

/// A copy of the resources, to be spoiled.
class SpoiledResources : public ::testing::Test {
 protected:
  SpoiledResources() { std::filesystem::copy(kResources, copy(), std::filesystem::copy_options::recursive); }

  [[nodiscard]] std::filesystem::path copy() const { return folder_.path() / "Resources"; }
  [[nodiscard]] std::filesystem::path german() const { return stringsFileOf(copy(), "de"); }

 private:
  TemporaryFolder folder_;
};

TEST_F(SpoiledResources, AreFineAsLongAsNothingIsSpoiled) {
  write(german(), std::string{kTriesLeft} + kConstraint);
  EXPECT_THAT(faultsOfResources(copy()), IsEmpty());
}

TEST_F(SpoiledResources, AreFoundOut) {
  const std::string tries = kTriesLeft;
  const std::string constraint = kConstraint;
  const auto triesWith = [](const std::string& text) { return "\"VERIFY_TRY_LEFT\" = \"" + text + "\";\n"; };
  const struct {
    const char* description;
    std::string content;
    std::string fault;
  } rows[] = {
      // Keys
      {"the first is missing", constraint, "VERIFY_TRY_LEFT: 0 times"},
      {"the second is missing", tries, "Not suppport this constraint: 0 times"},
      {"one more", tries + constraint + "\"OTHER\" = \"Other\";\n", "OTHER: not a key"},
      {"one twice", tries + tries + constraint, "VERIFY_TRY_LEFT: 2 times"},
      {"in a comment only", "/* " + tries + " */ // " + tries + constraint, "VERIFY_TRY_LEFT: 0 times"},
      // Conversions
      {"no number", triesWith("Tries left.") + constraint, "VERIFY_TRY_LEFT: 0 conversions"},
      {"two numbers", triesWith("%lu of %lu") + constraint, "VERIFY_TRY_LEFT: 2 conversions"},
      {"an object", triesWith("%@") + constraint, "VERIFY_TRY_LEFT: a foreign conversion"},
      {"a shorter number", triesWith("%d") + constraint, "VERIFY_TRY_LEFT: a foreign conversion"},
      {"a number with a place", triesWith("%1$lu") + constraint, "VERIFY_TRY_LEFT: a foreign conversion"},
      {"a per cent sign besides", triesWith("%lu %%") + constraint, "VERIFY_TRY_LEFT: a foreign conversion"},
      {"a lone per cent sign at the end", triesWith("%lu%") + constraint,
       "VERIFY_TRY_LEFT: a foreign conversion"},
      {"one in the second text", tries + "\"Not suppport this constraint\" = \"%lu\";\n",
       "Not suppport this constraint: a foreign conversion"},
      // Texts
      {"nothing about 0", triesWith("Tries left: %lu.") + constraint, "VERIFY_TRY_LEFT: nothing about 0"},
      {"an empty text", tries + "\"Not suppport this constraint\" = \"\";\n",
       "Not suppport this constraint: empty"},
      {"a blank text", tries + "\"Not suppport this constraint\" = \" \\n\";\n",
       "Not suppport this constraint: empty"},
      // Files
      {"Latin-1", triesWith("\xE9 %lu") + constraint, "not UTF-8 at byte 21"},
      {"a surrogate", triesWith("\xED\xA0\x80 %lu") + constraint, "not UTF-8 at byte 21"},
      {"an empty file", "", "VERIFY_TRY_LEFT: 0 times"},
      {"no semicolon", tries + "\"Not suppport this constraint\" = \"Not supported.\"\n",
       "it ends too early"},
      {"no quotation mark", tries + "Not suppport this constraint = \"Not supported.\";\n",
       "a \" is missing"},
      {"a comment without an end", tries + constraint + "/*", "a comment does not end"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    write(german(), row.content);
    EXPECT_THAT(faultsOfResources(copy()), IsSupersetOf({"de: " + row.fault}));
  }
}

TEST(Punctuation, IsThatOfTheLanguage) {
  const struct {
    const char* language;
    const char* text;
    bool isFine;
  } rows[] = {
      {"fr", "essais : 2", false},
      {"fr", "essais ; 2", false},
      {"fr", "Vraiment !", false},
      {"fr", "Vraiment ?", false},
      {"fr", "essais\xC2\xA0: 2", true},
      {"ja", "\xE5\x9B\x9E:2", false},
      {"ja",
       "\xE5\x9B\x9E\xEF\xBC\x9A"
       "2",
       true},
      {"de", "Versuche : 2", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(punctuationFaultsOf(row.language, {{"key", row.text}}).empty(), row.isFine);
  }
}

TEST_F(SpoiledResources, AreFoundOutWithoutAFile) {
  std::filesystem::remove(german());
  EXPECT_THAT(faultsOfResources(copy()), ElementsAre("de: cannot be read"));
}

TEST_F(SpoiledResources, AreFoundOutWithTooFewLanguages) {
  auto languages = languagesIn(copy());
  while (languages.size() > 7) {
    EXPECT_THAT(faultsOfResources(copy()), IsEmpty());
    std::filesystem::remove_all(stringsFileOf(copy(), languages.back()).parent_path());
    languages.pop_back();
  }
  EXPECT_THAT(faultsOfResources(copy()), ElementsAre("7 languages"));
}

// ---- What the build makes of them ----

/// gettext names countries where the folders name scripts.
std::string gettextName(const std::string& language) { return language == "zh-Hans" ? "zh_CN" : language; }

std::filesystem::path catalogueOf(const std::filesystem::path& locale, const std::string& language) {
  return locale / gettextName(language) / "LC_MESSAGES" / "mireltoken.mo";
}

TEST(Catalogues, HoldWhatTheStringsFilesSay) {
  for (const std::string& language : languagesIn(kResources)) {
    SCOPED_TRACE(language);
    EXPECT_THAT(readCatalogue(catalogueOf(MIREL_LOCALE_FOLDER, language)),
                UnorderedElementsAreArray(readStringsFile(stringsFileOf(kResources, language))));
  }
}

TEST(Catalogues, SayThatTheyAreUtf8) {
  for (const std::string& language : languagesIn(kResources)) {
    std::ifstream stream{catalogueOf(MIREL_LOCALE_FOLDER, language), std::ios::binary};
    const std::string content{std::istreambuf_iterator<char>{stream}, {}};
    EXPECT_NE(content.find("Content-Type: text/plain; charset=UTF-8\n"), std::string::npos) << language;
  }
}

/// Runs one of the build's scripts.
class BuildScript : public ::testing::Test {
 protected:
  [[nodiscard]] Result runOn(const std::string& content, const char* buildScript) const {
    write(strings(), content);
    return run({.program = MIREL_CMAKE,
                .arguments = {"-DMSGFMT=" MIREL_MSGFMT, "-DSTRINGS=" + strings().string(),
                              "-DOUTPUT=" + output().string(), "-P",
                              std::string{MIREL_PACKAGING "/"} + buildScript}});
  }

  [[nodiscard]] std::filesystem::path strings() const { return folder_.path() / "Localizable.strings"; }
  [[nodiscard]] std::filesystem::path output() const { return folder_.path() / "new" / "output"; }

  [[nodiscard]] std::string written() const {
    std::ifstream stream{output(), std::ios::binary};
    return {std::istreambuf_iterator<char>{stream}, {}};
  }

 private:
  TemporaryFolder folder_;
};

using CatalogueScript = BuildScript;

TEST_F(CatalogueScript, KeepsEveryCharacter) {
  // What CMake itself gives a meaning to, what needs an escape, and characters of two to four bytes.
  const Strings wanted{{"one", "a;b [c] ${d} @e@ $ENV{f} \\ \" # %lu"},
                       {"two", "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\x91"}};
  const Result result = runOn(
      "/* é */\n\"one\" = \"a;b [c] ${d} @e@ $ENV{f} \\\\ \\\" # %lu\";\n"
      "\"two\" = \"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\x91\";\n",
      "Catalogue.cmake");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(readCatalogue(output()), UnorderedElementsAreArray(wanted));
}

TEST_F(CatalogueScript, FailsForAFileWithAnError) {
  const Result result = runOn("\"one\" = ;\n", "Catalogue.cmake");
  EXPECT_NE(result.exitCode, 0);
  EXPECT_NE(result.err.find("msgfmt does not take"), std::string::npos);
}

TEST_F(CatalogueScript, LeavesNoOtherFile) {
  ASSERT_EQ(runOn(kTriesLeft, "Catalogue.cmake").exitCode, 0);
  for (const auto& entry : std::filesystem::directory_iterator{output().parent_path()}) {
    EXPECT_EQ(entry.path(), output());
  }
}

using EnglishStringsScript = BuildScript;

TEST_F(EnglishStringsScript, MakesARowOfEachText) {
  const Result result =
      runOn("/* a comment */\n"s + kTriesLeft + "\n/* \"no\" = \"text\"; */\n" + kConstraint,
            "EnglishStrings.cmake");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(written(),
            "{\"VERIFY_TRY_LEFT\", \"Tries left: %lu (0: not said).\"},\n"
            "{\"Not suppport this constraint\", \"Not supported.\"},\n");
}

TEST_F(EnglishStringsScript, KeepsEveryCharacter) {
  const Result result = runOn("\"one\" = \"a;b [c] ${d} @e@ \\\\ \\\" # \xE2\x82\xAC\";\n\"two\" = \"2\";\n",
                              "EnglishStrings.cmake");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(written(), "{\"one\", \"a;b [c] ${d} @e@ \\\\ \\\" # \xE2\x82\xAC\"},\n{\"two\", \"2\"},\n");
}

TEST_F(EnglishStringsScript, KeepsALoneBracket) {
  const Result result =
      runOn("\"one\" = \"[\";\n\"two\" = \"2\";\n\"three\" = \"]\";\n", "EnglishStrings.cmake");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(written(), "{\"one\", \"[\"},\n{\"two\", \"2\"},\n{\"three\", \"]\"},\n");
}

TEST_F(EnglishStringsScript, FailsForAFileWithoutTexts) {
  const Result result = runOn("/* nothing */\n", "EnglishStrings.cmake");
  EXPECT_NE(result.exitCode, 0);
  EXPECT_NE(result.err.find("There is no text in"), std::string::npos);
}

}  // namespace
}  // namespace mirel::test
