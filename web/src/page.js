// The operator page: the panel's conditions, its events as they come, the element tree and, at
// access level 2, silence, reset, disable and enable. One session of egwd per browser tab.
import { openSession, ConnectionLost, rpc, num, hex } from './panelClient.js';
import names from 'egw-rpc/names.json';

// Ids of the panel's type library.
const LABEL = 0x30002;
const ZONE_RELATION = 0x20001;
const EVACUATION_RELATION = 0x20002;
const FIRE_ALARM_STATE = 0x80001;
const DISABLEMENT_STATE = 0x80003;
const OUTPUT_STATE = 0x80005;
const NORMAL = 0x60001;
const DISABLED = 0x60007;
const ENABLED = 0x60008;
const ACTIVATED = 0x6000a;
const SILENCED = 0x6000b;

const POLL_MS = 800; // a long poll; an event ends it at once
const SETTLING_MS = 50; // between readings while the page subscribes or egwd reads the panel
const KEPT_EVENTS = 200;
// egwd's kinds of condition (ConditionKind), by their number; outputs are not listed as conditions.
const KINDS = { 1: 'fire', 2: 'fault', 3: 'disablement', 4: 'output' };
const LISTED = ['fire', 'fault', 'disablement'];
const KIND_WORDS = { fire: 'FIRE ALARM', fault: 'FAULT', disablement: 'DISABLEMENT' };

const $ = (id) => document.getElementById(id);
const nameOf = (table, id) => names[table][num(id)] ?? hex(id);
const timeText = (ms) => (ms ? new Date(ms).toLocaleTimeString() : 'not known');

const page = {
    client: null,
    generation: 0,
    level: 1,
    levels: {},
    root: 0,
    elements: new Map(), // uuid -> element: those the tree has loaded
    list: null, // egwd's ConditionList, as last read
    conditions: [], // its rows: { kind, uuid, group, value, timeMs, typeId, idString, label, zoneLabel }
    kindOf: new Map(), // "uuid:group" -> kind of its condition now
    events: [],
    selected: null,
    treeItems: new Map(), // uuid -> the tree's button of the element
    treeLoaded: null, // the promise of the tree's first level
    types: new Map(), // typeId -> promise of its TypeInfo
};

function textOf(result) {
    const bytes = result?.value?.present ? result.value.bytes : null;
    return bytes ? bytes.toString('utf8').replace(/\0+$/, '') : '';
}

const typeInfo = (typeId) => {
    if (!page.types.has(typeId)) page.types.set(typeId, page.client.getTypeInfo(typeId));
    return page.types.get(typeId);
};

// ---- Conditions, from egwd ------------------------------------------------------------------

// egwd keeps the panel's conditions: the page reads them, and again whenever a state changes.
async function readConditions(client) {
    const list = await client.getConditions();
    page.list = list;
    page.conditions = list.conditions.map((c) => ({
        kind: KINDS[c.kind], uuid: num(c.uuid), group: num(c.groupId), value: num(c.value), timeMs: num(c.sinceMs),
        typeId: num(c.typeId), idString: c.idString, label: c.label, zoneLabel: c.zoneLabel,
    }));
    page.kindOf = new Map(page.conditions.map((c) => [`${c.uuid}:${c.group}`, c.kind]));
    return list;
}

// ---- Loading --------------------------------------------------------------------------------

function elementOf(snap) {
    return {
        uuid: num(snap.uuid),
        parent: num(snap.parent),
        typeId: num(snap.typeId),
        idString: snap.idString,
        label: textOf(snap.properties.find((p) => num(p.propertyId) === LABEL)),
        states: new Map(snap.states.map((s) => [num(s.groupId), num(s.value)])),
        children: null, // their uuids once loaded
    };
}

// The element and its children, page after page of a snapshot one level deep.
async function loadChildren(uuid) {
    const request = new rpc.SnapshotRequest({ root: uuid, propertyIds: [LABEL], withStates: true, depth: 1, after: 0, max: 0 });
    const found = [];
    do {
        const part = await page.client.snapshot(request);
        found.push(...part.elements.map(elementOf));
        request.after = part.nextAfter;
    } while (num(request.after) !== 0);
    const [self, ...children] = found;
    for (const element of found) {
        const known = page.elements.get(element.uuid);
        if (known) element.children = known.children;
        page.elements.set(element.uuid, element);
    }
    self.children = children.map((c) => c.uuid);
    return self;
}

// The conditions first and at once; the rest after them.
async function load() {
    const client = await openSession();
    page.client = client;
    page.types = new Map();
    page.subscribed = false;
    const [, levels, session] = await Promise.all([readConditions(client), client.getAccessLevels(), client.getSession()]);
    page.levels = levels;
    page.level = session.accessLevel;
    page.events = [];
    page.shownRows = null;
    page.shownEvents = null;
    showSession();
    render();
}

// The panel's name: egwd counts the elements for it, which takes a while on a large panel.
async function showPanelName() {
    const info = await page.client.getServiceInfo();
    $('panel-name').textContent = info.panelDescription;
    document.title = `Fire panel: ${info.panelDescription}`;
}

// Every state change of every type with state groups, one request at a time: egwd serves the
// session's requests in turn, and the conditions are read between them. Until this is done the
// conditions are read every few tens of milliseconds: a change before a subscription is in the
// next reading.
async function subscribeAll(generation) {
    for (const typeId of page.list.stateTypes) {
        if (generation !== page.generation) return;
        await page.client.subscribe(new rpc.Subscription({ kind: rpc.SubscriptionKind.ALL_STATE_CHANGES, target: typeId, eventId: 0, values: [], categories: [], secondNotification: false }));
    }
    page.subscribed = true;
}

// The root and its children; the rest as the operator opens them.
async function loadTree(generation) {
    page.elements = new Map();
    page.selected = null;
    $('details').hidden = true;
    page.root = num(await page.client.getRoot());
    await loadChildren(page.root);
    if (generation !== page.generation) return;
    buildTree();
}

// ---- Live events ----------------------------------------------------------------------------

function applyEvent(event) {
    if (num(event.lost) > 0) {
        page.events.unshift({ timeMs: Date.now(), kind: 'fault', text: `${num(event.lost)} events were lost: the page reloads` });
        throw new ConnectionLost('events were lost');
    }
    const change = event.stateChange;
    if (!change) return false;
    const uuid = num(change.uuid);
    const group = num(change.groupId);
    const value = num(change.value);
    const element = page.elements.get(uuid);
    element?.states.set(group, value);
    page.events.unshift({
        timeMs: num(event.timeMs),
        uuid,
        group,
        value,
        text: `${event.idString} ${element?.label ?? ''}: ${nameOf('stateGroups', group)} ${nameOf('stateValues', change.previous)} → ${nameOf('stateValues', value)}`,
    });
    page.events.length = Math.min(page.events.length, KEPT_EVENTS);
    return true;
}

async function follow(generation) {
    while (generation === page.generation) {
        const settled = page.subscribed && page.list.complete;
        if (!settled) await new Promise((resolve) => setTimeout(resolve, SETTLING_MS));
        const events = await page.client.nextEvents(100, settled ? POLL_MS : 0);
        if (generation !== page.generation) return;
        const changed = events.map(applyEvent).includes(true);
        // Until the page follows every change and egwd has read the whole panel, the conditions
        // are read again on every poll.
        if (changed || !settled) await readConditions(page.client);
        if (generation !== page.generation) return;
        // An event's kind is that of egwd's condition it raised, if it still stands.
        for (const e of page.events) {
            if (e.kind === undefined && e.uuid) e.kind = page.kindOf.get(`${e.uuid}:${e.group}`) ?? null;
        }
        if (events.length || !settled) {
            render();
            page.treeItems.forEach((_, uuid) => updateTreeItem(uuid));
        }
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
    const lost = (error) => {
        if (generation !== page.generation) return;
        showLost(error);
        connect();
    };
    follow(generation).catch(lost);
    subscribeAll(generation).catch(lost);
    showPanelName().catch(lost);
    page.treeLoaded = loadTree(generation);
    page.treeLoaded.catch(lost);
}

function showLost(error) {
    const banner = $('connection');
    banner.textContent = `Connection to the panel service lost (${error.message ?? error}). Reconnecting…`;
    banner.hidden = false;
    $('summary').textContent = 'Panel condition unknown: no connection to the panel service.';
    $('summary').className = 'alarm';
}

// ---- Showing --------------------------------------------------------------------------------

function render() {
    const list = page.list;
    const counts = { fire: num(list.fires), fault: num(list.faults), disablement: num(list.disablements) };
    const normal = counts.fire + counts.fault + counts.disablement === 0;
    const summary = $('summary');
    const words = `Fire alarms: ${counts.fire}. Faults: ${counts.fault}. Disablements: ${counts.disablement}. `;
    // Until egwd has read the whole panel nobody may call it normal.
    summary.textContent = !list.complete
        ? `${words}The panel service is still reading the panel: more may follow.`
        : words + (normal ? 'The panel is in the normal condition.' : 'The panel is NOT in the normal condition.');
    summary.className = counts.fire ? 'alarm' : '';

    const rows = page.conditions.filter((c) => LISTED.includes(c.kind));
    // The rows are made anew only when they change: a row being chosen stays where it is.
    const shown = JSON.stringify(rows);
    if (shown !== page.shownRows) $('conditions').tBodies[0].replaceChildren(...rows.map((c) => {
        const row = document.createElement('tr');
        row.className = c.kind;
        row.dataset.uuid = c.uuid;
        row.tabIndex = 0;
        row.addEventListener('click', () => reveal(c.uuid));
        row.addEventListener('keydown', (event) => { if (event.key === 'Enter') reveal(c.uuid); });
        for (const text of [KIND_WORDS[c.kind], timeText(c.timeMs), c.idString, c.label, c.zoneLabel,
            `${nameOf('stateGroups', c.group)}: ${nameOf('stateValues', c.value)}`]) {
            row.insertCell().textContent = text;
        }
        return row;
    }));
    page.shownRows = shown;
    const hidden = LISTED.filter((kind) => counts[kind] > rows.filter((c) => c.kind === kind).length);
    $('more-conditions').hidden = !hidden.length;
    $('more-conditions').textContent = hidden.length
        ? `Only the first ${list.rowsPerKind} of each kind are listed: ${hidden.map((k) => `${counts[k]} ${KIND_WORDS[k].toLowerCase()}s`).join(', ')} in all.`
        : '';
    $('no-conditions').hidden = !(normal && list.complete);

    if (page.shownEvents !== page.events[0]) $('events').replaceChildren(...page.events.map((e) => {
        const item = document.createElement('li');
        item.className = e.kind ?? '';
        const kind = document.createElement('span');
        kind.className = 'kind';
        kind.textContent = e.kind ? KIND_WORDS[e.kind] ?? 'EVENT' : 'EVENT';
        item.append(`${timeText(e.timeMs)} `, kind, ` ${e.text}`);
        return item;
    }));
    page.shownEvents = page.events[0];
    showActions();
    if (page.elements.has(page.selected)) showDetails(page.selected, false);
}

// ---- The element tree: what is open, loaded as it is opened -----------------------------------

function stateWords(element) {
    const words = [];
    for (const [group, value] of element.states) {
        if (value !== NORMAL && value !== ENABLED && value !== 0 && group !== 0x80006) words.push(nameOf('stateValues', value));
    }
    return words.length ? words.join(', ') : 'normal';
}

function kindOf(element) {
    const kinds = [...element.states.keys()].map((group) => page.kindOf.get(`${element.uuid}:${group}`));
    return LISTED.find((kind) => kinds.includes(kind)) ?? '';
}

function buildTree() {
    page.treeItems = new Map();
    const list = $('tree');
    list.replaceChildren(treeItem(page.root));
    openItem(list.firstElementChild, true);
    filterTree();
}

// One element's line; its children are added when it is opened.
function treeItem(uuid) {
    const element = page.elements.get(uuid);
    const item = document.createElement('li');
    item.dataset.uuid = uuid;
    const toggle = document.createElement('button');
    toggle.type = 'button';
    toggle.className = 'toggle';
    toggle.tabIndex = -1;
    toggle.setAttribute('aria-hidden', 'true');
    // The type library says whether the element's type can have elements below it.
    typeInfo(element.typeId).then((type) => {
        if (!type.relations.some((r) => r.relationKind === 0)) return;
        toggle.removeAttribute('aria-hidden');
        toggle.removeAttribute('tabindex');
        toggle.setAttribute('aria-expanded', String(Boolean(item.querySelector(':scope > ul:not([hidden])'))));
        toggle.setAttribute('aria-label', `Show or hide the elements below ${element.idString}`);
        toggle.textContent = toggle.getAttribute('aria-expanded') === 'true' ? '▾' : '▸';
    }).catch(() => {});
    toggle.addEventListener('click', () => openItem(item, toggle.getAttribute('aria-expanded') !== 'true').catch((e) => say(e.message, true)));
    const button = document.createElement('button');
    button.type = 'button';
    button.className = 'element';
    button.addEventListener('click', () => showDetails(uuid, true));
    item.append(toggle, button);
    page.treeItems.set(uuid, button);
    updateTreeItem(uuid);
    return item;
}

// Shows (loading them first) or hides the elements below the item's element.
async function openItem(item, open) {
    const uuid = Number(item.dataset.uuid);
    const toggle = item.firstElementChild;
    let children = item.querySelector(':scope > ul');
    if (open && !children) {
        const element = page.elements.get(uuid).children ? page.elements.get(uuid) : await loadChildren(uuid);
        if (item.querySelector(':scope > ul')) return; // opened meanwhile
        children = document.createElement('ul');
        children.append(...element.children.map(treeItem));
        item.append(children);
    }
    if (children) children.hidden = !open;
    if (toggle.hasAttribute('aria-expanded')) {
        toggle.setAttribute('aria-expanded', String(open));
        toggle.textContent = open ? '▾' : '▸';
    }
    if (open) filterTree();
}

// Opens the tree down to the element and shows its details.
async function reveal(uuid) {
    await page.treeLoaded;
    const path = [uuid];
    while (!page.treeItems.has(path[0])) {
        const parent = num(await page.client.getParent(path[0]));
        if (!parent) return;
        path.unshift(parent);
    }
    for (const above of path.slice(0, -1)) {
        await openItem(page.treeItems.get(above).parentElement, true);
    }
    const button = page.treeItems.get(uuid);
    button?.scrollIntoView({ block: 'nearest' });
    button?.focus();
    showDetails(uuid, true);
}

function updateTreeItem(uuid) {
    const button = page.treeItems.get(uuid);
    const element = page.elements.get(uuid);
    if (!button || !element) return;
    const text = `${element.idString} ${element.label} (${nameOf('types', element.typeId)}): ${stateWords(element)}`;
    const className = `element ${kindOf(element)}`;
    if (button.textContent !== text) button.textContent = text;
    if (button.className !== className) button.className = className;
}

// Shows the loaded elements whose ID string or label holds the search text, with the elements
// above them.
function filterTree() {
    const wanted = $('search').value.trim().toLowerCase();
    const visit = (item) => {
        const element = page.elements.get(Number(item.dataset.uuid));
        const own = !wanted || `${element.idString} ${element.label}`.toLowerCase().includes(wanted);
        let below = false;
        const children = item.querySelector(':scope > ul');
        for (const child of children?.children ?? []) below = visit(child) || below;
        item.hidden = !own && !below;
        if (wanted && below) children.hidden = false;
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

// An element's ID string and label, read when the tree has not loaded it.
async function elementName(uuid) {
    const known = page.elements.get(uuid);
    if (known) return `${known.idString} ${known.label}`;
    const [idString, [label]] = await Promise.all([page.client.getIdString(uuid),
        page.client.readProperties([new rpc.PropertyRef({ uuid, propertyId: LABEL })])]);
    return `${idString} ${textOf(label)}`;
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
    const type = await typeInfo(element.typeId);
    const [properties, relations] = await Promise.all([
        client.readProperties(type.properties.map((p) => new rpc.PropertyRef({ uuid, propertyId: p.propertyId }))),
        Promise.all([ZONE_RELATION, EVACUATION_RELATION].map((relation) =>
            client.getRelations(uuid, relation, true)
                .then((to) => Promise.all(to.map(async (t) => [relation, await elementName(num(t))])))
                .catch(() => []))),
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
    for (const [relation, name] of relations.flat()) add(relation === ZONE_RELATION ? 'Zone' : 'Evacuation zone', name);
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
        dd.className = page.kindOf.get(`${element.uuid}:${group}`) ?? '';
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

const isSounder = (c) => /Sounder|Beacon/.test(nameOf('types', c.typeId));
const outputs = () => page.conditions.filter((c) => c.kind === 'output' && c.group === OUTPUT_STATE);

function silence() {
    const sounding = outputs().filter((c) => isSounder(c) && c.value === ACTIVATED);
    operate('Sounders silenced', sounding.map((c) => [c.uuid, OUTPUT_STATE, SILENCED]));
}

// Fire alarms back to normal and every activated or silenced output with them.
function reset() {
    const changes = page.conditions.filter((c) => (c.kind === 'fire' && c.group === FIRE_ALARM_STATE) || c.kind === 'output')
        .map((c) => [c.uuid, c.group, NORMAL]);
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
