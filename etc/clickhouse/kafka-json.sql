-- From a topic of messages with format=json (style=goflow2) into the table. After flows.sql.

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
    etype              String,
    proto              String,
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
    kafka_format = 'JSONEachRow',
    kafka_num_consumers = 1,
    input_format_skip_unknown_fields = 1;

-- The number of a protocol: the place of its name, from 0. A name that stands for no single number
-- ("unassigned", "experimental") is 255, "reserved".
CREATE FUNCTION IF NOT EXISTS protocolOfName AS (name) ->
    CAST((indexOf([
        'HOPOPT', 'ICMP', 'IGMP', 'GGP', 'IPv4', 'ST', 'TCP', 'CBT', 'EGP', 'IGP', 'BBN-RCC-MON',
        'NVP-II', 'PUP', 'ARGUS', 'EMCON', 'XNET', 'CHAOS', 'UDP', 'MUX', 'DCN-MEAS', 'HMP', 'PRM',
        'XNS-IDP', 'TRUNK-1', 'TRUNK-2', 'LEAF-1', 'LEAF-2', 'RDP', 'IRTP', 'ISO-TP4', 'NETBLT',
        'MFE-NSP', 'MERIT-INP', 'DCCP', '3PC', 'IDPR', 'XTP', 'DDP', 'IDPR-CMTP', 'TP++', 'IL',
        'IPv6', 'SDRP', 'IPv6-Route', 'IPv6-Frag', 'IDRP', 'RSVP', 'GRE', 'DSR', 'BNA', 'ESP',
        'AH', 'I-NLSP', 'SWIPE', 'NARP', 'Min-IPv4', 'TLSP', 'SKIP', 'IPv6-ICMP', 'IPv6-NoNxt',
        'IPv6-Opts', 'any-host-internal-protocol', 'CFTP', 'any-local-network', 'SAT-EXPAK',
        'KRYPTOLAN', 'RVD', 'IPPC', 'any-distributed-file-system', 'SAT-MON', 'VISA', 'IPCV',
        'CPNX', 'CPHB', 'WSN', 'PVP', 'BR-SAT-MON', 'SUN-ND', 'WB-MON', 'WB-EXPAK', 'ISO-IP',
        'VMTP', 'SECURE-VMTP', 'VINES', 'IPTM', 'NSFNET-IGP', 'DGP', 'TCF', 'EIGRP', 'OSPFIGP',
        'Sprite-RPC', 'LARP', 'MTP', 'AX.25', 'IPIP', 'MICP', 'SCC-SP', 'ETHERIP', 'ENCAP',
        'any-private-encryption-scheme', 'GMTP', 'IFMP', 'PNNI', 'PIM', 'ARIS', 'SCPS', 'QNX',
        'A/N', 'IPComp', 'SNP', 'Compaq-Peer', 'IPX-in-IP', 'VRRP', 'PGM', 'any-0-hop-protocol',
        'L2TP', 'DDX', 'IATP', 'STP', 'SRP', 'UTI', 'SMP', 'SM', 'PTP', 'ISIS over IPv4', 'FIRE',
        'CRTP', 'CRUDP', 'SSCOPMCE', 'IPLT', 'SPS', 'PIPE', 'SCTP', 'FC', 'RSVP-E2E-IGNORE',
        'Mobility Header', 'UDPLite', 'MPLS-in-IP', 'manet', 'HIP', 'Shim6', 'WESP', 'ROHC',
        'Ethernet', 'AGGFRAG', 'NSH'
    ], name) + 255) % 256 AS UInt8);

CREATE MATERIALIZED VIEW IF NOT EXISTS flows_from_topic TO flows AS
SELECT
    fromUnixTimestamp64Nano(toInt64(time_received_ns), 'UTC') AS time_received,
    fromUnixTimestamp64Nano(toInt64(time_flow_start_ns), 'UTC') AS time_flow_start,
    fromUnixTimestamp64Nano(toInt64(time_flow_end_ns), 'UTC') AS time_flow_end,
    toIPv6(sampler_address) AS sampler,
    sequence_num,
    sampling_rate,
    toIPv6(flows_topic.src_addr) AS src_addr,
    toIPv6(flows_topic.dst_addr) AS dst_addr,
    src_as, dst_as, in_if, out_if,
    transform(flows_topic.etype, ['IPv4', 'IPv6'], [0x0800, 0x86DD], 0) AS etype,
    protocolOfName(flows_topic.proto) AS proto,
    src_port, dst_port, ip_tos, tcp_flags, icmp_type, icmp_code, vlan_id, bytes, packets
FROM flows_topic;
