#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "host/Result.h"

namespace mirel {

enum class LibraryFormat { kElf, kMachO, kPe };

/// What a shared library or a program was built for.
struct LibraryTarget {
  LibraryFormat format;
  std::uint32_t machine = 0;  ///< e_machine of ELF, the cputype of Mach-O, or the Machine of PE
  bool is64Bit = false;
  bool isBigEndian = false;

  [[nodiscard]] friend bool operator==(const LibraryTarget&, const LibraryTarget&) = default;
};

/// As many bytes of a file as `targetsOf` may look at.
inline constexpr std::size_t kLibraryHeaderSize = 1024;

/// What the file with these first bytes was built for: one target of an ELF file (System V ABI, chapter 4) or
/// a Mach-O file or a PE file of Windows, all of a universal one. Empty when the bytes do not tell; also when
/// they end too early.
[[nodiscard]] std::vector<LibraryTarget> targetsOf(std::span<const std::uint8_t> start);

/// Fills `room` with the bytes of a file from `at` on. False where there are not as many.
using FileReader = std::function<bool(std::uint64_t at, std::span<std::uint8_t> room)>;

/// Whether an ELF file of that size lacks some of the bytes that the loader maps (its headers, and the
/// segments of the type PT_LOAD). The loader does not look, and a process that uses the rest of them ends
/// by SIGBUS. `start`: as for `targetsOf`. False where the bytes do not tell.
[[nodiscard]] bool isCutOff(std::span<const std::uint8_t> start, std::uint64_t size, const FileReader& read);

/// The names of their processors, such as "x86-64 and aarch64"; empty where there are none.
[[nodiscard]] std::string namesOf(std::span<const LibraryTarget> targets);

/// Whether a program can load the library, by the first bytes of both. Succeeds also when they do not tell.
/// The failure says why not: "the module is for aarch64, this program is x86-64".
[[nodiscard]] Result<void> checkTarget(std::span<const std::uint8_t> library,
                                       std::span<const std::uint8_t> program);

}  // namespace mirel
