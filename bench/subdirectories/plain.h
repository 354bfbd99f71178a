/* The same work by hand. */
#ifndef ZEM_BENCH_SUBDIRECTORIES_PLAIN_H
#define ZEM_BENCH_SUBDIRECTORIES_PLAIN_H

#ifdef __cplusplus
extern "C" {
#endif

/* Lists and sorts the directories in a directory, and releases the list. Their number; -1. */
long plain_subdirectories(const char* dir);

#ifdef __cplusplus
}
#endif
#endif
