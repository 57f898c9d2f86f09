#include "Trace/Records/TraceIDTextMap.h"

namespace Tracing {

const char* TraceIDTextFile::GetText(uint64_t id) const {
    const auto it = m_texts.find(id);
    return it == m_texts.end() ? nullptr : it->second.c_str();
}

TraceIDTextMap& TraceIDTextMap::GetInstance() {
    // Never destroyed: traces formatted at exit still look their texts up.
    static TraceIDTextMap* const instance = new TraceIDTextMap;
    return *instance;
}

void TraceIDTextMap::AddFile(TraceIDTextFile&& file) {
    // Moved once into its final place before any pointer into it is taken.
    m_files.push_back(std::make_unique<TraceIDTextFile>(std::move(file)));
    for (const auto& [id, text] : m_files.back()->GetTexts())
        m_texts[id] = &text;
}

const char* TraceIDTextMap::GetText(uint64_t id) const {
    const auto it = m_texts.find(id);
    return it == m_texts.end() ? nullptr : it->second->c_str();
}

std::vector<const TraceIDTextFile*> TraceIDTextMap::BrowseFiles() const {
    std::vector<const TraceIDTextFile*> files;
    files.reserve(m_files.size());
    for (const auto& file : m_files)
        files.push_back(file.get());
    return files;
}

void TraceIDTextMap::Clear() {
    m_texts.clear();
    m_files.clear();
}

}  // namespace Tracing
