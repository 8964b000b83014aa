#include "FirstStart.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "platform/Desktop.h"
#include "support/FakeUserDirectory.h"
#include "support/StringsFile.h"
#include "support/TemporaryFolder.h"

namespace mirel::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// A desktop that writes down what it is asked to do.
class FakeDesktop final : public Desktop {
 public:
  [[nodiscard]] std::string appPath() noexcept override { return path; }
  [[nodiscard]] bool appWasOpened() noexcept override { return opened; }
  [[nodiscard]] std::int32_t registerApp() noexcept override {
    ++registrations;
    return registrationError;
  }
  [[nodiscard]] Text localized(std::string_view english) noexcept override {
    asked.emplace(english);
    const auto found = translations.find(english);
    return Text::fromUtf8(found == translations.end() ? english : found->second);
  }
  [[nodiscard]] bool showMessage(const Text& title, const Text& text) noexcept override {
    messages.push_back({title.toUtf8(), text.toUtf8()});
    return canShow;
  }

  struct Message {
    std::string title;
    std::string text;
  };

  std::string path = "/Applications/Mirel Token.app";
  bool opened = true;
  std::int32_t registrationError = 0;
  bool canShow = true;
  std::map<std::string, std::string, std::less<>> translations{};

  int registrations = 0;
  std::set<std::string> asked{};
  std::vector<Message> messages{};
};

constexpr const char* kReady = "Mirel Token is ready";
constexpr const char* kInsertCard =
    "Put your smart card into the reader. Every app that uses the keychain then finds the card's "
    "certificates and keys.";
constexpr const char* kModuleMissing = "The software of your card's maker is missing";
constexpr const char* kMove = "Mirel Token is not in its place";
constexpr const char* kMoveWhere = "Drag Mirel Token into the Applications folder, and open it there.";
constexpr const char* kNotRegistered = "Mirel Token could not be registered";
constexpr const char* kAskTerminal =
    "If something does not work, this command in Terminal tells why: "
    "\"/Applications/Mirel Token.app/Contents/MacOS/mireltoken\" items";

const std::string kAllReady = std::string{kReady} + "\n" + kInsertCard + "\n" + kAskTerminal + "\n";

/// Places that the system runs no extensions from.
constexpr const char* kOutOfPlace[] = {
    "/Volumes/Mirel Token/Mirel Token.app",
    "/private/var/folders/9x/T/AppTranslocation/7B1C0B5E-5F0A/d/Mirel Token.app",
};

/// With the app in the Applications folder, opened by the user; everything is as it should be.
class FirstStart : public ::testing::Test {
 protected:
  FirstStart() {
    fs::create_directories(module.parent_path());
    std::ofstream{module} << "a module";
  }

  struct Outcome {
    ExitCode code;
    std::string output;
  };

  /// Runs it, and takes what it writes to standard output.
  [[nodiscard]] Outcome run() {
    ::testing::internal::CaptureStdout();
    const ExitCode code = runFirstStart(1, &desktop, user).value();
    return {code, ::testing::internal::GetCapturedStdout()};
  }

  /// The same from a shell.
  [[nodiscard]] Outcome runFromShell() {
    desktop.opened = false;
    return run();
  }

 private:
  test::TemporaryFolder folder_;

 protected:
  const fs::path home = folder_.path();
  const fs::path module = home / "Library/LunetLocalSignServer/libTorvo_p11v1.dylib";
  FakeDesktop desktop;
  test::FakeUserDirectory user{"ada", home};
};

// ---- What is told ----

TEST_F(FirstStart, TellsWhatIsToBeDoneFirst) {
  const std::string moduleMissing =
      std::string{kModuleMissing} +
      "\nInstall the software that came with your card, then put the card into the reader. Mirel Token needs "
      "this file: " +
      module.string() + "\n" + kAskTerminal + "\n";
  // No command: where the app is, it does not stay.
  const std::string outOfPlace = std::string{kMove} + "\n" + kMoveWhere + "\n";
  const std::string notRegistered =
      std::string{kNotRegistered} +
      "\nThe system answered with error -10811. Open Mirel Token once in Finder, in the Applications folder. "
      "If that does not help, log out and in again.\n" +
      kAskTerminal + "\n";
  const struct {
    const char* name;
    ExitCode code;
    std::string output;
    bool hasModule = true;
    std::int32_t registrationError = 0;
    const char* path = "/Applications/Mirel Token.app";
  } rows[] = {
      {"nothing", ExitCode::kSuccess, kAllReady},
      {"the module is missing", ExitCode::kModuleNotLoadable, moduleMissing, false},
      {"the registration failed", ExitCode::kInternal, notRegistered, true, -10811},
      {"both", ExitCode::kModuleNotLoadable, moduleMissing, false, -10811},
      {"on a disk image", ExitCode::kUsage, outOfPlace, true, 0, kOutOfPlace[0]},
      {"moved by the system", ExitCode::kUsage, outOfPlace, true, 0, kOutOfPlace[1]},
      {"all of it", ExitCode::kUsage, outOfPlace, false, -10811, kOutOfPlace[0]},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (!row.hasModule) fs::remove(module);
    if (row.hasModule) std::ofstream{module} << "a module";
    desktop.registrationError = row.registrationError;
    desktop.path = row.path;
    desktop.registrations = 0;
    const Outcome outcome = runFromShell();
    EXPECT_EQ(outcome.code, row.code);
    EXPECT_EQ(outcome.output, row.output);
    EXPECT_EQ(desktop.registrations, row.code == ExitCode::kUsage ? 0 : 1);
  }
  EXPECT_THAT(desktop.messages, IsEmpty());
}

TEST_F(FirstStart, TakesADanglingLinkForAMissingModule) {
  fs::remove(module);
  fs::create_symlink("nothing.dylib", module);
  EXPECT_EQ(runFromShell().code, ExitCode::kModuleNotLoadable);
}

TEST_F(FirstStart, LooksForTheModuleInTheHomeOfTheUserWhoIsLoggedIn) {
  EXPECT_EQ(runFromShell().code, ExitCode::kSuccess);
  EXPECT_THAT(user.askedFor(), ElementsAre("ada"));
}

TEST_F(FirstStart, TakesEveryOtherPlaceForAGoodOneAndNamesItInTheCommand) {
  for (const std::string path :
       {"/Applications/Mirel Token.app", "/Users/ada/Applications/Mirel Token.app",
        "/Users/ada/Volumes/Mirel Token.app", "/VolumesOfMine/Mirel Token.app",
        "/Users/ada/AppTranslocation.app", "/Users/ada/MyAppTranslocation/Mirel Token.app",
        "/Applications/%@/%s.app", "/Users/\xC3\x81gnes/\xF0\x9F\x94\x91.app"}) {
    SCOPED_TRACE(path);
    desktop.path = path;
    const Outcome outcome = runFromShell();
    EXPECT_EQ(outcome.code, ExitCode::kSuccess);
    EXPECT_THAT(outcome.output, HasSubstr(": \"" + path + "/Contents/MacOS/mireltoken\" items\n"));
  }
}

TEST_F(FirstStart, LeavesEverythingElseToTheCommandLine) {
  EXPECT_FALSE(runFirstStart(2, &desktop, user));
  EXPECT_FALSE(runFirstStart(1, nullptr, user));
  desktop.path = "";
  EXPECT_FALSE(runFirstStart(1, &desktop, user));
  EXPECT_EQ(desktop.registrations, 0);
  EXPECT_THAT(desktop.messages, IsEmpty());
}

// ---- Where it is told ----

TEST_F(FirstStart, ShowsOneMessageWhenTheAppWasOpened) {
  // The registration is the system's own then, and its error is not told.
  for (const std::int32_t error : {0, -10811}) {
    desktop.registrationError = error;
    desktop.registrations = 0;
    desktop.messages.clear();
    const Outcome outcome = run();
    EXPECT_EQ(outcome.code, ExitCode::kSuccess);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(desktop.registrations, 1);
    ASSERT_EQ(desktop.messages.size(), 1U);
    EXPECT_EQ(desktop.messages[0].title, kReady);
    EXPECT_EQ(desktop.messages[0].text, std::string{kInsertCard} + "\n\n" + kAskTerminal);
  }
}

TEST_F(FirstStart, EndsWithTheSameCodeAfterAMessage) {
  fs::remove(module);
  EXPECT_EQ(run().code, ExitCode::kModuleNotLoadable);
  EXPECT_EQ(desktop.messages.size(), 1U);
  EXPECT_EQ(desktop.registrations, 1);
}

TEST_F(FirstStart, WritesToStandardOutputWhenTheMessageCannotBeShown) {
  desktop.canShow = false;
  const Outcome outcome = run();
  EXPECT_EQ(outcome.code, ExitCode::kSuccess);
  EXPECT_EQ(desktop.messages.size(), 1U);
  EXPECT_EQ(outcome.output, kAllReady);
}

TEST_F(FirstStart, FailsWhenTheOutputCannotBeWritten) {
  const auto runWithoutOutput = [&] {
    desktop.opened = false;
    close(STDOUT_FILENO);
    std::_Exit(static_cast<int>(runFirstStart(1, &desktop, user).value()));
  };
  EXPECT_EXIT(runWithoutOutput(), ::testing::ExitedWithCode(14), "standard output cannot be written");
}

// ---- In which words ----

TEST_F(FirstStart, UsesTheWordingOfTheUser) {
  desktop.translations = {
      {kReady, "Mirel Token k\xC3\xA9sz"},
      {kInsertCard, "Tegye be"},
      {"If something does not work, this command in Terminal tells why: %@", "A %@ parancs"}};
  EXPECT_EQ(runFromShell().output,
            "Mirel Token k\xC3\xA9sz\nTegye be\n"
            "A \"/Applications/Mirel Token.app/Contents/MacOS/mireltoken\" items parancs\n");
  EXPECT_EQ(run().code, ExitCode::kSuccess);
}

TEST_F(FirstStart, PutsItsArgumentWhereTheTranslationHasThePlace) {
  constexpr const char* kKey =
      "The system answered with error %@. Open Mirel Token once in Finder, in the Applications folder. If "
      "that does not help, log out and in again.";
  const std::pair<const char*, const char*> rows[] = {{"%@ is it", "\n-43 is it\n"},
                                                      {"it is %@", "\nit is -43\n"},
                                                      {"it %@ is", "\nit -43 is\n"},
                                                      {"%@", "\n-43\n"},
                                                      {"50 % of %@", "\n50 % of -43\n"},
                                                      {"it is", "\nit is\n"},
                                                      {"", "\n\n"}};
  desktop.registrationError = -43;
  for (const auto& [translation, line] : rows) {
    SCOPED_TRACE(translation);
    desktop.translations = {{kKey, translation}};
    EXPECT_THAT(runFromShell().output, HasSubstr(kNotRegistered + std::string{line}));
  }
}

TEST_F(FirstStart, ShowsControlCharactersByTheirNumber) {
  desktop.path = "/Applications/\x1B[2J\n\x7F.app";
  desktop.translations = {{kReady, "a\x1B[1m"}};
  const std::string output = runFromShell().output;
  EXPECT_THAT(output, StartsWith("a\\x1B[1m\n"));
  EXPECT_THAT(output, HasSubstr("\"/Applications/\\x1B[2J\\x0A\\x7F.app/Contents/"));
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 3);
  EXPECT_EQ(output.find('\x1B'), std::string::npos);
}

TEST_F(FirstStart, HasATranslationOfEveryTextItUses) {
  EXPECT_EQ(runFromShell().code, ExitCode::kSuccess);
  desktop.registrationError = -43;
  EXPECT_EQ(runFromShell().code, ExitCode::kInternal);
  desktop.registrationError = 0;
  fs::remove(module);
  EXPECT_EQ(runFromShell().code, ExitCode::kModuleNotLoadable);
  desktop.path = kOutOfPlace[0];
  EXPECT_EQ(runFromShell().code, ExitCode::kUsage);

  std::set<std::string> translated;
  for (const auto& row : test::readStringsFile(MIREL_APP_RESOURCES "/en.lproj/App.strings")) {
    translated.insert(row.first);
  }
  EXPECT_EQ(desktop.asked, translated);
}

}  // namespace
}  // namespace mirel::cli
