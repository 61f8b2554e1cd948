"use strict";
// One WebSocket carries everything: JSON events both ways, frames as binary messages.
const $ = (id) => document.getElementById(id);
const stats = { latencies: [], drawn: [], received: 0 };
window.k52stats = stats; // read by the tests and the benchmark
let ws = null;
let state = null;
let tofTimer = null;

function element(tag, props = {}, ...children) {
  const node = Object.assign(document.createElement(tag), props);
  for (const child of children) node.append(child);
  return node;
}

function send(request) {
  if (ws && ws.readyState === WebSocket.OPEN) ws.send(JSON.stringify(request));
  else banner("the console server is not reachable; reload the page");
}

function banner(text) {
  $("banner").textContent = text;
  $("banner").hidden = !text;
}

function log(text, color) {
  const line = element("div", { className: "notice", textContent: text });
  line.style.color = color || "#121212";
  $("log").prepend(line);
  while ($("log").childElementCount > 500) $("log").lastChild.remove();
}

function connect() {
  ws = new WebSocket(`${location.protocol === "https:" ? "wss" : "ws"}://${location.host}/ws`);
  ws.binaryType = "arraybuffer";
  ws.onmessage = (event) => (typeof event.data === "string" ? onEvent(JSON.parse(event.data)) : draw(event.data));
  ws.onclose = () => {
    banner("connection to the console server lost; reload the page");
    streaming(false, "stopped");
  };
}

function onEvent(event) {
  switch (event.type) {
    case "state": banner(""); showState(event); break;
    case "error": banner(event.text); log(event.text, "#f2351f"); break;
    case "disconnected": banner(`${event.text}; press Reconnect`); break;
    case "notice": log(`[${event.time}] ${event.message}`, event.color); break;
    case "reply": showReply(event); break;
    case "stream": streaming(event.running, event.text); log(event.text); break;
    case "rate":
      $("rate").textContent = `${event.fourcc} ${event.width}x${event.height}  ${event.fps.toFixed(1)} fps  ` +
        `${event.mbps.toFixed(1)} MB/s  drawn ${drawnRate().toFixed(1)} fps  latency ${median().toFixed(0)} ms`;
      break;
    case "tof": heatMap(event.matrix); break;
    case "containers": showContainers(event.reports); break;
  }
}

function showState(event) {
  state = event;
  $("address").textContent = `daemon ${event.address}`;
  const fourcc = $("fourcc");
  const chosen = fourcc.value;
  fourcc.replaceChildren(...Object.keys(event.formats).map((f) => element("option", { value: f, textContent: f })));
  if (chosen in event.formats) fourcc.value = chosen;
  resolutions();
  const status = $("status");
  status.replaceChildren();
  const rows = [["sensor", event.status.imx.model], ["sensor type", event.status.imx.sensorType],
    ["exposure", event.status.imx.exposure], ["sensor size", `${event.status.imx.width}x${event.status.imx.height}`],
    ["RTU revision", event.status.rtu.revision], ["RTU FPS", event.status.rtu.fps],
    ["trigger", event.status.rtu.triggerMode], ["RTU temperature", event.status.rtu.internalTemperature],
    ["hardware", event.status.factory.hardware], ["version", event.status.factory.version]];
  for (const [name, value] of rows)
    status.append(element("tr", {}, element("td", { textContent: name }), element("td", { textContent: value ?? "?" })));
  if (!$("routes").childElementCount) event.routes.forEach(routeForm);
}

function resolutions() {
  const sizes = (state && state.formats[$("fourcc").value]) || [];
  $("resolution").replaceChildren(...sizes.map(([w, h], i) => element("option", { value: i, textContent: `${w}x${h}` })));
}

function routeForm(route) {
  const inputs = route.arguments.map((arg) => {
    let input;
    if (arg.choices.length) {
      input = element("select", {}, element("option", { value: "", textContent: arg.default ? `(${arg.default})` : "" }),
        ...arg.choices.map((c) => element("option", { value: c, textContent: c })));
    } else {
      input = element("input", { type: arg.numerical && arg.count === 1 ? "number" : "text",
        placeholder: arg.default ?? arg.name });
      if (input.type === "number") input.step = 1;
    }
    input.name = arg.name;
    input.title = `${arg.description}${arg.limits ? ` (${arg.limits})` : ""}${arg.default ? `, default ${arg.default}` : ""}`;
    return element("label", { title: input.title }, `${arg.name} `, input);
  });
  const reply = element("div", { className: "reply" });
  // The browser's own validation would block the submit without saying why in the page.
  const form = element("form", { noValidate: true }, element("button", { type: "submit", textContent: route.name }), ...inputs);
  form.onsubmit = (event) => {
    event.preventDefault();
    const fields = [...form.querySelectorAll("input, select")];
    const bad = fields.find((f) => f.validity && f.validity.badInput);
    if (bad) {
      reply.textContent = `not sent: '${bad.name}' expects a whole number`;
      reply.style.color = "#c81919";
      return;
    }
    reply.textContent = "…";
    reply.style.color = "#555";
    send({ op: "command", route: route.name, values: fields.map((f) => f.value) });
  };
  const box = element("div", { className: "route", id: `route-${route.name}` }, form,
    element("div", { className: "help", textContent: route.help }), reply);
  box.dataset.name = route.name.toLowerCase();
  $("routes").append(box);
}

function showReply(event) {
  const box = $(`route-${event.route}`);
  if (!box) return;
  const reply = box.querySelector(".reply");
  reply.textContent = event.message;
  reply.style.color = event.color;
}

function streaming(running, text) {
  $("start").disabled = running;
  $("stop").disabled = !running;
  if (!running) $("rate").textContent = text;
}

function median() {
  const sorted = [...stats.latencies.slice(-60)].sort((a, b) => a - b);
  return sorted.length ? sorted[sorted.length >> 1] : 0;
}

function drawnRate() {
  const now = performance.now();
  const recent = stats.drawn.filter((t) => now - t < 2000);
  return recent.length > 1 ? (recent.length - 1) * 1000 / (recent[recent.length - 1] - recent[0]) : 0;
}

function draw(buffer) {
  const head = new DataView(buffer, 0, 24);
  const id = head.getUint32(0, true), width = head.getUint32(4, true), height = head.getUint32(8, true);
  const channels = head.getUint32(12, true), arrived = head.getFloat64(16, true);
  const pixels = new Uint8Array(buffer, 24);
  const canvas = $("image");
  if (canvas.width !== width || canvas.height !== height) Object.assign(canvas, { width, height });
  const context = canvas.getContext("2d");
  const image = context.createImageData(width, height);
  const rgba = new Uint32Array(image.data.buffer);
  const count = width * height;
  if (channels === 1) {
    for (let i = 0; i < count; i++) rgba[i] = 0xff000000 | (pixels[i] * 0x010101);
  } else {
    for (let i = 0, j = 0; i < count; i++, j += channels)
      rgba[i] = 0xff000000 | (pixels[j + 2] << 16) | (pixels[j + 1] << 8) | pixels[j];
  }
  context.putImageData(image, 0, 0);
  const now = performance.timeOrigin + performance.now();
  stats.latencies.push(now - arrived);
  stats.drawn.push(performance.now());
  // Bounded for a page left open for days; trimmed together so that entries stay paired.
  if (stats.drawn.length > 4000) {
    stats.drawn.splice(0, 2000);
    stats.latencies.splice(0, 2000);
  }
  stats.received++;
  send({ op: "drawn", id });
}

function heatMap(matrix) {
  const canvas = $("tof"), context = canvas.getContext("2d");
  const values = matrix.flat(), low = Math.min(...values), high = Math.max(...values);
  const rows = matrix.length, size = canvas.width / Math.max(rows, 1);
  context.clearRect(0, 0, canvas.width, canvas.height);
  context.font = `${Math.max(9, size / 4)}px sans-serif`;
  context.textAlign = "center";
  context.textBaseline = "middle";
  matrix.forEach((row, y) => row.forEach((value, x) => {
    const t = high > low ? (value - low) / (high - low) : 0.5; // near is hot
    context.fillStyle = `hsl(${240 * t}, 80%, 45%)`;
    context.fillRect(x * size, y * size, size - 1, size - 1);
    context.fillStyle = "#fff";
    context.fillText(value, x * size + size / 2, y * size + size / 2);
  }));
}

function showContainers(reports) {
  $("containers").textContent = reports.map((r) =>
    `${r.path}: ${r.ok ? "ok" : "BAD"}, size ${r.size}, crc ${r.crc}, ${r.parts} sub-containers` +
    r.problems.map((p) => `\n  problem: ${p}`).join("")).join("\n");
}

$("fourcc").onchange = resolutions;
$("start").onclick = () => {
  stats.latencies.length = 0;
  send({ op: "start", fourcc: $("fourcc").value, index: Number($("resolution").value) });
};
$("stop").onclick = () => send({ op: "stop" });
$("connect").onclick = () => send({ op: "connect" });
$("refresh-status").onclick = () => send({ op: "status" });
$("tof-once").onclick = () => send({ op: "tof" });
$("tof-auto").onchange = (event) => {
  clearInterval(tofTimer);
  tofTimer = event.target.checked ? setInterval(() => send({ op: "tof" }), 1000) : null;
};
$("check").onclick = () => send({ op: "containers" });
$("filter").oninput = (event) => {
  const text = event.target.value.toLowerCase();
  for (const box of $("routes").children) box.hidden = !box.dataset.name.includes(text);
};
connect();
