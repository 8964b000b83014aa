#include "platform/CertificateFields.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "CertificateParts.h"
#include "platform/Hex.h"

namespace mirel {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

constexpr std::uint8_t kNumericString = 0x12;
constexpr std::uint8_t kPrintableString = 0x13;
constexpr std::uint8_t kIA5String = 0x16;
constexpr std::uint8_t kUTF8String = 0x0C;
constexpr std::uint8_t kUTCTime = 0x17;
constexpr std::uint8_t kGeneralizedTime = 0x18;
constexpr std::uint8_t kBMPString = 0x1E;
constexpr std::uint8_t kDerSet = 0x31;

struct NamedIdentifier {
  std::string_view identifier;  ///< dotted
  std::string_view name;
};

/// RFC 4514, section 3, and others that certificates have.
constexpr NamedIdentifier kAttributes[] = {
    {"2.5.4.3", "CN"},
    {"2.5.4.4", "SN"},
    {"2.5.4.5", "serialNumber"},
    {"2.5.4.6", "C"},
    {"2.5.4.7", "L"},
    {"2.5.4.8", "ST"},
    {"2.5.4.9", "street"},
    {"2.5.4.10", "O"},
    {"2.5.4.11", "OU"},
    {"2.5.4.12", "title"},
    {"2.5.4.42", "GN"},
    {"2.5.4.97", "organizationIdentifier"},
    {"0.9.2342.19200300.100.1.1", "UID"},
    {"0.9.2342.19200300.100.1.25", "DC"},
    {"1.2.840.113549.1.9.1", "emailAddress"},
};

/// RFC 5280, section 4.2.1.12, and others that cards have.
constexpr NamedIdentifier kPurposes[] = {
    {"2.5.29.37.0", "anyExtendedKeyUsage"},   {"1.3.6.1.5.5.7.3.1", "serverAuth"},
    {"1.3.6.1.5.5.7.3.2", "clientAuth"},      {"1.3.6.1.5.5.7.3.3", "codeSigning"},
    {"1.3.6.1.5.5.7.3.4", "emailProtection"}, {"1.3.6.1.5.5.7.3.8", "timeStamping"},
    {"1.3.6.1.5.5.7.3.9", "OCSPSigning"},     {"1.3.6.1.5.5.7.3.36", "documentSigning"},
    {"1.3.6.1.5.2.3.4", "pkinitClientAuth"},  {"1.3.6.1.4.1.311.20.2.2", "smartcardLogon"},
};

constexpr std::string_view kRsaEncryption = "1.2.840.113549.1.1.1";
constexpr std::string_view kUserPrincipalName = "1.3.6.1.4.1.311.20.2.3";

/// An object identifier in its dotted form (X.690, section 8.19); empty when it is none, or has a number of
/// more than 63 bits.
std::string dotted(ByteSpan content) {
  std::string text;
  std::uint64_t number = 0;
  bool inNumber = false;
  for (const std::uint8_t byte : content) {
    if (number >> 56U != 0 || (!inNumber && byte == 0x80)) return {};
    number = (number << 7U) | (byte & 0x7FU);
    inNumber = (byte & 0x80U) != 0;
    if (inNumber) continue;
    if (text.empty()) {
      const std::uint64_t first = std::min<std::uint64_t>(number / 40, 2);
      text = std::to_string(first);
      number -= 40 * first;
    }
    text.append(".").append(std::to_string(number));
    number = 0;
  }
  return inNumber ? std::string{} : text;
}

template <std::size_t Size>
std::string nameOf(ByteSpan identifier, const NamedIdentifier (&names)[Size]) {
  const std::string text = dotted(identifier);
  const auto* found = std::find_if(std::begin(names), std::end(names),
                                   [&](const NamedIdentifier& known) { return known.identifier == text; });
  return found == std::end(names) ? text : std::string{found->name};
}

std::string_view charactersOf(ByteSpan bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// The next value with its tag and length, whatever it is; empty when it is none. It is then passed.
struct AnyValue {
  std::uint8_t tag = 0;
  ByteSpan content;
  ByteSpan whole;
};
std::optional<AnyValue> readAny(ByteSpan& rest) noexcept {
  if (rest.empty()) return std::nullopt;
  DerReader reader{rest};
  const auto content = reader.read(rest.front());
  if (!content) return std::nullopt;
  const auto size = static_cast<std::size_t>(content->data() + content->size() - rest.data());
  const AnyValue value{rest.front(), *content, rest.first(size)};
  rest = rest.subspan(size);
  return value;
}

/// The text of a string; null for another type.
Text textOf(std::uint8_t tag, ByteSpan content) {
  switch (tag) {
    case kUTF8String:
    case kNumericString:
    case kPrintableString:
    case kIA5String: return Text::fromUtf8(charactersOf(content));
    case kBMPString: break;
    default: return Text{};
  }
  if (content.size() % 2 != 0) return Text{};
  std::u16string units;
  for (std::size_t i = 0; i < content.size(); i += 2)
    units += static_cast<char16_t>(content[i] << 8U | content[i + 1]);
  return Text{units};
}

/// RFC 4514, section 2.4.
std::string escapedValue(const std::string& value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    const bool isAtEdge = (i == 0 && (c == ' ' || c == '#')) || (i + 1 == value.size() && c == ' ');
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      const std::uint8_t byte = static_cast<std::uint8_t>(c);
      text.append("\\").append(hexOfBytes({&byte, 1}, HexDigits::kUpper));
      continue;
    }
    if (isAtEdge || std::string_view{",+\"\\<>;"}.find(c) != std::string_view::npos) text += '\\';
    text += c;
  }
  return text;
}

/// "CN=Test"; nothing when it is no AttributeTypeAndValue.
std::optional<std::string> attributeText(ByteSpan content) {
  DerReader reader{content};
  const auto type = reader.read(kDerObjectIdentifier);
  if (!type) return std::nullopt;
  ByteSpan rest = content.subspan(static_cast<std::size_t>(type->data() + type->size() - content.data()));
  const auto value = readAny(rest);
  if (!value || !rest.empty()) return std::nullopt;
  const std::string name = nameOf(*type, kAttributes);
  const bool isKnown = name != dotted(*type);
  const Text text = isKnown ? textOf(value->tag, value->content) : Text{};
  std::string shown = name;
  if (text.isNull()) return shown.append("=#").append(hexOfBytes(value->whole, HexDigits::kUpper));
  return shown.append("=").append(escapedValue(text.toUtf8()));
}

/// A Name (its content) as RFC 4514 writes it: the last part first.
Text nameText(ByteSpan content) {
  std::string line;
  DerReader names{content};
  while (!names.atEnd()) {
    const auto parts = names.read(kDerSet);
    if (!parts) return Text{u""};
    std::string joined;
    DerReader reader{*parts};
    while (!reader.atEnd()) {
      const auto part = reader.read(kDerSequence);
      const auto text = part ? attributeText(*part) : std::nullopt;
      if (!text) return Text{u""};
      std::string longer = *text;
      if (!joined.empty()) longer.append("+").append(joined);
      joined = std::move(longer);
    }
    if (!line.empty()) joined.append(",").append(line);
    line = std::move(joined);
  }
  return Text::fromUtf8(line);
}

/// RFC 5280, section 4.1.2.5: always with seconds, and in UTC.
Text timeText(ByteSpan& rest) {
  const auto value = readAny(rest);
  if (!value) return Text{};
  const bool isShort = value->tag == kUTCTime;
  const std::size_t yearSize = isShort ? 2 : 4;
  std::string digits{charactersOf(value->content)};
  if ((!isShort && value->tag != kGeneralizedTime) || digits.size() != yearSize + 11 || digits.back() != 'Z')
    return Text{};
  digits.pop_back();
  if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) return Text{};
  if (isShort) digits.insert(0, digits.front() < '5' ? "20" : "19");
  for (const auto& [position, mark] : {std::pair{12, ':'}, {10, ':'}, {8, 'T'}, {6, '-'}, {4, '-'}})
    digits.insert(static_cast<std::size_t>(position), 1, mark);
  return Text::fromUtf8(digits + "Z");
}

/// RFC 5280, section 4.2.1.6, for names that hold text; "other" for what cannot be read.
std::string otherNameText(ByteSpan content) {
  constexpr std::uint8_t kExplicitValue = 0xA0;
  DerReader reader{content};
  const auto type = reader.read(kDerObjectIdentifier);
  const auto value = type ? reader.read(kExplicitValue) : std::nullopt;
  if (!value || dotted(*type) != kUserPrincipalName) return "other";
  ByteSpan rest = *value;
  const auto string = readAny(rest);
  const Text text = string ? textOf(string->tag, string->content) : Text{};
  return text.isNull() ? "other" : "UPN:" + text.toUtf8();
}

std::string addressText(ByteSpan bytes) {
  std::string text;
  if (bytes.size() != 4) return hexOfBytes(bytes, HexDigits::kLower);
  for (const std::uint8_t byte : bytes) text.append(text.empty() ? "" : ".").append(std::to_string(byte));
  return text;
}

std::string altNameText(const AnyValue& name) {
  const auto ofText = [&](const char* kind) {
    return kind + Text::fromUtf8(charactersOf(name.content)).toUtf8();
  };
  switch (name.tag) {
    case 0xA0: return otherNameText(name.content);
    case 0x81: return ofText("email:");
    case 0x82: return ofText("DNS:");
    case 0x86: return ofText("URI:");
    case 0x87: return "IP:" + addressText(name.content);
    case 0x88: return "ID:" + dotted(name.content);
    case 0xA4: {
      const auto directory = onlyDerValue(name.content, kDerSequence);
      return directory ? "DirName:" + nameText(*directory).toUtf8() : "other";
    }
    default: return "other";
  }
}

std::vector<Text> altNames(ByteSpan value) {
  std::vector<Text> names;
  auto rest = onlyDerValue(value, kDerSequence).value_or(ByteSpan{});
  while (const auto name = readAny(rest)) names.push_back(Text::fromUtf8(altNameText(*name)));
  return names;
}

std::vector<Text> purposes(ByteSpan value) {
  std::vector<Text> names;
  DerReader reader{onlyDerValue(value, kDerSequence).value_or(ByteSpan{})};
  while (!reader.atEnd()) {
    const auto identifier = reader.read(kDerObjectIdentifier);
    if (!identifier) break;
    names.push_back(Text::fromUtf8(nameOf(*identifier, kPurposes)));
  }
  return names;
}

bool isAuthority(ByteSpan value) noexcept {
  DerReader reader{onlyDerValue(value, kDerSequence).value_or(ByteSpan{})};
  const auto flag = reader.read(kDerBoolean);
  return flag && flag->size() == 1 && flag->front() != 0;
}

void readExtensions(ByteSpan extensions, CertificateFields& fields) {
  DerReader reader{extensions};
  while (!reader.atEnd()) {
    const auto extension = readExtension(reader);
    if (!extension) return;
    const std::string identifier = dotted(extension->identifier);
    if (identifier == "2.5.29.17") fields.subjectAltNames = altNames(extension->value);
    if (identifier == "2.5.29.19") fields.isAuthority = isAuthority(extension->value);
    if (identifier == "2.5.29.37") fields.extendedKeyUsage = purposes(extension->value);
  }
}

/// The modulus in an RSAPublicKey (RFC 8017, appendix A.1.1).
ByteVector modulusIn(ByteSpan publicKey) {
  DerReader reader{onlyDerValue(publicKey, kDerSequence).value_or(ByteSpan{})};
  const auto number = reader.read(kDerInteger).value_or(ByteSpan{});
  const auto first = std::find_if(number.begin(), number.end(), [](std::uint8_t byte) { return byte != 0; });
  return {first, number.end()};
}

void readPublicKey(ByteSpan info, CertificateFields& fields) {
  DerReader reader{info};
  const auto algorithm = reader.read(kDerSequence);
  const auto bits = algorithm ? reader.read(kDerBitString) : std::nullopt;
  if (!bits || bits->empty() || !reader.atEnd()) return;
  const ByteSpan publicKey = bits->subspan(1);  // behind the number of unused bits
  fields.publicKeyBits.assign(publicKey.begin(), publicKey.end());
  DerReader names{*algorithm};
  const auto identifier = names.read(kDerObjectIdentifier);
  if (identifier && dotted(*identifier) == kRsaEncryption) fields.modulus = modulusIn(publicKey);
}

}  // namespace

std::optional<CertificateFields> fieldsOfCertificate(ByteSpan der) {
  const auto parts = partsOfCertificate(der);
  if (!parts) return std::nullopt;
  CertificateFields fields;
  fields.serialNumber.assign(parts->serialNumber.begin(), parts->serialNumber.end());
  fields.issuer = nameText(parts->issuer);
  ByteSpan validity = parts->validity;
  fields.notBefore = timeText(validity);
  fields.notAfter = timeText(validity);
  if (parts->extensions) readExtensions(*parts->extensions, fields);
  readPublicKey(parts->publicKeyInfo, fields);
  return fields;
}

}  // namespace mirel
