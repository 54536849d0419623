// The view of one request: its form, the same call as command lines, and the answer.

import { Failure, sendRequest } from './api.js';
import { findParameter, findRequest } from './catalogue.js';
import { curlLine, hostLine } from './command_lines.js';
import { announce, el, icon } from './dom.js';
import { nextInExchange } from './exchange_guide.js';
import { RequestForm } from './form.js';
import { errorTexts, warningText } from './host_texts.js';
import { sentence, t } from './i18n.js';
import { forgetForm, formOf, remember } from './memory.js';
import { copyButton, drawOutcome, duration } from './result.js';
import { bodyLimit } from './status.js';
import { toUrlBase64 } from './values.js';

const SHOWN_LINE = 4000;

// Sends a request and turns whatever happens into an outcome: {ok, results, error, warnings,
// microseconds, status}. Only a refused token is thrown on.
export async function exchange(request, parameters) {
    let outcome;
    try {
        const answer = await sendRequest(request, parameters);
        outcome = { ...answer, ok: answer.error === null, status: 200 };
    } catch (failure) {
        if (!(failure instanceof Failure) || failure.status === 401) throw failure;
        const { status, error, warnings } = failure;
        outcome = { ok: false, results: {}, error, warnings, status };
    }
    remember(request, parameters, outcome);
    return outcome;
}

function outcomeText(outcome) {
    if (!outcome.ok) return t('Refused: {code}. {text}', { code: outcome.error.code, text: errorTexts(outcome.error).text });
    return t('Success, {time}', { time: duration(outcome.microseconds) });
}

// The outcome of a call that this page does not send.
function refusedHere(code, text) {
    return { ok: false, results: {}, error: { code, source: 'page', text }, warnings: [] };
}

function drawLine(title, id, line, note) {
    if (line === null)
        return el('div', { class: 'line' }, el('div', { class: 'line-head' }, el('h3', {}, title)),
            el('p', { class: 'muted' }, note));
    const shown = line.length > SHOWN_LINE ? `${line.slice(0, SHOWN_LINE)}…` : line;
    return el('div', { class: 'line' },
        el('div', { class: 'line-head' }, el('h3', {}, title),
            copyButton(() => line, t('Copy'), { 'aria-label': t('Copy the {tool} line', { tool: title }) })),
        el('pre', { id, tabindex: 0, 'aria-label': title }, shown));
}

export class RequestView {
    // `go` opens another view by its address.
    constructor(name, go) {
        this.request = findRequest(name);
        this.go = go;
        this.state = formOf(this.request);
        this.title = name;
        this.sending = false;
    }

    draw() {
        const { request } = this;
        this.form = new RequestForm(request, this.state.entries, () => this.changed());
        this.lines = el('div', { class: 'lines' });
        this.answer = el('div', { class: 'answer' });
        this.attention = el('div', { class: 'attention', role: 'alert' });
        this.send = el('button', { type: 'submit', class: 'button primary' }, icon('send'), t('Send'));
        const reset = el('button', { type: 'button', class: 'button', on: { click: () => this.reset() } }, t('Empty the form'));
        const form = el('form', { novalidate: true, 'aria-labelledby': 'view-title', on: {
            submit: (event) => {
                event.preventDefault();
                this.submit();
            },
            keydown: (event) => {
                if (event.key === 'Enter' && (event.ctrlKey || event.metaKey)) {
                    event.preventDefault();
                    this.submit();
                }
            },
        } },
        request.parameters.length === 0 ? el('p', { class: 'muted' }, t('This request takes no parameters.')) : null,
        this.form.element, this.attention,
        el('div', { class: 'form-actions' }, this.send,
            request.parameters.length > 0 ? reset : null,
            el('span', { class: 'hint' }, t('Ctrl+Enter sends, too'))));

        this.drawLines();
        this.drawAnswer();
        return el('div', { class: 'request-view' },
            el('header', { class: 'view-head' },
                el('p', { class: 'eyebrow' }, t(request.group)),
                el('h1', { id: 'view-title', tabindex: -1 }, request.name),
                el('p', { class: 'lead' }, sentence(request.summary)),
                el('p', { class: 'hint' }, t('If the answer is lost: {what}', { what: t(request.retry.text) }))),
            el('div', { class: 'columns' },
                el('section', { class: 'card', 'aria-label': t('Parameters') }, form),
                el('div', { class: 'column' },
                    el('section', { class: 'card', 'aria-labelledby': 'answer-title' },
                        el('h2', { id: 'answer-title' }, t('Answer')), this.answer),
                    el('details', { class: 'card', open: true },
                        el('summary', {}, el('h2', {}, t('The same call on the command line'))), this.lines))));
    }

    changed() {
        this.attention.replaceChildren();
        this.state.stale = true;
        this.markStale();
        this.drawLines();
    }

    // An answer stays beside a form that has changed, and says so.
    markStale() {
        const stale = this.state.stale && this.state.outcome !== null;
        this.answer.classList.toggle('is-stale', stale);
        const note = this.answer.querySelector('.stale-note');
        if (!stale) note?.remove();
        else if (note === null)
            this.answer.prepend(el('p', { class: 'stale-note' },
                t('The form has changed since: this answer is to the former values.')));
    }

    answered(outcome) {
        this.state.outcome = outcome;
        this.drawAnswer();
        announce(outcomeText(outcome));
        this.answer.parentElement.scrollIntoView({ block: 'nearest' });
    }

    reset() {
        forgetForm(this.request);
        this.go(`#/request/${this.request.name}`);
    }

    drawLines() {
        const given = this.form.given();
        if (!this.form.isSendable()) {
            this.lines.replaceChildren(el('p', { class: 'muted' }, t('A value cannot be sent yet: see the form.')));
            return;
        }
        const name = this.request.name;
        this.lines.replaceChildren(
            drawLine('curl', 'curl-line', curlLine(location.origin, name, given)),
            drawLine('corvane-host call', 'host-line', hostLine(this.request, given),
                t('A key-exchange session lives in one process, and “call” ends with its request: use “corvane-host script”.')),
            el('p', { class: 'muted small' }, t('The lines hold what you gave, secrets too. TOKEN stands for the host’s token.')));
    }

    drawAnswer() {
        const { outcome } = this.state;
        if (outcome === null) {
            this.answer.replaceChildren(el('p', { class: 'muted' }, t('Nothing sent yet.')));
            return;
        }
        this.answer.replaceChildren(drawOutcome(this.request, outcome,
            (target, result, value) => this.use(target, result, value)));
        const homeless = this.form.showWarnings(outcome.warnings);
        this.answer.append(...homeless.map((warning) => el('p', { class: 'warning' }, warningText(warning))),
            nextInExchange(this.request, this.state, this.go) ?? '');
        this.markStale();
    }

    submit() {
        const faults = this.form.check();
        if (faults.length === 0) return this.dispatch();
        const stopped = faults.some(({ stops }) => stops);
        const anyway = el('button', { type: 'button', class: 'button small', on: { click: () => this.dispatch() } },
            t('Send anyway'));
        this.attention.replaceChildren(
            el('span', {}, faults.length === 1 ? t('One field needs a look.')
                : t('{count} fields need a look.', { count: faults.length })),
            ...(stopped ? [] : [anyway]));
        faults[0].field.input.focus();
        return undefined;
    }

    async dispatch() {
        if (this.sending) return;
        const parameters = this.form.parameters();
        // "Send anyway" goes, and must not take the focus with it.
        if (this.attention.contains(document.activeElement)) this.send.focus();
        this.attention.replaceChildren();
        // From here on: the form can change while the answer is on its way.
        this.state.stale = false;
        const limit = bodyLimit();
        if (limit !== null && JSON.stringify(parameters).length > limit) {
            this.answered(refusedHere('too_large', t('Too large: the host takes {count} bytes in one call.', { count: limit })));
            return;
        }
        this.sending = true;
        this.send.setAttribute('aria-busy', 'true');
        try {
            this.answered(await exchange(this.request, parameters));
        } finally {
            this.sending = false;
            this.send.removeAttribute('aria-busy');
        }
    }

    // Puts a result into another request's form, and goes there.
    use({ request: name, parameter: parameterName, along }, result, value) {
        const target = findRequest(name);
        const state = formOf(target);
        const { entries } = state;
        state.stale = true;
        if (along)
            for (const parameter of target.parameters) {
                const own = findParameter(this.request, parameter.name);
                if (own && own.form === parameter.form)
                    entries.set(parameter.name, { ...this.state.entries.get(parameter.name) });
            }
        entries.set(parameterName, value.binary && value.bytes
            ? { how: 'base64', text: toUrlBase64(value.bytes), file: null }
            : { how: 'text', text: value.sent, file: null });
        this.go(`#/request/${name}`, parameterName);
        announce(t('{result} is now {parameter} of {request}.',
            { result: result.name, parameter: parameterName, request: name }));
    }
}
