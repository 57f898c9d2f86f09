// A trace profile: filter and size presets per host, application, subsystem, module and flag.
//
// A plain tree of ordered maps keyed by name (byte-wise order). The empty name stands for the
// default entry at the host, application and subsystem levels; the empty-named host also carries
// the machine-wide settings (resynchronisation period and the three global switches). The four
// numeric settings of hosts, applications and subsystems use 0 for "inherit from above"; a visitor
// sees every subsystem with the values that result after inheritance.
//
// Every class has value semantics and owns its children. Pointers returned by Create* and Get*
// stay valid until that child is deleted or the tree is cleared (map nodes do not move).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace Tracing {

class TraceProfile {
public:
    // Written into the published block.
    static constexpr uint16_t CurrentVersion = 203;

    class Flag {
    public:
        explicit Flag(std::string name = {}, bool enabled = false)
            : m_name(std::move(name)), m_enabled(enabled) {}

        const std::string& GetName() const { return m_name; }
        bool IsEnabled() const { return m_enabled; }
        void SetEnabled(bool enabled) { m_enabled = enabled; }

    private:
        std::string m_name;
        bool m_enabled;
    };

    class Module {
    public:
        explicit Module(std::string name = {}) : m_name(std::move(name)) {}

        const std::string& GetName() const { return m_name; }
        // 0 = the subsystem's severity.
        uint32_t GetSeverity() const { return m_severity; }
        void SetSeverity(uint32_t severity) { m_severity = severity; }

        // Null for the empty name: a flag is always named.
        Flag* CreateFlag(const std::string& name);
        bool DeleteFlag(const std::string& name);
        const std::map<std::string, Flag>& GetFlags() const { return m_flags; }
        Flag* GetFlag(const std::string& name);
        const Flag* GetFlag(const std::string& name) const;
        bool FindFlag(Flag& out, const std::string& flag) const;

    private:
        std::string m_name;
        uint32_t m_severity = 0;
        std::map<std::string, Flag> m_flags;
    };

    // The four settings a level hands down: each 0 = inherit from the level above.
    class Settings {
    public:
        uint32_t GetSeverity() const { return m_severity; }
        void SetSeverity(uint32_t severity) { m_severity = severity; }
        uint32_t GetMaxModules() const { return m_maxModules; }
        void SetMaxModules(uint32_t count) { m_maxModules = count; }
        // Ring size in bytes.
        uint32_t GetTraceStreamSize() const { return m_traceStreamSize; }
        void SetTraceStreamSize(uint32_t size) { m_traceStreamSize = size; }
        // A TimestampMode::Type value.
        uint32_t GetTimestampMode() const { return m_timestampMode; }
        void SetTimestampMode(uint32_t mode) { m_timestampMode = mode; }

        bool HasOwnValues() const {
            return m_severity != 0 || m_maxModules != 0 || m_traceStreamSize != 0 || m_timestampMode != 0;
        }
        // Replaces each value of `inherited` by this level's own where that is set.
        void OverrideIn(Settings& inherited) const;

    private:
        uint32_t m_severity = 0;
        uint32_t m_maxModules = 0;
        uint32_t m_traceStreamSize = 0;
        uint32_t m_timestampMode = 0;
    };

    class ISubSystemVisitor;

    class SubSystem : public Settings {
    public:
        explicit SubSystem(std::string name = {}) : m_name(std::move(name)) {}

        const std::string& GetName() const { return m_name; }

        // Null for the empty name: a module is always named.
        Module* CreateModule(const std::string& name);
        bool DeleteModule(const std::string& name);
        const std::map<std::string, Module>& GetModules() const { return m_modules; }
        Module* GetModule(const std::string& name);
        const Module* GetModule(const std::string& name) const;
        bool FindModule(Module& out, const std::string& module) const;

        // Hands the visitor this subsystem with the inherited values overridden by its own.
        void HandleVisitor(ISubSystemVisitor& visitor, const SubSystem& inherited,
                           const std::string& hostName, const std::string& applicationName) const;

    private:
        std::string m_name;
        std::map<std::string, Module> m_modules;
    };

    class ISubSystemVisitor {
    public:
        virtual ~ISubSystemVisitor() = default;
        // Once per subsystem, with the values that result after inheritance.
        virtual void Visit(const SubSystem& subSystem, const std::string& hostName,
                           const std::string& applicationName) = 0;
    };

    class Application : public Settings {
    public:
        explicit Application(std::string name = {}) : m_name(std::move(name)) {}

        const std::string& GetName() const { return m_name; }

        // The empty name makes the application's default subsystem.
        SubSystem* CreateSubSystem(const std::string& name);
        bool DeleteSubSystem(const std::string& name);
        const std::map<std::string, SubSystem>& GetSubSystems() const { return m_subSystems; }
        SubSystem* GetSubSystem(const std::string& name);
        const SubSystem* GetSubSystem(const std::string& name) const;
        bool FindSubSystem(SubSystem& out, const std::string& subSystem) const;

        // upperHasOwnValues: whether the host had values of its own. When it or this application
        // has, a missing default subsystem is visited first, so the values reach a default entry.
        void HandleVisitor(ISubSystemVisitor& visitor, const SubSystem& inherited,
                           const std::string& hostName, bool upperHasOwnValues) const;

    private:
        std::string m_name;
        std::map<std::string, SubSystem> m_subSystems;
    };

    class Host : public Settings {
    public:
        static constexpr uint32_t SwitchOff = 0;
        static constexpr uint32_t SwitchOn = 1;
        static constexpr uint32_t SwitchNotSet = 2;
        static constexpr uint32_t DefaultResynchronizationPeriod = 10000;

        explicit Host(std::string name = {}) : m_name(std::move(name)) {}

        const std::string& GetName() const { return m_name; }

        // Milliseconds; only the empty-named host's value is published.
        uint32_t GetResynchronizationPeriod() const { return m_resynchronizationPeriod; }
        void SetResynchronizationPeriod(uint32_t periodMs) { m_resynchronizationPeriod = periodMs; }
        // Global switches: SwitchOn, SwitchOff or SwitchNotSet; only the empty-named host's count.
        uint32_t GetWriteTraceLocation() const { return m_writeTraceLocation; }
        void SetWriteTraceLocation(uint32_t value) { m_writeTraceLocation = value; }
        uint32_t GetWriteToEventLog() const { return m_writeToEventLog; }
        void SetWriteToEventLog(uint32_t value) { m_writeToEventLog = value; }
        uint32_t GetGlobalTraceID() const { return m_globalTraceID; }
        void SetGlobalTraceID(uint32_t value) { m_globalTraceID = value; }
        bool HasGlobalSwitches() const {
            return m_writeTraceLocation != SwitchNotSet || m_writeToEventLog != SwitchNotSet ||
                   m_globalTraceID != SwitchNotSet;
        }

        // The empty name makes the host's default application.
        Application* CreateApplication(const std::string& name);
        bool DeleteApplication(const std::string& name);
        const std::map<std::string, Application>& GetApplications() const { return m_applications; }
        Application* GetApplication(const std::string& name);
        const Application* GetApplication(const std::string& name) const;
        bool FindSubSystem(SubSystem& out, const std::string& application,
                           const std::string& subSystem) const;

        // Visits the applications ordered by name case-insensitively (not in map order), after a
        // missing default application when the host has values of its own.
        void HandleVisitor(ISubSystemVisitor& visitor, const SubSystem& inherited) const;

    private:
        std::string m_name;
        uint32_t m_resynchronizationPeriod = DefaultResynchronizationPeriod;
        uint32_t m_writeTraceLocation = SwitchNotSet;
        uint32_t m_writeToEventLog = SwitchNotSet;
        uint32_t m_globalTraceID = SwitchNotSet;
        std::map<std::string, Application> m_applications;
    };

    // The empty name makes the default host.
    Host* CreateHost(const std::string& name);
    bool DeleteHost(const std::string& name);
    Host* GetHost(const std::string& name);
    const Host* GetHost(const std::string& name) const;
    const std::map<std::string, Host>& GetHosts() const { return m_hosts; }

    // Exact, case-sensitive lookups along the path; out is left unchanged when a level is missing.
    bool FindSubSystem(SubSystem& out, const std::string& host, const std::string& application,
                       const std::string& subSystem) const;
    bool FindModule(Module& out, const std::string& host, const std::string& application,
                    const std::string& subSystem, const std::string& module) const;
    bool FindFlag(Flag& out, const std::string& host, const std::string& application,
                  const std::string& subSystem, const std::string& module, const std::string& flag) const;

    // Visits every subsystem host by host in map order, starting from all values 0.
    void StartVisitor(ISubSystemVisitor& visitor) const;

    void Clear() { m_hosts.clear(); }

private:
    const SubSystem* LookUpSubSystem(const std::string& host, const std::string& application,
                                     const std::string& subSystem) const;
    const Module* LookUpModule(const std::string& host, const std::string& application,
                               const std::string& subSystem, const std::string& module) const;

    std::map<std::string, Host> m_hosts;
};

}  // namespace Tracing
