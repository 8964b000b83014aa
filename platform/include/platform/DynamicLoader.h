#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace mirel {

/// The system's dynamic loader, one method for each of its calls.
class DynamicLoader {
 public:
  DynamicLoader() = default;
  DynamicLoader(const DynamicLoader&) = delete;
  DynamicLoader& operator=(const DynamicLoader&) = delete;
  virtual ~DynamicLoader() = default;

  /// Opens the shared library at `path`, resolving all its symbols at once. Null on failure.
  [[nodiscard]] virtual void* open(const char* path) noexcept = 0;

  /// The address of the exported symbol `name` of an opened library. Null when it has none.
  [[nodiscard]] virtual void* symbol(void* library, const char* name) noexcept = 0;

  /// Gives back one `open`. True on success.
  virtual bool close(void* library) noexcept = 0;

  /// The system's text for the last failure in this thread, which it also clears; empty when none
  /// has happened since.
  [[nodiscard]] virtual std::string errorText() noexcept = 0;
};

/// The loader of the running system.
[[nodiscard]] std::shared_ptr<DynamicLoader> systemDynamicLoader();

/// The first bytes of the image that this code was loaded from, as its file has them: the start of its
/// header, from which can be read what it was built for. Empty when the system does not tell. A function of
/// the system, not handed down.
[[nodiscard]] std::span<const std::uint8_t> ownImageStart() noexcept;

}  // namespace mirel
