#include "AnonymousCommand.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Hex.h"

namespace mirel::recording {
namespace {

std::span<std::uint8_t> bytesOf(std::string& text) {
  return {reinterpret_cast<std::uint8_t*>(text.data()), text.size()};
}

bool isLetter(std::uint8_t byte) { return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z'); }

/// The ID that a key is called by: "0017", "0x0017" or "00:17"; its digits, each with its place in the text.
std::optional<std::vector<std::size_t>> digitsOf(std::string_view text) {
  std::vector<std::size_t> digits;
  for (std::size_t at = text.starts_with("0x") ? 2 : 0; at < text.size(); ++at) {
    if (valueOfHexDigit(text[at])) {
      digits.push_back(at);
    } else if (text[at] != ':') {
      return std::nullopt;
    }
  }
  return digits.empty() || digits.size() % 2 != 0 ? std::nullopt : std::optional{digits};
}

bool replaceIDInDigits(std::string& text, ShapedPseudonyms& pseudonyms) {
  const auto digits = digitsOf(text);
  if (!digits) return false;
  ByteVector id;
  for (std::size_t i = 0; i < digits->size(); i += 2) {
    id.push_back(static_cast<std::uint8_t>(*valueOfHexDigit(text[(*digits)[i]]) << 4U |
                                           *valueOfHexDigit(text[(*digits)[i + 1]])));
  }
  ByteVector pseudonym = id;
  replaceID(pseudonym, pseudonyms);
  if (pseudonym == id) return true;
  const std::string hex = hexOfBytes(pseudonym, HexDigits::kLower);
  for (std::size_t i = 0; i < hex.size(); ++i) text[(*digits)[i]] = hex[i];
  return true;
}

/// In letters of either case (RFC 3986, section 3.1).
bool isUri(std::string_view text) {
  constexpr std::string_view kScheme = "pkcs11:";
  return text.size() >= kScheme.size() &&
         std::equal(kScheme.begin(), kScheme.end(), text.begin(),
                    [](char expected, char c) { return static_cast<char>(c | 0x20) == expected; });
}

/// A value in a URI (RFC 7512), without its percent signs.
std::string plainValue(std::string_view value) {
  std::string plain;
  for (std::size_t at = 0; at < value.size(); ++at) {
    const auto high = at + 2 < value.size() ? valueOfHexDigit(value[at + 1]) : std::nullopt;
    const auto low = at + 2 < value.size() ? valueOfHexDigit(value[at + 2]) : std::nullopt;
    if (value[at] == '%' && high && low) {
      plain += static_cast<char>(*high << 4U | *low);
      at += 2;
    } else {
      plain += value[at];
    }
  }
  return plain;
}

std::string uriValue(std::string_view plain) {
  std::string value;
  for (const char one : plain) {
    const auto byte = static_cast<std::uint8_t>(one);
    if (isLetter(byte) || (one >= '0' && one <= '9')) {
      value += one;
    } else {
      value.append("%").append(hexOfBytes({&byte, 1}, HexDigits::kUpper));
    }
  }
  return value;
}

void replaceInUri(std::string& uri, ShapedPseudonyms& pseudonyms) {
  constexpr std::string_view kEnds = ";?&";
  std::string all;
  for (std::size_t at = 0; at < uri.size();) {
    const std::size_t end = std::min(uri.find_first_of(kEnds, at), uri.size());
    const std::size_t equals = uri.find('=', at);
    std::string_view part = std::string_view{uri}.substr(at, end - at);
    std::string_view name = part.substr(0, std::min(equals, end) - at);
    if (const std::size_t colon = name.find(':'); colon != std::string_view::npos)
      name.remove_prefix(colon + 1);
    const bool namesNobody =
        name == "type" || name == "model" || name == "slot-id" || name.ends_with("manufacturer");
    if (equals < end && !namesNobody) {
      std::string plain = plainValue(part.substr(equals - at + 1));
      all += part.substr(0, equals - at + 1);
      if (name == "id") {
        replaceID(bytesOf(plain), pseudonyms);
      } else if (name == "slot-description") {
        pseudonyms.replaceInReaderName(bytesOf(plain));
      } else if (name == "serial") {
        pseudonyms.replaceText(PseudonymKind::kSerialNumber, bytesOf(plain));
      } else {
        pseudonyms.replaceText(PseudonymKind::kLabel, bytesOf(plain));
      }
      all += uriValue(plain);
    } else {
      all += part;
    }
    if (end < uri.size()) all += uri[end];
    at = end + 1;
  }
  uri = std::move(all);
}

void replaceKey(std::string& key, ShapedPseudonyms& pseudonyms) {
  constexpr std::string_view kItem = "cert_";
  if (key.starts_with('#')) return;
  if (replaceIDInDigits(key, pseudonyms)) {
    // "Abbe" can be digits as well.
    const bool isWord = std::all_of(key.begin(), key.end(),
                                    [](char one) { return isLetter(static_cast<std::uint8_t>(one)); });
    if (isWord) pseudonyms.replaceKnownWords(bytesOf(key));
    return;
  }
  if (isUri(key)) return replaceInUri(key, pseudonyms);
  const std::size_t last = key.rfind('_');
  if (!key.starts_with(kItem) || last < kItem.size())
    return pseudonyms.replaceText(PseudonymKind::kLabel, bytesOf(key));
  std::string label = key.substr(kItem.size(), last - kItem.size());
  std::string id = key.substr(last + 1);
  pseudonyms.replaceText(PseudonymKind::kLabel, bytesOf(label));
  if (!replaceIDInDigits(id, pseudonyms)) pseudonyms.replaceText(PseudonymKind::kID, bytesOf(id));
  key = std::string{kItem} + label + "_" + id;
}

}  // namespace

void replaceID(std::span<std::uint8_t> id, ShapedPseudonyms& pseudonyms) {
  constexpr std::size_t kLongestOfNobody = 4;
  const bool hasLetters = std::adjacent_find(id.begin(), id.end(), [](std::uint8_t a, std::uint8_t b) {
                            return isLetter(a) && isLetter(b);
                          }) != id.end();
  if (id.size() > kLongestOfNobody || hasLetters) pseudonyms.replaceTextOrNumber(PseudonymKind::kID, id);
}

void replaceInCommand(std::vector<std::string>& words, ShapedPseudonyms& pseudonyms) {
  std::string option;
  for (std::string& word : words) {
    const std::size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
    const std::string before = equals == std::string::npos ? "" : word.substr(0, equals + 1);
    std::string value = word.substr(before.size());
    if (!before.empty()) option = word.substr(0, equals);
    if (option == "--key") {
      replaceKey(value, pseudonyms);
    } else if (option == "--reader") {
      pseudonyms.replaceInReaderName(bytesOf(value));
    } else if (!value.starts_with('-')) {
      pseudonyms.replaceKnownWords(bytesOf(value));
    }
    option = before.empty() && word.starts_with("--") ? word : "";
    word = before + value;
  }
}

}  // namespace mirel::recording
