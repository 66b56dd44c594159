/* Parser services, ring, flow cache, switch, and the plugins that come with the program. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "everything.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/link.h"
#include "kestrelexp/program.h"
#include "kestrelexp/rawnetcap.h"
#include "kestrelexp/service.h"

enum { RECORD_SIZE = 154 };

union any_record {
    struct flow_record record;
    uint8_t bytes[RECORD_SIZE];
};

/* Ethernet, IPv4 (20 bytes, total length 32), UDP 0x0457 (1111) -> 53. */
static const uint8_t frame[60] = {
    2,    0,    0,    0,    0,   1,  2, 0, 0,   0,   0,   2,   0x08, 0x00, /* Ethernet */
    0x45, 0x10, 0,    32,   0,   0,  0, 0, 64,  17,  0,   0,               /* IPv4 */
    192,  0,    2,    1,    192, 0,  2, 2,                                 /* addresses */
    0x04, 0x57, 0x00, 0x35, 0,   12, 0, 0, 'd', 'a', 't', 'a',             /* UDP */
};

static const uint8_t* next_frame(void* context, struct packet_header* header) {
    int* left = context;
    if ((*left)-- <= 0)
        return NULL;
    header->timestamp = UINT64_C(1700000000123456000);
    header->captured_length = header->wire_length = sizeof frame;
    header->input_interface = 5;
    header->output_interface = 6;
    return frame;
}

/* A bare packet becomes the frame that it was taken from, but for the addresses. */
static void check_links(void) {
    uint8_t buffer[128];
    struct packet_header header = {0, 46, 46, 0, 0};
    const struct link_format* bare = link_format_find(12);
    CHECK(bare != NULL && link_format_find(1) == NULL);
    CHECK(link_to_ethernet(bare, frame + LINK_ETHERNET_HEADER, &header, buffer, sizeof buffer) ==
          buffer);
    CHECK(header.captured_length == 60 && header.wire_length == 60);
    CHECK(memcmp(buffer + 12, frame + 12, 48) == 0);
    buffer[12] = 0x88;
    buffer[13] = 0xA8;
    CHECK(link_has_service_tags(buffer, 14) == 1 && link_has_service_tags(buffer, 13) == 0);
    link_rewrite_service_tags(buffer, 14);
    CHECK(buffer[12] == 0x81 && buffer[13] == 0x00 && link_has_service_tags(buffer, 14) == 0);
}

void check_packets(void) {
    static union any_record one;
    CHECK(crc64_table[0][0] == 0);
    CHECK(crc64_table[0][128] == UINT64_C(0xC96C5795D7870F42));

    const flow_key key = record_process_packet(frame, sizeof frame, &one.record);
    CHECK(key < 0);
    CHECK(one.record.l3protocol == 4 && one.record.l4protocol == 17);
    CHECK(one.record.ipv4.srcipv4 == 0xC0000201 && one.record.ipv4.dstipv4 == 0xC0000202);
    CHECK(one.record.ipv4.tos == 0x10);
    CHECK(one.record.srcport == 1111 && one.record.dstport == 53);
    CHECK(one.record.packets == 1 && one.record.bytes == 32);

    uint32_t captured = 0;
    uint32_t headers = 0;
    CHECK(get_packet_data(&captured, &headers) == frame);
    CHECK(captured == 60 && headers == 42);
    CHECK(record_process_packet(frame, 10, &one.record) == 0);
    check_links();

    int left = 1;
    struct packet_reader reader = {100, &left, next_frame};
    CHECK(packet_to_flow_reader(&reader, &one.record) < 0);
    CHECK(one.record.start == UINT64_C(1700000000123456000));
    CHECK(one.record.end == UINT64_C(1700000000123456000));
    CHECK(one.record.inputsnmp == 5 && one.record.outputsnmp == 6);
    CHECK(one.record.sampling == 100);
    CHECK(packet_to_flow_reader(&reader, &one.record) == 0);
}

static void check_storage(struct temporal_storage* storage) {
    struct flow_record record;
    memset(&record, 0, sizeof record);
    struct flow_record* slot = temporal_storage_reserve(storage);
    CHECK(slot == temporal_storage_current(storage));
    slot->packets = 11;
    CHECK(temporal_storage_put(storage) == temporal_storage_current(storage));
    record.packets = 12;
    temporal_storage_put_block(storage, &record);

    slot = temporal_storage_get(storage, 50);
    CHECK(slot != NULL && slot->packets == 11);
    slot = temporal_storage_get(storage, 50);
    CHECK(slot != NULL && slot->packets == 12);
    CHECK(temporal_storage_get(storage, 0) == NULL);
}

static int taken_with_packets(struct temporal_storage* storage, uint32_t packets) {
    const struct flow_record* slot = temporal_storage_get(storage, 100);
    return slot != NULL && slot->packets == packets;
}

static const struct plugin_description* input_desc(void) {
    static const struct plugin_description description = {"inner", "", 0, 0};
    return &description;
}

static void* input_init(char* params, int needs_packets, uint16_t data_offset) {
    static int none;
    (void)params, (void)needs_packets, (void)data_offset;
    return &none;
}

static uint32_t input_sampling(void* instance) {
    (void)instance;
    return 17;
}

static void check_switch(struct flow_queue* queue) {
    struct input_plugin input;
    memset(&input, 0, sizeof input);
    input.desc = input_desc;
    input.init = input_init;
    input.sampling = input_sampling;
    input.get_packet = next_frame;
    CHECK(sw_init(queue, FLOW_MASK_DEFAULT, 0, &input) != NULL);
    CHECK(input.instance != NULL);
    const struct packet_reader* reader = plugin_flow_reader_init(&input);
    CHECK(reader->sampling == 17 && reader->context == input.instance);
    CHECK(reader->get_packet == next_frame);
}

void check_flow_engine(void) {
    struct temporal_storage* storage =
        temporal_storage_init(16, sizeof(struct flow_record), NULL, "everything");
    check_storage(storage);

    struct flow_queue* queue = queue_init(5, 6000, 600, storage, NULL, 0, 0, NULL);
    struct flow_record packet;
    memset(&packet, 0, sizeof packet);
    packet.start = packet.end = timer_get_nsec();
    packet.packets = 1;
    packet.bytes = 100;
    queue_update(queue, &packet, INT64_MIN + 1);
    queue_update(queue, &packet, INT64_MIN + 1);
    queue_update(queue, &packet, INT64_MIN + 1);
    queue_try_to_remove(queue);
    queue_remove_record(queue, 0, REMOVAL_FORCED);
    CHECK(taken_with_packets(storage, 3));
    queue_remove_record(queue, 0, REMOVAL_FORCED); /* reported: the slot is empty */
    packet.packets = 21;
    queue_remove_record_oneshot(queue, &packet, REMOVAL_FORCED);
    CHECK(taken_with_packets(storage, 21));
    packet.packets = 31;
    queue_update(queue, &packet, INT64_MIN + 9);
    queue_flush(queue);
    CHECK(taken_with_packets(storage, 31));
    CHECK(queue_force_flush == 0);
    check_switch(queue);
}

static void check_interface(void* context, const struct input_interface* told) {
    ++*(unsigned*)context;
    CHECK(told->number == 0);
    CHECK(strcmp(told->name, "lo") == 0 && strcmp(told->description, "") == 0);
}

/* Two datagrams of four bytes are on their way; of two frames the second is delivered. */
static void check_capture(void* pcap) {
    struct packet_header header;
    CHECK(strcmp(input_pcap_desc()->name, "pcap") == 0);
    CHECK(input_pcap_sampling(pcap) == 2);
    CHECK(input_pcap_packet(pcap, &header) == NULL);
    const uint8_t* second = input_pcap_packet(pcap, &header);
    CHECK(second != NULL && memcmp(second + 42, "flow", 4) == 0);
    CHECK(header.captured_length == 46 && header.wire_length == 46);
    CHECK(header.input_interface == 0 && header.output_interface == 0);
    struct input_counts counts = {0};
    input_pcap_counters(pcap, 0, &counts);
    CHECK(counts.is_up == 1 && counts.sampled_out_packets == 1 && counts.sampled_out_bytes == 46);
    CHECK(counts.ring_dropped_packets == 0 && counts.interface_changes == 0);
    unsigned interfaces = 0;
    input_pcap_interfaces(pcap, check_interface, &interfaces);
    CHECK(interfaces == 1);
}

static void check_connection(void) {
    char pcap_params[] = "device=lo,sampling=2";
    void* pcap = input_pcap_init(pcap_params, 0, 0);
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    char text[8] = "";
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    CHECK(bind(receiver, (struct sockaddr*)&address, sizeof address) == 0);
    CHECK(getsockname(receiver, (struct sockaddr*)&address, &length) == 0);

    const int sender = net_connect("127.0.0.1", ntohs(address.sin_port), 17, 4);
    CHECK(sender > 0);
    CHECK(net_send(sender, "flow", 4, 0) == 4);
    CHECK(net_send(sender, "flow", 4, 0) == 4);
    CHECK(pcap != NULL);
    check_capture(pcap);
    CHECK(recv(receiver, text, sizeof text, 0) == 4 && strcmp(text, "flow") == 0);
    CHECK(net_connect("127.0.0.1", 1, 17, 5) == 0);
    close(sender);
    close(receiver);
}

/* The test emulates the capture module: eth0 and eth1 take turns with three frames of 60 bytes. */
static void check_rawnetcap(void) {
    char params[] = "device=eth0#eth1,sampling=3";
    struct packet_header header;
    CHECK(strcmp(input_rawnetcap_desc()->name, "rawnetcap") == 0);
    void* input = input_rawnetcap_init(params, 0, 0);
    CHECK(input != NULL);
    CHECK(input_rawnetcap_sampling(input) == 3);
    CHECK(input_rawnetcap_packet(input, &header) != NULL);
    CHECK(input_rawnetcap_packet(input, &header) != NULL);
    struct input_counts counts = {0};
    input_rawnetcap_counters(input, 0, &counts);
    CHECK(counts.is_up == 1 && counts.ring_dropped_packets == 0);
    CHECK(header.captured_length == 60 && header.wire_length == 60);
    CHECK(header.input_interface == 2 && header.output_interface == 0);

    struct rawnetcap_context* device = rawnetcap_init("eth1", 0, 128, 0);
    CHECK(device != NULL);
    const struct rawnetcap_record* first = rawnetcap_get_next(device, 10);
    const struct rawnetcap_record* second = rawnetcap_get_next(device, 10);
    CHECK(first != NULL && first->captured_length == 60 && first->input_interface == 1);
    CHECK((const uint8_t*)second == (const uint8_t*)first + 80);
    CHECK(rawnetcap_get_buffer_size(device) == 65536);
}

static void check_builtins(void) {
    static union any_record one;
    char nf5_params[] = "host=127.0.0.1,port=9";

    CHECK(strcmp(exporter_null_desc()->name, "null") == 0);
    CHECK(exporter_null_init(NULL, NULL) == (void*)1);
    CHECK(exporter_null_export((void*)1, &one.record) == 0);
    CHECK(exporter_null_flush((void*)1) == 0);

    CHECK(strcmp(exporter_nf5_desc()->name, "netflow-v5") == 0);
    void* nf5 = exporter_nf5_init(nf5_params, NULL);
    CHECK(nf5 != NULL);
    CHECK(exporter_nf5_export(nf5, &one.record) == 0xFFFFFFFF); /* not IPv4 */
    CHECK(exporter_nf5_flush(nf5) == 0);
}

static flow_key no_flow(void* instance, struct flow_record* record) {
    (void)instance, (void)record;
    return 0;
}

void check_plugins(void) {
    struct plugin_registry registry;
    memset(&registry, 0, sizeof registry);
    add_input_plugin(&registry, input_desc, input_init, NULL, NULL, no_flow, NULL, NULL, NULL);
    add_export_plugin(&registry, exporter_null_desc, exporter_null_init, exporter_null_export,
                      exporter_null_flush);
    add_filter_plugin(&registry, input_desc, NULL, NULL);
    add_process_plugin(&registry, input_desc, NULL, NULL, NULL, NULL, NULL);
    add_plugin("/nonexistent/plugin.so", &registry);
    CHECK(registry.input_count == 1 && registry.inputs[0].get_flow == no_flow);
    CHECK(registry.inputs[0].sampling(NULL) == 0);
    CHECK(registry.export_count == 1 && registry.exports[0].flush == exporter_null_flush);
    CHECK(registry.filter_count == 1 && registry.filters[0].desc == input_desc);
    CHECK(registry.process_count == 1 && registry.processes[0].desc == input_desc);
    check_rawnetcap();
    check_builtins();
    check_connection();
}

/* These never return, or run for as long as the program does: that they are there must do. */
void check_addresses(void) {
    CHECK(print_help != NULL);
    CHECK(print_version != NULL);
    CHECK(print_plugins != NULL);
    CHECK(main_record_loop != NULL);
    CHECK(queue_remover != NULL);
    CHECK(sw_main_loop != NULL);
    CHECK(sw_get_flow_thread != NULL);
    CHECK(plugin_final_flow_loop != NULL);
    print_noparams();
    signal_handler(0);
}
