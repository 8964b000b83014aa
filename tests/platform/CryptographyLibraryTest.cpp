#include "platform/CryptographyLibrary.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>

namespace mirel {
namespace {

[[noreturn]] void exitTellingOfCleanup(bool leavesItToExit) {
  if (leavesItToExit) leaveCryptographyLibraryToExit();
  (void)OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);  // its first use
  OPENSSL_atexit([] { (void)std::fputs("cleaned up", stderr); });
  std::exit(0);
}

TEST(CryptographyLibraryDeathTest, IsNotTakenApartAtExitOnceThatIsLeftToTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, where the library was not used yet
  EXPECT_EXIT(exitTellingOfCleanup(false), testing::ExitedWithCode(0), "cleaned up");
  EXPECT_EXIT(exitTellingOfCleanup(true), testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace mirel
