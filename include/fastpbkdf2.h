/* fastpbkdf2.h: PBKDF2 (RFC 8018, section 5.2) with HMAC (RFC 2104) over SHA-1,
 * SHA-256 and SHA-512, built for high iteration counts.
 *
 * For all three functions:
 *
 * password, passwordLength  the password's bytes; null is allowed with length 0.
 * salt, saltLength          the salt's bytes; null is allowed with length 0.
 * iterations                how often the pseudo-random function is applied for each
 *                           output block; 0 means the same as 1.
 * output, outputLength      receives outputLength bytes; 0 writes nothing. The buffer
 *                           must not overlap the salt. outputLength + digest - 1 is
 *                           taken modulo 2^32: lengths for which that wraps (more
 *                           than 4 GiB less a digest) get fewer bytes than they ask for.
 *
 * Nothing can fail, nothing is allocated, and the working state, in which password and
 * results pass through, is overwritten at the end. Any thread; calls share no state.
 *
 * Cost: two compression-function calls per iteration and output block, and hardly
 * more; a second output block (more bytes than the digest's) doubles the time.
 */
#ifndef FASTPBKDF2_H
#define FASTPBKDF2_H

#include <stddef.h>
#include <stdint.h>

#define FASTPBKDF2_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* PBKDF2-HMAC-SHA-1: blocks of 64 bytes, digests of 20. */
FASTPBKDF2_EXPORT void fastpbkdf2_hmac_sha1(const uint8_t *password, size_t passwordLength,
                                            const uint8_t *salt, size_t saltLength,
                                            uint32_t iterations, uint8_t *output,
                                            size_t outputLength);

/* PBKDF2-HMAC-SHA-256: blocks of 64 bytes, digests of 32. */
FASTPBKDF2_EXPORT void fastpbkdf2_hmac_sha256(const uint8_t *password, size_t passwordLength,
                                              const uint8_t *salt, size_t saltLength,
                                              uint32_t iterations, uint8_t *output,
                                              size_t outputLength);

/* PBKDF2-HMAC-SHA-512: blocks of 128 bytes, digests of 64. */
FASTPBKDF2_EXPORT void fastpbkdf2_hmac_sha512(const uint8_t *password, size_t passwordLength,
                                              const uint8_t *salt, size_t saltLength,
                                              uint32_t iterations, uint8_t *output,
                                              size_t outputLength);

#ifdef __cplusplus
}
#endif

#endif
