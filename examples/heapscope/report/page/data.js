// The data, and how its figures are written. All text goes into the page as text, never as markup.

const data = JSON.parse(document.getElementById("data").textContent);
const byId = (id) => document.getElementById(id);

// A figure of a call path, a size class or the whole. Flows are arrays in the order of page.cc.
const kMetrics = [
  { name: "bytes", title: "Allocated", of: (flow) => flow[1], isBytes: true },
  { name: "calls", title: "Calls", of: (flow) => flow[0], isBytes: false },
  { name: "live", title: data.written === "end" ? "Live at end" : "Live", of: (flow) => flow[5], isBytes: true },
  { name: "peak", title: "Peak", of: (flow) => flow[6], isBytes: true },
  { name: "temporary", title: "Temporary", of: (flow) => flow[7], isBytes: false },
].filter((metric) => metric.name !== "temporary" || data.knowsTemporary);
const metricNamed = (name) => kMetrics.find((metric) => metric.name === name);

// What is chosen is kept in the address, so that a link shows the same.
const state = new URLSearchParams(location.hash.slice(1));
function remember(name, value, usual) {
  if (value === usual) state.delete(name);
  else state.set(name, value);
  try {
    history.replaceState(null, "", "#" + state);
  } catch { /* not every browser lets pages from files do this */ }
}

// Texts and elements

const count = (value) => value.toLocaleString("en");
const plural = (value, one) => `${count(value)} ${one}${value === 1 ? "" : "s"}`;
function bytes(value) {
  if (value < 1024) return `${value} B`;
  let unit = -1;
  do { value /= 1024; ++unit; } while (value >= 1023.995);
  return `${value.toFixed(2)} ${["KiB", "MiB", "GiB", "TiB", "PiB", "EiB"][unit]}`;
}
function duration(ms) {
  if (ms < 1000) return `${Math.round(ms)} ms`;
  if (ms < 60000) return `${(ms / 1000).toFixed(1)} s`;
  const minutes = Math.floor(ms / 60000);
  if (minutes < 60) return `${minutes} min ${Math.floor(ms / 1000) % 60} s`;
  return `${Math.floor(minutes / 60)} h ${minutes % 60} min`;
}
const figure = (metric, value) => (metric.isBytes ? bytes(value) : count(value));
const share = (part, whole) => (whole > 0 ? `${((100 * part) / whole).toFixed(1)}%` : "");
const fileName = (path) => path.slice(path.lastIndexOf("/") + 1);

function element(tag, properties = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name === "class") made.className = value;
    else if (name in made) made[name] = value;
    else made.setAttribute(name, value);
  }
  made.append(...children);
  return made;
}

// Buttons of which one is pressed.
function segments(id, choices, chosen, choose) {
  const box = byId(id);
  for (const { name, title } of choices) {
    const button = element("button", { type: "button", textContent: title, value: name });
    button.setAttribute("aria-pressed", String(name === chosen));
    button.addEventListener("click", () => {
      for (const other of box.children) other.setAttribute("aria-pressed", String(other === button));
      choose(name);
    });
    box.append(button);
  }
}

// Frames and paths

const frames = data.frames.map(([name, file, line, module]) => ({
  name: data.texts[name], file: data.texts[file], line, module: data.texts[module],
}));
const place = (frame) =>
  frame.file ? fileName(frame.file) + (frame.line ? ":" + frame.line : "") : fileName(frame.module);
const fullPlace = (frame) =>
  [frame.file ? frame.file + (frame.line ? ":" + frame.line : "") : "", frame.module].filter(Boolean).join(", ");

// Innermost first.
function framesOf(node) {
  const path = [];
  for (; node !== 0; node = data.tree.parents[node]) path.push(frames[data.tree.frames[node]]);
  return path;
}
const paths = data.paths.map(([node, flow, before]) => ({ node, flow, before, frames: framesOf(node) }));

// Compared with another result, what counts of a path is its change.
const isDiff = "before" in data;
const valueOf = (metric, path) => metric.of(path.flow) - (isDiff ? metric.of(path.before) : 0);
const signed = (value, text) => (value < 0 ? "−" : value > 0 ? "+" : "") + text(Math.abs(value));
const valueText = (metric, value) => (isDiff ? signed(value, (size) => figure(metric, size)) : figure(metric, value));
