// A second view onto this process's registry block, to see and change its items as another
// process does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Registry/TraceRegistryData.h"

namespace Tracing::Test {

struct BlockView {
    explicit BlockView(bool makeRegistry = true) {
        if (makeRegistry)
            TraceRegistry::GetInstance();
        memory.setKey((TraceConfigurationPrivate::GetInstance().GetShmPrefix() + "TraceRegistry_V1").c_str());
        if (memory.attach())
            TraceRegistryData::Attach(data, memory.data());
    }
    std::vector<const TraceRegistryDataItem*> ActiveItems(int64_t pid = 0) const {
        std::vector<const TraceRegistryDataItem*> items;
        for (unsigned i = 0; data != nullptr && i < data->GetSizeOfBufferArray(); ++i) {
            const TraceRegistryDataItem& item = data->GetBufferArray()[i];
            // Every process registers the library's own buffer; only the tests' buffers count.
            if (item.IsActivated() && (pid == 0 || item.GetProcessID() == pid) &&
                std::string(item.GetSubSystemName()) != "Core")
                items.push_back(&item);
        }
        return items;
    }
    TraceSharedMemory memory;
    TraceRegistryData* data = nullptr;
};

}  // namespace Tracing::Test
