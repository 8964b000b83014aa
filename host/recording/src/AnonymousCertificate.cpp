#include "recording/AnonymousCertificate.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Der.h"

namespace mirel::recording {
namespace {

using ByteSpan = std::span<const std::uint8_t>;
using Encoding = ShapedPseudonyms::Encoding;

// First bytes of values (X.690, section 8.1.2).
constexpr std::uint8_t kBoolean = 0x01;
constexpr std::uint8_t kInteger = 0x02;
constexpr std::uint8_t kBitString = 0x03;
constexpr std::uint8_t kOctetString = 0x04;
constexpr std::uint8_t kNull = 0x05;
constexpr std::uint8_t kObjectIdentifier = 0x06;
constexpr std::uint8_t kEnumerated = 0x0A;
constexpr std::uint8_t kUtcTime = 0x17;
constexpr std::uint8_t kGeneralizedTime = 0x18;
constexpr std::uint8_t kUniversalString = 0x1C;
constexpr std::uint8_t kBmpString = 0x1E;
constexpr std::uint8_t kConstructed = 0x20;  // a bit of it
constexpr std::uint8_t kVersion = 0xA0;      // [0], explicit
constexpr std::uint8_t kExtensions = 0xA3;   // [3], explicit

constexpr int kDeepest = 32;
constexpr std::size_t kLongestSmallNumber = 2;  // bytes; a number of this size is a version or a limit
constexpr std::size_t kLongestBoolean = 1;
constexpr std::size_t kLongestFlags = 3;  // with the byte that counts the unused bits

// Extensions that hold no names (RFC 5280, section 4.2.1).
constexpr std::array<std::string_view, 6> kWithoutNames{{
    "\x55\x1D\x0F",  // key usage
    "\x55\x1D\x10",  // usage period of the private key
    "\x55\x1D\x13",  // basic constraints
    "\x55\x1D\x24",  // policy constraints
    "\x55\x1D\x25",  // extended key usage
    "\x55\x1D\x36",  // inhibit any policy
}};

// Extensions with the identifiers of keys.
constexpr std::string_view kSubjectKeyIdentifier = "\x55\x1D\x0E";
constexpr std::string_view kAuthorityKeyIdentifier = "\x55\x1D\x23";

std::string_view asText(ByteSpan bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Whether letters stand there as in a text: not in an object identifier, unless its length is wrong.
bool hasWord(ByteSpan bytes) {
  constexpr int kShortest = 4;
  int numLetters = 0;
  return std::any_of(bytes.begin(), bytes.end(), [&](std::uint8_t byte) {
    const bool isLetter = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
    numLetters = isLetter ? numLetters + 1 : 0;
    return numLetters >= kShortest;
  });
}

/// Replaces in place: the size of a value never changes, so that no length around it does.
class Rewriter {
 public:
  Rewriter(ByteSpan der, ShapedPseudonyms& pseudonyms)
      : der_(der.begin(), der.end()), pseudonyms_{pseudonyms} {}

  [[nodiscard]] bool certificate();
  void values(ByteSpan content, PseudonymKind kind, int depth = 0);
  [[nodiscard]] ByteSpan all() const { return der_; }
  [[nodiscard]] ByteVector take() && { return std::move(der_); }

 private:
  struct Parts {
    ByteSpan serialNumber;
    ByteSpan issuer;
    ByteSpan validity;
    ByteSpan subject;
    ByteSpan rest;  ///< what follows the public key
  };

  [[nodiscard]] std::optional<Parts> parts() const;
  /// The same bytes, to be changed.
  [[nodiscard]] std::span<std::uint8_t> at(ByteSpan part) {
    if (part.empty()) return {};
    return std::span{der_}.subspan(static_cast<std::size_t>(part.data() - der_.data()), part.size());
  }
  template <typename ForValue>
  void forEachValue(ByteSpan values, PseudonymKind kind, ForValue&& forValue);
  void value(const DerValue& value, PseudonymKind kind, int depth);
  void times(ByteSpan validity);
  void time(ByteSpan digits, std::size_t yearSize);
  void bits(ByteSpan content, PseudonymKind kind);
  void unknown(ByteSpan content, PseudonymKind kind);
  void text(ByteSpan content, PseudonymKind kind, Encoding encoding);
  void extensions(ByteSpan content);
  [[nodiscard]] bool extension(ByteSpan content);

  ByteVector der_;
  ShapedPseudonyms& pseudonyms_;
};

std::optional<Rewriter::Parts> Rewriter::parts() const {
  const auto whole = onlyDerValue(der_, kDerSequence);
  if (!whole) return std::nullopt;
  DerReader outer{*whole};
  const auto toBeSigned = outer.read(kDerSequence);
  if (!toBeSigned || !outer.skip(kDerSequence) || !outer.skip(kBitString) || !outer.atEnd())
    return std::nullopt;

  DerReader inner{*toBeSigned};
  if (!inner.skipIfPresent(kVersion)) return std::nullopt;
  const auto serialNumber = inner.read(kInteger);
  if (!serialNumber || !inner.skip(kDerSequence)) return std::nullopt;  // the signature's algorithm
  Parts parts{*serialNumber, {}, {}, {}, {}};
  for (ByteSpan* part : {&parts.issuer, &parts.validity, &parts.subject}) {
    const auto content = inner.read(kDerSequence);
    if (!content) return std::nullopt;
    *part = *content;
  }
  const auto publicKey = inner.read(kDerSequence);
  if (!publicKey) return std::nullopt;
  parts.rest = toBeSigned->subspan(
      static_cast<std::size_t>(publicKey->data() + publicKey->size() - toBeSigned->data()));
  return parts;
}

/// From where they are no DER on, the rest is one unknown value.
template <typename ForValue>
void Rewriter::forEachValue(ByteSpan values, PseudonymKind kind, ForValue&& forValue) {
  DerReader reader{values};
  for (ByteSpan rest = values; !rest.empty();) {
    const auto next = reader.readAny();
    if (!next) return unknown(rest, kind);
    rest =
        values.subspan(static_cast<std::size_t>(next->content.data() + next->content.size() - values.data()));
    forValue(*next);
  }
}

/// False when it is none; nothing is replaced then.
bool Rewriter::certificate() {
  const auto found = parts();
  if (!found) return false;
  pseudonyms_.replaceNumber(PseudonymKind::kSerialNumber, at(found->serialNumber));
  values(found->issuer, PseudonymKind::kName);
  times(found->validity);
  values(found->subject, PseudonymKind::kName);
  forEachValue(found->rest, PseudonymKind::kName, [&](const DerValue& value) {
    if (value.tag == kExtensions) return extensions(value.content);
    this->value(value, PseudonymKind::kName, 0);
  });
  return true;
}

/// Two times stay; what else stands in their place does not.
void Rewriter::times(ByteSpan validity) {
  DerReader reader{validity};
  int count = 0;
  bool areTimes = true;
  while (areTimes && !reader.atEnd()) {
    const auto next = reader.readAny();
    areTimes = next && (next->tag == kUtcTime || next->tag == kGeneralizedTime) && ++count <= 2 &&
               std::all_of(next->content.begin(), next->content.end(),
                           [](std::uint8_t c) { return std::strchr("0123456789Z.+-", c) && c != 0; });
  }
  if (!areTimes) values(validity, PseudonymKind::kName);
}

void Rewriter::extensions(ByteSpan content) {
  const auto list = onlyDerValue(content, kDerSequence);
  if (!list) return values(content, PseudonymKind::kName);
  forEachValue(*list, PseudonymKind::kName, [&](const DerValue& value) {
    const bool isExtension = value.tag == kDerSequence && extension(value.content);
    if (!isExtension) this->value(value, PseudonymKind::kName, 0);
  });
}

/// False when it is none; nothing is replaced then.
bool Rewriter::extension(ByteSpan content) {
  DerReader reader{content};
  const auto identifier = reader.read(kObjectIdentifier);
  if (!identifier || !reader.skipIfPresent(kBoolean)) return false;
  const auto encoded = reader.read(kOctetString);
  if (!encoded || !reader.atEnd()) return false;
  const std::string_view name = asText(*identifier);
  if (std::find(kWithoutNames.begin(), kWithoutNames.end(), name) != kWithoutNames.end()) return true;
  const bool hasKeyID = name == kSubjectKeyIdentifier || name == kAuthorityKeyIdentifier;
  values(*encoded, hasKeyID ? PseudonymKind::kID : PseudonymKind::kName);
  return true;
}

void Rewriter::values(ByteSpan content, PseudonymKind kind, int depth) {
  forEachValue(content, kind, [&](const DerValue& value) { this->value(value, kind, depth); });
}

void Rewriter::value(const DerValue& value, PseudonymKind kind, int depth) {
  constexpr std::size_t kYearOfUtcTime = 2;
  constexpr std::size_t kYearOfGeneralizedTime = 4;
  const ByteSpan content = value.content;
  if ((value.tag & kConstructed) != 0) {
    return depth < kDeepest ? values(content, kind, depth + 1) : unknown(content, kind);
  }
  switch (value.tag) {
    case kBoolean:
    case kNull:
      if (content.size() > kLongestBoolean) unknown(content, kind);
      return;
    case kObjectIdentifier:
      if (hasWord(content)) unknown(content, kind);
      return;
    case kInteger:
    case kEnumerated:
      if (content.size() > kLongestSmallNumber) pseudonyms_.replaceNumber(kind, at(content));
      return;
    case kBitString: return bits(content, kind);
    case kUtcTime: return time(content, kYearOfUtcTime);
    case kGeneralizedTime: return time(content, kYearOfGeneralizedTime);
    case kBmpString: return text(content, kind, Encoding::kUtf16);
    case kUniversalString: return text(content, kind, Encoding::kUtf32);
    case 0x0C:  // UTF8String
    case 0x12:  // NumericString
    case 0x13:  // PrintableString
    case 0x14:  // TeletexString
    case 0x16:  // IA5String
    case 0x1A:  // VisibleString
      return text(content, kind, Encoding::kBytes);
    default: return unknown(content, kind);
  }
}

/// A time outside of the validity can be somebody's day of birth: the first of January 1970 takes its place.
void Rewriter::time(ByteSpan digits, std::size_t yearSize) {
  constexpr std::string_view kStart = "19700101";
  const std::string_view start = kStart.substr(4 - yearSize);
  const auto changed = at(digits);
  for (std::size_t i = 0; i < changed.size(); ++i) {
    const bool isMark = changed[i] != 0 && std::strchr("Z.+-", changed[i]);
    if (i < start.size())
      changed[i] = static_cast<std::uint8_t>(start[i]);
    else if (!isMark)
      changed[i] = '0';
  }
}

void Rewriter::bits(ByteSpan content, PseudonymKind kind) {
  if (content.size() <= kLongestFlags) return;
  const unsigned numUnused = content.front() & 7U;
  const auto changed = at(content.subspan(1));
  pseudonyms_.replaceNumber(kind, changed);
  changed.back() = static_cast<std::uint8_t>(changed.back() & (0xFFU << numUnused));
}

void Rewriter::unknown(ByteSpan content, PseudonymKind kind) {
  const bool isSmall = content.size() <= kLongestSmallNumber && kind != PseudonymKind::kID;
  const bool isFlags = isSmall && std::none_of(content.begin(), content.end(),
                                               [](std::uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
  if (isFlags) return;
  if (kind == PseudonymKind::kID) return pseudonyms_.replaceNumber(kind, at(content));
  const std::string_view text = asText(content);
  if (text.find("://") != std::string_view::npos) return this->text(content, kind, Encoding::kBytes);
  pseudonyms_.replaceTextOrNumber(kind, at(content));
}

/// The scheme of a URI names nobody, and without it the rest is none.
void Rewriter::text(ByteSpan content, PseudonymKind kind, Encoding encoding) {
  constexpr std::array<std::string_view, 7> kSchemes{
      "http:", "https:", "ldap:", "ldaps:", "ftp:", "mailto:", "urn:"};
  std::size_t schemeSize = 0;
  for (const std::string_view scheme : kSchemes) {
    if (encoding == Encoding::kBytes && asText(content).starts_with(scheme)) schemeSize = scheme.size();
  }
  pseudonyms_.replaceText(kind, at(content.subspan(schemeSize)), encoding);
}

}  // namespace

ByteVector anonymousCertificate(std::span<const std::uint8_t> der, ShapedPseudonyms& pseudonyms) {
  Rewriter rewriter{der, pseudonyms};
  if (!rewriter.certificate()) rewriter.values(rewriter.all(), PseudonymKind::kName);
  return std::move(rewriter).take();
}

ByteVector anonymousValues(std::span<const std::uint8_t> der, PseudonymKind kind,
                           ShapedPseudonyms& pseudonyms) {
  Rewriter rewriter{der, pseudonyms};
  rewriter.values(rewriter.all(), kind);
  return std::move(rewriter).take();
}

}  // namespace mirel::recording
