// Starts egwd on the sample panel on free loopback ports with the operator page, and a Thrift
// client of its port written with the npm thrift package: what the browser tests stand on.
import { spawn } from 'node:child_process';
import { createRequire } from 'node:module';
import { mkdtempSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';

// NODE_PATH (web/node_modules) is where the generated client and these find the npm packages.
export const require = createRequire(import.meta.url);
const thrift = require('thrift');
const PanelService = require(path.join(process.env.EGW_GEN_JS, 'PanelService.js'));
export const types = require(path.join(process.env.EGW_GEN_JS, 'panelService_types.js'));

export const workDir = mkdtempSync(path.join(tmpdir(), 'egw-web-'));
export const database = path.join(workDir, 'egwd.db');

// egwd with the page on httpPort (0: any free one), served over scheme; resolves once both ports
// are printed (a large panel takes a while to load).
export function startEgwd(httpPort = 0, extra = [], scheme = 'http', db = database) {
    const child = spawn(process.env.EGWD, ['--port', '0', '--http-port', String(httpPort), '--database', db, ...extra],
        { stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    let err = '';
    child.stderr.on('data', (chunk) => { err += chunk; });
    return new Promise((resolve, reject) => {
        const timer = setTimeout(() => { child.kill('SIGKILL'); reject(new Error(`egwd did not start: ${err}`)); }, 120000);
        child.on('exit', (code) => { clearTimeout(timer); reject(new Error(`egwd ended (${code}): ${err}`)); });
        child.stdout.on('data', (chunk) => {
            out += chunk;
            const page = new RegExp(`operator page on (${scheme}://127\\.0\\.0\\.1:(\\d+)/)`).exec(out);
            const thriftPort = / on 127\.0\.0\.1:(\d+) \(/.exec(out);
            if (page && thriftPort) {
                clearTimeout(timer);
                child.removeAllListeners('exit');
                resolve({ child, url: page[1], httpPort: Number(page[2]), thriftPort: Number(thriftPort[1]) });
            }
        });
    });
}

export function stopEgwd(egwd) {
    return new Promise((resolve) => {
        if (egwd.child.exitCode !== null) return resolve();
        const timer = setTimeout(() => egwd.child.kill('SIGKILL'), 20000);
        egwd.child.on('exit', () => { clearTimeout(timer); resolve(); });
        egwd.child.kill('SIGTERM');
    });
}

// A client of egwd's Thrift port (framed transport, binary protocol).
export function connectClient(port) {
    const connection = thrift.createConnection('127.0.0.1', port, {
        transport: thrift.TFramedTransport,
        protocol: thrift.TBinaryProtocol,
    });
    connection.on('error', () => {});
    const client = thrift.createClient(PanelService, connection);
    client.close = () => connection.end();
    return new Promise((resolve, reject) => {
        connection.once('connect', () => resolve(client));
        connection.once('error', reject);
    });
}

export const num = (value) => (typeof value === 'number' ? value : value.toNumber(true));

// The sample panel's elements by label (its labels are unique): uuid and ID string.
export async function elementsByLabel(client) {
    const byLabel = new Map();
    const request = new types.SnapshotRequest({ root: 0, propertyIds: [0x30002], withStates: false, depth: 0, after: 0, max: 0 });
    const elements = [];
    do {
        const page = await client.snapshot(request);
        elements.push(...page.elements);
        request.after = page.nextAfter;
    } while (num(request.after) !== 0);
    for (const snap of elements) {
        const value = snap.properties[0]?.value;
        if (value?.present) {
            const label = value.bytes.toString('utf8').replace(/\0+$/, '');
            byLabel.set(label, { uuid: num(snap.uuid), idString: snap.idString });
        }
    }
    return byLabel;
}
