#include "Options.h"

#include <CLI/CLI.hpp>

namespace mirel::cli {
namespace {

constexpr const char* kFooter =
    "Examples:\n"
    "  mireltoken readers\n"
    "  mireltoken items\n"
    "  mireltoken items --reader \"Virtual PCD 00 00\" --json\n"
    "  mireltoken --module /usr/lib/softhsm/libsofthsm2.so items -v\n"
    "\n"
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
    "  6  the card's objects cannot be listed";

}  // namespace

void declareOptions(CLI::App& app, Options& options) {
  app.name("mireltoken");
  app.description("Shows what a smart card would publish in the keychain, and why not.");
  app.footer(kFooter);
  app.set_version_flag("--version", "mireltoken " MIREL_VERSION, "Print the version and exit");
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.require_subcommand(1);

  auto* module =
      app.add_option("--module", options.modulePath, "Use this PKCS #11 module, for this run only");
  auto* home = app.add_option("--home", options.home, "Look for the module in this home folder");
  module->type_name("PATH")->excludes(home);
  home->type_name("DIR");
  app.add_option("--reader", options.reader,
                 "The reader: its name, or a beginning that fits no other (default: the first with an "
                 "initialised card)")
      ->type_name("NAME");
  app.add_flag("--json", options.json, "Print JSON for programs");
  app.add_flag("-v,--verbose", options.verbose, "Print the log lines on standard error");

  const auto declareCommand = [&](const char* name, const char* description) {
    CLI::App* command = app.add_subcommand(name, description);
    command->fallthrough();
    command->callback([&options, name] { options.command = name; });
  };
  declareCommand("readers", "List the readers that hold a card");
  declareCommand("items", "Insert a card and list the keychain items it would publish");
}

}  // namespace mirel::cli
