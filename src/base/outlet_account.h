// What an outlet counts, as metrics of the export that owns it. Each cell has one writer at a time:
// the thread that offers, or whoever has the turn at the ring's other side.
#pragma once

#include "kestrelexp/metrics.h"
#include "kestrelexp/outlet.h"

namespace kestrel {

class outlet_account {
  public:
    // While the export is initialised: the metrics get its labels.
    outlet_account();

    // By the thread that offers, before anybody can take the message.
    void add_offered(const outlet_message& message) const { add(queued_, message); }
    // It did not fit.
    void add_dropped(const outlet_message& message) const;
    // By whoever has the turn: the message has come to an end.
    void add_ended(const outlet_message& message, outlet_fate fate) const;

    // Any thread.
    void read(outlet_counts& counts) const;

  private:
    struct tally {
        metric_cell* messages;
        metric_cell* records;
        metric_cell* packets;
        metric_cell* bytes;
    };

    static void add(const tally& to, const outlet_message& message);
    static void subtract(const tally& from, const outlet_message& message);
    static outlet_count read(const tally& of);

    // What is queued: what was offered less what has ended since, modulo 2^64.
    tally queued_;
    tally ended_;
    tally fates_[OUTLET_FATES];
    metric_cell* failed_offers_;
    metric_cell* failed_deliveries_;
};

}  // namespace kestrel
