// troubleshooting_pages markdown|man: prints docs/troubleshooting.md, or mireltoken-troubleshooting.7. What
// is said of findings comes from their catalogue, so a page that is committed can be compared with what this
// prints.

#include <algorithm>
#include <cctype>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "FindingText.h"

namespace mirel::cli {
namespace {

using enum FindingID;

struct Symptom {
  const char* heading;
  const char* text;
  std::vector<FindingID> findings;  ///< the most likely first
};

const std::vector<Symptom>& symptoms() {
  static const std::vector<Symptom> kSymptoms{
      {"A certificate or a key is missing",
       "Go from the reader to the card: a reader, the card service, a module that knows the card, and then "
       "objects "
       "that can be published. On a Mac, Keychain Access does not list what is on cards: look with "
       "\"mireltoken items\" instead.",
       {kNoReader,           kCardServiceSilent,     kReadersEmpty,           kCardNotRecognised,
        kCardHeldByAnother,  kReaderUnknownToModule, kModuleMissing,          kModuleNotLoadable,
        kModuleWithoutEntry, kModuleWantsParameters, kModuleDoesNotStart,     kModuleListsNoSlots,
        kTooManyCards,       kTokenUnreadable,       kTokenNotInitialised,    kCardEmpty,
        kObjectHidesCard,    kObjectUnread,          kObjectLeftOut,          kCertificateUnusable,
        kPublicKeyMissing,   kPublicKeyPrivate,      kCertificateMissing,     kCertificatePrivate,
        kTooManyObjects,     kNothingPublished,      kExtensionNotRegistered, kExtensionIgnored,
        kExtensionCopies,    kCardNotInSystem,       kKeyNotInSystem,         kQuarantined,
        kSignatureInvalid,   kEntitlementMissing}},
      {"The PIN is asked for again and again",
       "Each program asks once for itself; that is by design. More often than that it is one of these.",
       {kPinForEachUse, kPinRefused, kPinTooLong}},
      {"The system says \"tries left: 0\", or a number that does not change",
       "The number is the one that the module reports, and most modules report none. What the card itself "
       "tells "
       "stands in the line PIN of \"mireltoken doctor\".",
       {kPinCountUnknown, kPinTriesFewer, kPinLastTry, kPinLocked}},
      {"The PIN cannot be entered, or is not accepted",
       "Do not try on: each wrong PIN may cost a try.",
       {kPinRefused, kPinTooLong, kPinPad, kPinNotSet, kPinLocked, kLoginNotMade, kPinToBeChanged,
        kLoginFails}},
      {"The browser shows the certificate, and the connection fails",
       "With TLS 1.3 a browser asks for RSA-PSS, with TLS 1.2 often for PKCS #1 v1.5. Try the key with "
       "\"mireltoken doctor --login\".",
       {kNoPkcs1Signatures, kPkcs1NotTried, kRsaKeyTooLong, kEcKeyNeverSigns, kKeyNameWithPss,
        kSignatureFails, kCertificateOfOtherKey, kCertificateExpired, kCertificateNotYetValid,
        kKeyUsageMissing, kPrivateKeyMissing, kUseNotAllowed, kTrialDisturbed, kCardChanged}},
      {"Mail is not signed or not decrypted",
       "Signed mail (S/MIME) mostly wants PKCS #1 v1.5; encrypted mail needs a key that decrypts. The "
       "certificate "
       "must name the sender's address.",
       {kNoPkcs1Signatures, kPkcs1NotTried, kSignatureFails, kDecryptionFails, kUseNotAllowed,
        kKeyUsageMissing, kCertificateExpired, kIDShared, kCertificatesOfOneKey}},
      {"ssh says \"agent refused operation\"",
       "RSA keys sign by PKCS #1 v1.5 for ssh, which not every module does.",
       {kNoPkcs1Signatures, kPkcs1NotTried, kEcKeyNeverSigns, kRsaKeyTooLong, kModuleChangeableByOthers}},
      {"The login window does not take the card",
       "The login window of a Mac wants a key that signs and another one that decrypts, and the card must be "
       "paired "
       "with the user.",
       {kKeyUsageMissing, kNoKeyAgreement, kPrivateKeyMissing, kCertificateExpired, kPinPad, kPinTooLong}},
      {"It worked before an upgrade of the system or of the card software",
       "Look first at the module and at the card service, which are what changes with an upgrade.",
       {kModuleMissing, kModuleForOtherSystem, kModuleNotLoadable, kModuleChangeableByOthers,
        kModuleDoesNotStart, kModuleCrashed, kModuleEnded, kCardServiceSilent, kReaderUnknownToModule,
        kExtensionCopies, kSignatureInvalid, kNotNotarised, kQuarantined}},
      {"Nothing happens for a long time",
       "A call of the module waits for the card or for its reader. On a Mac the log of the extension names a "
       "call "
       "that has not returned for 5 seconds; here \"mireltoken doctor\" tells how long the calls take.",
       {kCardMute, kCardHeldByAnother, kModuleSlow, kModuleHangs, kPinPad, kCardWentAway}},
      {"Another card or another key is used than the one that is meant",
       "Cards and keys are told apart by names and IDs, which may be the same.",
       {kInstanceIDShared, kReaderNamesAlike, kReaderNameNotAscii, kIDShared, kCertificateOfOtherKey,
        kKeyIDTooLong, kOtherDriverOnCard}},
  };
  return kSymptoms;
}

constexpr const char* kAbout =
    "\"mireltoken doctor\" examines module, readers and card, and prints the findings below with what was "
    "seen. It "
    "reads only, and needs no PIN; with --login it tries each key once. \"mireltoken explain ID\" prints one "
    "of them.";

/// The text as a sentence.
std::string sentence(std::string_view text) {
  std::string whole{text};
  whole.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(whole.front())));
  return whole.append(".");
}

/// The words in lines of at most 118 characters.
std::string wrapped(const std::string& text) {
  constexpr std::size_t kWidth = 118;
  std::istringstream words{text};
  std::string lines;
  std::size_t column = 0;
  for (std::string word; words >> word;) {
    const bool fits = column + 1 + word.size() <= kWidth;
    if (column > 0) lines += fits ? " " : "\n";
    column = column > 0 && fits ? column + 1 + word.size() : word.size();
    lines += word;
  }
  return lines + "\n";
}

/// The commands, which stand in quotation marks, as code.
std::string withCode(std::string text) {
  constexpr std::string_view kCommand = "\"mireltoken";
  for (std::size_t at = 0; (at = text.find(kCommand, at)) != std::string::npos;) {
    const std::size_t end = text.find('"', at + 1);
    text[at] = text[end] = '`';
    at = end;
  }
  return text;
}

std::string lowerOf(std::string_view code) {
  std::string lower{code};
  for (char& letter : lower) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  return lower;
}

std::string markdown() {
  std::string page = "# Troubleshooting\n\n" + wrapped(withCode(kAbout)) + "\n## By symptom\n";
  for (const Symptom& symptom : symptoms()) {
    page.append("\n### ")
        .append(symptom.heading)
        .append("\n\n")
        .append(wrapped(withCode(symptom.text)))
        .append("\n");
    for (const FindingID id : symptom.findings) {
      const FindingEntry& entry = entryOf(id);
      page.append("- [").append(entry.code).append("](#").append(lowerOf(entry.code)).append("): ");
      page.append(entry.title).append("\n");
    }
  }
  page += "\n## Findings\n";
  for (const FindingEntry& entry : findingCatalogue()) {
    page.append("\n### ")
        .append(entry.code)
        .append("\n\n")
        .append(wrapped("**" + sentence(entry.title) + "**"));
    page.append("\n").append(wrapped("Why: " + std::string{entry.why} + "."));
    page.append("\n").append(wrapped("What to do: " + std::string{entry.remedy} + "."));
    page.append("\n").append(wrapped("Who can do it: " + std::string{wordsOf(entry.who)} + "."));
  }
  return page;
}

/// As the text of a manual page: none of it is a command of that language.
std::string roff(std::string_view text) {
  std::string escaped;
  for (const char letter : text) {
    if (letter == '-') {
      escaped += "\\-";
    } else if (letter == '\\') {
      escaped += "\\e";
    } else {
      escaped += letter;
    }
  }
  if (escaped.starts_with(".") || escaped.starts_with("'")) escaped.insert(0, "\\&");
  return escaped;
}

std::string manual() {
  std::string page =
      ".TH MIRELTOKEN\\-TROUBLESHOOTING 7 \"\" \"mireltoken\" \"Miscellaneous\"\n.SH NAME\n"
      "mireltoken\\-troubleshooting \\- what can be wrong with a smart card, and what to do\n.SH "
      "DESCRIPTION\n";
  page += wrapped(roff(kAbout)) + ".SH SYMPTOMS\n";
  for (const Symptom& symptom : symptoms()) {
    page.append(".SS ").append(roff(symptom.heading)).append("\n").append(wrapped(roff(symptom.text)));
    for (const FindingID id : symptom.findings) {
      page.append(".TP\n.B ")
          .append(roff(entryOf(id).code))
          .append("\n")
          .append(roff(entryOf(id).title))
          .append("\n");
    }
  }
  page += ".SH FINDINGS\n";
  for (const FindingEntry& entry : findingCatalogue()) {
    page.append(".TP\n.B ")
        .append(roff(entry.code))
        .append("\n")
        .append(wrapped(roff(sentence(entry.title))));
    page.append(".br\n").append(wrapped("Why: " + roff(entry.why) + "."));
    page.append(".br\n").append(wrapped("What to do: " + roff(entry.remedy) + "."));
    page.append(".br\n").append(wrapped("Who can do it: " + roff(wordsOf(entry.who)) + "."));
  }
  return page + ".SH SEE ALSO\n.BR mireltoken (1)\n";
}

}  // namespace
}  // namespace mirel::cli

int main(int argc, char** argv) {
  const std::string_view format = argc == 2 ? argv[1] : "";
  if (format != "markdown" && format != "man") return 2;
  std::cout << (format == "man" ? mirel::cli::manual() : mirel::cli::markdown());
  return std::cout.flush() ? 0 : 1;
}
