// Filters, search, sorting, details and ages for the table of hosts. The table is complete without it; what
// it adds comes from the data beside it, and is put into the page as text, never as markup.
"use strict";
(() => {
  const byId = (id) => document.getElementById(id);
  const data = JSON.parse(byId("data").textContent);
  const rank = new Map(data.faces.map(([word], place) => [word, place]));
  const markOf = new Map(data.faces);
  const failures = ["failed", "refused", "busy"];
  const compareNames = new Intl.Collator("en", { numeric: true }).compare;
  const body = byId("fleet").tBodies[0];

  const readCard = (fields) => {
    const card = {};
    data.fields.forEach((name, i) => {
      card[name] = typeof fields[i] === "number" ? data.texts[fields[i]] : fields[i];
    });
    card.failed = failures.includes(card.result);
    card.text = Object.values(card).join("\n").toLowerCase();
    return card;
  };

  const readHost = ([name, condition, error, collected, run, cards], i) => {
    const row = byId("h" + i);
    const host = { name, condition, error, collected, run, row, details: null, shown: true };
    host.cards = cards.map(readCard);
    host.chips = row.getElementsByTagName("li");
    host.old = collected !== null && data.made - collected > data.old;
    host.text =
      [name, condition, error, ...(run ? [run[0], run[2], run[3]] : [])].join("\n").toLowerCase() + "\n";
    const words = host.cards.map((card) => (card.failed ? "upgrade failed" : card.state));
    host.rank = Math.min(...[condition, ...words].map((word) => rank.get(word) ?? data.faces.length));
    return host;
  };

  const hosts = data.hosts.map(readHost);
  const ofRow = new Map(hosts.map((host) => [host.row, host]));

  // What is asked for: all of it has to hold; of several faces, one.
  const wanted = { faces: new Set(), words: [], product: "", version: "" };

  const matches = (host) => {
    const { faces, words, product, version } = wanted;
    const whole = !faces.size || faces.has(host.condition) || (host.old && faces.has("old"));
    const hit = (card) =>
      (whole || faces.has(card.state) || (card.failed && faces.has("upgrade failed"))) &&
      (!product || card.product === product) &&
      (!version || card.running === version) &&
      words.every((word) => host.text.includes(word) || card.text.includes(word));
    const cards = host.cards.map(hit);
    const bare = !cards.length && whole && !product && !version;
    const shown = cards.includes(true) || (bare && words.every((word) => host.text.includes(word)));
    return { shown, cards };
  };

  let telling = 0;
  const tell = (text) => {
    // Once for a word that is typed, not for each of its letters.
    clearTimeout(telling);
    telling = setTimeout(() => (byId("matches").textContent = text), 200);
  };

  const filter = () => {
    let hostCount = 0;
    let cardCount = 0;
    for (const host of hosts) {
      const { shown, cards } = matches(host);
      host.shown = shown;
      host.row.hidden = !shown;
      if (host.details) host.details.hidden = !shown;
      if (shown) hostCount += 1;
      cards.forEach((hit, i) => {
        if (hit) cardCount += 1;
        host.chips[i].classList.toggle("out", !hit);
      });
    }
    byId("nothing").hidden = hostCount > 0 || !hosts.length;
    const all = hostCount === hosts.length ? "" : ` of ${hosts.length}`;
    tell(`${hostCount}${all} hosts, ${cardCount} cards`);
  };

  const compare = [
    (a, b) => compareNames(a.name, b.name),
    (a, b) => a.rank - b.rank,
    (a, b) => a.cards.length - b.cards.length,
    (a, b) => (a.run ? a.run[1] : 0) - (b.run ? b.run[1] : 0),
    (a, b) => (a.collected ?? 0) - (b.collected ?? 0),
  ];

  const heads = [...byId("fleet").tHead.rows[0].cells];

  const sort = (column) => {
    const down = heads[column].getAttribute("aria-sort") === "ascending";
    heads.forEach((head) => head.removeAttribute("aria-sort"));
    heads[column].setAttribute("aria-sort", down ? "descending" : "ascending");
    const order = (a, b) => compare[column](a, b) * (down ? -1 : 1) || compareNames(a.name, b.name);
    body.append(
      ...[...hosts].sort(order).flatMap((host) => (host.details ? [host.row, host.details] : [host.row])),
    );
  };

  const element = (name, text, attributes = {}) => {
    const made = document.createElement(name);
    made.textContent = text;
    for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
    return made;
  };

  const columns = [
    ["Card", (card) => card.card],
    ["State", (card) => card.state],
    ["Product", (card) => card.product],
    ["Serial number", (card) => card.serial],
    ["Node", (card) => card.path],
    ["Running", (card) => card.running],
    ["Main image", (card) => card.main],
    ["Safe image", (card) => card.safe],
    ["Package", (card) => (card.package_name ? `${card.package_name} ${card.package}` : card.package)],
    ["Last upgrade", (card) => card.result],
    ["Reason", (card) => [...new Set([card.reason, card.result_reason])].filter(Boolean).join("; ")],
  ];

  const detailsOf = (host) => {
    const around = element("div", "", {
      role: "region",
      tabindex: "0",
      "aria-label": `Cards of ${host.name}`,
    });
    const table = element("table", "");
    around.append(table);
    const head = table.createTHead().insertRow();
    columns.forEach(([name]) => head.append(element("th", name, { scope: "col" })));
    const rows = table.createTBody();
    for (const card of host.cards) {
      const row = rows.insertRow();
      columns.forEach(([name, read], i) => {
        const cell = element(i ? "td" : "th", read(card) || "–", i ? {} : { scope: "row" });
        if (name === "State") cell.className = markOf.get(card.state);
        row.append(cell);
      });
    }
    const cell = element("td", "", { colspan: heads.length });
    cell.append(host.cards.length ? around : element("p", "Nothing is known of its cards."));
    const row = element("tr", "", { class: "details" });
    row.append(cell);
    return row;
  };

  const toggle = (host, open = !host.details) => {
    if (open === Boolean(host.details)) return;
    if (open) {
      host.details = detailsOf(host);
      host.row.after(host.details);
    } else {
      host.details.remove();
      host.details = null;
    }
    host.row.querySelector("button").setAttribute("aria-expanded", String(open));
  };

  const chips = [...document.querySelectorAll(".chip")];

  const clear = () => {
    wanted.faces.clear();
    wanted.words = [];
    wanted.product = wanted.version = "";
    chips.forEach((chip) => chip.setAttribute("aria-pressed", "false"));
    ["search", "product", "version"].forEach((id) => (byId(id).value = ""));
    filter();
  };

  // A link to a host shows it, whatever the filters say.
  const showLinked = () => {
    const host = ofRow.get(byId(location.hash.slice(1)));
    if (!host) return;
    if (!host.shown) clear();
    toggle(host, true);
    host.row.scrollIntoView({ block: "center" });
    host.row.querySelector("button").focus({ preventScroll: true });
  };

  const ageText = (seconds) => {
    if (seconds < 60) return "just now";
    if (seconds < 3600) return `${Math.floor(seconds / 60)} min ago`;
    return seconds < 86400 ? `${Math.floor(seconds / 3600)} h ago` : `${Math.floor(seconds / 86400)} d ago`;
  };

  const times = [...document.querySelectorAll("time")];
  times.forEach((time) => (time.moment = Date.parse(time.dateTime) / 1000));

  const tellAges = () => {
    const now = Date.now() / 1000;
    for (const time of times) {
      const text = ageText(now - time.moment);
      if (time.textContent === text) continue;
      time.textContent = text;
      time.classList.toggle("old", now - time.moment > data.old);
    }
  };

  const listen = () => {
    byId("search").addEventListener("input", (event) => {
      wanted.words = event.target.value.toLowerCase().split(/\s+/).filter(Boolean);
      filter();
    });
    for (const id of ["product", "version"])
      byId(id).addEventListener("change", (event) => {
        wanted[id] = event.target.value;
        filter();
      });
    for (const chip of chips)
      chip.addEventListener("click", () => {
        const on = chip.getAttribute("aria-pressed") === "false";
        chip.setAttribute("aria-pressed", String(on));
        wanted.faces[on ? "add" : "delete"](chip.dataset.face);
        filter();
      });
    byId("clear").addEventListener("click", clear);
    heads.forEach((head, i) => head.firstElementChild.addEventListener("click", () => sort(i)));
    // The button of a host is for the keyboard; with the mouse, its cards will do as well.
    body.addEventListener("click", (event) => {
      const host = ofRow.get(event.target.closest("tr"));
      if (host && (event.target.closest("button") || event.target.closest("li"))) toggle(host);
    });
    addEventListener("hashchange", showLinked);
    addEventListener("keydown", (event) => {
      if (event.key !== "/" || event.ctrlKey || event.metaKey || event.target.closest("input, select"))
        return;
      event.preventDefault();
      byId("search").focus();
    });
  };

  document.querySelectorAll("[disabled]").forEach((control) => (control.disabled = false));
  listen();
  clear();
  tellAges();
  setInterval(tellAges, 30000);
  showLinked();
})();
