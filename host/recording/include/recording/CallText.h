#pragma once

#include <optional>
#include <string>

#include "recording/RecordedCall.h"

namespace mirel::recording {

/// The standard's name of a result ("CKR_OK"), or 0x and hexadecimal digits where it has none.
[[nodiscard]] std::string resultText(std::uint64_t result);

/// What that text stands for; nothing when it is none.
[[nodiscard]] std::optional<std::uint64_t> resultOfText(std::string_view text);

/// What a call is about, in a few words: "object 7: CKA_LABEL, CKA_ID". Empty for a call that is about
/// nothing in particular; what is very long is cut off. It has texts of the recording: bring it to a
/// printable line before it is shown.
[[nodiscard]] std::string subjectText(const RecordedCall& call);

/// "C_Sign (key 7) did not return: SIGSEGV". What subjectText says of texts holds here, too.
[[nodiscard]] std::string endText(const RecordedEnd& end);

/// Whether the call tells of something that went wrong. That an object has no such attribute, or keeps it
/// secret, does not; nor that the module was initialised before.
[[nodiscard]] bool isFailure(const RecordedCall& call) noexcept;

}  // namespace mirel::recording
