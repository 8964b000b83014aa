#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/Finding.h"
#include "platform/ProgramRunner.h"

// What the system's own tools print about token extensions and cards. Their output is no interface: a line
// that is not understood is passed over, and a tool that fails is no reason to say that something is missing.

namespace mirel {

/// What a tool answered.
struct ToolAnswer {
  int code = 0;                       ///< its exit code, where it came to one
  std::string output;                 ///< empty where there is `unanswered`
  std::optional<Finding> unanswered;  ///< why there is no answer
};

/// Asks that tool, wherever the system has it.
[[nodiscard]] ToolAnswer askTool(ProgramRunner& runner, const std::string& tool,
                                 const std::vector<std::string>& arguments);

/// That a tool has answered, but nothing of use.
[[nodiscard]] Finding uselessAnswer(const std::string& tool, const ToolAnswer& answer);

/// The first line of a text that is not empty, fit for a terminal and not too long.
[[nodiscard]] std::string firstLineOf(std::string_view output);

/// One copy of an extension, as `pluginkit -m -v` lists it.
struct ExtensionCopy {
  std::string id;    ///< of its bundle
  char sign = ' ';   ///< one of "+-!=?", or a blank
  std::string path;  ///< empty where the line has none
};
[[nodiscard]] std::vector<ExtensionCopy> extensionsIn(std::string_view output);

/// The IDs of tokens ("driver:card") that `security list-smartcards` lists.
[[nodiscard]] std::vector<std::string> tokenIDsIn(std::string_view output);

/// The hashes of public keys that `sc_auth identities` lists, in small letters, in its order: one that is
/// listed twice stands there twice.
[[nodiscard]] std::vector<std::string> keyHashesIn(std::string_view output);

/// Whether a property list of entitlements has that one as true.
[[nodiscard]] bool isEntitled(std::string_view entitlements, std::string_view name);

}  // namespace mirel
