#ifndef TANSY_CLOUD_STORAGE_EXPORT_H
#define TANSY_CLOUD_STORAGE_EXPORT_H

// Marks what the shared library exports. TANSY_CLOUD_STORAGE_BUILD is defined while the library itself is compiled.
#if defined(_WIN32)
#if defined(TANSY_CLOUD_STORAGE_BUILD)
#define TANSY_CLOUD_STORAGE_API __declspec(dllexport)
#else
#define TANSY_CLOUD_STORAGE_API __declspec(dllimport)
#endif
#else
#define TANSY_CLOUD_STORAGE_API __attribute__((visibility("default")))
#endif

#endif  // TANSY_CLOUD_STORAGE_EXPORT_H
