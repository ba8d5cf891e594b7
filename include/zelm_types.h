/* zelm: status codes, the version record and the export macro. */
#ifndef ZELM_TYPES_H
#define ZELM_TYPES_H

#if defined(__GNUC__)
#define ZELM_API __attribute__((visibility("default")))
#else
#define ZELM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Signed 32-bit result of every operation but zelmGetLibVersion. 0 is success,
   failures are negative. */
typedef int zelStatus;

enum {
    zelStsOk = 0,
    zelStsErrGeneric = -2,
    zelStsErrSize = -6,
    zelStsErrNullPointer = -8,
    zelStsErrDivByZero = -10,
    zelStsErrNotPosDefinite = -179,
    zelStsErrStride = -182,
    zelStsErrSingular = -195,
    zelStsErrShift = -202,
    zelStsErrCount = -203,
    zelStsErrSizeMismatch = -204,
    zelStsErrNoConvergence = -205
};

/* The library's version record, returned by zelmGetLibVersion. Constant. */
typedef struct zelLibVersion {
    int major;
    int minor;
    int update;
    int revision;
    char cpuCode[4];
    const char* name;
    const char* version;
    const char* buildDate;
} zelLibVersion;

#ifdef __cplusplus
}
#endif

#endif /* ZELM_TYPES_H */
