#include "platform/UserDirectory.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <vector>

#include "PasswordDatabase.h"

namespace mirel {
namespace {

constexpr std::size_t kFirstBufferSize = 1024;
constexpr std::size_t kLargestBufferSize = 1024 * kFirstBufferSize;

std::string orEmpty(const char* text) { return text ? text : ""; }

/// Asks the database, which may be behind a network, once for a user. What it did not tell is asked again.
class PasswordUserDirectory final : public UserDirectory {
 public:
  std::string loginName() noexcept override {
    const std::lock_guard lock{mutex_};
    const uid_t user = geteuid();
    if (name_.empty() || user_ != user) {
      learn(user);
      user_ = user;
    }
    return name_;
  }

  std::string homeOf(const std::string& loginName) noexcept override {
    // The database would look for the part before the NUL, which is another user.
    if (loginName.find('\0') != std::string::npos) return {};
    const std::lock_guard lock{mutex_};
    if (home_.empty() || homesUser_ != loginName) {
      home_ = askedHomeOf(loginName);
      homesUser_ = loginName;
    }
    return home_;
  }

 private:
  /// The name, and with it the home: who asks for the one asks for the other next.
  void learn(uid_t user) {
    const auto entry = readPasswordEntry([user](passwd* out, char* buffer, std::size_t size, passwd** found) {
      return getpwuid_r(user, out, buffer, size, found);
    });
    name_ = entry ? entry->name : std::string{};
    if (name_.empty()) return;
    homesUser_ = name_;
    home_ = usableHome(entry->home);
  }

  static std::string askedHomeOf(const std::string& loginName) {
    const auto entry =
        readPasswordEntry([&loginName](passwd* out, char* buffer, std::size_t size, passwd** found) {
          return getpwnam_r(loginName.c_str(), out, buffer, size, found);
        });
    return entry ? usableHome(entry->home) : std::string{};
  }

  std::mutex mutex_;
  uid_t user_ = 0;
  std::string name_;  // of that user; empty: not known
  std::string homesUser_;
  std::string home_;  // of that login name; empty: not known
};

}  // namespace

std::optional<PasswordEntry> readPasswordEntry(const PasswordQuery& query) {
  for (std::size_t size = kFirstBufferSize; size <= kLargestBufferSize; size *= 2) {
    std::vector<char> buffer(size);
    passwd entry{};
    passwd* found = nullptr;
    int error = EINTR;
    while (error == EINTR) error = query(&entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE) continue;
    if (error != 0 || !found) return std::nullopt;
    return PasswordEntry{orEmpty(found->pw_name), orEmpty(found->pw_dir)};
  }
  return std::nullopt;
}

std::string usableHome(std::string_view home) {
  if (home.empty() || home.front() != '/') return {};
  const std::size_t last = home.find_last_not_of('/');
  return last == std::string_view::npos ? "/." : std::string{home.substr(0, last + 1)};
}

std::shared_ptr<UserDirectory> systemUserDirectory() { return std::make_shared<PasswordUserDirectory>(); }

}  // namespace mirel
