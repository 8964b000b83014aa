#include "platform/PlatformServices.h"

#include "platform/CardService.h"
#include "platform/Certificate.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/DynamicLoader.h"
#include "platform/LocalizedStrings.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/TimeAndChance.h"
#include "platform/UserDirectory.h"

namespace mirel {

PlatformServices systemServices() {
  PlatformServices services;
  services.loader = systemDynamicLoader();
  services.user = systemUserDirectory();
  services.log = systemLog();
  services.notifications = systemDistributedNotificationCenter();
  services.certificates = systemCertificateParser();
  services.memory = systemMemory();
  services.strings = systemLocalizedStrings();
  services.cardService = systemCardService();
  services.timeAndChance = systemTimeAndChance();
  return services;
}

}  // namespace mirel
