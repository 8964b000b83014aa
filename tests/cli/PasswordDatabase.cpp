/// Preloaded, it answers for the password database: there is one user, whose home is the environment's
/// MIREL_TEST_HOME. So tests can look at the whole home of the user without owning one, and put things
/// into it. With the environment's MIREL_TEST_FULL_DISK no file reaches the disk: fsync fails. While there is
/// the file of MIREL_TEST_NO_PROCESS, no process can be started; the first attempt takes away one that is
/// empty.

#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr const char* kUserName = "cardholder";

char* copied(std::string_view text, char*& buffer, std::size_t& room) {
  if (text.size() >= room) return nullptr;
  char* copy = buffer;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  buffer += text.size() + 1;
  room -= text.size() + 1;
  return copy;
}

int answer(passwd* entry, char* buffer, std::size_t room, passwd** found) {
  *found = nullptr;
  const char* home = std::getenv("MIREL_TEST_HOME");
  if (!home) return ENOENT;
  entry->pw_name = copied(kUserName, buffer, room);
  entry->pw_passwd = copied("*", buffer, room);
  entry->pw_uid = geteuid();
  entry->pw_gid = getegid();
  entry->pw_gecos = copied("", buffer, room);
  entry->pw_dir = copied(home, buffer, room);
  entry->pw_shell = copied("/bin/sh", buffer, room);
  const bool fitted =
      entry->pw_name && entry->pw_passwd && entry->pw_gecos && entry->pw_dir && entry->pw_shell;
  if (!fitted) return ERANGE;
  *found = entry;
  return 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int getpwuid_r(uid_t user, passwd* entry, char* buffer,
                                                      std::size_t room, passwd** found) {
  *found = nullptr;
  return user == geteuid() ? answer(entry, buffer, room, found) : 0;
}

__attribute__((visibility("default"))) int getpwnam_r(const char* name, passwd* entry, char* buffer,
                                                      std::size_t room, passwd** found) {
  *found = nullptr;
  return std::string_view{name} == kUserName ? answer(entry, buffer, room, found) : 0;
}

__attribute__((visibility("default"))) int fsync(int file) {
  if (!std::getenv("MIREL_TEST_FULL_DISK")) return static_cast<int>(syscall(SYS_fsync, file));
  errno = ENOSPC;
  return -1;
}

__attribute__((visibility("default"))) pid_t fork() {
  const char* file = std::getenv("MIREL_TEST_NO_PROCESS");
  struct stat status {};
  if (file && stat(file, &status) == 0) {
    if (status.st_size == 0) (void)unlink(file);
    errno = EAGAIN;
    return -1;
  }
  return reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"))();
}

}  // extern "C"
