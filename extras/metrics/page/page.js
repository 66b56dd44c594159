// Asks the probe once a second what it does, and shows the answer. Stops while nobody looks.

import { Chart, clock, short } from "./charts.js";

const PERIOD_MS = 1000;
const PATIENCE_MS = 5000;
const MOST_SAMPLES = 900;
// Flows leave the cache in bursts: the remover looks for idle ones a few times per timeout.
const FLOWS_MEAN_OF = 5; // samples
const TITLES = { capture: "Captured", parser: "In flows", cache: "Flow cache",
  records: "Handed to exports" };
const REASONS = { not_ip: "not IP", truncated: "truncated", ip_version: "IP version",
  no_template: "no template", send: "not sent", refused: "refused", filter: "filter",
  queue_full: "queue full", unacknowledged: "not acknowledged", not_drained: "left at the end", not_flushed: "left at the end",
  sampling: "sampling", ring: "ring full", card: "network card" };
const REMOVALS = { active: "active timeout", inactive: "inactive timeout",
  collision: "collision (no room)", forced: "flush", other: "other" };
const PROTOCOLS = { 1: "ICMP", 2: "IGMP", 4: "IPv4 in IP", 6: "TCP", 17: "UDP", 33: "DCCP",
  41: "IPv6 in IP", 47: "GRE", 50: "ESP", 51: "AH", 58: "ICMPv6", 89: "OSPF", 103: "PIM",
  112: "VRRP", 115: "L2TP", 132: "SCTP" };
const PORTS = { 20: "ftp-data", 21: "ftp", 22: "ssh", 23: "telnet", 25: "smtp", 53: "dns",
  67: "dhcp", 80: "http", 88: "kerberos", 110: "pop3", 111: "rpc", 123: "ntp", 143: "imap",
  161: "snmp", 179: "bgp", 389: "ldap", 443: "https", 445: "smb", 465: "smtps", 500: "ike",
  514: "syslog", 587: "submission", 636: "ldaps", 853: "dns-tls", 873: "rsync", 993: "imaps",
  995: "pop3s", 1194: "openvpn", 1433: "mssql", 1883: "mqtt", 2049: "nfs", 2055: "netflow",
  3306: "mysql", 3389: "rdp", 4500: "ipsec", 4739: "ipfix", 5060: "sip", 5432: "postgres",
  6379: "redis", 8080: "http", 8443: "https", 9090: "prometheus", 9092: "kafka",
  51820: "wireguard" };

// { time, packets, bits, flows, lost, cache_flows, mean_flows } a second, oldest first
const history = [];
let charts = [];

const at = (id) => document.getElementById(id);
const whole = (value) => value === null ? "–" : value.toLocaleString("en");
const percent = (value) => `${(100 * value).toFixed(value > 0 && value < 0.1 ? 1 : 0)} %`;

function bytes(value) {
  return `${short(value)}B`.replace(/(\d)B/, "$1 B");
}

// An element with text, and attributes.
function element(name, text, attributes = {}) {
  const made = document.createElement(name);
  if (text !== undefined) made.textContent = text;
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  return made;
}

// A number that is shown in whole, and can be found by whoever reads the page with a program.
function count(name, value, tag = "b") {
  return element(tag, whole(value), { "data-metric": name, "data-value": value ?? "" });
}

function put(parent, ...children) {
  parent.replaceChildren(...children);
}

function duration(seconds) {
  const days = Math.floor(seconds / 86400);
  const text = new Date((seconds % 86400) * 1000).toISOString().slice(11, 19);
  return days ? `${days} d ${text}` : text;
}

function remember(columns) {
  columns.time.forEach((time, n) => history.push({ time, packets: columns.packets[n],
    bits: columns.bits[n], flows: columns.flows[n], lost: columns.lost[n],
    cache_flows: columns.cache_flows[n] }));
  history.splice(0, Math.max(0, history.length - MOST_SAMPLES));
  const first = history.length - columns.time.length;
  for (let n = Math.max(0, first); n < history.length; ++n) {
    const some = history.slice(Math.max(0, n + 1 - FLOWS_MEAN_OF), n + 1);
    history[n].mean_flows = some.reduce((sum, one) => sum + one.flows, 0) / some.length;
  }
}

function showState(summary) {
  at("version").textContent = summary.version;
  at("state").dataset.state = summary.ready ? "ready" : "bad";
  const state = summary.ready ? "ready" : "not ready";
  if (at("state").textContent !== state) at("state").textContent = state; // is read out
  at("since").textContent = `running for ${duration(Math.max(0,
    summary.time - summary.start_time))}, at ${clock(summary.time * 1000)}`;
  const missing = summary.not_ready.map((part) => `${part.kind} ${part.name}: ${part.reason}`);
  warn(missing.join("; "));
}

function warn(text) {
  const notice = at("notice");
  if (notice.textContent !== text) notice.textContent = text;
  notice.hidden = !text;
}

function showNow(summary) {
  const last = history.at(-1);
  for (const [id, field] of [["packets", "packets"], ["bits", "bits"], ["flows", "mean_flows"]]) {
    at(`now-${id}`).textContent = last ? short(last[field]) : "–";
  }
  const lost = summary.totals.lost_packets;
  put(at("total-lost"), whole(lost));
  at("total-lost").dataset.value = lost;
  at("tile-lost").classList.toggle("bad", lost > 0);
  const { flows, slots } = summary.cache;
  const fill = slots ? flows / slots : 0;
  at("cache-fill").textContent = slots ? percent(fill) : "–";
  at("cache-flows").textContent = slots ? `${short(flows)} of ${short(slots)} flows` : "not used";
  at("cache-meter").value = fill;
}

function losses(box) {
  const list = element("ul");
  const line = (one, words, kind) => list.append(element("li",
    `${whole(one.packets)} ${words}: ${REASONS[one.reason] ?? one.reason}`, { class: kind }));
  box.lost.forEach((one) => line(one, "lost", "lost"));
  box.left_out.forEach((one) => line(one, "left out", "left-out"));
  return list;
}

function roadBox(title, metric, box) {
  const item = element("li", undefined, { class: box.lost.length ? "bad" : "" });
  item.append(element("h3", title), count(metric, box.packets), losses(box));
  return item;
}

function showRoad(summary) {
  const boxes = summary.road.map((box) =>
    roadBox(TITLES[box.name] ?? box.name, `road-${box.name}`, box));
  const sent = summary.exports.filter((one) => !one.is_this)
    .map((one) => roadBox(`Sent by ${one.name}`, `road-${one.name}`, one));
  put(at("road"), ...boxes, ...sent);
}

function stateCell(one) {
  const words = one.up === null ? "running" : one.up ? "up" : "down";
  const kind = one.up === null ? "unknown" : words;
  return element("span", words, { class: kind });
}

function exportRow(one, now) {
  const row = element("tr", undefined, { "data-export": one.name });
  const name = element("th", one.name, { scope: "row" });
  if (one.is_this) name.append(element("span", " this page", { class: "small" }));
  const cell = (label, child, kind = "number") => {
    const made = element("td", undefined, { "data-label": label, class: kind });
    made.append(child);
    row.append(made);
  };
  row.append(name);
  cell("State", stateCell(one), "");
  cell("Records", count(`records-${one.name}`, one.records, "span"));
  cell("Packets", count(`packets-${one.name}`, one.packets, "span"));
  cell("Messages", whole(one.messages));
  const lost = one.lost.reduce((sum, each) => sum + each.packets, 0);
  cell("Lost packets", element("span", whole(lost), { class: lost ? "lost" : "" }));
  cell("Reconnects", whole(one.reconnects));
  cell("Last success", one.last_success
    ? `${Math.max(0, Math.round(now - one.last_success))} s ago` : "–", "");
  return row;
}

function emptyRow(columns, words) {
  const row = element("tr");
  row.append(element("td", words, { colspan: columns, class: "empty" }));
  return row;
}

function topRows(list, total, name) {
  if (!list.entries.length) return [emptyRow(3, "no flow has ended")];
  return list.entries.map((entry) => {
    const row = element("tr");
    const share = total ? entry.bytes / total : 0;
    const cell = element("td", undefined, { class: "number share" });
    cell.append(element("progress", undefined, { max: 1, value: share, "aria-hidden": "true" }),
      element("span", percent(share)));
    row.append(element("th", name(entry), { scope: "row" }),
      element("td", bytes(entry.bytes), { class: "number", "data-value": entry.bytes }), cell);
    return row;
  });
}

function portName({ protocol, port }) {
  const known = PORTS[port] ? ` ${PORTS[port]}` : "";
  return `${port}/${(PROTOCOLS[protocol] ?? protocol)}${known}`;
}

function showTop(top) {
  put(at("talkers"), ...topRows(top.talkers, top.bytes, (entry) => entry.address));
  put(at("ports"), ...topRows(top.ports, top.bytes, portName));
  put(at("protocols"), ...topRows(top.protocols, top.bytes,
    ({ protocol }) => PROTOCOLS[protocol] ?? `protocol ${protocol}`));
  const error = Math.max(top.talkers.error_bytes, top.ports.error_bytes);
  at("top-hint").textContent = `Of the ${whole(top.records)} flows that ended in the last `
    + `${top.seconds} s, ${bytes(top.bytes)}. ` + (error
    ? `Each number is at most ${bytes(error)} (${percent(error / top.bytes)}) too small.`
    : "All numbers are exact.");
}

function plainRow(name, ...cells) {
  const row = element("tr");
  row.append(element("th", name, { scope: "row" }),
    ...cells.map((text) => element("td", text, { class: "number" })));
  return row;
}

function showInside(summary) {
  put(at("removed"), ...(summary.removed.length ? summary.removed.map((one) =>
    plainRow(REMOVALS[one.reason] ?? one.reason, whole(one.flows), whole(one.packets)))
    : [emptyRow(3, "there is no cache")]));
  at("rings-table").hidden = !summary.rings.length;
  put(at("rings"), ...summary.rings.map((one) => plainRow(one.name,
    `${whole(one.used)} of ${whole(one.slots)}`, whole(one.waits),
    one.wait_seconds === null ? "–" : `${one.wait_seconds.toFixed(1)} s`)));
}

function brokerRow(name, broker) {
  const row = plainRow(`${broker.name} of ${name}`, "", broker.round_trip_seconds === null
    ? "–" : `${(1000 * broker.round_trip_seconds).toFixed(1)} ms`);
  row.cells[1].append(stateCell(broker));
  return row;
}

function showBrokers(summary) {
  const rows = summary.exports.flatMap((one) =>
    one.brokers.map((broker) => brokerRow(one.name, broker)));
  at("brokers-table").hidden = !rows.length;
  put(at("brokers"), ...rows);
}

function showCharts(summary) {
  for (const chart of charts) {
    chart.show(history.map((one) => [Math.round(one.time * 1000), one[chart.field]]),
      summary.time * 1000);
  }
}

function show(summary) {
  // The probe's clock was set back: its next answer has all samples again, with times to match.
  if (history.length && summary.time < history.at(-1).time) history.length = 0;
  remember(summary.history);
  showState(summary);
  showNow(summary);
  showRoad(summary);
  put(at("exports"), ...summary.exports.map((one) => exportRow(one, summary.time)));
  showBrokers(summary);
  showTop(summary.top);
  showInside(summary);
  showCharts(summary);
  document.body.dataset.updates = Number(document.body.dataset.updates ?? 0) + 1;
}

async function ask() {
  const since = history.length ? history.at(-1).time : 0;
  const answer = await fetch(`api/summary?since=${since}`,
    { signal: AbortSignal.timeout(PATIENCE_MS), cache: "no-store" });
  if (!answer.ok) throw new Error(`the probe answered ${answer.status}`);
  return answer.json();
}

async function step() {
  if (document.hidden) return;
  try {
    show(await ask());
  } catch (fault) {
    at("state").dataset.state = "bad";
    at("state").textContent = "no answer";
    warn(`No answer from the probe (${fault.message}). The numbers below are those of before.`);
  }
}

async function run() {
  for (;;) {
    const begin = performance.now();
    await step();
    await new Promise((resolve) => {
      setTimeout(resolve, Math.max(100, PERIOD_MS - (performance.now() - begin)));
    });
  }
}

charts = [
  new Chart(at("chart-packets"), { title: "Packets per second", unit: "packets/s",
    field: "packets", paint: "--packets" }),
  new Chart(at("chart-bits"), { title: "Bits per second", unit: "bit/s", field: "bits",
    paint: "--bits" }),
  new Chart(at("chart-flows"), { title: `Flows per second, mean of ${FLOWS_MEAN_OF} s`,
    unit: "flows/s", field: "mean_flows", paint: "--flows" }),
  new Chart(at("chart-cache"), { title: "Flows in the cache", unit: "flows",
    field: "cache_flows", paint: "--cache" }),
];
matchMedia("(prefers-color-scheme: dark)").addEventListener("change",
  () => charts.forEach((chart) => chart.repaint()));
run();
