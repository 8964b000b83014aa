#include "platform/DynamicLoader.h"

#include <gtest/gtest.h>

#include <thread>

namespace mirel {
namespace {

using testing::Test;

class SystemDynamicLoader : public Test {
 protected:
  std::shared_ptr<DynamicLoader> loader_ = systemDynamicLoader();
};

TEST_F(SystemDynamicLoader, CallsAFunctionOfALibraryItOpened) {
  void* library = loader_->open(MIREL_LOADER_GOOD);
  ASSERT_NE(library, nullptr) << loader_->errorText();
  auto* answer = reinterpret_cast<int (*)()>(loader_->symbol(library, "mirelLoaderAnswer"));
  ASSERT_NE(answer, nullptr) << loader_->errorText();
  EXPECT_EQ(answer(), 42);
  EXPECT_TRUE(loader_->close(library));
}

TEST_F(SystemDynamicLoader, AnswersNullForASymbolThatTheLibraryLacks) {
  void* library = loader_->open(MIREL_LOADER_GOOD);
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(loader_->symbol(library, "mirelNoSuchSymbol"), nullptr);
  EXPECT_NE(loader_->errorText().find("mirelNoSuchSymbol"), std::string::npos);
  EXPECT_TRUE(loader_->close(library));
}

TEST_F(SystemDynamicLoader, NamesTheMissingFileInItsErrorTextOnce) {
  EXPECT_EQ(loader_->open("/nonexistent/libNothing.so"), nullptr);
  EXPECT_NE(loader_->errorText().find("/nonexistent/libNothing.so"), std::string::npos);
  EXPECT_EQ(loader_->errorText(), "") << "reading it clears it";
}

TEST_F(SystemDynamicLoader, RefusesAFileThatIsNoLibrary) {
  EXPECT_EQ(loader_->open("/etc/passwd"), nullptr);
  EXPECT_NE(loader_->errorText(), "");
}

TEST_F(SystemDynamicLoader, ResolvesAllSymbolsWhenItOpens) {
  EXPECT_EQ(loader_->open(MIREL_LOADER_UNRESOLVED), nullptr);
  EXPECT_NE(loader_->errorText().find("mirelSymbolThatNobodyHas"), std::string::npos);
}

TEST_F(SystemDynamicLoader, KeepsTheErrorTextOfEachThreadApart) {
  EXPECT_EQ(loader_->open("/nonexistent/libNothing.so"), nullptr);
  std::string elsewhere = "unset";
  std::thread{[&] { elsewhere = loader_->errorText(); }}.join();
  EXPECT_EQ(elsewhere, "");
  EXPECT_NE(loader_->errorText(), "");
}

TEST_F(SystemDynamicLoader, FindsAndClosesNothingWithoutALibrary) {
  // "malloc" is in the process, but not in no library.
  EXPECT_EQ(loader_->symbol(nullptr, "malloc"), nullptr);
  EXPECT_FALSE(loader_->close(nullptr));
}

TEST_F(SystemDynamicLoader, KeepsALibraryMappedUntilTheLastOfItsOpensIsGivenBack) {
  void* first = loader_->open(MIREL_LOADER_GOOD);
  void* second = loader_->open(MIREL_LOADER_GOOD);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(loader_->close(first));
  auto* answer = reinterpret_cast<int (*)()>(loader_->symbol(second, "mirelLoaderAnswer"));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  EXPECT_TRUE(loader_->close(second));
}

}  // namespace
}  // namespace mirel
