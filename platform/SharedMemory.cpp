#include "platform/SharedMemory.h"

#include <utility>

namespace Tracing::Platform {

SharedMemoryBlock::SharedMemoryBlock(SharedMemoryBlock&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)),
      m_size(std::exchange(other.m_size, 0)),
      m_handle(std::exchange(other.m_handle, -1)),
      m_writable(std::exchange(other.m_writable, false)),
      m_path(std::move(other.m_path)) {}

SharedMemoryBlock& SharedMemoryBlock::operator=(SharedMemoryBlock&& other) noexcept {
    if (this != &other) {
        Close();
        m_data = std::exchange(other.m_data, nullptr);
        m_size = std::exchange(other.m_size, 0);
        m_handle = std::exchange(other.m_handle, -1);
        m_writable = std::exchange(other.m_writable, false);
        m_path = std::move(other.m_path);
    }
    return *this;
}

}  // namespace Tracing::Platform
