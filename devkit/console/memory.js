// What the page remembers between views. It lives in memory and ends with the page: entries and
// answers may hold secrets. A reload keeps what the catalogue says is none: choices, numbers and
// names of files on the host lie in sessionStorage meanwhile. The history holds no values at all.

import { handleOf, requests } from './catalogue.js';
import { emptyEntry, firstForm, givenOf, sameGiven } from './entries.js';

const STORED = 'corvane.forms';

const forms = new Map();
const sessions = new Set();
const calls = [];

const HISTORY_LENGTH = 200;

// {request: {parameter: text}}, of the page's life before its reload.
let kept = {};

export function restoreForms() {
    kept = JSON.parse(sessionStorage.getItem(STORED) ?? '{}');
}

// Whether an entry may outlive the page. What a host does not speak of is a secret.
function mayBeKept(parameter, entry) {
    return parameter.secret === false && entry.how === 'text' && entry.text !== '';
}

function firstEntry(request, parameter) {
    const text = kept[request.name]?.[parameter.name];
    if (text !== undefined && parameter.secret === false) return { ...emptyEntry(), text };
    return emptyEntry(firstForm(parameter));
}

// {entries: Map of parameter names to entries, outcome: of the last call or null, sent: what that
// call was given, as givenOf() tells it}
export function formOf(request) {
    if (!forms.has(request.name)) {
        const entries = new Map(request.parameters.map((parameter) =>
            [parameter.name, firstEntry(request, parameter)]));
        forms.set(request.name, { entries, outcome: null, sent: [] });
    }
    return forms.get(request.name);
}

// Whether the answer in a form is one to other values than stand in it.
export function isStale(request, { entries, outcome, sent }) {
    return outcome !== null && !sameGiven(givenOf(request, entries), sent);
}

export function forgetForm(request) {
    forms.delete(request.name);
    delete kept[request.name];
}

// Notes what the forms may keep: `kept`.
function noteKept() {
    for (const request of requests()) {
        const form = forms.get(request.name);
        if (form === undefined) continue;
        const values = request.parameters
            .map((parameter) => [parameter, form.entries.get(parameter.name)])
            .filter(([parameter, entry]) => mayBeKept(parameter, entry))
            .map(([parameter, entry]) => [parameter.name, entry.text]);
        if (values.length > 0) kept[request.name] = Object.fromEntries(values);
        else delete kept[request.name];
    }
}

// Puts aside what the forms may keep over a reload; called when the page goes.
export function keepForms() {
    noteKept();
    if (Object.keys(kept).length > 0) sessionStorage.setItem(STORED, JSON.stringify(kept));
    else sessionStorage.removeItem(STORED);
}

// Key-exchange sessions that this page opened.
export function openSessions() {
    return [...sessions];
}

// Notes what a call tells of sessions, and a row of the history: never a value. `session` is the
// one that it belonged to, if it did.
export function remember(request, session, outcome) {
    const handle = handleOf(request.results);
    if (outcome.ok && handle) sessions.add(outcome.results[handle.name]);
    const ends = session && outcome.ok && request.results.length === 1 && /_free$/.test(request.name);
    if (ends || outcome.error?.code === 'session_gone') sessions.delete(session);

    calls.unshift({
        name: request.name,
        time: new Date(),
        ok: outcome.ok,
        code: outcome.ok ? '0' : outcome.error.code,
        microseconds: outcome.microseconds ?? null,
    });
    calls.length = Math.min(calls.length, HISTORY_LENGTH);
}

export function history() {
    return calls;
}

export function clearHistory() {
    calls.length = 0;
}

export function forgetEverything() {
    forgetSecrets();
    kept = {};
}

// All goes but what the forms may keep, which waits in memory alone.
export function forgetSecrets() {
    noteKept();
    forms.clear();
    sessionStorage.removeItem(STORED);
    sessions.clear();
    calls.length = 0;
}
