#include "recording/AnonymousRecording.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "AnonymousCommand.h"
#include "platform/Der.h"
#include "recording/AnonymousCertificate.h"

namespace mirel::recording {
namespace {

constexpr std::uint8_t kInteger = 0x02;

template <std::size_t count>
constexpr bool isOneOf(std::string_view name, const std::array<std::string_view, count>& names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// What names no person, card or computer. All else is replaced.
constexpr std::array<std::string_view, 4> kPlainTexts{"manufacturerID", "model", "libraryDescription",
                                                      "utcTime"};
constexpr std::array<std::string_view, 4> kPlainAttributes{"CKA_MODULUS", "CKA_PUBLIC_EXPONENT",
                                                           "CKA_EC_PARAMS", "CKA_EC_POINT"};

std::span<std::uint8_t> bytesOf(std::string& text) {
  return {reinterpret_cast<std::uint8_t*>(text.data()), text.size()};
}

/// Goes through a recording and replaces in place.
class Anonymiser {
 public:
  Anonymiser(std::span<const std::string> users, ShapedPseudonyms& pseudonyms)
      : users_{users}, pseudonyms_{pseudonyms} {}

  void rewrite(Recording& recording) {
    for (Record& record : recording.records) std::visit([this](auto& one) { rewrite(one); }, record);
    // Last: it is about what stands in the records.
    replaceInCommand(recording.header.command, pseudonyms_);
    path(recording.header.module);
  }

 private:
  void rewrite(RecordedCall& call) {
    fields(call.in, {});
    fields(call.out, {});
  }
  void rewrite(RecordedLoading& loading) {
    if (loading.error) path(*loading.error);
  }
  void rewrite(RecordedModule& module) {
    for (std::string* text : {&module.name, &module.path, &module.noFile}) path(*text);
    if (module.exposure) path(*module.exposure);
  }
  void rewrite(RecordedView& recorded) {
    path(recorded.view.evidence);
    for (ServiceReader& reader : recorded.view.readers) pseudonyms_.replaceInReaderName(bytesOf(reader.name));
  }
  void rewrite(RecordedEnd& end) {
    if (end.call) fields(end.call->in, {});
  }
  void rewrite(RecordedSalt&) {}
  void rewrite(RecordedTime&) {}

  void fields(Fields& fields, std::string_view parent);
  void value(Value& value, std::string_view name, std::string_view parent);
  void attribute(std::string_view type, Value& value);
  void serialNumber(ByteVector& bytes);
  void path(std::string& text);
  void usersIn(std::span<std::uint8_t> part);

  std::span<const std::string> users_;
  ShapedPseudonyms& pseudonyms_;
};

/// `parent`: the name of what they are a part of; empty for the arguments of a call.
void Anonymiser::fields(Fields& fields, std::string_view parent) {
  const Value* type = parent == "attributes" ? valueNamed(fields, "type") : nullptr;
  const auto* typeName = type ? std::get_if<std::string>(&type->held) : nullptr;
  for (auto& [name, value] : fields) {
    if (parent != "attributes") {
      this->value(value, name, parent);
    } else if (name == "value") {
      attribute(typeName ? *typeName : std::string{}, value);
    }
  }
}

void Anonymiser::value(Value& value, std::string_view name, std::string_view parent) {
  if (auto* text = std::get_if<std::string>(&value.held)) {
    const bool isFunction = parent == "missing";
    if (isFunction || isOneOf(name, kPlainTexts)) return;
    if (name == "slotDescription") return pseudonyms_.replaceInReaderName(bytesOf(*text));
    const PseudonymKind kind = name == "serialNumber" ? PseudonymKind::kSerialNumber
                               : name == "label"      ? PseudonymKind::kLabel
                                                      : PseudonymKind::kOther;
    pseudonyms_.replaceText(kind, bytesOf(*text));
  } else if (auto* bytes = std::get_if<ByteVector>(&value.held)) {
    const bool isSignature = parent == "signature" && name == "value";
    if (!isSignature) pseudonyms_.replaceTextOrNumber(PseudonymKind::kOther, *bytes);
  } else if (auto* list = std::get_if<List>(&value.held)) {
    for (Value& one : *list) {
      if (auto* parts = std::get_if<Fields>(&one.held)) {
        fields(*parts, name);
      } else {
        this->value(one, {}, name);
      }
    }
  } else if (auto* parts = std::get_if<Fields>(&value.held)) {
    fields(*parts, name);
  }
}

void Anonymiser::attribute(std::string_view type, Value& value) {
  if (auto* text = std::get_if<std::string>(&value.held))
    return pseudonyms_.replaceText(PseudonymKind::kLabel, bytesOf(*text));
  auto* bytes = std::get_if<ByteVector>(&value.held);
  if (!bytes || isOneOf(type, kPlainAttributes)) return;
  if (type == "CKA_ID") return replaceID(*bytes, pseudonyms_);
  if (type == "CKA_SERIAL_NUMBER") return serialNumber(*bytes);
  if (type == "CKA_VALUE") {
    *bytes = anonymousCertificate(*bytes, pseudonyms_);
  } else if (type == "CKA_SUBJECT" || type == "CKA_ISSUER") {
    *bytes = anonymousValues(*bytes, PseudonymKind::kName, pseudonyms_);
  } else {
    pseudonyms_.replaceTextOrNumber(PseudonymKind::kOther, *bytes);
  }
}

/// An INTEGER, as in the certificate; some modules give its content alone.
void Anonymiser::serialNumber(ByteVector& bytes) {
  const auto content = onlyDerValue(bytes, kInteger);
  const std::size_t size = content ? content->size() : bytes.size();
  pseudonyms_.replaceNumber(PseudonymKind::kSerialNumber, std::span{bytes}.last(size));
}

/// A text in which paths may stand: the parts of paths that are names of users, and those names in others.
void Anonymiser::path(std::string& text) {
  constexpr std::string_view kEnds = "/ \"':;,()";
  constexpr std::array<std::string_view, 2> kHomes{"/home/", "/Users/"};
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find_first_of(kEnds, at), text.size());
    const std::string_view before = std::string_view{text}.substr(0, at);
    const bool isBelowHomes = std::any_of(kHomes.begin(), kHomes.end(),
                                          [&](std::string_view folder) { return before.ends_with(folder); });
    if (isBelowHomes) {
      pseudonyms_.replaceText(PseudonymKind::kUser, bytesOf(text).subspan(at, end - at));
    } else {
      usersIn(bytesOf(text).subspan(at, end - at));
    }
    at = end + 1;
  }
}

/// Names of users that stand apart from other letters and digits, such as "jane" in "jane-pkcs11.so"; those
/// of one or two letters only where there is nothing else.
void Anonymiser::usersIn(std::span<std::uint8_t> part) {
  constexpr std::size_t kShortest = 3;
  const auto isBetweenWords = [&](std::size_t at) {
    return at >= part.size() ||
           std::string_view{"-_.@+~="}.find(static_cast<char>(part[at])) != std::string_view::npos;
  };
  for (const std::string& user : users_) {
    if (user.empty() || (user.size() < kShortest && user.size() != part.size())) continue;
    for (std::size_t at = 0; at + user.size() <= part.size(); ++at) {
      const auto piece = part.subspan(at, user.size());
      const bool isApart = (at == 0 || isBetweenWords(at - 1)) && isBetweenWords(at + user.size());
      if (isApart && std::memcmp(piece.data(), user.data(), user.size()) == 0)
        pseudonyms_.replaceText(PseudonymKind::kUser, piece);
    }
  }
}

}  // namespace

AnonymousRecording anonymousRecording(const Recording& recording, std::span<const std::string> users) {
  ShapedPseudonyms first;
  Recording tried = recording;
  Anonymiser{users, first}.rewrite(tried);

  AnonymousRecording result{recording, ShapedPseudonyms::after(first)};
  Anonymiser{users, result.pseudonyms}.rewrite(result.recording);
  std::string counts = result.pseudonyms.counts();
  for (std::size_t at = 0; at < counts.size();) {
    const std::size_t end = std::min(counts.find('\n', at), counts.size());
    result.recording.header.replaced.push_back(counts.substr(at, end - at));
    at = end + 1;
  }
  return result;
}

}  // namespace mirel::recording
