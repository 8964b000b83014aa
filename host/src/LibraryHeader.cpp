#include "LibraryHeader.h"

#include <algorithm>
#include <optional>
#include <string>

namespace mirel {
namespace {

constexpr std::uint32_t kElfMagic = 0x7F454C46;  // the magic numbers as bytes in their order in the file
constexpr std::uint32_t kMachO32 = 0xFEEDFACE;
constexpr std::uint32_t kMachO64 = 0xFEEDFACF;
constexpr std::uint32_t kMachO32Swapped = 0xCEFAEDFE;
constexpr std::uint32_t kMachO64Swapped = 0xCFFAEDFE;
constexpr std::uint32_t kUniversal32 = 0xCAFEBABE;
constexpr std::uint32_t kUniversal64 = 0xCAFEBABF;
constexpr std::uint32_t kDosMagic = 0x4D5A;  // two bytes only
constexpr std::uint32_t kPeMagic = 0x50450000;

/// Java's class files begin as universal ones do; there the number of slices is a version of 45 and more.
constexpr std::uint32_t kMostSlices = 40;

constexpr std::uint32_t kMachO64BitFlag = 0x01000000;  // in a cputype

/// Reads numbers within the bytes.
class Header {
 public:
  explicit Header(std::span<const std::uint8_t> bytes) : bytes_{bytes} {}

  /// The number of `size` bytes (4 at most) at `at`; nothing behind the end.
  [[nodiscard]] std::optional<std::uint32_t> number(std::size_t at, std::size_t size, bool bigEndian) const {
    if (at > bytes_.size() || bytes_.size() - at < size) return std::nullopt;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
      value = (value << 8U) | bytes_[at + (bigEndian ? i : size - 1 - i)];
    return value;
  }

  /// The same for one of 8 bytes.
  [[nodiscard]] std::optional<std::uint64_t> longNumber(std::size_t at, bool bigEndian) const {
    const auto first = number(at, 4, bigEndian);
    const auto second = number(at + 4, 4, bigEndian);
    if (!first || !second) return std::nullopt;
    const std::uint64_t high = bigEndian ? *first : *second;
    return (high << 32U) | (bigEndian ? *second : *first);
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

/// Where the numbers of an ELF file stand (System V ABI, chapters 4 and 5).
struct ElfPlaces {
  bool is64Bit;
  std::size_t fileHeaderSize;
  std::size_t tableAt;  // in the header of the file: of the program headers
  std::size_t entrySize;
  std::size_t count;
  std::size_t segmentAt;  // in a program header
  std::size_t segmentSize;
  std::size_t headerSize;  // of a program header
};
constexpr ElfPlaces kElf32{false, 52, 28, 42, 44, 4, 16, 32};
constexpr ElfPlaces kElf64{true, 64, 32, 54, 56, 8, 32, 56};

std::vector<LibraryTarget> elfTarget(const Header& header) {
  const auto fileClass = header.number(4, 1, true);
  const auto order = header.number(5, 1, true);
  if (!fileClass || !order || *fileClass < 1 || *fileClass > 2 || *order < 1 || *order > 2) return {};
  const bool isBigEndian = *order == 2;
  const auto machine = header.number(18, 2, isBigEndian);
  if (!machine) return {};
  return {{LibraryFormat::kElf, *machine, *fileClass == 2, isBigEndian}};
}

LibraryTarget machOTarget(std::uint32_t cpuType, bool isBigEndian) {
  return {LibraryFormat::kMachO, cpuType, (cpuType & kMachO64BitFlag) != 0, isBigEndian};
}

std::vector<LibraryTarget> thinTarget(const Header& header, bool isBigEndian) {
  const auto cpuType = header.number(4, 4, isBigEndian);
  if (!cpuType) return {};
  return {machOTarget(*cpuType, isBigEndian)};
}

/// The table is big-endian; of the slices' own byte order it says nothing, so theirs is that of their
/// processors.
std::vector<LibraryTarget> universalTargets(const Header& header, std::size_t entrySize) {
  constexpr std::uint32_t kPowerPC = 18;
  const auto count = header.number(4, 4, true);
  if (!count || *count > kMostSlices) return {};
  std::vector<LibraryTarget> targets;
  for (std::size_t i = 0; i < *count; ++i) {
    const auto cpuType = header.number(8 + i * entrySize, 4, true);
    if (!cpuType) return {};
    targets.push_back(machOTarget(*cpuType, (*cpuType & ~kMachO64BitFlag) == kPowerPC));
  }
  return targets;
}

/// The header of DOS in front says where the own one of PE begins.
std::vector<LibraryTarget> peTarget(const Header& header) {
  constexpr std::size_t kPlaceOfHeader = 0x3C;
  constexpr std::uint32_t kX8664 = 0x8664;
  constexpr std::uint32_t kAarch64 = 0xAA64;
  if (header.number(0, 2, true) != kDosMagic) return {};
  const auto at = header.number(kPlaceOfHeader, 4, false);
  if (!at || header.number(*at, 4, true) != kPeMagic) return {};
  const auto machine = header.number(std::size_t{*at} + 4, 2, false);
  if (!machine) return {};
  return {{LibraryFormat::kPe, *machine, *machine == kX8664 || *machine == kAarch64, false}};
}

struct MachineName {
  LibraryFormat format;
  std::uint32_t machine;
  const char* name;
};

constexpr MachineName kMachineNames[] = {
    {LibraryFormat::kElf, 2, "sparc"},       {LibraryFormat::kElf, 3, "i386"},
    {LibraryFormat::kElf, 8, "mips"},        {LibraryFormat::kElf, 20, "powerpc"},
    {LibraryFormat::kElf, 21, "powerpc64"},  {LibraryFormat::kElf, 22, "s390"},
    {LibraryFormat::kElf, 40, "arm"},        {LibraryFormat::kElf, 43, "sparc64"},
    {LibraryFormat::kElf, 62, "x86-64"},     {LibraryFormat::kElf, 183, "aarch64"},
    {LibraryFormat::kElf, 243, "riscv"},     {LibraryFormat::kElf, 258, "loongarch"},
    {LibraryFormat::kMachO, 7, "i386"},      {LibraryFormat::kMachO, 0x01000007, "x86-64"},
    {LibraryFormat::kMachO, 12, "arm"},      {LibraryFormat::kMachO, 0x0100000C, "aarch64"},
    {LibraryFormat::kMachO, 18, "powerpc"},  {LibraryFormat::kMachO, 0x01000012, "powerpc64"},
    {LibraryFormat::kPe, 0x014C, "i386"},    {LibraryFormat::kPe, 0x8664, "x86-64"},
    {LibraryFormat::kPe, 0xAA64, "aarch64"},
};

std::string machineName(const LibraryTarget& target) {
  const auto* found = std::find_if(std::begin(kMachineNames), std::end(kMachineNames), [&](const auto& row) {
    return row.format == target.format && row.machine == target.machine;
  });
  return found == std::end(kMachineNames) ? "machine " + std::to_string(target.machine) : found->name;
}

const char* formatName(LibraryFormat format) noexcept {
  switch (format) {
    case LibraryFormat::kElf: return "ELF";
    case LibraryFormat::kMachO: return "Mach-O";
    case LibraryFormat::kPe: return "Windows";
  }
  return "";
}

/// With what `other` has as well, if the name alone does not tell them apart.
std::string nameBeside(const LibraryTarget& target, const LibraryTarget& other) {
  std::string name = machineName(target);
  if (target.format != other.format) return name + " (" + formatName(target.format) + ")";
  if (name != machineName(other)) return name;
  return name + (target.is64Bit ? " (64 bits, " : " (32 bits, ") +
         (target.isBigEndian ? "big-endian)" : "little-endian)");
}

}  // namespace

std::vector<LibraryTarget> targetsOf(std::span<const std::uint8_t> start) {
  const Header header{start};
  switch (header.number(0, 4, true).value_or(0)) {
    case kElfMagic: return elfTarget(header);
    case kMachO32:
    case kMachO64: return thinTarget(header, true);
    case kMachO32Swapped:
    case kMachO64Swapped: return thinTarget(header, false);
    case kUniversal32: return universalTargets(header, 20);
    case kUniversal64: return universalTargets(header, 32);
    default: return peTarget(header);
  }
}

bool isCutOff(std::span<const std::uint8_t> start, std::uint64_t size, const FileReader& read) {
  constexpr std::uint32_t kLoaded = 1;               // PT_LOAD
  constexpr std::uint32_t kCountElsewhere = 0xFFFF;  // PN_XNUM
  const Header header{start};
  const auto targets =
      header.number(0, 4, true) == kElfMagic ? elfTarget(header) : std::vector<LibraryTarget>{};
  if (targets.empty()) return false;
  const bool isBigEndian = targets.front().isBigEndian;
  const ElfPlaces& places = targets.front().is64Bit ? kElf64 : kElf32;
  if (size < places.fileHeaderSize) return true;
  const auto offset = [&](const Header& from, std::size_t at) -> std::optional<std::uint64_t> {
    if (places.is64Bit) return from.longNumber(at, isBigEndian);
    return from.number(at, 4, isBigEndian);
  };
  const auto reaches = [size](std::uint64_t from, std::uint64_t length) {
    return from <= size && length <= size - from;
  };
  const auto tableAt = offset(header, places.tableAt);
  const auto count = header.number(places.count, 2, isBigEndian);
  if (!tableAt || !count || *count == kCountElsewhere ||
      header.number(places.entrySize, 2, isBigEndian) != places.headerSize)
    return false;
  std::vector<std::uint8_t> table(places.headerSize * *count);
  if (!reaches(*tableAt, table.size())) return true;
  if (!read(*tableAt, table)) return false;
  const Header entries{table};
  for (std::size_t at = 0; at < table.size(); at += places.headerSize) {
    const auto from = offset(entries, at + places.segmentAt);
    const auto length = offset(entries, at + places.segmentSize);
    // One that takes nothing from the file may have any place in it.
    const bool isTaken = entries.number(at, 4, isBigEndian) == kLoaded && from && length && *length > 0;
    if (isTaken && !reaches(*from, *length)) return true;
  }
  return false;
}

std::string namesOf(std::span<const LibraryTarget> targets) {
  std::string names;
  for (const LibraryTarget& target : targets) names += (names.empty() ? "" : " and ") + machineName(target);
  return names;
}

Result<void> checkTarget(std::span<const std::uint8_t> library, std::span<const std::uint8_t> program) {
  const std::vector<LibraryTarget> targets = targetsOf(library);
  const std::vector<LibraryTarget> own = targetsOf(program);
  if (targets.empty() || own.size() != 1) return {};
  if (std::find(targets.begin(), targets.end(), own.front()) != targets.end()) return {};
  std::string text = "the module is for ";
  for (const LibraryTarget& target : targets) {
    if (&target != &targets.front()) text += " and ";
    text += nameBeside(target, own.front());
  }
  return Failure{FailureKind::kModuleNotLoadable, "the module is for another system",
                 text + ", this program is " + nameBeside(own.front(), targets.front()),
                 "get the module for this system from its maker"};
}

}  // namespace mirel
