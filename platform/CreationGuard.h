// A named, machine-wide guard that one process at a time can hold (an inter-process mutex for the
// creation of shared blocks).
//
// Contract: TryAcquire makes one attempt and never waits (callers retry at their own pace). The
// guard is released by Release, by destroying its holder object, or by the OS when the holding
// process dies. Once released by its holder, nothing of the guard stays behind on the system
// (after a holder died, the next holder's release cleans up).
#pragma once

#include <cstdint>
#include <string>

namespace Tracing::Platform {

class CreationGuard {
public:
    enum class Attempt {
        Acquired,     // this object holds the guard now
        AlreadyHeld,  // this object held it before the call
        Busy,         // another holder has it; LastError() tells the OS's word for that
        Failed,       // the OS refused; LastError() has the code
    };

    // `directory`: where the guard lives, when the OS keeps it in the file system; empty for the
    // default place. The name is used as one path component (separators are escaped).
    CreationGuard(const std::string& name, const std::string& directory = {});
    ~CreationGuard();
    CreationGuard(const CreationGuard&) = delete;
    CreationGuard& operator=(const CreationGuard&) = delete;

    Attempt TryAcquire();
    // False, with LastError() set, when the guard's trace on the system could not be removed; the
    // guard is released all the same. Releasing a guard not held does nothing and returns true.
    bool Release();

    bool IsHeld() const { return m_handle >= 0; }
    // OS error code of the last unsuccessful attempt or release; 0 when none.
    int LastError() const { return m_lastError; }
    // Where the guard lives in the file system (empty where it has no path).
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    std::string m_name;      // the system's name of the guard, where it has no path
    intptr_t m_handle = -1;  // a descriptor or a handle
    int m_lastError = 0;
};

}  // namespace Tracing::Platform
