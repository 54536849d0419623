// What the host says of errors and parameters, in the chosen language. The host says it in
// English; the other language goes by codes, with the variable parts as the host gives them.

import { findCode } from './catalogue.js';
import { currentLanguage, filled, isOurs, t } from './i18n.js';
import { codes, peerTexts, reasons, warnings } from './zh_host.js';

// With values that may be texts themselves.
function filledIn(template, values) {
    return filled(template, Object.fromEntries(Object.entries(values).map(([name, value]) => [name, t(value)])));
}

// What the peer says. It has one code for all, so its texts are known by their English.
function peerText(text) {
    for (const [english, chinese] of Object.entries(peerTexts)) {
        const match = text.match(new RegExp(`^${english.replace(/\{(\w+)\}/g, '(?<$1>.+)')}$`));
        if (match) return filledIn(chinese, match.groups ?? {});
    }
    return text;
}

// {text, cause, remedy} of an error. What another engine says stays as it is, and is marked: quoted.
// Where a remedy speaks of any REQUEST, it is that of the error, `request`, if there is one.
export function errorTexts(error) {
    const texts = saidOf(error);
    return error.request ? { ...texts, remedy: texts.remedy?.replace(/\bREQUEST\b/, error.request) } : texts;
}

function saidOf(error) {
    const { source, text, cause, remedy } = error;
    if (source === 'page') return { text: t(text, error.values), cause: cause && t(cause), remedy: remedy && t(remedy) };
    const said = findCode(error.code)?.text === text || isOurs(text);
    if (source === 'engine' && !said) return { text, cause, remedy, quoted: true };
    if (currentLanguage() !== 'zh') return { text, cause, remedy };
    if (source === 'peer') return { text: peerText(text), cause, remedy };
    const known = codes[error.code];
    if (!known || (source !== 'host' && findCode(error.code)?.text !== text)) return { text: t(text), cause, remedy };
    return { text: filled(reasons[error.reason] ?? known[0], error.values ?? {}), cause: known[1], remedy: known[2] };
}

export function warningText({ field, text, code, values = {} }) {
    const template = warnings[code];
    if (currentLanguage() !== 'zh' || template === undefined) return text;
    return filledIn(template, { field, ...values });
}
