#pragma once

#include <span>

#include "ArgumentTable.h"
#include "recording/RecordedCall.h"

namespace mirel::recording {

/// What stands for each byte that was not recorded.
inline constexpr std::uint8_t kFillByte = 'Z';

/// Writes into the arguments of a call what was recorded of an equal one. Never more than the caller has room
/// for, whatever the recording says.
void writeAnswer(const FunctionRow& row, std::span<const Word> words, const RecordedCall& recorded);

}  // namespace mirel::recording
