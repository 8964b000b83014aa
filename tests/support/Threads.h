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
