// What is sent for what was given: [{parameter, entry}]. Without files that is JSON. A file goes
// into a form as it is, so that the browser reads it from the disk while it sends; only beside a
// value that no form can carry it goes as Base64 into JSON.

import { entryBytes, entryValue, fieldKind, hasFile, travelsAsBase64 } from './entries.js';
import { randomBytes, toBase64, toHex, toUrlBase64 } from './values.js';

// One field of a form: {name, text}, {name, bytes} or {name, file}; null if no form can carry the
// value. Bytes of a parameter that is no Base64 go like a file, texts as they are.
function formPart({ parameter, entry }) {
    const { name } = parameter;
    if (entry.how === 'file') return { name, file: entry.file };
    const value = entryValue(parameter, entry);
    // Neither Base64 nor bytes: a form would be refused.
    if (typeof value === 'object' && 'raw' in value) return null;
    if (travelsAsBase64(parameter)) return { name, text: toUrlBase64(entryBytes(entry)) };
    if (typeof value === 'object') return { name, bytes: entryBytes(entry) };
    // No shell has a word with a null character, nor a form that is made of words.
    if (value.includes('\0') && fieldKind(parameter) === 'bytes') return { name, bytes: entryBytes(entry) };
    return { name, text: value };
}

// The fields of the form, or null if the call goes as JSON.
export function formParts(given) {
    if (!given.some(({ entry }) => hasFile(entry))) return null;
    const parts = given.map(formPart);
    return parts.includes(null) ? null : parts;
}

// The JSON of a call in pieces: texts, and files whose Base64 stands in their place.
export function jsonPieces(given) {
    const pieces = [];
    let text = '{';
    given.forEach(({ parameter, entry }, i) => {
        text += `${i === 0 ? '' : ','}${JSON.stringify(parameter.name)}:`;
        if (hasFile(entry)) {
            pieces.push(`${text}{"base64":"`, entry.file);
            text = '"}';
        } else text += JSON.stringify(entryValue(parameter, entry));
    });
    return [...pieces, `${text}}`];
}

// The body of a form, in pieces: texts, bytes and files. Written here, as the browser's own
// writer changes the ends of lines.
function multipart(parts, boundary) {
    const pieces = parts.flatMap(({ name, text, bytes, file }) => {
        const head = `--${boundary}\r\nContent-Disposition: form-data; name="${name}"`;
        if (text !== undefined) return [`${head}\r\n\r\n${text}\r\n`];
        return [`${head}; filename="file"\r\nContent-Type: application/octet-stream\r\n\r\n`, bytes ?? file, '\r\n'];
    });
    return [...pieces, `--${boundary}--\r\n`];
}

// Long enough to stand in no value.
function newBoundary() {
    return `corvane-${toHex(randomBytes(16))}`;
}

const base64Length = (bytes) => 4 * Math.ceil(bytes / 3);

// The length of the body in bytes; no file is read for it.
export function bodySize(given) {
    const parts = formParts(given);
    if (parts !== null) return new Blob(multipart(parts, newBoundary())).size;
    return jsonPieces(given).reduce((sum, piece) =>
        sum + (typeof piece === 'string' ? new Blob([piece]).size : base64Length(piece.size)), 0);
}

// Whether a file travels as Base64, a third longer than it is.
export function swellsFiles(given) {
    return given.some(({ entry }) => hasFile(entry)) && formParts(given) === null;
}

// The body: a text of JSON, or a Blob with its type.
export async function makeBody(given) {
    const parts = formParts(given);
    if (parts !== null) {
        const boundary = newBoundary();
        return new Blob(multipart(parts, boundary), { type: `multipart/form-data; boundary=${boundary}` });
    }
    const texts = await Promise.all(jsonPieces(given).map(async (piece) =>
        (typeof piece === 'string' ? piece : toBase64(new Uint8Array(await piece.arrayBuffer())))));
    return texts.join('');
}

// Whether every file can still be read: it may have changed or gone since it was chosen.
export async function filesAreReadable(given) {
    const files = given.filter(({ entry }) => hasFile(entry)).map(({ entry }) => entry.file);
    try {
        await Promise.all(files.map((file) => file.slice(0, 1).arrayBuffer()));
        return true;
    } catch {
        return false;
    }
}
