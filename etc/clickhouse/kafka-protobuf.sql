-- From a topic of messages with format=protobuf into the table. After flows.sql; flow.proto goes into
-- /var/lib/clickhouse/format_schemas.

CREATE TABLE IF NOT EXISTS flows_topic (
    time_received_ns   UInt64,
    time_flow_start_ns UInt64,
    time_flow_end_ns   UInt64,
    sampler_address    String,
    sequence_num       UInt32,
    sampling_rate      UInt64,
    src_addr           String,
    dst_addr           String,
    src_as             UInt32,
    dst_as             UInt32,
    in_if              UInt32,
    out_if             UInt32,
    etype              UInt32,
    proto              UInt32,
    src_port           UInt32,
    dst_port           UInt32,
    ip_tos             UInt32,
    tcp_flags          UInt32,
    icmp_type          UInt32,
    icmp_code          UInt32,
    vlan_id            UInt32,
    bytes              UInt64,
    packets            UInt64
)
ENGINE = Kafka
SETTINGS kafka_broker_list = '127.0.0.1:9092',
    kafka_topic_list = 'flows',
    kafka_group_name = 'clickhouse',
    kafka_format = 'Protobuf',
    kafka_schema = 'flow.proto:FlowMessage',
    kafka_num_consumers = 1;

-- Four bytes are an IPv4 address, sixteen an IPv6 address.
CREATE FUNCTION IF NOT EXISTS addressOfBytes AS (bytes) ->
    CAST(toFixedString(if(length(bytes) = 4,
        concat(unhex('00000000000000000000FFFF'), bytes), bytes), 16) AS IPv6);

CREATE MATERIALIZED VIEW IF NOT EXISTS flows_from_topic TO flows AS
SELECT
    fromUnixTimestamp64Nano(toInt64(time_received_ns), 'UTC') AS time_received,
    fromUnixTimestamp64Nano(toInt64(time_flow_start_ns), 'UTC') AS time_flow_start,
    fromUnixTimestamp64Nano(toInt64(time_flow_end_ns), 'UTC') AS time_flow_end,
    addressOfBytes(sampler_address) AS sampler,
    sequence_num,
    sampling_rate,
    addressOfBytes(flows_topic.src_addr) AS src_addr,
    addressOfBytes(flows_topic.dst_addr) AS dst_addr,
    src_as, dst_as, in_if, out_if, etype, proto, src_port, dst_port, ip_tos, tcp_flags,
    icmp_type, icmp_code, vlan_id, bytes, packets
FROM flows_topic;
