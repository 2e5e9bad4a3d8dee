// app.js - the service monitor page: polls the daemon's health status,
// fills the services table, marks the table stale when the daemon stops
// answering, and shows the history of the service clicked in the table.
// Every text from the daemon goes into the page as text, never as markup.
"use strict";

const SVCMON_URL = "/managerService/svcmon";
const REFRESH_MS = 5000;
const REQUEST_TIMEOUT_MS = 4000;

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

function returnText(code) {
  return RETURN_TEXTS[String(code)] || "The daemon reported an error.";
}

function cell(text, className) {
  const td = document.createElement("td");
  td.textContent = text;
  if (className) {
    td.className = className;
  }
  return td;
}

function serviceRow(item) {
  const row = document.createElement("tr");
  for (const value of [item.name, item.ip, item.port, item.health_status]) {
    row.appendChild(cell(String(value)));
  }
  if (item.name === selectedName) {
    row.className = "selected";
  }
  row.addEventListener("click", () => showHistory(item.name));
  return row;
}

function renderServices(items) {
  const body = document.getElementById("services");
  body.replaceChildren();
  if (items.length === 0) {
    const row = document.createElement("tr");
    const empty = cell("No service is registered.", "empty");
    empty.colSpan = 4;
    row.appendChild(empty);
    body.appendChild(row);
    return;
  }
  for (const item of items) {
    body.appendChild(serviceRow(item));
  }
}

function showStale(reason) {
  const stale = document.getElementById("stale");
  const since = lastSuccess ? " The table shows the state of " +
      lastSuccess.toLocaleTimeString() + "." : "";
  stale.textContent = "The daemon is not answering (" + reason + ")." + since;
  stale.hidden = false;
}

async function refresh() {
  try {
    const reply = await askMonitor("method=get_health_status");
    if (reply.return !== 0) {
      throw new Error(returnText(reply.return));
    }
    renderServices(reply.items);
    lastSuccess = new Date();
    document.getElementById("last-updated").textContent = lastSuccess.toLocaleString();
    document.getElementById("stale").hidden = true;
  } catch (failure) {
    showStale(failure.name === "AbortError" ? "no answer in time" : failure.message);
  } finally {
    setTimeout(refresh, REFRESH_MS);
  }
}

function markSelected() {
  for (const row of document.getElementById("services").rows) {
    const name = row.cells[0].textContent;
    row.className = name === selectedName && !row.cells[0].classList.contains("empty")
        ? "selected" : "";
  }
}

function setHistory(text, isError) {
  const history = document.getElementById("history");
  history.textContent = text;
  history.className = isError ? "error" : "";
}

async function showHistory(name) {
  selectedName = name;
  markSelected();
  document.getElementById("history-name").textContent = "of " + name;
  setHistory("Asking " + name + "\u2026", false);
  try {
    const reply = await askMonitor("method=get_history&name=" + encodeURIComponent(name));
    if (name !== selectedName) {
      return;
    }
    if (reply.return === 0 && reply.service_response === null) {
      setHistory("The service answered, but not with JSON.", true);
    } else if (reply.return === 0) {
      setHistory(JSON.stringify(reply.service_response, null, 2), false);
    } else {
      setHistory("Error " + reply.return + ": " + returnText(reply.return), true);
    }
  } catch (failure) {
    if (name === selectedName) {
      setHistory("The daemon is not answering: " + failure.message, true);
    }
  }
}

refresh();
