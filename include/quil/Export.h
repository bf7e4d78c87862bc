// quil: symbol visibility of the exported interface.
#ifndef QUIL_EXPORT_H
#define QUIL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define QUIL_API __attribute__((visibility("default")))
#else
#define QUIL_API
#endif

#endif
