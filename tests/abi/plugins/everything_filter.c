/* The filters that come with the program: the anonymizer and the AS helper. */
#define _POSIX_C_SOURCE 200809L
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "everything.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/service.h"

static struct flow_record flow_between(uint32_t source, uint32_t destination) {
    struct flow_record flow;
    memset(&flow, 0, sizeof flow);
    flow.l3protocol = 4;
    flow.ipv4.srcipv4 = source;
    flow.ipv4.dstipv4 = destination;
    return flow;
}

static void check_anonymizer(void) {
    char params[] = "MASK:10.0.0.0/8";
    struct flow_record flow = flow_between(0xC0A80107, 0xC0000201);
    CHECK(strcmp(anonymizer_desc()->name, "anonymizer") == 0);
    CHECK(anonymizer_desc()->flags == FILTER_WHOLE_PARAMS);
    void* anonymizer = anonymizer_init(params, NULL);
    CHECK(anonymizer != NULL);
    CHECK(anonymizer_process(anonymizer, &flow) == 0);
    CHECK(flow.ipv4.srcipv4 == 0x0AA80107 && flow.ipv4.dstipv4 == 0x0A000201);
}

static void check_masks(void) {
    CHECK(mask_array4[0] == 0 && mask_array4[24] == 0xFFFFFF00 && mask_array4[32] == 0xFFFFFFFF);
    CHECK(mask_array6[33][0] == 0xFFFFFFFF && mask_array6[33][1] == 0x80000000);
    CHECK(mask_array6[128][3] == 0xFFFFFFFF);
}

static void check_as_fields(const struct getter* getters) {
    uint32_t number = 0;
    CHECK(strcmp(getters[0].name, "SRC_AS") == 0 && getters[0].length == 2);
    CHECK(strcmp(getters[3].name, "DST_AS32") == 0 && getters[3].length == 4);
    CHECK(getters[0].valid == as_helper_ok && as_helper_ok(getters[0].context, NULL) == 1);
    CHECK(getters[0].length_fn == as_helper_4 && as_helper_4() == 4);
    CHECK(getters[2].get == as_helper_get_src && getters[3].get == as_helper_get_dst);
    as_helper_get_src(getters[2].context, NULL, &number, 4, 0, &getters[2]);
    CHECK(number == 65001);
    as_helper_get_dst(getters[3].context, NULL, &number, 4, 0, &getters[3]);
    CHECK(number == 0);
}

static void check_as_helper(void) {
    char path[] = "/tmp/kestrel-everything-XXXXXX";
    struct getter* getters = NULL;
    struct flow_record flow = flow_between(0xC0000209, 0xC6336401);
    const int descriptor = mkstemp(path);
    CHECK(write(descriptor, "65001-192.0.2.0/24\n", 19) == 19);
    close(descriptor);
    CHECK(strcmp(as_helper_desc()->name, "as_helper") == 0);
    void* helper = as_helper_init(path, &getters);
    CHECK(helper != NULL);
    CHECK(as_helper_lookup(helper, &flow) == 0);
    check_as_fields(getters);
    CHECK(__as_helper_init(path, helper) == helper);
    CHECK(__as_helper_init(path, NULL) != NULL);
    CHECK(__as_helper_init("/nonexistent/file", NULL) == NULL);
    unlink(path);
}

void check_filters(void) {
    check_anonymizer();
    check_masks();
    check_as_helper();
}
