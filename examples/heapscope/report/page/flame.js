// The flame graph.

// A tree by functions; that of the data tells lines apart as well.
const functions = [{ frame: null, parent: -1, children: [], depth: 0 }];
const functionOf = [0];  // by node of the data's tree
(() => {
  const known = new Map();
  for (let node = 1; node < data.tree.parents.length; ++node) {
    const parent = functionOf[data.tree.parents[node]];
    const [name, , , module] = data.frames[data.tree.frames[node]];
    const key = `${parent} ${name} ${module}`;
    let made = known.get(key);
    if (made === undefined) {
      made = functions.length;
      known.set(key, made);
      functions.push({ frame: frames[data.tree.frames[node]], parent, children: [], depth: functions[parent].depth + 1 });
      functions[parent].children.push(made);
    }
    functionOf.push(made);
  }
})();

function hash(text) {
  let value = 2166136261;
  for (let i = 0; i < text.length; ++i) value = Math.imul(value ^ text.charCodeAt(i), 16777619);
  return value >>> 0;
}
const kHues = [212, 28, 150, 268, 48, 340, 185, 95, 310, 5];
const hueOf = new Map();  // by module: modules with the most frames get the hues that differ most
(() => {
  const uses = new Map();
  for (const { module } of frames) uses.set(module, (uses.get(module) || 0) + 1);
  [...uses].sort((a, b) => b[1] - a[1]).forEach(([module], i) => hueOf.set(module, kHues[i % kHues.length]));
})();

function showFlame() {
  const box = byId("flame");
  const kRow = 21;
  const kNarrowest = 2;  // in pixels
  let metric = metricNamed(state.get("metric")) || kMetrics[0];
  let zoomed = 0;
  let focused = 0;
  let values = [];
  let changes = [];
  let buttons = new Map();
  let pattern = "";

  function sum() {
    values = new Array(functions.length).fill(0);
    changes = new Array(functions.length).fill(0);
    for (const path of paths) {
      values[functionOf[path.node]] += metric.of(path.flow);
      changes[functionOf[path.node]] += valueOf(metric, path);
    }
    // Children come behind their parents.
    for (let i = functions.length - 1; i > 0; --i) {
      values[functions[i].parent] += values[i];
      changes[functions[i].parent] += changes[i];
    }
    for (const each of functions) each.children.sort((a, b) => values[b] - values[a]);
  }

  const nameOf = (i) => (i === 0 ? "all" : functions[i].frame.name);
  const changeOf = (i) => (isDiff ? `, changed by ${valueText(metric, changes[i])}` : "");
  const textOf = (i) => `${nameOf(i)}: ${figure(metric, values[i])}, ${share(values[i], values[0])}${changeOf(i)}`;

  function read(i) {
    const frame = functions[i].frame;
    byId("flame-readout").replaceChildren(
      element("strong", { textContent: nameOf(i) }),
      ` ${figure(metric, values[i])} · ${share(values[i], values[0])} of all${changeOf(i)}` + (frame ? ` · ${fullPlace(frame)}` : ""));
  }

  function add(i, x, width, isAbove) {
    const button = element("button", { type: "button", tabIndex: -1, title: textOf(i) });
    if (width * box.clientWidth > 22) button.textContent = nameOf(i);
    button.setAttribute("aria-label", textOf(i));
    button.style.left = `${100 * x}%`;
    button.style.width = `calc(${100 * width}% - 1px)`;
    button.style.top = `${functions[i].depth * kRow}px`;
    if (isDiff) {
      // Red has grown, blue has shrunk; the deeper, the larger a part of itself.
      const part = Math.abs(changes[i]) / Math.max(values[i], values[i] - changes[i], 1);
      button.style.setProperty("--hue", changes[i] > 0 ? 6 : 215);
      button.style.setProperty("--frame-saturation", `${Math.round(8 + 80 * part)}%`);
    } else if (i === 0) button.classList.add("root");
    else button.style.setProperty("--hue", hueOf.get(functions[i].frame.module));
    button.style.setProperty("--shade", `${(hash(nameOf(i)) % 9) - 4}%`);
    if (isAbove) button.classList.add("above");
    if (pattern !== "" && nameOf(i).toLowerCase().includes(pattern)) button.classList.add("match");
    button.addEventListener("click", () => zoom(i));
    button.addEventListener("pointerenter", () => read(i));
    button.addEventListener("focus", () => { setFocused(i); read(i); });
    buttons.set(i, button);
    box.append(button);
  }

  function addBelow(i, x, width) {
    if (width * box.clientWidth < kNarrowest) return 0;
    add(i, x, width, false);
    let depth = functions[i].depth;
    for (const child of functions[i].children) {
      if (values[child] === 0) break;
      const part = (width * values[child]) / values[i];
      depth = Math.max(depth, addBelow(child, x, part));
      x += part;
    }
    return depth;
  }

  function draw() {
    buttons = new Map();
    box.replaceChildren();
    if (values[0] === 0) {
      box.style.height = "auto";
      box.append(element("p", { class: "empty", textContent: `No call path has any of this (${metric.title.toLowerCase()}).` }));
    } else {
      for (let i = functions[zoomed].parent; i >= 0; i = functions[i].parent) add(i, 0, 1, true);
      box.style.height = `${(addBelow(zoomed, 0, 1) + 1) * kRow}px`;
      setFocused(buttons.has(focused) ? focused : zoomed);
    }
    box.classList.toggle("searched", pattern !== "");
    box.dataset.frames = buttons.size;
    byId("flame-reset").disabled = zoomed === 0;
    showSummary();
  }

  function showSummary() {
    let text = `${metric.title}: ${figure(metric, values[0])} in all; widths are shares of it.`;
    if (metric.name === "peak") text += " Each call path counts with its own peak, at whatever time that was.";
    if (isDiff) text += " Red has grown, blue has shrunk; what is gone is in the table alone.";
    if (pattern !== "") {
      // A match inside a match is in it already.
      const inMatch = new Array(functions.length).fill(false);
      let matched = 0;
      for (let i = 1; i < functions.length; ++i) {
        const isMatch = nameOf(i).toLowerCase().includes(pattern);
        if (isMatch && !inMatch[functions[i].parent]) matched += values[i];
        inMatch[i] = isMatch || inMatch[functions[i].parent];
      }
      text = `Matching functions have ${figure(metric, matched)}, ${share(matched, values[0])} of all.`;
    }
    byId("flame-readout").textContent = text;
  }

  function setFocused(i) {
    if (buttons.has(focused)) buttons.get(focused).tabIndex = -1;
    focused = i;
    if (buttons.has(i)) buttons.get(i).tabIndex = 0;
  }

  function zoom(i) {
    zoomed = i;
    focused = i;
    draw();
    if (buttons.has(i)) buttons.get(i).focus();
  }

  box.addEventListener("keydown", (event) => {
    const { parent, children } = functions[focused];
    const siblings = parent >= 0 ? functions[parent].children : [];
    const at = siblings.indexOf(focused);
    const next = {
      ArrowUp: parent, ArrowDown: children[0], ArrowLeft: siblings[at - 1], ArrowRight: siblings[at + 1],
    }[event.key];
    if (event.key === "Escape") zoom(0);
    else if (event.key.startsWith("Arrow")) {
      event.preventDefault();
      if (buttons.has(next)) buttons.get(next).focus();
    }
  });
  box.addEventListener("pointerleave", showSummary);
  byId("flame-reset").addEventListener("click", () => zoom(0));
  byId("flame-search").addEventListener("input", (event) => {
    pattern = event.target.value.trim().toLowerCase();
    draw();
  });
  segments("flame-metric", kMetrics, metric.name, (name) => {
    metric = metricNamed(name);
    remember("metric", name, kMetrics[0].name);
    sum();
    draw();
  });
  sum();
  let width = box.clientWidth;
  new ResizeObserver(() => {
    if (box.clientWidth === width) return;
    width = box.clientWidth;
    draw();
  }).observe(box);
  draw();
}
