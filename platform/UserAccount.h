// The current user's account and the local groups that access rights name.
#pragma once

#include <cstdint>
#include <string>

namespace Tracing::Platform {

// The effective user's login name; empty when it cannot be determined.
std::string CurrentUserName();

// The domain of the current user's account as the system log shows it (the host name on POSIX);
// empty when it cannot be determined.
std::string CurrentUserDomain();

// The system's name of a local group that Windows writes as an account name: POSIX group names
// are lower case with '-' for blanks ("PAXL Tracing Users" -> "paxl-tracing-users").
std::string LocalGroupName(const std::string& accountName);

// The numeric ID of that group; false when no such group exists. Answers are kept for the life of
// the process (a group added later is seen after a restart).
bool LookupLocalGroup(const std::string& accountName, uint32_t& groupId);

}  // namespace Tracing::Platform
