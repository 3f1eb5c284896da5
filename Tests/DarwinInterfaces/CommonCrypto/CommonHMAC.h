// See README.md in the folder above.
#pragma once

#include <cstddef>
#include <cstdint>

enum { kCCHmacAlgSHA1, kCCHmacAlgMD5, kCCHmacAlgSHA256 };
typedef std::uint32_t CCHmacAlgorithm;

extern "C" {
void CCHmac(CCHmacAlgorithm algorithm, const void* key, std::size_t keyLength, const void* data,
            std::size_t dataLength, void* macOut);
}
