#include "doctor/SystemTools.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "platform/Log.h"

namespace mirel {
namespace {

using End = ProgramAnswer::End;

constexpr std::string_view kBlanks = " \t\r";

bool isIn(std::string_view letters, char letter) { return letters.find(letter) != std::string_view::npos; }

/// Of an identifier such as com.apple.CryptoTokenKit.pivtoken.
bool isOfIdentifier(char letter) {
  return std::isalnum(static_cast<unsigned char>(letter)) != 0 || isIn(".-_", letter);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isIn(kBlanks, text.front())) text.remove_prefix(1);
  while (!text.empty() && isIn(kBlanks, text.back())) text.remove_suffix(1);
  return text;
}

/// Calls `use` with each line that is not empty, without the blanks around it.
template <typename Use>
void forEachLine(std::string_view text, const Use& use) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    if (!line.empty()) use(line);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

/// The identifier at the start of a text; empty where there is none.
std::string_view identifierOf(std::string_view text) {
  const auto end = std::find_if_not(text.begin(), text.end(), isOfIdentifier);
  const auto identifier = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  return isIn(identifier, '.') ? identifier : std::string_view{};
}

Finding unanswered(FindingID id, const std::string& tool, std::string why) {
  return {id, Severity::kUnknown, tool, std::move(why)};
}

/// Why a program that is there gave no answer.
std::string reasonOf(const ProgramAnswer& answer) {
  switch (answer.end) {
    case End::kNotStarted: return std::string{"it does not start: "} + std::strerror(answer.code);
    case End::kSignal: return "it was ended by signal " + std::to_string(answer.code);
    case End::kTooSlow: return "it did not end in time";
    case End::kTooLong: return "it did not stop writing";
    case End::kExited:
    case End::kMissing: break;
  }
  return {};
}

}  // namespace

ToolAnswer askTool(ProgramRunner& runner, const std::string& tool,
                   const std::vector<std::string>& arguments) {
  for (const char* folder : {"/usr/bin/", "/usr/sbin/"}) {
    ProgramAnswer answer = runner.run(folder + tool, arguments);
    if (answer.end == End::kMissing) continue;
    if (answer.end == End::kExited) return {answer.code, std::move(answer.output), std::nullopt};
    return {0, {}, unanswered(FindingID::kSystemToolFails, tool, reasonOf(answer))};
  }
  return {0, {}, unanswered(FindingID::kSystemToolMissing, tool, "it is not in /usr/bin or /usr/sbin")};
}

Finding uselessAnswer(const std::string& tool, const ToolAnswer& answer) {
  const std::string line = firstLineOf(answer.output);
  return unanswered(FindingID::kSystemToolFails, tool,
                    "exit code " + std::to_string(answer.code) + (line.empty() ? "" : ": " + line));
}

std::string firstLineOf(std::string_view output) {
  constexpr std::size_t kMost = 160;  // bytes
  std::string first;
  forEachLine(output, [&](std::string_view line) {
    if (first.empty()) first = printableLine(line.substr(0, kMost));
  });
  return first;
}

std::vector<ExtensionCopy> extensionsIn(std::string_view output) {
  std::vector<ExtensionCopy> copies;
  forEachLine(output, [&](std::string_view line) {
    ExtensionCopy copy;
    if (isIn("+-!=?", line.front())) {
      copy.sign = line.front();
      line = trimmed(line.substr(1));
    }
    copy.id = identifierOf(line);
    line.remove_prefix(copy.id.size());
    if (copy.id.empty() || (!line.empty() && !isIn("( \t", line.front()))) return;
    if (const std::size_t path = line.find('/'); path != std::string_view::npos)
      copy.path = line.substr(path);
    copies.push_back(std::move(copy));
  });
  return copies;
}

std::vector<std::string> tokenIDsIn(std::string_view output) {
  std::vector<std::string> ids;
  forEachLine(output, [&](std::string_view line) {
    const std::string_view driver = identifierOf(line);
    if (!driver.empty() && line.size() > driver.size() + 1 && line[driver.size()] == ':')
      ids.emplace_back(line);
  });
  return ids;
}

std::vector<std::string> keyHashesIn(std::string_view output) {
  constexpr std::size_t kDigits = 40;  // of SHA-1
  std::vector<std::string> hashes;
  std::string run;
  const auto endRun = [&] {
    const bool isHash =
        run.size() == kDigits &&
        std::all_of(run.begin(), run.end(), [](unsigned char letter) { return std::isxdigit(letter) != 0; });
    if (isHash) hashes.push_back(run);
    run.clear();
  };
  for (const char letter : output) {
    const auto byte = static_cast<unsigned char>(letter);
    if (std::isalnum(byte) == 0) {
      endRun();
    } else if (run.size() <= kDigits) {
      run += static_cast<char>(std::tolower(byte));
    }
  }
  endRun();
  return hashes;
}

bool isEntitled(std::string_view entitlements, std::string_view name) {
  const std::string key = "<key>" + std::string{name} + "</key>";
  const std::size_t at = entitlements.find(key);
  if (at == std::string_view::npos) return false;
  std::string_view rest = entitlements.substr(at + key.size());
  while (!rest.empty() && isIn(" \t\r\n", rest.front())) rest.remove_prefix(1);
  return rest.starts_with("<true/>") || rest.starts_with("<true />");
}

}  // namespace mirel
