// Told by a trace reader, on the updater thread, which traces it has just read.
#pragma once

#include <memory>
#include <vector>

namespace Tracing {

class Trace;

class ITraceReaderEventListener {
public:
    virtual ~ITraceReaderEventListener() = default;

    // The reader keeps the records and destroys them once every listener has returned; a listener
    // that wants to keep one moves it out of its pointer. Called without the reader's lock, so a
    // listener may unregister itself.
    virtual void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) = 0;
};

}  // namespace Tracing
