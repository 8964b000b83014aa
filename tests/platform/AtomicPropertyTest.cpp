#include "platform/AtomicProperty.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/Text.h"
#include "support/Threads.h"

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
  std::atomic<int> numMixtures{0};
  const auto writer = [&](char16_t letter) {
    return [&, letter] {
      for (int i = 0; i < kWrites; ++i) property.set(pairOf(letter, 1 + static_cast<std::size_t>(i % 40)));
      --writersLeft;
    };
  };
  const auto read = [&] {
    while (writersLeft > 0) {
      const Pair pair = property.get();
      if (!(pair.first == pair.second)) ++numMixtures;
    }
  };
  test::runAtOnce({read, read, writer(u'a'), writer(u'b')});
  EXPECT_EQ(numMixtures, 0);
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
