#include "Trace/Records/TracePool.h"

#include <mutex>
#include <new>
#include <vector>

#include "Trace/Records/Trace.h"

namespace Tracing {
namespace {

// Off under AddressSanitizer (it must see every record's own allocation) and on Windows, where the
// mingw runtime did not run the thread-exit hand-back of a thread's cached blocks in the tests
// (each ending thread stranded up to two batches).
#if defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
constexpr bool Pooled = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool Pooled = false;
#else
constexpr bool Pooled = true;
#endif
#else
constexpr bool Pooled = true;
#endif

constexpr std::size_t BlockAlignment = alignof(std::max_align_t);
constexpr std::size_t BlockSize = (sizeof(Trace) + BlockAlignment - 1) / BlockAlignment * BlockAlignment;
// The general heap aligns every chunk for any type.
static_assert(alignof(Trace) <= BlockAlignment);
// Blocks moved between a thread and the shared list at once, and made at once.
constexpr std::size_t Batch = 512;

struct Block {
    Block* next;
};

struct FreeList {
    Block* head = nullptr;
    std::size_t count = 0;

    void Push(Block* block) {
        block->next = head;
        head = block;
        ++count;
    }
    Block* Pop() {
        Block* block = head;
        head = block->next;
        --count;
        return block;
    }
    // Moves up to n blocks from the front of this list to the front of to.
    void MoveTo(FreeList& to, std::size_t n) {
        for (; n != 0 && head != nullptr; --n)
            to.Push(Pop());
    }
};

struct Shared {
    std::mutex mutex;
    FreeList free;
    std::size_t blocks = 0;
    // Kept reachable so that leak checkers see the blocks as owned.
    std::vector<void*> chunks;

    // Refills a thread's empty list, making blocks when none are free.
    void Refill(FreeList& local) {
        std::lock_guard lock(mutex);
        if (free.count != 0) {
            free.MoveTo(local, Batch);
            return;
        }
        auto* chunk = static_cast<char*>(::operator new(Batch* BlockSize));
        chunks.push_back(chunk);
        blocks += Batch;
        for (std::size_t i = Batch; i-- != 0;)
            local.Push(reinterpret_cast<Block*>(chunk + i * BlockSize));
    }
    void Take(FreeList& local, std::size_t n) {
        std::lock_guard lock(mutex);
        local.MoveTo(free, n);
    }
};

// Never destroyed: records may be dropped by static destructors after the pool's would have run.
Shared& GetShared() {
    static Shared* shared = new Shared;
    return *shared;
}

// Plain data, so that it stays usable after the thread's destructors ran (a record dropped by a
// later thread-local or static destructor then goes straight to the shared list).
struct LocalState {
    FreeList free;
    bool flushing = false;  // the thread's LocalFlush exists
    bool retired = false;
};
thread_local LocalState t_local;

// Hands the thread's blocks to the shared list when the thread ends.
struct LocalFlush {
    ~LocalFlush() {
        t_local.retired = true;
        if (t_local.free.count != 0)
            GetShared().Take(t_local.free, t_local.free.count);
    }
};

// Once per thread that keeps blocks, whether it makes records or only drops them.
[[gnu::noinline]] void StartFlushing(LocalState& local) {
    static thread_local LocalFlush flush;
    (void)flush;
    local.flushing = true;
}

}  // namespace

void* TracePool::Allocate(std::size_t size) {
    if (!Pooled || size != sizeof(Trace))
        return ::operator new(size);
    LocalState& local = t_local;
    if (local.free.head == nullptr) [[unlikely]] {
        if (!local.flushing && !local.retired)
            StartFlushing(local);
        GetShared().Refill(local.free);
    }
    return local.free.Pop();
}

void TracePool::Release(void* block, std::size_t size) noexcept {
    if (block == nullptr)
        return;
    if (!Pooled || size != sizeof(Trace))
        return ::operator delete(block);
    LocalState& local = t_local;
    if (!local.flushing && !local.retired) [[unlikely]]
        StartFlushing(local);
    local.free.Push(static_cast<Block*>(block));
    if (local.retired) [[unlikely]]
        GetShared().Take(local.free, local.free.count);
    else if (local.free.count >= 2 * Batch) [[unlikely]]
        GetShared().Take(local.free, Batch);
}

std::size_t TracePool::GetBlockCount() {
    Shared& shared = GetShared();
    std::lock_guard lock(shared.mutex);
    return shared.blocks;
}

}  // namespace Tracing
