#include "Trace/Ipc/TraceSharedMemory.h"

#include <atomic>
#include <mutex>
#include <unordered_set>

#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Records/OSError.h"
#include "platform/EventLog.h"
#include "platform/Process.h"
#include "platform/SharedMemory.h"
#include "platform/UserAccount.h"

namespace Tracing {

class TraceSharedMemoryPrivate;

namespace {

// Every mapped block of this process, so that the names can go at exit while the mappings stay.
// Never destroyed: objects may still detach after static destruction began.
struct MappedBlocks {
    std::mutex mutex;
    std::unordered_set<TraceSharedMemoryPrivate*> blocks;
    std::atomic<bool> released{false};
};

MappedBlocks& Mapped() {
    static MappedBlocks* const mapped = new MappedBlocks;
    return *mapped;
}

}  // namespace

class TraceSharedMemoryPrivate {
public:
    void* view = nullptr;
    // Kept apart from the mapping, which forgets it when it is abandoned at exit.
    uint64_t size = 0;
    std::string key;
    // Empty for an OS error whose text errorString has not composed yet.
    std::string errorText;
    TraceSharedMemory::SharedMemoryError error = TraceSharedMemory::NoError;
    const char* osFunction = nullptr;
    uint32_t osError = 0;
    Platform::SharedMemoryBlock mapping;
    std::string templatePath;
    TraceSharedMemory::PermissionsTemplateOptions templateOption = TraceSharedMemory::ReadAccessReadOnly;

    void SetError(TraceSharedMemory::SharedMemoryError code, const char* text) {
        error = code;
        errorText = text;
        osFunction = nullptr;
        osError = 0;
    }

    void SetOSError(const Platform::ShmError& failure) {
        switch (failure.kind) {
            case Platform::ShmErrorKind::NotFound:
                SetError(TraceSharedMemory::NotFound, "not found");
                return;
            case Platform::ShmErrorKind::AccessDenied:
                SetError(TraceSharedMemory::PermissionDenied, "permission denied");
                return;
            case Platform::ShmErrorKind::AlreadyExists:
                SetError(TraceSharedMemory::AlreadyExists, "already exists");
                return;
            case Platform::ShmErrorKind::None:
            case Platform::ShmErrorKind::Other:
                break;
        }
        error = TraceSharedMemory::UnknownError;
        errorText.clear();
        osFunction = failure.function;
        osError = static_cast<uint32_t>(failure.code);
    }

    // Shared by create and attach: false (with the error set) when neither may run.
    bool CanMap() {
        if (view != nullptr) {
            SetError(TraceSharedMemory::UnknownError, "already attached");
            return false;
        }
        if (key.empty()) {
            SetError(TraceSharedMemory::UnknownError, "empty key is invalid");
            return false;
        }
        // A name made after the exit release would stay behind.
        if (::Tracing::Mapped().released.load(std::memory_order_seq_cst)) {
            SetError(TraceSharedMemory::UnknownError, "the library has shut down");
            return false;
        }
        return true;
    }

    bool Mapped() {
        view = mapping.Data();
        size = mapping.Size();
        SetError(TraceSharedMemory::NoError, "");
        MappedBlocks& mapped = ::Tracing::Mapped();
        std::lock_guard<std::mutex> lock(mapped.mutex);
        mapped.blocks.insert(this);
        return true;
    }

    void Unmapped() {
        MappedBlocks& mapped = ::Tracing::Mapped();
        std::lock_guard<std::mutex> lock(mapped.mutex);
        mapped.blocks.erase(this);
    }
};

namespace {

void WriteEventLogEntry(Platform::EventType type, const char* source, const char* message) {
    // The account does not change while the process runs; the process ID may (fork).
    static const std::string account = Platform::CurrentUserDomain() + "\\" + Platform::CurrentUserName();
    const std::string userLine =
        "User: " + account + ", ProcessID: " + std::to_string(Platform::CurrentProcessId());
    Platform::WriteEventLog(type, source, userLine.c_str(), message);
}

}  // namespace

TraceSharedMemory::TraceSharedMemory() : d(new TraceSharedMemoryPrivate) {}

TraceSharedMemory::TraceSharedMemory(const char* key) : TraceSharedMemory() {
    setKey(key);
}

TraceSharedMemory::~TraceSharedMemory() {
    if (d->view != nullptr)
        d->Unmapped();
    delete d;
}

void TraceSharedMemory::setKey(const char* key) {
    if (d->view != nullptr)
        return;
    d->key = key != nullptr ? key : "";
}

std::string TraceSharedMemory::getKey() const {
    return d->key;
}

void TraceSharedMemory::setPermissionsTemplate(const char* path, PermissionsTemplateOptions option) {
    d->templatePath = path != nullptr ? path : "";
    d->templateOption = option;
}

bool TraceSharedMemory::create(uint64_t size, AccessMode /*mode*/, AccessControl /*accessControl*/) {
    if (!d->CanMap())
        return false;
    Platform::ShmAccessRights rights;
    rights.groupAccount = TraceConfigurationPrivate::GetInstance().GetShmUserGroupPrefix() + "Tracing Users";
    rights.templatePath = d->templatePath;
    rights.templateReadOnly = d->templateOption != ReadAccessFull;
    // Always read-write: creators fill what they create.
    if (const Platform::ShmError failure = d->mapping.Create(d->key, size, rights); failure.Failed()) {
        d->SetOSError(failure);
        return false;
    }
    return d->Mapped();
}

bool TraceSharedMemory::attach(AccessMode mode, AttachOptions options) {
    if (!d->CanMap())
        return false;
    const Platform::ShmError failure = d->mapping.Open(d->key, mode == ReadWrite);
    if (!failure.Failed())
        return d->Mapped();
    d->SetOSError(failure);
    if (options != AttachTryGlobal || d->error != NotFound)
        return false;
    // A key that names a namespace already is not retried.
    if (d->key.find('\\') != std::string::npos)
        return false;
    const std::string key = d->key;
    d->key = "Global\\" + key;
    const bool attached = attach(mode, AttachDefault);
    d->key = key;
    return attached;
}

bool TraceSharedMemory::detach() {
    if (d->view == nullptr) {
        d->SetError(UnknownError, "not attached");
        return false;
    }
    d->Unmapped();
    d->mapping.Close();
    d->view = nullptr;
    d->SetError(NoError, "");
    return true;
}

void TraceSharedMemory::ReleaseAllAtExit() {
    MappedBlocks& mapped = Mapped();
    std::lock_guard<std::mutex> lock(mapped.mutex);
    mapped.released.store(true, std::memory_order_seq_cst);
    for (TraceSharedMemoryPrivate* block : mapped.blocks)
        block->mapping.Abandon();
    mapped.blocks.clear();
}

bool TraceSharedMemory::isAttached() const {
    return d->view != nullptr;
}

void* TraceSharedMemory::data() {
    return d->view;
}

const void* TraceSharedMemory::data() const {
    return d->view;
}

const void* TraceSharedMemory::constData() const {
    return d->view;
}

uint64_t TraceSharedMemory::size() const {
    return d->view != nullptr ? d->size : 0;
}

TraceSharedMemory::SharedMemoryError TraceSharedMemory::error() const {
    return d->error;
}

std::string TraceSharedMemory::errorString() const {
    if (!d->errorText.empty() || d->osError == 0)
        return d->errorText;
    d->errorText = std::string(d->osFunction != nullptr ? d->osFunction : "") + ": OS error " +
                   std::to_string(d->osError) + ": " + Internal::GetOSErrorText(static_cast<int>(d->osError));
    return d->errorText;
}

bool TraceSharedMemory::isSameShm(const TraceSharedMemory& other) const {
    return d->mapping.IsSameObject(other.d->mapping);
}

void TraceSharedMemory::writeErrorEventLog(const char* source, const char* message) {
    WriteEventLogEntry(Platform::EventType::Error, source, message);
}

void TraceSharedMemory::writeWarningEventLog(const char* source, const char* message) {
    WriteEventLogEntry(Platform::EventType::Warning, source, message);
}

}  // namespace Tracing
