#include "platform/LocalizedStrings.h"

#include <libintl.h>
#include <locale.h>  // newlocale, of POSIX

#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

namespace mirel {
namespace {

constexpr const char* kDomain = "mireltoken";

/// Where the catalogues lie, beside the running program: in the build folder, or as installed.
std::string catalogueFolder() {
  std::error_code error;
  const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  if (error) return {};
  for (const auto& candidate : {folder / "locale", folder.parent_path() / "share" / "locale"}) {
    if (std::filesystem::is_directory(candidate, error)) return candidate.string();
  }
  return {};
}

/// Makes the calling thread read texts in a language, for its lifetime; null: that of the process.
class ScopedLanguage {
 public:
  explicit ScopedLanguage(locale_t language) noexcept
      : before_{language ? uselocale(language) : locale_t{}} {}
  ScopedLanguage(const ScopedLanguage&) = delete;
  ScopedLanguage& operator=(const ScopedLanguage&) = delete;
  ~ScopedLanguage() {
    if (before_) (void)uselocale(before_);
  }

 private:
  locale_t before_;
};

class GettextStrings final : public LocalizedStrings {
 public:
  GettextStrings() {
    const std::string folder = catalogueFolder();
    // Without a folder of our own the C library would look in the system's, for another program's texts.
    bindtextdomain(kDomain, folder.empty() ? "/nonexistent" : folder.c_str());
    bind_textdomain_codeset(kDomain, "UTF-8");
  }
  GettextStrings(const GettextStrings&) = delete;
  GettextStrings& operator=(const GettextStrings&) = delete;
  ~GettextStrings() override {
    if (language_) freelocale(language_);
  }

  Text localizedString(std::string_view key) noexcept override {
    if (key.empty()) return Text::fromUtf8({});  // gettext would answer with the header of the catalogue
    const std::string name{key};
    std::call_once(once_, [this] { language_ = newlocale(LC_MESSAGES_MASK, "", nullptr); });
    const ScopedLanguage language{language_};
    const char* text = dgettext(kDomain, name.c_str());
    // The C locale has no catalogue, and some locales lack a translation: both read English.
    return Text::fromUtf8(text == name.c_str() ? englishString(key) : text);
  }

 private:
  std::once_flag once_;
  locale_t language_ = nullptr;  ///< the user's; null where the system does not have it
};

}  // namespace

std::shared_ptr<LocalizedStrings> systemLocalizedStrings() { return std::make_shared<GettextStrings>(); }

}  // namespace mirel
