// Memory for Trace records that stays with the process.
//
// A reader creates and drops up to 50000 records per read. From the general heap that is one
// allocation per record, and the heap hands the memory of a dropped batch back to the system only
// to fault it in again for the next one; that costs more than reading the ring. The pool keeps
// every block it ever made: a free list per thread (records are made on the updater thread and
// often dropped on another), topped up from and spilled to a shared list in batches.
//
// Blocks are of one size; Allocate and Release pass any other size to the general heap. Builds
// with AddressSanitizer use the general heap throughout, so that misuse of a record is still found.
#pragma once

#include <cstddef>

namespace Tracing {

class TracePool {
public:
    static void* Allocate(std::size_t size);
    static void Release(void* block, std::size_t size) noexcept;

    // Blocks ever made (not given back to the system); for tests and statistics.
    static std::size_t GetBlockCount();
};

}  // namespace Tracing
