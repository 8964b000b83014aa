#include "LibraryHeader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/DynamicLoader.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Header = std::vector<std::uint8_t>;

constexpr std::uint32_t kX8664 = 62;
constexpr std::uint32_t kAarch64 = 183;
constexpr std::uint32_t kMachX8664 = 0x01000007;
constexpr std::uint32_t kMachAarch64 = 0x0100000C;

void append(Header& out, std::uint32_t number, std::size_t size, bool bigEndian) {
  for (std::size_t i = 0; i < size; ++i) {
    const std::size_t shift = 8 * (bigEndian ? size - 1 - i : i);
    out.push_back(static_cast<std::uint8_t>(number >> shift));
  }
}

/// The first 20 bytes of an ELF file.
Header elf(std::uint32_t machine, std::uint8_t fileClass = 2, std::uint8_t order = 1) {
  Header header{0x7F, 'E', 'L', 'F', fileClass, order, 1};
  header.resize(16);
  append(header, 3, 2, order == 2);
  append(header, machine, 2, order == 2);
  return header;
}

/// The first 8 bytes of a Mach-O file.
Header machO(std::uint32_t magic, std::uint32_t cpuType, bool bigEndian = false) {
  Header header;
  append(header, magic, 4, bigEndian);
  append(header, cpuType, 4, bigEndian);
  return header;
}

/// A universal Mach-O file up to the end of its table.
Header universal(const std::vector<std::uint32_t>& cpuTypes, bool is64Bit = false) {
  Header header;
  append(header, is64Bit ? 0xCAFEBABFU : 0xCAFEBABEU, 4, true);
  append(header, static_cast<std::uint32_t>(cpuTypes.size()), 4, true);
  for (const std::uint32_t cpuType : cpuTypes) {
    append(header, cpuType, 4, true);
    header.resize(header.size() + (is64Bit ? 28 : 16));
  }
  return header;
}

/// A file of Windows up to its processor.
Header pe(std::uint32_t machine) {
  Header header{'M', 'Z'};
  header.resize(0x3C);
  append(header, 0x80, 4, false);
  header.resize(0x80);
  header.insert(header.end(), {'P', 'E', 0, 0});
  append(header, machine, 2, false);
  return header;
}

TEST(LibraryHeader, TellsWhatAFileIsFor) {
  const std::pair<Header, LibraryTarget> rows[] = {
      {elf(kX8664), {LibraryFormat::kElf, kX8664, true, false}},
      {elf(22, 2, 2), {LibraryFormat::kElf, 22, true, true}},
      {elf(3, 1, 1), {LibraryFormat::kElf, 3, false, false}},
      {machO(0xFEEDFACF, kMachAarch64), {LibraryFormat::kMachO, kMachAarch64, true, false}},
      {machO(0xFEEDFACE, 7), {LibraryFormat::kMachO, 7, false, false}},
      {machO(0xFEEDFACE, 18, true), {LibraryFormat::kMachO, 18, false, true}},
      {pe(0x8664), {LibraryFormat::kPe, 0x8664, true, false}},
      {pe(0x014C), {LibraryFormat::kPe, 0x014C, false, false}},
  };
  for (const auto& [header, target] : rows) EXPECT_THAT(targetsOf(header), ElementsAre(target));
  for (const bool is64Bit : {false, true}) {
    EXPECT_THAT(targetsOf(universal({kMachX8664, kMachAarch64}, is64Bit)),
                ElementsAre(LibraryTarget{LibraryFormat::kMachO, kMachX8664, true, false},
                            LibraryTarget{LibraryFormat::kMachO, kMachAarch64, true, false}));
  }
}

TEST(LibraryHeader, TellsNothingWhenItEndsTooEarly) {
  for (const Header& whole : {elf(kX8664), machO(0xFEEDFACF, kMachAarch64), pe(0x8664)}) {
    for (std::size_t size = 0; size < whole.size(); ++size) {
      SCOPED_TRACE(size);
      EXPECT_THAT(targetsOf(std::span{whole}.first(size)), IsEmpty());
    }
    EXPECT_THAT(targetsOf(whole), SizeIs(1));
  }
  const Header whole = universal({kMachX8664, kMachAarch64});
  for (std::size_t size = 0; size < 8 + 20 + 4; ++size) {
    SCOPED_TRACE(size);
    EXPECT_THAT(targetsOf(std::span{whole}.first(size)), IsEmpty());
  }
}

TEST(LibraryHeader, TellsNothingOfOtherFiles) {
  Header javaClass{0xCA, 0xFE, 0xBA, 0xBE, 0x00, 0x00, 0x00, 0x34};
  javaClass.resize(kLibraryHeaderSize);
  Header manySlices{0xCA, 0xFE, 0xBA, 0xBE, 0xFF, 0xFF, 0xFF, 0xFF};
  manySlices.resize(kLibraryHeaderSize);
  const Header kRows[] = {{},
                          Header(kLibraryHeaderSize),
                          Header(kLibraryHeaderSize, 0xFF),
                          {'#', '!', '/', 'b', 'i', 'n'},
                          javaClass,
                          manySlices,
                          universal({}),
                          elf(kX8664, 0),
                          elf(kX8664, 3),
                          elf(kX8664, 2, 0),
                          elf(kX8664, 2, 3)};
  for (const Header& header : kRows) EXPECT_THAT(targetsOf(header), IsEmpty());
}

TEST(LibraryTargets, AreNamedWhenNoneFits) {
  struct Row {
    Header library;
    Header program;
    const char* why;  ///< empty: the module is accepted
  };
  const Row kRows[] = {
      {elf(kAarch64), elf(kX8664), "the module is for aarch64, this program is x86-64"},
      {elf(3, 1), elf(kX8664), "the module is for i386, this program is x86-64"},
      {elf(kX8664, 1), elf(kX8664),
       "the module is for x86-64 (32 bits, little-endian), this program is x86-64 (64 bits, little-endian)"},
      {elf(kAarch64, 2, 2), elf(kAarch64),
       "the module is for aarch64 (64 bits, big-endian), this program is aarch64 (64 bits, little-endian)"},
      {elf(9999), elf(kX8664), "the module is for machine 9999, this program is x86-64"},
      {machO(0xFEEDFACF, kMachAarch64), elf(kX8664),
       "the module is for aarch64 (Mach-O), this program is x86-64 (ELF)"},
      {pe(0x8664), elf(kX8664), "the module is for x86-64 (Windows), this program is x86-64 (ELF)"},
      {machO(0xFEEDFACF, kMachX8664), machO(0xFEEDFACF, kMachAarch64),
       "the module is for x86-64, this program is aarch64"},
      {universal({7, kMachX8664}), machO(0xFEEDFACF, kMachAarch64),
       "the module is for i386 and x86-64, this program is aarch64"},
      // One of them fits, or nothing is told.
      {elf(kX8664), elf(kX8664), ""},
      {machO(0xFEEDFACF, kMachAarch64), machO(0xFEEDFACF, kMachAarch64), ""},
      {universal({kMachX8664, kMachAarch64}), machO(0xFEEDFACF, kMachAarch64), ""},
      {{}, elf(kX8664), ""},
      {elf(kX8664), {}, ""},
  };
  for (const Row& row : kRows) {
    const auto fits = checkTarget(row.library, row.program);
    EXPECT_EQ(fits ? "" : fits.failure().why, row.why);
  }
}

TEST(IsCutOff, LooksForAllThatTheLoaderMaps) {
  constexpr std::uint32_t kLoaded = 1;
  constexpr std::uint32_t kNote = 4;
  struct Row {
    const char* name;
    std::uint8_t fileClass;
    std::uint8_t order;
    std::uint32_t type;
    std::uint32_t from;
    std::uint32_t length;
    bool expected;
  };
  const Row kRows[] = {
      {"up to the end", 2, 1, kLoaded, 1000, 1000, false},
      {"one byte more", 2, 1, kLoaded, 1000, 1001, true},
      {"begins behind it", 2, 1, kLoaded, 2001, 1, true},
      {"takes nothing", 2, 1, kLoaded, 2001, 0, false},
      {"is not mapped", 2, 1, kNote, 1000, 9999, false},
      {"32 bits", 1, 1, kLoaded, 1000, 1001, true},
      {"32 bits, whole", 1, 1, kLoaded, 0, 2000, false},
      {"big-endian", 2, 2, kLoaded, 1000, 1001, true},
      {"big-endian, whole", 1, 2, kLoaded, 0, 2000, false},
  };
  for (const auto& [name, fileClass, order, type, from, length, expected] : kRows) {
    SCOPED_TRACE(name);
    const bool isBigEndian = order == 2;
    const bool is64Bit = fileClass == 2;
    const auto offset = [&](Header& out, std::uint32_t number) {
      if (is64Bit && isBigEndian) append(out, 0, 4, true);
      append(out, number, 4, isBigEndian);
      if (is64Bit && !isBigEndian) append(out, 0, 4, false);
    };
    constexpr std::uint32_t kTableAt = 1500;  // behind what is read at first
    Header start = elf(kX8664, fileClass, order);
    start.resize(is64Bit ? 32 : 28);
    offset(start, kTableAt);
    start.resize(is64Bit ? 54 : 42);
    append(start, is64Bit ? 56 : 32, 2, isBigEndian);
    append(start, 1, 2, isBigEndian);
    Header entry;
    append(entry, type, 4, isBigEndian);
    entry.resize(is64Bit ? 8 : 4);
    offset(entry, from);
    entry.resize(is64Bit ? 32 : 16);
    offset(entry, length);
    entry.resize(is64Bit ? 56 : 32);
    const auto read = [&](std::uint64_t at, std::span<std::uint8_t> room) {
      EXPECT_EQ(at, kTableAt);
      EXPECT_EQ(room.size(), entry.size());
      std::copy_n(entry.begin(), room.size(), room.begin());
      return true;
    };
    EXPECT_EQ(isCutOff(start, 2000, read), expected);
    EXPECT_TRUE(isCutOff(start, kTableAt + entry.size() - 1, read));
    EXPECT_FALSE(isCutOff(start, 2000, [](std::uint64_t, std::span<std::uint8_t>) { return false; }));
    start.pop_back();  // the number of headers
    EXPECT_FALSE(isCutOff(start, 2000, read));
    EXPECT_TRUE(isCutOff(start, start.size(), read));
  }
}

TEST(LibraryTargets, OfThisProgramAreKnown) { EXPECT_THAT(targetsOf(ownImageStart()), SizeIs(1)); }

}  // namespace
}  // namespace mirel::test
