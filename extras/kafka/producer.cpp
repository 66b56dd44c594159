#include "producer.h"

#include <kestrelexp/service.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace kafka {

namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t ns_per_ms = 1'000'000;
// Between two looks at librdkafka when it tells nothing by itself.
constexpr int32_t look_pause_ms = 500;
constexpr int32_t closing_pause_ms = 10;
// The end of the program waits for half a second when the drain is over.
constexpr int flush_ms = 100;
// How long a producer that is given up may take to report what it had.
constexpr int purge_ms = 250;
// Before a producer that is given up is replaced: twice as long each time until a message arrives.
constexpr uint64_t shortest_pause_ns = ns_per_second;
constexpr uint64_t longest_pause_ns = 30 * ns_per_second;
constexpr uint64_t loss_line_pause_ns = 10 * ns_per_second;

// The machine's: in a replay the program's clocks stand still between two records.
uint64_t uptime_ns() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // fails for no clock that there is
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

// What the mark of a held message says; 0, as it comes: nothing is known yet.
constexpr uint64_t known = 0x100;      // plus its fate
constexpr uint64_t once_more = 0x200;  // never on its way, so that another producer may send it
constexpr uint64_t handed = 0x400;     // librdkafka has it

constexpr uint64_t known_as(outlet_fate fate) {
    return known + static_cast<uint64_t>(fate);
}

enum cell { is_up, last_success };
constexpr metric_row state_rows[] = {
    {"kestrelexp_export_up", "1 while the export has its collector, 0 while it does not.", nullptr,
     METRIC_GAUGE},
    {"kestrelexp_export_last_success_timestamp_seconds",
     "When a message was sent last, seconds since the epoch; 0: never.", nullptr, METRIC_GAUGE},
};

// Errors of messages that were there when the producer came to its end.
bool is_of_the_end(rd_kafka_resp_err_t error) {
    return error == RD_KAFKA_RESP_ERR__PURGE_QUEUE || error == RD_KAFKA_RESP_ERR__PURGE_INFLIGHT ||
           error == RD_KAFKA_RESP_ERR__FATAL;
}

// librdkafka cannot know what became of a request that was not answered.
bool may_be_there(const rd_kafka_message_t& report) {
    return rd_kafka_message_status(&report) == RD_KAFKA_MSG_STATUS_POSSIBLY_PERSISTED;
}

// On any thread of librdkafka.
void log_line(const rd_kafka_t*, int level, const char* facility, const char* words) {
    constexpr int syslog_error = 3;
    verbose_msg(level <= syslog_error ? 1 : 2, "kafka: librdkafka: %s: %s", facility, words);
}

}  // namespace

producer::producer(conf_pointer conf, std::string topic)
    : conf_(std::move(conf)),
      topic_name_(std::move(topic)),
      news_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      cells_(metrics_register(state_rows, std::size(state_rows), metrics_label())) {
    rd_kafka_conf_set_opaque(conf_.get(), this);
    rd_kafka_conf_set_dr_msg_cb(conf_.get(), take_report);
    rd_kafka_conf_set_error_cb(conf_.get(), take_fault);
    rd_kafka_conf_set_stats_cb(conf_.get(), take_statistics);
    rd_kafka_conf_set_log_cb(conf_.get(), log_line);
}

bool producer::open(std::string& fault) {
    char words[512];
    rd_kafka_conf_t* const conf = rd_kafka_conf_dup(conf_.get());
    client_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf, words, sizeof words);
    if (client_ == nullptr) {
        rd_kafka_conf_destroy(conf);  // which a producer would have taken over
        fault = words;
        return false;
    }
    // Where log.queue= keeps its lines, nobody else takes them; elsewhere it refuses.
    (void)rd_kafka_set_log_queue(client_, nullptr);
    topic_ = rd_kafka_topic_new(client_, topic_name_.c_str(), nullptr);
    if (topic_ == nullptr) {
        fault = rd_kafka_err2str(rd_kafka_last_error());
        close();
        return false;
    }
    const uint64_t one = 1;
    rd_kafka_queue_t* const queue = rd_kafka_queue_get_main(client_);
    rd_kafka_queue_io_event_enable(queue, news_, &one, sizeof one);
    rd_kafka_queue_destroy(queue);  // our reference to it
    return true;
}

void producer::close() {
    if (topic_ != nullptr)
        rd_kafka_topic_destroy(std::exchange(topic_, nullptr));
    if (client_ != nullptr)
        rd_kafka_destroy(std::exchange(client_, nullptr));
}

// At the end no further message comes that linger.ms could wait for.
void producer::poll(bool is_closing) {
    if (is_closing && is_last_)
        (void)rd_kafka_flush(client_, flush_ms);  // what takes longer is looked at again
    else
        (void)rd_kafka_poll(client_, 0);
}

bool producer::tend(outlet* queue, bool is_closing, outlet_wait& wait) {
    uint64_t count;
    (void)!read(news_, &count, sizeof count);  // fails when there is no news
    wait = {news_, POLLIN, is_closing ? closing_pause_ms : look_pause_ms};
    if (client_ != nullptr)
        poll(is_closing);
    if (is_given_up_)
        retire();
    const bool is_open = client_ != nullptr || reopen(queue, is_closing, wait);
    settle(queue);
    const bool is_ready = is_open && !is_full_;
    is_last_ = is_closing && is_ready;
    return is_ready;
}

outlet_answer producer::deliver(outlet_message& message) {
    is_last_ = false;
    // A producer before this one has ended it, or left without a word of it; settle() comes to it.
    if (message.mark == handed)
        message.mark = known_as(OUTLET_UNACKNOWLEDGED);
    if ((message.mark & known) != 0)
        return OUTLET_KEEP;
    auto* const bytes = static_cast<uint8_t*>(message.data);
    // Without a flag librdkafka takes no copy.
    const void* const key = message.number != 0 ? bytes : nullptr;  // an empty one is a key, too
    if (rd_kafka_produce(topic_, RD_KAFKA_PARTITION_UA, 0, bytes + message.number,
                         message.length - message.number, key, message.number, &message) == 0) {
        message.mark = handed;
        return OUTLET_KEEP;
    }
    const rd_kafka_resp_err_t error = rd_kafka_last_error();
    is_full_ |= error == RD_KAFKA_RESP_ERR__QUEUE_FULL;
    is_given_up_ |= error == RD_KAFKA_RESP_ERR__FATAL;
    if (is_full_ || is_given_up_)
        return OUTLET_LATER;
    note_loss(error);
    return OUTLET_REFUSE;
}

// Every message comes here once.
void producer::take_report(rd_kafka_t*, const rd_kafka_message_t* report, void* context) {
    producer& self = *static_cast<producer*>(context);
    auto* const message = static_cast<outlet_message*>(report->_private);
    self.is_full_ = false;
    if (report->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
        message->mark = known_as(OUTLET_SENT);
        metric_set(&self.cells_[last_success], timer_get_sec());
        self.pause_ns_ = 0;
        self.come_up();
        return;
    }
    if (may_be_there(*report)) {
        message->mark = known_as(OUTLET_UNACKNOWLEDGED);
    } else if (is_of_the_end(report->err)) {
        message->mark = self.is_ending_ ? known_as(OUTLET_NOT_DRAINED) : once_more;
        return;
    } else {
        message->mark = known_as(OUTLET_UNSENT);
    }
    if (!self.is_ending_)
        self.note_loss(report->err);
}

void producer::take_fault(rd_kafka_t* client, int code, const char* words, void* context) {
    producer& self = *static_cast<producer*>(context);
    if (code == RD_KAFKA_RESP_ERR__FATAL) {
        char cause[512] = "";
        (void)rd_kafka_fatal_error(client, cause, sizeof cause);  // there is one
        verbose_msg(self.pause_ns_ == 0 ? -1 : 1,
                    "kafka: librdkafka has given up: %s. Beginning anew", cause);
        self.is_given_up_ = true;
    } else if (code == RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN) {
        self.go_down();
    } else {
        self.last_fault_ = words;
        verbose_msg(1, "kafka: %s", words);
    }
}

int producer::take_statistics(rd_kafka_t*, char* text, size_t length, void* context) {
    producer& self = *static_cast<producer*>(context);
    if (self.statistics_.take({text, length}))
        self.come_up();
    else
        metric_set(&self.cells_[is_up], 0);
    return 0;  // librdkafka frees the text
}

void producer::come_up() {
    metric_set(&cells_[is_up], 1);
    if (!std::exchange(is_down_, false))
        return;
    const uint64_t down_s = (uptime_ns() - down_since_ns_) / ns_per_second;
    verbose_msg(0, "kafka: connected after %lu s", down_s);
}

void producer::go_down() {
    metric_set(&cells_[is_up], 0);
    if (std::exchange(is_down_, true))
        return;
    down_since_ns_ = uptime_ns();
    verbose_msg(-1, "kafka: no broker (%s), trying again", last_fault_.c_str());
}

void producer::note_loss(rd_kafka_resp_err_t error) {
    untold_losses_ += 1;
    const uint64_t now_ns = uptime_ns();
    if (now_ns < next_loss_line_ns_)
        return;
    next_loss_line_ns_ = now_ns + loss_line_pause_ns;
    verbose_msg(-1, "kafka: lost to %s: %s (%lu times)", topic_name_.c_str(),
                rd_kafka_err2str(error), std::exchange(untold_losses_, 0));
}

void producer::settle(outlet* queue) {
    for (const outlet_message* oldest = outlet_held(queue);
         oldest != nullptr && (oldest->mark & known) != 0; oldest = outlet_held(queue))
        outlet_settle(queue, static_cast<int32_t>(oldest->mark - known));
}

// Lets librdkafka report whatever it has not.
void producer::purge() {
    (void)rd_kafka_purge(client_, RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT |
                                      RD_KAFKA_PURGE_F_NON_BLOCKING);  // fails for bad flags only
    const uint64_t end_ns = uptime_ns() + purge_ms * ns_per_ms;
    while (rd_kafka_outq_len(client_) > 0 && uptime_ns() < end_ns)
        (void)rd_kafka_poll(client_, 1);
}

// A producer that is given up takes nothing any more.
void producer::retire() {
    purge();
    close();  // after which nothing is read in the ring
    statistics_.restart();
    metric_set(&cells_[is_up], 0);
    is_given_up_ = false;
    is_full_ = false;
    put_off();
}

void producer::put_off() {
    pause_ns_ = std::clamp(2 * pause_ns_, shortest_pause_ns, longest_pause_ns);
    next_open_ns_ = uptime_ns() + pause_ns_;
}

// What a producer never sent goes to the one after it, in the same order.
bool producer::reopen(outlet* queue, bool is_closing, outlet_wait& wait) {
    const bool is_last_try = is_closing && !std::exchange(was_last_tried_, true);
    const uint64_t now_ns = uptime_ns();
    if (now_ns < next_open_ns_ && !is_last_try) {
        wait = {-1, 0, static_cast<int32_t>((next_open_ns_ - now_ns) / ns_per_ms + 1)};
        return false;
    }
    std::string fault;
    if (!open(fault)) {
        verbose_msg(1, "kafka: %s", fault.c_str());
        put_off();
        return false;
    }
    settle(queue);
    outlet_return(queue);
    return true;
}

void producer::end(outlet* queue) {
    is_ending_ = true;
    if (client_ != nullptr) {
        (void)rd_kafka_poll(client_, 0);
        if (rd_kafka_outq_len(client_) > 0)
            purge();
    }
    settle(queue);
    // What one has told nothing of is as good as unacknowledged, and must not hide those after it.
    while (const outlet_message* const oldest = outlet_held(queue)) {
        outlet_settle(queue,
                      oldest->mark == once_more ? OUTLET_NOT_DRAINED : OUTLET_UNACKNOWLEDGED);
        settle(queue);
    }
    close();
}

}  // namespace kafka
