#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

#include "Commands.h"
#include "Files.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"

namespace mirel::cli {
namespace {

constexpr mode_t kCertificateMode = 0666;
constexpr std::size_t kLineSize = 64;  // characters

/// RFC 4648, section 4.
std::string base64Of(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j) group = (group << 8U) | (j < count ? bytes[i + j] : 0U);
    for (std::size_t j = 0; j < 4; ++j) text += j <= count ? kDigits[(group >> (18 - 6 * j)) & 0x3FU] : '=';
  }
  return text;
}

/// RFC 7468.
std::string pemOf(const Bytes& der) {
  const std::string digits = base64Of(der.view());
  std::string text = "-----BEGIN CERTIFICATE-----\n";
  for (std::size_t i = 0; i < digits.size(); i += kLineSize) text.append(digits, i, kLineSize).append("\n");
  return text.append("-----END CERTIFICATE-----\n");
}

Result<void> run(Session& session) {
  if (auto writable = checkWriting(session.options().out); !writable) return writable;
  if (auto inserted = session.insertCard(); !inserted) return inserted;
  const auto chosen = session.chosenKey();
  if (!chosen) return chosen.failure();
  const Options& options = session.options();
  const std::string pem = pemOf(chosen->certificate.data);
  if (!options.json || options.out) {
    const std::span bytes{reinterpret_cast<const std::uint8_t*>(pem.data()), pem.size()};
    if (auto written = session.write(bytes, kCertificateMode); !written) return written;
  }
  if (!options.json) return {};
  return writeOutput(jsonLines("certificate", Json{{"key", chosen->key.objectID.toUtf8()},
                                                   {"objectID", chosen->certificate.objectID.toUtf8()},
                                                   {"size", chosen->certificate.size},
                                                   {"pem", pem}}));
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kKey},
    {CommandOption::Kind::kOutput, "Where to write it (default: standard output)"},
};

}  // namespace

const Command certificateCommand{"certificate", "Write the certificate of a key, in PEM", kOptions, run};

}  // namespace mirel::cli
