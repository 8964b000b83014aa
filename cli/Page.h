#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "host/Finding.h"

// What the pages for a browser have in common. They are UTF-8, XHTML that a browser also reads as HTML,
// without scripts and without anything from elsewhere. No text of the module or the card can end an element
// or begin one.

namespace mirel::cli {

/// How a severity is told on a page: not by its colour alone.
struct SeverityLook {
  std::string_view style;  ///< the class of its elements
  std::string_view sign;   ///< in a text
  std::string_view lines;  ///< in a picture: the path of the same sign around the middle
  std::string_view word;
};
[[nodiscard]] const SeverityLook& lookOf(Severity severity);

/// Fit for an element and for an attribute. What a page may not hold, such as a control, is shown by number.
[[nodiscard]] std::string escapedForPage(std::string_view text);

/// An element that has this text alone.
[[nodiscard]] std::string pageElement(std::string_view name, std::string_view text);

/// The sign of a severity and the word.
[[nodiscard]] std::string pageMark(Severity severity, std::string_view word);

/// A line of a list: what it tells, and the text; nothing where that is empty.
[[nodiscard]] std::string listRow(std::string_view what, std::string_view text);

/// What --version prints, as one line.
[[nodiscard]] std::string versionsInOneLine(std::string versions);

/// That date and time, in UTC.
[[nodiscard]] std::string dateOf(std::chrono::system_clock::time_point time);

/// What stands at the top of a page.
struct PageTop {
  std::string_view title;
  Severity verdict;
  std::string words;  ///< of the verdict
  std::string date;
};

/// A whole page. `sections`: its elements, escaped.
[[nodiscard]] std::string pageWith(const PageTop& top, std::string_view sections);

}  // namespace mirel::cli
