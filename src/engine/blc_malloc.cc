#include <cstdio>
#include <cstdlib>

#include "engine/ctx.h"

extern "C" uint8_t* blc_malloc(int size) {
    auto* block = static_cast<uint8_t*>(malloc(static_cast<size_t>(size)));
    if (block == nullptr) {
        puts("Failed to allocate memory");
        return nullptr;
    }
    printf("Allocated %d bytes of memory\n", size);
    // The total only ever grows: it reports what the process has taken, not
    // what is still held.
    total_mem = static_cast<int32_t>(static_cast<uint32_t>(total_mem) + static_cast<uint32_t>(size));
    return block;
}
