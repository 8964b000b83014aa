// cardmaker: makes SoftHSM2 cards for tests, by PKCS #11 and nothing else.
//
//   cardmaker make FOLDER [--keys FOLDER] [--module PATH] < DESCRIPTION
//       Makes FOLDER/softhsm2.conf and FOLDER/tokens where they are missing, and the tokens described.
//       With --keys the key pairs of the public keys are kept in that folder from one run to the next.
//   cardmaker list FOLDER [--module PATH]
//       Prints the slots that hold a token, in the module's order, as JSON. The texts are the whole
//       fixed-width fields in hexadecimal digits, padding included.
//
// Whoever uses the cards sets SOFTHSM2_CONF=FOLDER/softhsm2.conf. Without --module it is SoftHSM2 from
// the environment's MIREL_SOFTHSM2_MODULE, or from one of the places where packages put it.
//
// A description has one thing per line: a word that says what, then words NAME=VALUE. Lines that begin
// with "#" and empty ones are skipped. A value is text without blanks, or bytes as "0x" with pairs of
// hexadecimal digits ("0x" alone: no bytes). Objects go on the token described before them.
//
//   token        label= (up to 32 bytes)  pin= (123456 unless told)
//   public       type=  id=  label=
//   private      type=  id=  label=  allow= (some of sign,decrypt,derive; nothing unless told)
//   certificate  type=  id=  label=  subject= (the common name)  usage= (RFC 5280's names, with commas;
//                without it there is no key usage extension)  notafter=YYYYMMDDhhmmssZ  size= (bytes; an
//                extension that nobody reads fills it)
//   certificate  id=  label=  value= (whatever bytes stand in the place of a certificate)
//
// Types: rsa2048 (or any other number of bits), p256 and p384. All objects of one type share one key pair.
// An attribute whose word is left out gets the module's default.
//
//   token label=0x43617264204F6E65
//   public type=rsa2048 id=0x01 label=Signature
//   certificate type=rsa2048 id=0x01 label=Signature usage=digitalSignature,nonRepudiation

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Module.h"
#include "Objects.h"
#include "SoftHsm.h"

namespace mirel::cardmaker {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

struct Arguments {
  std::string command;
  fs::path folder;
  fs::path keys;
  fs::path module = test::softHsmModule();
};

Arguments parse(std::vector<std::string> words) {
  if (words.size() < 2 || words.size() % 2 != 0)
    throw std::invalid_argument{"see the top of its source for its usage"};
  Arguments arguments{.command = words[0], .folder = words[1], .keys = {}};
  for (std::size_t i = 2; i < words.size(); i += 2) {
    if (words[i] == "--keys") {
      arguments.keys = words[i + 1];
    } else if (words[i] == "--module") {
      arguments.module = words[i + 1];
    } else {
      throw std::invalid_argument{"no such option: " + words[i]};
    }
  }
  if (arguments.module.empty()) throw std::invalid_argument{test::kSoftHsmIsMissing};
  return arguments;
}

/// Makes the folder one that SoftHSM2 can use, and tells the module of it.
void openFolder(const fs::path& folder) {
  const fs::path absolute = fs::absolute(folder);
  const fs::path configuration = absolute / "softhsm2.conf";
  fs::create_directories(absolute / "tokens");
  if (!fs::exists(configuration)) {
    std::ofstream{configuration} << "directories.tokendir = " << (absolute / "tokens").string()
                                 << "\nobjectstore.backend = file\nlog.level = ERROR\n";
  }
  if (setenv("SOFTHSM2_CONF", configuration.c_str(), 1) != 0)
    throw std::runtime_error{"no room for SOFTHSM2_CONF"};
}

CK_SLOT_ID freeSlot(const Module& module) {
  for (const CK_SLOT_ID slot : module.slots()) {
    if ((module.tokenInfo(slot).flags & CKF_TOKEN_INITIALIZED) == 0) return slot;
  }
  throw std::runtime_error{"the module has no slot for another token"};
}

void makeToken(const fs::path& modulePath, const TokenDescription& description, KeyStore& keys) {
  Module module{modulePath};
  const CK_SLOT_ID slot = freeSlot(module);
  const std::string pin = description.token.bytes("pin").value_or("123456");
  module.initToken(slot, description.token.bytes("label").value_or(""), pin);
  const CK_SESSION_HANDLE session = module.logIn(slot, pin);
  for (const Line& line : description.objects) {
    Template attributes;
    describeObject(line, keys, attributes);
    module.createObject(session, attributes);
  }
}

template <std::size_t size>
std::string hex(const CK_UTF8CHAR (&field)[size]) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string digits;
  for (const CK_UTF8CHAR byte : field) {
    digits += kDigits[byte >> 4U];
    digits += kDigits[byte & 0xFU];
  }
  return digits;
}

Json listing(const fs::path& modulePath) {
  const Module module{modulePath};
  Json slots = Json::array();
  for (const CK_SLOT_ID slot : module.slots()) {
    const CK_SLOT_INFO slotInfo = module.slotInfo(slot);
    const CK_TOKEN_INFO token = module.tokenInfo(slot);
    slots.push_back({{"slotID", slot},
                     {"description", hex(slotInfo.slotDescription)},
                     {"slotFlags", slotInfo.flags},
                     {"label", hex(token.label)},
                     {"manufacturerID", hex(token.manufacturerID)},
                     {"model", hex(token.model)},
                     {"serialNumber", hex(token.serialNumber)},
                     {"flags", token.flags}});
  }
  return slots;
}

void run(const Arguments& arguments) {
  openFolder(arguments.folder);
  if (arguments.command == "make") {
    KeyStore keys{arguments.keys};
    for (const TokenDescription& token : readDescription(std::cin)) makeToken(arguments.module, token, keys);
  } else if (arguments.command == "list") {
    std::cout << listing(arguments.module).dump(2) << '\n';
  } else {
    throw std::invalid_argument{"no such command: " + arguments.command};
  }
}

}  // namespace
}  // namespace mirel::cardmaker

int main(int argc, char** argv) {
  try {
    mirel::cardmaker::run(mirel::cardmaker::parse({argv + 1, argv + argc}));
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << "cardmaker: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
