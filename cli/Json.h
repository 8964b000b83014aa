#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "ExitCode.h"
#include "host/Failure.h"
#include "platform/Bytes.h"

namespace mirel::cli {

using Json = nlohmann::ordered_json;

/// A JSON object as lines for standard output. Its first member names the schema: "mireltoken/", `kind` (the
/// command, or "error") and a number that changes when a member changes its meaning or goes away. Whatever is
/// not ASCII is escaped, so nothing of a card can control a terminal.
[[nodiscard]] std::string jsonLines(std::string_view kind, const Json& members);

/// The same as one line, for commands that print several objects.
[[nodiscard]] std::string jsonLine(std::string_view kind, const Json& members);

/// The same as lines with the bytes in hexadecimal digits as the last member, of that name. Leaves no copy of
/// them: the library for JSON would keep some.
[[nodiscard]] Bytes secretJsonLines(std::string_view kind, Json members, const char* name,
                                    const Bytes& secret);

/// Tells the user of the failure, and a program as well if `json`: it reads standard output, where an object
/// of the kind "error" stands then in the place of a result, unless there is one already. Returns the exit
/// code that goes with the failure.
[[nodiscard]] ExitCode report(const Failure& failure, bool json);

}  // namespace mirel::cli
