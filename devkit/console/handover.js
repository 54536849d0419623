// What goes from one request's answer into another's form: a result as a parameter of one's choice,
// or all that the inverse request needs. What goes where follows from the catalogue's meanings: a
// plaintext and a ciphertext are both "strdata".

import { handleOf, requests } from './catalogue.js';
import { emptyEntry, fault } from './entries.js';
import { t } from './i18n.js';
import { formOf } from './memory.js';
import { isPrintable, resultBytes, textOf, toUrlBase64 } from './values.js';

// Meanings that are one thing in other words.
const OTHER_WORDS = { 'text to decode': 'bytes in Base64' };

// What a parameter or result is, without what else is said of it: "ciphertext".
function subject({ meaning }) {
    const what = meaning.split(/[;,]/)[0].replace(/^the /, '');
    return OTHER_WORDS[what] ?? what;
}

export function sameMeaning(one, other) {
    return subject(one) === subject(other);
}

export function isPlaintext(what) {
    return subject(what) === 'plaintext';
}

// What to do with something that a request makes and its inverse takes.
function invitation(what) {
    return {
        'ciphertext': t('Decrypt this'),
        'plaintext': t('Encrypt this'),
        'envelope': t('Open this'),
        'bytes in Base64': t('Decode this'),
        'bytes': t('Encode this'),
    }[what];
}

function counterpart(parameter, results) {
    return results.find((result) => sameMeaning(parameter, result));
}

// The request that undoes another, and what invites to it: {request, text}; null if there is none.
// Each makes what the other takes. What a session encrypts, its other side alone decrypts.
export function inverseOf(request) {
    if (handleOf(request.parameters)) return null;
    for (const other of requests()) {
        if (other === request || other.group !== request.group) continue;
        const takes = (taker, maker) => taker.parameters
            .filter((parameter) => counterpart(parameter, maker.results))
            .map((parameter) => invitation(subject(parameter)))
            .find((text) => text !== undefined);
        if (takes(other, request) && takes(request, other)) return { request: other, text: takes(other, request) };
    }
    return null;
}

// Entries that a result was put into, as long as nobody types in them.
const handed = new WeakSet();

// The entry for a result, as the answer has it; a plaintext can be read.
function entryOfResult(result, sent) {
    const bytes = resultBytes(result.form, sent);
    const isText = bytes === null || (typeof sent === 'string' && !['base64', 'escaped'].includes(result.form));
    const readable = bytes && textOf(bytes);
    let entry = { ...emptyEntry('base64'), text: bytes && toUrlBase64(bytes) };
    if (isText) entry = { ...emptyEntry(), text: sent };
    else if (['plaintext', 'bytes'].includes(subject(result)) && readable !== null && isPrintable(readable))
        entry = { ...emptyEntry(), text: readable };
    handed.add(entry);
    return entry;
}

// What a call was given for a parameter that another request has in common with it; undefined if
// they have it not.
function commonEntry(request, { sent }, parameter) {
    const own = request.parameters.find(({ name, form }) => name === parameter.name && form === parameter.form);
    if (own === undefined || !sameMeaning(own, parameter)) return undefined;
    return sent.find((given) => given.parameter === own)?.entry ?? emptyEntry();
}

// Puts a result of an answer into a parameter of another request. With `along` what both have in
// common goes too, but for fields that other results were put into.
export function handOver(request, state, result, target, parameterName, along) {
    const { entries } = formOf(target);
    for (const parameter of along ? target.parameters : []) {
        const entry = commonEntry(request, state, parameter);
        if (entry !== undefined && !handed.has(entries.get(parameter.name))) entries.set(parameter.name, { ...entry });
    }
    entries.set(parameterName, entryOfResult(result, state.outcome.results[result.name]));
}

// Fills the form of the inverse with the results of an answer and what it was made with. No initial
// value goes into an encryption: one must not serve twice. Gives the name of the first parameter
// that is left to be filled in, or ''.
export function handBack(request, state, inverse) {
    const { entries } = formOf(inverse);
    const encrypts = inverse.results.some((result) => subject(result) === 'ciphertext');
    for (const parameter of inverse.parameters) {
        const result = counterpart(parameter, request.results);
        const isOnce = encrypts && subject(parameter) === 'initial value';
        const entry = result === undefined && !isOnce ? commonEntry(request, state, parameter) : emptyEntry();
        if (result !== undefined && state.outcome.results[result.name])
            entries.set(parameter.name, entryOfResult(result, state.outcome.results[result.name]));
        else if (entry !== undefined) entries.set(parameter.name, { ...entry });
    }
    const valueOf = (name) => entries.get(name).text;
    return inverse.parameters.find((parameter) => fault(parameter, entries.get(parameter.name), valueOf))?.name ?? '';
}
