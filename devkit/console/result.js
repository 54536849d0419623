// The answer to a call: its results in text, hex or Base64, or the card of an error. Also what
// else can be done with a result: copy, save, use in another request.

import { requests } from './catalogue.js';
import { announce, el, icon, newId } from './dom.js';
import { fieldKind } from './entries.js';
import { placeInExchange } from './flows.js';
import { segments } from './form.js';
import { errorTexts } from './host_texts.js';
import { byteCount, capitalised, number, sentence, t } from './i18n.js';
import { isPrintable, resultBytes, textOf, toBase64, toHex, toUrlBase64 } from './values.js';

// Longer values are cut on the page; copies and files hold them whole. A multiple of three, so
// that Base64 is cut between its groups.
const SHOWN_BYTES = 3000;

export function button(text, iconName, onClick, attributes = {}) {
    return el('button', { type: 'button', class: 'button small', ...attributes, on: { click: onClick } },
        icon(iconName), text);
}

export function copyButton(textOfValue, label = t('Copy'), attributes = {}) {
    const made = button(label, 'copy', async () => {
        try {
            await navigator.clipboard.writeText(textOfValue());
            made.replaceChildren(icon('check'), t('Copied'));
            announce(t('Copied'));
        } catch {
            made.replaceChildren(icon('cross'), t('Not copied'));
            announce(t('The browser does not let this page copy.'));
        }
        setTimeout(() => made.replaceChildren(icon('copy'), label), 1500);
    }, attributes);
    return made;
}

function save(name, bytes) {
    const url = URL.createObjectURL(new Blob([bytes], { type: 'application/octet-stream' }));
    el('a', { href: url, download: name }).click();
    setTimeout(() => URL.revokeObjectURL(url), 10000);
}

const WRITERS = { hex: toHex, base64: toUrlBase64, standard: toBase64 };

// A value in the forms in which it can be shown. `sent` is the text of the answer itself: URL-safe
// Base64, or the standard alphabet for what should be a text and is none.
class ShownValue {
    constructor(form, sent) {
        this.bytes = resultBytes(form, sent);
        this.asBytes = typeof sent !== 'string';
        this.sent = this.asBytes ? sent.base64 : sent;
        const text = this.bytes && textOf(this.bytes);
        this.text = text !== null && isPrintable(text) ? text : null;
        this.binary = form === 'base64' || form === 'escaped' || this.asBytes;
    }

    forms() {
        if (this.bytes === null) return [['text', t('Text')]];
        const text = this.text === null ? [] : [['text', t('Text')]];
        return [...text, ['hex', t('Hex')], ['base64', t('Base64')], ['standard', t('Base64 with + and /')]];
    }

    preferred() {
        if (this.bytes === null || this.text !== null) return 'text';
        return this.asBytes ? 'standard' : 'base64';
    }

    as(form) {
        if (this.bytes === null) return this.sent;
        return form === 'text' ? this.text : WRITERS[form](this.bytes);
    }

    // The same, cut to what the page shows.
    shown(form) {
        if (this.bytes === null || form === 'text') {
            const text = this.as('text');
            return text.length > SHOWN_BYTES ? `${text.slice(0, SHOWN_BYTES)}…` : text;
        }
        if (this.bytes.length <= SHOWN_BYTES) return this.as(form);
        const start = this.bytes.subarray(0, SHOWN_BYTES);
        return `${WRITERS[form](start)}…`;
    }
}

// Parameters of other requests that can take a value: [request, [parameter]], near ones first; for
// a session in the order of the exchange.
function takers(from, handle) {
    const fits = (parameter) => (handle
        ? parameter.form === 'handle'
        : fieldKind(parameter) === 'bytes');
    const near = (request) => (request.group === from.group ? 0 : 1);
    const place = (request) => (handle ? placeInExchange(request.name) : near(request));
    return requests()
        .filter((request) => request.name !== from.name || handle)
        .map((request) => [request, request.parameters.filter(fits)])
        .filter(([, parameters]) => parameters.length > 0)
        .sort(([a], [b]) => place(a) - place(b));
}

// How well a parameter's name suits what a request made: a "...symmkey" gives a "strKey", a
// "gcmOutTag" a "strtag". Only the choice that is offered first depends on it.
function likeness(from, result, parameter) {
    const stem = parameter.name.toLowerCase().replace(/^str/, '');
    const own = result.name.toLowerCase();
    if (from.name.toLowerCase().endsWith(stem)) return 2;
    return own.endsWith(stem) || stem.endsWith(own) ? 1 : 0;
}

// "Use as...": a choice of parameters; `onUse` gets {request, parameter, along}, where `along` asks
// for parameters of the same name too.
function useAs(from, result, onUse) {
    const targets = takers(from, result.form === 'handle');
    if (targets.length === 0) return null;
    const selectId = newId('use');
    const alongId = newId('along');
    const select = el('select', { id: selectId }, targets.flatMap(([request, parameters]) =>
        parameters.map((parameter) => el('option', { value: `${request.name} ${parameter.name}` },
            `${request.name} · ${parameter.name}`))));
    const all = targets.flatMap(([request, parameters]) =>
        parameters.map((parameter) => ({ request, likeness: likeness(from, result, parameter), parameter })));
    const best = all.reduce((a, b) => (b.likeness > a.likeness ? b : a));
    select.value = `${best.request.name} ${best.parameter.name}`;
    const along = el('input', { type: 'checkbox', id: alongId, checked: true });
    const use = el('button', { type: 'button', class: 'button small primary', on: {
        click: () => {
            const [request, parameter] = select.value.split(' ');
            onUse({ request, parameter, along: along.checked });
        },
    } }, t('Use'));
    const panel = el('div', { class: 'use-panel' },
        el('label', { for: selectId }, t('As which parameter?')), select,
        el('div', { class: 'check' }, along,
            el('label', { for: alongId }, t('Take along parameters of the same name'))),
        use);
    return el('details', { class: 'use' },
        el('summary', { class: 'button small' }, icon('arrow'), t('Use as…')), panel);
}

function drawResult(request, result, sent, onUse) {
    const value = new ShownValue(result.form, sent);
    const headingId = newId('result');
    const [title] = sentence(result.meaning).split(/; |；/);
    const heading = el('h3', { id: headingId }, title, ' ', el('code', {}, result.name));
    if (value.sent === '')
        return el('section', { class: 'value', 'aria-labelledby': headingId, data: { result: result.name } },
            heading, el('p', { class: 'muted' }, t('empty')));

    let form = value.preferred();
    const shown = el('pre', { class: 'value-text', tabindex: 0, 'aria-labelledby': headingId });
    const draw = () => { shown.textContent = value.shown(form); };
    draw();
    const forms = value.forms();
    const handle = result.form === 'handle';
    const ways = forms.length > 1 && !handle
        ? segments(t('Show {result} as', { result: result.name }), forms, form, (chosen) => {
            form = chosen;
            draw();
        })
        : null;
    const size = value.bytes !== null && value.binary ? byteCount(value.bytes.length) : '';
    return el('section', { class: 'value', 'aria-labelledby': headingId, data: { result: result.name } },
        el('div', { class: 'value-head' }, heading, el('span', { class: 'size' }, size)),
        ways, shown,
        el('div', { class: 'value-actions' },
            copyButton(() => value.as(form), t('Copy'), { 'aria-label': t('Copy {result}', { result: result.name }) }),
            button(t('Download'), 'download',
                () => save(`${request.name}-${result.name}.bin`, value.bytes ?? new TextEncoder().encode(value.sent)),
                { 'aria-label': t('Download {result}', { result: result.name }) }),
            useAs(request, result, (target) => onUse(target, result, value))));
}

// The card of an error: of plug-in or engine, or of the exchange with the host.
export function errorCard(error, level = 'h3') {
    const sources = {
        'plug-in': t('refused by the plug-in'),
        engine: t('refused by the engine'),
        host: t('reported by the host'),
        peer: t('refused by the peer'),
        page: t('noticed by this page'),
    };
    const { text: meaning, cause, remedy } = errorTexts(error);
    const rows = [
        [t('Meaning'), meaning],
        [t('Likely cause'), cause],
        [t('What to do'), remedy],
    ].filter(([, text]) => text);
    const field = error.field ? [el('dt', {}, t('Field')), el('dd', {}, el('code', {}, error.field))] : [];
    return el('section', { class: 'error-card', data: { code: error.code } },
        el(level, {}, el('span', { class: 'code' }, error.code), ' ',
            el('span', {}, error.name || '')),
        el('p', { class: 'source' }, sources[error.source] ?? ''),
        el('dl', {}, rows.map(([term, text]) => [el('dt', {}, term), el('dd', {}, capitalised(text))]).flat(), field));
}

export function duration(microseconds) {
    if (microseconds === undefined || microseconds === null) return '';
    return microseconds < 10000
        ? t('{count} µs', { count: number(Math.round(microseconds)) })
        : t('{count} ms', { count: number(Math.round(microseconds / 1000)) });
}

// `outcome`: {ok, results, error, microseconds, status}. Strange results, which the catalogue lacks, are
// shown as texts.
export function drawOutcome(request, outcome, onUse) {
    const known = (name) => request.results.find((result) => result.name === name) ??
        { name, form: 'text', meaning: t('a result that the catalogue does not know') };
    const values = Object.entries(outcome.results)
        .filter(([name]) => name !== 'errorCode')
        .filter(([, value]) => outcome.ok || value !== '')
        .map(([name, value]) => drawResult(request, known(name), value, onUse));
    const head = el('div', { class: 'outcome-head' },
        outcome.ok
            ? el('span', { class: 'badge ok' }, icon('check'), t('Success'))
            : el('span', { class: 'badge bad' }, icon('cross'), outcome.status === 0 ? t('No answer') : t('Refused')),
        el('span', { class: 'muted' }, duration(outcome.microseconds)));
    const error = outcome.error ? errorCard(outcome.error) : null;
    const nothing = outcome.ok && values.length === 0
        ? el('p', { class: 'muted' }, t('Done. This request gives no data.')) : null;
    return el('div', { class: 'outcome' }, [head, error, nothing, ...values].filter(Boolean));
}
