#include "platform/UserAccount.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <map>
#include <mutex>
#include <vector>

namespace Tracing::Platform {

std::string CurrentUserName() {
    const uid_t uid = ::geteuid();
    std::vector<char> buffer(1024);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        const int rc = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc == 0 && found != nullptr && found->pw_name != nullptr)
            return found->pw_name;
        // An account without a passwd entry (containers) is still somebody.
        return std::to_string(uid);
    }
}

std::string CurrentUserDomain() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0)
        return {};
    return name;
}

std::string LocalGroupName(const std::string& accountName) {
    std::string result = accountName;
    for (char& c : result) {
        if (c == ' ')
            c = '-';
        else if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return result;
}

namespace {

// -1 when the group does not exist.
int64_t QueryGroup(const std::string& name) {
    std::vector<char> buffer(1024);
    for (;;) {
        group entry{};
        group* found = nullptr;
        const int rc = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        return rc == 0 && found != nullptr ? static_cast<int64_t>(found->gr_gid) : -1;
    }
}

}  // namespace

bool LookupLocalGroup(const std::string& accountName, uint32_t& groupId) {
    const std::string name = LocalGroupName(accountName);
    if (name.empty())
        return false;
    // A lookup goes through NSS (files, modules) and costs far more than creating the block it
    // is for; the configured name hardly ever changes in a process.
    static std::mutex mutex;
    static std::map<std::string, int64_t> known;
    std::lock_guard<std::mutex> lock(mutex);
    auto it = known.find(name);
    if (it == known.end())
        it = known.emplace(name, QueryGroup(name)).first;
    if (it->second < 0)
        return false;
    groupId = static_cast<uint32_t>(it->second);
    return true;
}

}  // namespace Tracing::Platform
