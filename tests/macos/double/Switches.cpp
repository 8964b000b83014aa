#include "Switches.h"

#include <mutex>

namespace mirel::test {
namespace {

std::mutex countMutex;
std::map<std::string, int>& counts() {
  static std::map<std::string, int> numByClass;
  return numByClass;
}

}  // namespace

Switches& switches() {
  static Switches all;
  return all;
}

void countObject(const char* className, int change) {
  const std::lock_guard lock{countMutex};
  if ((counts()[className] += change) == 0) counts().erase(className);
}

std::map<std::string, int> livingObjects() {
  const std::lock_guard lock{countMutex};
  return counts();
}

}  // namespace mirel::test
