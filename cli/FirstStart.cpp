#include "FirstStart.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "Output.h"
#include "host/Home.h"
#include "platform/Desktop.h"
#include "platform/UserDirectory.h"

namespace mirel::cli {
namespace {

/// English, as the keys of the translations.
constexpr std::string_view kReady = "Mirel Token is ready";
constexpr std::string_view kInsertCard =
    "Put your smart card into the reader. Every app that uses the keychain then finds the card's "
    "certificates and keys.";
constexpr std::string_view kModuleMissing = "The software of your card's maker is missing";
constexpr std::string_view kInstallModule =
    "Install the software that came with your card, then put the card into the reader. Mirel Token needs "
    "this file: %@";
constexpr std::string_view kMove = "Mirel Token is not in its place";
constexpr std::string_view kMoveWhere = "Drag Mirel Token into the Applications folder, and open it there.";
constexpr std::string_view kNotRegistered = "Mirel Token could not be registered";
constexpr std::string_view kRegisterAgain =
    "The system answered with error %@. Open Mirel Token once in Finder, in the Applications folder. If that "
    "does not help, log out and in again.";
constexpr std::string_view kAskTerminal =
    "If something does not work, this command in Terminal tells why: %@";

/// A message in English, and the exit code that goes with it.
struct Notice {
  std::string_view title;
  std::string_view text;
  std::string argument;  ///< in the place of "%@" in the text
  ExitCode code;
};

/// True where the system runs no extensions from: a disk image, or the place to which it takes an app of
/// unknown origin.
bool isOutOfPlace(const std::string& appPath) {
  return appPath.starts_with("/Volumes/") || appPath.find("/AppTranslocation/") != std::string::npos;
}

Notice noticeOf(Desktop& desktop, UserDirectory& user) {
  if (isOutOfPlace(desktop.appPath())) return {kMove, kMoveWhere, {}, ExitCode::kUsage};
  const auto status = desktop.registerApp();
  const std::string module = moduleInHome(user.homeOf(user.loginName()));
  std::error_code error;
  if (!std::filesystem::is_regular_file(module, error)) {
    return {kModuleMissing, kInstallModule, module, ExitCode::kModuleNotLoadable};
  }
  // What the user opens gets known to the system by that alone.
  if (status != 0 && !desktop.appWasOpened()) {
    return {kNotRegistered, kRegisterAgain, std::to_string(status), ExitCode::kInternal};
  }
  return {kReady, kInsertCard, {}, ExitCode::kSuccess};
}

Text localizedWith(Desktop& desktop, std::string_view english, const std::string& argument) {
  constexpr std::u16string_view kPlace = u"%@";
  Text text = desktop.localized(english);
  const auto at = text.units().find(kPlace);
  if (at == std::u16string_view::npos) return text;
  return joined({Text{text.units().substr(0, at)}, Text::fromUtf8(argument),
                 Text{text.units().substr(at + kPlace.size())}});
}

/// How to find out more, in the app's place; null where the app is still to be moved.
Text hintFor(Desktop& desktop, const Notice& notice) {
  if (notice.title == kMove) return {};
  std::string command{"\""};
  command.append(desktop.appPath()).append("/Contents/MacOS/mireltoken\" items");
  return localizedWith(desktop, kAskTerminal, command);
}

ExitCode tellWhatToDo(Desktop& desktop, UserDirectory& user) {
  const Notice notice = noticeOf(desktop, user);
  const Text title = desktop.localized(notice.title);
  const Text text = localizedWith(desktop, notice.text, notice.argument);
  const Text hint = hintFor(desktop, notice);

  const Text message = hint.isNull() ? text : joined({text, Text{u"\n\n"}, hint});
  if (desktop.appWasOpened() && desktop.showMessage(title, message)) return notice.code;
  std::string lines = displayedName(title) + "\n" + displayedName(text) + "\n";
  if (!hint.isNull()) lines += displayedName(hint) + "\n";
  const auto written = writeOutput(lines);
  return written ? notice.code : report(written.failure());
}

}  // namespace

std::optional<ExitCode> runFirstStart(int argc, Desktop* desktop, UserDirectory& user) {
  if (argc > 1 || !desktop || desktop->appPath().empty()) return std::nullopt;
  return tellWhatToDo(*desktop, user);
}

}  // namespace mirel::cli
