// The answer to a call: its results in text, hex or Base64, or the card of an error, or all of it
// as JSON. Also what else can be done with a result: copy, save, use in another request.

import { requests } from './catalogue.js';
import { LONGEST_LINE } from './command_lines.js';
import { announce, el, icon, newId } from './dom.js';
import { fieldKind } from './entries.js';
import { placeInExchange } from './flows.js';
import { segments } from './form.js';
import { sameMeaning } from './handover.js';
import { errorTexts } from './host_texts.js';
import { capitalised, dataSize, number, sentence, t } from './i18n.js';
import { KIND_ICONS, errorKind, isUncertain, kindHeading, kindText } from './outcomes.js';
import { isPrintable, resultBytes, textOf, toBase64, toHex, toUrlBase64 } from './values.js';

// Longer values are cut on the page; copies and files hold them whole. A multiple of three, so
// that Base64 is cut between its groups.
const SHOWN_BYTES = 3000;
const SHOWN_JSON = 20000;  // characters

// The forms in which a person wants to see results, for the time of the page.
const chosenForms = new Map();

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

// A line for the shell with its title, to be copied. In place of one that is null stands `note`.
export function drawLine(id, title, line, note = '') {
    const head = el('h3', {}, title);
    if (line === null || line.length > LONGEST_LINE)
        return el('div', { class: 'line' }, el('div', { class: 'line-head' }, head),
            el('p', { class: 'muted' }, line === null ? note
                : t('This is longer than a shell takes. Save the long value as a file, and choose that.')));
    return el('div', { class: 'line' },
        el('div', { class: 'line-head' }, head,
            copyButton(() => line, t('Copy'), { 'aria-label': t('Copy the {tool} line', { tool: title }) })),
        el('pre', { id, class: 'command', tabindex: 0, 'aria-label': title }, line));
}

// `content` is text or bytes.
function save(name, content) {
    const url = URL.createObjectURL(new Blob([content], { type: 'application/octet-stream' }));
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

    // The same, cut to what the page shows: {text, cut}.
    shown(form) {
        if (this.bytes === null || form === 'text') return start(this.as('text'), SHOWN_BYTES);
        if (this.bytes.length <= SHOWN_BYTES) return { text: this.as(form), cut: false };
        return { text: `${WRITERS[form](this.bytes.subarray(0, SHOWN_BYTES))}…`, cut: true };
    }
}

function start(text, length) {
    return text.length > length ? { text: `${text.slice(0, length)}…`, cut: true } : { text, cut: false };
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

// "Use as...": a choice of parameters, first one of the same meaning; `onUse` gets {request,
// parameter, along}, where `along` asks for what both requests have in common too.
function useAs(from, result, onUse) {
    const targets = takers(from, result.form === 'handle');
    if (targets.length === 0) return null;
    const selectId = newId('use');
    const alongId = newId('along');
    const select = el('select', { id: selectId }, targets.flatMap(([request, parameters]) =>
        parameters.map((parameter) => el('option', { value: `${request.name} ${parameter.name}` },
            `${request.name} · ${parameter.name}`))));
    const all = targets.flatMap(([request, parameters]) =>
        parameters.map((parameter) => ({ request, parameter })));
    const best = all.find(({ parameter }) => sameMeaning(result, parameter)) ?? all[0];
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
            el('label', { for: alongId }, t('Take along what both have in common'))),
        use);
    return el('details', { class: 'use' },
        el('summary', { class: 'button small' }, icon('arrow'), t('Use as…')), panel);
}

// What a file holds that is saved as it is shown.
function saveText(form) {
    return {
        text: t('Download text (.txt)'),
        hex: t('Download hex (.txt)'),
        base64: t('Download Base64 (.txt)'),
        standard: t('Download Base64 (.txt)'),
    }[form];
}

function cutNote() {
    return el('p', { class: 'muted small', hidden: true }, t('Only the beginning is shown. Copy and download have all of it.'));
}

// The buttons that save a result: as it is shown, and as its bytes where those are something else.
function saveButtons(name, result, value, form) {
    const shown = button(saveText(form), 'download', () => save(`${name}.txt`, value.as(form)),
        { 'aria-describedby': result });
    if (!value.binary || value.bytes === null) return [shown];
    return [shown, button(t('Download bytes (.bin)'), 'download', () => save(`${name}.bin`, value.bytes),
        { 'aria-describedby': result })];
}

function drawResult(request, result, sent, onUse) {
    const value = new ShownValue(result.form, sent);
    const headingId = newId('result');
    const [title] = sentence(result.meaning).split(/; |；/);
    const heading = el('h3', { id: headingId }, title, ' ', el('code', {}, result.name));
    if (value.sent === '')
        return el('section', { class: 'value', 'aria-labelledby': headingId, data: { result: result.name } },
            heading, el('p', { class: 'muted' }, t('empty')));

    const place = `${request.name} ${result.name}`;
    const forms = value.forms();
    const wanted = chosenForms.get(place);
    let form = forms.some(([name]) => name === wanted) ? wanted : value.preferred();
    const shown = el('pre', { class: 'value-text', tabindex: 0, 'aria-labelledby': headingId });
    const note = cutNote();
    const saving = el('div', { class: 'value-saving' });
    const draw = () => {
        const { text, cut } = value.shown(form);
        shown.textContent = text;
        shown.dataset.form = form;
        note.hidden = !cut;
        saving.replaceChildren(...saveButtons(`${request.name}-${result.name}`, headingId, value, form));
    };
    draw();
    const handle = result.form === 'handle';
    const ways = forms.length > 1 && !handle
        ? segments(t('Show {result} as', { result: result.name }), forms, form, (chosen) => {
            form = chosen;
            chosenForms.set(place, chosen);
            draw();
        })
        : null;
    const size = value.bytes !== null && value.binary ? dataSize(value.bytes.length) : '';
    return el('section', { class: 'value', 'aria-labelledby': headingId, data: { result: result.name } },
        el('div', { class: 'value-head' }, heading, el('span', { class: 'size' }, size)),
        ways, shown, note,
        el('div', { class: 'value-actions' },
            copyButton(() => value.as(form), t('Copy'), { 'aria-label': t('Copy {result}', { result: result.name }) }),
            saving,
            useAs(request, result, (target) => onUse(target, result))));
}

// The card of an error: of plug-in or engine, or of the exchange with the host. `again` says what
// comes of sending the request once more, where that is a question.
export function errorCard(error, level = 'h3', again = '') {
    const sources = {
        'plug-in': t('refused by the plug-in'),
        engine: t('refused by the engine'),
        host: t('reported by the host'),
        peer: t('refused by the peer'),
        page: t('noticed by this page'),
    };
    const kind = errorKind(error);
    const { text: meaning, cause, remedy, quoted } = errorTexts(error);
    const rows = [
        [t('Meaning'), quoted ? el('q', { class: 'quote', lang: 'en' }, meaning) : capitalised(meaning)],
        [t('Likely cause'), cause && capitalised(cause)],
        [t('What to do'), remedy && capitalised(remedy)],
        [t('If it is sent again'), isUncertain(kind) ? capitalised(again) : ''],
    ].filter(([, text]) => text);
    const field = error.field ? [el('dt', {}, t('Field')), el('dd', {}, el('code', {}, error.field))] : [];
    return el('section', { class: 'error-card', data: { code: error.code, kind } },
        el(level, {}, icon(KIND_ICONS[kind]), kindHeading(kind, error.source)),
        el('p', { class: 'source' }, el('span', { class: 'code' }, error.code), ' ',
            el('span', {}, error.name || ''), ' · ', sources[error.source] ?? ''),
        el('dl', {}, rows.map(([term, text]) => [el('dt', {}, term), el('dd', {}, text)]).flat(), field));
}

// Three digits are enough for a person.
export function duration(microseconds) {
    if (microseconds === undefined || microseconds === null) return '';
    const count = (value) => number(Number(value.toPrecision(3)));
    if (microseconds < 1000) return t('{count} µs', { count: count(microseconds) });
    if (microseconds < 1e6) return t('{count} ms', { count: count(microseconds / 1000) });
    return t('{count} s', { count: count(microseconds / 1e6) });
}

// The whole answer, as the host wrote it but for line ends.
function drawJson(request, json) {
    const whole = JSON.stringify(json, null, 2);
    const { text, cut } = start(whole, SHOWN_JSON);
    const note = cutNote();
    note.hidden = !cut;
    return el('div', { class: 'outcome-json' },
        el('pre', { class: 'json-text', tabindex: 0, 'aria-label': t('The whole answer as JSON') }, text), note,
        el('div', { class: 'value-actions' },
            copyButton(() => whole, t('Copy'), { 'aria-label': t('Copy the JSON') }),
            button(t('Download JSON (.json)'), 'download', () => save(`${request.name}.json`, `${whole}\n`))));
}

function drawHead(outcome, kind, ways) {
    return el('div', { class: 'outcome-head' },
        outcome.ok
            ? el('span', { class: 'badge ok' }, icon('check'), t('Success'))
            : el('span', { class: 'badge bad', data: { kind } }, icon(KIND_ICONS[kind]), kindText(kind)),
        el('span', { class: 'muted' }, duration(outcome.microseconds)), ways);
}

// `outcome`: {ok, results, error, microseconds, json}. Strange results, which the catalogue lacks,
// are shown as texts. `json` is the whole answer, null where there is none.
export function drawOutcome(request, outcome, onUse) {
    const known = (name) => request.results.find((result) => result.name === name) ??
        { name, form: 'text', meaning: t('a result that the catalogue does not know') };
    const values = Object.entries(outcome.results)
        .filter(([name]) => name !== 'errorCode')
        .filter(([, value]) => outcome.ok || value !== '')
        .map(([name, value]) => drawResult(request, known(name), value, onUse));
    const error = outcome.error ? errorCard(outcome.error, 'h3', t(request.retry.text)) : null;
    const nothing = outcome.ok && values.length === 0
        ? el('p', { class: 'muted' }, t('Done. This request gives no data.')) : null;
    const content = el('div', { class: 'outcome-content' });
    const parts = [error, nothing, ...values].filter(Boolean);
    content.append(...parts);
    const ways = outcome.json
        ? segments(t('Show the answer as'), [['values', t('Values')], ['json', t('JSON')]], 'values', (way) =>
            content.replaceChildren(...(way === 'json' ? [drawJson(request, outcome.json)] : parts)))
        : null;
    return el('div', { class: 'outcome' }, drawHead(outcome, outcome.error && errorKind(outcome.error), ways), content);
}
