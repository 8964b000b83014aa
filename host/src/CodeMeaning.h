#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "FailureDiary.h"
#include "bridge/CryptokiNames.h"
#include "host/Failure.h"

namespace mirel {

/// What a code of a Cryptoki function means to the user.
struct CodeMeaning {
  std::uint64_t code = 0;
  CryptokiFunction function;  ///< where that decides; else none
  std::string_view reason;    ///< empty: the name of the code is all there is to say
  Advice remedy;
  std::optional<FailureKind> kind;  ///< null: what the command was about decides
};

/// The one place that knows what codes mean. Every code has a meaning; that of a code which is not known says
/// so.
[[nodiscard]] const CodeMeaning& meaningOf(std::string_view function, std::uint64_t code) noexcept;

/// "C_Sign answered CKR_DEVICE_ERROR (0x30)".
[[nodiscard]] std::string answerText(const FailedCall& cause);

/// The same with the reason, where there is one to give.
[[nodiscard]] std::string reasonText(const FailedCall& cause);

/// The failure that the user is told because of that call. `kindElse`: where the code does not decide.
[[nodiscard]] Failure failureBecauseOf(const FailedCall& cause, std::string what, FailureKind kindElse);

/// Whether one of the codes is the answer that the failure comes from.
[[nodiscard]] bool hasAnswer(const Failure& failure, std::initializer_list<std::uint64_t> codes);

}  // namespace mirel
