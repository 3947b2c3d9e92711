// The history page: past sessions by filter, the yield per step, one session's record.
'use strict';

const $ = selector => document.querySelector(selector);

function query() {
  const params = new URLSearchParams();
  for (const [key, value] of new FormData($('#filter'))) if (value) params.set(key, value);
  return params.toString();
}

async function getJson(url) {
  const response = await fetch(url);
  const body = await response.json().catch(() => ({ error: `HTTP ${response.status}` }));
  if (!response.ok) throw new Error(body.error || `HTTP ${response.status}`);
  return body;
}

async function showSessions() {
  const q = query();
  $('.export-csv').href = '/api/sessions.csv' + (q ? '?' + q : '');
  try {
    const [sessions, steps] = await Promise.all([getJson('/api/sessions?' + q), getJson('/api/yield?' + q)]);
    $('#message').textContent = sessions.length === 0 ? 'no session matches' : '';
    $('#sessions tbody').replaceChildren(...sessions.map(s => {
      const open = el('a', { href: `#${s.id}`, text: 'open' });
      return el('tr', { class: 'session', 'data-id': String(s.id), 'data-state': s.state },
                el('td', { text: String(s.id) }), el('td', { text: s.startedAt }), el('td', { text: s.station }),
                el('td', { text: s.batch }), el('td', { text: s.cameraSerial }), el('td', { text: s.productNumber }),
                el('td', { class: 'state-' + s.state, text: s.state }), el('td', {}, open));
    }));
    $('#yield tbody').replaceChildren(...steps.map(y => el('tr', { class: 'yield' },
      el('td', { text: y.step }), el('td', { text: String(y.passed) }), el('td', { text: String(y.failed) }),
      el('td', { text: `${Math.round(100 * y.passed / Math.max(1, y.passed + y.failed))} %` }))));
  } catch (error) {
    $('#message').className = 'error';
    $('#message').textContent = error.message;
  }
}

async function showRecord(id) {
  if (!id) { $('#record').hidden = true; return; }
  try {
    const record = await getJson(`/api/sessions/${encodeURIComponent(id)}`);
    const s = record.session;
    $('#record').hidden = false;
    $('#record-title').textContent = `session ${s.id}: ${s.batch}, ${s.state}, camera ${s.cameraSerial || '–'}, ${s.startedAt} – ${s.endedAt || '…'}`;
    $('.export-json').href = `/api/sessions/${s.id}/export.json`;
    const tbody = $('#record-requests tbody');
    tbody.replaceChildren();
    for (const r of record.requests) renderRequest(tbody, r);
    $('#record-tables').replaceChildren();
    $('#record-plots').replaceChildren();
    for (const t of record.tables) renderTable($('#record-tables'), t.name, t.csv);
    drawTimePlot($('#record-plots'), record.requests);
    drawTablePlots($('#record-plots'), record.tables);
  } catch (error) {
    $('#record').hidden = true;
    $('#message').className = 'error';
    $('#message').textContent = error.message;
  }
}

$('#filter').addEventListener('submit', e => { e.preventDefault(); showSessions(); });
window.addEventListener('hashchange', () => showRecord(location.hash.slice(1)));
showSessions();
showRecord(location.hash.slice(1));
