#include "recording/AnonymousRecording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Hex.h"
#include "platform/Text.h"
#include "recording/RecordingFile.h"

namespace mirel::recording {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

ByteVector bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

std::string padded(std::string text, std::size_t size) {
  text.resize(size, ' ');
  return text;
}

ByteVector der(std::uint8_t tag, std::initializer_list<ByteVector> parts) {
  ByteVector content;
  for (const ByteVector& part : parts) content.insert(content.end(), part.begin(), part.end());
  const auto size = static_cast<std::uint8_t>(content.size());
  ByteVector value{tag, size};
  if (content.size() >= 0x80) value = {tag, 0x81, size};
  if (content.size() >= 0x100) value = {tag, 0x82, static_cast<std::uint8_t>(content.size() >> 8U), size};
  value.insert(value.end(), content.begin(), content.end());
  return value;
}

ByteVector nameOf(std::uint8_t tag, const ByteVector& commonName) {
  return der(0x30, {der(0x31, {der(0x30, {der(0x06, {{0x55, 0x04, 0x03}}), der(tag, {commonName})})})});
}

const ByteVector kSerialNumber{0x4F, 0x3D, 0x2C, 0x1B, 0x0A, 0x77};
const ByteVector kLongID{0x91, 0x83, 0x75, 0x67, 0x59, 0x4B, 0x3D, 0x2F};
const ByteVector kKey =
    der(0x30, {der(0x30, {der(0x06, {{0x2A, 0x03}})}), der(0x03, {ByteVector(70, 0x5A)})});

/// With the name in UTF-8 for the subject and in UTF-16 for the issuer.
ByteVector certificate() {
  ByteVector utf16;
  for (const char one : std::string_view{"Jane Doe"})
    utf16.insert(utf16.end(), {0, static_cast<std::uint8_t>(one)});
  const ByteVector algorithm = der(0x30, {der(0x06, {{0x2A, 0x03}})});
  const ByteVector time = der(0x17, {bytesOf("300102030405Z")});
  const ByteVector toBeSigned = der(0x30, {der(0x02, {kSerialNumber}), algorithm, nameOf(0x1E, utf16),
                                           der(0x30, {time, time}), nameOf(0x0C, bytesOf("Jane Doe")), kKey});
  return der(0x30, {toBeSigned, algorithm, der(0x03, {ByteVector(64, 0x33)})});
}

Value attribute(const char* type, Value value) {
  return {Fields{{"type", {std::string{type}}}, {"value", std::move(value)}}};
}

Recording janesRecording() {
  Recording recording;
  recording.header = {"0.1.0",
                      {"sign", "--key", "pkcs11:object=Jane%20Doe", "--key=91:83:75:67:59:4B:3D:2F",
                       "--reader", "Maker Reader (E0FAD7BD) 00", "--algorithm", "PS256"},
                      1'700'000'000,
                      "maker-pkcs11.so"};
  RecordedView view;
  view.view.readers.push_back({.name = "Maker Reader (E0FAD7BD) 00 00"});
  const Fields slotInfo{{"slotDescription", {padded("Maker Reader (E0FAD7BD) 00 00", 64)}},
                        {"manufacturerID", {padded("Maker", 32)}}};
  const Fields tokenInfo{{"label", {padded("Jane Doe's card", 32)}},
                         {"model", {padded("Model 3", 16)}},
                         {"serialNumber", {padded("PN70112-3345", 16)}}};
  const List search{attribute("CKA_LABEL", {std::string{"Jane Doe"}}), attribute("CKA_ID", {kLongID})};
  const List answers{
      attribute("CKA_VALUE", {certificate()}), attribute("CKA_SUBJECT", {nameOf(0x0C, bytesOf("Jane Doe"))}),
      attribute("CKA_SERIAL_NUMBER", {der(0x02, {kSerialNumber})}), attribute("CKA_MODULUS", {kKey}),
      attribute("CKA_START_DATE", {bytesOf("Jane's start")})};
  recording.records = {
      RecordedModule{"maker",
                     "/home/janedoe/lib/maker-pkcs11.so",
                     0,
                     "no file below /home/janedoe",
                     "janedoe may write",
                     "",
                     {}},
      RecordedLoading{"library", "/home/janedoe/lib/maker-pkcs11.so: no symbol"},
      std::move(view),
      RecordedCall{.function = "C_GetSlotInfo", .out = {{"info", {slotInfo}}}},
      RecordedCall{.function = "C_GetTokenInfo", .out = {{"info", {tokenInfo}}}},
      RecordedCall{.function = "C_FindObjectsInit", .in = {{"attributes", {search}}}},
      RecordedCall{.function = "C_GetAttributeValue", .out = {{"attributes", {answers}}}, .result = 0x12},
      RecordedCall{.function = "C_Sign",
                   .out = {{"signature",
                            {Fields{{"count", {std::uint64_t{64}}}, {"value", {ByteVector(64, 0x44)}}}}}}},
      RecordedEnd{{BadEnd::Kind::kExited},
                  false,
                  RecordedCall{.function = "C_FindObjectsInit", .in = {{"attributes", {search}}}}},
  };
  return recording;
}

const std::vector<std::string> kUsers{"janedoe"};

std::string base64(std::string_view bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t at = 0; at + 3 <= bytes.size(); at += 3) {
    unsigned three = 0;
    for (const char one : bytes.substr(at, 3)) three = three << 8U | static_cast<unsigned char>(one);
    for (const unsigned shift : {18U, 12U, 6U, 0U}) text += kDigits[three >> shift & 0x3FU];
  }
  return text;
}

std::string inLowerCase(std::string text) {
  for (char& one : text) one = one >= 'A' && one <= 'Z' ? static_cast<char>(one + 0x20) : one;
  return text;
}

/// The ways in which bytes can stand in a file; base64 at each of its three positions.
std::vector<std::string> formsOf(const std::string& original) {
  std::string utf16;
  for (const char one : original) utf16 += std::string{'\0', one};
  constexpr std::size_t kShortest = 4;  // a form of fewer characters stands anywhere
  std::vector<std::string> forms;
  for (const std::string& bytes : {original, utf16}) {
    forms.push_back(inLowerCase(bytes));
    forms.push_back(hexOfBytes(bytesOf(bytes), HexDigits::kLower));
    for (const std::size_t start : {0U, 1U, 2U}) forms.push_back(inLowerCase(base64(bytes.substr(start))));
  }
  std::erase_if(forms, [&](const std::string& form) {
    return form.size() < kShortest && form.size() < original.size();
  });
  return forms;
}

bool stands(const std::string& original, const std::string& file) {
  const std::vector<std::string> forms = formsOf(original);
  return std::any_of(forms.begin(), forms.end(), [lower = inLowerCase(file)](const std::string& form) {
    return lower.find(form) != std::string::npos;
  });
}

TEST(AnonymousRecording, HasNoOriginalInAnyForm) {
  const Recording recording = janesRecording();
  const std::string plain = textOf(recording);
  const std::string anonymous = textOf(anonymousRecording(recording, kUsers).recording);
  const std::string serialNumber{kSerialNumber.begin(), kSerialNumber.end()};
  const std::string id{kLongID.begin(), kLongID.end()};
  for (const std::string& original : {std::string{"Jane"}, std::string{"Doe"}, std::string{"janedoe"},
                                      std::string{"PN70112"}, std::string{"E0FAD7BD"}, serialNumber, id}) {
    SCOPED_TRACE(original);
    EXPECT_TRUE(stands(original, plain));
    EXPECT_FALSE(stands(original, anonymous)) << anonymous;
  }
}

TEST(AnonymousRecording, IsAsLongAsBeforeAndCanBeRead) {
  const Recording recording = janesRecording();
  const Recording anonymous = anonymousRecording(recording, kUsers).recording;
  ASSERT_EQ(anonymous.records.size(), recording.records.size());
  for (std::size_t i = 0; i < anonymous.records.size(); ++i)
    EXPECT_EQ(lineOf(anonymous.records[i]).size(), lineOf(recording.records[i]).size()) << i;
  const ReadRecording read = readRecording(textOf(anonymous));
  EXPECT_EQ(read.refusal, "");
}

TEST(AnonymousRecording, KeepsWhatNamesNobody) {
  const std::string text = textOf(anonymousRecording(janesRecording(), kUsers).recording);
  for (const char* kept :
       {"Model 3", "Maker Reader (", ") 00 00", "maker-pkcs11.so", "no symbol", "may write", "PS256"})
    EXPECT_THAT(text, HasSubstr(kept));
  for (const ByteVector& kept : {kKey, ByteVector(64, 0x44), bytesOf("300102030405Z")})
    EXPECT_THAT(text, HasSubstr(hexOfBytes(kept, HexDigits::kUpper)));
}

TEST(AnonymousRecording, NamesTheSameKeyInTheCommand) {
  const Recording anonymous = anonymousRecording(janesRecording(), kUsers).recording;
  EXPECT_THAT(anonymous.header.command,
              ElementsAre("sign", "--key", "pkcs11:object=Laab%20Lab", "--key=80:00:00:00:00:00:00:01",
                          "--reader", "Maker Reader (R0ADE0AB) 00", "--algorithm", "PS256"));
  const auto& search = std::get<RecordedCall>(anonymous.records[5]);
  const List expected{attribute("CKA_LABEL", {std::string{"Laab Lab"}}),
                      attribute("CKA_ID", {ByteVector{0x80, 0, 0, 0, 0, 0, 0, 1}})};
  EXPECT_EQ(search.in[0].value, Value{expected});
  const auto& token = std::get<RecordedCall>(anonymous.records[4]);
  EXPECT_EQ(std::get<Fields>(token.out[0].value.held)[0].value, Value{padded("Laab Lab'b laac", 32)});
}

TEST(AnonymousRecording, ReplacesWhatACommandCallsAKey) {
  const std::pair<const char*, const char*> rows[] = {
      {"pkcs11:slot-id=3;type=secret-key;model=Model%203;object=Abbe",
       "pkcs11:slot-id=3;type=secret-key;model=Model%203;object=Laab"},
      {"PKCS11:object=Abbe", "PKCS11:object=Laab"},
      {"Abbe", "Laab"},
      {"abba", "abba"},
      {"0abb", "0abb"},
      {"#3", "#3"},
  };
  for (const auto& [key, expected] : rows) {
    Recording recording;
    recording.header.command = {"sign", "--key", key};
    recording.records.push_back(
        RecordedCall{.function = "C_FindObjectsInit",
                     .in = {{"attributes", {List{attribute("CKA_LABEL", {std::string{"Abbe"}})}}}}});
    EXPECT_THAT(anonymousRecording(recording, {}).recording.header.command,
                ElementsAre("sign", "--key", expected));
  }
}

TEST(AnonymousRecording, KeepsWhichFunctionsAModuleLacks) {
  Recording recording;
  recording.records.push_back(RecordedCall{.function = "C_GetFunctionList",
                                           .out = {{"missing", {List{{std::string{"C_DeriveKey"}}}}}}});
  EXPECT_EQ(textOf(anonymousRecording(recording, {}).recording), textOf(recording));
}

TEST(AnonymousRecording, ReplacesNamesOfUsersWithinPartsOfPaths) {
  const std::pair<const char*, const char*> rows[] = {
      {"/opt/janedoe-build/x.so", "/opt/useraab-build/x.so"},
      {"/opt/x_janedoe.so: no file", "/opt/x_useraab.so: no file"},
      {"/opt/janedoes/ab.so", "/opt/janedoes/ab.so"},
      {"/mnt/so/libx.so", "/mnt/ab/libx.so"},
  };
  for (const auto& [error, expected] : rows) {
    Recording recording;
    recording.records.push_back(RecordedLoading{"library", error});
    const Recording anonymous =
        anonymousRecording(recording, std::vector<std::string>{"janedoe", "so"}).recording;
    EXPECT_EQ(std::get<RecordedLoading>(anonymous.records[0]).error, expected);
  }
}

TEST(AnonymousRecording, SaysWhatWasReplaced) {
  const AnonymousRecording anonymous = anonymousRecording(janesRecording(), kUsers);
  EXPECT_THAT(anonymous.recording.header.replaced,
              ElementsAre("names of readers: 2", "labels: 2", "serial numbers: 2", "names of users: 1",
                          "long IDs of keys: 1", "other texts and bytes: 1"));
  ASSERT_FALSE(anonymous.pseudonyms.replaced().empty());
  EXPECT_EQ(anonymous.pseudonyms.replaced().front().original, "janedoe");
  EXPECT_EQ(anonymous.pseudonyms.replaced().front().pseudonym, "useraab");
}

TEST(AnonymousRecording, ReplacesShortIDsOnlyWithLetters) {
  const struct {
    ByteVector id;
    bool isReplaced;
  } rows[] = {{{}, false},
              {{0x01}, false},
              {{0x45, 0x01, 0x46}, false},
              {bytesOf("1234"), false},
              {bytesOf("12345"), true},
              {bytesOf("Ada"), true}};
  for (const auto& [id, isReplaced] : rows) {
    Recording recording;
    recording.records.push_back(RecordedCall{.function = "C_FindObjectsInit",
                                             .in = {{"attributes", {List{attribute("CKA_ID", {id})}}}}});
    const Recording anonymous = anonymousRecording(recording, {}).recording;
    EXPECT_EQ(textOf(anonymous) != textOf(recording), isReplaced) << hexOfBytes(id, HexDigits::kLower);
  }
}

}  // namespace
}  // namespace mirel::recording
