#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

#include "Commands.h"
#include "Files.h"
#include "KeyJob.h"
#include "Output.h"

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

}  // namespace

ExitCode runCertificate(Host& host, const Options& options) {
  if (const auto writable = checkWriting(options.out); !writable) return report(writable.failure());
  const auto inserted = host.insert(options.reader ? Text::fromUtf8(*options.reader) : Text{});
  if (!inserted) return report(inserted.failure());
  const auto found = keyOf(*inserted, options);
  if (!found) return report(found.failure());
  const std::string pem = pemOf(found->certificate.data);
  const std::span bytes{reinterpret_cast<const std::uint8_t*>(pem.data()), pem.size()};
  if (const auto written = writeFile(options.out, bytes, kCertificateMode); !written)
    return report(written.failure());
  return ExitCode::kSuccess;
}

}  // namespace mirel::cli
