#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Progress.h"
#include "host/InputSource.h"

namespace mirel::cli {

/// What the name of a temporary file begins with.
inline constexpr std::string_view kTemporaryFilePrefix = ".mireltoken-";

/// Standard input or a file, read in pieces.
class FileInput final : public InputSource {
 public:
  /// `name`: nothing or "-" for standard input. `showsProgress`: of long reading, at a terminal.
  [[nodiscard]] static Result<std::unique_ptr<FileInput>> open(const std::optional<std::string>& name,
                                                               bool showsProgress);
  ~FileInput() override;

  [[nodiscard]] Result<std::size_t> read(std::span<std::uint8_t> room) override;

 private:
  FileInput(int descriptor, std::string name, bool showsProgress);

  int descriptor_;
  std::string name_;
  bool showsProgress_;
  std::optional<Progress> progress_{};   // from the first reading on
  std::optional<std::uint64_t> size_{};  // bytes, where it is known
  std::uint64_t numRead_ = 0;
};

/// True when `name` stands for standard output and that is a terminal.
[[nodiscard]] bool goesToTerminal(const std::optional<std::string>& name);

/// True for what is something else than a file, such as a device, a pipe or an open file: it is written in
/// place.
[[nodiscard]] bool isSpecialFile(const std::string& name);

/// Writes all of `data`: a file completely or not at all (an existing one keeps its content until the new one
/// is whole), with `mode` less the process's mask. A file of this user that is there keeps its mode, as far
/// as `mode` reaches: what is for the user alone stays so. One whose mode does not let it be written is
/// refused, also for root. A link is followed. `name`: nothing or "-" for
/// standard output.
[[nodiscard]] Result<void> writeFile(const std::optional<std::string>& name,
                                     std::span<const std::uint8_t> data, mode_t mode);

/// The same for a text that others may read as well.
[[nodiscard]] Result<void> writeText(const std::optional<std::string>& name, const std::string& text);

enum class FileUse { kReading, kWriting };

/// Whether the open file that the name stands for, such as /dev/fd/3, is there; so it is where the name
/// stands for none. To be asked before anything is opened, because a file of ours or of the module could get
/// the number of a closed one, and be read or written in its place.
[[nodiscard]] Result<void> checkOpenFile(const std::optional<std::string>& name, FileUse use);

/// Whether a file of that name can be written, as far as that shows beforehand.
[[nodiscard]] Result<void> checkWriting(const std::optional<std::string>& name);

}  // namespace mirel::cli
