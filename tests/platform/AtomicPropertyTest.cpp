#include "platform/AtomicProperty.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Text.h"

namespace mirel {
namespace {

/// Two texts that belong together: a mixture of two values shows as different texts.
struct Pair {
  Text first;
  Text second;
};

Pair pairOf(char16_t letter, std::size_t length) {
  const std::u16string units(length, letter);
  return {Text{units}, Text{units}};
}

TEST(AtomicProperty, IsEmptyAtFirstAndThenGivesTheVeryValueThatWasSetLast) {
  AtomicProperty<Text> property;
  EXPECT_TRUE(property.get().isNull());
  const Text text{u"new"};
  property.set(Text{u"old"});
  property.set(text);
  EXPECT_TRUE(property.get().sharesStorageWith(text));
}

TEST(AtomicProperty, NeverShowsAMixtureToAReader) {
  constexpr int kWrites = 20000;
  AtomicProperty<Pair> property;
  property.set(pairOf(u'-', 1));
  std::atomic<int> writersLeft{2};
  std::array<std::atomic<int>, 2> mixtures{};
  std::array<std::atomic<int>, 2> reads{};

  const auto write = [&](char16_t letter) {
    for (int i = 0; i < kWrites; ++i) property.set(pairOf(letter, 1 + static_cast<std::size_t>(i % 40)));
    --writersLeft;
  };
  const auto read = [&](std::size_t reader) {
    do {
      const Pair pair = property.get();
      if (!(pair.first == pair.second)) ++mixtures[reader];
      ++reads[reader];
    } while (writersLeft > 0);
  };
  std::vector<std::thread> threads;
  threads.emplace_back(read, 0U);
  threads.emplace_back(read, 1U);
  threads.emplace_back(write, u'a');
  threads.emplace_back(write, u'b');
  for (std::thread& thread : threads) thread.join();

  for (std::size_t reader = 0; reader < mixtures.size(); ++reader) {
    SCOPED_TRACE(reader);
    EXPECT_EQ(mixtures[reader], 0);
    EXPECT_GT(reads[reader], 0);
  }
}

/// A value whose destruction runs a function.
class Farewell {
 public:
  explicit Farewell(std::function<void()> function) : function_{std::move(function)} {}
  Farewell(const Farewell&) = delete;
  Farewell& operator=(const Farewell&) = delete;
  ~Farewell() { function_(); }

 private:
  std::function<void()> function_;
};

TEST(AtomicProperty, DestroysTheReplacedValueOutsideItsLock) {
  AtomicProperty<std::shared_ptr<Farewell>> property;
  bool readWhileDestroyed = false;
  property.set(std::make_shared<Farewell>([&] { readWhileDestroyed = property.get() == nullptr; }));
  property.set(nullptr);  // Would wait for itself forever if it still held the lock.
  EXPECT_TRUE(readWhileDestroyed);
}

}  // namespace
}  // namespace mirel
