// The page's HTTP side without a browser: what it refuses (another site's form or page, a call
// without a session, an oversized body or list, a plain listener off loopback), the cookie it
// gives, and what one address can hold of it while another is served.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import http from 'node:http';
import https from 'node:https';
import net from 'node:net';
import { startEgwd, stopEgwd, workDir, connectClient } from './egwd.mjs';

const JSON_TYPE = 'application/vnd.apache.thrift.json';
// getSession() in the Thrift JSON protocol.
const GET_SESSION = '[1,"getSession",1,0,{}]';
let egwd;

// Two Thrift sessions at most: the page's sessions must not take them.
before(async () => { egwd = await startEgwd(0, ['--max-sessions', '2', '--http-request-timeout', '3000']); });
after(async () => { if (egwd) await stopEgwd(egwd); });

const post = (path, type, body, cookie) => fetch(new URL(path, egwd.url), {
    method: 'POST',
    headers: { ...(type && { 'Content-Type': type }), ...(cookie && { Cookie: cookie }) },
    body,
});

// One request from a loopback address of its own choosing: status, text and the cookie given.
function request(path, { method = 'POST', headers = {}, body = '', from = '127.0.0.1' } = {}) {
    return new Promise((resolve, reject) => {
        const sent = http.request(new URL(path, egwd.url), {
            method, localAddress: from, agent: false,
            headers: { 'Content-Type': JSON_TYPE, 'Content-Length': Buffer.byteLength(body), ...headers },
        }, (response) => {
            let text = '';
            response.setEncoding('utf8');
            response.on('data', (chunk) => { text += chunk; });
            response.on('end', () => resolve({
                status: response.statusCode, text, cookie: response.headers['set-cookie']?.[0].split(';')[0],
            }));
        });
        sent.setTimeout(10000, () => sent.destroy(new Error(`no answer to ${path} within 10 s`)));
        sent.on('error', reject);
        sent.end(body);
    });
}
const vmRss = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${egwd.child.pid}/status`, 'utf8'))[1]);
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

let sessionsStarted = 0;
let lastCookie; // of the last session() from 127.0.0.1
let spareCookie; // a session for the last test, which comes when every place is taken
async function session() {
    const response = await post('/session', JSON_TYPE, '');
    assert.equal(response.status, 200);
    sessionsStarted++;
    lastCookie = response.headers.get('set-cookie').split(';')[0];
    return response.headers.get('set-cookie');
}

test('a session cookie is 128 random bits, HttpOnly and SameSite=Strict', async () => {
    const first = await session();
    const second = await session();
    assert.match(first, /^egwSession=[0-9a-f]{32}; Path=\/; HttpOnly; SameSite=Strict$/);
    assert.notEqual(first.split(';')[0], second.split(';')[0]);
});

test('calls are refused without the Thrift JSON type, without a session, or too large', async () => {
    const cookie = (await session()).split(';')[0];
    const answered = await post('/thrift', JSON_TYPE, GET_SESSION, cookie);
    assert.equal(answered.status, 200);
    assert.match(await answered.text(), /^\[1,"getSession",2,0,\{"0":\{"rec":\{"1":\{"i64":\d+\},"2":\{"i32":1\},"3":\{"str":"127\.0\.0\.1:\d+"\}\}\}\}\]$/);
    const refusals = [
        ['a form of another site', '/thrift', 'application/x-www-form-urlencoded', cookie, 415],
        ['plain text', '/thrift', 'text/plain', cookie, 415],
        ['no content type', '/thrift', undefined, cookie, 415],
        ['a look-alike type', '/thrift', `${JSON_TYPE}x`, cookie, 415],
        ['a session by form', '/session', 'text/plain', undefined, 415],
        ['no cookie', '/thrift', JSON_TYPE, undefined, 403],
        ['an unknown cookie', '/thrift', JSON_TYPE, 'egwSession=00000000000000000000000000000000', 403],
    ];
    for (const [what, path, type, withCookie, status] of refusals) {
        assert.equal((await post(path, type, GET_SESSION, withCookie)).status, status, what);
    }
    const oversized = await post('/thrift', JSON_TYPE, 'x'.repeat(2 * 1024 * 1024), cookie);
    assert.equal(oversized.status, 413);
    const garbage = await post('/thrift', JSON_TYPE, '[1,"getSession"', cookie);
    assert.equal(garbage.status, 400);
    const crowded = Object.fromEntries(Array.from({ length: 65 }, (_, i) => [`X-Extra-${i}`, '1']));
    assert.equal((await request('/thrift', { headers: { Cookie: cookie, ...crowded }, body: GET_SESSION })).status, 431);
});

test('an action does not wait for its session\'s long poll: the poll ends at once', async () => {
    const cookie = (await session()).split(';')[0];
    const started = Date.now();
    const poll = post('/thrift', JSON_TYPE, '[1,"nextEvents",1,0,{"1":{"i32":100},"2":{"i32":5000}}]', cookie)
        .then(async (response) => ({ ms: Date.now() - started, text: await response.text() }));
    await new Promise((resolve) => setTimeout(resolve, 300)); // the poll is waiting
    const echo = await post('/thrift', JSON_TYPE, '[1,"echo",1,0,{"1":{"i64":7}}]', cookie);
    const echoMs = Date.now() - started;
    assert.equal(await echo.text(), '[1,"echo",2,0,{"0":{"i64":7}}]');
    const polled = await poll;
    assert.equal(polled.text, '[1,"nextEvents",2,0,{"0":{"lst":["rec",0]}}]');
    assert.ok(echoMs < 2000, `the echo came ${echoMs} ms after the poll began`);
    assert.ok(polled.ms < 2000, `the poll ended ${polled.ms} ms after it began`);
});

test('the page and its files are served with a strict content policy', async () => {
    const index = await fetch(egwd.url);
    assert.equal(index.status, 200);
    assert.match(index.headers.get('content-security-policy'), /default-src 'self'/);
    assert.match(await index.text(), /<script type="module" src="page.js">/);
    assert.equal((await fetch(new URL('/page.js', egwd.url))).status, 200);
    // Only the page's own files: a path cut at a NUL byte or reaching out of the page is not one.
    for (const path of ['/../CMakeCache.txt', '/index.html%00.css', '/page.js%00', '/nothing.html']) {
        assert.equal((await fetch(new URL(path, egwd.url))).status, 404, path);
    }
});

test('state-changing requests must name this listener in Host and Origin', async () => {
    const own = egwd.url.slice(0, -1);
    let cookie;
    const cases = [
        ['another host', { Host: 'panel.example' }, 403],
        ['another port', { Host: '127.0.0.1:1' }, 403],
        ['another site\'s page', { Origin: 'http://panel.example' }, 403],
        ['a page of no origin', { Origin: 'null' }, 403],
        ['its own page', { Origin: own }, 200],
        ['localhost', { Host: `localhost:${egwd.httpPort}` }, 200],
    ];
    for (const [what, headers, status] of cases) {
        const answer = await request('/session', { headers: { ...headers, ...(cookie && { Cookie: cookie }) }, from: '127.0.0.6' });
        assert.equal(answer.status, status, what);
        if (status === 403) assert.match(answer.text, /Host or Origin is not this listener/);
        cookie = answer.cookie ?? cookie;
    }
    sessionsStarted++; // the second one took the first one's place
    const call = await request('/thrift', { headers: { Cookie: cookie, Origin: 'http://panel.example' }, body: GET_SESSION, from: '127.0.0.6' });
    assert.equal(call.status, 403);
});

test('page sessions: four per address, sixteen in all, none of the Thrift port\'s', async () => {
    // The tests above started four from 127.0.0.1: its share.
    const cookie = lastCookie;
    const refused = await request('/session');
    assert.equal(refused.status, 503);
    assert.match(refused.text, /127\.0\.0\.1 holds 4 of the page's sessions/);
    // The same browser again: its old session ends, the new one takes its place.
    assert.equal((await request('/session', { headers: { Cookie: cookie } })).status, 200);
    assert.equal((await post('/thrift', JSON_TYPE, GET_SESSION, cookie)).status, 403);
    // Another address is served at once, until the page's bound.
    const started = Date.now();
    const other = await request('/session', { from: '127.0.0.2' });
    assert.equal(other.status, 200);
    assert.ok(Date.now() - started < 1000);
    spareCookie = other.cookie;
    sessionsStarted++;
    for (let address = 3; sessionsStarted < 16 && address < 10; sessionsStarted++) {
        const answer = await request('/session', { from: `127.0.0.${address}` });
        if (answer.status === 503) address++, sessionsStarted--;
        else assert.equal(answer.status, 200);
    }
    const full = await request('/session', { from: '127.0.0.10' });
    assert.equal(full.status, 503);
    assert.match(full.text, /no more browsers/);
    // Sixteen page sessions, and the Thrift port still has both of its own.
    const clients = [await connectClient(egwd.thriftPort), await connectClient(egwd.thriftPort)];
    for (const client of clients) assert.equal(Number(await client.echo(4)), 4);
    clients.forEach((client) => client.close());
});

test('one address\'s slow or oversized requests neither take the page nor leave memory behind', async () => {
    const idle = vmRss();
    // 40 clients from 127.0.0.1 send a request head a line a second; another address is served.
    const slow = [];
    const closed = [];
    for (let i = 0; i < 40; i++) {
        const peer = net.connect({ host: '127.0.0.1', port: egwd.httpPort, localAddress: '127.0.0.1' });
        peer.on('error', () => {});
        peer.resume();
        closed.push(new Promise((resolve) => peer.on('close', () => resolve(Date.now()))));
        peer.write(`POST /session HTTP/1.1\r\nHost: 127.0.0.1:${egwd.httpPort}\r\n`);
        slow.push(peer);
    }
    const drip = setInterval(() => slow.forEach((peer) => peer.writable && peer.write('X-Slow: 1\r\n')), 1000);
    try {
        await sleep(1500);
        const started = Date.now();
        assert.equal((await request('/', { method: 'GET', from: '127.0.0.2' })).status, 200);
        assert.ok(Date.now() - started < 1000, `the page answered after ${Date.now() - started} ms`);
        // Each loses its connection by the request timeout (3 s here).
        const ends = await Promise.race([Promise.all(closed), sleep(6000).then(() => null)]);
        assert.ok(ends, 'slow clients still connected 6 s on');
    } finally {
        clearInterval(drip);
        slow.forEach((peer) => peer.destroy());
    }
    // Eight connections sending a million headers each, and a call claiming 50,000,000 items.
    const head = `GET / HTTP/1.1\r\nHost: 127.0.0.1:${egwd.httpPort}\r\n`;
    const flood = Buffer.from(head + 'X-Flood: 1\r\n'.repeat(1000000) + '\r\n');
    const answers = await Promise.all(Array.from({ length: 8 }, () => new Promise((resolve) => {
        const peer = net.connect({ host: '127.0.0.1', port: egwd.httpPort, localAddress: '127.0.0.3' });
        let first = '';
        peer.on('data', (chunk) => { first += chunk; });
        peer.on('error', () => {});
        peer.on('close', () => resolve(first.split('\r\n')[0]));
        peer.end(flood);
    })));
    // Refused after the first 32 KiB of the head; the refusal may be lost to the connection's
    // reset while the peer is still sending.
    assert.ok(answers.every((line) => line === '' || line === 'HTTP/1.1 400 Bad Request'), answers.join());
    const claimed = await request('/thrift', {
        headers: { Cookie: spareCookie }, body: '[1,"readProperties",1,0,{"1":{"lst":["rec",50000000]}}]',
    });
    assert.equal(claimed.status, 400);
    assert.match(claimed.text, /a list of 50000000 items; a request carries at most/);
    assert.ok(vmRss() < idle + 64 * 1024, `egwd grew from ${idle} KiB to ${vmRss()} KiB`);
});

test('plain HTTP off the loopback address is refused at the start', () => {
    const run = spawnSync(process.env.EGWD, ['--port', '0', '--http-port', '0', '--http-address', '0.0.0.0', '--database', `${workDir}/refused.db`],
        { encoding: 'utf8', timeout: 30000 });
    assert.equal(run.status, 2);
    assert.match(run.stderr, /^egwd: refusing plain TCP on 0\.0\.0\.0: /);
});

test('with the Thrift port\'s certificate the page is HTTPS only, and its cookie is Secure', async () => {
    const cert = `${workDir}/cert.pem`;
    const key = `${workDir}/key.pem`;
    execFileSync('openssl', ['req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-keyout', key, '-out', cert, '-days', '2',
        '-subj', '/CN=127.0.0.1', '-addext', 'subjectAltName=IP:127.0.0.1'], { stdio: 'ignore' });
    const secure = await startEgwd(0, ['--tls-cert', cert, '--tls-key', key], 'https');
    try {
        const cookie = await new Promise((resolve, reject) => {
            const request = https.request(new URL('/session', secure.url), {
                method: 'POST', ca: readFileSync(cert), headers: { 'Content-Type': JSON_TYPE, 'Content-Length': 0 },
            }, (response) => { response.resume(); resolve(response.headers['set-cookie']?.[0]); });
            request.on('error', reject);
            request.end();
        });
        assert.match(cookie, /^egwSession=[0-9a-f]{32}; Path=\/; HttpOnly; SameSite=Strict; Secure$/);
        await assert.rejects(fetch(secure.url.replace('https:', 'http:')));
    } finally {
        await stopEgwd(secure);
    }
});
