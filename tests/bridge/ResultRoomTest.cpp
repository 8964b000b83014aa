/// The room that is announced to the module for a result, and the caller's buffer, which may be smaller.

#include "KeyOperations.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::Not;

constexpr CK_ULONG kLargestRoom = 65536;

using ResultRoom = KeyOperations;

INSTANTIATE_TEST_SUITE_P(All, ResultRoom, ::testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

TEST_P(ResultRoom, HaveTheResultWrittenIntoALargeEnoughBufferOrAnnounceMoreRoomThanItHas) {
  for (const CK_ULONG room : {256UL, 511UL, 512UL, 700UL}) {
    SCOPED_TRACE(room);
    memory->reset();
    ResultBuffer output{room > 512 ? 256U : 512U};
    EXPECT_EQ(runWithRoom(room, output), CKR_OK);
    EXPECT_EQ(length, result().size());
    EXPECT_EQ(output.first(length), result());
    EXPECT_TRUE(output.untouchedFrom(length));
    EXPECT_THAT(script.callTexts().back(), EndsWith(", room " + std::to_string(room) + ")"));
    EXPECT_EQ(memory->requests().size(), room > 512 || GetParam().readsModulus ? 1U : 0U);
    if (room > 512) {
      EXPECT_EQ(memory->requests().back(), room);
    }
  }
}

TEST_P(ResultRoom, AnnounceATooSmallRoomToo) {
  if (GetParam().readsModulus) return;
  for (const CK_ULONG room : {CK_ULONG{0}, result().size() - 1}) {
    SCOPED_TRACE(room);
    ResultBuffer output{512};
    startAnewWithPlainText();
    EXPECT_EQ(runWithRoom(room, output), CKR_BUFFER_TOO_SMALL);
    EXPECT_THAT(script.callTexts().back(), EndsWith(", room " + std::to_string(room) + ")"));
    EXPECT_EQ(length, result().size());
    EXPECT_TRUE(output.untouched());
  }
  leavesActive({session});  // the standard keeps the operation open for another try
}

TEST_P(ResultRoom, TakeAResultThatOverflowsTheCallersBuffer) {
  const struct {
    const char* what;
    CK_ULONG room;
    std::size_t capacity;
  } rows[] = {
      {"512 bytes over 256", 512, 256},        {"1024 bytes over 512", 1024, 512},
      {"5000 bytes over 2000", 5000, 2000},    {"one byte over", 2001, 2000},
      {"the largest room", kLargestRoom, 256}, {"the smallest buffer", 512, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    memory->reset();
    ResultBuffer output{row.capacity};
    claim(row.room);
    EXPECT_EQ(runWithRoom(row.room, output), GetParam().tooLong);
    EXPECT_EQ(length, row.room);
    EXPECT_EQ(output.all(), resultAndFiller(row.capacity));
    EXPECT_EQ(memory->requests().back(), row.room);
    EXPECT_EQ(memory->outstanding(), 0U);
  }
}

TEST_P(ResultRoom, DoNotBelieveALengthBeyondTheRoom) {
  for (const CK_ULONG claimed : {513UL, 600UL, 1UL << 40U, kAllOnes}) {
    // In the caller's buffer, and in memory of the bridge, of which only what was announced may be copied.
    for (const std::size_t capacity : {512U, 300U}) {
      SCOPED_TRACE(::testing::Message() << claimed << " into " << capacity);
      claim(claimed);
      ResultBuffer output{capacity};
      EXPECT_EQ(runWithRoom(512, output), GetParam().tooLong);
      EXPECT_EQ(length, claimed);
      EXPECT_EQ(output.all(), resultAndFiller(capacity));
    }
  }
}

TEST_P(ResultRoom, JudgeTheLengthByTheCapacity) {
  for (const CK_ULONG claimed : {0UL, 1UL, 299UL, 300UL, 301UL}) {
    for (const CK_ULONG room : {300UL, 400UL}) {
      SCOPED_TRACE(::testing::Message() << claimed << " in " << room);
      claim(claimed);
      ResultBuffer output{300};
      EXPECT_EQ(runWithRoom(room, output), claimed <= 300 ? CKR_OK : GetParam().tooLong);
      EXPECT_EQ(length, claimed);
      const std::size_t copied = std::min<std::size_t>(claimed, 300);
      EXPECT_EQ(output.first(copied), resultAndFiller(copied));
      EXPECT_TRUE(output.untouchedFrom(copied));
    }
  }
}

TEST_P(ResultRoom, CopyZerosWhereTheModuleWroteNothing) {
  // Never what lay in the memory before.
  claim(300, 10);
  ResultBuffer output{256};
  EXPECT_EQ(runWithRoom(400, output), GetParam().tooLong);
  Value expected = resultAndFiller(10);
  expected.resize(256, 0);
  EXPECT_EQ(output.all(), expected);
}

TEST_P(ResultRoom, RefuseAnAbsurdRoomBeforeAnyMemoryIsTakenAndOneThatCannotBeHad) {
  for (const CK_ULONG room : {700UL, kLargestRoom + 1, 1UL << 32U, 1UL << 40U, kAllOnes - 1}) {
    SCOPED_TRACE(room);
    memory->reset();
    // All that is asked for: a modulus of that length is not fetched.
    if (room == 700) memory->failAllocation(0);
    ResultBuffer output{256};
    EXPECT_EQ(runWithRoom(room, output), CKR_HOST_MEMORY);
    EXPECT_EQ(memory->fired(), room == 700);
    EXPECT_LE(memory->largestRequest(), 700U);
    EXPECT_EQ(numBegun(), 0U);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_P(ResultRoom, WipeTheirRoomWhateverTheModuleAnswers) {
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    const auto write = [fails](auto real, CK_SESSION_HANDLE of, CK_BYTE* bytes, CK_ULONG numBytes,
                               CK_BYTE* output, CK_ULONG* len) -> CK_RV {
      (void)real(of, bytes, numBytes, output, len);
      std::fill_n(output, 300, CK_BYTE{0x99});
      *len = 1024;
      return fails ? kSomeFailure : CKR_OK;
    };
    script.hook<&CK_FUNCTION_LIST::C_Sign>(write);
    script.hook<&CK_FUNCTION_LIST::C_Decrypt>(write);
    memory->reset();
    ResultBuffer output{256};
    EXPECT_EQ(runWithRoom(700, output), fails ? kSomeFailure : GetParam().tooLong);
    EXPECT_EQ(length, 1024U);
    EXPECT_EQ(output.untouched(), fails) << "what a failing module wrote is not copied";
    EXPECT_THAT(memory->requests(), Contains(700U));
    EXPECT_THAT(memory->releasedUnwiped(), Not(Contains(700U)));
  }
}

TEST_P(ResultRoom, LeaveTheLengthThatAFailingModuleWrote) {
  script.deviations.lengthsOnFailure[GetParam().function] = 1024;
  script.failCallOf(GetParam().function, 0, kSomeFailure);
  ResultBuffer output{512};
  EXPECT_EQ(run(output), kSomeFailure);
  EXPECT_EQ(length, 1024U);
  EXPECT_TRUE(output.untouched());
}

}  // namespace
}  // namespace mirel::test
