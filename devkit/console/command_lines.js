// The same call for a shell: with curl over HTTP, and with corvane-host without it. Values are
// written as they were given; the bearer token is left to the variable TOKEN. Lines suit bash.

import { SESSION_HEADER, isSessionToken } from './api.js';
import { handleOf } from './catalogue.js';
import { entryBytes, entryValue, fieldKind, hasFile, sessionGiven, travelsAsBase64 } from './entries.js';
import { TOKEN_FILE } from './labels.js';
import { formParts, jsonPieces } from './sending.js';
import { bareHex, isPrintable, textOf, toBase64, toHex, toUrlBase64, utf8 } from './values.js';

// Longer lines are none: Linux takes 128 KiB in one argument.
export const LONGEST_LINE = 120000;  // characters

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

// A file that the shell makes of bytes.
const bytesFile = (bytes) => `<(printf %s ${quote(toBase64(bytes))} | base64 -d)`;

// A field of a form for curl.
function formWords({ name, text, bytes, file }) {
    if (text !== undefined) return `--form-string ${quote(`${name}=${text}`)}`;
    if (bytes !== undefined) return `-F ${quote(`${name}=@`)}${bytesFile(bytes)}`;
    return `-F ${quote(`${name}=@"${fileArgument(file.name).replace(/["\\]/g, '\\$&')}"`)}`;
}

// Each member on a line of its own: within quotes the shell takes that, as JSON does.
function jsonWords(given) {
    if (given.some(({ entry }) => hasFile(entry))) {
        const commands = jsonPieces(given).map((piece) => (typeof piece === 'string'
            ? `printf %s ${quote(piece)}`
            : `base64 <${quote(fileArgument(piece.name))} | tr -d '\\n'`));
        return `--data-binary @<(${commands.join('; ')})`;
    }
    const values = given.map(({ parameter, entry }) => [parameter.name, entryValue(parameter, entry)]);
    const members = values.map(([name, value]) => `\n  ${JSON.stringify(name)}: ${JSON.stringify(value)}`);
    return `--data-raw ${quote(`{${members.join(',')}${members.length > 0 ? '\n' : ''}}`)}`;
}

// Lets the shell know the host's token, if that is where "corvane-host serve" keeps it by itself.
export function tokenLine() {
    return `export TOKEN=$(cat ${TOKEN_FILE})`;
}

// `given` is [{parameter, entry}]; what goes as a form or as JSON goes so here too.
export function curlLine(origin, requestName, given) {
    const head = [
        `curl -sS ${quote(`${origin}/v1/requests/${requestName}`)}`,
        '-H "Authorization: Bearer $TOKEN"',
    ];
    const session = sessionGiven(given);
    if (isSessionToken(session)) head.push(`-H ${quote(`${SESSION_HEADER}: ${session}`)}`);
    const parts = formParts(given);
    if (parts !== null) return multiline([...head, ...parts.map(formWords)]);
    return multiline([...head, "-H 'Content-Type: application/json'", jsonWords(given)]);
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
    return `${quote(parameter.name)}=${encoded ? 'b64:' : ''}@${bytesFile(bytes)}`;
}

// Behind "raw:" only these two mean something.
function guarded(text) {
    return /^(text:|@)/.test(text) ? `text:${text}` : text;
}

// Null for a request of a key-exchange session: that lives in one process, and `call` ends with
// its request.
export function hostLine(request, given) {
    if (handleOf(request.parameters)) return null;
    return multiline([`corvane-host call ${quote(request.name)}`,
        ...given.map(({ parameter, entry }) => hostArgument(parameter, entry))]);
}
