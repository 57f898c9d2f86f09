// The process-wide map from binary trace IDs to message texts.
//
// No lock of its own: files are added or cleared only while no thread formats binary traces.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Tracing {

// One loaded text file: a name and its ID-to-text map. Supplied by the consumer.
class TraceIDTextFile {
public:
    using TextMap = std::unordered_map<uint64_t, std::string>;

    TraceIDTextFile() = default;
    explicit TraceIDTextFile(std::string name) : m_name(std::move(name)) {}
    TraceIDTextFile(std::string name, TextMap texts) : m_name(std::move(name)), m_texts(std::move(texts)) {}

    const std::string& GetName() const { return m_name; }
    void SetName(std::string name) { m_name = std::move(name); }
    const TextMap& GetTexts() const { return m_texts; }
    void SetText(uint64_t id, std::string text) { m_texts[id] = std::move(text); }
    // The text of id, or null.
    const char* GetText(uint64_t id) const;

private:
    std::string m_name;
    TextMap m_texts;
};

class TraceIDTextMap {
public:
    static TraceIDTextMap& GetInstance();

    // Takes the file; for an ID that earlier files define too, this file's text wins.
    void AddFile(TraceIDTextFile&& file);
    // The text of id, or null.
    const char* GetText(uint64_t id) const;
    // The files in the order added.
    std::vector<const TraceIDTextFile*> BrowseFiles() const;
    void Clear();

    TraceIDTextMap(const TraceIDTextMap&) = delete;
    TraceIDTextMap& operator=(const TraceIDTextMap&) = delete;

private:
    TraceIDTextMap() = default;

    // Files stay at fixed addresses: m_texts points into them.
    std::vector<std::unique_ptr<TraceIDTextFile>> m_files;
    std::unordered_map<uint64_t, const std::string*> m_texts;
};

}  // namespace Tracing
