// The connection of an export in the background; see collector_connection.h. On the thread of the
// outlet's worker.
//
// What is counted, by transport:
//  - TCP: a message is held until its last byte is acknowledged, so what a broken connection took
//    with it is known to the message. A message of which a part was sent is sent whole on the next
//    connection; the collector drops the part with the old one.
//  - UDP: the last datagram is held for a moment, as the answer that nobody listens, or that
//    somebody on the way refuses it, comes after it. The first one of a socket is sent again then:
//    it is the one that was refused, so nobody has it.
//  - SCTP: what the system takes is sent.
#include "export/collector_connection.h"

#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/log.h"
#include "export/backoff.h"

namespace kestrel {
namespace {

// How often a TCP connection is asked for what was acknowledged while something is not.
constexpr uint64_t acknowledge_look_ns = 20 * ns_per_ms;
// How often a connection that takes nothing is looked at.
constexpr uint64_t full_look_ns = ns_per_second;

struct family_order {
    int ip;  // the parameter
    int families[2];
};
constexpr family_order orders[] = {
    {4, {AF_INET, 0}}, {6, {AF_INET6, 0}}, {46, {AF_INET, AF_INET6}}, {64, {AF_INET6, AF_INET}}};

// 0: there is none at the position.
int family_at(int ip, unsigned position) {
    const auto* const found =
        std::ranges::find_if(orders, [ip](const family_order& row) { return row.ip == ip; });
    return found != std::end(orders) && position < 2 ? found->families[position] : 0;
}

// What a send may tell of the datagram before it: nobody listens, or somebody on the way refuses.
bool is_refusal(int fault) {
    return fault == ECONNREFUSED || fault == EHOSTUNREACH || fault == EACCES;
}

}  // namespace

collector_connection::collector_connection(const char* name, const collector& to,
                                           conversation& protocol, const send_account& account,
                                           collector_network& network)
    : name_(name), to_(to), protocol_(protocol), account_(account), network_(network) {}

bool collector_connection::tend(outlet* queue, bool is_closing, outlet_wait& wait) {
    now_ns_ = network_.now_ns();
    if (is_closing && !is_closing_ && state_ == state::resting)
        state_until_ns_ = now_ns_;  // the collector may be back
    is_closing_ = is_closing;
    if (state_ == state::resting && now_ns_ >= state_until_ns_)
        try_family(queue, first_family_, name_unknown);
    if (state_ == state::connecting)
        await_connect(queue, wait);
    if (state_ == state::proving)
        prove(queue, wait);
    if (state_ == state::up)
        return look_after(queue, wait) && send_own(queue, wait);
    if (state_ == state::resting)
        rest(wait);
    return awaits_first_datagram();
}

// Without a greeting the first datagram is what the connection is proved by.
bool collector_connection::awaits_first_datagram() const {
    return state_ == state::proving && is_datagram() && datagrams_ == 0;
}

void collector_connection::rest(outlet_wait& wait) {
    wait = {-1, 0, -1};
    wait_until(state_until_ns_, wait);
}

// Begins an attempt with the collector's address of the family at the position, or of the next one
// that can be tried. fault: of the position before. What is said is the last fault of an address:
// that there is none of the other family says little.
void collector_connection::try_family(outlet* queue, unsigned position, int fault) {
    for (; const int family = family_at(to_.ip, position); ++position) {
        if (const int found = network_.start(to_, family); found != no_fault) {
            if (found != name_unknown)
                fault = found;
            continue;
        }
        now_ns_ = network_.now_ns();  // a name may have taken its time
        state_ = state::connecting;
        family_ = position;
        state_until_ns_ = now_ns_ + connect_limit_ns;
        return;
    }
    if (std::exchange(first_family_, 0) != 0) {  // there was nobody to begin with
        try_family(queue, 0, fault);
        return;
    }
    now_ns_ = network_.now_ns();
    fail(queue, fault);
}

void collector_connection::await_connect(outlet* queue, outlet_wait& wait) {
    int fault = network_.connected();
    if (fault == no_fault) {
        greet(queue);
        return;
    }
    if (fault == EINPROGRESS && now_ns_ < state_until_ns_) {
        wait.descriptor = network_.descriptor();
        wait.events = POLLOUT;
        wait_until(state_until_ns_, wait);
        return;
    }
    if (fault == EINPROGRESS)
        fault = ETIMEDOUT;
    if (family_at(to_.ip, family_ + 1) == 0) {
        fail(queue, fault);
        return;
    }
    network_.close(false);
    try_family(queue, family_ + 1, fault);
    if (state_ == state::connecting)
        wait_until(now_ns_, wait);  // looked at anew at once
}

void collector_connection::greet(outlet* queue) {
    uint8_t message[greeting_size];
    const uint32_t length = protocol_.greeting(message);
    has_greeted_ = length > 0;
    datagrams_ = written_ = acknowledged_ = 0;
    part_ = 0;
    is_full_ = false;
    full_since_ns_ = 0;
    last_progress_ns_ = last_send_ns_ = now_ns_;
    if (has_greeted_) {
        const int64_t sent = network_.send(message, length);
        if (sent != int64_t{length}) {  // a new connection has room for it
            fail(queue, sent < 0 ? static_cast<int>(-sent) : EAGAIN);
            return;
        }
        datagrams_ = 1;
        written_ = length;
    } else if (!is_down_) {
        account_.set_up(true);  // as far as can be told until there is something to send
    }
    state_ = state::proving;
    state_until_ns_ = now_ns_ + proof_ns;
}

void collector_connection::prove(outlet* queue, outlet_wait& wait) {
    if (const int fault = network_.look(); fault != no_fault) {
        fail(queue, fault, true);
        return;
    }
    wait.descriptor = network_.descriptor();
    wait.events = POLLIN;
    if (awaits_first_datagram())
        return;
    if (!has_greeted_)
        state_until_ns_ = last_send_ns_ + proof_ns;
    if (now_ns_ >= state_until_ns_)
        come_up();
    else
        wait_until(state_until_ns_, wait);
}

void collector_connection::come_up() {
    state_ = state::up;
    up_since_ns_ = now_ns_;
    if (has_greeted_)
        protocol_.note_greeting();
    account_.set_up(true);
    if (was_up_)
        account_.count_reconnect();
    was_up_ = true;
    if (is_told_down_)
        verbose_msg(0, "Export %s to %s port %d: connected after %lu s", name_, to_.host, to_.port,
                    (now_ns_ - down_since_ns_) / ns_per_second);
    is_down_ = is_told_down_ = false;
}

// Of a connection that is up. Returns whether it takes messages.
bool collector_connection::look_after(outlet* queue, outlet_wait& wait) {
    wait = {network_.descriptor(), POLLIN, -1};
    int fault = network_.look();
    if (fault == no_fault) {
        if (tells_acknowledgements())
            settle_acknowledged(queue);
        else
            settle_datagram(queue);
        fault = is_stalled() ? int{takes_nothing} : no_fault;
    }
    if (fault != no_fault) {
        fail(queue, fault, fault != takes_nothing);
        rest(wait);
        return false;
    }
    if (outlet_held(queue) != nullptr)
        wait_until(is_datagram() ? last_send_ns_ + proof_ns : now_ns_ + acknowledge_look_ns, wait);
    if (!is_full_)
        return true;
    // It is tried again when there is room, or when there was something else to do.
    is_full_ = false;
    wait.events |= POLLOUT;
    wait_until(now_ns_ + full_look_ns, wait);
    return false;
}

// Sends what the protocol has of its own, unless a message of the export has begun. Returns whether
// the connection takes messages after that.
bool collector_connection::send_own(outlet* queue, outlet_wait& wait) {
    if (part_ > 0)
        return true;
    if (own_length_ == 0)
        own_length_ = protocol_.own_message(now_ns_, own_);
    if (const uint64_t next_ns = protocol_.next_own_ns(now_ns_); next_ns != UINT64_MAX)
        wait_until(next_ns, wait);
    if (own_length_ == 0)
        return true;
    const int64_t sent = network_.send(own_ + own_part_, own_length_ - own_part_);
    if (sent < 0 && sent != -EAGAIN) {
        if (!is_datagram() || sent != -EMSGSIZE) {
            fail(queue, static_cast<int>(-sent), is_refusal(static_cast<int>(-sent)));
            rest(wait);
            return false;
        }
        end_own(false);  // the next one may be shorter
        return true;
    }
    own_part_ += static_cast<uint32_t>(std::max<int64_t>(sent, 0));
    written_ += static_cast<uint64_t>(std::max<int64_t>(sent, 0));
    if (own_part_ < own_length_) {
        if (sent > 0 || full_since_ns_ == 0)
            full_since_ns_ = now_ns_;
        wait.events |= POLLOUT;
        wait_until(now_ns_ + full_look_ns, wait);
        return false;
    }
    full_since_ns_ = 0;
    if (is_datagram())
        note_datagram(queue);
    end_own(true);
    return true;
}

// Of the protocol's own message, if there is one.
void collector_connection::end_own(bool is_sent) {
    if (own_length_ > 0)
        protocol_.note_own_end(own_length_, is_sent);
    own_length_ = own_part_ = 0;
}

void collector_connection::settle_acknowledged(outlet* queue) {
    const uint64_t acknowledged = written_ - std::min(network_.unacknowledged(), written_);
    if (acknowledged > acknowledged_ || acknowledged == written_)
        last_progress_ns_ = now_ns_;
    acknowledged_ = acknowledged;
    for (const outlet_message* held = outlet_held(queue);
         held != nullptr && held->mark <= acknowledged; held = outlet_held(queue)) {
        outlet_settle(queue, OUTLET_SENT);
        account_.note_success();
    }
}

void collector_connection::settle_datagram(outlet* queue) {
    if (now_ns_ < last_send_ns_ + proof_ns || outlet_held(queue) == nullptr)
        return;
    outlet_settle(queue, OUTLET_SENT);
    account_.note_success();
}

// What the system takes is no progress where acknowledgements tell more.
bool collector_connection::is_stalled() const {
    if (tells_acknowledgements())
        return acknowledged_ < written_ && now_ns_ >= last_progress_ns_ + stall_limit_ns;
    return full_since_ns_ != 0 && now_ns_ >= full_since_ns_ + stall_limit_ns;
}

void collector_connection::note_full() {
    is_full_ = true;
    if (full_since_ns_ == 0)
        full_since_ns_ = now_ns_;
}

outlet_answer collector_connection::deliver(outlet* queue, outlet_message& message) {
    if (state_ != state::up && !awaits_first_datagram())
        return OUTLET_LATER;
    protocol_.prepare(message);
    const auto* const bytes = static_cast<const uint8_t*>(message.data);
    const int64_t sent = network_.send(bytes + part_, message.length - part_);
    if (sent >= 0)
        return is_datagram() ? sent_datagram(queue, message)
                             : sent_part(message, static_cast<uint32_t>(sent));
    if (is_datagram() && sent == -EMSGSIZE)
        return OUTLET_REFUSE;
    if (sent == -EAGAIN)
        note_full();
    else
        fail(queue, static_cast<int>(-sent), is_refusal(static_cast<int>(-sent)));
    return OUTLET_LATER;
}

// The system has taken another one.
void collector_connection::note_datagram(outlet* queue) {
    if (outlet_held(queue) != nullptr) {
        outlet_settle(queue, OUTLET_SENT);  // nobody has said that it did not arrive
        account_.note_success();
    }
    datagrams_ += 1;
    last_send_ns_ = now_ns_;
    full_since_ns_ = 0;
}

outlet_answer collector_connection::sent_datagram(outlet* queue, const outlet_message& message) {
    note_datagram(queue);
    protocol_.note_sent(message);
    return OUTLET_KEEP;
}

outlet_answer collector_connection::sent_part(outlet_message& message, uint32_t bytes) {
    part_ += bytes;
    written_ += bytes;
    full_since_ns_ = 0;
    if (part_ < message.length) {
        note_full();
        return OUTLET_LATER;
    }
    part_ = 0;
    message.mark = written_;
    protocol_.note_sent(message);
    if (tells_acknowledgements())
        return OUTLET_KEEP;
    account_.note_success();
    return OUTLET_DONE;
}

// What becomes of messages that are on their way when the connection ends.
void collector_connection::give_held_back(outlet* queue, bool is_answer, int fault) {
    if (tells_acknowledgements() && state_ == state::up)
        settle_acknowledged(queue);
    if (is_datagram() && outlet_held(queue) != nullptr) {
        if (!is_answer)
            outlet_settle(queue, OUTLET_SENT);          // the fault is another datagram's
        else if (datagrams_ == 1 && fault != EMSGSIZE)  // it would be too long again
            outlet_return(queue);
    }
    while (outlet_held(queue) != nullptr)
        outlet_settle(queue, OUTLET_UNACKNOWLEDGED);
}

// A collector that is left as it takes nothing has lived up to where it stopped.
uint64_t collector_connection::lived_until(int fault) const {
    if (fault != takes_nothing)
        return now_ns_;
    return tells_acknowledgements() ? last_progress_ns_ : full_since_ns_;
}

// is_answer: the fault is what came back for the last datagram.
void collector_connection::fail(outlet* queue, int fault, bool is_answer) {
    give_held_back(queue, is_answer, fault);
    network_.close(true);
    if (state_ == state::up && lived_until(fault) >= up_since_ns_ + good_life_ns)
        failures_ = 0;
    const uint64_t pause_ns = backoff_ns(failures_, network_.random());
    failures_ += 1;
    // Only now it is known that nobody listens at this address: UDP always connects.
    first_family_ =
        state_ == state::proving && family_at(to_.ip, family_ + 1) != 0 ? family_ + 1 : 0;
    state_ = state::resting;
    state_until_ns_ = now_ns_ + (is_closing_ ? std::min(pause_ns, last_pause_ns) : pause_ns);
    part_ = 0;
    end_own(false);
    account_.set_up(false);
    say_down(fault);
}

void collector_connection::say_down(int fault) {
    if (!is_down_)
        down_since_ns_ = now_ns_;
    is_down_ = true;
    if (is_told_down_)
        return;
    const uint64_t times = outages_.count(now_ns_);
    if (times == 0)
        return;
    is_told_down_ = true;
    verbose_msg(-1, "Export %s to %s port %d: no collector (%s), trying again (%lu times)", name_,
                to_.host, to_.port, fault_text(fault), times);
}

void collector_connection::end(outlet* queue) {
    now_ns_ = network_.now_ns();
    if (state_ == state::up && tells_acknowledgements())
        settle_acknowledged(queue);
    else if (is_datagram() && network_.descriptor() >= 0 && network_.look() == no_fault &&
             outlet_held(queue) != nullptr)
        outlet_settle(queue, OUTLET_SENT);
    // What is counted as lost is not to arrive after all.
    network_.close(outlet_held(queue) != nullptr || part_ > 0 || own_part_ > 0);
    state_ = state::resting;
}

void collector_connection::wait_until(uint64_t time_ns, outlet_wait& wait) const {
    constexpr uint64_t longest_ms = 60'000;
    const uint64_t left_ns = time_ns > now_ns_ ? time_ns - now_ns_ : 0;
    const auto left_ms = static_cast<int32_t>(
        std::min(left_ns / ns_per_ms + (left_ns % ns_per_ms > 0 ? 1 : 0), longest_ms));
    wait.timeout_ms = wait.timeout_ms < 0 ? left_ms : std::min(wait.timeout_ms, left_ms);
}

}  // namespace kestrel
