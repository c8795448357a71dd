// The operator page in Debian's chromium (headless, through puppeteer-core) against a real egwd on
// the sample panel: loading, live conditions, operating at level 2 with its audit row, the lost
// connection and its recovery, and the time from a state change to its row on the page.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import path from 'node:path';
import { require, startEgwd, stopEgwd, connectClient, elementsByLabel, database, workDir, num, types } from './egwd.mjs';

const puppeteer = require('puppeteer-core');

const FIRE_ALARM_STATE = 0x80001;
const FAULT_STATE = 0x80002;
const OUTPUT_STATE = 0x80005;
const NORMAL = 0x60001;
const FIRE_ALARM = 0x60002;
const FAULT_OPEN_CIRCUIT = 0x60004;
const ACTIVATED = 0x6000a;
const SILENCED = 0x6000b;

let egwd;
let browser;
let page;
let operator; // a level-2 client of the Thrift port that raises the conditions
let sample;
const consoleErrors = [];

async function openOperator() {
    operator = await connectClient(egwd.thriftPort);
    await operator.login(2, '2222');
    sample = await elementsByLabel(operator);
}

before(async () => {
    egwd = await startEgwd();
    await openOperator();
    browser = await puppeteer.launch({
        executablePath: process.env.CHROMIUM,
        headless: true,
        args: ['--no-sandbox', '--disable-gpu'],
    });
    page = await browser.newPage();
    await page.setViewport({ width: 1400, height: 1000 });
    page.on('console', (message) => { if (message.type() === 'error') consoleErrors.push(message.text()); });
    page.on('pageerror', (error) => consoleErrors.push(error.message));
});

after(async () => {
    operator?.close();
    await browser?.close();
    if (egwd) await stopEgwd(egwd);
});

// The page rebuilds its rows as events and zones arrive, so each reading finds its elements and reads
// them in one step inside the page: puppeteer's $eval finds first and reads in a second round trip,
// by which time a rebuilt row is detached (no computed style, no layout).
const readAll = (selector, read) => page.evaluate(`(${read})([...document.querySelectorAll(${JSON.stringify(selector)})])`);
const summary = () => page.$eval('#summary', (e) => e.textContent);
// The row of the element once its zone is known (the page asks for it when the row first shows).
const rowCells = async (uuid) => {
    await page.waitForFunction((id) => [...document.querySelectorAll(`#conditions tr[data-uuid="${id}"] td`)][4]?.textContent !== '…', { timeout: 5000 }, uuid);
    return cells(uuid);
};
const cells = (uuid) => readAll(`#conditions tbody tr[data-uuid="${uuid}"] td`, (tds) => tds.map((td) => td.textContent));

test('the page loads with the panel, its summary and its disabled detector, and no console error', async () => {
    await page.goto(egwd.url);
    await page.waitForFunction(() => document.querySelector('#summary').textContent.startsWith('Fire alarms'), { timeout: 20000 });
    await page.waitForFunction(() => document.querySelector('#panel-name').textContent === 'Sample panel: three-storey office building', { timeout: 5000 });
    // The sample panel starts with its staff-kitchen heat detector disabled.
    assert.equal(await summary(), 'Fire alarms: 0. Faults: 0. Disablements: 1. The panel is NOT in the normal condition.');
    const kitchen = sample.get('Staff kitchen');
    assert.deepEqual((await rowCells(kitchen.uuid)).filter((_, i) => i !== 1),
        ['DISABLEMENT', kitchen.idString, 'Staff kitchen', 'Zone 1, Ground floor', 'DisablementState: Disabled']);
    // Choosing the row opens the tree down to the element, which shows its ID string, type and
    // state in words; the search finds it among the elements shown.
    await page.evaluate((uuid) => document.querySelector(`#conditions tr[data-uuid="${uuid}"]`).click(), kitchen.uuid);
    await page.waitForFunction(() => document.activeElement.textContent.includes('Staff kitchen ('), { timeout: 5000 });
    await page.type('#search', 'kitchen');
    const shown = await readAll('#tree button.element', (bs) => bs.filter((b) => b.offsetParent).map((b) => b.textContent));
    assert.ok(shown.includes(`${kitchen.idString} Staff kitchen (HeatDetector): Disabled`), shown.join('\n'));
    assert.ok(!shown.some((text) => text.includes('Reception')), 'the search leaves other detectors out');
    await page.$eval('#search', (e) => { e.value = ''; e.dispatchEvent(new Event('input')); });
    assert.deepEqual(consoleErrors, []);
});

test('the tree works by keyboard: arrows move and fold, Enter shows an element\'s details', async () => {
    const focused = () => page.evaluate(() => document.activeElement.textContent);
    await page.focus('#tree button.element');
    assert.match(await focused(), /^01 Main fire panel/);
    const steps = [['ArrowDown', /^01 Panel hardware/], ['ArrowUp', /^01 Main fire panel/],
        ['ArrowLeft', /^01 Main fire panel/], ['ArrowDown', /^01 Main fire panel/],
        ['ArrowRight', /^01 Main fire panel/], ['ArrowDown', /^01 Panel hardware/]];
    for (const [key, expected] of steps) {
        await page.keyboard.press(key);
        assert.match(await focused(), expected, key);
    }
    const kitchen = sample.get('Staff kitchen');
    const button = await page.evaluateHandle(() => [...document.querySelectorAll('#tree button.element')].find((b) => b.textContent.includes('Staff kitchen (')));
    await button.focus();
    await page.keyboard.press('Enter');
    await page.waitForFunction(() => document.querySelector('#details-states')?.textContent.includes('DisablementStateDisabled'), { timeout: 5000 });
    assert.equal(await page.$eval('#details-title', (e) => e.textContent), `Element ${kitchen.idString}`);
    const details = new Map(await readAll('#details-body dl dt', (dts) => dts.map((dt) => [dt.textContent, dt.nextElementSibling.textContent])));
    const expected = [['Type', 'HeatDetector (0x70049)'], ['Label', 'Staff kitchen'], ['Address', '2'], ['AlarmThreshold', '58'],
        ['Zone', `${sample.get('Zone 1').idString} Zone 1`], ['Evacuation zone', `${sample.get('Evacuation zone 1').idString} Evacuation zone 1`]];
    for (const [term, value] of expected) assert.equal(details.get(term), value, term);
    assert.equal(await page.$eval('#disable-button', (b) => b.textContent), 'Enable (needs access level 2)');
});

test('a fire alarm and a fault appear in words and colour within one second, fire first', async () => {
    const reception = sample.get('Reception, ceiling');
    const atrium = sample.get('Atrium beam');
    const raised = Date.now();
    await operator.setState(reception.uuid, FIRE_ALARM_STATE, FIRE_ALARM);
    await page.waitForFunction((uuid) => document.querySelector(`#conditions tr.fire[data-uuid="${uuid}"]`), { timeout: 1000 }, reception.uuid);
    console.log(`fire alarm row shown ${Date.now() - raised} ms after setState was sent`);
    assert.deepEqual((await rowCells(reception.uuid)).filter((_, i) => i !== 1),
        ['FIRE ALARM', reception.idString, 'Reception, ceiling', 'Zone 1, Ground floor', 'FireAlarmState: FireAlarm']);
    await operator.setState(atrium.uuid, FAULT_STATE, FAULT_OPEN_CIRCUIT);
    await page.waitForFunction((uuid) => document.querySelector(`#conditions tr.fault[data-uuid="${uuid}"]`), { timeout: 1000 }, atrium.uuid);
    assert.equal(await summary(), 'Fire alarms: 1. Faults: 1. Disablements: 1. The panel is NOT in the normal condition.');
    const order = await readAll('#conditions tbody tr', (rows) => rows.map((r) => r.className));
    assert.deepEqual(order, ['fire', 'fault', 'disablement']);
    const colour = await readAll('#conditions tr.fire td', (tds) => tds.map((td) => getComputedStyle(td).backgroundColor)[0]);
    assert.equal(colour, 'rgb(176, 0, 32)');
    await page.screenshot({ path: path.join(process.env.EGW_TEST_OUT, 'operator-page.png'), fullPage: true });
    await operator.setState(atrium.uuid, FAULT_STATE, NORMAL);
    await page.waitForFunction((uuid) => !document.querySelector(`#conditions tr[data-uuid="${uuid}"]`), { timeout: 2000 }, atrium.uuid);
});

test('silence needs level 2: a wrong password is refused, the right one operates and is audited', async () => {
    const sounder = sample.get('Corridor sounder, ground floor');
    const silence = '#silence-button';
    assert.equal(await page.$eval(silence, (b) => b.getAttribute('aria-disabled')), 'true');
    assert.equal(await page.$eval(silence, (b) => b.textContent), 'Silence sounders (needs access level 2)');
    await page.click(silence);
    assert.match(await page.$eval('#operator-message', (e) => e.textContent), /needs access level 2/);

    await page.select('#login-level', '2');
    await page.type('#login-password', '9999');
    await page.click('#login-button');
    await page.waitForFunction(() => document.querySelector('#operator-message').textContent.startsWith('Login refused'), { timeout: 5000 });
    assert.equal(await page.$eval(silence, (b) => b.getAttribute('aria-disabled')), 'true');

    // By keyboard alone: the password field, Enter to log in.
    await page.focus('#login-password');
    await page.keyboard.type('2222');
    await page.keyboard.press('Enter');
    await page.waitForFunction((s) => document.querySelector(s).getAttribute('aria-disabled') === 'false', { timeout: 5000 }, silence);

    await operator.setState(sounder.uuid, OUTPUT_STATE, ACTIVATED);
    await page.waitForFunction((id) => [...document.querySelectorAll('#events li')].some((li) => li.textContent.includes(`${id} `) && li.textContent.endsWith('→ Activated')), { timeout: 2000 }, sounder.idString);
    await page.focus(silence);
    await page.keyboard.press('Enter');
    await page.waitForFunction(() => document.querySelector('#operator-message').textContent === 'Sounders silenced: 1 element.', { timeout: 5000 });
    assert.equal((await operator.getState(sounder.uuid, OUTPUT_STATE)).toNumber(), SILENCED);

    // The audit row of the page's session: its peer is the browser's loopback address.
    const rows = execFileSync('sqlite3', [database,
        `SELECT level, operation, idString, after, result, peer FROM audit WHERE operation = 'setState' AND uuid = ${sounder.uuid} ORDER BY id`], { encoding: 'utf8' })
        .trim().split('\n');
    const last = rows.at(-1).split('|');
    assert.deepEqual(last.slice(0, 3), ['2', 'setState', sounder.idString]);
    assert.equal(last[4], 'ok');
    assert.match(last[5], /^127\.0\.0\.1:\d+$/);
    assert.match(last[3], /0x6000B/i); // Silenced
});

test('at level 2 the page enables a disabled detector and resets a fire alarm', async () => {
    const kitchen = sample.get('Staff kitchen');
    const reception = sample.get('Reception, ceiling');
    await page.waitForFunction(() => document.querySelector('#disable-button').textContent === 'Enable', { timeout: 5000 });
    await page.click('#disable-button');
    await page.waitForFunction((uuid) => !document.querySelector(`#conditions tr[data-uuid="${uuid}"]`), { timeout: 2000 }, kitchen.uuid);
    assert.equal((await operator.getState(kitchen.uuid, 0x80003)).toNumber(), 0x60008); // Enabled
    // The fire alarm raised before is still there; reset returns it and the silenced sounder.
    assert.match(await summary(), /^Fire alarms: 1\. Faults: 0\. Disablements: 0\./);
    await page.click('#reset-button');
    await page.waitForFunction(() => document.querySelector('#summary').textContent.endsWith('The panel is in the normal condition.'), { timeout: 2000 });
    assert.equal((await operator.getState(reception.uuid, FIRE_ALARM_STATE)).toNumber(), NORMAL);
    assert.equal(await page.$eval('#no-conditions', (e) => e.hidden), false);
});

test('a stopped egwd is shown in words and a restarted one restores the page by itself', async () => {
    const port = egwd.httpPort;
    operator.close();
    await stopEgwd(egwd);
    await page.waitForSelector('#connection:not([hidden])', { timeout: 10000 });
    assert.match(await page.$eval('#connection', (e) => e.textContent), /^Connection to the panel service lost/);
    assert.match(await summary(), /condition unknown/);

    egwd = await startEgwd(port);
    await openOperator();
    await page.waitForSelector('#connection[hidden]', { timeout: 15000 });
    // A fresh panel and a new session at level 1, subscribed again: a new alarm shows.
    await page.waitForFunction(() => document.querySelector('#summary').textContent.startsWith('Fire alarms: 0.'), { timeout: 5000 });
    assert.equal(await page.$eval('#silence-button', (b) => b.getAttribute('aria-disabled')), 'true');
    const reception = sample.get('Reception, ceiling');
    await operator.setState(reception.uuid, FIRE_ALARM_STATE, FIRE_ALARM);
    await page.waitForFunction((uuid) => document.querySelector(`#conditions tr.fire[data-uuid="${uuid}"]`), { timeout: 2000 }, reception.uuid);
});

test('on a panel of 120,000 elements: conditions within 3 s, alarms during loading within 1 s, never "normal"', async () => {
    const file = path.join(workDir, 'big.json');
    execFileSync(process.env.EGW_TOOL, ['generate', '--loops', '100', '--devices', '1000', '--output', file]);
    const big = await startEgwd(0, ['--panel', file], 'http', path.join(workDir, 'big.db'));
    // A context of its own: cookies go by host, not port, and the other egwd's page still runs.
    const context = await browser.createBrowserContext();
    const tab = await context.newPage();
    const client = await connectClient(big.thriftPort);
    try {
        await client.login(2, '2222');
        const first = await client.snapshot(new types.SnapshotRequest({ root: 0, propertyIds: [], withStates: true, depth: 0, after: 0, max: 1000 }));
        const detectors = first.elements.filter((e) => e.states.some((s) => num(s.groupId) === FIRE_ALARM_STATE)).map((e) => num(e.uuid));
        // In the page, from its first moment: every summary text and when each fire row first showed.
        await tab.evaluateOnNewDocument(() => {
            window.samples = [];
            window.seen = {};
            document.addEventListener('DOMContentLoaded', () => {
                const look = () => {
                    const now = performance.timeOrigin + performance.now();
                    window.samples.push(document.querySelector('#summary').textContent);
                    for (const row of document.querySelectorAll('#conditions tr.fire')) window.seen[row.dataset.uuid] ??= now;
                    if (!window.treeAt && document.querySelectorAll('#tree li').length > 1) window.treeAt = now;
                };
                new MutationObserver(look).observe(document.body, { subtree: true, childList: true, characterData: true });
                look();
            });
        });
        const clock = () => performance.timeOrigin + performance.now();
        const [before, ...during] = detectors.slice(0, 6);
        await client.setState(before, FIRE_ALARM_STATE, FIRE_ALARM);
        const navigated = clock();
        const loading = tab.goto(big.url);
        const sent = new Map();
        for (const [i, uuid] of during.entries()) {
            await new Promise((resolve) => setTimeout(resolve, navigated + [0, 150, 400, 900, 2000][i] - clock()));
            sent.set(uuid, clock());
            await client.setState(uuid, FIRE_ALARM_STATE, FIRE_ALARM);
        }
        await loading;
        await tab.waitForFunction((n) => Object.keys(window.seen).length === n && window.treeAt, { timeout: 10000 }, detectors.slice(0, 6).length);
        const seen = await tab.evaluate(() => window.seen);
        const shown = seen[before] - navigated;
        const late = [...sent].map(([uuid, at]) => seen[uuid] - at);
        const ready = (await tab.evaluate(() => window.treeAt)) - navigated;
        const nodes = await tab.evaluate(() => document.getElementsByTagName('*').length);
        console.log(`120k panel: conditions shown ${shown.toFixed(0)} ms after navigation, tree ready after ${ready.toFixed(0)} ms, ` +
            `${nodes} DOM nodes; alarms raised while loading shown after ${late.map((ms) => ms.toFixed(0)).join(', ')} ms`);
        // The figures hold for the plain builds; a sanitized build runs several times slower and
        // is held to the same rule with its slowdown (EGW_SLOWDOWN, from the build).
        const slowdown = Number(process.env.EGW_SLOWDOWN ?? 1);
        assert.ok(shown < 3000 * slowdown, `conditions after ${shown} ms`);
        assert.ok(late.every((ms) => ms < 1000 * slowdown), late.join(', '));
        // egwd may still be reading the panel: the page says so until it is done.
        await tab.waitForFunction(() => document.querySelector('#summary').textContent.endsWith('NOT in the normal condition.'), { timeout: 30000 });
        const samples = await tab.evaluate(() => window.samples);
        console.log(`${samples.filter((text) => text.includes('still reading')).length} of ${samples.length} summaries while egwd was still reading the panel`);
        assert.ok(samples.length > 5, 'the summary was sampled');
        assert.ok(!samples.some((text) => text.includes('The panel is in the normal condition')), samples.join('\n'));
        assert.match(samples.at(-1), /^Fire alarms: 6\. Faults: 0\. Disablements: 0\. The panel is NOT/);
    } finally {
        client.close();
        await context.close();
        await stopEgwd(big);
    }
});
