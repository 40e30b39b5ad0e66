/* Marks the library's public symbols; everything else is built hidden. C and C++ alike. */
#ifndef VELMORA_EXPORT_H
#define VELMORA_EXPORT_H

#if defined(_WIN32)
#define VELMORA_EXPORT __declspec(dllexport)
#else
#define VELMORA_EXPORT __attribute__((visibility("default")))
#endif

#endif /* VELMORA_EXPORT_H */
