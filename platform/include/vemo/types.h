/*
 * vemo/types.h - what every header of the platform boundary needs.
 *
 * The boundary is C. A C++ program includes the same headers; VEMO_BEGIN and
 * VEMO_END give their contents C linkage there, and default symbol visibility
 * everywhere, so that a library built with hidden symbols still exports them.
 */
#ifndef VEMO_TYPES_H
#define VEMO_TYPES_H

#include <sys/types.h>

#if defined(__GNUC__)
#define VEMO_VISIBLE_BEGIN _Pragma("GCC visibility push(default)")
#define VEMO_VISIBLE_END _Pragma("GCC visibility pop")
/* The argument list ends with a null pointer; the compiler checks it. */
#define VEMO_SENTINEL __attribute__((sentinel))
#else
#define VEMO_VISIBLE_BEGIN
#define VEMO_VISIBLE_END
#define VEMO_SENTINEL
#endif

#ifdef __cplusplus
#define VEMO_BEGIN VEMO_VISIBLE_BEGIN extern "C" {
#define VEMO_END \
  }              \
  VEMO_VISIBLE_END
#else
#define VEMO_BEGIN VEMO_VISIBLE_BEGIN
#define VEMO_END VEMO_VISIBLE_END
#endif

/* A truth value of the C interfaces: an int, so that a library written in C
 * defines the functions that a C++ program calls. */
typedef int BOOL;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#endif
