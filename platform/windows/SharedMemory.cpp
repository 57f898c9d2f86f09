// Named shared memory on Windows: named file mappings backed by the paging file.
//
// The system gives the lifetime the contract asks for: a mapping lives while any process has a
// handle to it, and a name appears only with the object complete, its size and its security
// descriptor included. Namespaces are the system's own ("Global\X" and "X" differ).

#include "platform/SharedMemory.h"

#include <windows.h>
// After windows.h, which it needs.
#include <sddl.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/TextConversion.h"

namespace Tracing::Platform {
namespace {

// The section rights that the mappings are opened with and that access lists grant.
constexpr DWORD kSectionAllAccess = 0xF001F;
constexpr DWORD kSectionMapRead = 4;

ShmError Failure(DWORD code, const char* function) {
    ShmError error;
    error.code = static_cast<int>(code);
    error.function = function;
    switch (code) {
        case ERROR_FILE_NOT_FOUND:
            error.kind = ShmErrorKind::NotFound;
            break;
        case ERROR_ACCESS_DENIED:
            error.kind = ShmErrorKind::AccessDenied;
            break;
        case ERROR_ALREADY_EXISTS:
            error.kind = ShmErrorKind::AlreadyExists;
            break;
        default:
            error.kind = ShmErrorKind::Other;
    }
    return error;
}

ShmError LastFailure(const char* function) {
    return Failure(::GetLastError(), function);
}

// Keys are narrow text of the system's code page, as object names have always been.
std::wstring ObjectName(const std::string& key) {
    const int size = ::MultiByteToWideChar(CP_ACP, 0, key.data(), static_cast<int>(key.size()), nullptr, 0);
    if (size <= 0)
        return {};
    std::wstring name(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_ACP, 0, key.data(), static_cast<int>(key.size()), name.data(), size);
    return name;
}

// A security descriptor with the release function that belongs to where it came from.
struct Descriptor {
    PSECURITY_DESCRIPTOR pointer = nullptr;
    HLOCAL local = nullptr;             // from ConvertStringSecurityDescriptor...
    std::vector<unsigned char> buffer;  // from GetFileSecurity

    Descriptor() = default;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (local != nullptr)
            ::LocalFree(local);
    }
};

// The creating user, the system account and the tracing group of this computer, each with full
// access; an account that cannot be resolved is left out.
ShmError DefaultDescriptor(const std::string& groupAccount, Descriptor& descriptor) {
    wchar_t userName[257];
    DWORD userLength = 257;
    // Ordered by UTF-16 code units, so that the list reads the same on every call.
    std::set<std::wstring> accounts;
    if (::GetUserNameW(userName, &userLength) && userLength > 1)
        accounts.emplace(userName, userLength - 1);
    accounts.emplace(L"SYSTEM");
    wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD computerLength = MAX_COMPUTERNAME_LENGTH + 1;
    if (!::GetComputerNameExW(ComputerNamePhysicalNetBIOS, computer, &computerLength))
        return LastFailure("GetComputerNameExW");
    accounts.emplace(std::wstring(computer, computerLength) + L"\\" +
                     Utf8ToWide(groupAccount.data(), groupAccount.size()));

    std::wstring text = L"D:";
    ShmError recorded;
    for (const std::wstring& account : accounts) {
        BYTE sid[SECURITY_MAX_SID_SIZE];
        DWORD sidSize = sizeof sid;
        wchar_t domain[256];
        DWORD domainSize = 256;
        SID_NAME_USE use;
        if (!::LookupAccountNameW(nullptr, account.c_str(), sid, &sidSize, domain, &domainSize, &use)) {
            recorded = LastFailure("LookupAccountNameW");
            continue;
        }
        wchar_t* sidText = nullptr;
        if (!::ConvertSidToStringSidW(sid, &sidText)) {
            recorded = LastFailure("ConvertSidToStringSidW");
            continue;
        }
        text += L"(A;OICI;GAGRGW;;;";
        text += sidText;
        text += L")";
        ::LocalFree(sidText);
    }
    if (text == L"D:")
        return recorded.Failed() ? recorded : Failure(ERROR_NONE_MAPPED, "LookupAccountNameW");
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                                &descriptor.pointer, nullptr))
        return LastFailure("ConvertStringSecurityDescriptorToSecurityDescriptorW");
    descriptor.local = descriptor.pointer;
    return {};
}

// The template file's access list with file rights turned into section rights: write data gives
// full access, read data full or read-only access, anything else none.
ShmError TemplateDescriptor(const std::string& path, bool readOnly, Descriptor& descriptor) {
    const std::wstring file = Utf8ToWide(path.data(), path.size());
    DWORD needed = 0;
    ::GetFileSecurityW(file.c_str(), DACL_SECURITY_INFORMATION, nullptr, 0, &needed);
    if (needed == 0)
        return LastFailure("GetFileSecurity");
    descriptor.buffer.resize(needed);
    if (!::GetFileSecurityW(file.c_str(), DACL_SECURITY_INFORMATION, descriptor.buffer.data(), needed,
                            &needed))
        return LastFailure("GetFileSecurity");
    descriptor.pointer = descriptor.buffer.data();
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL dacl = nullptr;
    if (!::GetSecurityDescriptorDacl(descriptor.pointer, &present, &dacl, &defaulted))
        return LastFailure("GetSecurityDescriptorDacl");
    if (!present || dacl == nullptr)
        return {};
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
        void* ace = nullptr;
        if (!::GetAce(dacl, i, &ace))
            continue;
        // Every ACE of a file's list carries its mask right after the header.
        ACCESS_MASK& mask = static_cast<ACCESS_ALLOWED_ACE*>(ace)->Mask;
        DWORD rights = 0;
        if (mask & FILE_WRITE_DATA)
            rights = kSectionAllAccess;
        else if (mask & FILE_READ_DATA)
            rights = readOnly ? kSectionMapRead : kSectionAllAccess;
        mask = (mask & 0xFFFF0000u) | rights;
    }
    return {};
}

// Bytes of the view at `view` (whole pages; the system rounds a mapping up to them).
uint64_t ViewSize(const void* view) {
    MEMORY_BASIC_INFORMATION info{};
    if (::VirtualQuery(view, &info, sizeof info) == 0)
        return 0;
    return info.RegionSize;
}

using CompareFunction = BOOL(WINAPI*)(HANDLE, HANDLE);

// Only Windows 10 has it; resolved once.
CompareFunction CompareObjectHandlesFunction() {
    static const CompareFunction function = [] {
        HMODULE module = ::GetModuleHandleW(L"kernelbase");
        if (module == nullptr)
            module = ::LoadLibraryW(L"kernelbase");
        return module != nullptr ? reinterpret_cast<CompareFunction>(reinterpret_cast<void (*)()>(
                                       ::GetProcAddress(module, "CompareObjectHandles")))
                                 : nullptr;
    }();
    return function;
}

}  // namespace

std::string SharedMemoryPath(const std::string& /*key*/) {
    return {};
}

int RemoveAbandonedBlocks(const std::string& /*keyPrefix*/) {
    // A mapping object vanishes with the last handle, also of a process that died.
    return 0;
}

ShmError SharedMemoryBlock::Create(const std::string& key, uint64_t size, const ShmAccessRights& rights) {
    Close();
    const std::wstring name = ObjectName(key);
    if (name.empty())
        return Failure(ERROR_INVALID_NAME, "CreateFileMapping");
    Descriptor descriptor;
    const ShmError built = rights.templatePath.empty()
                               ? DefaultDescriptor(rights.groupAccount, descriptor)
                               : TemplateDescriptor(rights.templatePath, rights.templateReadOnly, descriptor);
    if (built.Failed())
        return built;
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor.pointer, FALSE};
    HANDLE mapping =
        ::CreateFileMappingW(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE,
                             static_cast<DWORD>(size >> 32), static_cast<DWORD>(size), name.c_str());
    const DWORD error = ::GetLastError();
    if (mapping == nullptr || error == ERROR_ALREADY_EXISTS) {
        if (mapping != nullptr)
            ::CloseHandle(mapping);
        return Failure(error, "CreateFileMapping");
    }
    void* view = ::MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
    if (view == nullptr) {
        const ShmError failure = LastFailure("MapViewOfFile");
        ::CloseHandle(mapping);
        return failure;
    }
    m_data = view;
    m_size = size;
    m_handle = reinterpret_cast<intptr_t>(mapping);
    m_writable = true;
    return {};
}

ShmError SharedMemoryBlock::Open(const std::string& key, bool writable) {
    Close();
    const std::wstring name = ObjectName(key);
    if (name.empty())
        return Failure(ERROR_INVALID_NAME, "OpenFileMapping");
    HANDLE mapping = ::OpenFileMappingW(writable ? kSectionAllAccess : kSectionMapRead, FALSE, name.c_str());
    if (mapping == nullptr)
        return LastFailure("OpenFileMapping");
    void* view = ::MapViewOfFile(mapping, writable ? FILE_MAP_WRITE : FILE_MAP_READ, 0, 0, 0);
    if (view == nullptr) {
        const ShmError failure = LastFailure("MapViewOfFile");
        ::CloseHandle(mapping);
        return failure;
    }
    m_data = view;
    m_size = ViewSize(view);
    m_handle = reinterpret_cast<intptr_t>(mapping);
    m_writable = writable;
    return {};
}

void SharedMemoryBlock::Close() {
    if (m_data != nullptr)
        ::UnmapViewOfFile(m_data);
    if (m_handle >= 0)
        ::CloseHandle(reinterpret_cast<HANDLE>(m_handle));
    m_data = nullptr;
    m_size = 0;
    m_handle = -1;
    m_writable = false;
    m_path.clear();
}

void SharedMemoryBlock::Abandon() {
    // The view and its handle go with the process, and the object with its last handle.
    m_data = nullptr;
    m_size = 0;
    m_handle = -1;
    m_writable = false;
    m_path.clear();
}

bool SharedMemoryBlock::IsSameObject(const SharedMemoryBlock& other) const {
    if (m_handle < 0 || other.m_handle < 0)
        return false;
    CompareFunction compare = CompareObjectHandlesFunction();
    if (compare == nullptr)
        return false;
    return compare(reinterpret_cast<HANDLE>(m_handle), reinterpret_cast<HANDLE>(other.m_handle)) != FALSE;
}

}  // namespace Tracing::Platform
