/// The token's instance identifier.

#include <cstring>

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using List = CK_FUNCTION_LIST;

/// `text` with blanks up to `size` characters.
std::u16string padded(std::u16string_view text, std::size_t size) {
  std::u16string result{text};
  result.resize(size, u' ');
  return result;
}

class TokenDescription : public ProviderTest {
 protected:
  TokenDescription() {
    init();
    CK_TOKEN_INFO& info = cardInfo();
    setField(info.label, "TESTCARD");
    setField(info.manufacturerID, "Maker");
    setField(info.model, "Model");
    setField(info.serialNumber, "1234");
  }

  CK_TOKEN_INFO& cardInfo() { return script.card().info; }
  void expectDescription(const std::u16string& expected) {
    EXPECT_EQ(provider->getSupportedTokenDescription(reader()), Text{expected});
  }

  /// Label, manufacturer, model and serial number as set above: 96 characters.
  const std::u16string fields =
      padded(u"TESTCARD", 32) + padded(u"Maker", 32) + padded(u"Model", 16) + padded(u"1234", 16);
  const std::u16string serialNumber = padded(u"1234", 16);
};

TEST_F(TokenDescription, JoinsTheFieldsWithTheFlagsAndTheSerialNumberWithThem) {
  cardInfo().flags = 0x40D;
  expectDescription(
      u"TESTCARD                        "  // 32
      u"Maker                           "  // 32
      u"Model           1234            "  // 16 + 16
      u"\u000D\u0004"                      // 2
      u"1234            \u000D\u0004");    // 16 + 2
}

TEST_F(TokenDescription, TakesInTheBytesOfTheFlagsFromTheLowestUpToAZeroByte) {
  const struct {
    CK_FLAGS flags;
    std::u16string bytes;
  } kRows[] = {
      {0, u""},
      {0x400, u""},
      {0x0D, u"\u000D"},
      {0x040D, u"\u000D\u0004"},
      {0x04000D, u"\u000D"},
      {0x04040D, u"\u000D\u0004\u0004"},
      {0x8040FF, u"\u00FF\u0040\u0080"},
      {0xFFFFFFFF, u"\u00FF\u00FF\u00FF\u00FF"},
      {0x0123456789ABCDEF, u"\u00EF\u00CD\u00AB\u0089\u0067\u0045\u0023\u0001"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.flags);
    cardInfo().flags = row.flags;
    expectDescription(fields + row.bytes + serialNumber + row.bytes);
  }
}

TEST_F(TokenDescription, EndsWhereverAFieldHoldsAZeroByte) {
  cardInfo().flags = 0x21;
  const std::u16string rest = serialNumber + u"!";
  const auto expectWithZeroAt = [&](CK_BYTE& byte, const std::u16string& expected) {
    const CK_BYTE before = std::exchange(byte, CK_BYTE{0});
    expectDescription(expected);
    byte = before;
  };
  expectWithZeroAt(cardInfo().label[0], rest);
  expectWithZeroAt(cardInfo().label[31], fields.substr(0, 31) + rest);
  expectWithZeroAt(cardInfo().manufacturerID[0], fields.substr(0, 32) + rest);
  expectWithZeroAt(cardInfo().model[3], fields.substr(0, 67) + rest);
  expectWithZeroAt(cardInfo().serialNumber[0], fields.substr(0, 80));
  expectWithZeroAt(cardInfo().serialNumber[15], fields.substr(0, 95) + serialNumber.substr(0, 15));
}

TEST_F(TokenDescription, TakesBytesAsTheyAreAndIsEmptyForAModuleThatTellsNothing) {
  setField(cardInfo().label, "\x01\x7F\x80\xC3\xA9\xFF%s\n");
  cardInfo().flags = 0;
  const std::u16string label = padded(u"\u0001\u007F\u0080\u00C3\u00A9\u00FF%s\n", 32);
  expectDescription(label + fields.substr(32) + serialNumber);
  script.deviations.silent = {"C_GetTokenInfo"};
  expectDescription(u"");
  EXPECT_THAT(log->allLines, IsEmpty()) << "to tell nothing is no failure";
}

// ---- A structure without a zero byte ----

/// Every byte that the structure names, from the front: 204 of them, none zero.
std::u16string fillAll(CK_TOKEN_INFO& info) {
  setField(info.label, std::string(32, 'L'));
  setField(info.manufacturerID, std::string(32, 'M'));
  setField(info.model, std::string(16, 'O'));
  setField(info.serialNumber, std::string(16, 'S'));
  info.flags = 0x0101010101010101;
  for (CK_ULONG* const counter :
       {&info.ulMaxSessionCount, &info.ulSessionCount, &info.ulMaxRwSessionCount, &info.ulRwSessionCount,
        &info.ulMaxPinLen, &info.ulMinPinLen, &info.ulTotalPublicMemory, &info.ulFreePublicMemory,
        &info.ulTotalPrivateMemory, &info.ulFreePrivateMemory}) {
    *counter = 0x0202020202020202;
  }
  info.hardwareVersion = {3, 4};
  info.firmwareVersion = {5, 6};
  setField(info.utcTime, std::string(16, 'T'));
  return std::u16string(32, u'L') + std::u16string(32, u'M') + std::u16string(16, u'O') +
         std::u16string(16, u'S') + std::u16string(8, u'\u0001') + std::u16string(80, u'\u0002') +
         u"\u0003\u0004\u0005\u0006" + std::u16string(16, u'T');
}

TEST_F(TokenDescription, RunsOnWithoutAZeroByteInTheFlagsUpToTheLastMemberEvenWhenThePaddingBehindItIsFull) {
  const std::u16string all = fillAll(cardInfo());
  ASSERT_EQ(all.size(), 204U);
  cardInfo().ulMaxSessionCount = 0;
  expectDescription(all.substr(0, 104) + all.substr(80, 24));
  cardInfo().ulMaxSessionCount = 0x0202;
  expectDescription(all.substr(0, 106) + all.substr(80, 26));
  cardInfo().ulMaxSessionCount = 0x0202020202020202;
  cardInfo().utcTime[15] = 0;
  expectDescription(all.substr(0, 203) + all.substr(80, 123));
  cardInfo().utcTime[15] = 'T';
  expectDescription(all + all.substr(80));
  script.hook<&List::C_GetTokenInfo>([](auto, CK_SLOT_ID, CK_TOKEN_INFO* info) -> CK_RV {
    std::memset(static_cast<void*>(info), 'P', sizeof *info);
    return CKR_OK;
  });
  expectDescription(std::u16string(204 + 124, u'P'));
}

// ---- Which card ----

constexpr const char* kFailedLine =
    "error: [CryptTKitSProvider: 54] -[CryptTKitSProvider getSupportedTokenDescription:] "
    "_pCTKFramework EnumCards failed";

TEST_F(TokenDescription, IsThatOfTheCardInTheReaderNamedAskedAnewEachTime) {
  script.addSlot("Reader B 01", emptyCard("SECOND", "2"));
  const auto label = [&](const Text& name) {
    return std::u16string{provider->getSupportedTokenDescription(name).units().substr(0, 32)};
  };
  EXPECT_EQ(label(Text{u"Reader B 01"}), padded(u"SECOND", 32));
  EXPECT_EQ(label(reader()), padded(u"TESTCARD", 32));
  setField(cardInfo().label, "RENAMED");
  EXPECT_EQ(label(reader()), padded(u"RENAMED", 32));
}

TEST_F(TokenDescription, SelectsTheCardAndLogsAFailureOfThat) {
  failEachCall(kNumSelectingCalls, [&](FailPoint& point) {
    newProvider();
    init();
    point.arm();
    const Text description = provider->getSupportedTokenDescription(reader());
    // What concerns the session for the token information is harmless.
    const bool harmless = point.n() >= 7 || (point.n() == 5 && point.once());
    EXPECT_FALSE(description.isNull());
    EXPECT_EQ(description.isEmpty(), !harmless);
    EXPECT_EQ(log->allLines, harmless ? std::vector<std::string>{} : std::vector<std::string>{kFailedLine});
    EXPECT_EQ(framework().p11ServiceInfo() != nullptr, harmless);
  });
}

TEST_F(TokenDescription, IsEmptyAndLoggedWithAFrameworkWhoseServiceIsNotOpen) {
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  expectDescription(u"");
  EXPECT_THAT(log->allLines, ElementsAre(kFailedLine));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
