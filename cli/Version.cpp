#include "Version.h"

#include <CLI/Version.hpp>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string_view>

#include "Commit.h"
#include "Output.h"
#include "platform/CryptographyLibrary.h"

namespace mirel::cli {

std::string programVersion() { return MIREL_VERSION; }

std::string versionText() {
  std::string text = "mireltoken " MIREL_VERSION;
  if (const std::string_view commit{kCommit}; !commit.empty())
    text.append(" (commit ").append(commit).append(")");
  const auto numbers = [](std::initializer_list<int> parts) {
    std::vector<std::string> texts;
    for (const int part : parts) texts.push_back(std::to_string(part));
    return joinedWith(".", texts);
  };
  return text + "\n" + cryptographyLibrary() + ", CLI11 " CLI11_VERSION + ", nlohmann-json " +
         numbers({NLOHMANN_JSON_VERSION_MAJOR, NLOHMANN_JSON_VERSION_MINOR, NLOHMANN_JSON_VERSION_PATCH}) +
         "\n";
}

}  // namespace mirel::cli
