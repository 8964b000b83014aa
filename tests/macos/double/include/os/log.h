#pragma once

/// The unified log: every line goes to the double's recorder. The compiler checks the formats, which must
/// be literals.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;

#define OS_LOG_TYPE_DEFAULT ((os_log_type_t)0x00)
#define OS_LOG_TYPE_ERROR ((os_log_type_t)0x10)

extern struct os_log_s _os_log_default;
#define OS_LOG_DEFAULT (&_os_log_default)

extern void _os_log_double(os_log_t log, os_log_type_t type, const char* format, ...)
    __attribute__((__format__(os_log, 3, 4)));

#define os_log(log, ...) _os_log_double(log, OS_LOG_TYPE_DEFAULT, "" __VA_ARGS__)
#define os_log_error(log, ...) _os_log_double(log, OS_LOG_TYPE_ERROR, "" __VA_ARGS__)

#ifdef __cplusplus
}
#endif
