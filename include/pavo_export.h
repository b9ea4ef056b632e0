/*
 * Symbol visibility of the library's interface.
 *
 * The library is built with hidden visibility: only declarations marked
 * PAVO_EXPORT are part of its dynamic symbol table. Plain (C) names are
 * declared inside PAVO_EXTERN_C_BEGIN / PAVO_EXTERN_C_END.
 */
#ifndef PAVO_EXPORT_H
#define PAVO_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define PAVO_EXPORT __attribute__((visibility("default")))
#else
#define PAVO_EXPORT
#endif

#ifdef __cplusplus
#define PAVO_EXTERN_C_BEGIN extern "C" {
#define PAVO_EXTERN_C_END }
#else
#define PAVO_EXTERN_C_BEGIN
#define PAVO_EXTERN_C_END
#endif

#endif /* PAVO_EXPORT_H */
