// In-process view onto the registry's eight receiver command words.
//
// Command word of receiver slot i (32 bits): bit 0 = the slot is registered; bit c = command c is
// pending for that receiver. Bit 0 doubles as command 0, so the only command that can be sent is 1.
// The words are changed only with compare-and-exchange loops or atomic stores, never under the
// registry lock, so that a receiver polling its word never waits.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tracing {

class TraceReceiverCommandStore {
public:
    static constexpr unsigned NumberOfReceivers = 8;
    static constexpr unsigned InvalidReceiverID = 0xFFFFFFFFu;

    enum CommandType : uint32_t {
        Registration = 0,  // the registration bit itself
        Refresh = 1,
    };

    explicit TraceReceiverCommandStore(uint32_t (&words)[NumberOfReceivers]);
    ~TraceReceiverCommandStore();

    TraceReceiverCommandStore(const TraceReceiverCommandStore&) = delete;
    TraceReceiverCommandStore& operator=(const TraceReceiverCommandStore&) = delete;

    // Takes the first free slot; InvalidReceiverID when all eight are taken.
    unsigned RegisterReceiver();
    // Frees the slot and drops its pending commands.
    void UnregisterReceiver(unsigned id);

    // Only for registered slots and valid commands.
    void SetCommand(unsigned id, CommandType command);
    void RemoveCommand(unsigned id, CommandType command);
    // Only Refresh is sent; it reaches every registered slot.
    void SendCommandToAllReceivers(CommandType command);
    bool IsCommandSet(unsigned id, CommandType command) const;

private:
    static bool IsValidCommand(CommandType command) { return command < 2; }
    static bool IsValidCommand(unsigned id, CommandType command) {
        return IsValidReceiverID(id) && IsValidCommand(command);
    }
    static bool IsValidReceiverID(unsigned id) { return id < NumberOfReceivers; }

    std::atomic_ref<uint32_t> Word(unsigned id) const { return std::atomic_ref<uint32_t>(*m_words[id]); }
    // Applies `change` to a registered slot's word; nothing when the slot is not registered.
    template <typename Change>
    void ChangeRegistered(unsigned id, Change change);

    uint32_t* m_words[NumberOfReceivers];
};

static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);

}  // namespace Tracing
