#include "CryptokiTable.h"
#include "bridge/cryptoki.h"

namespace mirel::test {

CryptokiTable ourCommonRows() {
  CryptokiTable rows;
#include "CommonRows.inc"
  return rows;
}

CryptokiTable ourOtherRows() {
  CryptokiTable rows;
#include "LackingRows.inc"
  return rows;
}

std::vector<std::pair<std::string, bool>> namesOfOursAlone() {
  std::vector<std::pair<std::string, bool>> names;
#include "LackingNames.inc"
  return names;
}

}  // namespace mirel::test
