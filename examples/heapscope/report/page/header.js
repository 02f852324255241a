// What the process was, what has to be known of the figures, and those of the whole.

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
