// The live page: follows the station's events (server-sent events; the browser
// reconnects by itself) and shows the session under way.
'use strict';

const live = { session: null, requests: new Map(), tables: [] };
const $ = selector => document.querySelector(selector);
const verdictWords = { passed: 'PASSED', failed: 'FAILED', stopped: 'STOPPED by the operator',
                       no_answer: 'NO ANSWER from the camera', unfinished: 'UNFINISHED', running: 'running…' };

function showVerdict(state) {
  const verdict = $('#verdict');
  verdict.className = state;
  verdict.textContent = verdictWords[state] || state;
}

function showProgress() {
  const planned = Math.max(live.session ? live.session.requestsPlanned : 0, 1);
  const done = [...live.requests.values()].filter(r => r.answered || r.answerKind === 'none').length;
  $('#progress').max = planned;
  $('#progress').value = done;
  $('#progress-text').textContent = `${done} of ${planned} answered`;
}

function showIdentity(identity) {
  $('#identity .camera-serial').textContent = identity.cameraSerial || '–';
  $('#identity .body-serial').textContent = identity.bodySerial || '–';
  $('#identity .sensor-serial').textContent = identity.sensorSerial || '–';
  $('#identity .product-number').textContent = identity.productNumber || '–';
}

function startSession(session) {
  live.session = session;
  live.requests.clear();
  live.tables = [];
  $('#requests tbody').replaceChildren();
  $('#tables').replaceChildren();
  $('#plots').replaceChildren();
  $('#message').textContent = '';
  $('#session-name').textContent = `session ${session.id}: ${session.batch}`;
  showIdentity({});
  showVerdict('running');
  showProgress();
}

const handlers = {
  session: e => startSession(e.session),
  sent: e => { live.requests.set(e.request.seq, e.request); renderRequest($('#requests tbody'), e.request); showProgress(); },
  answer: e => {
    live.requests.set(e.request.seq, e.request);
    renderRequest($('#requests tbody'), e.request);
    showProgress();
    drawTimePlot($('#plots'), [...live.requests.values()]);
  },
  identity: e => showIdentity(e.identity),
  table: e => {
    live.tables.push(e.table);
    renderTable($('#tables'), e.table.name, e.table.csv);
    drawTablePlots($('#plots'), live.tables);
  },
  error: e => { $('#message').className = 'error'; $('#message').textContent = e.message; },
  end: e => { live.session = e.session; showVerdict(e.session.state); showProgress(); },
};

const events = new EventSource('/events');
events.onmessage = message => {
  const event = JSON.parse(message.data);
  if (handlers[event.type]) handlers[event.type](event);
};

async function post(url, body) {
  const response = await fetch(url, { method: 'POST', headers: { 'Content-Type': 'application/json' },
                                      body: JSON.stringify(body || {}) });
  const answer = await response.json().catch(() => ({ error: `HTTP ${response.status}` }));
  $('#message').className = response.ok ? '' : 'error';
  $('#message').textContent = response.ok ? '' : [answer.error, ...(answer.details || [])].join('\n');
}

$('#start-batch').addEventListener('submit', e => { e.preventDefault(); post('/api/start', { batch: $('#batch-path').value }); });
$('#send-one').addEventListener('submit', e => { e.preventDefault(); post('/api/start', { request: $('#one-request').value }); });
$('#stop').addEventListener('click', () => post('/api/stop'));
