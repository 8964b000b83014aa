#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/Doctor.h"
#include "host/Failure.h"

namespace mirel::cli {

/// What an examination has come to so far, with all that the page and the bundle tell.
struct DoctorNotes {
  Diagnosis diagnosis{};
  std::size_t numPublished = 0;                 ///< items that the keychain gets, of all cards
  std::vector<nlohmann::ordered_json> cards{};  ///< what `items --json` prints of each
  std::vector<std::string> log{};               ///< the lines up to a login
  bool logWasStopped = false;                   ///< there was one
};

/// As the process that watches the worker gets them (see Worker.h). Of the slots only names and numbers,
/// which an anonymous bundle replaces.
[[nodiscard]] std::string textOf(const DoctorNotes& notes);

/// The notes of such a text. A module may have written there, so each text is made fit for a terminal, and
/// what does not fit is left out. Nothing where it is no such text.
[[nodiscard]] std::optional<DoctorNotes> notesFrom(std::string_view text);

/// Adds that the module came to a bad end, where that is what has failed.
void addEnd(const Failure& failure, Diagnosis& diagnosis);

}  // namespace mirel::cli
