"use strict";
// Draws the figures of the JSON text in the page. All text goes in as text, never as markup.
(() => {
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

  // Texts ------------------------------------------------------------------------------------------

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

  // Frames -----------------------------------------------------------------------------------------

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

  // Header -----------------------------------------------------------------------------------------

  function showHeader() {
    const process = data.process;
    document.title = `${process.name || "?"} – heapscope`;
    byId("name").textContent = process.name || "?";
    const quoted = process.arguments.map((text) => (/^[^\s"']+$/.test(text) ? text : `'${text}'`));
    byId("command").textContent = quoted.join(" ");
    const facts = [["process", process.id]];
    if (process.forkedFrom) facts.push(["forked from", process.forkedFrom]);
    if (process.endedMs >= process.startedMs && process.startedMs > 0) {
      facts.push(["ran", duration(process.endedMs - process.startedMs)]);
      facts.push(["started", new Date(process.startedMs).toISOString().slice(0, 19).replace("T", " ") + " UTC"]);
    }
    if (process.resetMs) facts.push(["counts since", duration(process.resetMs - process.startedMs)]);
    if (isDiff) facts.push(["compared with", `${data.before.name} ${data.before.id}`]);
    facts.push(["threads", count(data.threadsSeen)]);
    facts.push(["written", { end: "at the end", snapshot: "while it ran" }[data.written] || data.written]);
    for (const [name, value] of facts)
      byId("facts").append(element("li", {}, name + " ", element("strong", { textContent: value })));

    const notice = (...children) => byId("notices").append(element("div", { class: "notice" }, ...children));
    if (data.written === "heartbeat")
      notice("The process was killed, or is still running: the figures are those up to the last time they were written.");
    for (const text of data.damage) notice(text[0].toUpperCase() + text.slice(1) + ".");
    const problems = data.problems.filter(([, times]) => times > 0);
    if (problems.length > 0)
      notice(problems.map(([name, times]) => `${name.replaceAll("_", " ")}: ${count(times)}`).join(" · "));
    if (data.unnamedModules.length > 0) {
      const list = element("ul", {}, ...data.unnamedModules.map((text) => element("li", { textContent: text })));
      const summary = `${plural(data.unnamedModules.length, "module")} without symbols`;
      notice(element("details", {}, element("summary", { textContent: summary }), list));
    }
    byId("footer").textContent = `${process.executable} · result format ${data.format}`;
  }

  function showFigures() {
    const flow = data.totals;
    const add = (id, title, value, exactly, old) => {
      const large = element("data", { id: `total-${id}`, class: "large", value, textContent: bytes(value) });
      byId("figures").append(element("div", {}, element("dt", { textContent: title }),
        element("dd", {}, large, element("div", { class: "exact", textContent: exactly }))));
      if (isDiff && old !== undefined)
        large.after(element("span", { class: value > old ? "change grown" : "change", textContent: value === old ? "unchanged" : signed(value - old, bytes) }));
    };
    const old = isDiff ? data.before.totals : [];
    const exact = (value, blocks) => `${count(value)} bytes · ${plural(blocks, "block")}`;
    if (data.process.forkedFrom || data.process.resetMs) add("inherited", "Inherited", data.inherited[1], exact(data.inherited[1], data.inherited[0]));
    add("bytes", "Allocated", flow[1], `${count(flow[1])} bytes · ${plural(flow[0], "call")}`, old[1]);
    add("peak", "Live at the peak", flow[6], `${count(flow[6])} bytes`, old[6]);
    add("live", data.written === "end" ? "Live at the end" : "Live when written", flow[5], exact(flow[5], flow[4]), old[5]);
    if (data.knowsTemporary)
      add("temporary", "Temporary, of the freed", flow[8],
        `${plural(flow[7], "block")}, ${share(flow[7], flow[2]) || "none"} of the freed`, old[8]);
    else add("freed", "Freed", flow[3], exact(flow[3], flow[2]), old[3]);
  }

  // Timeline ---------------------------------------------------------------------------------------

  // Points are [at, live blocks, live bytes, allocated blocks, allocated bytes, own bytes].
  const kSeries = [
    { name: "live", title: "Live bytes", of: (point) => point[2], text: bytes, peak: data.totals[6] },
    { name: "blocks", title: "Live blocks", of: (point) => point[1], text: count },
    { name: "rate", title: "Allocated per second", of: rate, text: (value) => bytes(Math.round(value)) + "/s" },
    { name: "own", title: "The collector's own", of: (point) => point[5], text: bytes },
  ];
  function rate(point, index) {
    const before = data.timeline[index - 1] || [0, 0, 0, 0, 0, 0];
    return point[0] > before[0] ? (1000 * Math.max(point[4] - before[4], 0)) / (point[0] - before[0]) : 0;
  }

  // A round step that makes at most `most` of them up to the largest value.
  function roundStep(largest, most, base) {
    let step = 1;
    while (step * most < largest) {
      for (const factor of base === 2 ? [2, 4, 8, 16] : [2, 5, 10]) {
        if (step * factor * most >= largest) return step * factor;
      }
      step *= base === 2 ? 16 : 10;
    }
    return step;
  }

  function showTimeline() {
    const card = byId("timeline-card");
    if (data.timeline.length < 2) {
      card.hidden = true;
      return;
    }
    const box = byId("timeline");
    let series = kSeries.find(({ name }) => name === state.get("series")) || kSeries[0];
    let cursor = -1;
    let values = [];
    let scale = null;
    const left = 74, right = 12, top = 8, bottom = 22;

    function draw() {
      const width = box.clientWidth, height = box.clientHeight;
      values = data.timeline.map(series.of);
      const start = data.timeline[0][0], end = data.timeline[data.timeline.length - 1][0];
      const largest = Math.max(...values, series.peak || 0, 1);
      const inBytes = series.text !== count;
      const step = roundStep(largest, 4, inBytes ? 2 : 10);
      const high = Math.ceil(largest / step) * step;
      scale = {
        x: (at) => left + ((at - start) / Math.max(end - start, 1)) * (width - left - right),
        y: (value) => height - bottom - (value / high) * (height - top - bottom),
      };
      const parts = [];  // made of numbers and of their texts alone
      for (let value = 0; value <= high; value += step) {
        const y = scale.y(value).toFixed(1);
        parts.push(`<line class="grid" x1="${left}" x2="${width - right}" y1="${y}" y2="${y}"/>`);
        const label = series.text(value).replace(/\.00 /, " ");
        parts.push(`<text x="${left - 8}" y="${+y + 4}" text-anchor="end">${label}</text>`);
      }
      const timeStep = roundStep(end - start, Math.max(2, Math.floor(width / 150)), 10);
      for (let at = Math.ceil(start / timeStep) * timeStep; at <= end; at += timeStep)
        parts.push(`<text x="${scale.x(at).toFixed(1)}" y="${height - 4}" text-anchor="middle">${duration(at)}</text>`);
      const line = values.map((value, i) => `${scale.x(data.timeline[i][0]).toFixed(1)},${scale.y(value).toFixed(1)}`).join("L");
      parts.push(`<path class="area" d="M${left},${scale.y(0)}L${line}L${scale.x(end)},${scale.y(0)}Z"/>`);
      parts.push(`<path class="line" d="M${line}"/>`);
      if (series.peak) {
        const y = scale.y(series.peak);
        parts.push(`<line class="peak" x1="${left}" x2="${width - right}" y1="${y}" y2="${y}"/>`);
        parts.push(`<text x="${width - right}" y="${y > 22 ? y - 5 : y + 14}" text-anchor="end">peak ${bytes(series.peak)}</text>`);
      }
      parts.push('<g class="at"></g>');
      box.innerHTML = `<svg aria-hidden="true">${parts.join("")}</svg>`;
      box.setAttribute("aria-label", `${series.title} over ${duration(end - start)}: at most ${series.text(Math.max(...values))}, at the end ${series.text(values[values.length - 1])}. Arrow keys read the points.`);
      showCursor();
    }

    function showCursor() {
      const group = box.querySelector(".at");
      if (cursor < 0) {
        group.innerHTML = "";
        byId("timeline-readout").textContent = `${count(values.length)} points; point at the chart, or use the arrow keys, to read them.`;
        return;
      }
      const point = data.timeline[cursor];
      const x = scale.x(point[0]), y = scale.y(values[cursor]);
      group.innerHTML = `<line class="cursor" x1="${x}" x2="${x}" y1="${top}" y2="${box.clientHeight - bottom}"/><circle class="dot" r="4.5" cx="${x}" cy="${y}"/>`;
      byId("timeline-readout").replaceChildren(
        element("strong", { textContent: `${duration(point[0])}: ${series.text(values[cursor])}` }),
        ` · live ${bytes(point[2])} in ${plural(point[1], "block")} · allocated so far ${bytes(point[4])} in ${plural(point[3], "call")}`);
    }

    box.addEventListener("pointermove", (event) => {
      const x = event.clientX - box.getBoundingClientRect().left;
      let best = 0;
      data.timeline.forEach((point, i) => {
        if (Math.abs(scale.x(point[0]) - x) < Math.abs(scale.x(data.timeline[best][0]) - x)) best = i;
      });
      cursor = best;
      showCursor();
    });
    box.addEventListener("pointerleave", () => { cursor = -1; showCursor(); });
    box.addEventListener("keydown", (event) => {
      const step = { ArrowLeft: -1, ArrowRight: 1, PageUp: -20, PageDown: 20 }[event.key];
      if (!step) return;
      event.preventDefault();
      cursor = Math.min(Math.max(cursor + step, 0), values.length - 1);
      showCursor();
    });
    segments("timeline-series", kSeries, series.name, (name) => {
      series = kSeries.find((each) => each.name === name);
      remember("series", name, kSeries[0].name);
      draw();
    });
    new ResizeObserver(draw).observe(box);
    draw();
  }

  // Flame graph ------------------------------------------------------------------------------------

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

  // Call paths -------------------------------------------------------------------------------------

  function showPaths() {
    const kPage = 20;
    const kCallers = 3;  // shown in the row, before it is opened
    const body = byId("sites").tBodies[0];
    let sorted = metricNamed(state.get("sort")) || kMetrics[0];
    let ascending = state.get("order") === "up";
    let shown = kPage;
    let pattern = state.get("filter") || "";
    byId("sites-filter").value = pattern;

    if (isDiff) byId("sites-title").textContent = "Changes by call path";
    const headRow = byId("sites").tHead.rows[0];
    headRow.append(element("th", { scope: "col", textContent: "Innermost function, and where it was called from" }));
    const heads = kMetrics.map((metric) => {
      const button = element("button", { type: "button", textContent: metric.title });
      button.addEventListener("click", () => {
        ascending = sorted === metric && !ascending;
        sorted = metric;
        remember("sort", metric.name, kMetrics[0].name);
        remember("order", ascending ? "up" : "down", "down");
        draw();
      });
      const head = element("th", { scope: "col" }, button);
      headRow.append(head);
      return head;
    });

    const textOf = new Map();
    function matches(path) {
      if (pattern === "") return true;
      if (!textOf.has(path))
        textOf.set(path, path.frames.map((frame) => `${frame.name}\n${frame.file}\n${frame.module}`).join("\n").toLowerCase());
      return textOf.get(path).includes(pattern.toLowerCase());
    }

    function details(path) {
      const list = element("ol", { class: "frames" }, ...path.frames.map((frame) =>
        element("li", {}, frame.name + "  ", element("span", { textContent: fullPlace(frame) }))));
      const flow = path.flow;
      const exact = `allocated ${count(flow[1])} bytes in ${plural(flow[0], "call")}, freed ${count(flow[3])} in ${count(flow[2])}, live ${count(flow[5])} in ${count(flow[4])}, peak ${count(flow[6])}`;
      const old = path.before;
      const change = isDiff ? `Before: allocated ${count(old[1])} bytes in ${plural(old[0], "call")}, live ${count(old[5])} in ${count(old[4])}, peak ${count(old[6])}. Now: ` : "";
      return element("tr", {}, element("td", { colSpan: kMetrics.length + 1 },
        element("p", { class: "from", textContent: change + exact }), list));
    }

    function row(path) {
      const [inner, ...callers] = path.frames;
      const button = element("button", { type: "button" });
      button.setAttribute("aria-expanded", "false");
      if (inner) {
        button.append(inner.name, element("span", { class: "from", textContent: ` ${place(inner)}` }));
        const from = callers.slice(0, kCallers).map((frame) => frame.name).join(" ← ");
        if (from) button.append(element("span", { class: "from", textContent: ` ← ${from}` }));
      } else {
        button.append("(paths that had no place of their own)");
      }
      const made = element("tr", { class: "path" }, element("td", { class: "where" }, button));
      let opened = null;
      button.addEventListener("click", () => {
        if (opened) opened.remove();
        opened = opened ? null : details(path);
        if (opened) made.after(opened);
        button.setAttribute("aria-expanded", String(opened !== null));
      });
      for (const metric of kMetrics) {
        const value = valueOf(metric, path);
        const cell = element("td", { class: "number", textContent: valueText(metric, value), title: count(value) });
        cell.dataset.value = value;
        if (value === 0) cell.classList.add("none");
        if (metric === sorted) {
          cell.classList.add("sorted");
          cell.style.setProperty("--share", `${Math.min(100, (100 * Math.abs(value)) / Math.max(metric.of(data.totals), 1))}%`);
        }
        made.append(cell);
      }
      return made;
    }

    function draw() {
      const chosen = paths.filter(matches);
      const sign = ascending ? 1 : -1;
      chosen.sort((a, b) => sign * (valueOf(sorted, a) - valueOf(sorted, b)));
      kMetrics.forEach((metric, i) => {
        if (metric === sorted) heads[i].setAttribute("aria-sort", ascending ? "ascending" : "descending");
        else heads[i].removeAttribute("aria-sort");
      });
      body.replaceChildren(...chosen.slice(0, shown).map(row));
      byId("sites-more").hidden = chosen.length <= shown;
      byId("sites-count").textContent =
        chosen.length === paths.length ? plural(paths.length, "call path") : `${count(chosen.length)} of ${count(paths.length)} call paths`;
    }

    byId("sites-more").addEventListener("click", () => { shown += 5 * kPage; draw(); });
    byId("sites-filter").addEventListener("input", (event) => {
      pattern = event.target.value.trim();
      shown = kPage;
      remember("filter", pattern, "");
      draw();
    });
    draw();
  }

  // Bars -------------------------------------------------------------------------------------------

  // Rows are [name, value of the bar, texts ...].
  function bars(id, headings, rows) {
    const largest = Math.max(1, ...rows.map((each) => each[1]));
    const head = element("thead", {}, element("tr", {}, ...headings.map((text, i) =>
      element("th", { scope: "col" }, i === 1 ? element("span", { class: "hidden", textContent: text }) : text))));
    const body = element("tbody", {}, ...rows.map(([name, value, ...texts]) => {
      const bar = element("div", { class: "bar" });
      bar.style.width = `${(100 * value) / largest}%`;
      return element("tr", {}, element("th", { scope: "row", textContent: name }),
        element("td", {}, value > 0 ? bar : ""), ...texts.map((text) => element("td", { class: "number", textContent: text })));
    }));
    byId(id).replaceChildren(head, body);
  }

  function showClasses() {
    const choices = kMetrics.filter((metric) => metric.name !== "temporary");
    const draw = (metric) => bars("classes", ["up to", "share", "calls", metric.isBytes ? metric.title : "bytes"],
      data.sizeClasses.map(({ upTo, flow }) => [
        upTo > 0 ? bytes(upTo).replace(".00", "") : "larger", metric.of(flow), count(flow[0]),
        metric.isBytes ? bytes(metric.of(flow)) : bytes(flow[1])]));
    segments("classes-metric", choices, "calls", (name) => draw(metricNamed(name)));
    draw(metricNamed("calls"));
  }

  function showOthers() {
    bars("calls", ["function", "share", "calls"], [...data.calls].sort((a, b) => b[1] - a[1])
      .map(([name, times]) => [name, times, count(times)]));
    const threads = data.threads.map(([id, blocks, size]) => [id ? String(id) : "others", size, count(blocks), bytes(size)]);
    threads.sort((a, b) => b[1] - a[1]);
    bars("threads", ["thread", "share", "calls", "allocated"], threads.slice(0, 12));
    byId("threads-card").hidden = data.threadsSeen < 2;
    byId("threads-count").textContent =
      data.threadsSeen > Math.min(threads.length, 12) ? `the largest of ${count(data.threadsSeen)}` : "";
    const used = data.own.categories.filter(([, size]) => size > 0).sort((a, b) => b[1] - a[1]);
    const kept = Math.max(0, data.own.mapped - used.reduce((sum, [, size]) => sum + size, 0));
    if (data.own.mapped > 0) used.push(["kept back", kept]);
    bars("own", ["for", "share", "bytes"], used.map(([name, size]) => [name, size, bytes(size)]));
    byId("own-count").textContent = data.own.mapped > 0 ? `${bytes(data.own.mapped)} mapped` : "";
  }

  showHeader();
  showFigures();
  showTimeline();
  showFlame();
  showPaths();
  showClasses();
  showOthers();
  document.documentElement.dataset.drawn = "yes";
})();
