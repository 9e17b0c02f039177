/*
 * zel_basic_types.h - fixed-width types shared by the agent and the utility
 * library.  Inter-process records (shared memory, job result file) are built
 * from these so that 32-bit and 64-bit builds agree byte for byte.
 */
#ifndef ZEL_BASIC_TYPES_H
#define ZEL_BASIC_TYPES_H

#include <stdint.h>
#include <stddef.h>

typedef uint8_t  UINT8;
typedef uint16_t UINT16;
typedef uint16_t USHORT;
typedef uint32_t UINT32;
typedef uint64_t UINT64;
typedef int32_t  INT32;
typedef int64_t  INT64;
typedef uint8_t  u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef int      bool_t;

#define ZEL_PATH_MAX   4096   /* paths and command lines */
#define ZEL_TEXT_MAX   1024   /* short texts */
#define ZEL_NAME_MAX   128    /* passwords and user names */

#endif /* ZEL_BASIC_TYPES_H */
