// Operating-system error codes and texts for messages.
#pragma once

#include <string>

namespace Tracing::Internal {

// The calling thread's last operating-system error code.
int GetOSError();

// The system's text for an error code, without trailing blanks; empty when there is none.
std::string GetOSErrorText(int code);

}  // namespace Tracing::Internal
