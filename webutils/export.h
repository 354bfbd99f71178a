/// \file export.h
/// Marks what libzem exports. Everything else in the library is hidden, so
/// that its interface is what the public headers declare and nothing more.
#ifndef ZEM_WEBUTILS_EXPORT_H
#define ZEM_WEBUTILS_EXPORT_H

#if defined(__GNUC__)
#define ZEM_EXPORT __attribute__((visibility("default")))
#else
#define ZEM_EXPORT
#endif

#endif  // ZEM_WEBUTILS_EXPORT_H
