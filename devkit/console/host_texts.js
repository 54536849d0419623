// What the host says of errors and parameters, in the chosen language. The host says it in
// English; the other language goes by codes, with the variable parts as the host gives them.

import { findCode } from './catalogue.js';
import { currentLanguage, filled, t } from './i18n.js';
import { codes, reasons, warnings } from './zh_host.js';

// {text, cause, remedy} of an error. What another engine or the peer says stays as it is.
export function errorTexts(error) {
    const { source, text, cause, remedy } = error;
    if (source === 'page') return { text: t(text), cause: cause && t(cause), remedy: remedy && t(remedy) };
    const known = codes[error.code];
    const said = source === 'host' || findCode(error.code)?.text === text;
    if (currentLanguage() !== 'zh' || !known || !said) return { text, cause, remedy };
    return { text: reasons[error.reason] ?? known[0], cause: known[1], remedy: known[2] };
}

export function warningText({ field, text, code, values = {} }) {
    const template = warnings[code];
    if (currentLanguage() !== 'zh' || template === undefined) return text;
    const parts = Object.entries({ field, ...values }).map(([name, value]) => [name, t(value)]);
    return filled(template, Object.fromEntries(parts));
}
