-- Ten questions, each to be asked by itself:
--   clickhouse-client --param_since '2026-01-31 00:00:00' --param_until '2026-02-01 00:00:00' ...
-- since and until are times in UTC. Bytes and packets are multiplied by the sampling rate.

-- 1. Who sends the most?
SELECT src_addr, sum(bytes * sampling_rate) AS sum_bytes, sum(packets * sampling_rate) AS sum_packets
FROM flows
WHERE time_received >= {since:DateTime('UTC')} AND time_received < {until:DateTime('UTC')}
GROUP BY src_addr
ORDER BY sum_bytes DESC, src_addr
LIMIT 10;

-- 2. Which services carry the most? The lower port is that of the service as a rule.
SELECT proto, port, sum(bytes) AS sum_bytes, sum(packets) AS sum_packets
FROM flows_by_minute
WHERE minute >= {since:DateTime('UTC')} AND minute < {until:DateTime('UTC')}
    AND proto IN (6, 17, 132)
GROUP BY proto, port
ORDER BY sum_bytes DESC, proto, port
LIMIT 10;

-- 3. Between which autonomous systems does traffic flow?
SELECT src_as, dst_as, sum(bytes) AS sum_bytes, sum(packets) AS sum_packets
FROM flows_by_minute
WHERE minute >= {since:DateTime('UTC')} AND minute < {until:DateTime('UTC')}
GROUP BY src_as, dst_as
ORDER BY sum_bytes DESC, src_as, dst_as
LIMIT 10;

-- 4. How much comes in by each interface, in bits a second, by minute?
SELECT minute, sampler, in_if, round(sum(bytes) * 8 / 60) AS bits_per_second
FROM flows_by_minute
WHERE minute >= {since:DateTime('UTC')} AND minute < {until:DateTime('UTC')}
GROUP BY minute, sampler, in_if
ORDER BY minute, sampler, in_if;

-- 5. Which hosts sent in that time that had not sent before?
SELECT src_addr, min(time_flow_start) AS first_seen
FROM flows
GROUP BY src_addr
HAVING first_seen >= {since:DateTime('UTC')} AND first_seen < {until:DateTime('UTC')}
ORDER BY first_seen, src_addr;

-- 6. Who scans? Many ports or hosts, hardly a packet for each.
SELECT src_addr, uniqExact(dst_addr) AS hosts, uniqExact(dst_addr, dst_port) AS targets,
    round(sum(packets) / count(), 2) AS packets_each
FROM flows
WHERE time_received >= {since:DateTime('UTC')} AND time_received < {until:DateTime('UTC')}
    AND proto IN (6, 17)
GROUP BY src_addr
HAVING targets >= 50 AND packets_each <= 3
ORDER BY targets DESC, src_addr;

-- 7. Which flows last the longest?
SELECT src_addr, src_port, dst_addr, dst_port, proto,
    dateDiff('millisecond', time_flow_start, time_flow_end) AS milliseconds,
    bytes * sampling_rate AS sum_bytes
FROM flows
WHERE time_received >= {since:DateTime('UTC')} AND time_received < {until:DateTime('UTC')}
ORDER BY milliseconds DESC, sum_bytes DESC, src_addr, src_port
LIMIT 10;

-- 8. How many flows of each probe were lost on their way? Every flow has a number, also those that
-- were lost. A probe that was restarted in that time began anew at 0: ask for the time after it.
SELECT sampler, count() AS here, max(sequence_num) - min(sequence_num) + 1 - count() AS lost
FROM flows
WHERE time_received >= {since:DateTime('UTC')} AND time_received < {until:DateTime('UTC')}
GROUP BY sampler
ORDER BY sampler;

-- 9. Which two hosts exchange the most, both directions together?
SELECT least(src_addr, dst_addr) AS one, greatest(src_addr, dst_addr) AS other,
    sum(bytes * sampling_rate) AS sum_bytes, sum(packets * sampling_rate) AS sum_packets
FROM flows
WHERE time_received >= {since:DateTime('UTC')} AND time_received < {until:DateTime('UTC')}
GROUP BY one, other
ORDER BY sum_bytes DESC, one, other
LIMIT 10;

-- 10. Which services are asked for in vain? The asker's side of the connection has a SYN, and never
-- an ACK.
SELECT dst_addr, dst_port, count() AS attempts, uniqExact(src_addr) AS askers
FROM flows
WHERE time_received >= {since:DateTime('UTC')} AND time_received < {until:DateTime('UTC')}
    AND proto = 6 AND bitAnd(tcp_flags, 0x12) = 0x02
GROUP BY dst_addr, dst_port
ORDER BY attempts DESC, dst_addr, dst_port
LIMIT 10;
