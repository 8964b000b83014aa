#include "CallNote.h"

#include <algorithm>
#include <cstring>

#include "Structures.h"
#include "platform/Der.h"

namespace mirel::recording {
namespace {

constexpr CK_ULONG kMostAttributes = 64;         // of one call
constexpr CK_ULONG kLargestValue = 64UL * 1024;  // bytes; a larger one is told by its length
constexpr CK_ULONG kLargestSignature = 4096;     // bytes
constexpr CK_ULONG kMostHandles = 4096;          // of one list

Value number(std::uint64_t value) { return {value}; }
Value nothing() { return {NullPointer{}}; }

/// Whether they begin as a certificate does (RFC 5280, section 4.1), and end with it. Something else that a
/// module gives out as one hardly does; an unencrypted private key begins with a number.
bool looksLikeCertificate(std::span<const CK_BYTE> bytes) {
  const auto content = onlyDerValue(bytes, kDerSequence);
  return content && DerReader{*content}.isNext(kDerSequence);
}

/// The value of an attribute or a field, in the form that its type has.
Value bytesAs(AttributeForm form, const CK_BYTE* data, CK_ULONG size, bool ofCertificate) {
  const std::span bytes{data, size};
  const auto hidden = [size] { return Value{HiddenBytes{size}}; };
  if (size > kLargestValue) return hidden();
  switch (form) {
    case AttributeForm::kHidden: return hidden();
    case AttributeForm::kText: return {std::string{bytes.begin(), bytes.end()}};
    case AttributeForm::kBytes: return {ByteVector{bytes.begin(), bytes.end()}};
    case AttributeForm::kCertificate:
      if (!ofCertificate || !looksLikeCertificate(bytes)) return hidden();
      return {ByteVector{bytes.begin(), bytes.end()}};
    case AttributeForm::kNumber: break;
  }
  if (size == sizeof(CK_BBOOL)) return number(bytes.front());
  if (size != sizeof(CK_ULONG)) return hidden();
  CK_ULONG value = 0;
  std::memcpy(&value, data, sizeof value);
  return number(value);
}

Value typeOf(CK_ATTRIBUTE_TYPE type) {
  const std::string_view name = attributeName(type);
  return name.empty() ? number(type) : Value{std::string{name}};
}

Value versionOf(const CK_VERSION& version) {
  return {Fields{{"major", number(version.major)}, {"minor", number(version.minor)}}};
}

template <typename Structure>
Value structureOf(Word word) {
  auto* structure = pointerOf<Structure>(word);
  if (!structure) return nothing();
  Fields fields;
  eachField(*structure, [&](const char* name, const auto& field) {
    using Field = std::remove_cvref_t<decltype(field)>;
    if constexpr (std::is_same_v<Field, CK_VERSION>) {
      fields.push_back({name, versionOf(field)});
    } else if constexpr (std::is_array_v<Field>) {
      fields.push_back({name, {std::string{std::begin(field), std::end(field)}}});
    } else {
      fields.push_back({name, number(field)});
    }
  });
  return {std::move(fields)};
}

Value mechanismOf(Word word) {
  const auto* mechanism = pointerOf<const CK_MECHANISM>(word);
  if (!mechanism) return nothing();
  Fields fields{{"type", number(mechanism->mechanism)}};
  const bool isPss = mechanism->mechanism == CKM_RSA_PKCS_PSS && mechanism->pParameter &&
                     mechanism->ulParameterLen == sizeof(CK_RSA_PKCS_PSS_PARAMS);
  if (isPss) {
    CK_RSA_PKCS_PSS_PARAMS parameters{};
    std::memcpy(&parameters, mechanism->pParameter, sizeof parameters);
    fields.push_back({"hashAlg", number(parameters.hashAlg)});
    fields.push_back({"mgf", number(parameters.mgf)});
    fields.push_back({"sLen", number(parameters.sLen)});
  } else {
    fields.push_back(
        {"parameter", mechanism->pParameter ? Value{HiddenBytes{mechanism->ulParameterLen}} : nothing()});
  }
  return {std::move(fields)};
}

List searchOf(std::span<const CK_ATTRIBUTE> attributes) {
  List list;
  for (const CK_ATTRIBUTE& one : attributes) {
    Value value = nothing();
    if (one.pValue)
      value =
          bytesAs(attributeForm(one.type), static_cast<const CK_BYTE*>(one.pValue), one.ulValueLen, false);
    list.push_back({Fields{{"type", typeOf(one.type)}, {"value", std::move(value)}}});
  }
  return list;
}

List queryOf(std::span<const CK_ATTRIBUTE> attributes) {
  List list;
  for (const CK_ATTRIBUTE& one : attributes) {
    list.push_back(
        {Fields{{"type", typeOf(one.type)}, {"room", one.pValue ? number(one.ulValueLen) : nothing()}}});
  }
  return list;
}

/// Numbers that stand behind each other.
List numbersOf(const CK_ULONG* numbers, CK_ULONG count) {
  List list;
  for (const CK_ULONG one : std::span{numbers, count}) list.push_back(number(one));
  return list;
}

/// Whether the module has written values, as far as it had some.
bool wroteValues(CK_RV result) noexcept {
  return result == CKR_OK || result == CKR_ATTRIBUTE_SENSITIVE || result == CKR_ATTRIBUTE_TYPE_INVALID ||
         result == CKR_BUFFER_TOO_SMALL;
}

std::uint64_t numberNamed(const Fields& fields, std::string_view name) noexcept {
  const Value* value = valueNamed(fields, name);
  const auto* known = value ? std::get_if<std::uint64_t>(&value->held) : nullptr;
  return known ? *known : CK_UNAVAILABLE_INFORMATION;
}

bool asksForCertificates(const Fields& in) noexcept {
  const Value* value = valueNamed(in, "attributes");
  const auto* attributes = value ? std::get_if<List>(&value->held) : nullptr;
  if (!attributes) return false;
  const Value wantedType{std::string{"CKA_CLASS"}};
  const Value wantedClass{std::uint64_t{CKO_CERTIFICATE}};
  return std::any_of(attributes->begin(), attributes->end(), [&](const Value& attribute) {
    const auto* fields = std::get_if<Fields>(&attribute.held);
    const Value* type = fields ? valueNamed(*fields, "type") : nullptr;
    const Value* wanted = fields ? valueNamed(*fields, "value") : nullptr;
    return type && wanted && *type == wantedType && *wanted == wantedClass;
  });
}

}  // namespace

CallNote::CallNote(const FunctionRow* row, std::span<const Word> words)
    : arguments_{row ? row->arguments : std::span<const Argument>{}}, words_{words} {
  const Word* next = words_.data();
  for (const Argument& argument : arguments_) {
    noteIn(argument, next);
    next += numWordsOf(argument.kind);
  }
}

void CallNote::noteIn(const Argument& argument, const Word* words) {
  const auto add = [&](Value value) { in_.push_back({argument.name, std::move(value)}); };
  const auto attributes = [&] {
    const auto* start = pointerOf<const CK_ATTRIBUTE>(words[0]);
    return start ? std::span{start, std::min<std::size_t>(words[1], kMostAttributes)}
                 : std::span<const CK_ATTRIBUTE>{};
  };
  switch (argument.kind) {
    case ArgumentKind::kNumber: return add(number(words[0]));
    case ArgumentKind::kGiven: return add(number(words[0] != 0 ? 1 : 0));
    case ArgumentKind::kData: return add(words[0] != 0 ? Value{HiddenBytes{words[1]}} : nothing());
    case ArgumentKind::kSearch: return add({searchOf(attributes())});
    case ArgumentKind::kQuery: {
      offered_.assign(attributes().begin(), attributes().end());
      return add({queryOf(offered_)});
    }
    case ArgumentKind::kMechanism: return add(mechanismOf(words[0]));
    case ArgumentKind::kSignature:
    case ArgumentKind::kPlainText:
    case ArgumentKind::kSlots: {
      const auto* room = pointerOf<const CK_ULONG>(words[1]);
      if (words[0] != 0 && room) room_ = *room;
      return add(words[0] != 0 && room ? number(*room) : nothing());
    }
    case ArgumentKind::kFound: room_ = words[0] != 0 ? words[1] : 0; return add(number(words[1]));
    case ArgumentKind::kPin:
    case ArgumentKind::kInfo:
    case ArgumentKind::kSlotInfo:
    case ArgumentKind::kTokenInfo:
    case ArgumentKind::kSessionInfo:
    case ArgumentKind::kHandle: return;
  }
}

Fields CallNote::out(CK_RV result, bool ofCertificate) const {
  Fields out;
  const Word* next = words_.data();
  for (const Argument& argument : arguments_) {
    noteOut(argument, next, result, ofCertificate, out);
    next += numWordsOf(argument.kind);
  }
  return out;
}

void CallNote::noteOut(const Argument& argument, const Word* words, CK_RV result, bool ofCertificate,
                       Fields& out) const {
  const auto add = [&](Value value) { out.push_back({argument.name, std::move(value)}); };
  switch (argument.kind) {
    case ArgumentKind::kQuery: return add({answers(words, result, ofCertificate)});
    case ArgumentKind::kSignature:
    case ArgumentKind::kPlainText:
    case ArgumentKind::kSlots: return noteBuffer(argument, words, result, out);
    case ArgumentKind::kFound: {
      const auto* count = pointerOf<const CK_ULONG>(words[2]);
      if (!count) return;
      Fields found{{"count", number(*count)}};
      if (result == CKR_OK)
        found.push_back(
            {"value",
             {numbersOf(pointerOf<const CK_ULONG>(words[0]), std::min({*count, room_, kMostHandles}))}});
      return add({std::move(found)});
    }
    case ArgumentKind::kInfo: return add(structureOf<CK_INFO>(words[0]));
    case ArgumentKind::kSlotInfo: return add(structureOf<CK_SLOT_INFO>(words[0]));
    case ArgumentKind::kTokenInfo: return add(structureOf<CK_TOKEN_INFO>(words[0]));
    case ArgumentKind::kSessionInfo: return add(structureOf<CK_SESSION_INFO>(words[0]));
    case ArgumentKind::kHandle: {
      const auto* handle = pointerOf<const CK_ULONG>(words[0]);
      return add(handle ? number(*handle) : nothing());
    }
    case ArgumentKind::kNumber:
    case ArgumentKind::kGiven:
    case ArgumentKind::kPin:
    case ArgumentKind::kData:
    case ArgumentKind::kSearch:
    case ArgumentKind::kMechanism: return;
  }
}

void CallNote::noteBuffer(const Argument& argument, const Word* words, CK_RV result, Fields& out) const {
  const auto* count = pointerOf<const CK_ULONG>(words[1]);
  if (!count) return;
  Fields answer{{"count", number(*count)}};
  if (result == CKR_OK && words[0] != 0 && argument.kind == ArgumentKind::kSlots) {
    // The layers use the slots that there is room for, also where the module counts more.
    answer.push_back(
        {"value", {numbersOf(pointerOf<const CK_ULONG>(words[0]), std::min({*count, room_, kMostHandles}))}});
  } else if (result == CKR_OK && words[0] != 0 && *count <= room_) {
    if (argument.kind == ArgumentKind::kSignature && *count <= kLargestSignature) {
      const std::span bytes{pointerOf<const CK_BYTE>(words[0]), *count};
      answer.push_back({"value", {ByteVector{bytes.begin(), bytes.end()}}});
    } else {
      answer.push_back({"value", {HiddenBytes{*count}}});
    }
  }
  out.push_back({argument.name, {std::move(answer)}});
}

List CallNote::answers(const Word* words, CK_RV result, bool ofCertificate) const {
  List list;
  for (std::size_t i = 0; i < offered_.size(); ++i) {
    const CK_ULONG length = pointerOf<const CK_ATTRIBUTE>(words[0])[i].ulValueLen;
    // The module may have put another pointer there, which is not for us to follow.
    const CK_ATTRIBUTE& offered = offered_[i];
    Fields answer{{"type", typeOf(offered.type)}, {"length", number(length)}};
    if (offered.pValue && length <= offered.ulValueLen && wroteValues(result)) {
      answer.push_back(
          {"value", bytesAs(attributeForm(offered.type), static_cast<const CK_BYTE*>(offered.pValue), length,
                            ofCertificate)});
    }
    list.push_back({std::move(answer)});
  }
  return list;
}

void FoundCertificates::learn(const RecordedCall& call) {
  if (call.result != CKR_OK) return;
  const std::uint64_t session = numberNamed(call.in, "session");
  if (call.function == "C_OpenSession") {
    slots_[numberNamed(call.out, "session")] = numberNamed(call.in, "slot");
  } else if (call.function == "C_FindObjectsInit") {
    searches_[session] = asksForCertificates(call.in);
  } else if (call.function == "C_DeriveKey") {
    // A module may give a handle anew.
    certificates_.erase({slots_[session], numberNamed(call.out, "key")});
  } else if (call.function == "C_FindObjects") {
    const Value* objects = valueNamed(call.out, "objects");
    const auto* answer = objects ? std::get_if<Fields>(&objects->held) : nullptr;
    const Value* value = answer ? valueNamed(*answer, "value") : nullptr;
    const auto* handles = value ? std::get_if<List>(&value->held) : nullptr;
    if (!handles) return;
    for (const Value& handle : *handles) {
      const std::pair object{slots_[session], std::get<std::uint64_t>(handle.held)};
      if (searches_[session]) {
        certificates_.insert(object);
      } else {
        certificates_.erase(object);
      }
    }
  }
}

bool FoundCertificates::isAbout(const std::string& function, const Fields& in) const {
  if (function != "C_GetAttributeValue") return false;
  const auto slot = slots_.find(numberNamed(in, "session"));
  return slot != slots_.end() && certificates_.contains({slot->second, numberNamed(in, "object")});
}

}  // namespace mirel::recording
