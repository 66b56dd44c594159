// Records to JSON; see flow_encoding.h. The record loop's thread, once for each record and export:
// no allocation, no system call. Every member ends in a comma, and what closes an object takes the
// place of the last one, so nobody has to know whether a member is the first.
#include "flow_encoding.h"
#include "json_plan.h"
#include "json_values.h"

namespace flow_encoding {
json_encoder* json_encoder::open(const json_settings& settings, const getter* getters,
                                 std::string& fault) {
    json_plan* const plan = make_json_plan(settings, getters, fault);
    return plan != nullptr ? new json_encoder(plan) : nullptr;
}

size_t json_encoder::longest() const {
    return plan_->longest;
}

size_t json_encoder::encode(const flow_record& record, uint64_t now_ns, char* to) {
    for (validity_test& test : plan_->tests)
        test.passed = test.valid(test.context, &record) != 0;
    subject of{*plan_, record, now_ns, {}};
    const char* const end = go_on(to, of, plan_->steps.data());
    ++plan_->sequence;
    return static_cast<size_t>(end - to) - 1;  // without the comma after the whole
}

}  // namespace flow_encoding
