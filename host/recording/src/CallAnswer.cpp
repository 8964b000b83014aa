#include "CallAnswer.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "Structures.h"

namespace mirel::recording {
namespace {

template <typename Held>
const Held* heldIn(const Value* value) noexcept {
  return value ? std::get_if<Held>(&value->held) : nullptr;
}

template <typename Held>
const Held* heldIn(const Fields& fields, std::string_view name) noexcept {
  return heldIn<Held>(valueNamed(fields, name));
}

/// Writes the bytes of a value, where they fit.
void writeBytes(const Value& value, CK_BYTE* out, CK_ULONG room) noexcept {
  const auto copy = [&](const auto& bytes) {
    if (bytes.size() <= room) std::copy(bytes.begin(), bytes.end(), out);
  };
  if (const auto* bytes = std::get_if<ByteVector>(&value.held)) return copy(*bytes);
  if (const auto* text = std::get_if<std::string>(&value.held)) return copy(*text);
  const auto* hidden = std::get_if<HiddenBytes>(&value.held);
  if (hidden && hidden->size <= room) std::fill_n(out, hidden->size, kFillByte);
}

void writeNumbers(const List& list, CK_ULONG* out, CK_ULONG room) noexcept {
  for (std::size_t i = 0; i < std::min<std::size_t>(list.size(), room); ++i) {
    if (const auto* number = heldIn<std::uint64_t>(&list[i])) out[i] = *number;
  }
}

void writeVersion(const Fields& fields, CK_VERSION& out) noexcept {
  if (const auto* major = heldIn<std::uint64_t>(fields, "major")) out.major = static_cast<CK_BYTE>(*major);
  if (const auto* minor = heldIn<std::uint64_t>(fields, "minor")) out.minor = static_cast<CK_BYTE>(*minor);
}

template <typename Structure>
void writeStructure(const Value* value, Word word) {
  const auto* fields = heldIn<Fields>(value);
  auto* structure = pointerOf<Structure>(word);
  if (!fields || !structure) return;
  eachField(*structure, [&](const char* name, auto& field) {
    using Field = std::remove_reference_t<decltype(field)>;
    if constexpr (std::is_same_v<Field, CK_VERSION>) {
      if (const auto* version = heldIn<Fields>(*fields, name)) writeVersion(*version, field);
    } else if constexpr (std::is_array_v<Field>) {
      const auto* text = heldIn<std::string>(*fields, name);
      if (text) std::copy_n(text->begin(), std::min(text->size(), std::size(field)), std::begin(field));
    } else {
      if (const auto* number = heldIn<std::uint64_t>(*fields, name)) field = *number;
    }
  });
}

void writeAttribute(const Fields& answer, CK_ATTRIBUTE& out) noexcept {
  const CK_ULONG room = out.ulValueLen;
  const auto* length = heldIn<std::uint64_t>(answer, "length");
  if (length) out.ulValueLen = *length;
  const Value* value = valueNamed(answer, "value");
  if (!out.pValue || !value || !length || *length > room) return;
  const auto* number = std::get_if<std::uint64_t>(&value->held);
  if (!number) return writeBytes(*value, static_cast<CK_BYTE*>(out.pValue), *length);
  if (*length == sizeof(CK_BBOOL)) {
    *static_cast<CK_BYTE*>(out.pValue) = static_cast<CK_BYTE>(*number);
  } else if (*length == sizeof(CK_ULONG)) {
    const CK_ULONG known = *number;
    std::memcpy(out.pValue, &known, sizeof known);
  }
}

void writeAttributes(const Value* value, const Word* words) noexcept {
  const auto* answers = heldIn<List>(value);
  auto* attributes = pointerOf<CK_ATTRIBUTE>(words[0]);
  if (!answers || !attributes) return;
  for (std::size_t i = 0; i < std::min<std::size_t>(answers->size(), words[1]); ++i) {
    if (const auto* answer = heldIn<Fields>(&(*answers)[i])) writeAttribute(*answer, attributes[i]);
  }
}

/// `room`: what the caller has, in bytes or entries.
void writeCounted(ArgumentKind kind, const Value* value, Word target, CK_ULONG room, CK_ULONG* outCount) {
  const auto* answer = heldIn<Fields>(value);
  if (!answer || !outCount) return;
  if (const auto* count = heldIn<std::uint64_t>(*answer, "count")) *outCount = *count;
  const Value* recorded = valueNamed(*answer, "value");
  if (!recorded || target == 0) return;
  if (kind == ArgumentKind::kSignature || kind == ArgumentKind::kPlainText)
    return writeBytes(*recorded, pointerOf<CK_BYTE>(target), room);
  if (const auto* list = heldIn<List>(recorded)) writeNumbers(*list, pointerOf<CK_ULONG>(target), room);
}

void writeArgument(const Argument& argument, const Word* words, const Fields& out) {
  const Value* value = valueNamed(out, argument.name);
  switch (argument.kind) {
    case ArgumentKind::kQuery: return writeAttributes(value, words);
    case ArgumentKind::kSignature:
    case ArgumentKind::kPlainText:
    case ArgumentKind::kSlots: {
      auto* count = pointerOf<CK_ULONG>(words[1]);
      return writeCounted(argument.kind, value, words[0], count ? *count : 0, count);
    }
    case ArgumentKind::kFound:
      return writeCounted(argument.kind, value, words[0], words[1], pointerOf<CK_ULONG>(words[2]));
    case ArgumentKind::kInfo: return writeStructure<CK_INFO>(value, words[0]);
    case ArgumentKind::kSlotInfo: return writeStructure<CK_SLOT_INFO>(value, words[0]);
    case ArgumentKind::kTokenInfo: return writeStructure<CK_TOKEN_INFO>(value, words[0]);
    case ArgumentKind::kSessionInfo: return writeStructure<CK_SESSION_INFO>(value, words[0]);
    case ArgumentKind::kHandle: {
      const auto* number = heldIn<std::uint64_t>(value);
      if (number && words[0] != 0) *pointerOf<CK_ULONG>(words[0]) = *number;
      return;
    }
    case ArgumentKind::kNumber:
    case ArgumentKind::kGiven:
    case ArgumentKind::kPin:
    case ArgumentKind::kData:
    case ArgumentKind::kSearch:
    case ArgumentKind::kMechanism: return;
  }
}

}  // namespace

void writeAnswer(const FunctionRow& row, std::span<const Word> words, const RecordedCall& recorded) {
  const Word* next = words.data();
  for (const Argument& argument : row.arguments) {
    writeArgument(argument, next, recorded.out);
    next += numWordsOf(argument.kind);
  }
}

}  // namespace mirel::recording
