#include "tools/RotatingFiles.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

namespace Tracing::Tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* Stem = "paxltrace-";

// Number of each file of ours in the directory, in ascending order.
std::map<unsigned, std::string> ListFiles(const std::string& directory, const std::string& extension) {
    std::map<unsigned, std::string> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        const std::string name = entry.path().filename().string();
        const size_t stem = std::strlen(Stem);
        if (name.size() != stem + 6 + extension.size() || name.compare(0, stem, Stem) != 0 ||
            name.compare(stem + 6, std::string::npos, extension) != 0) {
            continue;
        }
        const std::string digits = name.substr(stem, 6);
        if (digits.find_first_not_of("0123456789") == std::string::npos) {
            files[static_cast<unsigned>(std::stoul(digits))] = name;
        }
    }
    return files;
}

}  // namespace

RotatingFiles::RotatingFiles(std::string directory, std::string extension, std::string header,
                             uint64_t rotateSize, unsigned keep)
    : m_directory(std::move(directory)),
      m_extension(std::move(extension)),
      m_header(std::move(header)),
      m_rotateSize(rotateSize),
      m_keep(keep) {}

RotatingFiles::~RotatingFiles() {
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
}

bool RotatingFiles::Open(const std::string& resumeName, uint64_t resumeLength, std::string& error) {
    std::error_code code;
    fs::create_directories(m_directory, code);
    const auto files = ListFiles(m_directory, m_extension);
    if (files.empty()) {
        return Begin(1, error);
    }
    m_number = files.rbegin()->first;
    m_name = files.rbegin()->second;
    const fs::path path = fs::path(m_directory) / m_name;
    m_length = fs::file_size(path, code);
    if (!code && m_name == resumeName && m_length > resumeLength) {
        fs::resize_file(path, resumeLength, code);
        m_length = resumeLength;
    }
    m_file = code ? nullptr : std::fopen(path.string().c_str(), "ab");
    if (m_file == nullptr) {
        error = "cannot append to " + path.string() + ": " + (code ? code.message() : std::strerror(errno));
        return false;
    }
    return true;
}

bool RotatingFiles::Begin(unsigned number, std::string& error) {
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
    m_number = number;
    char name[32];
    std::snprintf(name, sizeof name, "%s%06u", Stem, number);
    m_name = name + m_extension;
    const std::string path = (fs::path(m_directory) / m_name).string();
    m_file = std::fopen(path.c_str(), "wb");
    if (m_file == nullptr) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    m_length = 0;
    m_pending = m_header;
    RemoveOld();
    return true;
}

void RotatingFiles::Add(std::string_view text) {
    const uint64_t length = m_length + m_pending.size();
    if (m_file != nullptr && length > m_header.size() && length + text.size() > m_rotateSize) {
        std::string error;
        m_failed = !WritePending(error) || !Begin(m_number + 1, error) || m_failed;
    }
    m_pending.append(text);
}

bool RotatingFiles::Flush(std::string& error) {
    const bool ok = !m_failed && m_file != nullptr && WritePending(error);
    if (m_failed && error.empty()) {
        error = "writing to " + m_directory + " failed";
    }
    m_failed = false;
    return ok;
}

bool RotatingFiles::WritePending(std::string& error) {
    if (m_pending.empty()) {
        return true;
    }
    const bool ok = std::fwrite(m_pending.data(), 1, m_pending.size(), m_file) == m_pending.size() &&
                    std::fflush(m_file) == 0;
    if (!ok) {
        error = "writing " + m_name + " failed: " + std::strerror(errno);
        std::clearerr(m_file);
        return false;
    }
    m_length += m_pending.size();
    m_pending.clear();
    return true;
}

void RotatingFiles::RemoveOld() const {
    auto files = ListFiles(m_directory, m_extension);
    std::error_code code;
    while (files.size() > m_keep) {
        fs::remove(fs::path(m_directory) / files.begin()->second, code);
        files.erase(files.begin());
    }
}

}  // namespace Tracing::Tool
