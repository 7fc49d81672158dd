/* platsvc: the services of the operating system that libtrel stands on.
 *
 * This is the one place that calls the operating system. Every operation returns 0 for success
 * unless it says otherwise, and is safe to call from any thread. */
#ifndef PLATSVC_BASE_H
#define PLATSVC_BASE_H

#include <stdint.h>

#define PLAT_API __attribute__((visibility("default")))
#define PLAT_HIDDEN __attribute__((visibility("hidden")))

#ifdef __cplusplus
#define PLAT_BEGIN_C extern "C" {
#define PLAT_END_C }
#else
#define PLAT_BEGIN_C
#define PLAT_END_C
#endif

/* Structure tag: the first word of every identifier and parameter record of the platform. */
#define PLAT_STRUCTURE_TAG 0x09010000u

/* Names a shared segment. Only the key word identifies it; the key 0 is refused everywhere. */
typedef struct PLATIPCResID {
  uint32_t structureTag; /* PLAT_STRUCTURE_TAG */
  uint32_t key;          /* the System V key */
} PLATIPCResID;

#endif
