// Trace profiles as TOML files people edit, and back.
//
// Schema (every table and key is optional; leaving a setting out means "inherit"):
//   [host.""]                         the default host; also carries the machine-wide settings
//   resync_period = 10000             milliseconds
//   trace_location = true             global switches; absent = not set
//   event_log = false
//   global_trace_id = true
//   severity = "Info"                 a name Fatal..Call or a number 1..7
//   max_modules = 20
//   stream_size = 1048576             ring bytes
//   timestamp_mode = "OPTIMAL"        SEQ_ID, FAST, PRECISE or OPTIMAL
//   [host."".application."App"]       the same four settings
//   [host."".application."App".subsystem."Sub"]                 the same four settings
//   [host."".application."App".subsystem."Sub".module."Net"]    severity, flags = { IO = true }
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Trace/Profiles/TraceProfile.h"

namespace Tracing::Tool {

struct ProfileError {
    std::string Message;
    // 1-based; 0 when unknown.
    unsigned Line = 0;
    unsigned Column = 0;

    // "source:line:column: message".
    std::string Format(const std::string& source) const;
};

// Replaces `profile` by the one the text describes. On any error the profile is left empty and
// every problem found is in `errors`.
bool ParseProfile(std::string_view text, TraceProfile& profile, std::vector<ProfileError>& errors);

// Writes the profile in the schema above; parsing the output gives the same profile.
void PrintProfile(std::ostream& out, const TraceProfile& profile);

}  // namespace Tracing::Tool
