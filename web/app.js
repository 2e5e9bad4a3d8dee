// app.js - the service monitor page: polls the daemon's health status (the
// list of services), their reachability and the last service-control runs,
// fills the two tables, puts the number of unreachable services in the
// title and the heading, filters the services by name, marks the page stale
// when the daemon stops answering, and shows the history of the service
// picked. A daemon without the reachability or control-run methods (reply
// "return" -1) gets "unknown" in their place. Every text from the daemon
// goes into the page as text, never as markup.
"use strict";

const SVCMON_URL = "/managerService/svcmon";
const REFRESH_MS = 5000;
const REQUEST_TIMEOUT_MS = 4000;
const PAGE_TITLE = "Service monitor";
const SERVICE_COLUMNS = 7;
const RUN_COLUMNS = 5;
const UNKNOWN_METHOD = -1;
const NO_VALUE = "\u2014";

// Readable texts for the daemon's "return" codes.
const RETURN_TEXTS = {
  "-1": "The daemon does not know this method.",
  "-2": "No service of that name is registered.",
  "-4": "The daemon does not serve this path.",
  "-5": "The service did not answer: it is unreachable, timed out, or answered with an error.",
  "-6": "No service name was given.",
};

let selectedName = null;
let lastSuccess = null;
let lastServices = [];
let lastReachability = null;
let refreshTimer = null;

// GETs the monitor resource with the query and returns the parsed JSON.
async function askMonitor(query) {
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), REQUEST_TIMEOUT_MS);
  try {
    const answer = await fetch(SVCMON_URL + "?" + query,
                               { cache: "no-store", signal: controller.signal });
    if (!answer.ok) {
      throw new Error("HTTP status " + answer.status);
    }
    return await answer.json();
  } finally {
    clearTimeout(timer);
  }
}

// The items of a method's reply; null when the daemon does not know the
// method, cannot be asked, or reports an error.
async function optionalItems(method) {
  try {
    const reply = await askMonitor("method=" + method);
    return reply.return === 0 && Array.isArray(reply.items) ? reply : null;
  } catch (failure) {
    return null;
  }
}

function returnText(code) {
  return RETURN_TEXTS[String(code)] || "The daemon reported an error.";
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

// A table cell; its label heads the cell when the table is shown as cards.
function cell(label, content, className) {
  const td = element("td", null, className);
  td.dataset.label = label;
  if (content instanceof Node) {
    td.appendChild(content);
  } else {
    td.textContent = content;
  }
  return td;
}

function emptyRow(text, columns) {
  const row = document.createElement("tr");
  const td = element("td", text, "empty");
  td.colSpan = columns;
  row.appendChild(td);
  return row;
}

// A daemon time ("YYYY-MM-DDTHH:MM:SSZ", UTC) shown in local time.
function timeNode(utcText) {
  if (!utcText) {
    return document.createTextNode(NO_VALUE);
  }
  const shown = new Date(utcText);
  const node = element("time", isNaN(shown) ? utcText : shown.toLocaleString());
  node.dateTime = utcText;
  return node;
}

// A coloured badge that also says its state in words.
function badge(word, kind) {
  return element("span", word, "state " + kind);
}

function reachabilityBadge(probe) {
  if (!probe) {
    return badge("unknown", "unknown");
  }
  if (probe.reachable === true) {
    return badge("up", "up");
  }
  if (probe.reachable === false) {
    return badge("down", "down");
  }
  return badge("not checked yet", "unknown");
}

function latencyText(probe) {
  return probe && typeof probe.latency_ms === "number" ? probe.latency_ms + " ms" : NO_VALUE;
}

function errorText(probe) {
  if (!probe || !probe.error) {
    return NO_VALUE;
  }
  const failures = probe.failures > 1 ? " (" + probe.failures + " checks in a row)" : "";
  return probe.error + failures;
}

function nameButton(name) {
  const button = element("button", name, "name");
  button.type = "button";
  button.setAttribute("aria-label", "Show the history of " + name);
  button.addEventListener("click", () => showHistory(name));
  return button;
}

function serviceRow(item, probe) {
  const row = document.createElement("tr");
  row.dataset.name = item.name;
  row.appendChild(cell("Service", nameButton(item.name)));
  row.appendChild(cell("Address", item.ip + ":" + item.port));
  row.appendChild(cell("State", reachabilityBadge(probe)));
  row.appendChild(cell("Since", timeNode(probe && probe.since)));
  row.appendChild(cell("Last check", timeNode(probe && probe.checked)));
  row.appendChild(cell("Latency", latencyText(probe)));
  row.appendChild(cell("Error", errorText(probe), probe && probe.error ? "error-text" : ""));
  return row;
}

function probesByName(reachability) {
  const probes = new Map();
  for (const probe of reachability ? reachability.items : []) {
    probes.set(probe.name, probe);
  }
  return probes;
}

function filterText() {
  return document.getElementById("filter").value.trim().toLowerCase();
}

// The name whose button has the keyboard focus, or null.
function focusedName() {
  const focused = document.activeElement;
  return focused && focused.matches("#services button.name")
      ? focused.closest("tr").dataset.name : null;
}

// Rebuilding the table keeps the keyboard focus on the same service.
function renderServices() {
  const body = document.getElementById("services");
  const refocus = focusedName();
  const wanted = filterText();
  const probes = probesByName(lastReachability);
  const shown = lastServices.filter((item) => item.name.toLowerCase().includes(wanted));
  body.replaceChildren();
  if (lastServices.length === 0) {
    body.appendChild(emptyRow("No service is registered.", SERVICE_COLUMNS));
  } else if (shown.length === 0) {
    body.appendChild(emptyRow("No service name contains \u201c" + wanted + "\u201d.",
                              SERVICE_COLUMNS));
  }
  for (const item of shown) {
    const row = serviceRow(item, lastReachability ? probes.get(item.name) : null);
    body.appendChild(row);
    if (item.name === refocus) {
      row.querySelector("button.name").focus();
    }
  }
  markSelected();
}

// "N unreachable" in the heading and the title; nothing to count while
// the daemon cannot tell reachability.
function renderDownCount() {
  const count = document.getElementById("down-count");
  if (!lastReachability) {
    count.textContent = "reachability unknown";
    count.className = "";
    document.title = PAGE_TITLE;
    return;
  }
  const down = lastReachability.items.filter((probe) => probe.reachable === false).length;
  count.textContent = down + " unreachable";
  count.className = down > 0 ? "alarm" : "calm";
  document.title = (down > 0 ? "(" + down + " down) " : "") + PAGE_TITLE + ": " +
      down + " unreachable";
}

function runOutcome(run) {
  if (run.ended === null || run.ended === undefined) {
    return badge("running", "running");
  }
  if (typeof run.signal === "number") {
    return badge("failed: ended by signal " + run.signal, "failed");
  }
  if (run.exit_status === 0) {
    return badge("ok (exit status 0)", "ok");
  }
  if (typeof run.exit_status === "number") {
    return badge("failed: exit status " + run.exit_status, "failed");
  }
  return badge("unknown", "unknown");
}

function runRow(run) {
  const row = document.createElement("tr");
  row.appendChild(cell("Started", timeNode(run.started)));
  row.appendChild(cell("Request", run.method));
  row.appendChild(cell("Command", element("code", run.command)));
  row.appendChild(cell("Ended", timeNode(run.ended)));
  row.appendChild(cell("Outcome", runOutcome(run)));
  return row;
}

function renderRuns(runs) {
  const body = document.getElementById("runs");
  body.replaceChildren();
  if (!runs) {
    body.appendChild(emptyRow("Unknown: the daemon does not report its runs.", RUN_COLUMNS));
    return;
  }
  if (runs.items.length === 0) {
    body.appendChild(emptyRow("No service-control run since the daemon started.", RUN_COLUMNS));
  }
  for (const run of runs.items) {
    body.appendChild(runRow(run));
  }
}

function showStale(reason) {
  const stale = document.getElementById("stale");
  const since = lastSuccess ? " The page shows the state of " +
      lastSuccess.toLocaleTimeString() + "." : "";
  stale.textContent = "The daemon is not answering (" + reason + ")." + since;
  stale.hidden = false;
}

async function refresh() {
  clearTimeout(refreshTimer);
  const reachability = optionalItems("get_reachability");
  const runs = optionalItems("get_control_runs");
  try {
    const reply = await askMonitor("method=get_health_status");
    if (reply.return !== 0) {
      throw new Error(returnText(reply.return));
    }
    lastServices = reply.items;
    lastReachability = await reachability;
    renderServices();
    renderDownCount();
    renderRuns(await runs);
    lastSuccess = new Date();
    document.getElementById("last-updated").textContent = lastSuccess.toLocaleString();
    document.getElementById("stale").hidden = true;
  } catch (failure) {
    showStale(failure.name === "AbortError" ? "no answer in time" : failure.message);
  } finally {
    refreshTimer = setTimeout(refresh, REFRESH_MS);
  }
}

function markSelected() {
  for (const row of document.getElementById("services").rows) {
    const selected = row.dataset.name !== undefined && row.dataset.name === selectedName;
    row.classList.toggle("selected", selected);
    const button = row.querySelector("button.name");
    if (button) {
      button.setAttribute("aria-pressed", String(selected));
    }
  }
}

function setHistory(text, isError) {
  const history = document.getElementById("history");
  history.textContent = text;
  history.className = isError ? "error" : "";
}

function historyText(reply) {
  if (reply.return === 0 && reply.service_response === null) {
    return ["The service answered, but not with JSON.", true];
  }
  if (reply.return === 0) {
    return [JSON.stringify(reply.service_response, null, 2), false];
  }
  return ["Error " + reply.return + ": " + returnText(reply.return), true];
}

async function showHistory(name) {
  selectedName = name;
  markSelected();
  document.getElementById("history-name").textContent = "of " + name;
  document.getElementById("history-fetched").textContent = "";
  setHistory("Asking " + name + "\u2026", false);
  let shown;
  try {
    shown = historyText(await askMonitor("method=get_history&name=" + encodeURIComponent(name)));
  } catch (failure) {
    shown = ["The daemon is not answering: " + failure.message, true];
  }
  if (name !== selectedName) {
    return;
  }
  setHistory(shown[0], shown[1]);
  document.getElementById("history-fetched").textContent =
      "Fetched at " + new Date().toLocaleString() + ".";
}

document.getElementById("filter").addEventListener("input", renderServices);
document.getElementById("refresh-now").addEventListener("click", refresh);
refresh();
