#include "ReferenceUri.h"

#include <memory>
#include <span>

extern "C" {
#include <p11-kit/uri.h>
}

namespace mirel::test {
namespace {

struct FreeUri {
  void operator()(P11KitUri* uri) const noexcept { p11_kit_uri_free(uri); }
};

std::optional<std::string> bytesOf(P11KitUri& uri, CK_ATTRIBUTE_TYPE type) {
  const CK_ATTRIBUTE* attribute = p11_kit_uri_get_attribute(&uri, type);
  if (!attribute) return std::nullopt;
  return std::string{static_cast<const char*>(attribute->pValue), attribute->ulValueLen};
}

/// A field of fixed size, padded with blanks; zero where the URI does not name it.
std::optional<std::string> textOf(std::span<const unsigned char> field) {
  if (field.front() == 0) return std::nullopt;
  std::string text{field.begin(), field.end()};
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

std::optional<Pkcs11Uri::Type> typeOf(P11KitUri& uri) {
  const CK_ATTRIBUTE* attribute = p11_kit_uri_get_attribute(&uri, CKA_CLASS);
  if (!attribute) return std::nullopt;
  switch (*static_cast<const CK_OBJECT_CLASS*>(attribute->pValue)) {
    case CKO_PUBLIC_KEY: return Pkcs11Uri::Type::kPublicKey;
    case CKO_PRIVATE_KEY: return Pkcs11Uri::Type::kPrivateKey;
    case CKO_CERTIFICATE: return Pkcs11Uri::Type::kCertificate;
    case CKO_SECRET_KEY: return Pkcs11Uri::Type::kSecretKey;
    default: return Pkcs11Uri::Type::kData;
  }
}

}  // namespace

std::optional<Pkcs11Uri> readByReference(const std::string& text) {
  const std::unique_ptr<P11KitUri, FreeUri> uri{p11_kit_uri_new()};
  if (p11_kit_uri_parse(text.c_str(), P11_KIT_URI_FOR_ANY, uri.get()) != P11_KIT_URI_OK) return std::nullopt;
  if (p11_kit_uri_any_unrecognized(uri.get()) != 0) return std::nullopt;
  const CK_TOKEN_INFO& token = *p11_kit_uri_get_token_info(uri.get());
  Pkcs11Uri read;
  read.id = bytesOf(*uri, CKA_ID);
  read.object = bytesOf(*uri, CKA_LABEL);
  read.type = typeOf(*uri);
  read.token = textOf(token.label);
  read.serial = textOf(token.serialNumber);
  read.manufacturer = textOf(token.manufacturerID);
  read.model = textOf(token.model);
  read.slotDescription = textOf(p11_kit_uri_get_slot_info(uri.get())->slotDescription);
  const CK_SLOT_ID slotID = p11_kit_uri_get_slot_id(uri.get());
  if (slotID != static_cast<CK_SLOT_ID>(-1)) read.slotID = slotID;
  return read;
}

}  // namespace mirel::test
