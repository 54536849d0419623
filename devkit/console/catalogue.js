// What the host says about its requests and codes. All that the page knows of them comes from
// here, so that it suits whatever host it was served by.

import { Failure } from './api.js';

let content = { requests: [], codes: [] };

// The parameter that pads data to whole blocks.
export const PADDING = 'strCipherPadding';

// Only modes of whole blocks heed a padding. That is a condition for the page, as the host has for
// others: the padding gets a `usedWhen` {parameter, isNoneOf}.
function withPaddingUse(request) {
    const mode = request.parameters.find(({ choices }) => choices?.some((row) => row.wholeBlocks));
    if (mode === undefined) return request;
    const usedWhen = { parameter: mode.name, isNoneOf: mode.choices.filter((row) => !row.wholeBlocks).map((row) => row.value) };
    const parameters = request.parameters.map((parameter) => (parameter.name === PADDING ? { ...parameter, usedWhen } : parameter));
    return { ...request, parameters };
}

export function setCatalogue(json) {
    content = { ...json, requests: json.requests.map(withPaddingUse) };
}

export function requests() {
    return content.requests;
}

export function findRequest(name) {
    return content.requests.find((request) => request.name === name);
}

// A code of the plug-in or the engine, as an answer has it; undefined for others.
export function findCode(code) {
    return content.codes.find((row) => String(row.code) === code);
}

export function findParameter(request, name) {
    return request.parameters.find((parameter) => parameter.name === name);
}

// The parameter or result that is a key-exchange session; undefined if there is none.
export function handleOf(parametersOrResults) {
    return parametersOrResults.find(({ form }) => form === 'handle');
}

// [[group, requests]], in the catalogue's order.
export function groups() {
    const byName = new Map();
    for (const request of content.requests) {
        if (!byName.has(request.group)) byName.set(request.group, []);
        byName.get(request.group).push(request);
    }
    return [...byName];
}

// A name without what spellings differ in, as the host compares names.
function folded(name) {
    return name.toLowerCase().replace(/[-_./# ]/g, '');
}

// The value that a request's parameter has for a name, such as "AES-256": engines number
// differently. Throws a Failure where the host knows no such name.
export function choice(requestName, parameterName, name) {
    const choices = findParameter(findRequest(requestName), parameterName).choices ?? [];
    const found = choices.find(({ names }) => names.some((known) => folded(known) === folded(name)));
    if (found) return found.value;
    throw new Failure(0, {
        code: 'unknown_name',
        source: 'page',
        text: 'This host’s engine has no known name for {name}.',
        values: { name },
        cause: 'Engines number differently: a host knows the names of the development engine’s numbers, or those of a file of names.',
        remedy: 'Choose something else, or start the host with “--names FILE”, which says what the numbers stand for.',
    });
}
