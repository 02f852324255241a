// The chart over time.

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
