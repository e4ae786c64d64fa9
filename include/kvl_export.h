/* Export and linkage macros shared by the public headers. */
#ifndef KVL_EXPORT_H
#define KVL_EXPORT_H

#if defined(_WIN32)
#if defined(KVL_BUILDING_LIBRARY)
#define KVL_API __declspec(dllexport)
#else
#define KVL_API __declspec(dllimport)
#endif
#else
#define KVL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define KVL_EXTERN_C_BEGIN extern "C" {
#define KVL_EXTERN_C_END }
#else
#define KVL_EXTERN_C_BEGIN
#define KVL_EXTERN_C_END
#endif

#endif
