#include "Trace/Time/TimestampMode.h"

#include <cstddef>

namespace Tracing::TimestampMode {
namespace {

bool EqualsIgnoringCase(const char* text, const char* name) {
    for (std::size_t i = 0;; ++i) {
        char a = text[i];
        const char b = name[i];
        if (a >= 'a' && a <= 'z')
            a = static_cast<char>(a - 'a' + 'A');
        if (a != b)
            return false;
        if (a == '\0')
            return true;
    }
}

}  // namespace

Type FromString(const char* text) {
    if (text == nullptr)
        return NotSet;
    // Order of the comparisons as documented; the names are distinct, so it only fixes the cost.
    static constexpr struct {
        const char* name;
        Type mode;
    } kModes[] = {{"SEQ_ID", SEQ_ID}, {"FAST", FAST}, {"OPTIMAL", OPTIMAL}, {"PRECISE", PRECISE}};
    for (const auto& entry : kModes) {
        if (EqualsIgnoringCase(text, entry.name))
            return entry.mode;
    }
    return NotSet;
}

const char* ToString(Type mode) {
    switch (mode) {
        case SEQ_ID:
            return "SEQ_ID";
        case FAST:
            return "FAST";
        case PRECISE:
            return "PRECISE";
        case OPTIMAL:
            return "OPTIMAL";
        default:
            return nullptr;
    }
}

}  // namespace Tracing::TimestampMode
