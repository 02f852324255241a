/* CRC-32, the checksum of Ethernet, zip and PNG.
 *
 *   uint32_t Fingerprint(const void* section, uint64_t size) {
 *     return __ZelCRC32(section, size);  // 0xCBF43926 for the nine characters "123456789"
 *   }
 */
#ifndef ZELRT_CRC32_H
#define ZELRT_CRC32_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The checksum of `length` bytes, at any alignment: reflected polynomial 0x04C11DB7, start and
 * final exclusive-or 0xFFFFFFFF. Each call checks one whole block; sums of pieces cannot be joined.
 * Length 0 gives 0, and nothing is read.
 *
 * Any thread may call it at any time. It takes no lock and allocates nothing, but the first call
 * that needs it builds a table of 1 KiB, and those of other threads wait meanwhile. Blocks of 64
 * bytes and more are checked 16 bytes or more at a time where the processor multiplies without
 * carries (PCLMULQDQ), all others byte by byte. */
ZEL_API uint32_t __ZelCRC32(const void* data, uint64_t length);

#ifdef __cplusplus
}
#endif

#endif
