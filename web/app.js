// app.js - the service monitor page as an operator's console for one device.
//
// It follows three views of the daemon: "get_reachability" (the services,
// their state and the daemon's facts), "get_events" (what happened) and
// "get_control_runs" (the init-script runs). Each view is asked again with
// its last "index" and a "wait", a long poll that the daemon answers as
// soon as the view changes; a daemon that answers without "index" (or a
// page in a background tab) is asked once every monitor period instead.
// A daemon that lacks a method ("return" -1) gets "unknown" in its place;
// the services then come from "get_health_status".
//
// Service rows are made once and updated in place (only texts that changed
// are written, rows move only when their order changes), so focus,
// selection and scroll stay where they were. A daemon that stops answering
// (no answer to a view, or no answer at all for SILENCE_MS, which catches a
// stopped process that still holds the connections) greys the page and
// says since when; it is asked again every second, and a new "started" time
// when it answers again is reported as a restart. Every text from the
// daemon goes into the page as text, never as markup.
"use strict";

const SVCMON_URL = "/managerService/svcmon";
const SERVICES_URL = "/managerService/services";
const SYS_STATE_URL = "/managerService/sys_state";
const PAGE_TITLE = "Service monitor";
const WAIT_S = 25;                  // the long poll's wait on events and runs
const LONG_POLL_SLACK_MS = 5000;    // beyond the wait before a held poll counts as lost
const REQUEST_TIMEOUT_MS = 4000;    // a history takes up to 2 s
const SYS_STATE_TIMEOUT_MS = 8000;  // the relay waits up to 5 s
const FALLBACK_PERIOD_S = 5;        // a daemon that tells no period
const RETRY_MS = 1000;              // a daemon not answering
const SILENCE_MS = 1500;            // no answer for this long: ask the daemon directly
const SILENCE_CHECK_MS = 500;
const SILENCE_TIMEOUT_MS = 2000;
const TICK_MS = 10000;              // relative times ("for 3 min")
const OUTPUT_LINES = 6;
const SERVICE_COLUMNS = 8;
const NO_VALUE = "\u2014";

// The service-control methods, what each runs and what that does.
const ACTIONS = [
  { method: "start", command: "/etc/init.d/services.sh start",
    does: "starts the device's services" },
  { method: "stop", command: "/etc/init.d/services.sh stop",
    does: "stops the device's services" },
  { method: "restart", command: "/etc/init.d/services.sh restart",
    does: "restarts the device's services" },
  { method: "fdr_restart", command: "/etc/init.d/fdr_services.sh restart",
    does: "restarts the device's services through the fdr init script" },
];

// One character of "recent" per check, oldest first.
const CHECK_WORDS = { u: "up", n: "no answer", d: "down" };

const daemon = { answeredAt: null, staleSince: null, started: null, period: null,
                 clockSkewMs: 0, probed: false };
const rows = new Map();       // service name -> its row (makeRow)
const running = new Set();    // methods with a run going on
const pending = new Set();    // methods posted, reply not yet in
let knownRuns = null;         // null: the daemon does not report runs
let lastRunsText = "";
let lastRunNews = "";
let knownEvents = null;       // null: the daemon does not report events
let lastEventsText = "";

function $(id) {
  return document.getElementById(id);
}

function element(tag, text, className) {
  const node = document.createElement(tag);
  if (text !== undefined && text !== null) {
    node.textContent = text;
  }
  if (className) {
    node.className = className;
  }
  return node;
}

// Writers that touch the page only when the value changes.
function setText(node, text) {
  if (node.textContent !== text) {
    node.textContent = text;
  }
}

function setAttr(node, name, value) {
  if (node.getAttribute(name) !== value) {
    node.setAttribute(name, value);
  }
}

function setClass(node, className) {
  if (node.className !== className) {
    node.className = className;
  }
}

function announce(text) {
  const region = $("announce");
  region.textContent = "";
  setTimeout(() => { region.textContent = text; }, 50);
}

// ---- Times -------------------------------------------------------------

function pad(number) {
  return String(number).padStart(2, "0");
}

function clockText(date) {
  return pad(date.getHours()) + ":" + pad(date.getMinutes()) + ":" + pad(date.getSeconds());
}

function dateTimeText(date) {
  return date.getFullYear() + "-" + pad(date.getMonth() + 1) + "-" + pad(date.getDate()) +
      " " + clockText(date);
}

// A daemon time ("YYYY-MM-DDTHH:MM:SSZ", UTC), or null.
function parseTime(text) {
  const date = text ? new Date(text) : null;
  return date && !isNaN(date) ? date : null;
}

// Relative times are taken on the daemon's clock (its Date header), which
// may differ from the browser's.
function relativeText(date) {
  const seconds = Math.max(0, Math.round((Date.now() + daemon.clockSkewMs - date) / 1000));
  if (seconds < 60) {
    return "for " + seconds + " s";
  }
  const minutes = Math.floor(seconds / 60);
  if (minutes < 60) {
    return "for " + minutes + " min";
  }
  const hours = Math.floor(minutes / 60);
  if (hours < 24) {
    return "for " + hours + " h " + (minutes % 60) + " min";
  }
  return "for " + Math.floor(hours / 24) + " d " + (hours % 24) + " h";
}

// A <time> that says "for 3 min" and holds the absolute time on hover.
function setSince(node, text) {
  const date = parseTime(text);
  setAttr(node, "datetime", text || "");
  setAttr(node, "title", date ? "since " + dateTimeText(date) : "");
  setText(node, date ? relativeText(date) : NO_VALUE);
}

function absoluteTime(text) {
  const date = parseTime(text);
  const node = element("time", date ? clockText(date) : NO_VALUE);
  if (date) {
    node.dateTime = text;
    node.title = dateTimeText(date);
  }
  return node;
}

function tickRelativeTimes() {
  for (const node of document.querySelectorAll("time.relative")) {
    setSince(node, node.getAttribute("datetime"));
  }
}

// ---- Asking the daemon -------------------------------------------------

function noteAnswer(answer) {
  const told = Date.parse(answer.headers.get("Date") || "");
  const skew = isNaN(told) ? 0 : told - Date.now();
  daemon.clockSkewMs = Math.abs(skew) > 2000 ? skew : 0;  // the header counts whole seconds
  daemon.answeredAt = new Date();
  if (daemon.staleSince) {
    daemon.staleSince = null;
    renderStale();
    views.forEach(kick);
  }
}

function noteFailure() {
  if (!daemon.staleSince) {
    daemon.staleSince = daemon.answeredAt || new Date();
    renderStale();
  }
}

// Fetches url; any HTTP answer shows the daemon alive, only 2xx is used.
// `signal` (optional) cancels the request from outside.
async function ask(url, options, timeoutMs, signal) {
  const controller = new AbortController();
  const cancel = () => controller.abort();
  const timer = setTimeout(cancel, timeoutMs);
  if (signal) {
    signal.addEventListener("abort", cancel);
  }
  try {
    const answer = await fetch(url, { cache: "no-store", ...options, signal: controller.signal });
    noteAnswer(answer);
    if (!answer.ok) {
      throw new Error("HTTP status " + answer.status);
    }
    return answer;
  } catch (failure) {
    throw failure.name === "AbortError" && !(signal && signal.aborted)
        ? new Error("no answer in time") : failure;
  } finally {
    clearTimeout(timer);
    if (signal) {
      signal.removeEventListener("abort", cancel);
    }
  }
}

async function askMonitor(query, timeoutMs, signal) {
  return (await ask(SVCMON_URL + "?" + query, {}, timeoutMs, signal)).json();
}

// Waits, or less when `signal` is (or gets) aborted.
function pause(milliseconds, signal) {
  return new Promise((resolve) => {
    if (signal.aborted) {
      resolve();
      return;
    }
    const timer = setTimeout(resolve, milliseconds);
    signal.addEventListener("abort", () => { clearTimeout(timer); resolve(); });
  });
}

function periodMs() {
  return (daemon.period || FALLBACK_PERIOD_S) * 1000;
}

// A followed view: its method, what shows its reply (null when the daemon
// does not know the method), the long poll's wait in seconds, and the index
// of the last reply.
function makeView(method, show, waitSeconds) {
  return { method, show, waitSeconds, index: null, controller: new AbortController() };
}

// Cuts short the view's request or pause: it asks again at once.
function kick(view) {
  view.controller.abort();
}

async function follow(view) {
  for (;;) {
    view.controller = new AbortController();
    const signal = view.controller.signal;
    const live = view.index !== null && !document.hidden;
    const wait = view.waitSeconds();
    const query = "method=" + view.method + (live ? "&index=" + view.index + "&wait=" + wait : "");
    try {
      const reply = await askMonitor(query, live ? wait * 1000 + LONG_POLL_SLACK_MS
                                                 : REQUEST_TIMEOUT_MS, signal);
      const known = reply.return === 0;
      await view.show(known ? reply : null, signal);
      view.index = known && Number.isInteger(reply.index) ? reply.index : null;
      renderLive();
      if (view.index === null || document.hidden) {
        await pause(periodMs(), signal);
      }
    } catch (failure) {
      if (!signal.aborted) {
        noteFailure();
        await pause(RETRY_MS, signal);
      }
    }
  }
}

// A stopped daemon keeps its connections open and answers nothing: when
// nothing came for SILENCE_MS, the page itself is asked for (a 304 mostly).
async function watchSilence() {
  const silentFor = Date.now() - (daemon.answeredAt ? daemon.answeredAt.getTime() : 0);
  if (silentFor >= SILENCE_MS) {
    try {
      await ask(location.pathname, { cache: "no-cache" }, SILENCE_TIMEOUT_MS);
    } catch (failure) {
      noteFailure();
    }
  }
  setTimeout(watchSilence, SILENCE_CHECK_MS);
}

// A new start time: the daemon restarted, and its views start again.
function noteStarted(started) {
  if (!started || started === daemon.started) {
    return;
  }
  if (daemon.started) {
    const date = parseTime(started);
    setText($("restarted-text"), "The daemon restarted at " +
        (date ? dateTimeText(date) : started) +
        "; events and runs from before the restart are gone.");
    $("restarted").hidden = false;
    for (const view of views) {
      view.index = null;
      kick(view);
    }
  }
  daemon.started = started;
}

// ---- Daemon facts and stale state --------------------------------------

function renderFacts(reply) {
  const started = reply && parseTime(reply.started);
  setText($("version"), reply && reply.version ? "manager_svc " + reply.version : "unknown");
  setText($("started"), started ? dateTimeText(started) : "unknown");
  daemon.period = reply && Number.isInteger(reply.period) ? reply.period : null;
  setText($("period"), daemon.period ? daemon.period + " s" : "unknown");
}

function renderLive() {
  const every = "asking every " + periodMs() / 1000 + " s";
  const text = document.hidden ? "page in the background: " + every
      : views[0].index !== null ? "live" : every;
  setText($("live"), "(" + text + ")");
}

function renderStale() {
  const stale = daemon.staleSince !== null;
  document.body.classList.toggle("stale-view", stale);
  $("stale").hidden = !stale;
  if (stale) {
    setText($("stale"), "Daemon not answering since " + clockText(daemon.staleSince) +
        ". Asking again every second; the page shows the last state known.");
  }
  renderCount();
}

// The count next to the heading and in the title.
function renderCount() {
  const count = $("count");
  let text, kind, problems = 0;
  if (daemon.staleSince) {
    text = "daemon not answering since " + clockText(daemon.staleSince);
    kind = "stale";
  } else if (!daemon.probed) {
    text = "state unknown";
    kind = "";
  } else {
    const tally = { up: 0, "no answer": 0, down: 0, "not checked yet": 0 };
    for (const row of rows.values()) {
      tally[row.state] += 1;
    }
    problems = tally.down + tally["no answer"];
    const parts = ["down", "no answer", "not checked yet"].filter((state) => tally[state] > 0)
        .map((state) => tally[state] + " " + state);
    text = parts.length > 0 ? parts.join(", ") : "all " + rows.size + " up";
    kind = problems > 0 ? "alarm" : "calm";
  }
  setText(count, text);
  setClass(count, kind);
  document.title = (problems > 0 ? "(" + problems + ") " : "") + PAGE_TITLE + ": " + text;
}

// ---- Services ----------------------------------------------------------

// The state in words: "up", "no answer", "down", "not checked yet", or
// "unknown" when the daemon does not report reachability.
function stateOf(item) {
  if (!daemon.probed) {
    return "unknown";
  }
  const state = item.state !== undefined ? item.state
      : item.reachable === true ? "up" : item.reachable === false ? "down" : null;
  return state in { up: 1, "no answer": 1, down: 1 } ? state : "not checked yet";
}

function stateClass(state) {
  return "state " + (state === "not checked yet" ? "unknown" : state.replace(" ", "-"));
}

function latencyText(item) {
  const ms = item.latency_ms;
  if (typeof ms !== "number") {
    return "";
  }
  return (ms < 1 ? ms.toFixed(2) : ms < 100 ? ms.toFixed(1) : Math.round(ms)) + " ms";
}

function shareText(item) {
  if (!(item.checks > 0) || typeof item.up_checks !== "number") {
    return NO_VALUE;
  }
  const share = Math.floor(1000 * item.up_checks / item.checks) / 10;
  return share + " %";
}

function errorText(item) {
  if (!item.error) {
    return "";
  }
  return item.error + (item.failures > 1 ? " (" + item.failures + " checks in a row)" : "");
}

function stripText(recent) {
  if (!recent) {
    return "no checks yet";
  }
  const counts = Object.entries(CHECK_WORDS)
      .map(([mark, word]) => recent.split(mark).length - 1 + " " + word)
      .filter((text) => !text.startsWith("0 "));
  return "last " + recent.length + " checks, oldest first: " + counts.join(", ") +
      "; last check " + (CHECK_WORDS[recent[recent.length - 1]] || "unknown");
}

function renderStrip(strip, recent) {
  const marks = typeof recent === "string" ? recent : "";
  strip.replaceChildren(...Array.from(marks, (mark) =>
    element("span", null, mark in CHECK_WORDS ? mark : "")));
  strip.setAttribute("aria-label", typeof recent === "string" ? stripText(marks) : "unknown");
  strip.title = strip.getAttribute("aria-label");
}

function cell(row, className, content) {
  const td = element("td", null, className);
  if (content) {
    td.appendChild(content);
  }
  row.tr.appendChild(td);
  return content || td;
}

// One service: a tbody of its own holding its row and, when open, its history.
function makeRow(name) {
  const row = { name, body: element("tbody"), tr: element("tr", null, "service"),
                state: "", recent: undefined, history: null };
  row.body.appendChild(row.tr);
  row.button = cell(row, "name", element("button", name, "name"));
  row.button.type = "button";
  row.button.setAttribute("aria-expanded", "false");
  row.button.setAttribute("aria-label", "Show history of " + name);
  row.button.addEventListener("click", () => toggleHistory(row));
  row.badge = cell(row, "state-cell", element("span"));
  row.since = cell(row, "since", element("time", null, "relative"));
  row.address = cell(row, "address");
  row.latency = cell(row, "latency number");
  row.strip = cell(row, "recent", element("span", null, "strip"));
  row.strip.setAttribute("role", "img");
  row.share = cell(row, "share number");
  row.error = cell(row, "error");
  return row;
}

function updateRow(row, item) {
  row.state = stateOf(item);
  row.haystack = (row.name + " " + item.ip + ":" + item.port + " " + row.state).toLowerCase();
  setText(row.badge, row.state);
  setClass(row.badge, stateClass(row.state));
  const checked = parseTime(item.checked);
  setAttr(row.badge, "title", checked ? "last checked " + dateTimeText(checked) : "");
  setSince(row.since, item.since);
  setText(row.address, item.ip + ":" + item.port);
  setText(row.latency, latencyText(item));
  if (row.recent !== item.recent) {
    row.recent = item.recent;
    renderStrip(row.strip, item.recent);
  }
  setText(row.share, shareText(item));
  setAttr(row.share, "title", item.checks > 0
      ? "up in " + item.up_checks + " of " + item.checks + " checks" : "no checks yet");
  setText(row.error, errorText(item));
  setAttr(row.error, "title", errorText(item));  // cut to one line on a phone
}

function compareRows(a, b) {
  const byName = a.name < b.name ? -1 : a.name > b.name ? 1 : 0;
  return (a.state === "up") - (b.state === "up") || byName;
}

// Moves only the rows that are out of place; the focus stays put.
function orderRows() {
  const table = $("services");
  const focused = document.activeElement;
  let next = table.tBodies[0] || null;
  for (const row of Array.from(rows.values()).sort(compareRows)) {
    if (row.body === next) {
      next = next.nextElementSibling;
    } else {
      table.insertBefore(row.body, next);
    }
  }
  if (focused && focused !== document.activeElement && focused.isConnected) {
    focused.focus({ preventScroll: true });
  }
}

function applyFilter() {
  const wanted = $("filter").value.trim().toLowerCase();
  const problemsOnly = $("problems-only").checked;
  let shown = 0;
  for (const row of rows.values()) {
    const visible = (!problemsOnly || row.state !== "up") && row.haystack.includes(wanted);
    if (row.body.hidden === visible) {
      row.body.hidden = !visible;
    }
    shown += visible;
  }
  let note = "";
  if (rows.size === 0) {
    note = "No service is registered.";
  } else if (shown === 0) {
    note = wanted ? "No service matches \u201c" + wanted + "\u201d."
                  : "No problem: every service is up.";
  } else if (shown < rows.size) {
    note = shown + " of " + rows.size + " services shown.";
  }
  setText($("services-note"), note);
}

function renderServices(items) {
  const seen = new Set();
  for (const item of items) {
    let row = rows.get(item.name);
    if (!row) {
      row = makeRow(item.name);
      rows.set(item.name, row);
    }
    updateRow(row, item);
    seen.add(item.name);
  }
  for (const [name, row] of rows) {
    if (!seen.has(name)) {
      row.body.remove();
      rows.delete(name);
    }
  }
  orderRows();
  applyFilter();
  renderCount();
  renderEventFilter();
}

async function showReachability(reply, signal) {
  if (reply) {
    noteStarted(reply.started);
    daemon.probed = true;
    renderFacts(reply);
    renderServices(reply.items);
    return;
  }
  const health = await askMonitor("method=get_health_status", REQUEST_TIMEOUT_MS, signal);
  daemon.probed = false;
  renderFacts(null);
  renderServices(health.return === 0 ? health.items : []);
}

// ---- History under its row ---------------------------------------------

function historyText(reply) {
  if (reply.return === 0 && reply.service_response === null) {
    return ["The service answered, but not with JSON.", true];
  }
  if (reply.return === 0) {
    return [JSON.stringify(reply.service_response, null, 2), false];
  }
  const reasons = { "-2": "no service of that name is registered",
                    "-5": "the service did not answer, timed out, or answered with an error" };
  return ["Error " + reply.return + ": " + (reasons[reply.return] || "the daemon said no") + ".",
          true];
}

function closeHistory(row) {
  row.history.remove();
  row.history = null;
  row.body.classList.remove("open");
  row.button.setAttribute("aria-expanded", "false");
  row.button.setAttribute("aria-label", "Show history of " + row.name);
  row.button.focus();
  announce("History of " + row.name + " closed.");
}

function makeHistory(row) {
  const tr = element("tr", null, "history");
  const td = element("td");
  td.colSpan = SERVICE_COLUMNS;
  const box = element("div", null, "history-box");
  box.tabIndex = -1;
  box.setAttribute("role", "region");
  box.setAttribute("aria-label", "History of " + row.name);
  const again = element("button", "Ask again");
  const close = element("button", "Close history");
  again.type = close.type = "button";
  again.addEventListener("click", () => loadHistory(row));
  close.addEventListener("click", () => closeHistory(row));
  box.addEventListener("keydown", (event) => {
    if (event.key === "Escape") {
      closeHistory(row);
    }
  });
  const tools = element("p", null, "toolbar");
  tools.append(again, close, element("span", null, "note"));
  box.append(element("h3", "History of " + row.name), tools, element("pre"));
  td.appendChild(box);
  tr.appendChild(td);
  return tr;
}

async function loadHistory(row) {
  const history = row.history;
  const box = history.querySelector(".history-box");
  const note = box.querySelector(".note");
  setText(note, "Asking " + row.name + "\u2026");
  let shown;
  try {
    shown = historyText(await askMonitor("method=get_history&name=" + encodeURIComponent(row.name),
                                         REQUEST_TIMEOUT_MS));
  } catch (failure) {
    shown = ["The daemon did not answer: " + failure.message + ".", true];
  }
  if (row.history !== history) {
    return;  // closed meanwhile
  }
  box.querySelector("pre").textContent = shown[0];
  box.classList.toggle("error", shown[1]);
  setText(note, "Fetched at " + clockText(new Date()) + ".");
  announce("History of " + row.name + (shown[1] ? ": " + shown[0] : " shown."));
}

function toggleHistory(row) {
  if (row.history) {
    closeHistory(row);
    return;
  }
  row.history = makeHistory(row);
  row.body.appendChild(row.history);
  row.body.classList.add("open");
  row.button.setAttribute("aria-expanded", "true");
  row.button.setAttribute("aria-label", "Hide history of " + row.name);
  row.history.querySelector(".history-box").focus();
  loadHistory(row);
}

// ---- Events ------------------------------------------------------------

function stateWord(state) {
  return state === null || state === undefined ? "not checked yet" : String(state);
}

function eventText(event) {
  const texts = { state: stateWord(event.from) + " \u2192 " + stateWord(event.to),
                  started: "daemon started" };
  const detail = event.detail ? " (" + event.detail + ")" : "";
  return (texts[event.event] || String(event.event)) + detail;
}

function eventItem(event) {
  const item = element("li");
  item.append(absoluteTime(event.time), " ");
  if (event.name) {
    item.append(element("b", event.name), " ");
  }
  const text = eventText(event);
  const changed = event.event === "state";
  item.append(changed ? element("span", text, stateClass(stateWord(event.to))) : text);
  return item;
}

// The filter offers every service registered or named by an event.
function renderEventFilter() {
  const select = $("event-filter");
  const names = new Set(rows.keys());
  for (const event of knownEvents || []) {
    if (event.name) {
      names.add(event.name);
    }
  }
  const wanted = [...names].sort();
  const offered = Array.from(select.options).slice(1).map((option) => option.value);
  if (wanted.join("\n") === offered.join("\n")) {
    return;
  }
  const chosen = select.value;
  select.replaceChildren(select.options[0], ...wanted.map((name) => new Option(name, name)));
  select.value = names.has(chosen) ? chosen : "";
}

function renderEvents() {
  const chosen = $("event-filter").value;
  const shown = (knownEvents || []).filter((event) => !chosen || event.name === chosen);
  $("events").replaceChildren(...shown.map(eventItem));
  $("events-box").hidden = shown.length === 0;
  setText($("events-note"), knownEvents === null ? "Unknown: the daemon does not report events."
      : shown.length === 0
          ? "No event" + (chosen ? " of " + chosen : "") + " since the daemon started."
      : "");
}

function showEvents(reply) {
  if (reply) {
    noteStarted(reply.started);
  }
  const text = reply ? JSON.stringify(reply.items) : "";
  if (text === lastEventsText && knownEvents !== null) {
    return;
  }
  lastEventsText = text;
  knownEvents = reply ? reply.items : null;
  renderEventFilter();
  renderEvents();
}

// ---- Service control and its runs -------------------------------------

function runOutcome(run) {
  if (run.ended === null || run.ended === undefined) {
    return ["running", "running"];
  }
  if (run.error) {
    return ["failed: " + run.error, "failed"];
  }
  if (typeof run.signal === "number") {
    return ["failed: ended by signal " + run.signal, "failed"];
  }
  if (run.exit_status === 0) {
    return ["ok (exit status 0)", "ok"];
  }
  if (typeof run.exit_status === "number") {
    return ["failed: exit status " + run.exit_status, "failed"];
  }
  return ["unknown", "unknown"];
}

function lastLines(output) {
  return output.replace(/\n+$/, "").split("\n").slice(-OUTPUT_LINES).join("\n");
}

function runItem(run) {
  const [outcome, kind] = runOutcome(run);
  const item = element("li");
  item.append(element("span", outcome, "state " + kind), " ", element("b", run.method), " ",
              element("code", run.command), " started ", absoluteTime(run.started));
  if (run.ended) {
    item.append(", ended ", absoluteTime(run.ended));
  }
  if (typeof run.output === "string") {
    item.appendChild(run.output ? element("pre", lastLines(run.output))
                                : element("div", "(no output)", "note"));
  }
  return item;
}

function renderControls() {
  for (const button of $("controls").children) {
    const busy = running.has(button.value) || pending.has(button.value);
    setAttr(button, "aria-disabled", String(busy));
    setText(button.querySelector(".busy"), busy ? " (running)" : "");
  }
}

function showRuns(reply) {
  const text = reply ? JSON.stringify(reply.items) : "";
  if (text === lastRunsText && knownRuns !== null) {
    return;
  }
  lastRunsText = text;
  knownRuns = reply ? reply.items : null;
  running.clear();
  for (const run of knownRuns || []) {
    if (run.ended === null || run.ended === undefined) {
      running.add(run.method);
    }
  }
  $("runs").replaceChildren(...(knownRuns || []).map(runItem));
  $("runs-box").hidden = !knownRuns || knownRuns.length === 0;
  setText($("runs-note"), knownRuns === null ? "Runs unknown: the daemon does not report them."
      : knownRuns.length === 0 ? "No run since the daemon started." : "");
  renderControls();
  const newest = knownRuns && knownRuns[0];
  const news = newest
      ? newest.method + " started " + newest.started + ": " + runOutcome(newest)[0] : "";
  if (news !== lastRunNews && lastRunNews !== "" && newest) {
    announce("Run of " + newest.method + ": " + runOutcome(newest)[0]);
  }
  lastRunNews = news;
}

async function runAction(action) {
  pending.add(action.method);
  renderControls();
  let note;
  try {
    const post = { method: "POST", body: JSON.stringify({ method: action.method }),
                   headers: { "Content-Type": "application/json" } };
    const answer = await ask(SERVICES_URL, post, REQUEST_TIMEOUT_MS);
    const reply = await answer.json();
    note = reply.return === 0 ? action.method + " sent at " + clockText(new Date()) + "."
        : action.method + " refused by the daemon (return " + reply.return + ").";
  } catch (failure) {
    note = action.method + " not sent: " + failure.message + ".";
  }
  pending.delete(action.method);
  setText($("action-note"), note);
  renderControls();
  kick(views[2]);
}

function confirmAction(action, button) {
  if (button.getAttribute("aria-disabled") === "true") {
    announce(action.method + " is running already.");
    return;
  }
  const dialog = $("confirm");
  setText($("confirm-title"), "Run " + action.method + "?");
  setText($("confirm-text"), "This runs " + action.command + ": " + action.does + ".");
  setText($("confirm-run"), "Run " + action.method);
  dialog.returnValue = "";
  dialog.onclose = () => {
    if (dialog.returnValue === "run") {
      runAction(action);
    }
  };
  dialog.showModal();
}

function makeControls() {
  for (const action of ACTIONS) {
    const button = element("button", action.method);
    button.type = "button";
    button.value = action.method;
    button.title = "runs " + action.command;
    button.appendChild(element("span", "", "busy"));
    button.addEventListener("click", () => confirmAction(action, button));
    $("controls").appendChild(button);
  }
}

// ---- System state ------------------------------------------------------

async function loadSysState() {
  const button = $("sys-state-refresh");
  button.disabled = true;
  setText($("sys-state-note"), "Asking\u2026");
  let text, note;
  try {
    text = await (await ask(SYS_STATE_URL, {}, SYS_STATE_TIMEOUT_MS)).text();
    note = "Asked at " + clockText(new Date()) + ".";
  } catch (failure) {
    text = "";
    note = "The daemon did not answer: " + failure.message + ".";
  }
  try {
    text = JSON.stringify(JSON.parse(text), null, 2);
  } catch (notJson) {
    note += text ? " The answer is not JSON."
                 : " Empty answer: recStreamService is not registered or did not answer.";
  }
  $("sys-state").textContent = text;
  setText($("sys-state-note"), note);
  button.disabled = false;
}

// ---- Start -------------------------------------------------------------

// The reachability index moves only when a state changes: the wait of one
// period brings the latest checks (strip, latency, share) once a period too.
const views = [makeView("get_reachability", showReachability, () => daemon.period || WAIT_S),
               makeView("get_events", showEvents, () => WAIT_S),
               makeView("get_control_runs", showRuns, () => WAIT_S)];

makeControls();
$("filter").addEventListener("input", applyFilter);
$("problems-only").addEventListener("change", applyFilter);
$("event-filter").addEventListener("change", renderEvents);
$("sys-state-refresh").addEventListener("click", loadSysState);
$("sys-state-box").addEventListener("toggle", () => {
  if ($("sys-state-box").open && $("sys-state").textContent === "Not asked yet.") {
    loadSysState();
  }
});
$("restarted-dismiss").addEventListener("click", () => { $("restarted").hidden = true; });
document.addEventListener("visibilitychange", () => views.forEach(kick));
setInterval(tickRelativeTimes, TICK_MS);
views.forEach(follow);
watchSilence();
