/// The texts of the app's messages: that each language has them whole. Their keys are the English texts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <optional>

#include "packaging/StringsFile.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::filesystem::path kResources{MIREL_RESOURCES};
const std::filesystem::path kAppResources{MIREL_APP_RESOURCES};

std::filesystem::path appStringsOf(const std::filesystem::path& resources, const std::string& language) {
  return resources / (language + ".lproj") / "App.strings";
}

/// How many "%@" a text has; nothing when it has another conversion too.
std::optional<std::size_t> placesIn(std::string_view text) {
  std::size_t places = 0;
  for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
    if (text.substr(at, 2) != "%@") return std::nullopt;
    ++places;
  }
  return places;
}

std::size_t countOf(const Strings& strings, const std::string& key) {
  return static_cast<std::size_t>(
      std::count_if(strings.begin(), strings.end(), [&](const auto& row) { return row.first == key; }));
}

std::vector<std::string> faultsOfText(const std::string& key, const std::string& text, bool isEnglish) {
  std::vector<std::string> faults;
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) faults.push_back(key + ": empty");
  const auto places = placesIn(text);
  if (!places) {
    faults.push_back(key + ": a foreign conversion");
  } else if (places != placesIn(key)) {
    faults.push_back(key + ": " + std::to_string(*places) + " places");
  }
  if (isEnglish && text != key) faults.push_back(key + ": not the same in English");
  if (!isEnglish && text == key) faults.push_back(key + ": not translated");
  return faults;
}

/// What is wrong with the texts of a language, in plain words.
std::vector<std::string> faultsOf(const Strings& strings, const Strings& english, bool isEnglish) {
  std::vector<std::string> faults;
  for (const auto& row : english) {
    if (const std::size_t count = countOf(strings, row.first); count != 1) {
      faults.push_back(row.first + ": " + std::to_string(count) + " times");
    }
  }
  for (const auto& [key, text] : strings) {
    if (countOf(english, key) == 0) {
      faults.push_back(key + ": not a key");
      continue;
    }
    const auto more = faultsOfText(key, text, isEnglish);
    faults.insert(faults.end(), more.begin(), more.end());
  }
  return faults;
}

/// The same of a whole folder; "<language>: " stands before each. Its languages must be those of all texts.
std::vector<std::string> faultsOfAppResources(const std::filesystem::path& resources) {
  std::vector<std::string> faults;
  const Strings english = readStringsFile(appStringsOf(kAppResources, "en"));
  if (languagesIn(resources) != languagesIn(kResources)) faults.emplace_back("other languages");
  for (const std::string& language : languagesIn(resources)) {
    try {
      const Strings strings = readStringsFile(appStringsOf(resources, language));
      for (const auto& found :
           {faultsOf(strings, english, language == "en"), punctuationFaultsOf(language, strings)}) {
        for (const std::string& fault : found)
          faults.push_back(std::string{language}.append(": ").append(fault));
      }
    } catch (const std::runtime_error& error) {
      faults.push_back(language + ": " + error.what());
    }
  }
  return faults;
}

TEST(AppStrings, AreWholeInEveryLanguage) { EXPECT_THAT(faultsOfAppResources(kAppResources), IsEmpty()); }

/// A copy of the resources, to be spoiled.
class SpoiledAppStrings : public ::testing::Test {
 protected:
  SpoiledAppStrings() {
    std::filesystem::copy(kAppResources, copy(), std::filesystem::copy_options::recursive);
  }

  [[nodiscard]] std::filesystem::path copy() const { return folder_.path() / "AppResources"; }

  /// Gives a language these texts, and appends `more`.
  void write(const std::string& language, const Strings& strings, const std::string& more = {}) const {
    std::ofstream stream{appStringsOf(copy(), language), std::ios::binary};
    for (const auto& [key, text] : strings) stream << '"' << key << "\" = \"" << text << "\";\n";
    stream << more;
    if (!stream.flush()) throw std::runtime_error{"cannot write the texts"};
  }

  /// Texts in which the one of that key is another.
  [[nodiscard]] static Strings with(Strings strings, const std::string& key, const std::string& text) {
    for (auto& row : strings) {
      if (row.first == key) row.second = text;
    }
    return strings;
  }

  [[nodiscard]] static Strings without(Strings strings, const std::string& key) {
    strings.erase(
        std::remove_if(strings.begin(), strings.end(), [&](const auto& row) { return row.first == key; }),
        strings.end());
    return strings;
  }

  static inline const std::string kTitle = "Mirel Token is ready";
  static inline const std::string kHint =
      "If something does not work, this command in Terminal tells why: %@";
  const Strings german = readStringsFile(appStringsOf(kAppResources, "de"));
  const Strings english = readStringsFile(appStringsOf(kAppResources, "en"));

 private:
  TemporaryFolder folder_;
};

TEST_F(SpoiledAppStrings, AreFineAsLongAsNothingIsSpoiled) {
  write("de", with(german, kHint, "%@ im Terminal"));
  EXPECT_THAT(faultsOfAppResources(copy()), IsEmpty());
}

TEST_F(SpoiledAppStrings, AreFoundOut) {
  const struct {
    const char* description;
    Strings strings;
    std::string more;
    std::string fault;
  } rows[] = {
      // Keys
      {"one is missing", without(german, kTitle), "", kTitle + ": 0 times"},
      {"one in a comment only", without(german, kTitle), "/* \"" + kTitle + "\" = \"Bereit\"; */",
       kTitle + ": 0 times"},
      {"one more", german, "\"Other\" = \"Anderes\";", "Other: not a key"},
      {"one twice", german, "\"" + kTitle + "\" = \"Bereit\";", kTitle + ": 2 times"},
      {"an empty file", {}, "", kTitle + ": 0 times"},
      // Conversions
      {"no place", with(german, kHint, "Im Terminal"), "", kHint + ": 0 places"},
      {"two places", with(german, kHint, "%@ oder %@"), "", kHint + ": 2 places"},
      {"a place in a title", with(german, kTitle, "Bereit: %@"), "", kTitle + ": 1 places"},
      {"a number", with(german, kHint, "%d im Terminal"), "", kHint + ": a foreign conversion"},
      {"a numbered place", with(german, kHint, "%1$@ im Terminal"), "", kHint + ": a foreign conversion"},
      {"a per cent sign besides", with(german, kHint, "%@ zu 100 %%"), "", kHint + ": a foreign conversion"},
      {"a lone per cent sign at the end", with(german, kHint, "%@ %"), "", kHint + ": a foreign conversion"},
      // Texts
      {"an empty text", with(german, kTitle, ""), "", kTitle + ": empty"},
      {"a blank text", with(german, kTitle, " \\n"), "", kTitle + ": empty"},
      {"an English text", with(german, kTitle, kTitle), "", kTitle + ": not translated"},
      // Files
      {"Latin-1", without(german, kTitle), "\xE9", "not UTF-8 at byte "},
      {"no semicolon", german, "\"Other\" = \"Anderes\"", "it ends too early"},
      {"no quotation mark", german, "Other = \"Anderes\";", "a \" is missing"},
      {"a comment without an end", german, "/*", "a comment does not end"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.description);
    write("de", row.strings, row.more);
    EXPECT_THAT(faultsOfAppResources(copy()), Contains(StartsWith("de: " + row.fault)));
  }
}

TEST_F(SpoiledAppStrings, AreFoundOutInEnglish) {
  write("en", with(english, kTitle, "Mirel Token is OK"));
  EXPECT_THAT(faultsOfAppResources(copy()), ElementsAre("en: " + kTitle + ": not the same in English"));
}

TEST_F(SpoiledAppStrings, AreFoundOutWithoutAFile) {
  std::filesystem::remove(appStringsOf(copy(), "de"));
  EXPECT_THAT(faultsOfAppResources(copy()), ElementsAre("de: cannot be read"));
}

TEST_F(SpoiledAppStrings, AreFoundOutWithALanguageLess) {
  std::filesystem::remove_all(appStringsOf(copy(), "de").parent_path());
  EXPECT_THAT(faultsOfAppResources(copy()), ElementsAre("other languages"));
}

}  // namespace
}  // namespace mirel::test
