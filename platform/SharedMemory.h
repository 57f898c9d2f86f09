// Named shared memory: blocks of memory that processes find by a textual key.
//
// Contract, the same on every OS:
// - Create makes a new block exclusively (AlreadyExists when the key is taken) and maps it
//   read-write. A block becomes visible under its key only with its full size and its access
//   rights, so an opener never finds a half-created block.
// - Open finds an existing block and maps it whole, read-only or read-write.
// - A block lives while any process has it open: when the last holder closes it or dies, the key
//   is free again ("not found" to openers, creatable anew).
// - A leading "Global\" (or "Local\") names the namespace of the OS; where the OS has only one,
//   "Global\X" and "X" are the same block.
// - Failures come back as a class, the OS error code and the name of the failed operation:
//   "CreateFileMapping", "OpenFileMapping" or "MapViewOfFile" on every OS (Windows also names
//   the account and security calls of Create).
//
// An object is used by one thread at a time.
#pragma once

#include <cstdint>
#include <string>

namespace Tracing::Platform {

enum class ShmErrorKind { None, NotFound, AccessDenied, AlreadyExists, Other };

struct ShmError {
    ShmErrorKind kind = ShmErrorKind::None;
    int code = 0;                    // the OS error code (errno / GetLastError); 0 when none
    const char* function = nullptr;  // static name of the failed operation; null when none

    bool Failed() const { return kind != ShmErrorKind::None; }
};

// Who may use a block that Create makes.
struct ShmAccessRights {
    // Without a template: the creating user, the system account and this group, written as a
    // Windows account name (e.g. "PAXL Tracing Users"). A group that does not exist is left out.
    std::string groupAccount;
    // When not empty: whoever may write this file may use the block fully; whoever may only read
    // it gets what templateReadOnly says; nobody else gets anything.
    std::string templatePath;
    // With a template: read rights on the file give read-only access to the block (else full).
    bool templateReadOnly = true;
};

class SharedMemoryBlock {
public:
    SharedMemoryBlock() = default;
    ~SharedMemoryBlock() { Close(); }
    SharedMemoryBlock(SharedMemoryBlock&& other) noexcept;
    SharedMemoryBlock& operator=(SharedMemoryBlock&& other) noexcept;
    SharedMemoryBlock(const SharedMemoryBlock&) = delete;
    SharedMemoryBlock& operator=(const SharedMemoryBlock&) = delete;

    // Both close what this object had open first. On failure the object stays closed.
    ShmError Create(const std::string& key, uint64_t size, const ShmAccessRights& rights);
    ShmError Open(const std::string& key, bool writable);

    // Unmaps and closes; the block vanishes when this was its last holder. Never fails.
    void Close();
    // As Close, but the mapping stays valid until the process ends: code still running at exit
    // may use it, while the name goes as if the block were closed. The object ends up closed.
    void Abandon();

    bool IsOpen() const { return m_data != nullptr; }
    void* Data() const { return m_data; }
    // Mapped size in bytes; every access must stay below it.
    uint64_t Size() const { return m_size; }
    bool IsWritable() const { return m_writable; }

    // True when both are open and refer to the same kernel object.
    bool IsSameObject(const SharedMemoryBlock& other) const;

private:
    void* m_data = nullptr;
    uint64_t m_size = 0;
    intptr_t m_handle = -1;  // the OS handle that keeps the block alive (a descriptor on POSIX)
    bool m_writable = false;
    std::string m_path;  // where the OS names blocks by path: the path this block was found at
};

// The file-system path that backs the block of a key, or empty where blocks have no path.
std::string SharedMemoryPath(const std::string& key);

// Removes every block whose key starts with keyPrefix and that nobody holds any more (its last
// holder died instead of closing it); returns how many. Blocks that are held stay. Where the OS
// removes such blocks itself, does nothing.
int RemoveAbandonedBlocks(const std::string& keyPrefix);

}  // namespace Tracing::Platform
