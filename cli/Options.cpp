#include "Options.h"

#include <CLI/CLI.hpp>

namespace mirel::cli {
namespace {

constexpr const char* kFooter =
    "Examples:\n"
    "  mireltoken readers\n"
    "  mireltoken items --reader \"Virtual PCD 00 00\" --json\n"
    "  mireltoken --module /usr/lib/softhsm/libsofthsm2.so items -v\n"
    "  mireltoken sign --key 01 --in letter.txt --out letter.sig\n"
    "  mireltoken decrypt --key \"#2\" --in secret.bin --out secret.txt --pin-file ~/.card-pin\n"
    "  mireltoken algorithms --key 01\n"
    "  mireltoken certificate --key 01 --out letter.pem\n"
    "  mireltoken login --pin-fd 3 3< ~/.card-pin\n"
    "  mireltoken exchange --key 03 --in their-point.bin\n"
    "\n"
    "A key ID is the key's object ID as `items` shows it, #N for the N-th key, or a label that only one key\n"
    "has. The PIN is asked for at the terminal; it is never an argument or an environment variable.\n"
    "The PKCS #11 module is Library/LunetLocalSignServer/libTorvo_p11v1.dylib in the user's home.\n"
    "Unprintable characters of the card are shown as \\xNN; JSON keeps every byte as one character.\n"
    "\n"
    "Exit codes:\n"
    "  0  success\n"
    "  1  internal error\n"
    "  2  wrong usage\n"
    "  3  the module cannot be loaded\n"
    "  4  the module does not initialise or does not list its slots\n"
    "  5  no such reader, or no card in it\n"
    "  6  the card's objects cannot be listed\n"
    "  7  the PIN is wrong\n"
    "  8  the PIN is locked\n"
    "  9  the entry of the PIN was cancelled\n"
    "  10  the key does not do that, or not with that algorithm\n"
    "  11  there is no signature, or it does not verify\n"
    "  12  there is no such key\n"
    "  13  the card did not do what it was asked\n"
    "  14  a file cannot be read or written\n"
    "  15  another card is in the reader\n"
    "  16  the card or its service went away\n"
    "  17  a try is left for the user: the PIN was not sent\n"
    "  18  this PIN, or this card's, cannot be entered here";

class Declaration {
 public:
  Declaration(CLI::App& app, Options& options) : app_{app}, options_{options} {}

  CLI::App& command(const char* name, const char* description) {
    CLI::App* command = app_.add_subcommand(name, description);
    command->fallthrough();
    command->footer("");  // not the whole program's
    command->callback([&options = options_, name] { options.command = name; });
    return *command;
  }

  void keyOption(CLI::App& command, const char* help) {
    command.add_option("--key", options_.key, help)->type_name("ID");
  }
  void algorithmOption(CLI::App& command, const char* help) {
    command.add_option("--algorithm", options_.algorithm, help)->type_name("NAME");
  }
  void inOption(CLI::App& command, const char* help) {
    command.add_option("--in", options_.in, help)->type_name("FILE");
  }
  void outOption(CLI::App& command, const char* help) {
    command.add_option("--out", options_.out, help)->type_name("FILE");
  }
  void pinOptions(CLI::App& command) {
    auto* file = command.add_option("--pin-file", options_.pinFile,
                                    "Read the PIN from this file, which nobody else may read");
    auto* descriptor =
        command.add_option("--pin-fd", options_.pinFd, "Read the PIN from this open file descriptor");
    file->type_name("FILE")->excludes(descriptor);
    descriptor->type_name("N");
    command.add_flag("--last-try", options_.lastTry,
                     "Send a PIN from a file or descriptor also when that may lock the card");
  }

 private:
  CLI::App& app_;
  Options& options_;
};

}  // namespace

void declareOptions(CLI::App& app, Options& options) {
  app.name("mireltoken");
  app.description("Shows what a smart card would publish in the keychain, and why not; uses its keys.");
  app.footer(kFooter);
  app.set_version_flag("--version", MIREL_VERSION, "Print the version and exit");
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.require_subcommand(1);

  auto* module =
      app.add_option("--module", options.modulePath, "Use this PKCS #11 module, for this run only");
  auto* home = app.add_option("--home", options.home, "Look for the module in this home folder");
  module->type_name("PATH")->excludes(home);
  home->type_name("DIR");
  app.add_flag("--trust-module", options.trustModule,
               "Load the module although somebody else may change its file");
  app.add_option("--reader", options.reader,
                 "The reader: its name, or a beginning that fits no other (default: the first with an "
                 "initialised card)")
      ->type_name("NAME");
  app.add_flag("--json", options.json, "Print JSON for programs");
  app.add_flag("-v,--verbose", options.verbose, "Print the log lines on standard error");

  Declaration declare{app, options};
  declare.command("readers", "List the readers that hold a card");
  declare.command("items", "Insert a card and list the keychain items it would publish");

  CLI::App& certificate = declare.command("certificate", "Write the certificate of a key, in PEM");
  declare.keyOption(certificate, "The key");
  declare.outOption(certificate, "Where to write it (default: standard output)");

  CLI::App& algorithms = declare.command("algorithms", "Show which algorithms the keys accept");
  declare.keyOption(algorithms, "This key only");

  CLI::App& login = declare.command("login", "Check the PIN");
  declare.pinOptions(login);

  CLI::App& sign = declare.command("sign", "Sign with a key of the card, and verify the signature");
  declare.keyOption(sign, "The key");
  declare.algorithmOption(sign,
                          "The platform's algorithm (default: kSecKeyAlgorithmRSASignatureMessagePSSSHA256)");
  declare.inOption(sign, "What to sign (default: standard input)");
  declare.outOption(sign, "Where to write the signature (default: standard output)");
  sign.add_flag("--no-verify", options.noVerify, "Do not verify the signature");
  declare.pinOptions(sign);

  CLI::App& decrypt = declare.command("decrypt", "Decrypt with a key of the card");
  declare.keyOption(decrypt, "The key");
  declare.algorithmOption(decrypt, "The platform's algorithm (default: kSecKeyAlgorithmRSAEncryptionPKCS1)");
  declare.inOption(decrypt, "What to decrypt (default: standard input)");
  declare.outOption(decrypt, "Where to write the plain text (default: standard output)");
  declare.pinOptions(decrypt);

  CLI::App& exchange = declare.command("exchange", "Ask for a key exchange, and show what the token answers");
  declare.keyOption(exchange, "The key");
  declare.algorithmOption(exchange,
                          "The platform's algorithm (default: kSecKeyAlgorithmECDHKeyExchangeStandard)");
  declare.inOption(exchange, "The other party's public key, an uncompressed point (default: standard input)");
  declare.outOption(exchange, "Where to write the shared secret (default: standard output)");
  declare.pinOptions(exchange);
}

}  // namespace mirel::cli
