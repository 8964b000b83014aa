#include "platform/DynamicLoader.h"

#include <dlfcn.h>

namespace mirel {
namespace {

class DlDynamicLoader final : public DynamicLoader {
 public:
  void* open(const char* path) noexcept override { return dlopen(path, RTLD_NOW); }

  void* symbol(void* library, const char* name) noexcept override {
    // To glibc a null handle means "search the whole process", which would find another library's
    // symbol.
    return library ? dlsym(library, name) : nullptr;
  }

  bool close(void* library) noexcept override {
    // glibc reads through the handle without looking, a null one included.
    return library && dlclose(library) == 0;
  }

  std::string errorText() noexcept override {
    const char* text = dlerror();
    return text ? text : "";
  }
};

}  // namespace

std::shared_ptr<DynamicLoader> systemDynamicLoader() { return std::make_shared<DlDynamicLoader>(); }

std::span<const std::uint8_t> ownImageStart() noexcept {
  // The smallest header, that of a Mach-O file of 32 bits.
  constexpr std::size_t kSmallestHeader = 28;  // bytes
  Dl_info image{};
  const auto* anything = reinterpret_cast<const void*>(&systemDynamicLoader);
  if (dladdr(anything, &image) == 0 || !image.dli_fbase) return {};
  return {static_cast<const std::uint8_t*>(image.dli_fbase), kSmallestHeader};
}

}  // namespace mirel
