#include "tools/BatchedOutput.h"

#include <cstring>

namespace Tracing::Tool {

BatchedOutput::Buffer::Buffer(std::ostream& target, std::size_t capacity)
    : m_target(target), m_storage(capacity < 4096 ? 4096 : capacity) {
    setp(m_storage.data(), m_storage.data() + m_storage.size());
}

bool BatchedOutput::Buffer::Drain() {
    const std::streamsize pending = pptr() - pbase();
    if (pending != 0 && !m_failed)
        m_failed = !m_target.write(pbase(), pending);
    setp(m_storage.data(), m_storage.data() + m_storage.size());
    return !m_failed;
}

bool BatchedOutput::Buffer::Commit() {
    if (Drain() && !m_target.flush())
        m_failed = true;
    return !m_failed;
}

BatchedOutput::Buffer::int_type BatchedOutput::Buffer::overflow(int_type ch) {
    if (!Drain())
        return traits_type::eof();
    if (!traits_type::eq_int_type(ch, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(ch);
        pbump(1);
    }
    return traits_type::not_eof(ch);
}

std::streamsize BatchedOutput::Buffer::xsputn(const char* data, std::streamsize count) {
    if (count > epptr() - pptr()) {
        if (!Drain())
            return 0;
        // Larger than the whole buffer: straight through.
        if (count > epptr() - pptr()) {
            m_failed = !m_target.write(data, count);
            return m_failed ? 0 : count;
        }
    }
    std::memcpy(pptr(), data, static_cast<std::size_t>(count));
    pbump(static_cast<int>(count));
    return count;
}

BatchedOutput::BatchedOutput(std::ostream& target, std::size_t capacity)
    : std::ostream(nullptr), m_buffer(target, capacity) {
    rdbuf(&m_buffer);
}

BatchedOutput::~BatchedOutput() {
    m_buffer.Commit();
}

bool BatchedOutput::Commit() {
    if (!m_buffer.Commit())
        setstate(std::ios::badbit);
    return good();
}

}  // namespace Tracing::Tool
