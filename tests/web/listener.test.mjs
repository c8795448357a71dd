// The page's HTTP side without a browser: what it refuses (another site's form, a call without a
// session, an oversized body, a plain listener off loopback) and the cookie it gives.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import https from 'node:https';
import { startEgwd, stopEgwd, workDir } from './egwd.mjs';

const JSON_TYPE = 'application/vnd.apache.thrift.json';
// getSession() in the Thrift JSON protocol.
const GET_SESSION = '[1,"getSession",1,0,{}]';
let egwd;

before(async () => { egwd = await startEgwd(); });
after(async () => { if (egwd) await stopEgwd(egwd); });

const post = (path, type, body, cookie) => fetch(new URL(path, egwd.url), {
    method: 'POST',
    headers: { ...(type && { 'Content-Type': type }), ...(cookie && { Cookie: cookie }) },
    body,
});

let sessionsStarted = 0;
async function session() {
    const response = await post('/session', JSON_TYPE, '');
    assert.equal(response.status, 200);
    sessionsStarted++;
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
    assert.equal((await fetch(new URL('/../CMakeCache.txt', egwd.url))).status, 404);
});

test('the page serves 16 browsers at once; a browser starting again gives its old session up', async () => {
    let cookie;
    while (sessionsStarted < 16) cookie = (await session()).split(';')[0];
    const refused = await post('/session', JSON_TYPE, '');
    assert.equal(refused.status, 503);
    assert.match(await refused.text(), /no more browsers/);
    // The same browser again: its old session ends, the new one takes its place.
    const again = await post('/session', JSON_TYPE, '', cookie);
    assert.equal(again.status, 200);
    assert.equal((await post('/thrift', JSON_TYPE, GET_SESSION, cookie)).status, 403);
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
