// Operating-system error codes and their texts.
#pragma once

#include <string>

namespace Tracing::Platform {

// The calling thread's last operating-system error code (errno / GetLastError).
int LastError();

// The system's message for an error code without trailing blanks or line ends; empty when the
// system has no text for it.
std::string ErrorText(int code);

}  // namespace Tracing::Platform
