// Values that no getter has: what an encoder knows of a record itself. Constant data.
#pragma once

#include <kestrelexp/field.h>

#include "json_plan.h"

namespace flow_encoding {

struct derived_field {
    field_names names;
    origin source;
    const char* constant;  // as JSON; null: a value of its own, or the sampler's address
};

// A flow that was never in a NetFlow message has none of the types that goflow2 knows; this is the
// word of its message for that.
inline constexpr derived_field derived_fields[] = {
    {{"TIME_RECEIVED_NSEC",
      0,
      0,
      {{{"time_received_ns", FIELD_FORM_NUMBER}}, {{"@timestamp", FIELD_FORM_TIME}}}},
     origin::received,
     nullptr},
    {{"TYPE", 0, 0, {{{"type", FIELD_FORM_NUMBER}}, {}}}, origin::constant, "\"FLOWUNKNOWN\""},
    {{"SEQUENCE_NUMBER",
      0,
      0,
      {{{"sequence_num", FIELD_FORM_NUMBER}}, {{"event.sequence", FIELD_FORM_NUMBER}}}},
     origin::sequence,
     nullptr},
    {{"SAMPLER_ADDRESS",
      0,
      0,
      {{{"sampler_address", FIELD_FORM_ADDRESS}}, {{"observer.ip", FIELD_FORM_ADDRESS}}}},
     origin::constant,
     nullptr},
    {{"COMMUNITY_ID",
      0,
      0,
      {{{"community_id", FIELD_FORM_TEXT}}, {{"network.community_id", FIELD_FORM_TEXT}}}},
     origin::community_id,
     nullptr},
    {{"FLOW_DURATION_NSEC", 0, 0, {{}, {{"event.duration", FIELD_FORM_NUMBER}}}},
     origin::duration,
     nullptr},
    {{"EVENT_KIND", 0, 0, {{}, {{"event.kind", FIELD_FORM_TEXT}}}}, origin::constant, "\"event\""},
    {{"EVENT_CATEGORY", 0, 0, {{}, {{"event.category", FIELD_FORM_TEXT}}}},
     origin::constant,
     "[\"network\"]"},
    {{"EVENT_TYPE", 0, 0, {{}, {{"event.type", FIELD_FORM_TEXT}}}},
     origin::constant,
     "[\"connection\"]"},
    {{"ECS_VERSION", 0, 0, {{}, {{"ecs.version", FIELD_FORM_TEXT}}}},
     origin::constant,
     "\"8.11.0\""},
};

}  // namespace flow_encoding
