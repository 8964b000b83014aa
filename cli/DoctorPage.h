#pragma once

#include <cstddef>
#include <string>

#include "host/Doctor.h"

namespace mirel::cli {

/// What the page tells besides the diagnosis.
struct PageFacts {
  std::string versions;          ///< as --version prints them
  std::string date;              ///< UTC
  std::size_t numPublished = 0;  ///< items that the keychain gets, of all cards
};

/// The diagnosis as one page: UTF-8, XHTML that a browser also reads as HTML, without scripts and without
/// anything from elsewhere. No text of the module or the card can end an element or begin one.
[[nodiscard]] std::string pageOf(const Diagnosis& diagnosis, const PageFacts& facts);

}  // namespace mirel::cli
