/* libzelcore: what zelm asks of the machine. */
#ifndef ZELCORE_H
#define ZELCORE_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZELCORE_API __attribute__((visibility("default")))
#else
#define ZELCORE_API
#endif

/* The number of threads zelm may use; 1 or less means none. By default what
   the OpenMP runtime would use for a parallel region. */
ZELCORE_API int ownGetNumThreads(void);

/* Sets the number of threads zelm may use; n < 1 restores the default. */
ZELCORE_API void zelSetNumThreads(int n);

/* Stores the size in bytes of the machine's largest cache at *pSize, or 0 if
   it is not known. Returns 0. */
ZELCORE_API int zelGetMaxCacheSizeB(int* pSize);

#ifdef __cplusplus
}
#endif

#endif /* ZELCORE_H */
