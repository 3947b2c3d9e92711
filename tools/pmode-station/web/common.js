// Shared by the live and the history page: rendering a request, a table, a plot.
'use strict';

function el(tag, attrs, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs || {})) {
    if (key === 'class') node.className = value;
    else if (key === 'text') node.textContent = value;
    else node.setAttribute(key, value);
  }
  for (const child of children) if (child != null) node.append(child);
  return node;
}

function hex(value) { return '0x' + (value >>> 0).toString(16).toUpperCase(); }

/** The answer of a request record in words: code and parameters, data block, file. */
function answerText(r) {
  if (!r.answered) return r.answerKind === 'none' ? r.describe : 'waiting…';
  if (r.answerKind === 'response') return `response ${hex(r.code)} ${hex(r.value2)} ${hex(r.value3)}: ${r.describe}`;
  return r.describe;
}

function requestState(r) { return !r.answered && r.answerKind !== 'none' ? 'sent' : (r.passed ? 'pass' : 'fail'); }

/** Fills (or creates) the row of a request record in tbody. */
function renderRequest(tbody, r) {
  let row = tbody.querySelector(`tr.request[data-seq="${r.seq}"]`);
  if (!row) { row = el('tr', { class: 'request', 'data-seq': String(r.seq) }); tbody.append(row); }
  const state = requestState(r);
  row.setAttribute('data-state', state);
  if (r.expectFail) row.classList.add('expect-fail');
  const answer = el('td', { class: 'answer' }, answerText(r));
  if (r.answered && r.answerKind !== 'response' && r.data) answer.append(el('pre', { text: r.data }));
  const verdict = state === 'sent' ? '…' : (state === 'pass' ? (r.expectFail ? 'PASS (failure expected)' : 'PASS') : 'FAIL');
  row.replaceChildren(el('td', { text: String(r.seq) }),
                      el('td', { class: 'text', text: r.text }),
                      answer, el('td', { class: 'verdict', text: verdict }),
                      el('td', { text: state === 'sent' ? '' : `${Math.round(r.millis)} ms` }));
}

function parseCsv(text) {
  const rows = [];
  for (const line of text.split(/\r?\n/)) if (line.trim() !== '') rows.push(line.split(','));
  return rows;
}

function isNumeric(value) { return value !== undefined && value.trim() !== '' && !isNaN(Number(value)); }

/** Columns worth plotting: numbers in every row, not the index or a serial number. */
function plotColumns(header, rows) {
  const skip = /^(index|cis s\/n|serial|pass)$/i;
  return header.map((name, i) => i).filter(i => !skip.test(header[i]) && rows.every(r => isNumeric(r[i])));
}

/** A table as an HTML table, or as text when it is none. */
function renderTable(container, name, csv) {
  const rows = parseCsv(csv);
  const box = el('div', { class: 'received', 'data-name': name }, el('h3', { text: name }));
  if (rows.length < 2 || rows[0].length < 2) { box.append(el('pre', { text: csv })); container.append(box); return; }
  const table = el('table', { class: 'data' });
  table.append(el('tr', {}, ...rows[0].map(h => el('th', { text: h }))));
  for (const r of rows.slice(1)) table.append(el('tr', {}, ...r.map(v => el('td', { text: v }))));
  box.append(table);
  container.append(box);
}

const charts = new Map();

/** Draws (or redraws) a plot; without the chart library it says so instead. */
function drawPlot(container, id, title, labels, datasets, type) {
  let canvas = container.querySelector(`canvas.plot[data-plot="${CSS.escape(id)}"]`);
  if (typeof Chart === 'undefined') {
    if (!container.querySelector('.no-charts'))
      container.append(el('p', { class: 'no-charts error', text: 'The chart library is not installed: no plots.' }));
    return;
  }
  if (!canvas) {
    canvas = el('canvas', { class: 'plot', 'data-plot': id });
    container.append(el('div', { class: 'plot-box' }, canvas));
  }
  if (charts.has(canvas)) charts.get(canvas).destroy();
  charts.set(canvas, new Chart(canvas, {
    type: type || 'line',
    data: { labels, datasets },
    options: { animation: false, maintainAspectRatio: false, plugins: { title: { display: true, text: title } } },
  }));
}

/** Plots of the tables received so far, rows of the same name joined (one row a pass). */
function drawTablePlots(container, tables) {
  const joined = new Map();
  for (const t of tables) {
    const rows = parseCsv(t.csv);
    if (rows.length < 2) continue;
    const entry = joined.get(t.name) || { header: rows[0], rows: [] };
    if (entry.header.join() === rows[0].join()) entry.rows.push(...rows.slice(1));
    joined.set(t.name, entry);
  }
  for (const [name, { header, rows }] of joined) {
    const columns = plotColumns(header, rows);
    if (columns.length === 0) continue;
    const passColumn = header.findIndex(h => /^pass$/i.test(h));
    const labels = rows.map((r, i) => passColumn >= 0 ? `pass ${r[passColumn]}` : `row ${i + 1}`);
    const datasets = columns.map(i => ({ label: header[i], data: rows.map(r => Number(r[i])) }));
    drawPlot(container, 'table:' + name, name, labels, datasets, rows.length > 1 ? 'line' : 'bar');
  }
}

/** The time each request took, as bars. */
function drawTimePlot(container, requests) {
  const answered = requests.filter(r => r.answered || r.answerKind === 'none');
  if (answered.length === 0) return;
  drawPlot(container, 'times', 'time per request (ms)', answered.map(r => `#${r.seq}`),
           [{ label: 'ms', data: answered.map(r => Math.round(r.millis)),
              backgroundColor: answered.map(r => r.passed ? '#4caf6e' : '#d9434b') }], 'bar');
}
