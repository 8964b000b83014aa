/// What keeps the memory of a process with a PIN from others.

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <fstream>
#include <iterator>

#include "KeyTest.h"
#include "PseudoTerminal.h"

namespace mirel::test {
namespace {

using ::testing::ContainsRegex;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kHasSanitizer = true;
#elif defined(__has_feature)
constexpr bool kHasSanitizer = __has_feature(address_sanitizer);
#else
constexpr bool kHasSanitizer = false;
#endif

std::string contentOf(const std::string& file) {
  std::ifstream in{file, std::ios::binary};
  return {std::istreambuf_iterator<char>{in}, {}};
}

class PinMemory : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (IsSkipped()) return;
    makeCard({{"rsa2048", "01", "Signature"}});
    // What a shell that wants core files sets.
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &before_), 0);
    const rlimit most{before_.rlim_max, before_.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_CORE, &most), 0);
  }
  void TearDown() override {
    (void)setrlimit(RLIMIT_CORE, &before_);
    KeyTest::TearDown();
  }

  /// A process that has the PIN in its memory: it is within C_Login.
  [[nodiscard]] Invocation loginThatPauses() const {
    std::filesystem::remove(path("calls"));
    Invocation call = staged({"login", "--pin-file", write("pin", kPin)});
    call.environment["MIREL_STAGED_PAUSE"] = "C_Login";
    return call;
  }

 private:
  rlimit before_{};
};

TEST_F(PinMemory, GoesIntoNoCoreFile) {
  const RunningChild child{loginThatPauses()};
  ASSERT_TRUE(waitForStagedCallOf("dumpable 0"));
  EXPECT_THAT(contentOf("/proc/" + std::to_string(child.pid()) + "/limits"),
              ContainsRegex("Max core file size +0 +0 "));
}

TEST_F(PinMemory, IsLocked) {
  if (kHasSanitizer) GTEST_SKIP() << "sanitizers leave out mlock";
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
  if (limit.rlim_cur == 0) GTEST_SKIP() << "no memory may be locked here";
  const RunningChild child{loginThatPauses()};
  ASSERT_TRUE(waitForStagedCallOf("C_Login"));
  EXPECT_THAT(contentOf("/proc/" + std::to_string(child.pid()) + "/status"),
              ContainsRegex("VmLck:[ \t]+[1-9][0-9]* kB"));
}

}  // namespace
}  // namespace mirel::test
