// The creation guard on POSIX: an exclusive flock on a lock file with the guard's name.
//
// The kernel drops the lock when its holder dies. The holder unlinks the file before it unlocks,
// so a released guard leaves no file. A process that opened the file just before that unlink can
// lock the removed file afterwards; it therefore checks after locking that the path still names
// the file it locked, and otherwise counts the attempt as busy (the next one opens the new file).

#include "platform/CreationGuard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/ObjectName.h"

namespace Tracing::Platform {

CreationGuard::CreationGuard(const std::string& name, const std::string& directory) {
    std::string base = directory.empty() ? std::string(Posix::SharedMemoryDirectory) : directory;
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    // Named exactly like the guard, as the semaphore it stands for is.
    m_path = base + "/" + Posix::EscapeObjectName(name);
}

CreationGuard::~CreationGuard() {
    Release();
}

CreationGuard::Attempt CreationGuard::TryAcquire() {
    if (m_handle >= 0)
        return Attempt::AlreadyHeld;
    // Read access suffices for flock; others may need to open the file that this process created.
    const int fd = ::open(m_path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        m_lastError = errno;
        return Attempt::Failed;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        m_lastError = errno;
        ::close(fd);
        return m_lastError == EWOULDBLOCK ? Attempt::Busy : Attempt::Failed;
    }
    struct stat locked {};
    struct stat named {};
    if (::fstat(fd, &locked) != 0 || ::stat(m_path.c_str(), &named) != 0 || locked.st_dev != named.st_dev ||
        locked.st_ino != named.st_ino) {
        // We locked a file its previous holder has removed.
        ::close(fd);
        m_lastError = EWOULDBLOCK;
        return Attempt::Busy;
    }
    m_handle = fd;
    m_lastError = 0;
    return Attempt::Acquired;
}

bool CreationGuard::Release() {
    if (m_handle < 0)
        return true;
    // Unlink while still locked: nobody can have locked this file meanwhile.
    const bool removed = ::unlink(m_path.c_str()) == 0 || errno == ENOENT;
    if (!removed)
        m_lastError = errno;
    ::close(m_handle);
    m_handle = -1;
    return removed;
}

}  // namespace Tracing::Platform
