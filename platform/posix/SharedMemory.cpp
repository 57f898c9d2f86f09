// Named shared memory on POSIX: files on the tmpfs of /dev/shm with the lifetime of Windows
// file mappings.
//
// POSIX shared memory lives until it is unlinked, but a block must vanish when its last holder
// closes it or dies. So every holder keeps a shared flock on its own descriptor for as long as it
// has the block open (the kernel drops it when the process dies), and:
// - Closing: whoever can then take the lock exclusively (non-blocking) was the last holder and
//   unlinks the name.
// - Opening: a block whose exclusive lock can be taken has no holder (its last one died): it is
//   stale, so the opener unlinks it and reports "not found".
// - Creating: the block is made as an unnamed file (O_TMPFILE), locked, given its rights and its
//   full size, and only then linked under its name; link never replaces, so a taken name gives
//   "already exists" (after a stale block there has been removed).
// The name of a block changes only by a link into a free name or by an unlink from a process that
// holds the exclusive lock on the file the name refers to, and checked after locking that the name
// still refers to it. Races this closes:
// - opener vs. last closer: the opener locks after the closer unlinked; it finds its file has no
//   name any more and starts again (then "not found", or the block created since).
// - two closers: the kernel serialises the lock conversions, so exactly the last one succeeds.
// - two creators: only one link succeeds; the other finds a live block and reports "already exists".
// - creator vs. stale-cleaner: the cleaner has locked the stale file; when the name refers to
//   another file by then (a creator linked a new block), it leaves the name alone.
// - creator vs. last closer: the creator waits on the shared lock until the closer is done and
//   then finds the name free.
// - opener vs. creator: the name appears only on a complete block.
// Limits: a child forked by a holder shares the holder's lock (one open file description), so the
// first of the two to close removes the name while the other still maps the block; exec drops the
// descriptor (close-on-exec). In the sticky /dev/shm only the owner (or root) can unlink, so a
// stale block of another user stays until its owner or root next opens or creates that name.

#include "platform/SharedMemory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/UserAccount.h"
#include "platform/posix/ObjectName.h"

namespace Tracing::Platform {
namespace {

// Bound for starting again after a block vanished under us; each retry needs another process to
// remove or replace the block in between.
constexpr int MaxAttempts = 64;

// Failures carry the name of the operation as every platform reports it, whatever call failed
// here; errno and its text say the rest.
constexpr const char* CreateFailed = "CreateFileMapping";
constexpr const char* OpenFailed = "OpenFileMapping";
constexpr const char* MapFailed = "MapViewOfFile";

ShmError Failure(int code, const char* function) {
    ShmError error;
    error.code = code;
    error.function = function;
    switch (code) {
        case ENOENT:
            error.kind = ShmErrorKind::NotFound;
            break;
        case EACCES:
        case EPERM:
            error.kind = ShmErrorKind::AccessDenied;
            break;
        case EEXIST:
            error.kind = ShmErrorKind::AlreadyExists;
            break;
        default:
            error.kind = ShmErrorKind::Other;
    }
    return error;
}

std::string ObjectFileName(std::string_view key) {
    // One namespace here: "Global\X" and "Local\X" are X.
    for (std::string_view prefix : {std::string_view("Global\\"), std::string_view("Local\\")}) {
        if (key.substr(0, prefix.size()) == prefix) {
            key.remove_prefix(prefix.size());
            break;
        }
    }
    return Posix::EscapeObjectName(key);
}

void CloseDescriptor(int fd) {
    // Linux releases the descriptor even when close reports EINTR: never retry.
    ::close(fd);
}

bool LockShared(int fd) {
    while (::flock(fd, LOCK_SH) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

// 1 when `path` still names the file of `fd`, 0 when not (removed or replaced), -1 on error.
int StillNamed(int fd, const std::string& path) {
    struct stat own {};
    if (::fstat(fd, &own) != 0)
        return -1;
    if (own.st_nlink == 0)
        return 0;
    struct stat named {};
    if (::stat(path.c_str(), &named) != 0)
        return errno == ENOENT ? 0 : -1;
    return own.st_dev == named.st_dev && own.st_ino == named.st_ino ? 1 : 0;
}

// Unlinks `path` when it still names the file of `fd`; the caller holds that file's exclusive
// lock, so nobody else can unlink or replace the name in between. True when it unlinked.
bool UnlinkIfStillNamed(int fd, const std::string& path) {
    return StillNamed(fd, path) == 1 && ::unlink(path.c_str()) == 0;
}

// Drops this holder: the last one removes the name. True when it did.
bool ReleaseHolder(int fd, const std::string& path) {
    // The conversion from shared to exclusive fails while anyone else holds the file.
    const bool removed = ::flock(fd, LOCK_EX | LOCK_NB) == 0 && UnlinkIfStillNamed(fd, path);
    CloseDescriptor(fd);
    return removed;
}

enum class Occupant { Gone, Alive };

// Decides about the block that occupies `path` when a link found the name taken: a stale block is
// removed, one being removed by its last holder is waited for.
Occupant ClearStale(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return errno == ENOENT ? Occupant::Gone : Occupant::Alive;
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        UnlinkIfStillNamed(fd, path);
        CloseDescriptor(fd);
        return Occupant::Gone;
    }
    // Someone holds it; the shared lock waits only for a closer or cleaner busy with it.
    if (!LockShared(fd)) {
        CloseDescriptor(fd);
        return Occupant::Alive;
    }
    const bool named = StillNamed(fd, path) == 1;
    // Holding it made us a holder: leave as one, which removes it if the others left meanwhile.
    const bool removed = ReleaseHolder(fd, path);
    return named && !removed ? Occupant::Alive : Occupant::Gone;
}

// Maps the rights of one class of users (owner, group or others; `bits` of the form rwx in the low
// three bits) on the template to the block.
mode_t TemplateBits(mode_t bits, bool readOnly) {
    if (bits & 2)
        return 6;
    if (bits & 4)
        return readOnly ? 4 : 6;
    return 0;
}

ShmError ApplyRights(int fd, const ShmAccessRights& rights) {
    if (rights.templatePath.empty()) {
        mode_t mode = 0600;
        uint32_t groupId = 0;
        // A group the creator may not hand the file to is left out, as if it did not exist.
        if (LookupLocalGroup(rights.groupAccount, groupId) &&
            ::fchown(fd, static_cast<uid_t>(-1), static_cast<gid_t>(groupId)) == 0)
            mode = 0660;
        if (::fchmod(fd, mode) != 0)
            return Failure(errno, CreateFailed);
        return {};
    }
    struct stat source {};
    if (::stat(rights.templatePath.c_str(), &source) != 0)
        return Failure(errno, CreateFailed);
    const mode_t m = source.st_mode;
    mode_t owner = TemplateBits((m >> 6) & 7, rights.templateReadOnly);
    mode_t group = TemplateBits((m >> 3) & 7, rights.templateReadOnly);
    const mode_t others = TemplateBits(m & 7, rights.templateReadOnly);
    if (::fchown(fd, source.st_uid, source.st_gid) != 0) {
        // Only root may give files away: the creator stays owner and, when it may not hand the
        // file to the template's group either, no group gets rights it was not meant to have.
        owner = 6;
        if (::fchown(fd, static_cast<uid_t>(-1), source.st_gid) != 0)
            group = 0;
    }
    if (::fchmod(fd, (owner << 6) | (group << 3) | others) != 0)
        return Failure(errno, CreateFailed);
    return {};
}

ShmError Reserve(int fd, uint64_t size) {
    if (size > static_cast<uint64_t>(INT64_MAX))
        return Failure(EFBIG, CreateFailed);
    // Allocating now makes a full /dev/shm fail here instead of as SIGBUS on a later write.
    if (::fallocate(fd, 0, 0, static_cast<off_t>(size)) == 0)
        return {};
    if (errno != EOPNOTSUPP)
        return Failure(errno, CreateFailed);
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0)
        return Failure(errno, CreateFailed);
    return {};
}

// Gives the unnamed file of `fd` the name `path`; never replaces an existing name.
int LinkIntoPlace(int fd, const std::string& path) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return 0;
    if (errno != ENOENT)
        return errno;
    // Without /proc; this form needs CAP_DAC_READ_SEARCH on older kernels.
    if (::linkat(fd, "", AT_FDCWD, path.c_str(), AT_EMPTY_PATH) == 0)
        return 0;
    return errno;
}

}  // namespace

std::string SharedMemoryPath(const std::string& key) {
    const std::string name = ObjectFileName(key);
    if (name.empty())
        return {};
    return std::string(Posix::SharedMemoryDirectory) + "/" + name;
}

int RemoveAbandonedBlocks(const std::string& keyPrefix) {
    const std::string prefix = ObjectFileName(keyPrefix);
    if (prefix.empty())
        return 0;
    DIR* directory = ::opendir(Posix::SharedMemoryDirectory);
    if (directory == nullptr)
        return 0;
    int removed = 0;
    while (const dirent* entry = ::readdir(directory)) {
        if (std::string_view(entry->d_name).substr(0, prefix.size()) != prefix)
            continue;
        // The stale-block rule of Open, applied without waiting for an opener that may never come.
        const std::string path = std::string(Posix::SharedMemoryDirectory) + "/" + entry->d_name;
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0)
            continue;
        struct stat info {};
        if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
            UnlinkIfStillNamed(fd, path))
            ++removed;
        CloseDescriptor(fd);
    }
    ::closedir(directory);
    return removed;
}

ShmError SharedMemoryBlock::Create(const std::string& key, uint64_t size, const ShmAccessRights& rights) {
    Close();
    const std::string path = SharedMemoryPath(key);
    if (path.empty())
        return Failure(EINVAL, CreateFailed);
    const int fd = ::open(Posix::SharedMemoryDirectory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0)
        return Failure(errno, CreateFailed);
    // Closing the unnamed file on any failure below leaves nothing behind.
    auto fail = [fd](ShmError error) {
        CloseDescriptor(fd);
        return error;
    };
    if (!LockShared(fd))
        return fail(Failure(errno, CreateFailed));
    if (ShmError error = ApplyRights(fd, rights); error.Failed())
        return fail(error);
    if (ShmError error = Reserve(fd, size); error.Failed())
        return fail(error);
    void* data = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED)
        return fail(Failure(errno, MapFailed));
    int linkError = EEXIST;
    for (int attempt = 0; attempt < MaxAttempts && linkError == EEXIST; ++attempt) {
        linkError = LinkIntoPlace(fd, path);
        if (linkError == EEXIST && ClearStale(path) == Occupant::Alive)
            break;
    }
    if (linkError != 0) {
        ::munmap(data, static_cast<size_t>(size));
        return fail(Failure(linkError, CreateFailed));
    }
    m_data = data;
    m_size = size;
    m_handle = fd;
    m_writable = true;
    m_path = path;
    return {};
}

ShmError SharedMemoryBlock::Open(const std::string& key, bool writable) {
    Close();
    const std::string path = SharedMemoryPath(key);
    if (path.empty())
        return Failure(EINVAL, OpenFailed);
    for (int attempt = 0; attempt < MaxAttempts; ++attempt) {
        const int fd =
            ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0)
            return Failure(errno, OpenFailed);
        struct stat info {};
        if (::fstat(fd, &info) != 0) {
            const int code = errno;
            CloseDescriptor(fd);
            return Failure(code, OpenFailed);
        }
        if (!S_ISREG(info.st_mode)) {
            CloseDescriptor(fd);
            return Failure(EINVAL, OpenFailed);
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            // No holder: its last one died without removing it.
            UnlinkIfStillNamed(fd, path);
            CloseDescriptor(fd);
            return Failure(ENOENT, OpenFailed);
        }
        if (errno != EWOULDBLOCK || !LockShared(fd)) {
            const int code = errno;
            CloseDescriptor(fd);
            return Failure(code, OpenFailed);
        }
        const int named = StillNamed(fd, path);
        if (named != 1) {
            const int code = errno;
            ReleaseHolder(fd, path);
            if (named < 0)
                return Failure(code, OpenFailed);
            continue;  // its last holder removed it between our open and lock
        }
        // Re-read the size under the lock; the file is complete before it gets its name.
        if (::fstat(fd, &info) != 0) {
            const int code = errno;
            ReleaseHolder(fd, path);
            return Failure(code, OpenFailed);
        }
        // Not one of ours (those are never empty); mmap would refuse it.
        if (info.st_size <= 0) {
            ReleaseHolder(fd, path);
            return Failure(EINVAL, MapFailed);
        }
        const size_t size = static_cast<size_t>(info.st_size);
        void* data = ::mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, fd, 0);
        if (data == MAP_FAILED) {
            const int code = errno;
            ReleaseHolder(fd, path);
            return Failure(code, MapFailed);
        }
        m_data = data;
        m_size = size;
        m_handle = fd;
        m_writable = writable;
        m_path = path;
        return {};
    }
    return Failure(ENOENT, OpenFailed);
}

void SharedMemoryBlock::Close() {
    if (m_data != nullptr)
        ::munmap(m_data, static_cast<size_t>(m_size));
    if (m_handle >= 0)
        ReleaseHolder(static_cast<int>(m_handle), m_path);
    m_data = nullptr;
    m_size = 0;
    m_handle = -1;
    m_writable = false;
    m_path.clear();
}

void SharedMemoryBlock::Abandon() {
    // Unmapped by the end of the process; the name goes with the last holder as in Close.
    m_data = nullptr;
    Close();
}

bool SharedMemoryBlock::IsSameObject(const SharedMemoryBlock& other) const {
    if (m_handle < 0 || other.m_handle < 0)
        return false;
    struct stat a {};
    struct stat b {};
    if (::fstat(static_cast<int>(m_handle), &a) != 0 || ::fstat(static_cast<int>(other.m_handle), &b) != 0)
        return false;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace Tracing::Platform
