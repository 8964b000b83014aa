#include "host/Pkcs11Uri.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "NameList.h"
#include "host/Display.h"
#include "platform/Hex.h"

namespace mirel {
namespace {

constexpr std::string_view kScheme = "pkcs11:";
constexpr const char* kExample = "write it as in RFC 7512, such as pkcs11:id=%01;object=Signature";

Failure refused(const std::string& why, const Advice& advice = kExample) {
  return {FailureKind::kBadInput, "the PKCS #11 URI does not name a key", why, advice};
}

std::string quoted(std::string_view name) {
  std::string text{"\""};
  return text.append(shortened(displayed(name))).append("\"");
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

bool isLetter(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

/// A character of a value in the path that stands for itself (pk11-pchar).
bool standsForItself(char c) noexcept {
  constexpr std::string_view kOthers = "-._~:[]@!$'()*+,=&";
  return isDigit(c) || isLetter(c) || kOthers.find(c) != std::string_view::npos;
}

/// The bytes that a value stands for; nothing when it is not written as it has to be.
std::optional<std::string> decoded(std::string_view value) {
  std::string bytes;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '%') {
      if (!standsForItself(value[i])) return std::nullopt;
      bytes.push_back(value[i]);
      continue;
    }
    if (value.size() - i < 3) return std::nullopt;
    const auto high = valueOfHexDigit(value[i + 1]);
    const auto low = valueOfHexDigit(value[i + 2]);
    if (!high || !low) return std::nullopt;
    bytes.push_back(static_cast<char>(*high << 4U | *low));
    i += 2;
  }
  return bytes;
}

struct TextAttribute {
  std::string_view name;
  std::optional<std::string> Pkcs11Uri::*value;
};
constexpr std::array kTextAttributes{
    TextAttribute{"id", &Pkcs11Uri::id},
    TextAttribute{"object", &Pkcs11Uri::object},
    TextAttribute{"token", &Pkcs11Uri::token},
    TextAttribute{"serial", &Pkcs11Uri::serial},
    TextAttribute{"manufacturer", &Pkcs11Uri::manufacturer},
    TextAttribute{"model", &Pkcs11Uri::model},
    TextAttribute{"slot-description", &Pkcs11Uri::slotDescription},
};

struct TypeName {
  std::string_view name;
  Pkcs11Uri::Type type;
};
constexpr std::array kTypes{
    TypeName{"public", Pkcs11Uri::Type::kPublicKey}, TypeName{"private", Pkcs11Uri::Type::kPrivateKey},
    TypeName{"cert", Pkcs11Uri::Type::kCertificate}, TypeName{"secret-key", Pkcs11Uri::Type::kSecretKey},
    TypeName{"data", Pkcs11Uri::Type::kData},
};

Failure twice(std::string_view name) { return refused("the attribute " + quoted(name) + " is there twice"); }

Failure pinInside() {
  return refused("it has a PIN in it, which others can read in the list of processes",
                 UserStep::kGivePinApart);
}

Result<void> readText(std::string_view name, std::string_view value, std::optional<std::string>& out) {
  if (out) return twice(name);
  out = decoded(value);
  if (out) return {};
  return refused("the value of " + quoted(name) + " has a character that has to be percent-encoded");
}

Result<void> readType(std::string_view value, std::optional<Pkcs11Uri::Type>& out) {
  if (out) return twice("type");
  const auto* const known =
      std::find_if(kTypes.begin(), kTypes.end(), [&](const TypeName& type) { return type.name == value; });
  if (known == kTypes.end()) return refused("its type is none of public, private, cert, secret-key and data");
  out = known->type;
  return {};
}

Result<void> readSlotID(std::string_view value, std::optional<std::uint64_t>& out) {
  if (out) return twice("slot-id");
  std::uint64_t number = 0;
  const char* end = value.data() + value.size();
  const auto [rest, error] = std::from_chars(value.data(), end, number);
  if (error != std::errc{} || rest != end) return refused("its slot-id is no number of a slot");
  out = number;
  return {};
}

Result<void> readAttribute(std::string_view attribute, Pkcs11Uri& uri) {
  const std::size_t equals = attribute.find('=');
  const std::string_view name = attribute.substr(0, equals);
  if (name == "pin-value") return pinInside();
  if (equals == std::string_view::npos)
    return refused("one of its attributes is empty, or has no \"=\" and value");
  const std::string_view value = attribute.substr(equals + 1);
  for (const TextAttribute& known : kTextAttributes) {
    if (known.name == name) return readText(name, value, uri.*known.value);
  }
  if (name == "type") return readType(value, uri.type);
  if (name == "slot-id") return readSlotID(value, uri.slotID);
  return refused(
      "the attribute " + quoted(name) + " is none by which a key is chosen here",
      "use id, object, type, token, serial, manufacturer, model, slot-id and slot-description only");
}

/// All that can stand behind the "?" is for other places of the command line.
Failure queryRefused(std::string_view query) {
  while (true) {
    const std::string_view attribute = query.substr(0, query.find('&'));
    if (attribute.starts_with("pin-value")) return pinInside();
    if (attribute.size() == query.size()) break;
    query.remove_prefix(attribute.size() + 1);
  }
  return refused("it has a query, which is not looked at here", UserStep::kNameModuleAndPinApart);
}

}  // namespace

bool isPkcs11Uri(std::string_view text) noexcept {
  if (text.size() < kScheme.size()) return false;
  return std::equal(kScheme.begin(), kScheme.end(), text.begin(), [](char expected, char c) {
    return c == expected || (c >= 'A' && c <= 'Z' && c + ('a' - 'A') == expected);
  });
}

Result<Pkcs11Uri> parsePkcs11Uri(std::string_view text) {
  if (!isPkcs11Uri(text)) return refused("it does not begin with \"pkcs11:\"");
  text.remove_prefix(kScheme.size());
  const std::size_t question = text.find('?');
  if (question != std::string_view::npos) return queryRefused(text.substr(question + 1));
  Pkcs11Uri uri;
  while (!text.empty()) {
    const std::size_t end = text.find(';');
    if (auto read = readAttribute(text.substr(0, end), uri); !read) return read.failure();
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
    if (text.empty()) return refused("its last attribute is empty");
  }
  return uri;
}

}  // namespace mirel
