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

}  // namespace mirel::test
