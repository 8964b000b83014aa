#include "module/Card.h"

#include <cstring>
#include <utility>

namespace mirel::test {
namespace {

Object objectOfClass(CK_OBJECT_CLASS objectClass, bool isPrivate, Value id, Value label) {
  Object object;
  object.attributes[CKA_CLASS] = ulongValue(objectClass);
  object.attributes[CKA_TOKEN] = boolValue(true);
  object.attributes[CKA_PRIVATE] = boolValue(isPrivate);
  object.attributes[CKA_ID] = std::move(id);
  object.attributes[CKA_LABEL] = std::move(label);
  return object;
}

Object withRsa(Object object, Value modulus) {
  object.attributes[CKA_KEY_TYPE] = ulongValue(CKK_RSA);
  object.attributes[CKA_MODULUS_BITS] = ulongValue(modulus.size() * 8);
  object.attributes[CKA_MODULUS] = std::move(modulus);
  object.attributes[CKA_PUBLIC_EXPONENT] = {0x01, 0x00, 0x01};
  return object;
}

}  // namespace

Value bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

std::string hexText(std::span<const CK_BYTE> bytes) {
  std::string text;
  for (const CK_BYTE byte : bytes) {
    for (const unsigned digit : {byte / 16U, byte % 16U}) text += "0123456789ABCDEF"[digit];
  }
  return text;
}

Value ulongValue(CK_ULONG number) {
  Value value(sizeof number);
  std::memcpy(value.data(), &number, sizeof number);
  return value;
}

Value boolValue(bool truth) { return {truth ? CK_TRUE : CK_FALSE}; }

Value patternValue(std::size_t size, CK_BYTE seed) {
  Value value(size);
  for (std::size_t i = 0; i < size; ++i) value[i] = static_cast<CK_BYTE>(seed + i * 7 + i / 256);
  return value;
}

Object Object::with(CK_ATTRIBUTE_TYPE type, Value value) const {
  Object copy = *this;
  copy.attributes[type] = std::move(value);
  return copy;
}

Object Object::without(CK_ATTRIBUTE_TYPE type) const {
  Object copy = *this;
  copy.attributes.erase(type);
  return copy;
}

bool Object::isPrivate() const {
  const auto found = attributes.find(CKA_PRIVATE);
  return found != attributes.end() && found->second == boolValue(true);
}

Object rsaPublicKey(Value id, Value label, Value modulus) {
  Object key =
      withRsa(objectOfClass(CKO_PUBLIC_KEY, false, std::move(id), std::move(label)), std::move(modulus));
  return key.with(CKA_ENCRYPT, boolValue(true)).with(CKA_VERIFY, boolValue(true));
}

Object rsaPrivateKey(Value id, Value label, Value modulus) {
  Object key =
      withRsa(objectOfClass(CKO_PRIVATE_KEY, true, std::move(id), std::move(label)), std::move(modulus));
  key.sensitive.insert(CKA_PRIVATE_EXPONENT);
  return key.with(CKA_PRIVATE_EXPONENT, patternValue(256, 0x5A))
      .with(CKA_SENSITIVE, boolValue(true))
      .with(CKA_DECRYPT, boolValue(true))
      .with(CKA_SIGN, boolValue(true));
}

Object ecPublicKey(Value id, Value label, Value params, Value point) {
  return objectOfClass(CKO_PUBLIC_KEY, false, std::move(id), std::move(label))
      .with(CKA_KEY_TYPE, ulongValue(CKK_EC))
      .with(CKA_EC_PARAMS, std::move(params))
      .with(CKA_EC_POINT, std::move(point))
      .with(CKA_VERIFY, boolValue(true));
}

Object ecPrivateKey(Value id, Value label, Value params) {
  return objectOfClass(CKO_PRIVATE_KEY, true, std::move(id), std::move(label))
      .with(CKA_KEY_TYPE, ulongValue(CKK_EC))
      .with(CKA_EC_PARAMS, std::move(params))
      .with(CKA_SENSITIVE, boolValue(true))
      .with(CKA_DERIVE, boolValue(true))
      .with(CKA_SIGN, boolValue(true));
}

Object certificate(Value id, Value label, Value der) {
  return objectOfClass(CKO_CERTIFICATE, false, std::move(id), std::move(label))
      .with(CKA_CERTIFICATE_TYPE, ulongValue(CKC_X_509))
      .with(CKA_SUBJECT, {0x30, 0x00})
      .with(CKA_ISSUER, {0x30, 0x00})
      .with(CKA_SERIAL_NUMBER, {0x02, 0x01, 0x01})
      .with(CKA_VALUE, std::move(der));
}

Value p256Params() { return {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}; }

Value p384Params() { return {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}; }

Value p256Point(CK_BYTE seed) {
  Value point{0x04, 0x41, 0x04};
  const Value coordinates = patternValue(64, seed);
  point.insert(point.end(), coordinates.begin(), coordinates.end());
  return point;
}

Value resultOf(CK_MECHANISM_TYPE mechanism, const Value& data, std::size_t length) {
  Value result(length);
  for (std::size_t i = 0; i < length; ++i) {
    const auto mask = static_cast<CK_BYTE>(mechanism + i + i / 256);
    result[i] = static_cast<CK_BYTE>(mask ^ (data.empty() ? 0 : data[i % data.size()]));
  }
  return result;
}

Value cipherOf(const Value& plain, std::size_t modulusLen) {
  Value block{0x00, 0x02};
  block.resize(modulusLen - plain.size() - 1, 0xFF);
  block.push_back(0x00);
  block.insert(block.end(), plain.begin(), plain.end());
  return block;
}

Card emptyCard(std::string_view label, std::string_view serialNumber) {
  Card card;
  setField(card.info.label, label);
  setField(card.info.manufacturerID, "Scripted cards");
  setField(card.info.model, "Script 1");
  setField(card.info.serialNumber, serialNumber);
  card.info.flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
  card.info.ulMaxPinLen = 16;
  card.info.ulMinPinLen = 4;
  card.info.ulTotalPublicMemory = 0x10000;
  card.info.ulFreePublicMemory = 0x8000;
  card.info.ulTotalPrivateMemory = 0x4000;
  card.info.ulFreePrivateMemory = 0x2000;
  card.info.hardwareVersion = {1, 2};
  card.info.firmwareVersion = {3, 4};
  return card;
}

}  // namespace mirel::test
