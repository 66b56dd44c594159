// The "metrics" export: counts what the records are about, and shows it with all metrics of the
// program over HTTP. The record loop only adds to a summary of traffic; a sampler thread looks once
// a second, and an HTTP thread answers. Keeps no record back and sends none.

#include <kestrelexp/metrics.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <pthread.h>
#include <sys/random.h>

#include <csignal>
#include <exception>
#include <string>
#include <thread>

#include "readings.h"
#include "sampler.h"
#include "server.h"
#include "settings.h"

namespace metrics {
namespace {

constexpr plugin_description description{
    "metrics",
    "Metrics exporter, shows the probe at work over HTTP: a page, and metrics for Prometheus.\n"
    "Parameters (delimited by ','):\n"
    " port=port_number (default: 9101)\n"
    " address=IP_address (default: 127.0.0.1)",
    0, PLUGIN_WHOLE_PARAMS};  // IPv6 addresses hold ':'

struct exporter {
    explicit exporter(uint64_t seed, std::string self)
        : source(seed), server{&source, std::move(self), {}} {}

    sampler source;
    http_server server;
};

uint64_t random_seed() {
    uint64_t seed = 0;
    // Early in the boot there may be no random numbers yet; the time is better than nothing.
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed)
        seed = timer_get_nsec();
    return seed;
}

// The value of the label by which the program tells this export from others.
std::string own_label() {
    const std::vector<label> labels = parse_labels(metrics_label());
    return labels.empty() ? "" : labels.front().value;
}

// While it lives, no signal reaches this thread and those that it starts: they are the main
// thread's.
class blocked_signals {
  public:
    blocked_signals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~blocked_signals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    blocked_signals(const blocked_signals&) = delete;
    blocked_signals& operator=(const blocked_signals&) = delete;

  private:
    sigset_t before_;
};

void start_sampler(exporter& self) {
    std::thread thread([&self] {
        self.source.run(
            [&self] { self.server.connections.cut_off(connection_list::clock::now()); });
    });
    pthread_setname_np(thread.native_handle(), "metrics-sampler");
    thread.detach();
}

exporter* start(char* params) {
    listen_address where;
    if (!read_settings(params, where))
        return nullptr;
    auto* const self = new exporter(random_seed(), own_label());  // lives as long as the program
    const blocked_signals guard;
    if (!start_server(self->server, where))
        return nullptr;  // and the program ends
    start_sampler(*self);
    verbose_msg(0, "metrics: http://%s/", where.text.c_str());
    return self;
}

}  // namespace
}  // namespace metrics

using namespace metrics;

int32_t plugin_type = PLUGIN_KIND_EXPORT;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

const plugin_description* plugin_export_desc(void) {
    return &description;
}

void* plugin_export_init(char* params, getter*) {
    try {
        return start(params);
    } catch (const std::exception& fault) {
        verbose_msg(-1, "metrics: %s", fault.what());
        return nullptr;
    }
}

uint32_t plugin_export_export(void* instance, flow_record* record) {
    static_cast<exporter*>(instance)->source.meter().add(*record);
    return 0;
}

uint32_t plugin_export_flush(void*) {
    return 0;
}
