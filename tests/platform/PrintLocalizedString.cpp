// Prints the localised string of the key that is its argument, as a program sees it that leaves its own
// locale alone.

#include <locale.h>

#include <clocale>
#include <cstdio>
#include <string>

#include "platform/LocalizedStrings.h"

int main(int argc, char* argv[]) {
  if (argc != 2) return 1;
  const mirel::Text text = mirel::systemLocalizedStrings()->localizedString(argv[1]);
  if (text.isNull()) return 2;
  // What the system says stays in the language of the process.
  if (uselocale(nullptr) != LC_GLOBAL_LOCALE || std::string{std::setlocale(LC_ALL, nullptr)} != "C") return 4;
  const std::string utf8 = text.toUtf8();
  return std::fwrite(utf8.data(), 1, utf8.size(), stdout) == utf8.size() ? 0 : 3;
}
