// Shared memory in the form that the engine's hooks take.
#pragma once

#include <cstddef>

// Block of size bytes that all processes of the host see, or null. A size of 0 gives a valid block.
void *tarn_shm_malloc(size_t size);

// The same, zero-filled, for count records of size bytes; null when the product overflows.
void *tarn_shm_calloc(size_t count, size_t size);

// Gives a block back; null is ignored.
void tarn_shm_free(void *block);

// Makes the engine work in shared memory and log through the host.
void install_engine_hooks();
