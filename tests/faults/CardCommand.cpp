#include "faults/CardCommand.h"

#include <openssl/rsa.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "module/ModuleFiles.h"
#include "platform/Hex.h"
#include "platform/Utf.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

using Json = nlohmann::json;

constexpr const char* kMessage = "What is to be signed\n";
constexpr const char* kPlain = "The plain text\n";

// Exit codes.
constexpr int kInternal = 1;
constexpr int kFirstModuleFailure = 21;  // it crashed, ended the program or did not come back: it never does
constexpr int kWarns = 19;
constexpr int kFails = 20;

std::string bytesOfHex(std::string_view digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    const auto high = valueOfHexDigit(digits[i]);
    const auto low = valueOfHexDigit(digits[i + 1]);
    if (!high || !low) return {};
    bytes.push_back(static_cast<char>(*high << 4U | *low));
  }
  return bytes;
}

std::string contentOf(const std::string& file) {
  std::ifstream in{file, std::ios::binary};
  return {std::istreambuf_iterator<char>{in}, {}};
}

/// What a terminal acts upon, or what turns or hides text; 0: nothing. U+FFFF stands for what is no UTF-8.
char32_t dangerIn(std::string_view text) {
  while (!text.empty()) {
    const DecodedCharacter next = decodedFromUtf8(text);
    const char32_t c = next.character;
    const bool isStray = next.size == 1 && static_cast<unsigned char>(text.front()) >= 0x80;
    text.remove_prefix(next.size);
    if (isStray) return 0xFFFF;
    if (c == '\n') continue;
    if (c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || c == 0xFEFF) return c == 0 ? 0xFFFE : c;
    if ((c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x2069))
      return c;
  }
  return 0;
}

std::string dangerText(const char* where, const std::string& text) {
  const char32_t danger = dangerIn(text);
  return danger == 0 ? "" : std::string{where} + " has the character " + std::to_string(danger);
}

bool isOneFailureLine(const std::string& text) {
  return text.starts_with("mireltoken: ") && std::count(text.begin(), text.end(), '\n') == 1 &&
         text.back() == '\n' && text.find(": ", 12) != std::string::npos &&
         text.find("; ") != std::string::npos;
}

/// That an object has no such attribute, or keeps it secret, is an answer and no failure.
bool isError(const Fault& fault) {
  const bool saysNo = fault.code == CKR_ATTRIBUTE_SENSITIVE || fault.code == CKR_ATTRIBUTE_TYPE_INVALID;
  const bool answers = fault.code == CKR_OK || (saysNo && fault.function == "C_GetAttributeValue");
  return fault.kind == Fault::Kind::kCode && !answers;
}

bool saysWhatWasNotRead(const Fault& fault, const RunResult& result) {
  const std::string words[] = {fault.function + " answered", "could not be read", "NOT READ NOW",
                               "unreadable", "\"incomplete\""};
  return !result.err.empty() || std::any_of(std::begin(words), std::end(words), [&](const std::string& told) {
    return result.out.find(told) != std::string::npos;
  });
}

/// Times differ from run to run.
std::string numberless(std::string text) {
  std::erase_if(text, [](unsigned char c) { return std::isdigit(c) != 0; });
  return text;
}

}  // namespace

RunFolder::RunFolder(const FaultyCard& card, fs::path folder)
    : card_{card}, folder_{std::move(folder)}, ownFiles_{"cipher", "message", "pin", "point"} {
  const Value cipher = card.key().encrypted(bytesOf(kPlain), RSA_PKCS1_PADDING);
  const Value point = p256Point(7);
  const std::pair<const char*, std::string> contents[] = {{"cipher", {cipher.begin(), cipher.end()}},
                                                          {"message", kMessage},
                                                          {"pin", kCardPin},
                                                          {"point", {point.begin() + 2, point.end()}}};
  for (const auto& [name, content] : contents) {
    std::ofstream{path(name), std::ios::binary} << content;
    (void)chmod(path(name).c_str(), S_IRUSR | S_IWUSR);
  }
  const auto add = [&](const char* line, std::vector<std::string> more, Answer answer,
                       std::vector<std::string> files = {}) {
    CardCommand command{line, {"--trust-module", "--module", kScriptedModule}, answer, std::move(files)};
    std::istringstream words{line};
    command.arguments.insert(command.arguments.end(), std::istream_iterator<std::string>{words}, {});
    command.arguments.insert(command.arguments.end(), more.begin(), more.end());
    commands_.push_back(std::move(command));
  };
  const std::vector<std::string> pin{"--pin-file", path("pin")};
  const auto withPin = [&](std::vector<std::string> more) {
    more.insert(more.end(), pin.begin(), pin.end());
    return more;
  };
  const std::vector<std::string> sign{"--key", "01", "--in", path("message")};
  const std::vector<std::string> decrypt{"--key", "02", "--in", path("cipher")};
  const auto toFile = [&](std::vector<std::string> more) {
    more.insert(more.end(), {"--out", path("out")});
    return withPin(more);
  };
  add("items", {}, Answer::kListing);
  add("items --json", {}, Answer::kListing);
  add("readers", {}, Answer::kListing);
  add("readers --json", {}, Answer::kListing);
  add("certificate", {"--key", "01"}, Answer::kListing);
  add("algorithms", {"--key", "01"}, Answer::kListing);
  add("login", pin, Answer::kLogin);
  add("login --json", pin, Answer::kLogin);
  add("sign", toFile(sign), Answer::kSignature, {"out"});
  add("sign --json", withPin(sign), Answer::kSignature);
  add("decrypt", toFile(decrypt), Answer::kPlainText, {"out"});
  add("decrypt --json", withPin(decrypt), Answer::kPlainText);
  add("exchange", toFile({"--key", "03", "--in", path("point")}), Answer::kNone);
  add("doctor", {}, Answer::kReport);
  add("doctor --login --json", pin, Answer::kReport);
  add("doctor --html", {path("page"), "--bundle", path("bundle")}, Answer::kReport, {"bundle", "page"});
  add("conformance", {}, Answer::kReport);
  add("conformance --login --json", pin, Answer::kReport);
}

std::string RunFolder::result(const CardCommand& command, const RunResult& run, const char* member) const {
  if (!command.isJson()) return contentOf(path("out"));
  const Json object = Json::parse(run.out, nullptr, false);
  return bytesOfHex(object.value(member, std::string{}));
}

bool RunFolder::isSignature(const std::string& bytes) const {
  const Value digest = softwareDigest("SHA256", bytesOf(kMessage));
  return card_.key().verifies(bytesOf(bytes), digest, "SHA256", RSA_PKCS1_PSS_PADDING, 32);
}

std::string RunFolder::wrongAnswer(const CardCommand& command, const Fault& fault, const RunResult& run,
                                   const RunResult& good) const {
  switch (command.answer) {
    case Answer::kSignature:
      return isSignature(result(command, run, "signatureHex")) ? "" : "the signature does not verify";
    case Answer::kPlainText: {
      if (result(command, run, "plainTextHex") == kPlain) return "";
      // Nobody can distinguish a plain text of another length from the right one.
      const bool isAnotherText = fault.kind == Fault::Kind::kNumber && fault.function == "C_Decrypt";
      return isAnotherText ? "" : "the plain text is another one";
    }
    case Answer::kLogin: return card_.record().loggedIn ? "" : "the module has accepted no PIN";
    case Answer::kListing: {
      const bool isTold = !isError(fault) || run.out == good.out || saysWhatWasNotRead(fault, run);
      return isTold ? "" : "it lists something else, and says nothing of it";
    }
    case Answer::kReport: {
      const bool isSeen =
          !isError(fault) || good.exitCode != 0 || numberless(run.out) == numberless(good.out);
      return isSeen ? "" : "the report differs, and finds nothing";
    }
    case Answer::kNone: return "exit code 0";
  }
  return "";
}

std::string RunFolder::complaint(const CardCommand& command, const Fault& fault, const RunResult& run,
                                 const RunResult& good) const {
  if (run.signal == SIGALRM) return "it takes longer than " + std::to_string(kLongestRun) + " s";
  if (run.signal != 0) return "signal " + std::to_string(run.signal);
  for (const char* report : {"AddressSanitizer", "runtime error:", "LeakSanitizer"}) {
    if (run.err.find(report) != std::string::npos) return std::string{report} + ": " + run.err;
  }
  if (run.exitCode == kInternal || run.exitCode >= kFirstModuleFailure)
    return "exit code " + std::to_string(run.exitCode);
  if (const std::string danger = dangerText("standard error", run.err); !danger.empty()) return danger;
  if (const std::string danger = dangerText("standard output", run.out); !danger.empty()) return danger;
  if ((run.out + run.err).find(kCardPin) != std::string::npos) return "it shows the PIN";
  for (const std::string& name : command.files) {
    if (name != "page" && name != "bundle") continue;
    const std::string content = contentOf(path(name));
    if (const std::string danger = dangerText(name.c_str(), content); !danger.empty()) return danger;
    if (name == "page" && content.find("<script>&amp;") != std::string::npos) return "the page has a script";
  }
  Json object;
  if (command.isJson()) {
    object = Json::parse(run.out, nullptr, false);
    if (!object.is_object()) return "standard output is no JSON";
  }
  const bool isReport =
      command.answer == Answer::kReport && (run.exitCode == kWarns || run.exitCode == kFails);
  if (run.exitCode == 0) return wrongAnswer(command, fault, run, good);
  if (isReport) return run.out.empty() ? "there is no report" : "";
  if (!isOneFailureLine(run.err)) return "the failure is not told in one line";
  if (command.isJson()) {
    const Json error = object.value("error", Json::object());
    return error.value("exitCode", 0) == run.exitCode ? "" : "the JSON tells no such failure";
  }
  return run.out.empty() ? "" : "it fails, and has an output";
}

std::string RunFolder::tidyUp(const CardCommand& command, const RunResult& run) const {
  std::string strange;
  const auto has = [](const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  const bool mayLeave = run.exitCode == 0 || run.exitCode == kWarns || run.exitCode == kFails;
  for (const auto& entry : fs::directory_iterator{folder_}) {
    const std::string name = entry.path().filename().string();
    if (has(ownFiles_, name)) continue;
    if (!mayLeave || !has(command.files, name)) strange += " " + name;
    fs::remove_all(entry.path());
  }
  return strange.empty() ? "" : "it leaves" + strange;
}

}  // namespace mirel::test
