#include "faults/Faults.h"

#include <algorithm>
#include <array>
#include <set>

#include "host/CryptokiNames.h"

namespace mirel::test {
namespace {

/// A code of a maker's own.
constexpr CK_RV kMakersOwn = CKR_VENDOR_DEFINED | 0x1234;

constexpr std::array kCodes{CKR_OK,
                            CKR_HOST_MEMORY,
                            CKR_GENERAL_ERROR,
                            CKR_FUNCTION_FAILED,
                            CKR_ATTRIBUTE_TYPE_INVALID,
                            CKR_DEVICE_ERROR,
                            CKR_DEVICE_REMOVED,
                            CKR_PIN_INCORRECT,
                            CKR_PIN_LOCKED,
                            CKR_SESSION_CLOSED,
                            CKR_SESSION_HANDLE_INVALID,
                            CKR_TOKEN_NOT_PRESENT,
                            CKR_USER_NOT_LOGGED_IN,
                            CKR_BUFFER_TOO_SMALL,
                            CKR_CRYPTOKI_NOT_INITIALIZED,
                            kMakersOwn,
                            ~CK_RV{0}};

/// Those that a module goes on answering when it has begun to.
constexpr std::array kLastingCodes{CKR_DEVICE_ERROR, CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_PRESENT};

// What attacks a terminal, or whoever reads a text.
const std::string kTexts[] = {
    "\x1b[2J\x1b[31mred",          // clears the screen
    "\x1b]0;title\x07",            // names the window
    "\x1b]52;c;Zm9v\x07",          // fills the clipboard
    "x\nmireltoken: all is well",  // another line
    "x\rmireltoken: all is well",  // the same line anew
    "x\x08\x08\x7f\x07\t\v\f",     // other controls
    std::string{"x\0y", 3},        // an end in the middle
    "\x9b"
    "31mred",  // a control of 8 bits
    "\xc2\x9b"
    "31mred",  // the same in UTF-8
    "\xe2\x80\xae"
    "txet",                                      // turns the direction of writing
    "\xe2\x81\xa6x\xe2\x81\xa9\xd8\x9c",         // isolates a direction
    "a\xe2\x80\x8b\xef\xbb\xbf\xe2\x80\xa8z",    // what cannot be seen, and a line separator
    "\xff\xfe\x80",                              // no UTF-8
    "\xc0\xaf\xe0\x80\xaf\xf0\x80\x80\xaf",      // characters encoded too long
    "\xed\xa0\x80\xed\xb0\x80\xf4\x90\x80\x80",  // surrogates, and what is above the last character
    "a\xe2\x82",                                 // a character without its end
    "%s%n%x {} $(id) `id`",                      // for whoever formats it, or gives it to a shell
    "\"}, {\"a\": \\\"",                         // for whoever makes JSON of it
    "<script>&amp;</script>",                    // for whoever makes a page of it
    "",
    std::string(1999, 'x'),
    std::string(400, '\x1b'),
};

class Collector {
 public:
  explicit Collector(const Record& record) : record_{record} {}

  [[nodiscard]] std::vector<Fault> all() && {
    for (std::size_t place = 0; place < record_.numCalls && place < kMostCalls; ++place) {
      const SeenCall& call = record_.calls[place];
      const std::string function{kCryptokiFunctionNames[call.function]};
      const std::string where = "call " + std::to_string(place) + ", " + function;
      addCodes(place, function, where);
      for (std::size_t i = 0; i < call.numNumbers; ++i)
        addNumbers(place, function, where, i, call.numbers[i]);
      if (functions_.insert(function).second)
        faults_.push_back(
            {.kind = Fault::Kind::kNoEntry, .function = function, .name = "no entry for " + function});
    }
    addTexts();
    return std::move(faults_);
  }

 private:
  void addCodes(std::size_t place, const std::string& function, const std::string& where) {
    const auto add = [&](CK_RV code, Times times) {
      const char* end = times == Times::kOnce ? "" : " from then on";
      const std::string what = code == CKR_OK ? " does nothing, answers " : " answers ";
      faults_.push_back({.kind = Fault::Kind::kCode,
                         .function = function,
                         .position = place,
                         .code = code,
                         .times = times,
                         .name = where + what + cryptokiResultText(code) + end});
    };
    for (const CK_RV code : kCodes) add(code, Times::kOnce);
    for (const CK_RV code : kLastingCodes) add(code, Times::kFromThenOn);
  }

  void addNumbers(std::size_t place, const std::string& function, const std::string& where,
                  std::size_t number, const SeenNumber& seen) {
    std::set<CK_ULONG> values{0,
                              1,
                              seen.real - 1,
                              seen.real + 1,
                              0x7FFFFFFFUL,
                              0x80000000UL,
                              0xFFFFFFFFUL,
                              CK_UNAVAILABLE_INFORMATION,
                              ~CK_ULONG{0} >> 1U};
    for (const CK_ULONG limit : {seen.room, seen.limits[0], seen.limits[1]}) {
      if (limit > 0) values.insert({limit - 1, limit, limit + 1});
    }
    values.erase(seen.real);
    for (const CK_ULONG value : values) {
      faults_.push_back({.kind = Fault::Kind::kNumber,
                         .function = function,
                         .position = place,
                         .number = number,
                         .value = value,
                         .name = where + " reports " + std::to_string(value) + " for its number " +
                                 std::to_string(number) + ", which is " + std::to_string(seen.real)});
    }
  }

  void addTexts() {
    const auto places = FaultyCard::textPlaces();
    for (std::size_t place = 0; place < places.size(); ++place) {
      for (std::size_t i = 0; i < std::size(kTexts); ++i) {
        faults_.push_back({.kind = Fault::Kind::kText,
                           .place = place,
                           .text = kTexts[i],
                           .name = std::string{places[place]} + " is text " + std::to_string(i)});
      }
    }
  }

  const Record& record_;
  std::vector<Fault> faults_;
  std::set<std::string> functions_;
};

}  // namespace

std::vector<Fault> faultsFor(const Record& record) { return Collector{record}.all(); }

}  // namespace mirel::test
