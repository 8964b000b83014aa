#include "bridge/CryptokiNames.h"

#include <gtest/gtest.h>

#include "bridge/BridgeOperation.h"

namespace mirel::test {
namespace {

TEST(CryptokiFunctionName, IsThatOfTheEntryAtThePlace) {
  const struct {
    std::size_t offset;
    const char* name;
  } rows[] = {
      {offsetof(CK_FUNCTION_LIST, C_Initialize), "C_Initialize"},
      {offsetof(CK_FUNCTION_LIST, C_GetFunctionList), "C_GetFunctionList"},
      {offsetof(CK_FUNCTION_LIST, C_Login), "C_Login"},
      {offsetof(CK_FUNCTION_LIST, C_FindObjects), "C_FindObjects"},
      {offsetof(CK_FUNCTION_LIST, C_Decrypt), "C_Decrypt"},
      {offsetof(CK_FUNCTION_LIST, C_Sign), "C_Sign"},
      {offsetof(CK_FUNCTION_LIST, C_DeriveKey), "C_DeriveKey"},
      {offsetof(CK_FUNCTION_LIST, C_WaitForSlotEvent), "C_WaitForSlotEvent"},
  };
  for (const auto& row : rows) EXPECT_STREQ(cryptokiFunctionName(row.offset), row.name);
}

TEST(CryptokiFunctionName, IsAQuestionMarkWhereThereIsNoFunction) {
  EXPECT_STREQ(cryptokiFunctionName(offsetof(CK_FUNCTION_LIST, version)), "?");
  EXPECT_STREQ(cryptokiFunctionName(sizeof(CK_FUNCTION_LIST)), "?");
}

TEST(CryptokiFunction, IsInTheList) {
  EXPECT_EQ(CryptokiFunction{"C_Login"}.name(), "C_Login");
  EXPECT_EQ(CryptokiFunction{}.name(), "");
  EXPECT_TRUE(isCryptokiFunction("C_WaitForSlotEvent"));
  EXPECT_FALSE(isCryptokiFunction("C_Log"));
  EXPECT_FALSE(isCryptokiFunction("pkcs11_UserLogin"));
}

TEST(OperationName, IsTheOperationsOwn) {
  EXPECT_STREQ(operationName(BridgeOperation::pkcs11_Initial), "pkcs11_Initial");
  EXPECT_STREQ(operationName(BridgeOperation::GetCertBlobByLabel), "GetCertBlobByLabel");
  EXPECT_STREQ(operationName(static_cast<BridgeOperation>(0xFF)), "?");
}

TEST(CryptokiResultName, IsTheStandards) {
  EXPECT_EQ(cryptokiResultName(0x30), "CKR_DEVICE_ERROR");
  EXPECT_EQ(cryptokiResultName(0x80000000), "CKR_VENDOR_DEFINED");
  EXPECT_EQ(cryptokiResultName(0x4), "");
}

TEST(FlagName, IsThatOfOneBit) {
  EXPECT_EQ(tokenFlagName(0x400), "TOKEN_INITIALIZED");
  EXPECT_EQ(tokenFlagName(0x10), "");
  EXPECT_EQ(tokenFlagName(0x401), "");
  EXPECT_EQ(slotFlagName(0x4), "HW_SLOT");
  EXPECT_EQ(slotFlagName(0x8), "");
}

}  // namespace
}  // namespace mirel::test
