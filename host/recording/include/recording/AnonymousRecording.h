#pragma once

#include <span>
#include <string>

#include "recording/RecordedCall.h"
#include "recording/ShapedPseudonyms.h"

namespace mirel::recording {

struct AnonymousRecording {
  Recording recording;          ///< its header says how many of each kind were replaced
  ShapedPseudonyms pseudonyms;  ///< what stands for what: for the user alone
};

/// The recording with pseudonyms for labels, serial numbers, names in certificates, long IDs, the numbers of
/// readers, folders of users and the names of `users` (UTF-8), and for texts and bytes of which is not known
/// what they are. The same text has the same pseudonym wherever it stands, so that the recording replays as
/// it did. What stays: products and makers, certificates' keys, validity and usages, signatures, and the
/// numbers of slots and objects.
///
/// Whoever knows a certificate knows it again by its key.
[[nodiscard]] AnonymousRecording anonymousRecording(const Recording& recording,
                                                    std::span<const std::string> users);

}  // namespace mirel::recording
