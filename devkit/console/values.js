// Bytes and the texts that stand for them: UTF-8, hex, Base64, and the double percent-escapes
// of some results. Pure functions; readers give null for a text that is not of their form.

const encoder = new TextEncoder();

export function utf8(text) {
    return encoder.encode(text);
}

// The text of well-formed UTF-8, or null.
export function textOf(bytes) {
    try {
        return new TextDecoder('utf-8', { fatal: true, ignoreBOM: true }).decode(bytes);
    } catch {
        return null;
    }
}

// Whether a text can be shown without losing control characters.
export function isPrintable(text) {
    return !/[\u0000-\u0008\u000b\u000c\u000e-\u001f\u007f-\u009f]/.test(text);
}

const HEX = Array.from({ length: 256 }, (_, byte) => byte.toString(16).padStart(2, '0'));

export function toHex(bytes) {
    let digits = '';
    for (const byte of bytes) digits += HEX[byte];
    return digits;
}

// Blanks, line ends and colons between digits are for people.
export function bareHex(text) {
    return text.replace(/[\s:]/g, '');
}

export function fromHex(text) {
    const digits = bareHex(text);
    if (digits.length % 2 !== 0 || /[^0-9a-fA-F]/.test(digits)) return null;
    return Uint8Array.from({ length: digits.length / 2 }, (_, i) =>
        parseInt(digits.slice(2 * i, 2 * i + 2), 16));
}

// The standard alphabet, padded.
export function toBase64(bytes) {
    let binary = '';
    for (let at = 0; at < bytes.length; at += 8192)
        binary += String.fromCharCode(...bytes.subarray(at, at + 8192));
    return btoa(binary);
}

// The URL-safe alphabet, padded, as the API writes it.
export function toUrlBase64(bytes) {
    return toBase64(bytes).replace(/\+/g, '-').replace(/\//g, '_');
}

// Without blanks, in the standard alphabet and without padding.
export function bareBase64(text) {
    return text.replace(/\s/g, '').replace(/-/g, '+').replace(/_/g, '/').replace(/={1,2}$/, '');
}

// Either alphabet, padded or not.
export function fromBase64(text) {
    const bare = bareBase64(text);
    const padding = (4 - (bare.length % 4)) % 4;
    const written = text.replace(/\s/g, '').length - bare.length;
    if (/[^A-Za-z0-9+/]/.test(bare) || padding === 3 || (written !== 0 && written !== padding))
        return null;
    const bytes = Uint8Array.from(atob(bare), (character) => character.charCodeAt(0));
    // Bits behind the last byte make it the text of nothing.
    return toBase64(bytes).replace(/=/g, '') === bare ? bytes : null;
}

function unescapeOnce(bytes) {
    const out = [];
    for (let i = 0; i < bytes.length; ++i) {
        if (bytes[i] !== 0x25) {
            out.push(bytes[i]);
            continue;
        }
        const digits = String.fromCharCode(...bytes.subarray(i + 1, i + 3));
        if (!/^[0-9a-fA-F]{2}$/.test(digits)) return null;
        out.push(parseInt(digits, 16));
        i += 2;
    }
    return Uint8Array.from(out);
}

// Bytes that were percent-escaped twice.
export function fromEscaped(text) {
    const once = unescapeOnce(utf8(text));
    return once && unescapeOnce(once);
}

export function sameBytes(a, b) {
    return a.length === b.length && a.every((byte, i) => byte === b[i]);
}

export function randomBytes(count) {
    return crypto.getRandomValues(new Uint8Array(count));
}

// The bytes of a result of a form of the catalogue, as the API writes it: a string, or
// {"base64"} for what is not UTF-8. Null if it is not of its form.
export function resultBytes(form, value) {
    if (typeof value !== 'string') return fromBase64(value.base64);
    if (form === 'base64') return fromBase64(value);
    if (form === 'escaped') return fromEscaped(value);
    return utf8(value);
}
