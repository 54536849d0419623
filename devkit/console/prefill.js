// Fills a request's form with values of the API, as the guided flows send them.

import { emptyEntry, fieldKind, givenOf, takesUpload, travelsAsBase64 } from './entries.js';
import { formOf } from './memory.js';
import { fromBase64, isPrintable, textOf } from './values.js';

// The entry that a person would have made for a value: a string, {hex}, {base64} or {text}.
export function entryOf(parameter, value) {
    if (typeof value === 'string') {
        const encoded = fieldKind(parameter) === 'bytes' && travelsAsBase64(parameter);
        return { ...emptyEntry(encoded ? 'base64' : 'text'), text: value };
    }
    const [[how, text]] = Object.entries(value);
    if (how !== 'base64') return { ...emptyEntry(how), text };
    const bytes = fromBase64(text);
    if (takesUpload(parameter)) return { ...emptyEntry('file'), file: new File([bytes], `${parameter.name}.bin`) };
    const readable = textOf(bytes);
    return readable !== null && isPrintable(readable)
        ? { ...emptyEntry('text'), text: readable }
        : { ...emptyEntry('base64'), text };
}

// A value, or the bytes in it, that an earlier step would have told.
function isMissing(value) {
    return value === undefined || Object.values(value)[0] === undefined;
}

// Also with the outcome of the call that had these values, if there was one. What the values lack
// stays as it was.
export function fillForm(request, values, outcome = null) {
    const form = formOf(request);
    for (const parameter of request.parameters) {
        const value = values[parameter.name];
        if (!isMissing(value)) form.entries.set(parameter.name, entryOf(parameter, value));
    }
    if (outcome === null) return;
    form.outcome = outcome;
    form.sent = givenOf(request, form.entries);
}
