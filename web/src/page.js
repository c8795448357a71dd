// The operator page: the panel's conditions, its events as they come, the element tree and, at
// access level 2, silence, reset, disable and enable. One session of egwd per browser tab.
import { openSession, ConnectionLost, rpc, num, hex } from './panelClient.js';
import names from 'egw-rpc/names.json';

// Ids of the panel's type library.
const LABEL = 0x30002;
const ZONE_TEXT = 0x30036;
const ZONE_RELATION = 0x20001;
const EVACUATION_RELATION = 0x20002;
const FIRE_ALARM_STATE = 0x80001;
const FAULT_STATE = 0x80002;
const DISABLEMENT_STATE = 0x80003;
const OUTPUT_STATE = 0x80005;
const POWER_STATE = 0x80007;
const NORMAL = 0x60001;
const FIRE_ALARM = 0x60002;
const PRE_ALARM = 0x60003;
const DISABLED = 0x60007;
const ENABLED = 0x60008;
const ACTIVATED = 0x6000a;
const SILENCED = 0x6000b;

const POLL_MS = 800; // a long poll; an event ends it at once
const KEPT_EVENTS = 200;
const KINDS = ['fire', 'fault', 'disablement'];
const KIND_WORDS = { fire: 'FIRE ALARM', fault: 'FAULT', disablement: 'DISABLEMENT' };

const $ = (id) => document.getElementById(id);
const nameOf = (table, id) => names[table][num(id)] ?? hex(id);
const timeText = (ms) => (ms ? new Date(ms).toLocaleTimeString() : 'before the page opened');

const page = {
    client: null,
    generation: 0,
    level: 1,
    levels: {},
    elements: new Map(), // uuid -> element
    conditions: new Map(), // "uuid:group" -> condition
    events: [],
    selected: null,
    treeItems: new Map(), // uuid -> the tree's button of the element
};

// What a state value means for the panel's conditions: fire, fault, disablement or nothing.
function conditionOf(group, value) {
    if (group === FIRE_ALARM_STATE && (value === FIRE_ALARM || value === PRE_ALARM)) return 'fire';
    if ((group === FAULT_STATE || group === POWER_STATE) && value !== NORMAL && value !== 0) return 'fault';
    if (group === DISABLEMENT_STATE && value === DISABLED) return 'disablement';
    return null;
}

function textOf(result) {
    const bytes = result?.value?.present ? result.value.bytes : null;
    return bytes ? bytes.toString('utf8').replace(/\0+$/, '') : '';
}

// ---- Loading --------------------------------------------------------------------------------

async function loadTree(client) {
    const root = await client.getRoot();
    // The whole tree, one page of the snapshot after another.
    const snapshot = [];
    const request = new rpc.SnapshotRequest({ root, propertyIds: [LABEL, ZONE_TEXT], withStates: true, depth: 0, after: 0, max: 0 });
    do {
        const page = await client.snapshot(request);
        snapshot.push(...page.elements);
        request.after = page.nextAfter;
    } while (num(request.after) !== 0);
    const elements = new Map();
    for (const snap of snapshot) {
        const uuid = num(snap.uuid);
        const property = (id) => snap.properties.find((p) => num(p.propertyId) === id);
        elements.set(uuid, {
            uuid,
            parent: num(snap.parent),
            typeId: num(snap.typeId),
            idString: snap.idString,
            label: textOf(property(LABEL)),
            zoneText: textOf(property(ZONE_TEXT)),
            states: new Map(snap.states.map((s) => [num(s.groupId), num(s.value)])),
            children: [],
            zone: undefined, // the zone's uuid once asked; 0: none
        });
    }
    for (const element of elements.values()) {
        elements.get(element.parent)?.children.push(element.uuid);
    }
    return { root: num(root), elements };
}

// When each present condition began, from the service's event memory where it keeps one.
async function conditionTimes(client) {
    const times = new Map();
    try {
        const stored = await client.queryEvents(new rpc.EventQuery({ fromMs: 0, toMs: 0, categories: [], subtree: 0, beforeId: 0, max: 1000 }));
        for (const event of stored) {
            const change = event.stateChange;
            const key = change && `${num(change.uuid)}:${num(change.groupId)}:${num(change.value)}`;
            if (key && !times.has(key)) times.set(key, num(event.timeMs));
        }
    } catch (error) {
        if (error instanceof ConnectionLost) throw error;
    }
    return times;
}

async function load() {
    const client = await openSession();
    const [info, levels, session] = await Promise.all([client.getServiceInfo(), client.getAccessLevels(), client.getSession()]);
    // Every state change of every type in the panel, then the tree: a change between the two
    // arrives as an event and is applied again on top of the tree, which changes nothing.
    const first = await loadTree(client);
    const types = new Set([...first.elements.values()].filter((e) => e.states.size).map((e) => e.typeId));
    await Promise.all([...types].map((typeId) =>
        client.subscribe(new rpc.Subscription({ kind: rpc.SubscriptionKind.ALL_STATE_CHANGES, target: typeId, eventId: 0, values: [], categories: [], secondNotification: false }))));
    const { root, elements } = await loadTree(client);
    const times = await conditionTimes(client);

    page.client = client;
    page.levels = levels;
    page.level = session.accessLevel;
    page.elements = elements;
    page.conditions = new Map();
    for (const element of elements.values()) {
        for (const [group, value] of element.states) {
            const kind = conditionOf(group, value);
            if (kind) {
                page.conditions.set(`${element.uuid}:${group}`, { kind, uuid: element.uuid, group, value, timeMs: times.get(`${element.uuid}:${group}:${value}`) ?? 0 });
            }
        }
    }
    $('panel-name').textContent = info.panelDescription;
    document.title = `Fire panel: ${info.panelDescription}`;
    buildTree(root);
    showSession();
    render();
}

// ---- Live events ----------------------------------------------------------------------------

function applyEvent(event) {
    if (num(event.lost) > 0) {
        page.events.unshift({ timeMs: Date.now(), kind: 'fault', text: `${num(event.lost)} events were lost: the page reloads` });
        throw new ConnectionLost('events were lost');
    }
    const change = event.stateChange;
    if (!change) return;
    const uuid = num(change.uuid);
    const group = num(change.groupId);
    const value = num(change.value);
    const element = page.elements.get(uuid);
    element?.states.set(group, value);
    const key = `${uuid}:${group}`;
    const kind = conditionOf(group, value);
    if (kind) {
        page.conditions.set(key, { kind, uuid, group, value, timeMs: num(event.timeMs) });
    } else {
        page.conditions.delete(key);
    }
    page.events.unshift({
        timeMs: num(event.timeMs),
        kind,
        uuid,
        text: `${event.idString} ${element?.label ?? ''}: ${nameOf('stateGroups', group)} ${nameOf('stateValues', change.previous)} → ${nameOf('stateValues', value)}`,
    });
    page.events.length = Math.min(page.events.length, KEPT_EVENTS);
    updateTreeItem(uuid);
}

async function follow(generation) {
    while (generation === page.generation) {
        const events = await page.client.nextEvents(100, POLL_MS);
        if (generation !== page.generation) return;
        events.forEach(applyEvent);
        if (events.length) render();
    }
}

// Loads the page, follows the events, and on a lost connection says so and starts again with a
// new session (egwd may have been restarted) until it succeeds.
async function connect() {
    const generation = ++page.generation;
    for (;;) {
        try {
            await load();
            break;
        } catch (error) {
            showLost(error);
            await new Promise((resolve) => setTimeout(resolve, 1000));
        }
    }
    $('connection').hidden = true;
    follow(generation).catch((error) => {
        showLost(error);
        connect();
    });
}

function showLost(error) {
    const banner = $('connection');
    banner.textContent = `Connection to the panel service lost (${error.message ?? error}). Reconnecting…`;
    banner.hidden = false;
    $('summary').textContent = 'Panel condition unknown: no connection to the panel service.';
    $('summary').className = 'alarm';
}

// ---- Showing --------------------------------------------------------------------------------

function zoneOf(element) {
    if (element.zone === undefined) {
        element.zone = null;
        page.client.getRelations(element.uuid, ZONE_RELATION, true)
            .then((zones) => { element.zone = zones.length ? num(zones[0]) : 0; render(); })
            .catch(() => { element.zone = 0; render(); });
    }
    if (element.zone === null) return '…';
    const zone = page.elements.get(element.zone) ?? page.elements.get(element.parent);
    if (!zone) return '';
    return zone.zoneText ? `${zone.label}, ${zone.zoneText}` : element.zone ? zone.label : `in ${zone.label}`;
}

function render() {
    const counts = Object.fromEntries(KINDS.map((kind) => [kind, 0]));
    page.conditions.forEach((c) => counts[c.kind]++);
    const normal = page.conditions.size === 0;
    const summary = $('summary');
    summary.textContent = `Fire alarms: ${counts.fire}. Faults: ${counts.fault}. Disablements: ${counts.disablement}. ` +
        (normal ? 'The panel is in the normal condition.' : 'The panel is NOT in the normal condition.');
    summary.className = counts.fire ? 'alarm' : '';

    const rows = [...page.conditions.values()].sort((a, b) => KINDS.indexOf(a.kind) - KINDS.indexOf(b.kind) || a.timeMs - b.timeMs);
    $('conditions').tBodies[0].replaceChildren(...rows.map((c) => {
        const element = page.elements.get(c.uuid) ?? { idString: hex(c.uuid), label: '', zone: 0, uuid: c.uuid };
        const row = document.createElement('tr');
        row.className = c.kind;
        row.dataset.uuid = c.uuid;
        for (const text of [KIND_WORDS[c.kind], timeText(c.timeMs), element.idString, element.label, zoneOf(element),
            `${nameOf('stateGroups', c.group)}: ${nameOf('stateValues', c.value)}`]) {
            row.insertCell().textContent = text;
        }
        return row;
    }));
    $('no-conditions').hidden = !normal;

    $('events').replaceChildren(...page.events.map((e) => {
        const item = document.createElement('li');
        item.className = e.kind ?? '';
        const kind = document.createElement('span');
        kind.className = 'kind';
        kind.textContent = e.kind ? KIND_WORDS[e.kind] : 'EVENT';
        item.append(`${timeText(e.timeMs)} `, kind, ` ${e.text}`);
        return item;
    }));
    showActions();
    if (page.selected) showDetails(page.selected, false);
}

// ---- The element tree -----------------------------------------------------------------------

function stateWords(element) {
    const words = [];
    for (const [group, value] of element.states) {
        if (value !== NORMAL && value !== ENABLED && value !== 0 && group !== 0x80006) words.push(nameOf('stateValues', value));
    }
    return words.length ? words.join(', ') : 'normal';
}

function kindOf(element) {
    const kinds = [...element.states].map(([group, value]) => conditionOf(group, value));
    return KINDS.find((kind) => kinds.includes(kind)) ?? '';
}

function buildTree(root) {
    page.treeItems = new Map();
    const list = $('tree');
    list.replaceChildren();
    const add = (uuid, into, depth) => {
        const element = page.elements.get(uuid);
        const item = document.createElement('li');
        item.dataset.uuid = uuid;
        const toggle = document.createElement('button');
        toggle.type = 'button';
        toggle.className = 'toggle';
        if (element.children.length) {
            toggle.setAttribute('aria-expanded', 'true');
            toggle.setAttribute('aria-label', `Show or hide the elements below ${element.idString}`);
            toggle.textContent = '▾';
            toggle.addEventListener('click', () => {
                const open = toggle.getAttribute('aria-expanded') !== 'true';
                toggle.setAttribute('aria-expanded', String(open));
                toggle.textContent = open ? '▾' : '▸';
                children.hidden = !open;
            });
        } else {
            toggle.tabIndex = -1;
            toggle.setAttribute('aria-hidden', 'true');
        }
        const button = document.createElement('button');
        button.type = 'button';
        button.className = 'element';
        button.addEventListener('click', () => showDetails(uuid, true));
        item.append(toggle, button);
        const children = document.createElement('ul');
        item.append(children);
        into.append(item);
        page.treeItems.set(uuid, button);
        updateTreeItem(uuid);
        element.children.forEach((child) => add(child, children, depth + 1));
    };
    add(root, list, 0);
    filterTree();
}

function updateTreeItem(uuid) {
    const button = page.treeItems.get(uuid);
    const element = page.elements.get(uuid);
    if (!button || !element) return;
    button.textContent = `${element.idString} ${element.label} (${nameOf('types', element.typeId)}): ${stateWords(element)}`;
    button.className = `element ${kindOf(element)}`;
}

// Shows the elements whose ID string or label holds the search text, with the elements above them.
function filterTree() {
    const wanted = $('search').value.trim().toLowerCase();
    const visit = (item) => {
        const element = page.elements.get(Number(item.dataset.uuid));
        const own = !wanted || `${element.idString} ${element.label}`.toLowerCase().includes(wanted);
        let below = false;
        for (const child of item.lastElementChild.children) below = visit(child) || below;
        item.hidden = !own && !below;
        if (wanted && below) item.lastElementChild.hidden = false;
        return own || below;
    };
    [...$('tree').children].forEach(visit);
}

// Up and down move between the visible elements of the tree; right and left show and hide the
// elements below the focused one.
function treeKeys(event) {
    const button = event.target.closest('button');
    if (!button) return;
    const item = button.parentElement;
    const toggle = item.querySelector(':scope > button.toggle[aria-expanded]');
    const visible = [...$('tree').querySelectorAll('button.element')].filter((b) => b.offsetParent);
    const at = visible.indexOf(item.querySelector(':scope > button.element'));
    const moves = {
        ArrowDown: () => visible[at + 1]?.focus(),
        ArrowUp: () => visible[at - 1]?.focus(),
        ArrowRight: () => toggle?.getAttribute('aria-expanded') === 'false' && toggle.click(),
        ArrowLeft: () => toggle?.getAttribute('aria-expanded') === 'true' && toggle.click(),
    };
    if (moves[event.key]) {
        event.preventDefault();
        moves[event.key]();
    }
}

// ---- Element details ------------------------------------------------------------------------

function valueText(value) {
    if (!value?.present) return '(none)';
    if (value.truth !== null && value.truth !== undefined) return value.truth ? 'yes' : 'no';
    if (value.integer !== null && value.integer !== undefined) return String(num(value.integer));
    if (value.dateTime) {
        const d = value.dateTime;
        const s = num(d.secondOfDay);
        return `${d.year}-${String(d.month).padStart(2, '0')}-${String(d.day).padStart(2, '0')} ${String(Math.floor(s / 3600)).padStart(2, '0')}:${String(Math.floor(s / 60) % 60).padStart(2, '0')}`;
    }
    return value.bytes ? value.bytes.toString('utf8').replace(/\0+$/, '') : '';
}

async function showDetails(uuid, fresh) {
    page.selected = uuid;
    const element = page.elements.get(uuid);
    const section = $('details');
    section.hidden = false;
    $('details-title').textContent = `Element ${element.idString}`;
    if (!fresh && section.dataset.uuid === String(uuid)) {
        showDetailStates(element);
        return;
    }
    section.dataset.uuid = uuid;
    const body = $('details-body');
    body.replaceChildren('Reading…');
    const client = page.client;
    const type = await client.getTypeInfo(element.typeId);
    const [properties, relations] = await Promise.all([
        client.readProperties(type.properties.map((p) => new rpc.PropertyRef({ uuid, propertyId: p.propertyId }))),
        Promise.all([ZONE_RELATION, EVACUATION_RELATION].map((relation) =>
            client.getRelations(uuid, relation, true).then((to) => to.map((t) => [relation, num(t)])).catch(() => []))),
    ]);
    if (page.selected !== uuid) return;
    const list = document.createElement('dl');
    const add = (term, text) => {
        const dt = document.createElement('dt');
        dt.textContent = term;
        const dd = document.createElement('dd');
        dd.textContent = text;
        list.append(dt, dd);
    };
    add('Type', `${nameOf('types', element.typeId)} (${hex(element.typeId)})`);
    add('Uuid', String(uuid));
    add('Above', page.elements.get(element.parent)?.idString ?? 'none');
    for (const result of properties) add(nameOf('properties', result.propertyId), result.error ? result.error.message : valueText(result.value));
    for (const [relation, to] of relations.flat()) {
        const target = page.elements.get(to);
        add(relation === ZONE_RELATION ? 'Zone' : 'Evacuation zone', target ? `${target.idString} ${target.label}` : String(to));
    }
    const states = document.createElement('dl');
    states.id = 'details-states';
    const disable = document.createElement('button');
    disable.type = 'button';
    disable.id = 'disable-button';
    disable.dataset.operation = 'setState';
    disable.addEventListener('click', () => {
        const disabled = element.states.get(DISABLEMENT_STATE) === DISABLED;
        operate(disabled ? 'Enabled' : 'Disabled', [[uuid, DISABLEMENT_STATE, disabled ? ENABLED : DISABLED]]);
    });
    const heading = document.createElement('h3');
    heading.textContent = 'States';
    body.replaceChildren(list, heading, states, disable);
    showDetailStates(element);
}

function showDetailStates(element) {
    const states = $('details-states');
    if (!states) return;
    states.replaceChildren();
    for (const [group, value] of element.states) {
        const dt = document.createElement('dt');
        dt.textContent = nameOf('stateGroups', group);
        const dd = document.createElement('dd');
        dd.textContent = nameOf('stateValues', value);
        dd.className = conditionOf(group, value) ?? '';
        states.append(dt, dd);
    }
    const disable = $('disable-button');
    disable.hidden = !element.states.has(DISABLEMENT_STATE);
    disable.dataset.label = element.states.get(DISABLEMENT_STATE) === DISABLED ? 'Enable' : 'Disable';
    showActions();
}

// ---- Operating ------------------------------------------------------------------------------

function showSession() {
    $('session').textContent = page.level >= 2
        ? `Access level ${page.level}: you may operate the panel.`
        : 'Access level 1: reading only. Log in to operate the panel.';
    $('logout-button').hidden = page.level < 2;
    showActions();
}

// A button of an operation the level does not allow stays visible, marked unavailable, with the
// level it needs.
function showActions() {
    for (const button of document.querySelectorAll('button[data-operation]')) {
        const needed = page.levels[button.dataset.operation] ?? 2;
        const label = button.dataset.label ?? (button.dataset.label = button.textContent);
        const allowed = page.level >= needed;
        button.setAttribute('aria-disabled', String(!allowed));
        button.textContent = allowed ? label : `${label} (needs access level ${needed})`;
    }
}

function say(text, refused) {
    const message = $('operator-message');
    message.textContent = text;
    message.className = refused ? 'refused' : '';
}

// Sets each [uuid, group, value] and says how it went.
async function operate(done, changes) {
    const needed = page.levels.setState ?? 2;
    if (page.level < needed) {
        say(`This needs access level ${needed}: log in first.`, true);
        return;
    }
    if (!changes.length) {
        say(`${done}: nothing to change.`, false);
        return;
    }
    try {
        for (const [uuid, group, value] of changes) await page.client.setState(uuid, group, value);
        say(`${done}: ${changes.length} element${changes.length === 1 ? '' : 's'}.`, false);
    } catch (error) {
        say(`Refused: ${error.message}`, true);
        if (error instanceof ConnectionLost) return;
        const session = await page.client.getSession();
        page.level = session.accessLevel;
        showSession();
    }
}

const isSounder = (element) => /Sounder|Beacon/.test(nameOf('types', element.typeId));

function silence() {
    const sounding = [...page.elements.values()].filter((e) => isSounder(e) && e.states.get(OUTPUT_STATE) === ACTIVATED);
    operate('Sounders silenced', sounding.map((e) => [e.uuid, OUTPUT_STATE, SILENCED]));
}

// Fire alarms back to normal and every activated or silenced output with them.
function reset() {
    const changes = [];
    for (const e of page.elements.values()) {
        for (const group of [FIRE_ALARM_STATE, OUTPUT_STATE]) {
            if (e.states.has(group) && e.states.get(group) !== NORMAL) changes.push([e.uuid, group, NORMAL]);
        }
    }
    operate('Reset', changes);
}

async function login(event) {
    event.preventDefault();
    const password = $('login-password');
    try {
        const session = await page.client.login(Number($('login-level').value), password.value);
        page.level = session.accessLevel;
        say(`Logged in at access level ${page.level}.`, false);
    } catch (error) {
        say(`Login refused: ${error.message}`, true);
    }
    password.value = '';
    showSession();
}

async function logout() {
    const session = await page.client.logout();
    page.level = session.accessLevel;
    say('Logged out: access level 1.', false);
    showSession();
}

$('login').addEventListener('submit', login);
$('logout-button').addEventListener('click', () => logout().catch((error) => say(error.message, true)));
$('silence-button').addEventListener('click', silence);
$('reset-button').addEventListener('click', reset);
$('search').addEventListener('input', filterTree);
$('tree').addEventListener('keydown', treeKeys);
connect();
