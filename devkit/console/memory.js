// What the page remembers between views. It lives in memory alone and ends with the page: entries
// and answers may hold secrets. The history holds none, whatever happens to it.

import { emptyEntry, takesRandom } from './entries.js';

const forms = new Map();
const sessions = new Set();
const calls = [];

const HISTORY_LENGTH = 200;

// {entries: Map of parameter names to entries, outcome: of the last call or null, stale: whether
// the entries have changed since}
export function formOf(request) {
    if (!forms.has(request.name)) {
        const entries = new Map(request.parameters.map((parameter) =>
            [parameter.name, emptyEntry(takesRandom(parameter) ? 'hex' : 'text')]));
        forms.set(request.name, { entries, outcome: null, stale: false });
    }
    return forms.get(request.name);
}

export function forgetForm(request) {
    forms.delete(request.name);
}

// Key-exchange sessions that this page opened.
export function openSessions() {
    return [...sessions];
}

// Notes what a call tells of sessions, and a row of the history: never a value.
export function remember(request, parameters, outcome) {
    const handle = request.results.find((result) => result.form === 'handle');
    if (outcome.ok && handle) sessions.add(outcome.results[handle.name]);
    const given = request.parameters.find((parameter) => parameter.form === 'handle');
    const ends = given && outcome.ok && request.results.length === 1 && /_free$/.test(request.name);
    if (ends || outcome.error?.code === 'session_gone') sessions.delete(parameters[given?.name]);

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
    forms.clear();
    sessions.clear();
    calls.length = 0;
}
