// Symbol visibility for libtessarel. The library is built with hidden visibility;
// only what carries TESSAREL_API is part of the binary interface.
#ifndef TESSAREL_EXPORT_H
#define TESSAREL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define TESSAREL_API __attribute__((visibility("default")))
#else
#define TESSAREL_API
#endif

#endif
