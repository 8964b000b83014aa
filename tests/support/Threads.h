#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace mirel::test {

/// Runs all the functions, each in a thread of its own, and comes back when all have ended. None begins
/// before all threads are there.
inline void runAtOnce(const std::vector<std::function<void()>>& functions) {
  std::atomic<std::size_t> numReady{0};
  std::vector<std::thread> threads;
  threads.reserve(functions.size());
  for (const auto& function : functions) {
    threads.emplace_back([&] {
      ++numReady;
      while (numReady < functions.size()) std::this_thread::yield();
      function();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

/// Has one thread read a property, often, while another replaces it by `first` and `second` in turn. Returns
/// how often it was neither.
template <typename Value, typename Get, typename Set>
[[nodiscard]] int numTornReads(const Value& first, const Value& second, const Get& get, const Set& set) {
  constexpr int kRounds = 2000;
  int numTorn = 0;
  const auto replace = [&] {
    for (int i = 0; i < kRounds; ++i) set(i % 2 == 0 ? second : first);
  };
  const auto read = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const Value seen = get();
      numTorn += seen == first || seen == second ? 0 : 1;
    }
  };
  runAtOnce({replace, read});
  return numTorn;
}

/// Whether another thread could take the lock at this moment.
template <typename Lock>
[[nodiscard]] bool isFree(Lock& lock) {
  bool taken = false;
  std::thread{[&] {
    taken = lock.try_lock();
    if (taken) lock.unlock();
  }}.join();
  return taken;
}

}  // namespace mirel::test
