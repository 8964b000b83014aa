#include "Operations.h"

#include "KeyOperations.h"

namespace mirel::test {
namespace {

using Calls = std::vector<CallRow>;

const Value kHash = patternValue(32, 0x41);
const Value kCipher = cipherOf(bytesOf("plain"));
const Value kLabel = bytesOf("MyKey");

Calls joinedCalls(std::initializer_list<Calls> lists) {
  Calls all;
  for (const Calls& list : lists) all.insert(all.end(), list.begin(), list.end());
  return all;
}

Calls one(const std::string& text) { return {{text}}; }

/// A search that finds one object. What it answers when it fails is `replacement`, or else the call's code.
Calls search(const std::string& filter, CK_RV replacement = CKR_OK) {
  const Failing failing = replacement == CKR_OK ? Failing::kAnswered : Failing::kReplaced;
  const std::string end = "C_FindObjectsFinal(5)";
  return {{"C_FindObjectsInit(5, [" + filter + "])", failing, replacement},
          {"C_FindObjects(5, 1)", failing, replacement, end},
          {"C_FindObjects(5, 1)", failing, replacement, end},
          {end, Failing::kIgnored}};
}

Calls lookUp(const std::string& object, const std::string& idText) {
  const std::string read = "C_GetAttributeValue(5, " + object + ", [CKA_ID room ";
  return joinedCalls({{{read + "255])"}, {read + "2])", Failing::kMarked}},
                      search("CKA_CLASS=0300000000000000, CKA_TOKEN=01, CKA_ID=" + idText)});
}

/// One value: its length, then the value twice.
Calls oneValue(const std::string& start, const std::string& size) {
  const std::string read = "C_GetAttributeValue(5, " + start;
  return {{read + " null 0])"},
          {read + " room " + size + "])"},
          {read + " room " + size + "])", Failing::kMarked}};
}
const Calls kModulus = oneValue("22, [CKA_MODULUS", "256");

Calls signing(const std::string& mechanism, const std::string& key, const std::string& room) {
  return {{"C_SignInit(5, CKM " + mechanism + ", " + key + ")"},
          {"C_Sign(5, " + hexText(kHash) + ", room " + room + ")"}};
}
const Calls kDecrypting = {{"C_DecryptInit(5, CKM 1 null 0, 22)"},
                           {"C_Decrypt(5, " + hexText(kCipher) + ", room 256)"}};

std::shared_ptr<PKCS11_SERVICE_INFO> recordOf(CK_SESSION_HANDLE session) {
  auto record = std::make_shared<PKCS11_SERVICE_INFO>();
  record->setSlotID(kSlot);
  record->setHSession(session);
  return record;
}

std::vector<Operation> moduleAndSlots() {
  const Calls finding = {{"C_GetSlotList(1, null, 10)"},
                         {"C_GetSlotList(1, list, 10)"},
                         {"C_GetSlotInfo(1)", Failing::kReplaced, CKR_SLOT_ID_INVALID}};
  const Calls asking = {
      {"C_GetSlotInfo(1)"},
      {"C_OpenSession(1, 4, null, null)", Failing::kIgnored, CKR_OK, {}, "C_CloseSession(6)"},
      {"C_GetTokenInfo(1)", Failing::kAnswered, CKR_OK, "C_CloseSession(6)"},
      {"C_CloseSession(6)", Failing::kIgnored}};
  return {
      {"Initial", "pkcs11_Initial",
       [](Bench& b) {
         b.script.setInitialised(false);
         return b.bridge.pkcs11_Initial(nullptr);
       },
       one("C_Initialize(null)"), 0, [](P11Bridge& b) { return b.pkcs11_Initial(nullptr); },
       CKR_GENERAL_ERROR},
      {"Finalize", "pkcs11_Finalize", [](Bench& b) { return b.bridge.pkcs11_Finalize(nullptr); },
       one("C_Finalize(null)"), 0, [](P11Bridge& b) { return b.pkcs11_Finalize(&b); }},
      {"GetInfo", "pkcs11_GetInfo",
       [](Bench& b) {
         CK_INFO info{};
         return b.bridge.pkcs11_GetInfo(&info);
       },
       one("C_GetInfo()"), 0, [](P11Bridge& b) { return b.pkcs11_GetInfo(nullptr); }},
      {"GetSlotList", "pkcs11_C_GetSlotList",
       [](Bench& b) {
         CK_SLOT_ID list[10]{};
         return b.bridge.pkcs11_C_GetSlotList(CK_TRUE, list, &b.length);
       },
       one("C_GetSlotList(1, list, 10)"), 0,
       [](P11Bridge& b) { return b.pkcs11_C_GetSlotList(CK_TRUE, nullptr, nullptr); }},
      {"FindSlot", "pkcs11_FindSlot",
       [](Bench& b) {
         CK_SLOT_ID slot = 0;
         return b.bridge.pkcs11_FindSlot(Text{u"Reader"}, &slot);
       },
       finding, 1, [](P11Bridge& b) { return b.pkcs11_FindSlot(Text{}, nullptr); }},
      {"GetTokenInfo", "pkcs11_GetTokenInfo",
       [](Bench& b) { return b.bridge.pkcs11_GetTokenInfo(kSlot, &b.record); }, asking, 1,
       [](P11Bridge& b) { return b.pkcs11_GetTokenInfo(kAllOnes, nullptr); }},
  };
}

std::vector<Operation> sessions() {
  const Calls loggingIn = {{"C_Login(5, 1, 313233343536)"}, {"C_GetSessionInfo(5)"}};
  const Calls opening = {{"C_GetSlotInfo(1)"},
                         {"C_OpenSession(1, 4, null, null)"},
                         {"C_GetSessionInfo(6)", Failing::kAnswered, CKR_OK, "C_CloseSession(6)"},
                         {"C_GetTokenInfo(1)", Failing::kAnswered, CKR_OK, "C_CloseSession(6)"}};
  const auto openBare = [](P11Bridge& b) { return b.pkcs11_OpenReadOnlySession(kAllOnes, nullptr); };
  return {
      {"OpenReadOnlySession", "pkcs11_OpenReadOnlySession",
       [](Bench& b) { return b.bridge.pkcs11_OpenReadOnlySession(kSlot, &b.record); }, opening, 0, openBare},
      {"OpenReadOnlySessionForARecord", "pkcs11_OpenReadOnlySession",
       [](Bench& b) {
         auto record = recordOf(5);
         return b.bridge.pkcs11_OpenReadOnlySession(kSlot, &record);
       },
       joinedCalls({opening, {{"C_CloseSession(6)", Failing::kIgnored}}}), 0, openBare},
      {"GetSessionInfo", "pkcs11_GetSessionInfo",
       [](Bench& b) { return b.bridge.pkcs11_GetSessionInfo(5, nullptr); }, one("C_GetSessionInfo(5)"), 0,
       [](P11Bridge& b) { return b.pkcs11_GetSessionInfo(0, nullptr); }},
      {"CloseSession", "pkcs11_CloseSession",
       [](Bench& b) { return b.bridge.pkcs11_CloseSession(kSlot, recordOf(5)); }, one("C_CloseSession(5)"), 0,
       [](P11Bridge& b) { return b.pkcs11_CloseSession(kAllOnes, nullptr); }},
      {"UserLogin", "pkcs11_UserLogin",
       [](Bench& b) {
         b.script.card().loggedIn = false;
         const Value pin = bytesOf("123456");
         return b.bridge.pkcs11_UserLogin(5, pin.data(), pin.size());
       },
       loggingIn, 0, [](P11Bridge& b) { return b.pkcs11_UserLogin(0, nullptr, 0); }},
  };
}

std::vector<Operation> objects() {
  const Calls point = {
      {"C_GetAttributeValue(5, 24, [CKA_EC_PARAMS null 0, CKA_EC_POINT null 0])"},
      {"C_GetAttributeValue(5, 24, [CKA_EC_PARAMS room 10, CKA_EC_POINT room 67])"},
      {"C_GetAttributeValue(5, 24, [CKA_EC_PARAMS room 10, CKA_EC_POINT room 67])", Failing::kMarked},
      {"C_GetAttributeValue(5, 24, [CKA_EC_PARAMS room 10, CKA_EC_POINT room 67])", Failing::kMarked}};
  const Calls readingTheLabel = {{"C_GetAttributeValue(5, 23, [CKA_LABEL room 5])"},
                                 {"C_GetAttributeValue(5, 23, [CKA_LABEL room 5])", Failing::kMarked}};
  const Calls certificateSearch =
      search("CKA_CLASS=0100000000000000, CKA_LABEL=4D794B6579", CKR_FUNCTION_FAILED);
  const auto byLabelBare = [](P11Bridge& b) {
    CK_ULONG length = 0;
    return b.GetCertBlobByLabel(0, kLabel.data(), kLabel.size(), nullptr, &length);
  };
  return {
      {"FindObjects", "pkcs11_FindObjects",
       [](Bench& b) {
         CK_OBJECT_CLASS wanted = CKO_CERTIFICATE;
         CK_ATTRIBUTE filter{CKA_CLASS, &wanted, sizeof wanted};
         CK_OBJECT_HANDLE found[2]{};
         return b.bridge.pkcs11_FindObjects(5, &filter, 1, found, &b.length, 2);
       },
       search("CKA_CLASS=0100000000000000"), 0,
       [](P11Bridge& b) { return b.pkcs11_FindObjects(0, nullptr, 0, nullptr, nullptr, 0); }},
      {"GetObjsAttriValue", "pkcs11_getObjsAttriValue",
       [](Bench& b) {
         CK_BYTE room[5];
         CK_ATTRIBUTE label{CKA_LABEL, room, sizeof room};
         return b.bridge.pkcs11_getObjsAttriValue(5, kCertificate, &label, 1, 1, 5);
       },
       readingTheLabel, 0, [](P11Bridge& b) { return b.pkcs11_getObjsAttriValue(0, 0, nullptr, 3, 1, 0); }},
      {"GetRSAKeyModulus", "pkcs11_getRSAKeyModulus",
       [](Bench& b) { return b.bridge.pkcs11_getRSAKeyModulus(5, 22, b.output.data(), &b.length); }, kModulus,
       1, [](P11Bridge& b) { return b.pkcs11_getRSAKeyModulus(0, 0, nullptr, nullptr); }},
      {"GetECPublicKey", "pkcs11_getECPublicKey",
       [](Bench& b) { return b.bridge.pkcs11_getECPublicKey(5, kEcPublicKey, b.output.data(), &b.length); },
       point, 2, [](P11Bridge& b) { return b.pkcs11_getECPublicKey(0, 0, nullptr, nullptr); }},
      {"GetCertificate", "pkcs11_getCertificate",
       [](Bench& b) { return b.bridge.pkcs11_getCertificate(5, kCertificate, nullptr, &b.length); },
       oneValue("23, [CKA_VALUE", "700"), 1,
       [](P11Bridge& b) { return b.pkcs11_getCertificate(0, 0, nullptr, nullptr); }},
      {"GetCorrespondingPrivateKey", "pkcs11_getCorrespondingPrivateKey",
       [](Bench& b) {
         CK_OBJECT_HANDLE key = 0;
         return b.bridge.pkcs11_getCorrespondingPrivateKey(5, kPublicKey, &key);
       },
       lookUp("21", "3031"), 0,
       [](P11Bridge& b) { return b.pkcs11_getCorrespondingPrivateKey(0, 0, nullptr); }},
      {"GetCertBlobByLabel", "GetCertBlobByLabel",
       [](Bench& b) {
         CK_BYTE value[2000];
         b.length = sizeof value;
         return b.bridge.GetCertBlobByLabel(5, kLabel.data(), kLabel.size(), value, &b.length);
       },
       joinedCalls({certificateSearch,
                    {{"C_GetAttributeValue(5, 23, [CKA_VALUE room 2000])"},
                     {"C_GetAttributeValue(5, 23, [CKA_VALUE room 700])", Failing::kMarked}}}),
       0, byLabelBare},
      {"GetCertBlobByLabelForTheLength", "GetCertBlobByLabel",
       [](Bench& b) {
         return b.bridge.GetCertBlobByLabel(5, kLabel.data(), kLabel.size(), nullptr, &b.length);
       },
       joinedCalls({certificateSearch, oneValue("23, [CKA_VALUE", "700")}), 1, byLabelBare},
  };
}

const Calls kDerivation =
    one("C_DeriveKey(5, CKM 4176 [kdf 1, shared null 0, public 04AABB] 1, 25, [CKA_CLASS=0400000000000000, "
        "CKA_SENSITIVE=01, CKA_ENCRYPT=01, CKA_KEY_TYPE=1000000000000000, CKA_TOKEN=00, "
        "CKA_VALUE_LEN=1000000000000000])");

/// The row of that operation of KeyOperations.h, which is told of `room` bytes for its result.
Operation keyOperation(const KeyOperation& of, Calls calls, CK_ULONG room = 600) {
  const auto run = [&of, room](Bench& b) {
    const Value& data = of.signs() ? kHash : kCipher;
    b.length = room;
    return of.run(b.bridge, {.object = of.object,
                             .data = data.data(),
                             .dataLen = data.size(),
                             .output = b.output.data(),
                             .length = &b.length,
                             .capacity = 600});
  };
  const auto runBare = [&of](P11Bridge& b) { return of.run(b, {.session = 0, .hash = 0, .keySize = 0}); };
  return {of.name, of.operation, run, std::move(calls), of.readsModulus ? 1U : 0U, runBare};
}

std::vector<Operation> privateKeys() {
  const Calls decryption = joinedCalls({lookUp("21", "3031"), kModulus, kDecrypting});
  return {
      keyOperation(kOperations[0], signing("3 null 0", "22", "256"), 256),
      keyOperation(kOperations[1],
                   joinedCalls({lookUp("21", "3031"), kModulus, signing("13 [592, 2, 32] 24", "22", "256")})),
      keyOperation(kOperations[2], joinedCalls({lookUp("24", "3032"), signing("4161 null 0", "25", "64")}),
                   64),
      keyOperation(kOperations[3], decryption),
      keyOperation(kOperations[4], decryption),
      {"KeyDerivation", "pkcs11_genSymKeyFromECDH",
       [](Bench& b) {
         const CK_BYTE point[] = {0x04, 0xAA, 0xBB};
         return b.bridge.pkcs11_genSymKeyFromECDH(5, kEcPrivateKey, point, sizeof point, &b.length);
       },
       kDerivation, 0,
       [](P11Bridge& b) { return b.pkcs11_genSymKeyFromECDH(0, 0, nullptr, kAllOnes, nullptr); }},
  };
}

}  // namespace

std::vector<Operation> allOperations() {
  std::vector<Operation> all;
  for (const auto& group : {moduleAndSlots(), sessions(), objects(), privateKeys()}) {
    all.insert(all.end(), group.begin(), group.end());
  }
  return all;
}

}  // namespace mirel::test
