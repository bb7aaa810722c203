// Drives orvelline-simemu with node-simconnect, an independent implementation of SimConnect's
// client side, so that a layout our own client and emulator got wrong in the same way shows up.
// Usage: node simemu_interop.js PATH-TO-orvelline-simemu [2020|2024]
'use strict';
const { spawn } = require('child_process');
const assert = require('assert');
const sc = require('node-simconnect');

const emuPath = process.argv[2];
const simYear = process.argv[3] || '2020';
const TITLE = 'Airbus A320neo Interop Livery';
const KMSP = { lat: 44.882, lon: -93.2218 };

const emu = spawn(emuPath, ['--port', '0', '--sim', simYear, '--title', TITLE, '--user-at', `${KMSP.lat},${KMSP.lon}`,
    '--frame-rate', '20'], { stdio: ['pipe', 'pipe', 'inherit'] });
let output = '';
const portReady = new Promise((resolve, reject) => {
    emu.stdout.on('data', (chunk) => {
        output += chunk.toString();
        const m = output.match(/listening on [0-9.]+:(\d+)/);
        if (m) resolve(Number(m[1]));
    });
    emu.on('exit', (code) => reject(new Error(`emulator exited early (${code}): ${output}`)));
});
const exited = new Promise((resolve) => emu.on('exit', (code) => resolve(code)));

// Resolves with the first message of `kind` that `match` accepts.
function next(handle, kind, match = () => true, ms = 5000) {
    return new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`no ${kind} within ${ms} ms`)), ms);
        const on = (m) => {
            if (!match(m)) return;
            clearTimeout(timer);
            handle.off(kind, on);
            resolve(m);
        };
        handle.on(kind, on);
    });
}

async function main() {
    const port = await portReady;
    const protocol = simYear === '2024' ? sc.Protocol.SunRise : sc.Protocol.KittyHawk;
    const { recvOpen, handle } = await sc.open('orv-interop', protocol, { host: '127.0.0.1', port });
    assert.strictEqual(recvOpen.applicationName, simYear === '2024' ? 'SunRise' : 'KittyHawk');

    const EV_ADDED = 1, EV_REMOVED = 2, EV_SIM = 3;
    const simState = next(handle, 'event', (e) => e.clientEventId === EV_SIM);
    handle.subscribeToSystemEvent(EV_SIM, 'Sim');
    assert.strictEqual((await simState).data, 1, 'Sim reports running right after subscribing');
    handle.subscribeToSystemEvent(EV_ADDED, 'ObjectAdded');
    handle.subscribeToSystemEvent(EV_REMOVED, 'ObjectRemoved');

    // A known title: the assigned id arrives with the request id, and ObjectAdded names it.
    const init = new sc.InitPosition();
    Object.assign(init, { latitude: KMSP.lat + 0.01, longitude: KMSP.lon, altitude: 3000, pitch: 0, bank: 0,
        heading: 120, onGround: false, airspeed: 180 });
    const assigned = next(handle, 'assignedObjectID', (m) => m.requestID === 77);
    const added = next(handle, 'eventAddRemove', (m) => m.clientEventId === EV_ADDED);
    handle.aICreateNonATCAircraft(TITLE, 'DAL123', init, 77);
    const objectId = (await assigned).objectID;
    const addedEvent = await added;
    assert.strictEqual(addedEvent.data, objectId, 'ObjectAdded carries the new object id');
    assert.strictEqual(addedEvent.type, sc.SimObjectType.AIRCRAFT);

    // An unknown title: exception 22 carrying the create packet's send id.
    const refused = next(handle, 'exception', (e) => e.exception === 22);
    const badSendId = handle.aICreateNonATCAircraft('No Such Livery', 'N1', init, 78);
    assert.strictEqual((await refused).sendId, badSendId);

    // Query by type: the user and the new aircraft, each with its ATC ID and place.
    const DEF_QUERY = 1;
    handle.addToDataDefinition(DEF_QUERY, 'Plane Latitude', 'degrees', sc.SimConnectDataType.FLOAT64);
    handle.addToDataDefinition(DEF_QUERY, 'Plane Altitude', 'feet', sc.SimConnectDataType.FLOAT64);
    handle.addToDataDefinition(DEF_QUERY, 'Ground Altitude', 'feet', sc.SimConnectDataType.FLOAT64);
    handle.addToDataDefinition(DEF_QUERY, 'SIM ON GROUND', 'Bool', sc.SimConnectDataType.INT64);
    handle.addToDataDefinition(DEF_QUERY, 'ATC ID', null, sc.SimConnectDataType.STRING32);
    const seen = {};
    const gotBoth = new Promise((resolve) => {
        const on = (m) => {
            if (m.requestID !== 5) return;
            seen[m.objectID] = { entry: m.entryNumber, outOf: m.outOf, lat: m.data.readFloat64(),
                alt: m.data.readFloat64(), ground: m.data.readFloat64(), onGround: m.data.readInt64(),
                atcId: m.data.readString32() };
            if (Object.keys(seen).length === 2) { handle.off('simObjectDataByType', on); resolve(); }
        };
        handle.on('simObjectDataByType', on);
    });
    handle.requestDataOnSimObjectType(5, DEF_QUERY, 20000, sc.SimObjectType.AIRCRAFT);
    await gotBoth;
    const ai = seen[objectId];
    assert.ok(ai, 'the AI aircraft is in the answer');
    assert.strictEqual(ai.outOf, 2);
    assert.strictEqual(ai.atcId, 'DAL123');
    assert.strictEqual(ai.alt, 3000);
    assert.strictEqual(ai.ground, 841, 'ground altitude is the nearest airport elevation');
    assert.strictEqual(ai.onGround, 0);

    // Set data, then read it back.
    const DEF_POS = 2;
    handle.addToDataDefinition(DEF_POS, 'Plane Latitude', 'degrees', sc.SimConnectDataType.FLOAT64);
    handle.addToDataDefinition(DEF_POS, 'Plane Longitude', 'degrees', sc.SimConnectDataType.FLOAT64);
    handle.addToDataDefinition(DEF_POS, 'Plane Altitude', 'feet', sc.SimConnectDataType.FLOAT64);
    const buffer = new sc.RawBuffer(24);
    buffer.writeFloat64(44.9);
    buffer.writeFloat64(-93.3);
    buffer.writeFloat64(2500);
    handle.setDataOnSimObject(DEF_POS, objectId, { buffer, arrayCount: 0, tagged: false });
    const readBack = next(handle, 'simObjectData', (m) => m.requestID === 6);
    handle.requestDataOnSimObject(6, DEF_POS, objectId, sc.SimConnectPeriod.ONCE, 0, 0, 0, 0);
    const d = (await readBack).data;
    assert.deepStrictEqual([d.readFloat64(), d.readFloat64(), d.readFloat64()], [44.9, -93.3, 2500]);

    // Remove it: ObjectRemoved names it.
    const removed = next(handle, 'eventAddRemove', (m) => m.clientEventId === EV_REMOVED);
    handle.aIRemoveObject(objectId, 79);
    assert.strictEqual((await removed).data, objectId);

    // The simulator closing reaches the client as QUIT.
    const quit = new Promise((resolve) => handle.on('quit', resolve));
    emu.stdin.write('quit\n');
    await quit;
    assert.strictEqual(await exited, 0);
    assert.match(output, /1 objects created, 0 still there/);
    console.log(`interop ${simYear}: 1 passed, 0 failed`);
}

main().then(() => process.exit(0), (e) => {
    console.error(e.stack || String(e));
    emu.kill('SIGKILL');
    process.exit(1);
});
