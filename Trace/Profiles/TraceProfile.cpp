#include "Trace/Profiles/TraceProfile.h"

#include <algorithm>
#include <vector>

namespace Tracing {
namespace {

// Returns the existing child unchanged, or inserts a fresh one with default settings.
template <typename Child>
Child* CreateChild(std::map<std::string, Child>& children, const std::string& name) {
    return &children.try_emplace(name, name).first->second;
}

template <typename Child>
Child* FindChild(std::map<std::string, Child>& children, const std::string& name) {
    const auto it = children.find(name);
    return it != children.end() ? &it->second : nullptr;
}

template <typename Child>
const Child* FindChild(const std::map<std::string, Child>& children, const std::string& name) {
    const auto it = children.find(name);
    return it != children.end() ? &it->second : nullptr;
}

template <typename Node>
bool CopyOut(Node& out, const Node* found) {
    if (found == nullptr)
        return false;
    out = *found;
    return true;
}

// ASCII case folding: names are byte strings, and the order must not depend on the locale.
bool LessCaseInsensitive(const std::string& left, const std::string& right) {
    return std::lexicographical_compare(
        left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
            const auto lower = [](char c) {
                return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c - 'A' + 'a')
                                            : static_cast<unsigned char>(c);
            };
            return lower(a) < lower(b);
        });
}

}  // namespace

void TraceProfile::Settings::OverrideIn(Settings& inherited) const {
    if (m_severity != 0)
        inherited.m_severity = m_severity;
    if (m_maxModules != 0)
        inherited.m_maxModules = m_maxModules;
    if (m_traceStreamSize != 0)
        inherited.m_traceStreamSize = m_traceStreamSize;
    if (m_timestampMode != 0)
        inherited.m_timestampMode = m_timestampMode;
}

// --- Module

TraceProfile::Flag* TraceProfile::Module::CreateFlag(const std::string& name) {
    return name.empty() ? nullptr : CreateChild(m_flags, name);
}

bool TraceProfile::Module::DeleteFlag(const std::string& name) {
    return m_flags.erase(name) != 0;
}

TraceProfile::Flag* TraceProfile::Module::GetFlag(const std::string& name) {
    return FindChild(m_flags, name);
}

const TraceProfile::Flag* TraceProfile::Module::GetFlag(const std::string& name) const {
    return FindChild(m_flags, name);
}

bool TraceProfile::Module::FindFlag(Flag& out, const std::string& flag) const {
    return CopyOut(out, GetFlag(flag));
}

// --- SubSystem

TraceProfile::Module* TraceProfile::SubSystem::CreateModule(const std::string& name) {
    return name.empty() ? nullptr : CreateChild(m_modules, name);
}

bool TraceProfile::SubSystem::DeleteModule(const std::string& name) {
    return m_modules.erase(name) != 0;
}

TraceProfile::Module* TraceProfile::SubSystem::GetModule(const std::string& name) {
    return FindChild(m_modules, name);
}

const TraceProfile::Module* TraceProfile::SubSystem::GetModule(const std::string& name) const {
    return FindChild(m_modules, name);
}

bool TraceProfile::SubSystem::FindModule(Module& out, const std::string& module) const {
    return CopyOut(out, GetModule(module));
}

void TraceProfile::SubSystem::HandleVisitor(ISubSystemVisitor& visitor, const SubSystem& inherited,
                                            const std::string& hostName,
                                            const std::string& applicationName) const {
    SubSystem result(*this);
    static_cast<Settings&>(result) = inherited;
    OverrideIn(result);
    visitor.Visit(result, hostName, applicationName);
}

// --- Application

TraceProfile::SubSystem* TraceProfile::Application::CreateSubSystem(const std::string& name) {
    return CreateChild(m_subSystems, name);
}

bool TraceProfile::Application::DeleteSubSystem(const std::string& name) {
    return m_subSystems.erase(name) != 0;
}

TraceProfile::SubSystem* TraceProfile::Application::GetSubSystem(const std::string& name) {
    return FindChild(m_subSystems, name);
}

const TraceProfile::SubSystem* TraceProfile::Application::GetSubSystem(const std::string& name) const {
    return FindChild(m_subSystems, name);
}

bool TraceProfile::Application::FindSubSystem(SubSystem& out, const std::string& subSystem) const {
    return CopyOut(out, GetSubSystem(subSystem));
}

void TraceProfile::Application::HandleVisitor(ISubSystemVisitor& visitor, const SubSystem& inherited,
                                              const std::string& hostName, bool upperHasOwnValues) const {
    SubSystem values(inherited);
    OverrideIn(values);
    if ((upperHasOwnValues || HasOwnValues()) && GetSubSystem(std::string()) == nullptr)
        SubSystem().HandleVisitor(visitor, values, hostName, m_name);
    for (const auto& [name, subSystem] : m_subSystems)
        subSystem.HandleVisitor(visitor, values, hostName, m_name);
}

// --- Host

TraceProfile::Application* TraceProfile::Host::CreateApplication(const std::string& name) {
    return CreateChild(m_applications, name);
}

bool TraceProfile::Host::DeleteApplication(const std::string& name) {
    return m_applications.erase(name) != 0;
}

TraceProfile::Application* TraceProfile::Host::GetApplication(const std::string& name) {
    return FindChild(m_applications, name);
}

const TraceProfile::Application* TraceProfile::Host::GetApplication(const std::string& name) const {
    return FindChild(m_applications, name);
}

bool TraceProfile::Host::FindSubSystem(SubSystem& out, const std::string& application,
                                       const std::string& subSystem) const {
    const Application* found = GetApplication(application);
    return found != nullptr && found->FindSubSystem(out, subSystem);
}

void TraceProfile::Host::HandleVisitor(ISubSystemVisitor& visitor, const SubSystem& inherited) const {
    SubSystem values(inherited);
    OverrideIn(values);
    const bool ownValues = HasOwnValues();
    if (ownValues && GetApplication(std::string()) == nullptr)
        Application().HandleVisitor(visitor, values, m_name, ownValues);

    // Readers expect the applications ordered as a person reads them, not by byte value; equal
    // names up to case keep their map order.
    std::vector<const Application*> ordered;
    ordered.reserve(m_applications.size());
    for (const auto& [name, application] : m_applications)
        ordered.push_back(&application);
    std::stable_sort(ordered.begin(), ordered.end(), [](const Application* left, const Application* right) {
        return LessCaseInsensitive(left->GetName(), right->GetName());
    });
    for (const Application* application : ordered)
        application->HandleVisitor(visitor, values, m_name, ownValues);
}

// --- TraceProfile

TraceProfile::Host* TraceProfile::CreateHost(const std::string& name) {
    return CreateChild(m_hosts, name);
}

bool TraceProfile::DeleteHost(const std::string& name) {
    return m_hosts.erase(name) != 0;
}

TraceProfile::Host* TraceProfile::GetHost(const std::string& name) {
    return FindChild(m_hosts, name);
}

const TraceProfile::Host* TraceProfile::GetHost(const std::string& name) const {
    return FindChild(m_hosts, name);
}

const TraceProfile::SubSystem* TraceProfile::LookUpSubSystem(const std::string& host,
                                                             const std::string& application,
                                                             const std::string& subSystem) const {
    const Host* foundHost = GetHost(host);
    const Application* foundApplication =
        foundHost != nullptr ? foundHost->GetApplication(application) : nullptr;
    return foundApplication != nullptr ? foundApplication->GetSubSystem(subSystem) : nullptr;
}

const TraceProfile::Module* TraceProfile::LookUpModule(const std::string& host,
                                                       const std::string& application,
                                                       const std::string& subSystem,
                                                       const std::string& module) const {
    const SubSystem* found = LookUpSubSystem(host, application, subSystem);
    return found != nullptr ? found->GetModule(module) : nullptr;
}

bool TraceProfile::FindSubSystem(SubSystem& out, const std::string& host, const std::string& application,
                                 const std::string& subSystem) const {
    return CopyOut(out, LookUpSubSystem(host, application, subSystem));
}

bool TraceProfile::FindModule(Module& out, const std::string& host, const std::string& application,
                              const std::string& subSystem, const std::string& module) const {
    return CopyOut(out, LookUpModule(host, application, subSystem, module));
}

bool TraceProfile::FindFlag(Flag& out, const std::string& host, const std::string& application,
                            const std::string& subSystem, const std::string& module,
                            const std::string& flag) const {
    const Module* found = LookUpModule(host, application, subSystem, module);
    return found != nullptr && found->FindFlag(out, flag);
}

void TraceProfile::StartVisitor(ISubSystemVisitor& visitor) const {
    const SubSystem inherited;
    for (const auto& [name, host] : m_hosts)
        host.HandleVisitor(visitor, inherited);
}

}  // namespace Tracing
