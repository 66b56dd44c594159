-- Where flows are kept: each of them for a month, and sums of each minute for a year.

CREATE TABLE IF NOT EXISTS flows (
    time_received   DateTime64(9, 'UTC') CODEC(Delta, ZSTD),
    time_flow_start DateTime64(9, 'UTC') CODEC(Delta, ZSTD),
    time_flow_end   DateTime64(9, 'UTC') CODEC(Delta, ZSTD),
    sampler         IPv6                 CODEC(ZSTD),  -- the probe; IPv4 addresses as ::ffff:a.b.c.d
    sequence_num    UInt32               CODEC(Delta, ZSTD),
    sampling_rate   UInt32               CODEC(ZSTD),  -- one in so many packets was counted
    src_addr        IPv6                 CODEC(ZSTD),
    dst_addr        IPv6                 CODEC(ZSTD),
    src_as          UInt32               CODEC(ZSTD),
    dst_as          UInt32               CODEC(ZSTD),
    in_if           UInt32               CODEC(ZSTD),
    out_if          UInt32               CODEC(ZSTD),
    etype           UInt16               CODEC(ZSTD),  -- 0x0800 IPv4, 0x86DD IPv6
    proto           UInt8                CODEC(ZSTD),
    src_port        UInt16               CODEC(ZSTD),
    dst_port        UInt16               CODEC(ZSTD),
    ip_tos          UInt8                CODEC(ZSTD),
    tcp_flags       UInt16               CODEC(ZSTD),
    icmp_type       UInt8                CODEC(ZSTD),
    icmp_code       UInt8                CODEC(ZSTD),
    vlan_id         UInt16               CODEC(ZSTD),
    bytes           UInt64               CODEC(T64, ZSTD),
    packets         UInt64               CODEC(T64, ZSTD)
)
ENGINE = MergeTree
PARTITION BY toDate(time_received)
ORDER BY (toStartOfMinute(time_received), sampler, src_addr)
TTL toDateTime(time_received) + INTERVAL 30 DAY
SETTINGS ttl_only_drop_parts = 1;

-- bytes and packets are multiplied by the sampling rate. port is the lower one of both, that of the
-- service as a rule.
CREATE TABLE IF NOT EXISTS flows_by_minute (
    minute  DateTime('UTC') CODEC(Delta, ZSTD),
    sampler IPv6            CODEC(ZSTD),
    in_if   UInt32          CODEC(ZSTD),
    out_if  UInt32          CODEC(ZSTD),
    src_as  UInt32          CODEC(ZSTD),
    dst_as  UInt32          CODEC(ZSTD),
    proto   UInt8           CODEC(ZSTD),
    port    UInt16          CODEC(ZSTD),
    bytes   UInt64          CODEC(T64, ZSTD),
    packets UInt64          CODEC(T64, ZSTD),
    flows   UInt64          CODEC(T64, ZSTD)
)
ENGINE = SummingMergeTree((bytes, packets, flows))
PARTITION BY toYYYYMM(minute)
ORDER BY (minute, sampler, in_if, out_if, src_as, dst_as, proto, port)
TTL minute + INTERVAL 1 YEAR;

CREATE MATERIALIZED VIEW IF NOT EXISTS flows_to_minutes TO flows_by_minute AS
SELECT
    toStartOfMinute(toDateTime(time_received, 'UTC')) AS minute,
    sampler, in_if, out_if, src_as, dst_as, proto,
    least(src_port, dst_port) AS port,
    sum(flows.bytes * sampling_rate) AS bytes,
    sum(flows.packets * sampling_rate) AS packets,
    count() AS flows
FROM flows
GROUP BY minute, sampler, in_if, out_if, src_as, dst_as, proto, port;
