// The host's HTTP interface. Each call gives the host's JSON or throws a Failure, whatever
// happened.

import { token } from './token.js';

// The exchange with the host failed: {status, error: {code, text, cause, remedy, field}, warnings,
// answer, token}. Status 0: the host did not answer; `answer` is its JSON, or null; `token` is the
// one that the call went with, which may be a former one by then.
export class Failure extends Error {
    constructor(status, error, answer = null, usedToken = '') {
        super(error.text);
        this.status = status;
        this.error = error;
        this.warnings = answer?.warnings ?? [];
        this.answer = answer;
        this.token = usedToken;
    }
}

// The person has signed out meanwhile, and nobody is to learn what came of a call.
export class SignedOut extends Error {}

let stay = new AbortController();

// The AbortSignal of the time until somebody signs out. What takes several turns holds on to the
// one that it began with; its throwIfAborted() throws SignedOut.
export function currentStay() {
    return stay.signal;
}

// Ends all calls that are on their way; each throws SignedOut.
export function endStay() {
    stay.abort(new SignedOut());
    stay = new AbortController();
}

export const SESSION_HEADER = 'X-Corvane-Session';

export function isSessionToken(text) {
    return typeof text === 'string' && /^ke_[\w.-]+$/.test(text);
}

const unreachable = {
    code: 'unreachable',
    source: 'page',
    text: 'The host does not answer.',
    cause: 'It has ended, or the connection to it is cut.',
    remedy: 'Start it again with “corvane-host serve”, then repeat the call.',
};

const unreadable = {
    code: 'unreadable',
    source: 'page',
    text: 'The answer cannot be read.',
    cause: 'Something other than corvane-host answers at this address.',
    remedy: 'Check the address, and what stands between browser and host.',
};

const cancelled = {
    code: 'cancelled',
    source: 'page',
    text: 'You stopped waiting; the host may have carried the request out all the same, as what it is at work on goes on to its end.',
    cause: '',
    remedy: 'Send it again, if that does no harm.',
};

// `body` is a text of JSON, or a Blob with its type. `session` is the token of the key-exchange
// session that a call belongs to, by which balancers find its host; what cannot be a token is sent
// in the body alone. `signal` is an AbortSignal that ends the waiting.
async function call(method, path, body, session = '', signal = undefined) {
    const headers = {};
    const usedToken = token();
    const during = currentStay();
    if (isSessionToken(session)) headers[SESSION_HEADER] = session;
    if (usedToken !== '') headers.Authorization = `Bearer ${usedToken}`;
    if (body !== undefined) headers['Content-Type'] = body.type ?? 'application/json';
    let response;
    let text;
    try {
        response = await fetch(path, { method, headers, body, cache: 'no-store',
            signal: signal ? AbortSignal.any([during, signal]) : during });
        text = await response.text();
    } catch {
        during.throwIfAborted();
        throw new Failure(0, signal?.aborted ? cancelled : unreachable);
    }
    const json = parsed(text);
    if (!response.ok) throw new Failure(response.status, json?.error ?? unreadable, json, usedToken);
    if (json === null) throw new Failure(response.status, unreadable);
    return json;
}

// An object of JSON, or null.
function parsed(text) {
    try {
        const json = JSON.parse(text);
        return typeof json === 'object' ? json : null;
    } catch {
        return null;
    }
}

export function getCatalogue() {
    return call('GET', '/v1/catalogue');
}

export function getStatus() {
    return call('GET', '/v1/status');
}

export function sendRequest(request, body, session, signal) {
    return call('POST', `/v1/requests/${encodeURIComponent(request.name)}`, body, session, signal);
}

export function sendToPeer(step, body, session) {
    return call('POST', `/v1/peer/${step}`, JSON.stringify(body), session);
}
