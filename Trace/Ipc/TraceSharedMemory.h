// The one wrapper through which the library creates, opens and releases named shared memory.
//
// A key names the block verbatim. Created blocks are restricted to the current user, the system
// account and the "<prefix>Tracing Users" group, or take their rights from a template file. A
// block vanishes when the last process that has it open detaches or dies. The last error is kept
// as a code plus a text; operating-system errors other than the three classified ones get their
// text composed on the first errorString call. Nothing throws for OS failures.
//
// An object is used by one thread at a time; the caller serialises.
#pragma once

#include <cstdint>
#include <string>

namespace Tracing {

class TraceSharedMemoryPrivate;

class TraceSharedMemory {
public:
    // The values cross the exported interface and are fixed.
    enum AccessMode : int32_t { ReadOnly = 0, ReadWrite = 1 };
    enum AttachOptions : int32_t { AttachDefault = 0, AttachTryGlobal = 1 };
    enum PermissionsTemplateOptions : int32_t { ReadAccessReadOnly = 0, ReadAccessFull = 1 };
    enum SharedMemoryError : int32_t {
        NoError = 0,
        PermissionDenied = 1,
        AlreadyExists = 2,
        NotFound = 3,
        UnknownError = 4,
    };
    // Accepted by create and not used; callers pass RestrictedAccess.
    enum AccessControl : int32_t { UnrestrictedAccess = 0, RestrictedAccess = 1 };

    TraceSharedMemory();
    // A null key counts as empty.
    explicit TraceSharedMemory(const char* key);
    ~TraceSharedMemory();
    TraceSharedMemory(const TraceSharedMemory&) = delete;
    TraceSharedMemory& operator=(const TraceSharedMemory&) = delete;

    // Ignored while attached; null = empty.
    void setKey(const char* key);
    std::string getKey() const;
    // Used by the next create; a null or empty path selects the default access list.
    void setPermissionsTemplate(const char* path, PermissionsTemplateOptions option);

    // Creates a new block of `size` bytes and maps it read-write (the mode is not consulted).
    bool create(uint64_t size, AccessMode mode = ReadWrite, AccessControl accessControl = RestrictedAccess);
    // Opens an existing block. AttachTryGlobal retries a key without a backslash once behind
    // "Global\" when it is not found; the key is restored afterwards.
    bool attach(AccessMode mode = ReadWrite, AttachOptions options = AttachDefault);
    bool detach();

    bool isAttached() const;
    // Null while not attached.
    void* data();
    const void* data() const;
    const void* constData() const;
    // Mapped size in bytes (0 while not attached); readers must stay below it.
    uint64_t size() const;

    SharedMemoryError error() const;
    std::string errorString() const;

    // True when both are attached to the same kernel object ("Global\X" and "X" may be one).
    bool isSameShm(const TraceSharedMemory& other) const;

    // At exit: the names of every block of this process go as if detached, but the memory stays
    // mapped for code that still runs; later creates and attaches fail. Not on a thread that the
    // system may have ended inside this class's lock.
    static void ReleaseAllAtExit();

    // Application event log entries with the strings source, user line and message.
    static void writeErrorEventLog(const char* source, const char* message);
    static void writeWarningEventLog(const char* source, const char* message);

private:
    TraceSharedMemoryPrivate* d;
};

}  // namespace Tracing
