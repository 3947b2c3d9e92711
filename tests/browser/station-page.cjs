// Drives the station's pages in headless chromium: the example session live (each
// request appears as sent, the progress advances, the provoked failure is marked,
// the plots are drawn, the verdict), then the history and its exports.
'use strict';
const { chromium } = require('playwright-core');
const { spawn } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

const build = process.env.PM_BUILD_DIR, source = process.env.PM_SOURCE_DIR;
const shots = path.join(build, 'screenshots');
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'pmode-browser-'));
const root = path.join(work, 'root');
fs.mkdirSync(root);
const children = [];
let failures = 0;

function check(ok, what) {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}`);
  if (!ok) failures++;
}

function start(program, args) {
  const child = spawn(path.join(build, 'tools', program, program), args, { stdio: ['ignore', 'pipe', 'pipe'] });
  child.output = '';
  for (const stream of [child.stdout, child.stderr]) stream.on('data', d => { child.output += d; });
  children.push(child);
  return child;
}

function waitFor(child, pattern, ms) {
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`no ${pattern} within ${ms} ms:\n${child.output}`)), ms);
    const look = () => {
      const match = child.output.match(pattern);
      if (match) { clearTimeout(timer); resolve(match); } else setTimeout(look, 50);
    };
    look();
  });
}

async function canvasDrawn(page) {
  return page.$$eval('canvas.plot', canvases => canvases.map(c => {
    const pixels = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
    for (let i = 3; i < pixels.length; i += 4) if (pixels[i] !== 0) return true;
    return false;
  }));
}

async function main() {
  fs.mkdirSync(shots, { recursive: true });
  // The station first, with the example session: it waits for the camera, so the
  // page is open before the first request goes out.
  const station = start('pmode-station', ['--root', root, '--port', '0', '--db', path.join(work, 'station.db'),
                                          '--batch', path.join(source, 'examples/pc/session.batch'),
                                          '--name', 'browser-test', '--wait', '60', '--timeout', '15']);
  const url = (await waitFor(station, /station: (http:\/\/127\.0\.0\.1:\d+\/)/, 20000))[1];
  const browser = await chromium.launch({ executablePath: process.env.PM_CHROMIUM, headless: true,
                                          args: ['--no-sandbox', '--disable-gpu'] });
  try {
    const context = await browser.newContext({ acceptDownloads: true, viewport: { width: 1280, height: 900 } });
    const page = await context.newPage();
    // Every state a request row shows, and every progress, as the page changes them.
    await page.addInitScript(() => {
      window.seen = { rows: {}, progress: [] };
      new MutationObserver(() => {
        for (const row of document.querySelectorAll('#requests tr.request')) {
          const states = (window.seen.rows[row.dataset.seq] ||= []);
          if (states[states.length - 1] !== row.dataset.state) states.push(row.dataset.state);
        }
        const progress = document.querySelector('progress#progress');
        if (progress && window.seen.progress[window.seen.progress.length - 1] !== progress.value)
          window.seen.progress.push(progress.value);
      }).observe(document, { subtree: true, childList: true, attributes: true, characterData: true });
    });
    await page.goto(url);
    await page.waitForFunction(() => document.querySelector('#verdict').className === 'running', null, { timeout: 10000 });
    check((await page.$$('#requests tr.request')).length === 0, 'the session waits for the camera with no request sent');

    start('pmode-sim', ['--root', root, '--card', path.join(source, 'examples/card'), '--host-link',
                        '--serve-seconds', '120', '--quiet']);
    await page.waitForFunction(() => ['passed', 'failed', 'no_answer', 'stopped'].includes(
      document.querySelector('#verdict').className), null, { timeout: 60000 });

    const verdict = await page.textContent('#verdict');
    check(verdict.trim() === 'PASSED', `the verdict is PASSED (${verdict})`);
    const rows = await page.$$eval('#requests tr.request', rs => rs.map(r => ({
      seq: r.dataset.seq, state: r.dataset.state, text: r.querySelector('.text').textContent,
      answer: r.querySelector('.answer').textContent, verdict: r.querySelector('.verdict').textContent,
      expectFail: r.classList.contains('expect-fail') })));
    check(rows.length === 20, `20 requests shown (${rows.length})`);
    const seen = await page.evaluate(() => window.seen);
    const sentFirst = Object.values(seen.rows).filter(states => states[0] === 'sent' && states.length === 2).length;
    check(sentFirst === 20, `each request appeared as sent, then was answered (${sentFirst} of 20)`);
    const progress = seen.progress.map(Number);
    check(progress.length >= 10 && progress.every((v, i) => i === 0 || v > progress[i - 1]) && progress.at(-1) === 20,
          `the progress advanced step by step to 20 (${progress.join(' ')})`);
    const provoked = rows.find(r => r.text.includes('focus_check 3 fail'));
    check(provoked && provoked.expectFail && /FAILED/.test(provoked.answer) && provoked.verdict === 'PASS (failure expected)',
          `the provoked failure is marked (${JSON.stringify(provoked)})`);
    check(rows.filter(r => r.state === 'pass').length === 20, 'every request passed as the PC judges it');
    check((await page.textContent('#identity .sensor-serial')).trim() === '40718833', 'the sensor serial is learnt');
    const drawn = await canvasDrawn(page);
    check(drawn.length >= 2 && drawn.every(Boolean), `the plots are drawn (${drawn.length} canvases, ${drawn})`);
    check((await page.$$('#tables table.data')).length >= 2, 'the received tables are shown as tables');
    await page.screenshot({ path: path.join(shots, 'station-live.png'), fullPage: true });

    await page.goto(url + 'history');
    await page.waitForSelector('#sessions tr.session');
    const sessions = await page.$$eval('#sessions tr.session', rs => rs.map(r => r.dataset.state));
    check(sessions.length === 1 && sessions[0] === 'passed', `the history lists the session as passed (${sessions})`);
    await page.click('#sessions tr.session a');
    await page.waitForSelector('#record-requests tr.request');
    check((await page.$$('#record-requests tr.request')).length === 20, 'the session record shows its 20 requests');
    const [jsonDownload] = await Promise.all([page.waitForEvent('download'), page.click('a.export-json')]);
    const record = JSON.parse(fs.readFileSync(await jsonDownload.path(), 'utf8'));
    check(record.session.state === 'passed' && record.requests.length === 20 && record.tables.length >= 3,
          `the JSON export downloads (${jsonDownload.suggestedFilename()}: ${record.requests.length} requests, ${record.tables.length} tables)`);
    const [csvDownload] = await Promise.all([page.waitForEvent('download'), page.click('a.export-csv')]);
    const csv = fs.readFileSync(await csvDownload.path(), 'utf8').trim().split(/\r?\n/);
    check(csv.length === 2 && csv[1].includes(',passed,20,40718833,'), `the CSV export downloads (${csv[1]})`);
    const drawnHistory = await canvasDrawn(page);
    check(drawnHistory.length >= 2 && drawnHistory.every(Boolean), 'the record\'s plots are drawn');
    await page.screenshot({ path: path.join(shots, 'station-history.png'), fullPage: true });
  } finally {
    await browser.close();
  }
}

main().catch(error => { console.log(`FAIL ${error.stack || error}`); failures++; }).finally(() => {
  for (const child of children) child.kill('SIGINT');
  setTimeout(() => {
    for (const child of children) if (child.exitCode === null) child.kill('SIGKILL');
    fs.rmSync(work, { recursive: true, force: true });
    console.log(failures === 0 ? 'browser test passed' : `browser test: ${failures} failure(s)`);
    process.exit(failures === 0 ? 0 : 1);
  }, 1500);
});
