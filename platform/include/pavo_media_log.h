/* The platform's media log. */
#ifndef PAVO_PLATFORM_MEDIA_LOG_H
#define PAVO_PLATFORM_MEDIA_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum PavoMediaLogLevel {
  PAVO_MEDIA_LOG_LEVEL_NONE = 0,
  PAVO_MEDIA_LOG_LEVEL_ERROR = 1,
  PAVO_MEDIA_LOG_LEVEL_WARNING = 2,
  PAVO_MEDIA_LOG_LEVEL_INFO = 3,
  PAVO_MEDIA_LOG_LEVEL_DEBUG = 4
} PavoMediaLogLevel;

/* Writes one log line: level, process and thread ids, source position and
 * the formatted text. `ptr` is an optional context pointer. */
void pavo_media_log(PavoMediaLogLevel level, int pid, long tid, const char* file,
                    const char* function, int line, const void* ptr, const char* format, ...)
    __attribute__((format(printf, 8, 9)));

#ifdef __cplusplus
}
#endif

#endif /* PAVO_PLATFORM_MEDIA_LOG_H */
