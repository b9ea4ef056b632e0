/*
 * Module-filtered log output and its run-time control.
 *
 * Code that logs names a module and a log type. A process-wide module table
 * holds a stored level for each module that someone has switched on; from it
 * every call derives the module's effective level and decides whether its
 * line is printed:
 *
 *   module not in the table (the start)  1  error lines only
 *   stored level 1                        2  every line
 *   any other stored level                1  error lines only
 *   (stored level 0)                      0  nothing; storing 0 removes the
 *                                            module, so it is never kept
 *
 * Printed lines go to standard output, one printf call per line (lines of
 * different threads never mix), with a header
 *   time=D/M/YYYY h:m:s,timestamp=T,pid=P,tid=K,logtype=error|info
 * of the local time, the seconds since the epoch, the process id and the
 * kernel thread id. A line that will not be printed costs a table lookup
 * and a branch: no clock, no formatting, no allocation, no system call.
 *
 * The log control listener (pavo_log_initialize(1)) sends the module list
 * to 127.0.0.1:PAVO_LOG_CONTROL_PORT once a second and applies at most one
 * control datagram per second that a tool sends back to it:
 *
 *   bytes 0..1023  text ending with a NUL: PAVO_LOG_CLEAR_COMMAND, or module
 *                  names separated by '|'. Without a NUL in these bytes the
 *                  1024 bytes are the text.
 *   byte 1024      level for the named modules (0 removes them; 1 every
 *                  line; other values error lines only). Missing in shorter
 *                  datagrams, which therefore remove the modules they name.
 *
 * Thread safety: every function may be called from any thread at any time.
 * Logging threads read the table without blocking; changes are serialised
 * among themselves. No function here calls back or throws.
 */
#ifndef PAVO_LOG_H
#define PAVO_LOG_H

#include "pavo_export.h"

#if defined(__GNUC__) || defined(__clang__)
#define PAVO_LOG_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define PAVO_LOG_PRINTF_FORMAT(fmt, args)
#endif

PAVO_EXTERN_C_BEGIN

/* Limits of the module table. */
#define PAVO_LOG_MAX_MODULES 20
#define PAVO_LOG_MAX_MODULE_NAME 32

/* Size of the buffer that get_modules_list fills. */
#define PAVO_LOG_MODULES_LIST_SIZE 1025

/* The listener's UDP exchange on the loopback interface. */
#define PAVO_LOG_CONTROL_PORT 54321
#define PAVO_LOG_CONTROL_SIZE 1025
#define PAVO_LOG_CONTROL_LEVEL_OFFSET 1024
#define PAVO_LOG_CLEAR_COMMAND "__CLIEAR_LOG_MODULES__"

/* Log types of pavo_log_print (a 32-bit enumeration). */
typedef enum PavoLogType {
  PAVO_LOG_TYPE_ENTER = 0,  /* green "... Enter!" line, effective level 2 */
  PAVO_LOG_TYPE_LEAVE = 1,  /* green "... Leave!" line, effective level 2 */
  PAVO_LOG_TYPE_ERROR = 2,  /* red line with the line number, levels 1 and 2 */
  PAVO_LOG_TYPE_INT = 3,    /* green "name:value" of an int, effective level 2 */
  PAVO_LOG_TYPE_STRING = 4, /* green "name:value" of a string, effective level 2 */
  PAVO_LOG_TYPE_MAX = 5     /* never printed */
} PavoLogType;

/*
 * Prints one line of `log_type` for `module` if the module's effective level
 * allows it. `file` is printed from after its last '/'. `name` and `value`
 * are used by PAVO_LOG_TYPE_INT (value points to an int) and
 * PAVO_LOG_TYPE_STRING (value is a NUL-terminated string) only; a null
 * string argument prints as "(null)". A type above PAVO_LOG_TYPE_MAX prints
 * "log type set err, out of max enum value" (with puts) and nothing else;
 * negative types print nothing. A line that is not printed reads nothing but
 * `module`.
 */
PAVO_EXPORT void pavo_log_print(int log_type, const char* module, const char* file,
                                const char* function, int line, const char* name,
                                const void* value);

/*
 * At effective level 2, formats `format` and its arguments (cut at 2047
 * characters) and prints it after the header, file, function and line, with
 * no colour and no newline of its own. At other levels returns without
 * reading `file`, `function`, `format` or the arguments.
 */
PAVO_EXPORT void pavo_log(const char* module, const char* file, const char* function, int line,
                          const char* format, ...) PAVO_LOG_PRINTF_FORMAT(5, 6);

/* Returns the effective level of `module` (0, 1 or 2); 1 for null. */
PAVO_EXPORT int pavo_log_getLevel(const char* module);

/*
 * Stores `level` for each module named in `names` ('|'-separated; empty
 * names are skipped), in order. Level 0 removes the module. A name longer
 * than PAVO_LOG_MAX_MODULE_NAME characters is reported on standard output
 * and skipped. When a nonzero level meets a table that already holds
 * PAVO_LOG_MAX_MODULES modules (even for a module that is in it), that is
 * reported on standard output and the rest of the request is dropped.
 * Readers see each name's change as a whole.
 * Returns 0; -1 for null `names` (nothing changed).
 */
PAVO_EXPORT int insert_modules_list(const char* names, int level);

/* Removes every module. Returns 0. */
PAVO_EXPORT int clear_modules_list(void);

/*
 * Writes all PAVO_LOG_MODULES_LIST_SIZE bytes of `out`: the module names in
 * ascending byte order joined by '|', NUL-padded. Returns the number of
 * modules; with an empty table returns 0 and leaves `out` untouched. Returns
 * -1 for a null `out`.
 */
PAVO_EXPORT int get_modules_list(char* out);

/*
 * Mode 0: starts nothing. Mode 1: starts one more log control listener, a
 * detached thread that runs until the process ends (whether the thread could
 * be started is not reported). Returns 0; -1 for any other mode.
 */
PAVO_EXPORT int pavo_log_initialize(int mode);

/* Returns 0 for mode 0 or 1, -1 otherwise; a running listener keeps running. */
PAVO_EXPORT int pavo_log_finalize(int mode);

/*
 * The last control datagram a listener received, laid out as above
 * (zero-filled before the first one). Written only by listener threads, one
 * byte at a time with atomic stores: read it with atomic byte loads (for
 * instance __atomic_load_n) while a listener may be running; a read that
 * overlaps a new datagram may mix the two.
 */
extern PAVO_EXPORT char g_modules_info[PAVO_LOG_CONTROL_SIZE];

PAVO_EXTERN_C_END

#endif /* PAVO_LOG_H */
