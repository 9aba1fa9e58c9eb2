// The one export macro of the library. Symbols are hidden by default; only what a host links
// against carries ZU_EXPORT. Code inside the library (and its internal static twin used by the
// tests) is built with ZU_DATA_MANAGER_BUILDING defined.
#ifndef ZU_DATA_MANAGER_EXPORT_H_
#define ZU_DATA_MANAGER_EXPORT_H_

#if defined(_WIN32)
#if defined(ZU_DATA_MANAGER_BUILDING)
#define ZU_EXPORT __declspec(dllexport)
#else
#define ZU_EXPORT __declspec(dllimport)
#endif
#else
#define ZU_EXPORT __attribute__((visibility("default")))
#endif

#endif  // ZU_DATA_MANAGER_EXPORT_H_
