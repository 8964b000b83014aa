#pragma once

#include <openssl/err.h>

namespace mirel {

/// Takes back the errors that OpenSSL records in its lifetime, so that whoever else uses OpenSSL in
/// this thread finds its error queue as it was.
class ErrorMark {
 public:
  ErrorMark() noexcept { ERR_set_mark(); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
  ~ErrorMark() { ERR_pop_to_mark(); }
};

}  // namespace mirel
