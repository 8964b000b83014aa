#pragma once

#include <string>
#include <string_view>

#include "token/TokenKit.h"

namespace mirel {

/// What "%@" prints for an error: what the platform prints for its own, else the same as far as it is known:
/// domain, code, and the text for the user, which is "(null)" for an error without one.
[[nodiscard]] inline std::string errorDescription(const TKError& error) {
  if (!error.description.isNull()) return error.description.toUtf8();
  return "Error Domain=" + error.domain.orNullMark().toUtf8() + " Code=" + std::to_string(error.code) +
         " \"" + error.localizedDescription.orNullMark().toUtf8() + "\"";
}

/// What "%@" prints for a byte string: its length and its bytes, of a long one only the first and the last.
[[nodiscard]] std::string dataDescription(const Bytes& data);

}  // namespace mirel
