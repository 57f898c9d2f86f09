#include "platform/UserAccount.h"

#include <windows.h>

#include <map>
#include <mutex>

#include "platform/TextConversion.h"

namespace Tracing::Platform {
namespace {

std::wstring CurrentUserNameWide() {
    wchar_t name[257];
    DWORD length = 257;
    if (!::GetUserNameW(name, &length) || length == 0)
        return {};
    return std::wstring(name, length - 1);  // the count includes the terminator
}

}  // namespace

std::string CurrentUserName() {
    const std::wstring name = CurrentUserNameWide();
    return WideToUtf8(name.data(), name.size());
}

std::string CurrentUserDomain() {
    const std::wstring name = CurrentUserNameWide();
    if (name.empty())
        return {};
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD sidSize = sizeof sid;
    wchar_t domain[256];
    DWORD domainSize = 256;
    SID_NAME_USE use;
    if (!::LookupAccountNameW(nullptr, name.c_str(), sid, &sidSize, domain, &domainSize, &use))
        return {};
    return WideToUtf8(domain, domainSize);
}

std::string LocalGroupName(const std::string& accountName) {
    // Windows names the group as it is configured.
    return accountName;
}

bool LookupLocalGroup(const std::string& accountName, uint32_t& groupId) {
    if (accountName.empty())
        return false;
    static std::mutex mutex;
    static std::map<std::string, int64_t> known;
    std::lock_guard<std::mutex> lock(mutex);
    auto it = known.find(accountName);
    if (it == known.end()) {
        const std::wstring name = Utf8ToWide(accountName.data(), accountName.size());
        BYTE sid[SECURITY_MAX_SID_SIZE];
        DWORD sidSize = sizeof sid;
        wchar_t domain[256];
        DWORD domainSize = 256;
        SID_NAME_USE use;
        int64_t id = -1;
        // A group's number is the last part of its SID (its relative ID).
        if (::LookupAccountNameW(nullptr, name.c_str(), sid, &sidSize, domain, &domainSize, &use) &&
            (use == SidTypeGroup || use == SidTypeAlias || use == SidTypeWellKnownGroup)) {
            const UCHAR count = *::GetSidSubAuthorityCount(sid);
            if (count > 0)
                id = *::GetSidSubAuthority(sid, count - 1u);
        }
        it = known.emplace(accountName, id).first;
    }
    if (it->second < 0)
        return false;
    groupId = static_cast<uint32_t>(it->second);
    return true;
}

}  // namespace Tracing::Platform
