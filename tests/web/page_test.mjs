// The web page in a real browser: the demo runs (emulated simulator, KMSP recording, data site),
// headless Chromium opens the page, and the test checks what a user sees and does there.
// node page_test.mjs REPO BIN ARTEFACTS
import { spawn } from 'node:child_process';
import { createRequire } from 'node:module';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';

const [, , repo, bin, artefacts] = process.argv;
// puppeteer-core as scripts/install-deps put it into build/node.
const puppeteer = createRequire(path.join(repo, 'build/node/package.json'))('puppeteer-core');
fs.mkdirSync(artefacts, { recursive: true });
let failures = 0, passes = 0;
const check = (ok, what, detail = '') => {
  if (ok) { passes++; console.log(`ok   ${what}`); } else { failures++; console.log(`FAIL ${what} ${detail}`); }
};
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const until = async (fn, ms, step = 200) => {
  const end = Date.now() + ms;
  for (;;) {
    const v = await fn();
    if (v || Date.now() > end) return v;
    await sleep(step);
  }
};
const freePort = () => new Promise((resolve) => {
  const s = net.createServer();
  s.listen(0, '127.0.0.1', () => { const { port } = s.address(); s.close(() => resolve(port)); });
});

const port = await freePort();
const base = `http://127.0.0.1:${port}`;
const config = path.join(repo, 'build/demo/config/Orvelline/parameters.xml');
const parameter = (name) => {
  const text = fs.existsSync(config) ? fs.readFileSync(config, 'utf8') : '';
  const m = text.match(new RegExp(`name="${name}" value="([^"]*)"`));
  return m ? m[1] : undefined;
};

const demo = spawn('bash', [path.join(repo, 'scripts/demo')], {
  cwd: repo,
  env: { ...process.env, DEMO_BIN: bin, DEMO_SECONDS: '110', DEMO_UI: `127.0.0.1:${port}` },
  stdio: ['ignore', fs.openSync(path.join(artefacts, 'demo.log'), 'w'), 'inherit'],
});
const demoEnded = new Promise((resolve) => demo.on('exit', resolve));

let browser;
try {
  const up = await until(async () => {
    try { return (await fetch(`${base}/api/status`)).ok; } catch { return false; }
  }, 60000, 500);
  check(up, 'the program serves the page');

  browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--window-size=1400,1100'],
  });
  const page = await browser.newPage();
  await page.setViewport({ width: 1400, height: 1100 });
  const consoleErrors = [];
  page.on('console', (m) => {
    // Map tiles cannot load without a network: that is the offline case, not a fault of the page.
    // The refused setting below answers 422 on purpose.
    if (m.type() === 'error' && !/tile\.openstreetmap|net::ERR_|status of 422/.test(m.text() + (m.location()?.url || '')))
      consoleErrors.push(m.text());
  });
  page.on('pageerror', (e) => consoleErrors.push(String(e)));
  await page.goto(`${base}/`, { waitUntil: 'domcontentloaded' });

  // The status of the running program, and its updates.
  const connected = await until(() => page.evaluate(() => document.getElementById('simulator').textContent.includes('connected')), 60000);
  check(connected, 'the status shows the simulator connected');
  const before = await page.evaluate(() => window.orv.updates);
  const t0 = Date.now();
  const updated = await until(() => page.evaluate((n) => window.orv.updates > n, before), 2500, 50);
  check(updated && Date.now() - t0 <= 2000, 'the status updates within 2 s', `${Date.now() - t0} ms`);

  // A setting: written to parameters.xml with its message; an out-of-range value is refused.
  await until(() => page.$('select[name="RANGE"]'), 10000);
  await page.select('select[name="RANGE"]', '50');
  const written = await until(() => parameter('RANGE') === '50', 5000);
  check(written, 'RANGE 50 is written to parameters.xml', parameter('RANGE'));
  await page.click('input[name="COLLISION_USER_GND"]');
  const warned = await until(() => page.evaluate(() => document.getElementById('message').textContent.startsWith('Be aware, user aircraft may collide')), 5000);
  check(warned && parameter('COLLISION_USER_GND') === 'false', 'a check box is stored and shows its message');
  const refused = await page.evaluate(async () => {
    const token = document.querySelector('meta[name="orv-token"]').content;
    const r = await fetch('/api/settings', { method: 'POST', headers: { 'Content-Type': 'application/json', 'X-Orvelline-Token': token }, body: JSON.stringify({ name: 'RANGE', value: 47 }) });
    return { status: r.status, body: await r.json() };
  });
  check(refused.status === 422 && !refused.body.ok && /not a value of/.test(refused.body.message) && parameter('RANGE') === '50',
    'an out-of-range radius is refused', JSON.stringify(refused));

  // Commands: block a callsign, check the park airports, start a livery scan.
  await page.type('input[name="BLOCK_CALLSIGN"]', 'SWA1234');
  await page.keyboard.press('Enter');
  check(await until(() => parameter('BLOCK_CALLSIGN') === 'SWA1234', 5000), 'a callsign is blocked', parameter('BLOCK_CALLSIGN'));
  const [check1] = await page.$$('xpath/.//button[text()="Check park airports"]');
  await check1.click();
  check(await until(() => page.evaluate(() => document.getElementById('message').textContent.includes('park airports')), 5000),
    'the park airports are checked');
  const [scan] = await page.$$('xpath/.//button[text()="Scan liveries"]');
  await scan.click();
  check(await until(() => parameter('SCAN_LIVERIES') === 'true', 5000), 'a livery scan is asked for the next start');

  // The map: DAL1812 and the statics of KMSP, and its stands.
  const seen = await until(() => page.evaluate(() => [...window.orv.aircraft.values()].some((a) => a.callsign === 'DAL1812')), 60000);
  check(seen, 'DAL1812 is on the map');
  await until(() => page.evaluate(() => [...window.orv.aircraft.values()].filter((a) => a.static).length >= 10), 30000);
  const shown = [];
  for (let k = 0; k < 5; ++k) {
    shown.push(...await page.evaluate(() => [...window.orv.aircraft.values()].map((a) => ({ callsign: a.callsign, lat: a.lat, lon: a.lon, static: a.static }))));
    await sleep(1000);
  }
  const stands = await page.evaluate(() => [...window.orv.stands.values()].map((s) => s.state));
  check(await page.evaluate(() => window.orv.runways) === 4, 'KMSP\'s four runways are on the map');
  check(stands.length > 100 && stands.includes('static') && stands.includes('reserved'), 'the stands of KMSP are on the map',
    `${stands.length} stands`);
  const frames = await page.evaluate(() => window.orv.frames.slice());
  console.log(`map updates: ${frames.length}, longest ${Math.max(...frames).toFixed(1)} ms`);
  await page.screenshot({ path: path.join(artefacts, 'page.png') });
  check(consoleErrors.length === 0, 'no console error', consoleErrors.join(' | '));

  // Where the emulator had them: each shown point lies on the path it recorded for that aircraft.
  await browser.close();
  browser = undefined;
  demo.kill('SIGINT');
  await demoEnded;
  const records = fs.readFileSync(path.join(repo, 'build/demo/simemu-recording.jsonl'), 'utf8').trim().split('\n').map((l) => JSON.parse(l));
  // A path starts where the object was made: the engine holds it there until the simulator
  // has confirmed it, and the map shows it there meanwhile.
  const tails = new Map(records.filter((r) => r.type === 'object').map((r) => [r.id, r.tail]));
  const paths = new Map();
  for (const r of records.filter((x) => x.type === 'object' || x.type === 'position')) {
    const tail = tails.get(r.id);
    if (!paths.has(tail)) paths.set(tail, []);
    paths.get(tail).push(r);
  }
  const metres = (a, b) => {
    const dy = (a.lat - b.lat) * 111195, dx = (a.lon - b.lon) * 111195 * Math.cos(a.lat * Math.PI / 180);
    return Math.hypot(dx, dy);
  };
  const offPath = (p, line) => {
    let best = Infinity;
    for (let i = 0; i < line.length; ++i) {
      best = Math.min(best, metres(p, line[i]));
      if (i + 1 < line.length) { // along the segment to the next recorded point
        const a = line[i], b = line[i + 1];
        for (let f = 0.1; f < 1; f += 0.1) best = Math.min(best, metres(p, { lat: a.lat + (b.lat - a.lat) * f, lon: a.lon + (b.lon - a.lon) * f }));
      }
    }
    return best;
  };
  let compared = 0, worst = 0, worstWhat = '';
  for (const p of shown) {
    const line = paths.get(p.callsign);
    if (!line) continue;
    const d = offPath(p, line);
    compared++;
    if (d > worst) { worst = d; worstWhat = p.callsign; }
  }
  check(compared > 0 && worst <= 10, 'the map shows the aircraft within 10 m of where the emulator has them',
    `${compared} points compared, worst ${worst.toFixed(1)} m (${worstWhat})`);
} catch (e) {
  check(false, 'the page test ran to its end', String(e && e.stack || e));
} finally {
  if (browser) await browser.close();
  demo.kill('SIGINT');
  await Promise.race([demoEnded, sleep(15000)]);
}
console.log(`${passes} passed, ${failures} failed`);
process.exit(failures ? 1 : 0);
