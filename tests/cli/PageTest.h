#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace mirel::cli {

/// A text that would do harm on a page, and how it stands there.
inline constexpr const char* kHostile =
    "</style><script>alert('1')</script>\" onload=\"x\" &amp; \x01\xFF\xE2\x80\xAE";
inline constexpr const char* kHarmless =
    "&lt;/style&gt;&lt;script&gt;alert(&#39;1&#39;)&lt;/script&gt;&quot; onload=&quot;x&quot; &amp;amp; "
    "\\x01";

/// The elements that are open at the end, or a word on what does not fit: no element of the page is left
/// open, as XML wants it.
inline std::vector<std::string> openElementsOf(std::string_view page) {
  std::vector<std::string> open;
  while (true) {
    const std::size_t start = page.find('<');
    if (start == std::string_view::npos) return open;
    const std::size_t end = page.find('>', start);
    if (end == std::string_view::npos) return {"a tag that does not end"};
    const std::string_view tag = page.substr(start + 1, end - start - 1);
    page.remove_prefix(end + 1);
    const std::string name{tag.substr(0, tag.find(' '))};
    if (std::count(tag.begin(), tag.end(), '"') % 2 != 0) return {"an attribute that does not end: " + name};
    if (tag.starts_with("/")) {
      if (open.empty() || "/" + open.back() != name) return {"an end of another element: " + name};
      open.pop_back();
    } else if (!tag.starts_with("!") && !tag.ends_with("/")) {
      open.push_back(name);
    }
  }
}

inline std::size_t countOf(std::string_view what, const std::string& page) {
  std::size_t count = 0;
  for (std::size_t at = page.find(what); at != std::string::npos; at = page.find(what, at + 1)) ++count;
  return count;
}

}  // namespace mirel::cli
