#include "platform/UserDirectory.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "PasswordDatabase.h"
#include "ScopedVariable.h"

namespace {

int homesAsked = 0;  // of the password database

}  // namespace

extern "C" int getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size, passwd** found) {
  ++homesAsked;
  static const auto real = reinterpret_cast<decltype(&getpwnam_r)>(dlsym(RTLD_NEXT, "getpwnam_r"));
  return real(name, entry, buffer, size, found);
}

namespace mirel {
namespace {

/// What a command prints, without the line end.
std::string outputOf(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {};
  std::string output;
  std::array<char, 256> buffer{};
  while (std::fgets(buffer.data(), buffer.size(), pipe)) output += buffer.data();
  if (pclose(pipe) != 0) return {};
  while (!output.empty() && output.back() == '\n') output.pop_back();
  return output;
}

/// The home folder in getent's line "name:password:uid:gid:gecos:home:shell".
std::string homeByGetent(const std::string& user) {
  return outputOf("getent passwd '" + user + "' | cut -d: -f6");
}

/// Becomes another effective user. False when there is no such user to become, as in a user namespace.
bool becomes(uid_t user) {
  if (seteuid(user) == 0) return true;
  EXPECT_TRUE(errno == EINVAL || errno == EPERM) << std::strerror(errno);
  return false;
}

TEST(SystemUserDirectory, TellsTheNameAndTheHomeThatTheSystemTellsNotTheEnvironment) {
  const std::string user = outputOf("id -un");
  if (user.empty()) GTEST_SKIP() << "this user has no entry in the password database";
  const std::string home = homeByGetent(user);
  ASSERT_NE(home, "");
  const ScopedVariable wrongUser{"USER", "somebody"};
  const ScopedVariable wrongLogin{"LOGNAME", "somebody"};
  const ScopedVariable wrongHome{"HOME", "/somewhere"};
  EXPECT_EQ(systemUserDirectory()->loginName(), user);
  EXPECT_EQ(systemUserDirectory()->homeOf(user), home);
}

TEST(SystemUserDirectory, AsksTheDatabaseOnceForTheNameAndTheHomeOfItsUser) {
  const auto users = systemUserDirectory();
  const std::string user = users->loginName();
  if (user.empty()) GTEST_SKIP() << "this user has no entry in the password database";
  homesAsked = 0;
  EXPECT_EQ(users->homeOf(user), homeByGetent(user));
  EXPECT_EQ(homesAsked, 0);
  const std::string homeOfAnother = homeByGetent("daemon");
  ASSERT_NE(homeOfAnother, "");
  EXPECT_EQ(users->homeOf("daemon"), homeOfAnother);
  EXPECT_EQ(homesAsked, 1);
}

TEST(SystemUserDirectory, TellsTheEffectiveUserNotTheRealOne) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can take on another effective user";
  const std::string expected = outputOf("getent passwd daemon | cut -d: -f1");
  const auto daemonId = static_cast<uid_t>(std::stoul(outputOf("id -u daemon")));
  if (!becomes(daemonId)) GTEST_SKIP() << "this root cannot take on the effective user daemon";
  const std::string name = systemUserDirectory()->loginName();
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(name, expected);
}

TEST(SystemUserDirectory, TellsNoNameForAUserWithoutAnEntry) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can take on another effective user";
  constexpr uid_t kUnlistedUser = 3'999'999'999U;
  if (!becomes(kUnlistedUser)) GTEST_SKIP() << "this root cannot take on an effective user without an entry";
  const std::string name = systemUserDirectory()->loginName();
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(name, "");
}

TEST(SystemUserDirectory, TellsNoHomeOfAnUnknownUser) {
  const std::pair<const char*, std::string> rows[] = {
      {"a name without an entry", "no such user here"},
      {"no name", ""},
      {"a name with a NUL behind a known one", std::string{"daemon\0x", 8}},
      {"a line of the database", "daemon:x:1:1"},
  };
  for (const auto& [description, name] : rows)
    EXPECT_EQ(systemUserDirectory()->homeOf(name), "") << description;
}

TEST(UsableHome, CanHaveAPathPutBehindIt) {
  const std::pair<const char*, const char*> rows[] = {
      {"/home/alice", "/home/alice"},
      {"/home/alice/", "/home/alice"},
      {"/home/alice///", "/home/alice"},
      {"/home//alice", "/home//alice"},
      {"/a", "/a"},
      // "/." + "/Library" is "/./Library", the folder /Library.
      {"/", "/."},
      {"//", "/."},
      {"/.", "/."},
      // No absolute path, no home.
      {"", ""},
      {"home", ""},
      {"./home", ""},
  };
  for (const auto& [home, expected] : rows) EXPECT_EQ(usableHome(home), expected) << home;
}

/// A database whose entry for alice needs `needed` bytes.
PasswordQuery databaseNeeding(std::size_t needed, std::vector<std::size_t>& sizesSeen) {
  return [needed, &sizesSeen](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    sizesSeen.push_back(size);
    *found = nullptr;
    if (size < needed) return ERANGE;
    std::memcpy(buffer, "alice\0/home/alice", sizeof "alice\0/home/alice");
    entry->pw_name = buffer;
    entry->pw_dir = buffer + 6;
    *found = entry;
    return 0;
  };
}

TEST(ReadPasswordEntry, GrowsTheBufferUntilTheEntryFits) {
  std::vector<std::size_t> sizes;
  const auto entry = readPasswordEntry(databaseNeeding(100'000, sizes));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->name, "alice");
  EXPECT_EQ(entry->home, "/home/alice");
  EXPECT_GT(sizes.size(), 1U);
  EXPECT_GE(sizes.back(), 100'000U);
}

TEST(ReadPasswordEntry, GivesUpOnAnEntryOfMoreThanOneMebibyte) {
  std::vector<std::size_t> sizes;
  EXPECT_FALSE(readPasswordEntry(databaseNeeding(1024 * 1024 + 1, sizes)));
  EXPECT_EQ(sizes.back(), 1024U * 1024U);
}

TEST(ReadPasswordEntry, AsksAgainAfterASignal) {
  int calls = 0;
  std::vector<std::size_t> sizes;
  const auto entry = readPasswordEntry([&](passwd* out, char* buffer, std::size_t size, passwd** found) {
    return ++calls < 3 ? EINTR : databaseNeeding(1, sizes)(out, buffer, size, found);
  });
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->name, "alice");
  EXPECT_EQ(calls, 3);
}

TEST(ReadPasswordEntry, FindsNothingWhenThereIsNoEntryOrTheDatabaseCannotBeRead) {
  for (const int code : {0, EIO}) {
    EXPECT_FALSE(readPasswordEntry([code](passwd*, char*, std::size_t, passwd** found) {
      *found = nullptr;
      return code;
    })) << code;
  }
}

TEST(ReadPasswordEntry, TakesAMissingTextAsEmpty) {
  const auto entry = readPasswordEntry([](passwd* out, char*, std::size_t, passwd** found) {
    *found = out;
    return 0;
  });
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->name, "");
  EXPECT_EQ(entry->home, "");
}

}  // namespace
}  // namespace mirel
