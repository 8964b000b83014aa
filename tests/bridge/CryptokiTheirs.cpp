#include <p11-kit/pkcs11.h>

#include "CryptokiTable.h"

namespace mirel::test {

CryptokiTable referenceRows() {
  CryptokiTable rows;
#include "CommonRows.inc"
  return rows;
}

}  // namespace mirel::test
