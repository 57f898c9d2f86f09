// An output stream for many records at once.
//
// Trace::WriteToStream and WriteCsvToStream flush after every line; on a file or a pipe that is
// one system call per line. Through this stream a flush costs nothing: the bytes reach the target
// when Commit is called (once per delivered batch, and at the end), or when the buffer is full.
// Not thread-safe; callers that write from several threads hold their own lock.
#pragma once

#include <cstddef>
#include <ostream>
#include <streambuf>
#include <vector>

namespace Tracing::Tool {

class BatchedOutput : public std::ostream {
public:
    explicit BatchedOutput(std::ostream& target, std::size_t capacity = 1 << 20);
    // Commits what is left.
    ~BatchedOutput() override;
    BatchedOutput(const BatchedOutput&) = delete;
    BatchedOutput& operator=(const BatchedOutput&) = delete;

    // Hands the pending bytes to the target and flushes it. False once writing failed.
    bool Commit();

private:
    class Buffer : public std::streambuf {
    public:
        Buffer(std::ostream& target, std::size_t capacity);
        bool Commit();

    protected:
        int_type overflow(int_type ch) override;
        std::streamsize xsputn(const char* data, std::streamsize count) override;
        // The records' flush after every line: deliberately nothing.
        int sync() override { return 0; }

    private:
        bool Drain();

        std::ostream& m_target;
        std::vector<char> m_storage;
        bool m_failed = false;
    };

    Buffer m_buffer;
};

}  // namespace Tracing::Tool
