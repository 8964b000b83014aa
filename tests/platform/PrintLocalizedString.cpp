// Prints the localised string of the key that is its argument, as a program in the locale of its surroundings
// sees it.

#include <clocale>
#include <cstdio>
#include <string>

#include "platform/LocalizedStrings.h"

int main(int argc, char* argv[]) {
  if (argc != 2 || !std::setlocale(LC_ALL, "")) return 1;
  const mirel::Text text = mirel::systemLocalizedStrings()->localizedString(argv[1]);
  if (text.isNull()) return 2;
  const std::string utf8 = text.toUtf8();
  return std::fwrite(utf8.data(), 1, utf8.size(), stdout) == utf8.size() ? 0 : 3;
}
