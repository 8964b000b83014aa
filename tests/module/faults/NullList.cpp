/// A module whose entry point succeeds with a null list.

#include "bridge/cryptoki.h"

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = nullptr;
  return CKR_OK;
}
