// Publishes a trace profile machine-wide in named shared memory and finds the presets in it.
//
// Block "<prefix>TraceProfile_V1_<index>" (little-endian, 4-byte aligned):
//   0    u16       layout version        always 1
//   2    u16       profile version       TraceProfile::CurrentVersion (203)
//   4    u32       data size             bytes of buffer images after the header
//   8    u32       global switches       GlobalSwitchFlagType bits, from the empty-named host
//   12   u32       ready flag            atomic; 0 while being written, 1 when complete
//   16   24 bytes  lock                  TraceIpcLock held by the writer while it writes
//   40   data size buffer images         back to back, each a TraceBufferData record without ring
//                                        of TraceBufferData::GetSize(n) bytes (n modules, at
//                                        least 1), in the order the profile's visitor yields them
// The block is created with data size + BlockSizeReserve bytes. Only its creator writes it, once,
// under the lock; completion is published by the ready flag (seq_cst) and then by the registry's
// profile index word. Fixed-width little-endian fields only; no pointers, no size_t.
//
// Profile index word (kept in the registry): bits 0-30 the index, bit 31 set when the profile of
// that index is published and complete. A profile is replaced by publishing under the next index.
//
// Another process wrote the block: readers map it read-only and bound every walk by the header's
// data size and by the mapped size, so a hostile size or module count never leads outside the
// mapping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Ipc/TraceIpcLock.h"
#include "Trace/Profiles/TraceProfile.h"

namespace Tracing {

class TraceSharedMemory;

class TraceProfileSHMHandler {
public:
    enum ErrorType : uint32_t {
        Published = 0,
        NothingToPublish = 1,
        // The block could not be created, or the registry's profile index could not be updated.
        CreationFailed = 2,
        // The profile could not be written into the block.
        WriteFailed = 3,
    };

    enum GlobalSwitchFlagType : uint32_t {
        WriteToCELogOn = 1,
        WriteTraceLocationOn = 2,
        // The profile decides about global trace IDs (the host's switch is not "not set").
        GlobalTraceIDDefined = 4,
        GlobalTraceIDOn = 8,
    };

    static constexpr const char* DEFAULT_APPLICATION = "";
    static constexpr const char* DEFAULT_SUBSYSTEM = "";

    static constexpr uint32_t ProfileIndexMask = 0x7FFFFFFF;
    static constexpr uint32_t ProfilePublishedBit = 0x80000000;
    // Room for the header and one single-module image beyond the images themselves.
    static constexpr uint32_t BlockSizeReserve = 1256;

    // The block's first 40 bytes.
    class HeaderData {
    public:
        static constexpr uint16_t LayoutVersion = 1;

        uint16_t GetLayoutVersion() const { return m_layoutVersion; }
        uint16_t GetProfileVersion() const { return m_profileVersion; }
        uint32_t GetDataSize() const { return m_dataSize; }
        uint32_t GetGlobalSwitches() const { return m_globalSwitches; }
        // Publishes the images: stored last by the writer, checked first by readers.
        std::atomic_ref<uint32_t> GetAtomicReadyFlag() const {
            return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_readyFlag));
        }
        TraceIpcLock& GetLock() { return m_lock; }

        // Called by the writer while it holds the lock and before it sets the ready flag.
        void SetUp(uint32_t dataSize, uint32_t globalSwitches);

    private:
        uint16_t m_layoutVersion;
        uint16_t m_profileVersion;
        uint32_t m_dataSize;
        uint32_t m_globalSwitches;
        uint32_t m_readyFlag;
        TraceIpcLock m_lock;

        static void CheckLayout();
    };

    static TraceProfileSHMHandler& GetInstance();

    // Publishes the profile under a new index (or the unpublished one left by a failed attempt).
    ErrorType CreateSHM(const TraceProfile& profile);

    // The first image for (application, subsystem), trying the defaults in this order:
    // (application, subsystem), (application, default), (default, subsystem), (default, default).
    // Names compare case-insensitively. Null when no profile is in force or nothing matches.
    const TraceBufferData* FindBufferInSHM(const char* application, const char* subsystem) const;
    // The module of that name in the image of exactly (application, subsystem); no fall-backs.
    bool FindModuleInSHM(const TraceModuleData** out, const char* application, const char* subsystem,
                         const char* module) const;

    bool WriteToCELog() const;
    // The profile's switch, or else the configuration's setting.
    bool WriteTraceLocation() const;
    // The profile's value when it decides, else the configuration's setting.
    bool GlobalTraceID() const;

    // A newer profile detaches the block: hold this while using a pointer returned above.
    std::unique_lock<std::recursive_mutex> LockSHM() const;

    TraceProfileSHMHandler(const TraceProfileSHMHandler&) = delete;
    TraceProfileSHMHandler& operator=(const TraceProfileSHMHandler&) = delete;

    // Adds up the image sizes of the subsystems visited.
    class SHMSizeCalculator : public TraceProfile::ISubSystemVisitor {
    public:
        void Visit(const TraceProfile::SubSystem& subSystem, const std::string& hostName,
                   const std::string& applicationName) override;
        uint64_t GetSize() const { return m_size; }

    private:
        uint64_t m_size = 0;
    };

    // Writes one image per subsystem visited, back to back from the start of the data area.
    class SHMConfigWriter : public TraceProfile::ISubSystemVisitor {
    public:
        SHMConfigWriter(unsigned char* data, uint64_t capacity, unsigned defaultSeverity)
            : m_data(data), m_capacity(capacity), m_defaultSeverity(defaultSeverity) {}

        void Visit(const TraceProfile::SubSystem& subSystem, const std::string& hostName,
                   const std::string& applicationName) override;
        // False once an image did not fit, could not be laid out or lacked a module slot.
        bool IsOk() const { return m_ok; }

    private:
        unsigned char* m_data;
        uint64_t m_position = 0;
        uint64_t m_capacity;
        unsigned m_defaultSeverity;
        bool m_ok = true;
    };

private:
    TraceProfileSHMHandler();
    ~TraceProfileSHMHandler();

    ErrorType DoCreateSHM(const TraceProfile& profile, unsigned int index);
    bool AttachToCurrentSHM() const;
    bool GetGlobalSwitches(unsigned int& switches) const;
    bool CheckGlobalSwitch(GlobalSwitchFlagType flag) const;
    void Detach() const;
    static void GetSHMName(std::string& name, unsigned int index);
    static const TraceBufferData* DoFindBufferInSHM(const TraceSharedMemory& memory, const char* application,
                                                    const char* subsystem);
    std::string shmErrorString() const;

    mutable std::recursive_mutex m_mutex;
    // The block of m_profileIndex; attached only while that profile is in force and ready.
    std::unique_ptr<TraceSharedMemory> m_memory;
    mutable unsigned int m_profileIndex = 0;
};

inline void TraceProfileSHMHandler::HeaderData::CheckLayout() {
    static_assert(sizeof(HeaderData) == 40);
    static_assert(alignof(HeaderData) == 4);
    static_assert(offsetof(HeaderData, m_layoutVersion) == 0);
    static_assert(offsetof(HeaderData, m_profileVersion) == 2);
    static_assert(offsetof(HeaderData, m_dataSize) == 4);
    static_assert(offsetof(HeaderData, m_globalSwitches) == 8);
    static_assert(offsetof(HeaderData, m_readyFlag) == 12);
    static_assert(offsetof(HeaderData, m_lock) == 16);
    static_assert(std::is_standard_layout_v<HeaderData>);
    static_assert(std::is_trivially_copyable_v<HeaderData>);
    static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::required_alignment <= alignof(HeaderData));
    // Images follow the header directly and must keep the alignment their atomics need.
    static_assert(sizeof(HeaderData) % alignof(TraceBufferData) == 0);
    static_assert(TraceBufferData::GetSize(1) % alignof(TraceBufferData) == 0 &&
                  TraceBufferData::ModuleSlotSize % alignof(TraceBufferData) == 0);
    static_assert(BlockSizeReserve == sizeof(HeaderData) + TraceBufferData::GetSize(1));
}

}  // namespace Tracing
