#pragma once

#include <memory>

namespace mirel {

class CardService;
class CertificateParser;
class CryptokiObserver;
class DistributedNotificationCenter;
class DynamicLoader;
class LocalizedStrings;
class Log;
class Memory;
class TimeAndChance;
class UserDirectory;

/// Everything the system needs of its surroundings, handed down at construction. All are set, except
/// as noted.
struct PlatformServices {
  std::shared_ptr<DynamicLoader> loader;
  std::shared_ptr<UserDirectory> user;
  std::shared_ptr<Log> log;
  std::shared_ptr<DistributedNotificationCenter> notifications;
  std::shared_ptr<CertificateParser> certificates;
  std::shared_ptr<Memory> memory;
  std::shared_ptr<LocalizedStrings> strings;
  std::shared_ptr<CryptokiObserver> observer;            ///< may be null
  std::shared_ptr<CryptokiObserver> inspectionObserver;  ///< told of the host's own calls; may be null
  std::shared_ptr<CardService> cardService;              ///< for the host and its watches alone; may be null
  std::shared_ptr<TimeAndChance> timeAndChance;          ///< for the host; null: the system's
};

/// The services of the running system, without an observer.
[[nodiscard]] PlatformServices systemServices();

}  // namespace mirel
