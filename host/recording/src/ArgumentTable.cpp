#include "ArgumentTable.h"

#include <algorithm>
#include <array>

namespace mirel::recording {
namespace {

using enum ArgumentKind;

constexpr Argument kInitialize[] = {{"initArgs", kGiven}};
constexpr Argument kFinalize[] = {{"reserved", kGiven}};
constexpr Argument kGetInfo[] = {{"info", kInfo}};
constexpr Argument kGetSlotList[] = {{"tokenPresent", kNumber}, {"slots", kSlots}};
constexpr Argument kGetSlotInfo[] = {{"slot", kNumber}, {"info", kSlotInfo}};
constexpr Argument kGetTokenInfo[] = {{"slot", kNumber}, {"info", kTokenInfo}};
constexpr Argument kOpenSession[] = {
    {"slot", kNumber}, {"flags", kNumber}, {"application", kGiven}, {"notify", kGiven}, {"session", kHandle}};
constexpr Argument kSessionOnly[] = {{"session", kNumber}};
constexpr Argument kGetSessionInfo[] = {{"session", kNumber}, {"info", kSessionInfo}};
constexpr Argument kLogin[] = {{"session", kNumber}, {"userType", kNumber}, {"pin", kPin}};
constexpr Argument kFindObjectsInit[] = {{"session", kNumber}, {"attributes", kSearch}};
constexpr Argument kFindObjects[] = {{"session", kNumber}, {"objects", kFound}};
constexpr Argument kGetAttributeValue[] = {{"session", kNumber}, {"object", kNumber}, {"attributes", kQuery}};
constexpr Argument kUseInit[] = {{"session", kNumber}, {"mechanism", kMechanism}, {"key", kNumber}};
constexpr Argument kSign[] = {{"session", kNumber}, {"data", kData}, {"signature", kSignature}};
constexpr Argument kDecrypt[] = {{"session", kNumber}, {"cipherText", kData}, {"plainText", kPlainText}};
constexpr Argument kDeriveKey[] = {{"session", kNumber},
                                   {"mechanism", kMechanism},
                                   {"baseKey", kNumber},
                                   {"attributes", kSearch},
                                   {"key", kHandle}};

/// Every function that the bridge calls.
constexpr FunctionRow kFunctions[] = {
    {"C_Initialize", kInitialize},
    {"C_Finalize", kFinalize},
    {"C_GetInfo", kGetInfo},
    {"C_GetSlotList", kGetSlotList},
    {"C_GetSlotInfo", kGetSlotInfo},
    {"C_GetTokenInfo", kGetTokenInfo},
    {"C_OpenSession", kOpenSession},
    {"C_CloseSession", kSessionOnly},
    {"C_GetSessionInfo", kGetSessionInfo},
    {"C_Login", kLogin},
    {"C_FindObjectsInit", kFindObjectsInit},
    {"C_FindObjects", kFindObjects},
    {"C_FindObjectsFinal", kSessionOnly},
    {"C_GetAttributeValue", kGetAttributeValue},
    {"C_SignInit", kUseInit},
    {"C_Sign", kSign},
    {"C_DecryptInit", kUseInit},
    {"C_Decrypt", kDecrypt},
    {"C_DeriveKey", kDeriveKey},
};

struct AttributeRow {
  CK_ATTRIBUTE_TYPE type;
  std::string_view name;
  AttributeForm form;
};

constexpr AttributeRow kAttributes[] = {
    {CKA_CLASS, "CKA_CLASS", AttributeForm::kNumber},
    {CKA_TOKEN, "CKA_TOKEN", AttributeForm::kNumber},
    {CKA_PRIVATE, "CKA_PRIVATE", AttributeForm::kNumber},
    {CKA_LABEL, "CKA_LABEL", AttributeForm::kText},
    {CKA_VALUE, "CKA_VALUE", AttributeForm::kCertificate},
    {CKA_CERTIFICATE_TYPE, "CKA_CERTIFICATE_TYPE", AttributeForm::kNumber},
    {CKA_ISSUER, "CKA_ISSUER", AttributeForm::kBytes},
    {CKA_SERIAL_NUMBER, "CKA_SERIAL_NUMBER", AttributeForm::kBytes},
    {CKA_KEY_TYPE, "CKA_KEY_TYPE", AttributeForm::kNumber},
    {CKA_SUBJECT, "CKA_SUBJECT", AttributeForm::kBytes},
    {CKA_ID, "CKA_ID", AttributeForm::kBytes},
    {CKA_SENSITIVE, "CKA_SENSITIVE", AttributeForm::kNumber},
    {CKA_ENCRYPT, "CKA_ENCRYPT", AttributeForm::kNumber},
    {CKA_DECRYPT, "CKA_DECRYPT", AttributeForm::kNumber},
    {CKA_SIGN, "CKA_SIGN", AttributeForm::kNumber},
    {CKA_VERIFY, "CKA_VERIFY", AttributeForm::kNumber},
    {CKA_DERIVE, "CKA_DERIVE", AttributeForm::kNumber},
    {CKA_MODULUS, "CKA_MODULUS", AttributeForm::kBytes},
    {CKA_MODULUS_BITS, "CKA_MODULUS_BITS", AttributeForm::kNumber},
    {CKA_PUBLIC_EXPONENT, "CKA_PUBLIC_EXPONENT", AttributeForm::kBytes},
    {CKA_PRIVATE_EXPONENT, "CKA_PRIVATE_EXPONENT", AttributeForm::kHidden},
    {CKA_VALUE_LEN, "CKA_VALUE_LEN", AttributeForm::kNumber},
    {CKA_EXTRACTABLE, "CKA_EXTRACTABLE", AttributeForm::kNumber},
    {CKA_EC_PARAMS, "CKA_EC_PARAMS", AttributeForm::kBytes},
    {CKA_EC_POINT, "CKA_EC_POINT", AttributeForm::kBytes},
    {CKA_ALWAYS_AUTHENTICATE, "CKA_ALWAYS_AUTHENTICATE", AttributeForm::kNumber},
};

const AttributeRow* attributeRow(CK_ATTRIBUTE_TYPE type) noexcept {
  const auto* row = std::find_if(std::begin(kAttributes), std::end(kAttributes),
                                 [type](const AttributeRow& one) { return one.type == type; });
  return row == std::end(kAttributes) ? nullptr : row;
}

}  // namespace

std::size_t numWordsOf(ArgumentKind kind) noexcept {
  switch (kind) {
    case kNumber:
    case kGiven:
    case kMechanism:
    case kInfo:
    case kSlotInfo:
    case kTokenInfo:
    case kSessionInfo:
    case kHandle: return 1;
    case kPin:
    case kData:
    case kSearch:
    case kQuery:
    case kSignature:
    case kPlainText:
    case kSlots: return 2;
    case kFound: return 3;
  }
  return 0;
}

std::span<const FunctionRow> functionTable() noexcept { return kFunctions; }

const FunctionRow* rowOf(std::string_view function) noexcept {
  const auto* row = std::find_if(std::begin(kFunctions), std::end(kFunctions),
                                 [function](const FunctionRow& one) { return one.function == function; });
  return row == std::end(kFunctions) ? nullptr : row;
}

AttributeForm attributeForm(CK_ATTRIBUTE_TYPE type) noexcept {
  const AttributeRow* row = attributeRow(type);
  return row ? row->form : AttributeForm::kHidden;
}

std::string_view attributeName(CK_ATTRIBUTE_TYPE type) noexcept {
  const AttributeRow* row = attributeRow(type);
  return row ? row->name : std::string_view{};
}

}  // namespace mirel::recording
