// The host's HTTP interface. Each call gives the host's JSON or throws a Failure, whatever
// happened.

import { token } from './token.js';

// The exchange with the host failed: {status, error: {code, text, cause, remedy, field}, warnings}.
// Status 0: the host did not answer.
export class Failure extends Error {
    constructor(status, error, warnings = []) {
        super(error.text);
        this.status = status;
        this.error = error;
        this.warnings = warnings;
    }
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

// `session` is the token of the key-exchange session that a call belongs to, by which balancers
// find its host. What cannot be a token is sent in the body alone.
async function call(method, path, body, session = '') {
    const headers = {};
    if (isSessionToken(session)) headers[SESSION_HEADER] = session;
    if (token() !== '') headers.Authorization = `Bearer ${token()}`;
    if (body !== undefined) headers['Content-Type'] = 'application/json';
    let response;
    try {
        response = await fetch(path, { method, headers, body, cache: 'no-store' });
    } catch {
        throw new Failure(0, unreachable);
    }
    let json;
    try {
        json = await response.json();
    } catch {
        throw new Failure(response.status, unreadable);
    }
    if (!response.ok) throw new Failure(response.status, json.error ?? unreadable, json.warnings);
    return json;
}

export function getCatalogue() {
    return call('GET', '/v1/catalogue');
}

export function getStatus() {
    return call('GET', '/v1/status');
}

// Parameters are values of the API, {name: value}.
export function sendRequest(request, parameters) {
    const handle = request.parameters.find((parameter) => parameter.form === 'handle');
    return call('POST', `/v1/requests/${encodeURIComponent(request.name)}`, JSON.stringify(parameters),
        parameters[handle?.name]);
}

export function sendToPeer(step, body, session) {
    return call('POST', `/v1/peer/${step}`, JSON.stringify(body), session);
}
