// A certificate, or other values, that a card gives and a recording is to have without names: arbitrary
// bytes, or a certificate whose serial number, names and one extension are the input's. What comes out has
// the size of what went in; where that was a certificate it is one still, and OpenSSL finds neither the
// serial number nor the names in it.

#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "CertificateParts.h"
#include "Check.h"
#include "Input.h"
#include "platform/Certificate.h"
#include "platform/CertificateFields.h"
#include "recording/AnonymousCertificate.h"

namespace mirel::fuzz {
namespace {

using recording::ShapedPseudonyms;

// ---- What goes in ----

ByteVector joined(const std::vector<ByteVector>& values) {
  ByteVector all;
  for (const ByteVector& value : values) all.insert(all.end(), value.begin(), value.end());
  return all;
}

/// Of up to four parts, each of the input's type and text.
ByteVector nameFrom(Input& input) {
  constexpr std::array<std::uint8_t, 12> kTypes{0x0C, 0x13, 0x14, 0x16, 0x1E, 0x1C,
                                                0x12, 0x1A, 0x04, 0x17, 0x01, 0x30};
  std::vector<ByteVector> parts;
  for (std::size_t i = input.below(5); i > 0; --i) {
    const std::array<std::uint8_t, 3> identifier{0x55, 0x04,
                                                 input.byte()};  // 2.5.4: attributes of the directory
    const std::uint8_t type = kTypes[input.below(kTypes.size())];
    parts.push_back(encoded(0x31, sequence({encoded(0x06, identifier), encoded(type, input.bytes(64))})));
  }
  return encoded(0x30, joined(parts));
}

ByteVector extensionFrom(Input& input) {
  // Alternative names, identifiers of keys, constraints, one that nobody knows.
  constexpr std::array<std::array<std::uint8_t, 3>, 6> kIdentifiers{{{0x55, 0x1D, 0x11},
                                                                     {0x55, 0x1D, 0x0E},
                                                                     {0x55, 0x1D, 0x23},
                                                                     {0x55, 0x1D, 0x13},
                                                                     {0x55, 0x1D, 0x1F},
                                                                     {0x2A, 0x03, 0x04}}};
  const ByteVector identifier = encoded(0x06, kIdentifiers[input.below(kIdentifiers.size())]);
  const std::size_t form = input.below(3);
  const std::uint8_t tag = form == 2 ? input.byte() : std::uint8_t{0x82};
  ByteVector content = input.bytes(200);
  if (form > 0) content = sequence({encoded(tag, content)});
  return sequence({identifier, encoded(0x04, content)});
}

ByteVector certificateFrom(Input& input) {
  CertificateParts parts;
  const ByteVector number = input.bytes(24);
  const ByteVector serialNumber = encoded(0x02, number);
  const ByteVector issuer = nameFrom(input);
  const ByteVector subject = nameFrom(input);
  const ByteVector extension = extensionFrom(input);
  if (!number.empty()) parts.serialNumber = serialNumber;
  parts.issuer = issuer;
  parts.subject = subject;
  parts.moreExtensions = extension;
  return certificateOf(parts);
}

// ---- What must come out ----

using X509Holder = std::unique_ptr<X509, decltype(&X509_free)>;

X509Holder openSslCertificate(ByteSpan der) {
  const std::uint8_t* next = der.data();
  return {d2i_X509(nullptr, &next, static_cast<long>(der.size())), &X509_free};
}

std::string_view textOf(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<std::size_t>(ASN1_STRING_length(text))};
}

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isWordByte(char c) { return isLetter(c) || (c >= '0' && c <= '9') || static_cast<signed char>(c) < 0; }

/// The longest pieces of which every byte is as wanted, each with its place.
template <typename IsWanted>
std::vector<std::pair<std::size_t, std::string_view>> piecesOf(std::string_view text, IsWanted isWanted) {
  std::vector<std::pair<std::size_t, std::string_view>> pieces;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = at;
    while (end < text.size() && isWanted(text[end])) ++end;
    if (end > at) pieces.emplace_back(at, text.substr(at, end - at));
    at = std::max(end, at + 1);
  }
  return pieces;
}

/// A word that is in another place only because the same person is meant.
bool isTelling(std::string_view word) {
  constexpr std::size_t kShortest = 8;
  constexpr std::size_t kFewest = 5;  // different letters
  return word.size() >= kShortest && std::set<char>(word.begin(), word.end()).size() >= kFewest &&
         word.find("aaa") == std::string_view::npos;
}

/// Compares part by part. Returns the telling words of `before`.
std::vector<std::string> checkName(const X509_NAME* before, const X509_NAME* after) {
  std::vector<std::string> words;
  check(X509_NAME_entry_count(before) == X509_NAME_entry_count(after), "a name has the same parts");
  for (int i = 0; i < X509_NAME_entry_count(before); ++i) {
    const ASN1_STRING* const original = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(before, i));
    const ASN1_STRING* const pseudonym = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(after, i));
    const std::string_view text = textOf(original);
    check(ASN1_STRING_type(original) == ASN1_STRING_type(pseudonym), "a part of a name has its type");
    check(text.size() == textOf(pseudonym).size(), "a part of a name has its size");
    constexpr std::array kTypes{V_ASN1_UTF8STRING, V_ASN1_PRINTABLESTRING, V_ASN1_T61STRING,
                                V_ASN1_IA5STRING,  V_ASN1_NUMERICSTRING,   V_ASN1_VISIBLESTRING};
    if (std::find(kTypes.begin(), kTypes.end(), ASN1_STRING_type(original)) == kTypes.end()) continue;
    for (const auto& [at, word] : piecesOf(text, isWordByte)) {
      const bool isScheme = at == 0 && word.size() < text.size() && text[word.size()] == ':';
      const bool hasLetter = std::any_of(word.begin(), word.end(), isLetter);
      if (!isScheme && hasLetter)
        check(textOf(pseudonym).substr(at, word.size()) != word, "a word of a name is replaced");
    }
    for (const auto& [at, word] : piecesOf(text, isLetter)) {
      if (isTelling(word)) words.emplace_back(word);
    }
  }
  return words;
}

/// Extensions that have no names, as RFC 5280 has them in section 4.2.1.
bool hasNoNames(const ASN1_OBJECT* extension) {
  constexpr std::array kWithout{NID_key_usage,         NID_private_key_usage_period,
                                NID_basic_constraints, NID_policy_constraints,
                                NID_ext_key_usage,     NID_inhibit_any_policy};
  return std::find(kWithout.begin(), kWithout.end(), OBJ_obj2nid(extension)) != kWithout.end();
}

void checkExtensions(const X509* before, const X509* after, const std::vector<std::string>& words) {
  check(X509_get_ext_count(before) == X509_get_ext_count(after), "there are the same extensions");
  for (int i = 0; i < X509_get_ext_count(before); ++i) {
    X509_EXTENSION* const original = X509_get_ext(before, i);
    const std::string_view text = textOf(X509_EXTENSION_get_data(original));
    const std::string_view rewritten = textOf(X509_EXTENSION_get_data(X509_get_ext(after, i)));
    check(text.size() == rewritten.size(), "an extension has its size");
    if (hasNoNames(X509_EXTENSION_get_object(original))) {
      check(text == rewritten, "an extension without names stays");
      continue;
    }
    for (const std::string& word : words) {
      for (std::size_t at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1))
        check(rewritten.substr(at, word.size()) != word, "a name is replaced in an extension, too");
    }
  }
}

/// It stays where it is one. A certificate with other characters in its times is taken, too, and might have a
/// name there.
void checkValidity(const X509* before, const X509* after) {
  const std::array<std::string_view, 2> times{textOf(X509_get0_notBefore(before)),
                                              textOf(X509_get0_notAfter(before))};
  const bool areTimes = std::all_of(times.begin(), times.end(), [](std::string_view time) {
    return time.find_first_not_of("0123456789Z.+-") == std::string_view::npos;
  });
  if (!areTimes) return;
  check(times[0] == textOf(X509_get0_notBefore(after)) && times[1] == textOf(X509_get0_notAfter(after)),
        "a certificate has its validity");
}

void checkParts(ByteSpan original, ByteSpan rewritten) {
  const X509Holder before = openSslCertificate(original);
  const X509Holder after = openSslCertificate(rewritten);
  check(before && after, "OpenSSL takes both");
  checkValidity(before.get(), after.get());
  check(ASN1_INTEGER_cmp(X509_get0_serialNumber(before.get()), X509_get0_serialNumber(after.get())) != 0,
        "the serial number is replaced");
  auto words = checkName(X509_get_subject_name(before.get()), X509_get_subject_name(after.get()));
  const auto more = checkName(X509_get_issuer_name(before.get()), X509_get_issuer_name(after.get()));
  words.insert(words.end(), more.begin(), more.end());
  checkExtensions(before.get(), after.get(), words);
}

void tryCertificate(const ByteVector& der) {
  static const std::shared_ptr<CertificateParser> parser = systemCertificateParser();
  ShapedPseudonyms first;
  (void)anonymousCertificate(der, first);
  ShapedPseudonyms pseudonyms = ShapedPseudonyms::after(first);
  const ByteVector rewritten = anonymousCertificate(der, pseudonyms);
  check(rewritten.size() == der.size(), "a certificate has its size");

  const auto before = parser->createWithData(Bytes{der});
  check(fieldsOfCertificate(der).has_value() == fieldsOfCertificate(rewritten).has_value() || !before,
        "its fields can be read as before");
  if (!before) return;
  const auto after = parser->createWithData(Bytes{rewritten});
  check(after != nullptr, "a certificate stays one");
  check(after->keyType() == before->keyType() && after->keySizeInBits() == before->keySizeInBits(),
        "a certificate has its key");
  check(after->keyUsage() == before->keyUsage(), "a certificate has its key usage");
  checkParts(der, rewritten);
}

void tryValues(Input& input) {
  const auto kind = static_cast<recording::PseudonymKind>(input.below(recording::kNumPseudonymKinds));
  ShapedPseudonyms pseudonyms;
  const ByteSpan der = input.rest();
  check(anonymousValues(der, kind, pseudonyms).size() == der.size(), "values have their size");
}

}  // namespace

void runTarget(Input& input) {
  switch (input.below(4)) {
    case 0: return tryCertificate(ByteVector(input.rest().begin(), input.rest().end()));
    case 1: return tryValues(input);
    default: return tryCertificate(certificateFrom(input));
  }
}

}  // namespace mirel::fuzz
