// An entry is what a person gave for one parameter: {how, text, file, before}. `how` is text, hex,
// base64 or file; `file` is the browser's File, which nobody reads here, or null; `before`, where
// it is there, is the entry that this form cannot show, so that it is empty. These functions
// turn entries into bytes and into values of the API, and say what is wrong with them. Nothing
// here touches the page.

import { PADDING, requests } from './catalogue.js';
import { bareBase64, bareHex, fromBase64, fromHex, sameBytes, textOf, toBase64, toHex, utf8 } from './values.js';
import { number, t } from './i18n.js';

export function emptyEntry(how = 'text') {
    return { how, text: '', file: null };
}

export function isEmpty(entry) {
    return entry.how === 'file' ? entry.file === null : entry.text === '';
}

export function hasFile(entry) {
    return entry.how === 'file' && entry.file !== null;
}

// The bytes that an entry stands for, or null if it stands for none. Not for files.
export function entryBytes(entry) {
    switch (entry.how) {
        case 'hex':
            return fromHex(entry.text);
        case 'base64':
            return fromBase64(entry.text);
        default:
            return utf8(entry.text);
    }
}

// How many bytes an entry stands for; null if for none.
export function entrySize(entry) {
    if (isEmpty(entry)) return null;
    return entry.how === 'file' ? entry.file.size : entryBytes(entry)?.length ?? null;
}

// Longer values are not written anew at a click.
const MOST_CONVERTED = 65536;  // bytes

// The same bytes in another form. What stands for none in its own form was meant in another one:
// its characters stay. What a form cannot show waits in `before`. A file waits until files are
// chosen again.
export function convertEntry(entry, how) {
    const { file, before } = entry;
    if (how === entry.how) return entry;
    if (how === 'file') return { how, text: '', file, before: isEmpty(entry) ? before : entry };
    if (entry.text === '') return before ? { ...convertEntry(before, how), file } : { how, text: '', file };
    const bytes = entryBytes(entry);
    if (bytes === null) return { how, text: entry.text, file };
    const hidden = { how, text: '', file, before: entry };
    if (bytes.length > MOST_CONVERTED) return hidden;
    if (how === 'hex') return { how, text: toHex(bytes), file };
    if (how === 'base64') return { how, text: toBase64(bytes), file };
    const text = textOf(bytes);
    return text === null ? hidden : { how, text, file };
}

// Shorter texts may look like anything.
const LEAST_LIKELY = 16;  // characters

// The form that a pasted text seems to have, where that is another one than its field's: hex or
// base64; else ''. Hex digits are Base64, too, but nobody's Base64 has nothing else.
export function likelyForm({ how, text }) {
    if (how === 'file' || text.length < LEAST_LIKELY || /^\s*-----BEGIN/.test(text)) return '';
    if (how !== 'hex' && fromHex(text) !== null) return 'hex';
    if (how === 'base64' || fromHex(text) !== null || fromBase64(text) === null) return '';
    const isMixed = /[A-Z]/.test(text) && /[a-z]/.test(text) && /[0-9]/.test(text);
    return isMixed || /=\s*$/.test(text) ? 'base64' : '';
}

// Forms whose values are Base64 of bytes on their way to the plug-in.
export function travelsAsBase64(parameter) {
    return parameter.form === 'base64' || parameter.form === 'key-text';
}

// Of more numbers nobody wants to choose.
const MOST_CHOICES = 40;

// What a field of choices offers: the numbers that have a name, then the others that may be; null
// where the values are no numbers or too many of them.
export function offered({ choices = [], oneOf, range }) {
    const span = range ? range[1] - range[0] + 1 : 0;
    if (span > MOST_CHOICES) return null;
    const numbers = oneOf ?? Array.from({ length: span }, (_, i) => String(range[0] + i));
    const named = new Set(choices.map(({ value }) => value));
    const all = [...choices, ...numbers.filter((value) => !named.has(value)).map((value) => ({ value, text: '' }))];
    return all.length > 0 ? all : null;
}

// What kind of field a parameter needs: choice, number, handle, path, password or bytes.
export function fieldKind(parameter) {
    if ((parameter.choices || parameter.oneOf) && offered(parameter)) return 'choice';
    if (parameter.range) return 'number';
    if (parameter.form === 'handle' || parameter.form === 'path') return parameter.form;
    if (/password/i.test(parameter.name)) return 'password';
    return 'bytes';
}

// Whether a path may be an uploaded file: one that names a file, not a folder.
export function takesUpload(parameter) {
    return parameter.form === 'path' && /file$/i.test(parameter.name);
}

// The form in which a field starts. What other calls or the peer made is shown as Base64, and is
// most often pasted so.
export function firstForm(parameter) {
    if (takesRandom(parameter)) return 'hex';
    const isMade = /^(the )?(ciphertext|tag|envelope|server's)\b/.test(parameter.meaning);
    return parameter.form === 'base64' && isMade ? 'base64' : 'text';
}

// Whether random bytes make sense: keys, initial values.
export function takesRandom(parameter) {
    return parameter.form === 'base64' &&
        (parameter.length !== undefined || /\bkey\b|initial value/.test(parameter.meaning));
}

const exactly = (count) => ({ least: count, most: count, usual: count });

// What the value that is chosen elsewhere in a request says of something; undefined if nothing.
function chosenFact(request, member, valueOf) {
    const other = request.parameters.find(({ choices }) => choices?.some((row) => member in row));
    return other?.choices.find((row) => row.value === valueOf(other.name))?.[member];
}

// The bytes of the blocks that a parameter must be made of; 0 where it may have any length.
export function neededBlocks(request, parameter, valueOf) {
    const { wholeBlocks } = parameter;
    const isPadded = !['', '0'].includes(valueOf(PADDING));
    if (wholeBlocks === undefined || (wholeBlocks === 'unless-padded' && isPadded)) return 0;
    return (chosenFact(request, 'wholeBlocks', valueOf) && chosenFact(request, 'blockBytes', valueOf)) || 0;
}

// A tag that a request takes is as long as another request may make it; null for what is no tag.
function tagLength(parameter) {
    if (!/^the tag\b/.test(parameter.meaning)) return null;
    const made = requests().flatMap((request) => request.parameters)
        .find(({ meaning, range }) => range && /^length of the tag\b/.test(meaning));
    return made ? { least: made.range[0], most: made.range[1], usual: Number(made.default) } : null;
}

// How many bytes a parameter needs beside the other values: {least, most, usual}, or null where
// that is not known. A key's length follows from the cipher, an initial value's from mode and cipher.
export function neededLength(request, parameter, valueOf) {
    if (parameter.bytes !== undefined) return exactly(parameter.bytes);
    const chosen = (member) => chosenFact(request, member, valueOf);
    if (parameter.length === 'key') {
        const keyBytes = chosen('keyBytes');
        return keyBytes === undefined ? null : exactly(keyBytes);
    }
    if (parameter.length !== 'iv') return tagLength(parameter);
    const iv = chosen('iv');
    const blockBytes = chosen('blockBytes');
    if (iv === 'block') return blockBytes === undefined ? null : exactly(blockBytes);
    return typeof iv === 'object' ? { least: iv.min, most: iv.max, usual: iv.usual } : null;
}

// "32 bytes needed", of what neededLength() gives.
export function neededText({ least, most, usual }) {
    if (least === most) return least === 1 ? t('1 byte needed') : t('{count} bytes needed', { count: least });
    return t('{least} to {most} bytes needed, usually {usual}', { least, most, usual });
}

export function choiceText({ value, text }) {
    return text ? t('{name} ({value})', { name: t(text), value }) : value;
}

// When a parameter has a use, as a condition of the catalogue; undefined: always.
function useOf({ requiredWhen, usedWhen }) {
    return requiredWhen ?? usedWhen;
}

// Why a parameter has no use beside the other values, in the words of its condition.
export function unusedText(request, parameter, valueOf) {
    const condition = useOf(parameter);
    const other = request.parameters.find(({ name }) => name === condition.parameter);
    const value = condition.is ?? condition.isNot ?? valueOf(condition.parameter);
    const row = other?.choices?.find((choice) => choice.value === value);
    const choice = row?.text ? t(row.text) : `${condition.parameter} ${value}`;
    return 'is' in condition ? t('Used with {choice} only.', { choice }) : t('Not used with {choice}.', { choice });
}

// Whether a condition of the catalogue ({parameter, is}, {parameter, isNot} or {parameter, isNoneOf}) holds.
function holds(condition, valueOf) {
    const value = valueOf(condition.parameter);
    if ('isNoneOf' in condition) return !condition.isNoneOf.includes(value);
    return 'is' in condition ? value === condition.is : value !== condition.isNot;
}

// Whether a parameter has a use beside the other values. One with a condition has none where the
// condition fails: it is then ignored.
export function applies(parameter, valueOf) {
    const condition = useOf(parameter);
    return condition === undefined || holds(condition, valueOf);
}

// What takes part in a call: [{parameter, entry}] of what is used, and not empty.
export function givenOf(request, entries) {
    const valueOf = (name) => entries.get(name)?.text ?? '';
    return request.parameters
        .map((parameter) => ({ parameter, entry: entries.get(parameter.name) }))
        .filter(({ parameter, entry }) => applies(parameter, valueOf) && !isEmpty(entry));
}

// The text of the session that a call belongs to; undefined if there is none.
export function sessionGiven(given) {
    return given.find(({ parameter }) => parameter.form === 'handle')?.entry.text;
}

function sameEntry(a, b) {
    if (hasFile(a) || hasFile(b)) return a.file === b.file && a.how === b.how;
    if (a.how === b.how) return a.text === b.text;
    const [bytes, others] = [entryBytes(a), entryBytes(b)];
    return bytes !== null && others !== null && sameBytes(bytes, others);
}

// Whether two calls of a request are given the same values.
export function sameGiven(one, other) {
    return one.length === other.length &&
        one.every(({ parameter, entry }, i) => parameter === other[i].parameter && sameEntry(entry, other[i].entry));
}

export function isRequired(parameter, valueOf) {
    return parameter.required ||
        (parameter.requiredWhen !== undefined && holds(parameter.requiredWhen, valueOf));
}

// The value of the API for an entry that is neither empty nor a file; null if there is none.
export function entryValue(parameter, entry) {
    if (fieldKind(parameter) !== 'bytes') return entry.text;
    switch (entry.how) {
        case 'hex':
            return fromHex(entry.text) && { hex: bareHex(entry.text).toLowerCase() };
        case 'base64':
            // What is not Base64 is sent all the same: the plug-in says what it thinks of it.
            return fromBase64(entry.text) ? { base64: bareBase64(entry.text) } : { raw: entry.text };
        default:
            // Halves of characters are none in UTF-8.
            return travelsAsBase64(parameter) ? { text: textOf(utf8(entry.text)) } : entry.text;
    }
}

function hexFault(text) {
    const digits = bareHex(text);
    const wrong = digits.match(/[^0-9a-fA-F]/u);
    if (wrong) return t('“{character}” is not a hex digit.', { character: wrong[0] });
    return t('Hex has two digits for each byte; here is one too many or too few.');
}

function base64Fault(text) {
    const wrong = text.match(/[^\sA-Za-z0-9+/_=-]/u);
    if (wrong) return t('“{character}” is not a Base64 character.', { character: wrong[0] });
    return t('This Base64 text is cut or ends wrongly.');
}

function numberFault([low, high], text) {
    if (!/^-?\d+$/.test(text)) return t('Must be a whole number from {low} to {high}.', { low, high });
    if (Number(text) < low || Number(text) > high)
        return t('Must be {low} to {high}; it is {value}.', { low, high, value: text });
    return '';
}

function pathFault(text) {
    if (text.startsWith('/')) return t('Must be a name below the host’s folder, without “/” at its beginning.');
    if (text.split('/').includes('..')) return t('Must not contain “..”.');
    return '';
}

function lengthFault(length, size) {
    if (length === null || (size >= length.least && size <= length.most)) return '';
    return t('{needed}, {size} given.', { needed: neededText(length), size: number(size) });
}

function blocksFault(parameter, bytes, size) {
    if (bytes === 0 || size % bytes === 0) return '';
    return parameter.wholeBlocks === 'always'
        ? t('Must be whole blocks of {bytes} bytes; here are {size}.', { bytes, size: number(size) })
        : t('Without padding it must be whole blocks of {bytes} bytes; here are {size}.', { bytes, size: number(size) });
}

// What is wrong with an entry: {text, stops}, or null. With `stops` it stands for nothing that
// could be sent; all else the host may be asked to judge. `length` is what neededLength() gives,
// `blocks` what neededBlocks() gives.
export function fault(parameter, entry, valueOf, length = null, blocks = 0) {
    if (isEmpty(entry)) {
        if (!isRequired(parameter, valueOf)) return null;
        return { text: t('Required, and still empty.'), stops: false };
    }
    const refused = (text) => (text === '' ? null : { text, stops: false });
    const kind = fieldKind(parameter);
    if (kind === 'number') return refused(numberFault(parameter.range, entry.text));
    if (kind === 'path' && entry.how !== 'file') return refused(pathFault(entry.text));
    if (kind !== 'bytes') return null;

    const size = entrySize(entry);
    if (size === null && entry.how === 'hex') return { text: hexFault(entry.text), stops: true };
    if (size === null) return refused(base64Fault(entry.text));
    return refused(lengthFault(length, size) || blocksFault(parameter, blocks, size));
}
