// Numbered files "paxltrace-000001.log", "-000002.log", ... in one directory: the newest is
// appended to until it reaches the rotation size, then the next is begun and the oldest beyond
// the number to keep are removed. Text added is held in memory and written with one call per
// Flush, so that a batch of traces costs one system call.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace Tracing::Tool {

class RotatingFiles {
public:
    // header starts every new file; extension with its dot.
    RotatingFiles(std::string directory, std::string extension, std::string header, uint64_t rotateSize,
                  unsigned keep);
    ~RotatingFiles();
    RotatingFiles(const RotatingFiles&) = delete;
    RotatingFiles& operator=(const RotatingFiles&) = delete;

    // Appends to the newest file, or begins the first. When the newest is the file named
    // resumeName and has grown past resumeLength, it is cut back to that length: what lies beyond
    // was written after the last saved state and will be written again.
    bool Open(const std::string& resumeName, uint64_t resumeLength, std::string& error);

    // Text of whole traces: a file never ends inside one.
    void Add(std::string_view text);
    bool Flush(std::string& error);

    // File name (without directory) and length after the last Flush.
    const std::string& Name() const { return m_name; }
    uint64_t Length() const { return m_length; }
    const std::string& Directory() const { return m_directory; }

private:
    bool Begin(unsigned number, std::string& error);
    bool WritePending(std::string& error);
    void RemoveOld() const;

    std::string m_directory;
    std::string m_extension;
    std::string m_header;
    uint64_t m_rotateSize;
    unsigned m_keep;
    std::FILE* m_file = nullptr;
    unsigned m_number = 0;
    std::string m_name;
    uint64_t m_length = 0;
    std::string m_pending;
    bool m_failed = false;
};

}  // namespace Tracing::Tool
