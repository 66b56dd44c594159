// The connection of an export that never waits for its collector: what the worker of its outlet
// runs. It connects, greets the collector with what has to come first, sends the messages of the
// outlet, and begins anew for ever when anything goes wrong. Never blocks but to look a name up.
//
//   resting ──> connecting ──> proving ──> up
//      ^            │             │         │      any fault: rest, longer each time
//      └────────────┴─────────────┴─────────┘
//
// A connection is up when it has lived for a quarter of a second after the greeting: collectors
// that accept and close, and closed ports, cost no message then.
#pragma once

#include <cstdint>

#include "base/message_limit.h"
#include "export/collector_socket.h"
#include "export/send_account.h"
#include "kestrelexp/outlet.h"

namespace kestrel {

constexpr uint32_t greeting_size = 1536;  // bytes that one may have

// What a protocol has to say to the messages of its export. On the worker.
class conversation {
  public:
    conversation() = default;
    virtual ~conversation() = default;
    conversation(const conversation&) = delete;
    conversation& operator=(const conversation&) = delete;

    // Writes the message that comes first on a connection; returns its bytes. 0: there is none.
    virtual uint32_t greeting(uint8_t* /*message*/) { return 0; }
    // The collector has got the greeting, as far as can be told.
    virtual void note_greeting() {}
    // The message is about to be sent, perhaps not for the first time.
    virtual void prepare(outlet_message& /*message*/) {}
    // The system has taken it.
    virtual void note_sent(const outlet_message& /*message*/) {}

    // Writes a message that the protocol has to send of its own on a connection that is up, between
    // those of the export; returns its bytes, at most greeting_size. 0: there is none now. Each of
    // them comes to an end before it is asked for the next one.
    virtual uint32_t own_message(uint64_t /*now_ns*/, uint8_t* /*message*/) { return 0; }
    virtual void note_own_end(uint32_t /*length*/, bool /*is_sent*/) {}
    // When it is to be asked again at the latest.
    virtual uint64_t next_own_ns(uint64_t /*now_ns*/) { return UINT64_MAX; }
};

class collector_connection {
  public:
    static constexpr uint64_t connect_limit_ns = 5 * ns_per_second;
    static constexpr uint64_t proof_ns = ns_per_second / 4;
    // A collector that acknowledges nothing for so long is left.
    static constexpr uint64_t stall_limit_ns = 15 * ns_per_second;
    // A connection that lived for so long was a good one: the pauses begin anew after it.
    static constexpr uint64_t good_life_ns = 10 * ns_per_second;
    static constexpr uint64_t last_pause_ns = ns_per_second;  // at most, while the program ends

    // name: the export's, for messages. All are borrowed for good.
    collector_connection(const char* name, const collector& to, conversation& protocol,
                         const send_account& account, collector_network& network);

    // See outlet_tend_function, outlet_deliver_function, outlet_end_function.
    bool tend(outlet* queue, bool is_closing, outlet_wait& wait);
    outlet_answer deliver(outlet* queue, outlet_message& message);
    void end(outlet* queue);

    bool is_up() const { return state_ == state::up; }

  private:
    enum class state { resting, connecting, proving, up };

    void rest(outlet_wait& wait);
    void try_family(outlet* queue, unsigned position, int fault);
    void await_connect(outlet* queue, outlet_wait& wait);
    void greet(outlet* queue);
    void prove(outlet* queue, outlet_wait& wait);
    void come_up();
    bool look_after(outlet* queue, outlet_wait& wait);
    bool send_own(outlet* queue, outlet_wait& wait);
    void end_own(bool is_sent);
    void settle_acknowledged(outlet* queue);
    void settle_datagram(outlet* queue);
    bool is_stalled() const;
    void note_full();
    void note_datagram(outlet* queue);
    outlet_answer sent_datagram(outlet* queue, const outlet_message& message);
    outlet_answer sent_part(outlet_message& message, uint32_t bytes);
    void give_held_back(outlet* queue, bool is_answer, int fault);
    void fail(outlet* queue, int fault, bool is_answer = false);
    uint64_t lived_until(int fault) const;
    void say_down(int fault);
    bool awaits_first_datagram() const;
    bool is_datagram() const { return to_.protocol == IPPROTO_UDP; }
    bool tells_acknowledgements() const { return to_.protocol == IPPROTO_TCP; }
    void wait_until(uint64_t time_ns, outlet_wait& wait) const;

    const char* const name_;
    const collector& to_;
    conversation& protocol_;
    const send_account& account_;
    collector_network& network_;

    state state_ = state::resting;
    uint64_t now_ns_ = 0;          // of the call of tend
    uint64_t state_until_ns_ = 0;  // resting, connecting, proving: how long
    unsigned family_ = 0;          // position of the one that is tried
    unsigned first_family_ = 0;    // position that the next attempt begins with
    unsigned failures_ = 0;        // in a row
    bool is_closing_ = false;
    bool was_up_ = false;        // ever
    bool is_down_ = false;       // since a connection failed, until one is up
    bool is_told_down_ = false;  // that has been said
    uint64_t up_since_ns_ = 0;
    uint64_t down_since_ns_ = 0;
    message_limit outages_ = {};

    // Of the connection
    bool has_greeted_ = false;   // there was a greeting, so that messages wait for the proof
    uint64_t datagrams_ = 0;     // sent, greeting included
    uint64_t written_ = 0;       // bytes that the system has taken
    uint64_t acknowledged_ = 0;  // of these
    uint64_t last_progress_ns_ = 0;
    uint64_t last_send_ns_ = 0;
    uint32_t part_ = 0;           // bytes of the next message that the system has taken
    uint64_t full_since_ns_ = 0;  // 0: the last send was taken
    bool is_full_ = false;        // the system takes no more for now
    uint32_t own_length_ = 0;     // of the protocol's own message that is on its way; 0: none
    uint32_t own_part_ = 0;       // bytes of it that the system has taken
    uint8_t own_[greeting_size] = {};
};

}  // namespace kestrel
