/// How operations compare the name of a reader with the record's slot description: not at all when there is
/// no name, else with its start. What begins with what is in bridge/SlotDescriptionTest.cpp.

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

/// What the operations with a key write, whatever it is.
CK_BYTE anyOutput[256];
CK_ULONG anyLength = 256;

const NamedOperation kNamedOperations[] = {
    {"IsCardStateChanged", false,
     [](auto& framework, const auto& name) { return !framework.IsCardStateChanged(name.c_str()); }},
    {"PerformSignHash", false,
     [](auto& framework, const auto& name) {
       anyLength = 256;
       return framework.PerformSignHash(name.c_str(), framework.p11ServiceInfo()->pAsymKeys()->front(),
                                        Text{}, 0, kSomeCipher.data(), kSomeCipher.size(), anyOutput,
                                        &anyLength);
     }},
    {"PerformOAEPDecrypt", false,
     [](auto& framework, const auto& name) {
       return framework.PerformOAEPDecrypt(name.c_str(), framework.p11ServiceInfo()->pAsymKeys()->front(),
                                           CKM_SHA256, kSomeCipher.data(), kSomeCipher.size(), anyOutput,
                                           &anyLength, 256);
     }},
    {"PerformPKCS1Decrypt", false,
     [](auto& framework, const auto& name) {
       return framework.PerformPKCS1Decrypt(name.c_str(), framework.p11ServiceInfo()->pAsymKeys()->front(),
                                            kSomeCipher.data(), kSomeCipher.size(), anyOutput, &anyLength,
                                            256);
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
  setField(script.slot().info.slotDescription, "Reader B 00");  // the record's counts, not the module's
  for (const char* name : {"Reader A 00", "Reader A 00  ", "R", ""}) expectPasses(name, true);
  for (const char* name : {"Reader B 00", "reader A 00", "Reader A 001", "A 00"}) expectPasses(name, false);
  expectPasses(std::string(100000, 'R'), false);
  // Bytes of a name are signed, those of the description are not.
  setStoredDescription("Reader \x80");
  expectPasses("Reader ", true);
  expectPasses("Reader \x80", GetParam().takesText);
  expectPasses("Reader \x81", false);
}

using ReaderNameText = FrameworkTest;

TEST_F(ReaderNameText, IsTakenForEmptyWhenItIsNull) {
  (void)openAndList();
  script.card().loggedIn = true;
  EXPECT_FALSE(framework->IsCardStateChanged(nullptr));
  EXPECT_TRUE(framework->PerformPKCS1Decrypt(nullptr, keys().front(), kSomeCipher.data(), kSomeCipher.size(),
                                             anyOutput, &anyLength, 256));
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
