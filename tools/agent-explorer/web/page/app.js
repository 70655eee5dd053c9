// The web console's page. Every value that comes from an agent or the server is put into the page as
// text (textContent, never markup); the page talks to the console only through its JSON API.
'use strict';

const SETTINGS = ['ext', 'server', 'notify', 'listen', 'pop4ext', 'pop4win'];
const STATES = ['ok', 'refused', 'timeout', 'closed', 'not-an-agent', 'error', 'pending'];
const COLUMNS = ['host', 'state', 'rtt_ms', 'computer', 'current_user', 'ext', 'server', 'notification_method',
  'listening_ports', 'version', 'time'];
const DRIFT_COLUMNS = { server: 'server', notification_method: 'notification_method', listening_ports: 'listening_ports' };

const $ = (id) => document.getElementById(id);
let csrf = '';
let rows = [];            // {data, tr, hay, check}
let sortKey = '', sortUp = true;
let lastScans = -1;
let polling = false;

// Control characters an agent sent, shown as fleet's outputs show them (\0, \t, \r, \n, \xNN), and
// the marks that turn the direction of the text around (\uNNNN), with which a value could make the
// ones beside it read as something else.
const CONTROL = /[\x00-\x1f\x7f\u200e\u200f\u202a-\u202e\u2066-\u2069]/;
const CONTROLS = new RegExp(CONTROL.source, 'g');
function visibleText(value) {
  const s = value === null || value === undefined ? '' : String(value);
  if (!CONTROL.test(s)) return s;
  return s.replace(CONTROLS, (c) => {
    const named = { '\0': '\\0', '\t': '\\t', '\r': '\\r', '\n': '\\n' }[c];
    if (named) return named;
    const code = c.charCodeAt(0).toString(16).toUpperCase();
    return code.length <= 2 ? '\\x' + code.padStart(2, '0') : '\\u' + code.padStart(4, '0');
  });
}

function text(tag, value, cls) {
  const e = document.createElement(tag);
  e.textContent = visibleText(value);
  if (cls) e.className = cls;
  return e;
}

function say(message) { $('message').textContent = message || ''; }

async function api(method, path, body) {
  const options = { method, credentials: 'same-origin', headers: {} };
  if (method !== 'GET') options.headers['X-CSRF-Token'] = csrf;
  if (body !== undefined) {
    options.headers['Content-Type'] = 'application/json';
    options.body = JSON.stringify(body);
  }
  const response = await fetch(path, options);
  let data = null;
  try { data = await response.json(); } catch (e) { data = null; }
  if (!response.ok) {
    const why = data && data.error ? data.error : response.status + ' ' + response.statusText;
    throw new Error(why);
  }
  return data;
}

// --- the floor -------------------------------------------------------------------------------

function renderCounts(counts) {
  const list = $('counts');
  list.replaceChildren();
  const chosen = $('state-filter').value;
  for (const state of STATES) {
    const n = counts[state] || 0;
    if (state === 'pending' && n === 0) continue;
    const li = document.createElement('li');
    li.dataset.state = state;
    li.append(text('span', n, 'n'), text('span', state));
    if (n === 0) li.classList.add('zero');
    if (chosen === state) li.classList.add('chosen');
    li.addEventListener('click', () => {
      $('state-filter').value = chosen === state ? '' : state;
      renderCounts(counts);
      applyFilter();
    });
    list.append(li);
  }
}

function makeRow(h) {
  const tr = document.createElement('tr');
  tr.dataset.host = h.host;
  const box = document.createElement('input');
  box.type = 'checkbox';
  box.setAttribute('aria-label', 'Check ' + h.host);
  box.addEventListener('change', invalidatePreviews);
  const first = document.createElement('td');
  first.append(box);
  tr.append(first);
  const drift = new Set(h.drift);
  for (const key of COLUMNS) {
    let td;
    if (key === 'host') {
      td = document.createElement('td');
      const a = text('a', h.host);
      a.href = '#seat/' + encodeURIComponent(h.host);
      td.append(a);
    } else {
      td = text('td', h[key]);
    }
    if (key === 'state') td.className = 'state-' + h.category;
    if (DRIFT_COLUMNS[key] && drift.has(key)) td.className = 'drift';
    if (key === 'version' && h.drift.some((d) => d.startsWith('component:'))) {
      td.className = 'drift';
      td.title = 'differs from the floor: ' + h.drift.filter((d) => d.startsWith('component:'))
        .map((d) => d.slice(10)).join(', ');
    }
    tr.append(td);
  }
  const hay = COLUMNS.map((k) => (h[k] === null || h[k] === undefined ? '' : String(h[k]))).join('\u0001').toLowerCase();
  return { data: h, tr, hay, check: box, shown: false };
}

// Rows are in the page only while they pass the filter (a row taken out costs the browser nothing,
// where a hidden one still costs its style). A pass over the rows attaches at most CHUNK rows at a
// time and lets the browser paint in between, so the first rows show at once however large the floor.
const FIRST_CHUNK = 200, CHUNK = 1000;
let filterPass = 0;

function renderHosts(floor) {
  rows = floor.hosts.map(makeRow);
  if (sortKey) sortRows();
  $('hosts').tBodies[0].replaceChildren();
  renderCounts(floor.counts);
  $('scan-time').textContent = floor.time ? 'scan of ' + floor.time : 'no scan finished yet';
  return applyFilter();
}

function visible(r, needle, state, driftOnly) {
  if (state && r.data.category !== state) return false;
  if (driftOnly && r.data.drift.length === 0) return false;
  return !needle || r.hay.includes(needle);
}

// Brings the rows in the page in line with the filter, in the rows' order; resolves when done (a
// later pass takes over from an earlier one).
function applyFilter() {
  const pass = ++filterPass;
  const needle = $('filter').value.toLowerCase();
  const state = $('state-filter').value;
  const driftOnly = $('drift-only').checked;
  const table = $('hosts');
  const body = table.tBodies[0];
  table.dataset.pending = '1';
  const query = new URLSearchParams();
  if (needle) query.set('text', $('filter').value);
  if (state) query.set('state', state);
  if (driftOnly) query.set('drift', '1');
  const q = query.toString() ? '?' + query.toString() : '';
  $('export-csv').href = '/api/export.csv' + q;
  $('export-json').href = '/api/export.json' + q;
  invalidatePreviews();
  let i = 0, shown = 0;
  return new Promise((resolve) => {
    const step = (budget) => {
      if (pass !== filterPass) return resolve();
      let cursor = null;
      for (let k = i; k < rows.length; k++) if (rows[k].shown) { cursor = rows[k].tr; break; }
      for (; i < rows.length; i++) {
        const r = rows[i];
        const show = visible(r, needle, state, driftOnly);
        if (r.shown) {
          cursor = r.tr.nextSibling;
          if (!show) { r.tr.remove(); r.shown = false; }
        } else if (show) {
          if (budget === 0) break;
          body.insertBefore(r.tr, cursor);
          r.shown = true;
          budget--;
        }
        if (show) shown++;
      }
      if (i < rows.length) {
        setTimeout(() => step(CHUNK), 0);
        return;
      }
      $('shown').textContent = shown + ' of ' + rows.length + ' seats shown';
      delete table.dataset.pending;
      resolve();
    };
    step(FIRST_CHUNK);
  });
}

function compare(a, b) {
  if (sortKey === 'rtt_ms') {
    const x = a.data.rtt_ms === null ? Infinity : a.data.rtt_ms, y = b.data.rtt_ms === null ? Infinity : b.data.rtt_ms;
    return x - y;
  }
  const x = String(a.data[sortKey] || ''), y = String(b.data[sortKey] || '');
  return x < y ? -1 : x > y ? 1 : 0;
}

function sortRows() {
  rows.sort((a, b) => (sortUp ? 1 : -1) * compare(a, b));
}

function sortBy(key) {
  sortUp = sortKey === key ? !sortUp : true;
  sortKey = key;
  for (const th of $('hosts').tHead.rows[0].cells) {
    th.classList.toggle('sorted-up', th.dataset.key === key && sortUp);
    th.classList.toggle('sorted-down', th.dataset.key === key && !sortUp);
  }
  sortRows();
  for (const r of rows) r.shown = false;
  $('hosts').tBodies[0].replaceChildren();
  applyFilter();
}

async function loadFloor() {
  const floor = await api('GET', '/api/hosts');
  lastScans = floor.scan.scans;
  const all = renderHosts(floor);
  // Painted by the frame after next: the marks the page's benchmark reads.
  requestAnimationFrame(() => requestAnimationFrame(() => performance.mark('floor-first-rows')));
  await all;
  requestAnimationFrame(() => requestAnimationFrame(() => performance.mark('floor-shown')));
  // Which scan the rows in the page come from.
  document.body.dataset.scans = String(floor.scan.scans);
  showScan(floor.scan);
  if (floor.scan.running) pollScan();
}

function showScan(scan) {
  const bar = $('progress');
  bar.hidden = !scan.running;
  bar.max = Math.max(scan.total, 1);
  bar.value = scan.done;
  $('progress-text').textContent = scan.running
    ? 'scanning: ' + scan.done + ' of ' + scan.total + ' done, ' + scan.failed + ' failed' : '';
  $('refresh').disabled = scan.running;
}

async function pollScan() {
  if (polling) return;
  polling = true;
  try {
    for (;;) {
      const scan = await api('GET', '/api/scan');
      showScan(scan);
      if (!scan.running) {
        if (scan.scans !== lastScans) await loadFloor();
        break;
      }
      await new Promise((resolve) => setTimeout(resolve, 300));
    }
  } finally {
    polling = false;
  }
}

async function refresh() {
  say('');
  try {
    const scan = await api('POST', '/api/scan');
    showScan(scan);
    pollScan();
  } catch (e) { say('Refresh: ' + e.message); }
}

// --- guarded changes -------------------------------------------------------------------------

const flows = [];

// A preview, then an apply of exactly what the preview showed, for the seats `hostsOf()` names.
function changeFlow(prefix, hostsOf) {
  const flow = { preview: null, body: null };
  const select = $(prefix + '-setting');
  for (const s of SETTINGS) select.append(new Option(s, s));
  const apply = $(prefix + '-apply');
  const spinner = $(prefix + '-spinner');
  const invalidate = () => { flow.preview = null; apply.disabled = true; };
  flow.invalidate = invalidate;
  select.addEventListener('change', invalidate);
  $(prefix + '-value').addEventListener('input', invalidate);
  const scope = $(prefix + '-scope');
  if (scope) scope.addEventListener('change', invalidate);

  const show = (answer) => {
    $(prefix + '-summary').textContent = answer.summary;
    const body = $(prefix + '-rows').tBodies[0];
    const fragment = document.createDocumentFragment();
    for (const r of answer.rows) {
      const tr = document.createElement('tr');
      tr.dataset.host = r.host;
      const result = text('td', r.result);
      if (r.result.startsWith('failed')) result.className = 'result-failed';
      if (r.result === 'changed') result.className = 'result-changed';
      tr.append(text('td', r.host), text('td', r.state), text('td', r.setting), text('td', r.current),
        text('td', r.new), result);
      fragment.append(tr);
    }
    body.replaceChildren(fragment);
  };
  const run = async (body) => {
    spinner.hidden = false;
    try { return await api('POST', '/api/set', body); } finally { spinner.hidden = true; }
  };

  $(prefix + '-preview').addEventListener('click', async () => {
    invalidate();
    say('');
    const hosts = hostsOf();
    if (hosts.length === 0) { say('No seats chosen: check rows or choose the current filter.'); return; }
    const body = { hosts, settings: { [select.value]: $(prefix + '-value').value }, apply: false };
    try {
      const answer = await run(body);
      show(answer);
      flow.preview = answer.preview;
      flow.body = body;
      apply.disabled = false;
    } catch (e) { say('Preview: ' + e.message); }
  });
  apply.addEventListener('click', async () => {
    if (!flow.preview) return;
    apply.disabled = true;
    say('');
    const body = { hosts: flow.body.hosts, settings: flow.body.settings, apply: true, preview: flow.preview };
    flow.preview = null;
    try { show(await run(body)); } catch (e) { say('Apply: ' + e.message); }
  });
  flows.push(flow);
  return flow;
}

function invalidatePreviews() {
  for (const f of flows) if (f.invalidate && f.floorWide) f.invalidate();
}

function floorHosts() {
  const scope = $('change-scope').value;
  return rows.filter((r) => r.shown && (scope === 'filter' || r.check.checked)).map((r) => r.data.host);
}

// --- a seat ----------------------------------------------------------------------------------

let seatHost = '';

async function showSeat(host) {
  seatHost = host;
  $('seat-title').textContent = host;
  $('seat-login-result').textContent = '';
  $('seat-trace-result').textContent = '';
  $('seat-change-summary').textContent = '';
  $('seat-change-rows').tBodies[0].replaceChildren();
  seatFlow.invalidate();
  const info = $('seat-info').tBodies[0];
  const components = $('seat-components').tBodies[0];
  info.replaceChildren();
  components.replaceChildren();
  try {
    const seat = await api('GET', '/api/hosts/' + encodeURIComponent(host));
    const fields = [['State', seat.state], ['Round trip (ms)', seat.rtt_ms], ['Computer', seat.computer],
      ['Network user', seat.network_user], ['Current user', seat.current_user], ['Ext', seat.ext],
      ['Server', seat.server], ['Notification method', seat.notification_method],
      ['Listening ports', seat.listening_ports], ['Pop4Ext', seat.pop4ext], ['Pop4Win', seat.pop4win],
      ['Version', seat.version], ['Answered', seat.time]];
    for (const [name, value] of fields) {
      const tr = document.createElement('tr');
      tr.append(text('th', name), text('td', value));
      info.append(tr);
    }
    for (const c of seat.components) {
      const tr = document.createElement('tr');
      tr.append(text('td', c.name), text('td', c.version), text('td', c.state));
      components.append(tr);
    }
    $('seat-drift').textContent = seat.drift.length ? 'Differs from the floor: ' + seat.drift.join(', ') : '';
  } catch (e) { say('Seat: ' + e.message); }
}

async function seatAction(action, output, spinner) {
  const host = seatHost;
  $(output).textContent = '';
  $(spinner).hidden = false;
  try {
    const answer = await api('POST', '/api/hosts/' + encodeURIComponent(host) + '/' + action);
    $(output).textContent = answer.status === 'replied'
      ? (answer.result !== null ? answer.result : answer.reply) : answer.status;
  } catch (e) {
    $(output).textContent = e.message;
  } finally {
    $(spinner).hidden = true;
  }
}

// --- audit -----------------------------------------------------------------------------------

async function showAudit() {
  const body = $('audit-rows').tBodies[0];
  try {
    const lines = await api('GET', '/api/audit');
    const fragment = document.createDocumentFragment();
    for (const e of lines.reverse()) {
      const tr = document.createElement('tr');
      for (const k of ['time', 'client', 'host', 'setting', 'old', 'new', 'result']) tr.append(text('td', e[k]));
      fragment.append(tr);
    }
    body.replaceChildren(fragment);
  } catch (e) { say('Audit: ' + e.message); }
}

// --- views -----------------------------------------------------------------------------------

function route() {
  // An address typed or pasted by hand may hold a '%' that starts no escape.
  let hash;
  try { hash = decodeURIComponent(location.hash.slice(1)); } catch (e) { hash = ''; }
  const view = hash.startsWith('seat/') ? 'seat' : hash === 'audit' ? 'audit' : 'floor';
  for (const id of ['floor', 'seat', 'audit']) $(id).hidden = id !== view;
  $('nav-floor').classList.toggle('current', view !== 'audit');
  $('nav-audit').classList.toggle('current', view === 'audit');
  if (view === 'seat') showSeat(hash.slice(5));
  if (view === 'audit') showAudit();
}

let seatFlow;

async function start() {
  const floorFlow = changeFlow('change', floorHosts);
  floorFlow.floorWide = true;
  seatFlow = changeFlow('seat-change', () => [seatHost]);
  $('refresh').addEventListener('click', refresh);
  $('filter').addEventListener('input', applyFilter);
  $('state-filter').addEventListener('change', () => { applyFilter(); });
  $('drift-only').addEventListener('change', applyFilter);
  $('check-all').addEventListener('change', () => {
    for (const r of rows) if (r.shown) r.check.checked = $('check-all').checked;
    invalidatePreviews();
  });
  for (const th of $('hosts').tHead.rows[0].cells) {
    if (th.dataset.key) th.addEventListener('click', () => sortBy(th.dataset.key));
  }
  $('seat-login').addEventListener('click', () => seatAction('login', 'seat-login-result', 'seat-login-spinner'));
  $('seat-trace').addEventListener('click', () => seatAction('gettracefile', 'seat-trace-result', 'seat-trace-spinner'));
  window.addEventListener('hashchange', route);
  try {
    const session = api('GET', '/api/session');
    await loadFloor();
    csrf = (await session).csrf || '';
  } catch (e) { say(e.message); }
  route();
  document.body.dataset.ready = '1';
}

document.addEventListener('DOMContentLoaded', start);
