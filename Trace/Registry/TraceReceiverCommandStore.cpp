#include "Trace/Registry/TraceReceiverCommandStore.h"

namespace Tracing {

TraceReceiverCommandStore::TraceReceiverCommandStore(uint32_t (&words)[NumberOfReceivers]) {
    for (unsigned i = 0; i < NumberOfReceivers; ++i)
        m_words[i] = &words[i];
}

TraceReceiverCommandStore::~TraceReceiverCommandStore() {
    for (uint32_t*& word : m_words)
        word = nullptr;
}

unsigned TraceReceiverCommandStore::RegisterReceiver() {
    for (unsigned i = 0; i < NumberOfReceivers; ++i) {
        uint32_t free = 0;
        if (Word(i).compare_exchange_strong(free, 1u << Registration, std::memory_order_seq_cst))
            return i;
    }
    return InvalidReceiverID;
}

void TraceReceiverCommandStore::UnregisterReceiver(unsigned id) {
    if (IsValidReceiverID(id))
        Word(id).store(0, std::memory_order_seq_cst);
}

template <typename Change>
void TraceReceiverCommandStore::ChangeRegistered(unsigned id, Change change) {
    std::atomic_ref<uint32_t> word = Word(id);
    uint32_t current = word.load(std::memory_order_seq_cst);
    // A slot unregistered meanwhile makes the exchange fail and the loop stop, so a command never
    // re-registers a freed slot.
    while ((current & (1u << Registration)) != 0 &&
           !word.compare_exchange_weak(current, change(current), std::memory_order_seq_cst)) {
    }
}

void TraceReceiverCommandStore::SetCommand(unsigned id, CommandType command) {
    if (IsValidCommand(id, command))
        ChangeRegistered(id, [command](uint32_t word) { return word | (1u << command); });
}

void TraceReceiverCommandStore::RemoveCommand(unsigned id, CommandType command) {
    if (IsValidCommand(id, command))
        ChangeRegistered(id, [command](uint32_t word) { return word & ~(1u << command); });
}

void TraceReceiverCommandStore::SendCommandToAllReceivers(CommandType command) {
    // Command 0 is the registration bit: sending it would register every free slot.
    if (command != Refresh)
        return;
    for (unsigned i = 0; i < NumberOfReceivers; ++i)
        ChangeRegistered(i, [command](uint32_t word) { return word | (1u << command); });
}

bool TraceReceiverCommandStore::IsCommandSet(unsigned id, CommandType command) const {
    if (!IsValidCommand(id, command))
        return false;
    return (Word(id).load(std::memory_order_seq_cst) & (1u << command)) != 0;
}

}  // namespace Tracing
