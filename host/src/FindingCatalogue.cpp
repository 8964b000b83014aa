#include <algorithm>
#include <array>
#include <cctype>

#include "host/Finding.h"

namespace mirel {
namespace {

using enum FindingID;
using enum Remedier;

constexpr FindingEntry kEntries[] = {
    // The module's file and its start.
    {kModuleMissing, "MT-M01", "there is no module file",
     "the card is reached through the PKCS #11 module of its maker, and no such file is there",
     "install the card software for this user, or give the module's path", kYou},
    {kModuleForOtherSystem, "MT-M02", "the module is for another system or processor",
     "a program can only load a module that was built for the same system and processor",
     "install the build of the card software for this system and processor", kYou},
    {kModuleChangeableByOthers, "MT-M03", "somebody else can change the module",
     "the module gets the PIN and runs with your rights, so who can change it can take both",
     "take that right away from others, for the file and the folders above it", kAdministrator},
    {kModuleNotLoadable, "MT-M04", "the module cannot be loaded",
     "the system's loader refuses the file, often since a library that it needs is missing or unsigned",
     "install what the loader names, or ask the maker of the module", kYou},
    {kModuleWithoutEntry, "MT-M05", "the file is no PKCS #11 module",
     "a PKCS #11 module exports C_GetFunctionList, and this file gives no function list",
     "give the path of the PKCS #11 module, not of another library; where it is that one, ask its maker",
     kYou},
    {kModuleWantsParameters, "MT-M06", "the module wants parameters at its start",
     "the token starts each module without parameters, and this one refuses that",
     "put the module behind p11-kit-proxy, with its parameters as x-init-reserved", kAdministrator},
    {kModuleDoesNotStart, "MT-M07", "the module does not start",
     "it refuses C_Initialize, so no card can be reached through it",
     "check the module's own configuration and the service it needs", kAdministrator},
    {kModuleListsNoSlots, "MT-M08", "the module does not list its slots",
     "without the list of its slots no reader and no card can be found",
     "see that the card service and the service of the card software run; where they do, "
     "ask the maker of the module",
     kMaker},
    {kModuleSlow, "MT-M09", "a call of the module takes long",
     "the system waits for the module before it shows the card or signs",
     "look whether the same card is quicker in another reader, and ask the maker of the module", kMaker},
    {kModuleCrashed, "MT-M10", "the module crashed or ended the program",
     "each program that uses the card ends with it", "ask the maker of the module, and name the call",
     kMaker},
    {kModuleHangs, "MT-M11", "the module does not come back from a call",
     "each program that uses the card waits for it",
     "take the card out and put it back; where that does not help, ask the maker of the module", kYou},
    // The readers and the service behind them.
    {kNoReader, "MT-R01", "no reader is connected", "a card is reached through a reader", "connect a reader",
     kYou},
    {kCardServiceSilent, "MT-R02", "the card service does not answer",
     "all programs reach the readers through the card service of the system",
     "start the card service (pcscd); on a Mac unplug the reader, or restart", kAdministrator},
    {kCardNotRecognised, "MT-R03", "there is a card, and this module does not know it",
     "each card needs the module of its maker", "use the module of the card's maker", kYou},
    {kCardHeldByAnother, "MT-R04", "another program holds the card",
     "it uses the card exclusively, so nobody else reaches it", "end the other program, then try again",
     kYou},
    {kCardMute, "MT-R05", "the card does not answer", "the reader feels a card, and the card says nothing",
     "take the card out, clean it, and put it back the "
     "right way round",
     kYou},
    {kReadersEmpty, "MT-R06", "no reader holds a card", "there is nothing that could be published",
     "put a card into a reader", kYou},
    {kReaderUnknownToModule, "MT-R07", "the module does not list a reader that the system has",
     "a card in that reader cannot be used",
     "look into the module's own configuration for reader names that it "
     "leaves out",
     kAdministrator},
    {kReaderNamesAlike, "MT-R08", "two readers, or two slots of one card, have the same name",
     "the token finds the reader by its name, and always takes the first",
     "put the card into the first of the two readers, or unplug that one; of one card only the first slot "
     "can be used",
     kYou},
    {kReaderNameNotAscii, "MT-R09", "the name of the reader is not ASCII",
     "the token does not find a reader by such a name", "use another reader", kYou},
    {kTooManyCards, "MT-R10", "there are more than 10 cards, or slots of cards",
     "the token cannot list more, and then no card is published",
     "leave a card in 10 readers at most, in fewer where a card has several slots", kYou},
    // The token.
    {kTokenUnreadable, "MT-T01", "the card cannot be read",
     "the module finds the card and cannot tell what it is",
     "check the card, its reader and the service of the "
     "card software, then try again",
     kYou},
    {kTokenNotInitialised, "MT-T02", "the card says that it is not initialised",
     "it is passed over where no reader is named, and mostly there is nothing on it",
     "unless keys or certificates are listed: examine the card again while no other program uses it, then "
     "prepare it with the tool of its maker, which empties it",
     kIssuer},
    {kInstanceIDShared, "MT-T03", "two cards, or two slots of one card, have one instance ID",
     "the system takes both for one and shows the items of one of them",
     "use one card at a time, and ask the issuer for cards with serial numbers of their own, or labels of "
     "their own for the slots of one card",
     kIssuer},
    {kCardWentAway, "MT-T04", "the card went away during the examination",
     "what was left to look at is not known, and no key is to blame for that",
     "put the card into its reader and examine it again; where it goes away each time, try another reader",
     kYou},
    {kTrialDisturbed, "MT-T05", "a key could not be tried",
     "a call failed that says nothing of the key, so whether the key works is not known",
     "check the card, its reader and the service of the card software, then try again", kYou},
    {kModuleEnded, "MT-T06", "the module was ended during the examination",
     "it answers no call any more, so what was left to look at is not known, and neither the card nor a key "
     "is to blame for that",
     "examine the card again; where the module ends each time, ask its maker", kMaker},
    {kCardChanged, "MT-T07", "the key or its certificate was changed since the card was inserted",
     "what was published is not on the card any more, as when another program has written to it",
     "try again; other programs see the change once the card was taken out and put back", kYou},
    // Its objects.
    {kCardEmpty, "MT-C01", "the card shows no key and no certificate",
     "only what shows without a login is published, and that is nothing",
     "have the issuer put keys and certificates on the card", kIssuer},
    {kObjectHidesCard, "MT-C02", "an object hides the whole card",
     "because of this one object nothing at all is published, good keys neither",
     "have the card's issuer mend or remove that object", kIssuer},
    {kObjectUnread, "MT-C03", "an object could not be read now", "whether it is published cannot be told",
     "check the card and its reader, then try again", kYou},
    {kObjectLeftOut, "MT-C04", "an object is left out", "the token does not publish an object of this form",
     "have the card's issuer mend that object", kIssuer},
    {kCertificateUnusable, "MT-C05", "a certificate cannot be used",
     "its value is no X.509 certificate in DER; it is left out, and so is its key where no other "
     "certificate has its ID",
     "have the card's issuer replace the certificate", kIssuer},
    {kPublicKeyMissing, "MT-C06", "a certificate has no public key that the token sees",
     "a certificate is published only together with a public-key object of the same ID that shows without a "
     "login",
     "have the card's issuer see that there is a public-key object with the ID of the certificate and "
     "CKA_PRIVATE false",
     kIssuer},
    {kPublicKeyPrivate, "MT-C07", "a public key is visible only after login",
     "the token lists the card before any login, and does not see it",
     "have the card's issuer make the public key public (CKA_PRIVATE false)", kIssuer},
    {kCertificateMissing, "MT-C08", "a key has no certificate that the token sees",
     "a key is published only together with a certificate of the same ID",
     "have the card's issuer put the certificate on the card, with the ID of the key and CKA_PRIVATE false",
     kIssuer},
    {kCertificatePrivate, "MT-C09", "a certificate is visible only after login",
     "the token lists the card before any login, and does not see it",
     "have the card's issuer make the certificate public (CKA_PRIVATE false)", kIssuer},
    {kPrivateKeyMissing, "MT-C10", "a private key is missing", "the key is published and can do nothing",
     "have the card's issuer put the private key on the card, with "
     "the same ID",
     kIssuer},
    {kCertificateOfOtherKey, "MT-C11", "a certificate belongs to another key",
     "signatures do not verify with it, unless it is the public-key object with its ID that is the wrong one",
     "have the card's issuer put the certificate and the public key of the private key on the card", kIssuer},
    {kIDShared, "MT-C12", "several objects share one ID",
     "the keychain finds only the first of them, and the card may use another private key than the one that "
     "is meant",
     "have the card's issuer give each key pair an ID of its own", kIssuer},
    {kCertificateExpired, "MT-C13", "a certificate has expired",
     "most programs refuse it, also its signatures", "renew the certificate", kIssuer},
    {kCertificateNotYetValid, "MT-C14", "a certificate is not valid yet", "most programs refuse it",
     "check the date of this computer, or wait until the certificate is valid", kYou},
    {kKeyUsageMissing, "MT-C15", "a certificate allows its key no use",
     "the key usage of the certificate decides what the key can be asked for, and names nothing of it",
     "have the card's issuer renew the certificate with a key usage", kIssuer},
    {kTooManyObjects, "MT-C16", "the card has more objects than are listed",
     "only the first 160 public keys and the first 160 certificates are seen",
     "have the card's issuer remove what is not used", kIssuer},
    {kNothingPublished, "MT-C17", "nothing of the card is published",
     "a certificate is published only together with a public key of its own; those of issuers are not",
     "have the card's issuer put a key pair and its certificate on the card", kIssuer},
    {kCertificatesOfOneKey, "MT-C18", "several certificates of one key share its ID",
     "programs show each of them, and may take the one that is out of date",
     "have the card's issuer remove the certificate that is not used any more", kIssuer},
    // What its keys can do.
    {kRsaKeyTooLong, "MT-K01", "the RSA key is too long to sign",
     "RSA keys above 2048 bits are published and never sign", "sign with an RSA key of 2048 bits", kIssuer},
    {kEcKeyNeverSigns, "MT-K02", "an EC key never signs or decrypts",
     "EC keys are published, and only RSA keys sign and decrypt", "use an RSA key of 2048 bits", kIssuer},
    {kKeyNameWithPss, "MT-K03", "the name of the key contains \"PSS\"",
     "such a key is asked for PSS in the card, and that signature is not handed out",
     "have the card's issuer change the label or the ID of the public key, or the serial number of the card, "
     "whichever contains it",
     kIssuer},
    {kPinForEachUse, "MT-K04", "the key wants the PIN for each use",
     "at most the first use after each login works",
     "use another key, or start the program anew for each use", kYou},
    {kNoPkcs1Signatures, "MT-K05", "the key makes no PKCS #1 v1.5 signatures",
     "the module does not pad; TLS 1.2 with rsa_pkcs1, CMS (S/MIME) and most PDF signers ask for them",
     "use programs that sign by RSA-PSS, such as with TLS 1.3, or ask the maker for a module that pads",
     kMaker},
    {kNoKeyAgreement, "MT-K06", "key agreement gets no answer",
     "the key is published for key agreement, and the token answers none",
     "use an RSA key whose certificate has digitalSignature or keyEncipherment in its key usage", kIssuer},
    {kKeyIDTooLong, "MT-K07", "the ID of the key is too long",
     "a private key is not found by an ID of more than 254 bytes", "have the card's issuer shorten the ID",
     kIssuer},
    {kSignatureFails, "MT-K08", "the key makes no good signature",
     "a trial signature failed, or does not verify with the certificate", "ask the maker of the module",
     kMaker},
    {kDecryptionFails, "MT-K09", "the key does not decrypt",
     "a trial text was not decrypted to what it was before", "ask the maker of the module", kMaker},
    {kPkcs1NotTried, "MT-K10", "whether the key makes PKCS #1 v1.5 signatures is not known",
     "TLS 1.2 with rsa_pkcs1, CMS (S/MIME) and most PDF signers ask for them, and only a trial tells",
     "have the keys tried, which takes a login", kYou},
    {kUseNotAllowed, "MT-K11", "the card does not allow its private key what the certificate says",
     "the certificate decides what the key is asked for, and the card refuses that",
     "have the card's issuer put a private key and a certificate for the same use on the card", kIssuer},
    // The PIN.
    {kPinLocked, "MT-P01", "the PIN is locked", "no key of the card can be used",
     "unlock the PIN with the PUK, or have the card's issuer unlock it", kIssuer},
    {kPinLastTry, "MT-P02", "one more wrong PIN locks the card", "there is one try left",
     "enter the PIN only if you are sure of it", kYou},
    {kPinTriesFewer, "MT-P03", "a wrong PIN was entered since the last right one",
     "each further one may lock the card", "enter the right PIN, which sets the count back", kYou},
    {kPinPad, "MT-P04", "the PIN is entered at the reader", "the token takes the PIN at the computer only",
     "use a reader without a PIN pad", kYou},
    {kPinTooLong, "MT-P05", "this card's PIN cannot be entered here",
     "a PIN of 1 to 8 ASCII characters is all that the token sends to the card",
     "change the PIN to at most 8 ASCII characters with the tool of the card's maker; where the card does "
     "not "
     "allow that, ask its issuer for another one",
     kYou},
    {kPinNotSet, "MT-P06", "the card has no PIN yet", "without a PIN nobody can log in",
     "set the PIN with the tool of the card's maker", kYou},
    {kPinCountUnknown, "MT-P07", "how many tries are left is not known",
     "this module reports no count; what the system's dialog says after a wrong PIN is no count either",
     "do not rely on the number", kYou},
    {kPinRefused, "MT-P08", "the card did not accept the PIN", "without the PIN no key can be used",
     "enter the PIN of this card; look at the tries that are left before that", kYou},
    {kLoginNotMade, "MT-P09", "the login that was asked for was not made",
     "no PIN was checked, and without a login no key is tried, so whether the keys work is not known",
     "name the reader where there are several cards, end other programs that use the card, and give the PIN "
     "at the terminal, in a file or by an open descriptor",
     kYou},
    {kPinToBeChanged, "MT-P10", "the PIN has to be changed first",
     "it is the one that the card came with, or out of date, and the card may refuse to work with it",
     "change the PIN with the tool of the card's maker", kYou},
    {kLoginFails, "MT-P11", "the login failed", "without a login no key can be used",
     "end other programs that use the card, take it out and put it back, and see that the service of the "
     "card software runs; then try again",
     kYou},
    // The system's part.
    {kExtensionNotRegistered, "MT-X01", "the system does not know the extension",
     "the system starts the extension for a card, and must have been told of it",
     "open the app Mirel Token once, in the Applications folder", kYou},
    {kExtensionIgnored, "MT-X02", "the system is told to ignore the extension",
     "it is registered and never started for a card", "run: pluginkit -e use -i com.mirel.token.extension",
     kYou},
    {kExtensionCopies, "MT-X03", "there are several copies of the extension",
     "the system starts one of them, which may be an old one",
     "remove the other copy of the app, and run: pluginkit -r PATH, with the path of its extension", kYou},
    {kCardNotInSystem, "MT-X04", "the system does not show the card",
     "the module reaches the card, and the system has no token for it, so no program finds its keys",
     "take the card out and put it back; where that does not help, log out and in again", kYou},
    {kKeyNotInSystem, "MT-X05", "the system does not list a key of the card",
     "the key is published, and the system has no identity of it",
     "take the card out and put it back; where that does not help, log out and in again", kYou},
    {kOtherDriverOnCard, "MT-X06", "another driver may use the same card",
     "programs then find a certificate twice, and may take the one that does not work",
     "have one of the two disabled (sudo security smartcards token -d ID), then put the card in again",
     kAdministrator},
    {kQuarantined, "MT-X07", "a file is under quarantine",
     "the system refuses to load a file that was downloaded until it is approved or notarised",
     "install it from its package, or approve it in the settings of the system", kYou},
    {kSignatureInvalid, "MT-X08", "a signature of code is missing or broken",
     "the system does not run an app that was changed, and on Apple silicon no code without a signature",
     "install the app or the module anew, from the package of its maker", kYou},
    {kEntitlementMissing, "MT-X09", "the extension lacks an entitlement",
     "without it the extension is not started, reaches no card, or cannot load the module",
     "install the app anew, from the package of its maker", kYou},
    {kNotNotarised, "MT-X10", "the system does not accept the app's origin",
     "an app that is not notarised does not start on other computers than the one that built it",
     "install the notarised package of the app", kYou},
    {kSystemToolMissing, "MT-X11", "a tool of the system is missing",
     "what it would tell cannot be found out", "look in the settings of the system instead", kYou},
    {kSystemToolFails, "MT-X12", "a tool of the system gives no answer",
     "what it would tell cannot be found out", "run that tool by hand in Terminal, and read what it says",
     kYou},
};

char upperOf(char letter) noexcept {
  return static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
}

int rankOf(Severity severity) noexcept {
  switch (severity) {
    case Severity::kOk:
    case Severity::kSkipped: return 0;
    case Severity::kUnknown: return 1;
    case Severity::kWarning: return 2;
    case Severity::kFailure: return 3;
  }
  return 0;
}

}  // namespace

std::span<const FindingEntry> findingCatalogue() noexcept { return kEntries; }

const FindingEntry& entryOf(FindingID id) noexcept {
  return *std::find_if(std::begin(kEntries), std::end(kEntries),
                       [id](const FindingEntry& entry) { return entry.id == id; });
}

const FindingEntry* findEntry(std::string_view code) noexcept {
  const auto* found = std::find_if(std::begin(kEntries), std::end(kEntries), [&](const FindingEntry& entry) {
    return std::equal(entry.code.begin(), entry.code.end(), code.begin(), code.end(),
                      [](char known, char given) { return known == upperOf(given); });
  });
  return found == std::end(kEntries) ? nullptr : found;
}

bool isWorse(Severity a, Severity b) noexcept { return rankOf(a) > rankOf(b); }

Severity worstOf(std::span<const Finding> findings) noexcept {
  Severity worst = Severity::kOk;
  for (const Finding& finding : findings) {
    if (isWorse(finding.severity, worst)) worst = finding.severity;
  }
  return worst;
}

}  // namespace mirel
