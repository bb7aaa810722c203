// The page: status from the program's event stream, the live map, settings and commands.
import * as L from '/assets/leaflet/leaflet-src.esm.js';

const token = document.querySelector('meta[name="orv-token"]').content;
const $ = (id) => document.getElementById(id);

// What tests and the curious can look at: the aircraft as drawn, the stands, the updates.
const orv = { aircraft: new Map(), stands: new Map(), updates: 0, lastSequence: 0, frames: [], times: [] };
window.orv = orv;

// ---- Status -----------------------------------------------------------------------------------

const lightClass = ['', 'on', 'stale', 'off'];
function light(id, value) {
  const el = $(`light-${id}`);
  el.className = `light ${lightClass[value] || ''}`;
}

function showStatus(s) {
  $('version').textContent = `version ${s.version}`;
  for (const k of ['simulator', 'realTraffic', 'traffic', 'weather']) light(k, s.indicators[k]);
  $('qnh').textContent = s.indicators.weather === 1 || s.indicators.weather === 2 ? `qnh: ${s.qnh}` : '';
  $('simulator').textContent = s.simulator || 'waiting for the simulator';
  $('user').textContent = s.user.known
    ? `user ${s.userTitle ? `(${s.userTitle}) ` : ''}at ${s.user.lat.toFixed(4)}, ${s.user.lon.toFixed(4)}${s.nearest ? ` near ${s.nearest}` : ''}`
    : '';
  $('realTraffic').textContent = s.realTraffic ? `| ${s.realTraffic}` : '| RealTraffic not connected';
  const l = s.lines;
  $('counts').textContent =
    `traffic lines ${l.received} (queued ${l.queued}, dropped ${l.dropped}, ignored ${l.ignored}, failed ${l.failed}), ` +
    `engine took ${l.taken} | live: ${s.live.active} active, ${s.live.waiting} waiting, ${s.live.creating} being created, ` +
    `${s.live.leaving} leaving | ${s.liveries} liveries`;
  $('park').textContent = s.parkAirport
    ? `park airport ${s.parkAirport}, qf: ${s.parkQuality || '?'}, static: ${s.statics} of ${s.planned}` +
      (s.reservedStand ? `, reserved stand: ${s.reservedStand}` : '')
    : 'no park airport';
  const scans = [];
  if (s.liveryScan.found > s.liveryScan.done) scans.push(`scanning liveries: ${s.liveryScan.done} of ${s.liveryScan.found}`);
  if (s.airportScan.running)
    scans.push(`scanning add-on airports: folder ${s.airportScan.folder + 1} of ${s.airportScan.folders}, ` +
               `${s.airportScan.files} files, ${s.airportScan.airports} airports`);
  $('scan').textContent = scans.join(' | ');
  $('message').textContent = s.message;
  $('error').textContent = s.error;
}

// ---- The map ----------------------------------------------------------------------------------

const map = L.map('map', { preferCanvas: true, zoomControl: true }).setView([44.88, -93.22], 12);
const tiles = L.tileLayer('https://tile.openstreetmap.org/{z}/{x}/{y}.png', {
  maxZoom: 19, attribution: '&copy; OpenStreetMap contributors',
});
let tileErrors = 0;
tiles.on('tileerror', () => {
  // Offline: a plain background; the stands and aircraft are drawn all the same.
  if (++tileErrors === 4) { map.removeLayer(tiles); $('map').classList.add('plain'); }
});
tiles.addTo(map);
const runwayLayer = L.layerGroup().addTo(map);
const standLayer = L.layerGroup().addTo(map);
let runwaysShown = '';
let userMarker = null;
let centred = false;

const standColour = { free: '#6c7a89', static: '#4f8cff', live: '#32cd32', reserved: '#ffd700' };
const phaseColour = (a) => {
  if (a.static) return '#4f8cff';
  if (a.state !== 'active') return '#aaaaaa';
  if (a.phase === 'parked' || a.phase === 'parking') return '#32cd32';
  if (a.ground) return '#ffa500';
  return '#ff5ad2';
};

// All aircraft on one canvas above the map: a marker element each would cost the page far more
// than a frame's time once a thousand of them move every second.
class AircraftCanvas {
  constructor(theMap) {
    this.map = theMap;
    this.items = [];
    const c = (this.canvas = document.createElement('canvas'));
    Object.assign(c.style, { position: 'absolute', left: '0', top: '0', pointerEvents: 'none', zIndex: 450 });
    theMap.getContainer().appendChild(c);
    theMap.on('move zoom resize viewreset', () => this.draw());
    theMap.on('click', (e) => {
      let best = null, bestD = 12;
      for (const a of this.items) {
        const p = theMap.latLngToContainerPoint([a.lat, a.lon]);
        const d = Math.hypot(p.x - e.containerPoint.x, p.y - e.containerPoint.y);
        if (d < bestD) { best = a; bestD = d; }
      }
      if (best) showRecord(best.hexid); else $('record').hidden = true;
    });
  }
  set(items) { this.items = items; this.draw(); }
  draw() {
    const size = this.map.getSize();
    const ratio = window.devicePixelRatio || 1;
    const c = this.canvas;
    if (c.width !== size.x * ratio || c.height !== size.y * ratio) {
      c.width = size.x * ratio; c.height = size.y * ratio;
      c.style.width = `${size.x}px`; c.style.height = `${size.y}px`;
    }
    const ctx = c.getContext('2d');
    ctx.setTransform(1, 0, 0, 1, 0, 0);
    ctx.clearRect(0, 0, c.width, c.height);
    ctx.lineWidth = 1;
    ctx.strokeStyle = '#000';
    for (const a of this.items) {
      const p = this.map.latLngToContainerPoint([a.lat, a.lon]);
      if (p.x < -10 || p.y < -10 || p.x > size.x + 10 || p.y > size.y + 10) continue;
      const h = (a.hdg * Math.PI) / 180;
      const cos = Math.cos(h) * ratio, sin = Math.sin(h) * ratio;
      ctx.setTransform(cos, sin, -sin, cos, p.x * ratio, p.y * ratio);
      ctx.beginPath();
      ctx.moveTo(0, -9); ctx.lineTo(6, 8); ctx.lineTo(0, 4); ctx.lineTo(-6, 8); ctx.closePath();
      ctx.fillStyle = a.colour;
      ctx.fill();
      ctx.stroke();
    }
    // Callsign and type beside each arrow when they fit: zoomed in, or few on the screen.
    ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
    const labels = this.map.getZoom() >= 13 || this.items.length <= 200;
    if (labels) {
      ctx.font = '11px system-ui, sans-serif';
      ctx.fillStyle = '#e8e8e8';
      for (const a of this.items) {
        if (a.static && this.map.getZoom() < 16) continue;
        const p = this.map.latLngToContainerPoint([a.lat, a.lon]);
        if (p.x < 0 || p.y < 0 || p.x > size.x || p.y > size.y) continue;
        ctx.fillText(`${a.callsign} ${a.type}${a.step >= 0 ? ` =${a.step}=` : ''}`, p.x + 10, p.y + 4);
      }
    }
    ctx.setTransform(1, 0, 0, 1, 0, 0);
  }
}
const aircraftCanvas = new AircraftCanvas(map);

async function showRecord(hexid) {
  const r = await fetch(`/api/aircraft?hexid=${hexid}`);
  const box = $('record');
  if (!r.ok) { box.hidden = true; return; }
  const a = await r.json();
  box.hidden = false;
  box.innerHTML = '';
  const rows = [
    ['callsign', a.callsign], ['registration', a.reg], ['type', a.type], ['livery', a.title],
    ['livery step', a.step >= 0 ? a.step : '-'], ['phase', a.phase], ['state', a.state],
    ['altitude', `${a.alt} ft`], ['data age', a.age >= 0 ? `${a.age.toFixed(0)} s` : 'static'],
  ];
  for (const [k, v] of rows) {
    const div = document.createElement('div');
    div.textContent = `${k}: ${v}`;
    box.appendChild(div);
  }
}

function drawMap(s) {
  const t0 = performance.now();
  if (s.user.known) {
    const at = [s.user.lat, s.user.lon];
    if (!userMarker) {
      userMarker = L.circleMarker(at, { radius: 8, color: '#fff', weight: 3, fillColor: '#ff0000', fillOpacity: 1 })
        .bindTooltip('you').addTo(map);
    } else {
      userMarker.setLatLng(at);
    }
    if (!centred) { map.setView(at, 14); centred = true; }
  }
  // The park airport's runways: what shows where the airport is when no tiles load.
  const runwayKey = JSON.stringify(s.runways || []);
  if (runwayKey !== runwaysShown) {
    runwaysShown = runwayKey;
    runwayLayer.clearLayers();
    for (const [lat1, lon1, lat2, lon2] of s.runways || [])
      L.polyline([[lat1, lon1], [lat2, lon2]], { color: '#8a94a6', weight: 7, opacity: 0.9, interactive: false }).addTo(runwayLayer);
  }
  orv.runways = (s.runways || []).length;
  const seenStands = new Set();
  for (const st of s.stands || []) {
    seenStands.add(st.id);
    let item = orv.stands.get(st.id);
    if (!item) {
      const circle = L.circle([st.lat, st.lon], { radius: Math.max(st.r, 5), weight: 1 }).bindTooltip(st.id);
      circle.addTo(standLayer);
      item = { circle, state: '' };
      orv.stands.set(st.id, item);
    }
    if (item.state !== st.state) {
      item.state = st.state;
      const c = standColour[st.state];
      item.circle.setStyle({ color: c, fillColor: c, fillOpacity: 0.35 });
    }
    item.lat = st.lat; item.lon = st.lon;
  }
  for (const [id, item] of orv.stands) if (!seenStands.has(id)) { standLayer.removeLayer(item.circle); orv.stands.delete(id); }

  const seen = new Set();
  const drawn = [];
  for (const a of s.aircraft || []) {
    seen.add(a.hexid);
    const item = { hexid: a.hexid, lat: a.lat, lon: a.lon, hdg: a.hdg, colour: phaseColour(a),
                   callsign: a.callsign, type: a.type, step: a.step, static: a.static };
    orv.aircraft.set(a.hexid, item);
    drawn.push(item);
  }
  for (const hexid of orv.aircraft.keys()) if (!seen.has(hexid)) orv.aircraft.delete(hexid);
  aircraftCanvas.set(drawn);
  orv.frames.push(performance.now() - t0);
  if (orv.frames.length > 120) orv.frames.shift();
}

// ---- The stream -------------------------------------------------------------------------------

function onSnapshot(s) {
  if (!s.sequence) return;
  orv.lastSequence = s.sequence;
  orv.updates++;
  if (orv.times.length < 100) orv.times.push(performance.now());
  showStatus(s);
  drawMap(s);
}

function connect() {
  const events = new EventSource('/api/events?map');
  events.onmessage = (e) => onSnapshot(JSON.parse(e.data));
  events.onerror = () => { $('error').textContent = 'The program does not answer: is it still running?'; };
  events.onopen = () => { if ($('error').textContent.startsWith('The program')) $('error').textContent = ''; };
}

// ---- Settings and commands --------------------------------------------------------------------

async function post(path, body) {
  const r = await fetch(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Orvelline-Token': token },
    body: JSON.stringify(body),
  });
  let answer = { ok: false, message: `${r.status}` };
  try { answer = await r.json(); } catch { /* not JSON */ }
  $('message').textContent = answer.message;
  return answer;
}

function control(s) {
  const row = document.createElement('label');
  row.className = 'setting';
  const name = document.createElement('span');
  name.textContent = s.label;
  row.appendChild(name);
  let input;
  const send = async (value, restore) => {
    const answer = await post('/api/settings', { name: s.name, value });
    if (!answer.ok) restore(); else s.value = value;
  };
  if (s.kind === 'check') {
    input = document.createElement('input');
    input.type = 'checkbox';
    input.checked = s.value;
    input.addEventListener('change', () => send(input.checked, () => { input.checked = s.value; }));
  } else if (s.kind === 'choice') {
    input = document.createElement('select');
    for (const v of s.allowed) {
      const o = document.createElement('option');
      o.value = String(v); o.textContent = String(v);
      if (String(v) === String(s.value)) o.selected = true;
      input.appendChild(o);
    }
    input.addEventListener('change', () => send(input.value, () => { input.value = String(s.value); }));
    const range = document.createElement('small');
    range.textContent = typeof s.allowed[0] === 'number' ? `${s.allowed[0]}..${s.allowed[s.allowed.length - 1]}` : '';
    row.appendChild(range);
  } else {
    input = document.createElement('input');
    input.type = 'text';
    input.value = s.value;
    input.maxLength = s.allowed[1];
    input.placeholder = `${s.allowed[0]}-${s.allowed[1]} characters`;
    input.addEventListener('keydown', (e) => {
      if (e.key === 'Enter') send(input.value, () => { input.value = s.value; });
    });
  }
  input.name = s.name;
  input.disabled = !s.enabled;
  row.appendChild(input);
  return row;
}

async function loadSettings() {
  const list = await (await fetch('/api/settings')).json();
  const box = $('settings');
  const groups = new Map();
  for (const s of list) {
    if (!groups.has(s.group)) {
      const h = document.createElement('h3');
      h.textContent = s.group;
      box.appendChild(h);
      const div = document.createElement('div');
      box.appendChild(div);
      groups.set(s.group, div);
    }
    groups.get(s.group).appendChild(control(s));
  }
}

function buttons() {
  const box = $('buttons');
  for (const name of ['Unblock', 'Now', 'Flush static', 'Re-read', 'Check park airports', 'Scan liveries', 'Scan airports']) {
    const b = document.createElement('button');
    b.textContent = name;
    b.addEventListener('click', () => post('/api/command', { name }));
    box.appendChild(b);
  }
}

async function loadLog() {
  try {
    const text = await (await fetch('/api/log')).text();
    const lines = text.trimEnd().split('\n');
    const pre = $('log');
    pre.textContent = lines.slice(-60).join('\n');
    pre.scrollTop = pre.scrollHeight;
  } catch { /* the program went away; the stream says so */ }
}

buttons();
loadSettings();
connect();
loadLog();
setInterval(loadLog, 5000);
