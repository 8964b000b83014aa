#include "bridge/CryptokiNames.h"

#include <gtest/gtest.h>

#include "bridge/BridgeOperation.h"

namespace mirel::test {
namespace {

template <auto... Members>
std::vector<const void*> placesIn(const CK_FUNCTION_LIST& list, FunctionPack<Members...>) {
  return {&(list.*Members)...};
}

TEST(CryptokiFunctions, StandInTheOrderOfTheList) {
  const CK_FUNCTION_LIST list{};
  const auto* place = reinterpret_cast<const std::byte*>(&list.C_Initialize);
  for (const void* entry : placesIn(list, AllFunctions{})) {
    EXPECT_EQ(entry, place);
    place += sizeof(void*);
  }
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
