#pragma once

#include <string>
#include <vector>

#include "recording/ShapedPseudonyms.h"

namespace mirel::recording {

/// The ID of an object. Of four bytes at the most it names nobody, unless there are letters in it.
void replaceID(std::span<std::uint8_t> id, ShapedPseudonyms& pseudonyms);

/// Replaces what names a key or a reader, in the words of a command line, so that they stand for the same one
/// on the card with pseudonyms. Of what is not known only words are replaced that were replaced before.
void replaceInCommand(std::vector<std::string>& words, ShapedPseudonyms& pseudonyms);

}  // namespace mirel::recording
