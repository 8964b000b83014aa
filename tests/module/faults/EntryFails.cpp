/// A module whose entry point fails and leaves its argument alone.

#include "bridge/cryptoki.h"

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR) {
  return CKR_GENERAL_ERROR;
}
