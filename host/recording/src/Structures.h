#pragma once

#include <cstddef>

#include "bridge/cryptoki.h"

namespace mirel::recording {

// The fields of the standard's structures, once for those who read them and for those who write them:
// `visit(name, field)` gets a text, a number or a version.

template <typename Visit>
void eachField(CK_INFO& info, const Visit& visit) {
  visit("cryptokiVersion", info.cryptokiVersion);
  visit("manufacturerID", info.manufacturerID);
  visit("flags", info.flags);
  visit("libraryDescription", info.libraryDescription);
  visit("libraryVersion", info.libraryVersion);
}

template <typename Visit>
void eachField(CK_SLOT_INFO& info, const Visit& visit) {
  visit("slotDescription", info.slotDescription);
  visit("manufacturerID", info.manufacturerID);
  visit("flags", info.flags);
  visit("hardwareVersion", info.hardwareVersion);
  visit("firmwareVersion", info.firmwareVersion);
}

template <typename Visit>
void eachField(CK_TOKEN_INFO& info, const Visit& visit) {
  visit("label", info.label);
  visit("manufacturerID", info.manufacturerID);
  visit("model", info.model);
  visit("serialNumber", info.serialNumber);
  visit("flags", info.flags);
  visit("ulMaxSessionCount", info.ulMaxSessionCount);
  visit("ulSessionCount", info.ulSessionCount);
  visit("ulMaxRwSessionCount", info.ulMaxRwSessionCount);
  visit("ulRwSessionCount", info.ulRwSessionCount);
  visit("ulMaxPinLen", info.ulMaxPinLen);
  visit("ulMinPinLen", info.ulMinPinLen);
  visit("ulTotalPublicMemory", info.ulTotalPublicMemory);
  visit("ulFreePublicMemory", info.ulFreePublicMemory);
  visit("ulTotalPrivateMemory", info.ulTotalPrivateMemory);
  visit("ulFreePrivateMemory", info.ulFreePrivateMemory);
  visit("hardwareVersion", info.hardwareVersion);
  visit("firmwareVersion", info.firmwareVersion);
  visit("utcTime", info.utcTime);
}

template <typename Visit>
void eachField(CK_SESSION_INFO& info, const Visit& visit) {
  visit("slotID", info.slotID);
  visit("state", info.state);
  visit("flags", info.flags);
  visit("ulDeviceError", info.ulDeviceError);
}

}  // namespace mirel::recording
