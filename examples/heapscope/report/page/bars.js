// Tables with a bar in each row: sizes, calls, threads, the collector's own memory.

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
