#include "ReplacedList.h"

#include <unistd.h>

#include <algorithm>

#include "Output.h"
#include "platform/Log.h"

namespace mirel::cli {

void tellReplaced(const std::string& file, const recording::ShapedPseudonyms& pseudonyms) {
  std::string counts = pseudonyms.counts();
  if (counts.empty()) return writeMessage("nothing was replaced in " + printableLine(file));
  counts.pop_back();
  for (std::size_t end = counts.find('\n'); end != std::string::npos; end = counts.find('\n', end))
    counts.replace(end, 1, ", ");
  writeMessage("replaced in " + printableLine(file) + ": " + counts);
  if (isatty(STDERR_FILENO) == 0) return;
  for (const auto& [kind, original, pseudonym] : pseudonyms.replaced())
    writeMessage("  " + displayed(original) + " -> " + displayed(pseudonym));
}

}  // namespace mirel::cli
