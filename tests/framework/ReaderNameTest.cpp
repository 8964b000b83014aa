/// How operations compare the name of a reader with the record's slot description: not at all when there is
/// no name, else with its start.

#include <functional>
#include <ostream>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

const Value kSomeCipher = cipherOf(bytesOf("plain"));

/// An operation that looks at the name, and whether it went on.
struct NamedOperation {
  const char* name;
  bool takesText;  ///< and compares its units; the others compare bytes, and none above 0x7F matches
  std::function<bool(MirelCTKFramework&, const std::string& bytes)> passes;
};

const NamedOperation kNamedOperations[] = {
    {"IsCardStateChanged", false,
     [](auto& framework, const auto& name) { return !framework.IsCardStateChanged(name.c_str()); }},
    {"PerformSignHash", false,
     [](auto& framework, const auto& name) {
       CK_BYTE output[256];
       CK_ULONG length = sizeof output;
       return framework.PerformSignHash(name.c_str(), framework.p11ServiceInfo()->pAsymKeys()->front(),
                                        Text{}, 0, kSomeCipher.data(), kSomeCipher.size(), output, &length);
     }},
    {"PerformOAEPDecrypt", false,
     [](auto& framework, const auto& name) {
       CK_BYTE output[256];
       CK_ULONG length = 0;
       return framework.PerformOAEPDecrypt(name.c_str(), framework.p11ServiceInfo()->pAsymKeys()->front(),
                                           CKM_SHA256, kSomeCipher.data(), kSomeCipher.size(), output,
                                           &length, 256);
     }},
    {"PerformPKCS1Decrypt", false,
     [](auto& framework, const auto& name) {
       CK_BYTE output[256];
       CK_ULONG length = 0;
       return framework.PerformPKCS1Decrypt(name.c_str(), framework.p11ServiceInfo()->pAsymKeys()->front(),
                                            kSomeCipher.data(), kSomeCipher.size(), output, &length, 256);
     }},
    {"BindingKeyCert", true,
     [](auto& framework, const auto& name) {
       const Text text = Text::fromBytes({reinterpret_cast<const std::uint8_t*>(name.data()), name.size()});
       return framework.BindingKeyCert(text, kPublicKey, nullptr);
     }},
};

void PrintTo(const NamedOperation& operation, std::ostream* out) { *out << operation.name; }

class ReaderName : public FrameworkTest, public ::testing::WithParamInterface<NamedOperation> {
 protected:
  ReaderName() {
    (void)openAndList();
    script.card().loggedIn = true;
  }

  void expectPasses(const std::string& name, bool passes) {
    script.forgetCalls();
    EXPECT_EQ(GetParam().passes(*framework, name), passes);
    EXPECT_EQ(script.calls().empty(), !passes) << "a name that differs is enough to know";
  }
};

INSTANTIATE_TEST_SUITE_P(All, ReaderName, ::testing::ValuesIn(kNamedOperations),
                         [](const auto& row) { return row.param.name; });

TEST_P(ReaderName, IsComparedWithTheStartOfTheStoredDescription) {
  const std::string full = "Reader A " + std::string(55, 'x');
  const struct {
    const char* what;
    std::string description;
    std::string name;
    bool passes = false;
    bool passesAsText = passes;
  } rows[] = {
      {"the same name", "Reader A 00", "Reader A 00", true},
      {"with padding", "Reader A 00", "Reader A 00  ", true},
      {"a prefix", "Reader A 00", "R", true},
      {"an empty name", "Reader A 00", "", true},
      {"all 64 characters", full, full, true},
      {"the last of 64 differs", full, full.substr(0, 63) + "y"},
      {"65 characters that go on as the manufacturer does", full, full + "S"},
      {"the description and the whole manufacturer", full, full + "Scripted readers                "},
      {"very long", full, std::string(100000, 'R')},
      {"another name", "Reader A 00", "Reader B 00"},
      {"the first character differs", "Reader A 00", "Xeader A 00"},
      {"another case", "Reader A 00", "reader A 00"},
      {"one character too many", "Reader A 00", "Reader A 001"},
      {"not at the start", "Reader A 00", "A 00"},
      {"the byte 0x7F in both", "Reader \x7F", "Reader \x7F", true},
      // Bytes of a name are signed, those of the description are not.
      {"the byte 0x80 in both", "Reader \x80", "Reader \x80", false, true},
      {"the byte 0xFF in both", "\xFF", "\xFF", false, true},
      {"up to a byte above 0x7F", "Reader \xC3\xA4", "Reader ", true},
      {"another byte above 0x7F", "Reader \xE9", "Reader \xE8"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    setStoredDescription(row.description);
    expectPasses(row.name, GetParam().takesText ? row.passesAsText : row.passes);
  }
}

TEST_P(ReaderName, IsComparedWithTheRecordNotWithTheModule) {
  setField(script.slot().info.slotDescription, "Reader B 00");
  expectPasses("Reader A 00", true);
  expectPasses("Reader B 00", false);
}

TEST_P(ReaderName, MatchesNoMoreThanTheDescriptionOfAStructureWithoutAZeroByte) {
  CK_SLOT_INFO info{};
  setField(info.slotDescription, std::string(64, 'A'));
  setField(info.manufacturerID, std::string(32, 'A'));
  info.flags = 0x4141414141414141;
  info.hardwareVersion = {'A', 'A'};
  info.firmwareVersion = {'A', 'A'};
  record().setSlotInfo(info);
  expectPasses(std::string(64, 'A'), true);
  for (const std::size_t length : {65U, 96U, 104U, 112U, 113U, 200U})
    expectPasses(std::string(length, 'A'), false);
}

using ReaderNameText = FrameworkTest;

TEST_F(ReaderNameText, IsTakenForEmptyWhenItIsNull) {
  (void)openAndList();
  script.card().loggedIn = true;
  EXPECT_FALSE(framework->IsCardStateChanged(nullptr));
  CK_BYTE output[256];
  CK_ULONG length = 256;
  EXPECT_TRUE(framework->PerformPKCS1Decrypt(nullptr, keys().front(), kSomeCipher.data(), kSomeCipher.size(),
                                             output, &length, 256));
  EXPECT_TRUE(framework->BindingKeyCert(Text{}, kPublicKey, nullptr));
}

TEST_F(ReaderNameText, DoesNotMatchWhereOnlyTheLowBytesAreAlike) {
  (void)openAndList();
  EXPECT_FALSE(framework->BindingKeyCert(Text{u"\u0152eader"}, kPublicKey, nullptr));
  setStoredDescription("Lecteur \xE9");
  EXPECT_FALSE(framework->BindingKeyCert(Text{u"Lecteur \u01E9"}, kPublicKey, nullptr));
}

}  // namespace
}  // namespace mirel::test
