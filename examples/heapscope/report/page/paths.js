// The table of call paths.

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
