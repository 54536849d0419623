// The same call for a shell: with curl over HTTP, and with corvane-host without it. Values are
// written as they were given; the bearer token is left to the variable TOKEN. Lines suit bash.

import { SESSION_HEADER, isSessionToken } from './api.js';
import { entryBytes, entryValue, fieldKind, travelsAsBase64 } from './entries.js';
import { bareHex, isPrintable, textOf, toBase64, toHex, toUrlBase64, utf8 } from './values.js';

// A word that the shell takes as it is.
export function quote(text) {
    if (/^[A-Za-z0-9_.,:/@%+=-]+$/.test(text)) return text;
    if (isPrintable(text)) return `'${text.replace(/'/g, `'\\''`)}'`;
    const escaped = text.replace(/[\\']/g, '\\$&').replace(/[\u0000-\u001f\u007f-\u009f]/gu,
        (character) => toHex(utf8(character)).replace(/../g, '\\x$&'));
    return `$'${escaped}'`;
}

// A file's name where the tool would take "-" and the like for something else.
function fileArgument(name) {
    return `./${name}`;
}

const multiline = (words) => words.join(' \\\n  ');

// A value for curl's -F or --form-string, or null if a form cannot carry it.
function formPart(parameter, entry) {
    if (entry.how === 'file') {
        const name = fileArgument(entry.file.name).replace(/["\\]/g, '\\$&');
        return ['-F', quote(`${parameter.name}=@"${name}"`)];
    }
    const value = entryValue(parameter, entry);
    if (typeof value === 'string')
        return value.includes('\0') ? null : ['--form-string', quote(`${parameter.name}=${value}`)];
    if (!travelsAsBase64(parameter) || 'raw' in value) return null;
    const bytes = entryBytes(entry);
    return ['--form-string', quote(`${parameter.name}=${toBase64(bytes)}`)];
}

// `given` is [{parameter, entry}]. Files go as files if all else fits into a form; otherwise
// everything goes as JSON.
export function curlLine(origin, requestName, given) {
    const head = [
        `curl -sS ${quote(`${origin}/v1/requests/${requestName}`)}`,
        '-H "Authorization: Bearer $TOKEN"',
    ];
    const session = given.find(({ parameter }) => parameter.form === 'handle')?.entry.text;
    if (isSessionToken(session)) head.push(`-H ${quote(`${SESSION_HEADER}: ${session}`)}`);
    const parts = given.map(({ parameter, entry }) => formPart(parameter, entry));
    if (given.some(({ entry }) => entry.how === 'file') && !parts.includes(null))
        return multiline([...head, ...parts.map((words) => words.join(' '))]);

    const values = given.map(({ parameter, entry }) => [parameter.name, entryValue(parameter, entry)]);
    return multiline([...head, "-H 'Content-Type: application/json'",
        `--data-raw ${quote(JSON.stringify(Object.fromEntries(values)))}`]);
}

// A text argument of corvane-host, guarded where it begins like one of its other forms.
function asText(text) {
    return /^(b64:|hex:|text:|raw:|@)/.test(text) ? `text:${text}` : text;
}

function hostArgument(parameter, entry) {
    const argument = (value) => quote(`${parameter.name}=${value}`);
    if (fieldKind(parameter) !== 'bytes')
        return argument(entry.how === 'file' ? fileArgument(entry.file.name) : asText(entry.text));

    const encoded = travelsAsBase64(parameter);
    if (entry.how === 'file') return argument(`${encoded ? 'b64:' : ''}@${fileArgument(entry.file.name)}`);
    const bytes = entryBytes(entry);
    if (bytes === null) return argument(`raw:${guarded(entry.text)}`);
    const text = encoded && entry.how !== 'text' ? null : textOf(bytes);
    // No argument can hold a null character.
    if (text !== null && !text.includes('\0')) return argument(encoded ? `text:${text}` : asText(text));
    if (encoded && entry.how === 'hex') return argument(`hex:${bareHex(entry.text)}`);
    if (encoded && entry.how === 'base64') return argument(toUrlBase64(bytes));
    return `${quote(parameter.name)}=${encoded ? 'b64:' : ''}@<(printf %s ${quote(toBase64(bytes))} | base64 -d)`;
}

// Behind "raw:" only these two mean something.
function guarded(text) {
    return /^(text:|@)/.test(text) ? `text:${text}` : text;
}

// Null for a request of a key-exchange session: that lives in one process, and `call` ends with
// its request.
export function hostLine(request, given) {
    if (request.parameters.some((parameter) => parameter.form === 'handle')) return null;
    return multiline([`corvane-host call ${quote(request.name)}`,
        ...given.map(({ parameter, entry }) => hostArgument(parameter, entry))]);
}
