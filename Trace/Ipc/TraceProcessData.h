// Identity of a process: its ID plus its creation time, so that a recycled ID is not mistaken
// for the process that held it before.
//
// Shared-memory record (16 bytes, little-endian; embedded in the lock owner of TraceIpcLock):
//   0  i64  pid           0 = empty
//   8  u64  creationTime  100 ns units since 1601 on Windows, start time in clock ticks on
//                         Linux; 0 = unknown
// Both are kept as pairs of 32-bit words so that the record needs only 4-byte alignment: the
// 212-byte buffer header embeds it and must not be padded to a multiple of 8. Fixed-width
// little-endian fields only; no pointers, no size_t.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Tracing {

class TraceProcessData {
public:
    TraceProcessData() noexcept = default;
    TraceProcessData(int64_t pid, uint64_t creationTime) noexcept { Set(pid, creationTime); }

    void Clear() noexcept { Set(0, 0); }

    // Records pid when the process runs. False when it does not exist or has exited; true without
    // change when it exists but cannot be inspected (another user's, or its times are unreadable).
    bool Fill(int64_t pid);

    // True when the recorded process still runs; a new process under the same ID does not count.
    bool IsAlive() const;

    int64_t GetPID() const noexcept { return ToInt64(m_pid); }
    uint64_t GetCreationTime() const noexcept { return std::bit_cast<uint64_t>(ToInt64(m_creationTime)); }

    friend bool operator==(const TraceProcessData& a, const TraceProcessData& b) noexcept {
        return a.GetPID() == b.GetPID() && a.GetCreationTime() == b.GetCreationTime();
    }

    // The calling process, filled on first use (thread-safe) and kept for the life of the process.
    static const TraceProcessData& GetCurrent() {
        static const TraceProcessData current = MakeCurrent();
        return current;
    }

    // Liveness without identity: exists and has not exited. Another user's process counts as alive.
    static bool IsProcessAlive(int64_t pid);

private:
    friend class TraceIpcLock;

    static TraceProcessData MakeCurrent();

    void Set(int64_t pid, uint64_t creationTime) noexcept {
        std::memcpy(m_pid, &pid, sizeof pid);
        std::memcpy(m_creationTime, &creationTime, sizeof creationTime);
    }
    static int64_t ToInt64(const uint32_t (&words)[2]) noexcept {
        int64_t value;
        std::memcpy(&value, words, sizeof value);
        return value;
    }

    uint32_t m_pid[2] = {0, 0};
    uint32_t m_creationTime[2] = {0, 0};

    static_assert(std::endian::native == std::endian::little, "the shared records are little-endian");
    static void CheckLayout();
};

inline void TraceProcessData::CheckLayout() {
    static_assert(sizeof(TraceProcessData) == 16);
    static_assert(alignof(TraceProcessData) == 4);
    static_assert(offsetof(TraceProcessData, m_pid) == 0);
    static_assert(offsetof(TraceProcessData, m_creationTime) == 8);
    static_assert(std::is_standard_layout_v<TraceProcessData>);
    static_assert(std::is_trivially_copyable_v<TraceProcessData>);
}

}  // namespace Tracing
