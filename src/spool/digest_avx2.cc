// The message digest's update step from Debian's xxhash header, compiled for
// AVX2 (this file alone; see CMakeLists.txt) and taken at run time where the
// processor has it. The library itself is built for the x86-64 baseline
// (SSE2), and on a 10 MB message its loop cost about 3 % of the delivery;
// this one half as much. The header's own inlining keeps every name of this
// copy apart from the library's, and the state it works on has the same
// layout, so reset and digest stay the library's.
#include <cstddef>

// Not spool.h: this file sees the header inlined and nothing else of it.
bool digestUpdateAvx2(void *hash, const void *bytes, size_t length);

#if defined(__x86_64__) && defined(__AVX2__)
#define XXH_STATIC_LINKING_ONLY
#define XXH_INLINE_ALL
#include <xxhash.h>

bool digestUpdateAvx2(void *hash, const void *bytes, size_t length) {
    static const bool usable = __builtin_cpu_supports("avx2");
    if (!usable)
        return false;
    XXH3_128bits_update(static_cast<XXH3_state_t *>(hash), bytes, length);
    return true;
}
#else
bool digestUpdateAvx2(void *, const void *, size_t) { return false; }
#endif
