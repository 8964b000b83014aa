#include "support/TemporaryFolder.h"

#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp is POSIX, not standard C++

#include <string>
#include <system_error>

namespace mirel::test {

TemporaryFolder::TemporaryFolder() {
  // The path stays right when a test changes the working folder, though TMPDIR be relative.
  namespace fs = std::filesystem;
  std::string name = fs::absolute(fs::temp_directory_path() / "mirel-test-XXXXXX").string();
  if (!mkdtemp(name.data())) throw std::system_error{errno, std::generic_category(), name};
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace mirel::test
