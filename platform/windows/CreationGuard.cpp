// The creation guard on Windows: a named semaphore that exists only while its creator holds it.
//
// Whoever creates the semaphore anew holds the guard; a process that finds it existing closes its
// handle again. The semaphore vanishes with its last handle, so the system releases the guard of
// a holder that dies.

#include "platform/CreationGuard.h"

#include <windows.h>

namespace Tracing::Platform {

CreationGuard::CreationGuard(const std::string& name, const std::string& /*directory*/) : m_name(name) {}

CreationGuard::~CreationGuard() {
    Release();
}

CreationGuard::Attempt CreationGuard::TryAcquire() {
    if (m_handle >= 0)
        return Attempt::AlreadyHeld;
    HANDLE semaphore = ::CreateSemaphoreA(nullptr, 0, 1, m_name.c_str());
    const DWORD error = ::GetLastError();
    if (semaphore == nullptr) {
        m_lastError = static_cast<int>(error);
        return Attempt::Failed;
    }
    if (error == ERROR_ALREADY_EXISTS) {
        ::CloseHandle(semaphore);
        m_lastError = static_cast<int>(error);
        return Attempt::Busy;
    }
    m_handle = reinterpret_cast<intptr_t>(semaphore);
    m_lastError = 0;
    return Attempt::Acquired;
}

bool CreationGuard::Release() {
    if (m_handle < 0)
        return true;
    const bool closed = ::CloseHandle(reinterpret_cast<HANDLE>(m_handle)) != 0;
    if (!closed)
        m_lastError = static_cast<int>(::GetLastError());
    m_handle = -1;
    return closed;
}

}  // namespace Tracing::Platform
