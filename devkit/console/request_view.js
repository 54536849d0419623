// The view of one request: its form, the same call as command lines, and the answer.

import { Failure, currentStay, sendRequest } from './api.js';
import { findRequest, handleOf } from './catalogue.js';
import { curlLine, hostLine, tokenLine } from './command_lines.js';
import { announce, el, icon } from './dom.js';
import { hasFile, sessionGiven } from './entries.js';
import { nextInExchange } from './exchange_guide.js';
import { RequestForm } from './form.js';
import { handBack, handOver, inverseOf } from './handover.js';
import { errorTexts, warningText } from './host_texts.js';
import { number, roundSize, sentence, t } from './i18n.js';
import { forgetForm, formOf, isStale, remember } from './memory.js';
import { errorKind, kindHeading } from './outcomes.js';
import { button, drawLine, drawOutcome, duration } from './result.js';
import { bodySize, filesAreReadable, makeBody, swellsFiles } from './sending.js';
import { bodyLimit, currentStatus } from './status.js';
import { token } from './token.js';

// Quicker answers need no word of waiting.
const PATIENCE = 300;  // milliseconds

// The calls that are on their way, by the state of their form: {controller, started, view}. The
// view may be another one than that which sent, if the person went away and came back.
const calls = new WeakMap();

// Turns whatever happens to a call into an outcome: {ok, results, error, warnings, microseconds,
// status, json}. Only a refused token is thrown on, and SignedOut.
async function outcomeOf(request, session, call) {
    const stay = currentStay();
    let outcome;
    try {
        const answer = await call(stay);
        outcome = { ...answer, ok: answer.error === null, status: 200, json: answer };
    } catch (failure) {
        stay.throwIfAborted();
        if (!(failure instanceof Failure) || failure.status === 401) throw failure;
        const { status, error, warnings, answer } = failure;
        outcome = { ok: false, results: {}, error, warnings, status, json: answer };
    }
    if (outcome.error) outcome.error = { ...outcome.error, request: request.name };
    remember(request, session, outcome);
    return outcome;
}

// Sends a request whose parameters are values of the API, {name: value}.
export function exchange(request, parameters, signal) {
    const session = parameters[handleOf(request.parameters)?.name];
    return outcomeOf(request, session, () => sendRequest(request, JSON.stringify(parameters), session, signal));
}

const unreadableFile = {
    code: 'unreadable_file',
    source: 'page',
    text: 'A chosen file cannot be read.',
    cause: 'It was changed, moved or deleted after it was chosen.',
    remedy: 'Choose the file again, then send.',
};

// Sends what a form has given: [{parameter, entry}].
function exchangeGiven(request, given, signal) {
    const session = sessionGiven(given);
    return outcomeOf(request, session, async (stay) => {
        // Browsers report a file that is gone like a host that is gone.
        if (!await filesAreReadable(given)) throw new Failure(0, unreadableFile);
        const body = await makeBody(given);
        stay.throwIfAborted();
        return sendRequest(request, body, session, signal);
    });
}

function outcomeText(outcome) {
    if (outcome.ok) return t('Success, {time}', { time: duration(outcome.microseconds) });
    const { error } = outcome;
    const said = { what: kindHeading(errorKind(error), error.source), code: error.code, text: errorTexts(error).text };
    // The page's own codes are names that tell no more than the text.
    return error.source === 'page' ? t('{what}. {text}', said) : t('{what}: {code}. {text}', said);
}

// What the host would not take, as the error of a call that is not sent; null if it takes it.
function tooLarge(given) {
    const limit = bodyLimit();
    const size = bodySize(given);
    if (limit === null || size <= limit) return null;
    return {
        code: 'too_large',
        source: 'page',
        text: t('Too large: this call has {size}, and the host takes {limit} in one call.',
            { size: roundSize(size), limit: roundSize(limit) }),
        cause: swellsFiles(given)
            ? t('A value that is no Base64 is sent as it is, and a form cannot carry that. So the file is sent as Base64, which is a third longer.') : '',
        remedy: given.some(({ entry }) => hasFile(entry))
            ? t('Choose a smaller file, or start the host with a larger --body-bytes.')
            : t('Send less, or start the host with a larger --body-bytes.'),
    };
}

// With the name of its parameter as one.
function drawWarning(warning) {
    const text = warningText(warning);
    const at = warning.field ? text.indexOf(warning.field) : -1;
    if (at < 0) return el('p', { class: 'warning' }, text);
    return el('p', { class: 'warning' }, text.slice(0, at), el('code', {}, warning.field), text.slice(at + warning.field.length));
}

export class RequestView {
    // `go` opens another view by its address.
    constructor(name, go) {
        this.request = findRequest(name);
        this.go = go;
        this.state = formOf(this.request);
        this.title = name;
        this.timer = 0;
    }

    draw() {
        const { request } = this;
        this.form = new RequestForm(request, this.state.entries, () => this.changed());
        this.lines = el('div', { class: 'lines' });
        this.answer = el('div', { class: 'answer' });
        this.attention = el('div', { class: 'attention', role: 'alert' });
        this.excess = el('p', { class: 'problem' });
        this.send = el('button', { type: 'submit', class: 'button primary' });
        this.cancel = el('button', { type: 'button', class: 'button', on: { click: () => this.stop() } }, icon('stop'), t('Cancel'));
        this.empty = el('button', { type: 'button', class: 'button', on: { click: () => this.reset() } }, t('Empty the form'));
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
        this.form.element,
        el('div', { class: 'form-actions' }, this.excess, this.attention, this.send, this.cancel, this.empty,
            el('span', { class: 'hint' }, t('Ctrl+Enter sends, too'))));

        this.drawGiven();
        this.drawAnswer();
        const call = calls.get(this.state);
        if (call) call.view = this;
        this.drawWaiting();
        return el('div', { class: 'request-view' },
            el('header', { class: 'view-head' },
                el('p', { class: 'eyebrow' }, t(request.group)),
                el('h1', { id: 'view-title', tabindex: -1 }, request.name),
                el('p', { class: 'lead' }, sentence(request.summary)),
                el('p', { class: 'if-lost' }, el('strong', {}, t('If the answer is lost')), ' ', sentence(request.retry.text))),
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
        this.markStale();
        this.drawGiven();
    }

    // An answer stays beside a form that has changed, and says so.
    markStale() {
        const stale = isStale(this.request, this.state) && this.answer.querySelector('.outcome') !== null;
        this.answer.classList.toggle('is-stale', stale);
        const note = this.answer.querySelector('.stale-note');
        if (!stale) note?.remove();
        else if (note === null)
            this.answer.prepend(el('p', { class: 'stale-note' }, icon('info'),
                t('The form has changed since: this answer is to the former values.')));
    }

    answered(outcome) {
        this.state.outcome = outcome;
        this.drawAnswer();
        if (!this.answer.isConnected) return;
        announce(outcomeText(outcome));
        this.answer.parentElement.scrollIntoView({ block: 'nearest' });
    }

    reset() {
        forgetForm(this.request);
        this.go(`#/request/${this.request.name}`);
    }

    // What follows from the form alone: the command lines, and whether the host takes it.
    drawGiven() {
        const sendable = this.form.isSendable();
        const given = this.form.given();
        this.excess.textContent = sendable ? tooLarge(given)?.text ?? '' : '';
        if (!sendable) {
            this.lines.replaceChildren(el('p', { class: 'muted' }, t('A value cannot be sent yet: see the form.')));
            return;
        }
        const name = this.request.name;
        const files = given.some(({ entry }) => hasFile(entry))
            ? t('Run them in the folder of the file: the browser does not tell which that is.') : '';
        this.lines.replaceChildren(
            drawLine('curl-line', 'curl', curlLine(location.origin, name, given)),
            drawLine('host-line', 'corvane-host call', hostLine(this.request, given),
                t('A key-exchange session lives in one process, and “call” ends with its request: use “corvane-host script”.')),
            el('p', { class: 'muted small' }, t('The lines hold what you gave, secrets too.'), ' ', files),
            ...(token() === '' ? [] : [
                el('p', { class: 'muted small' }, t('TOKEN stands for the host’s token. This sets it once for a shell, where the token lies in its usual file:')),
                drawLine('token-line', 'TOKEN', tokenLine())]));
    }

    drawAnswer() {
        const { outcome } = this.state;
        if (outcome === null) {
            this.answer.replaceChildren(el('p', { class: 'muted' }, t('Nothing sent yet.')));
            return;
        }
        this.answer.replaceChildren(drawOutcome(this.request, outcome,
            (target, result) => this.use(target, result)));
        this.form.showError(isStale(this.request, this.state) ? null : outcome.error ?? null);
        this.form.showWarnings(outcome.warnings);
        this.answer.append(...outcome.warnings.map(drawWarning),
            this.drawInverse(), nextInExchange(this.request, this.state, this.go) ?? '');
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
        if (calls.has(this.state)) return;
        const given = this.form.given();
        // "Send anyway" goes, and must not take the focus with it.
        if (this.attention.contains(document.activeElement)) this.send.focus();
        this.attention.replaceChildren();
        // From here on: the form can change while the answer is on its way.
        this.state.sent = given;
        const error = tooLarge(given);
        if (error) {
            this.answered({ ok: false, results: {}, error, warnings: [] });
            return;
        }
        const { state } = this;
        const call = { controller: new AbortController(), started: performance.now(), view: this };
        calls.set(state, call);
        this.drawWaiting();
        let outcome = null;
        try {
            outcome = await exchangeGiven(this.request, given, call.controller.signal);
        } finally {
            calls.delete(state);
            call.view.drawWaiting();
        }
        call.view.answered(outcome);
    }

    // Whether a call is on its way, for how long, and how to stop waiting for it.
    drawWaiting() {
        clearInterval(this.timer);
        const call = calls.get(this.state);
        this.send.toggleAttribute('aria-busy', false);
        this.send.replaceChildren(icon('send'), t('Send'));
        if (!call && this.cancel.contains(document.activeElement)) this.send.focus();
        this.cancel.hidden = !call;
        this.empty.hidden = Boolean(call) || this.request.parameters.length === 0;
        if (!call) return;
        this.send.setAttribute('aria-busy', 'true');
        this.timer = setInterval(() => this.tick(call), 100);
        this.tick(call);
    }

    tick(call) {
        if (calls.get(this.state) !== call || call.view !== this) {
            clearInterval(this.timer);
            return;
        }
        const elapsed = performance.now() - call.started;
        if (elapsed < PATIENCE) return;
        const time = t('{count} s', { count: number(Math.floor(elapsed / 1000)) });
        if (!this.answer.querySelector('.waiting')) this.showWaiting();
        this.send.lastChild.textContent = t('Waiting… {time}', { time });
        this.answer.querySelector('.waiting-time').textContent = time;
    }

    // In the answer's place: the answer that is due makes the one before it a former one.
    showWaiting() {
        const seconds = currentStatus().status?.limits?.request_seconds;
        this.send.replaceChildren(el('span', { class: 'spinner', 'aria-hidden': 'true' }), '');
        this.answer.classList.remove('is-stale');
        this.answer.replaceChildren(el('div', { class: 'waiting' },
            el('span', { class: 'spinner', 'aria-hidden': 'true' }),
            el('div', {},
                el('p', {}, t('Waiting for the answer:'), ' ', el('span', { class: 'waiting-time' })),
                seconds ? el('p', { class: 'muted small' }, t('The host gives a request up after {count} seconds.',
                    { count: number(seconds) })) : null)));
        announce(t('Waiting for the answer'));
    }

    stop() {
        calls.get(this.state)?.controller.abort();
    }

    // Leads to the request that undoes this one, with its form filled in; '' where there is none.
    drawInverse() {
        const inverse = this.state.outcome.ok ? inverseOf(this.request) : null;
        if (inverse === null) return '';
        const { name } = inverse.request;
        const open = button(inverse.text, 'arrow', () => {
            const missing = handBack(this.request, this.state, inverse.request);
            this.go(`#/request/${name}`, missing);
            announce(t('The form is filled in.'));
        });
        open.classList.add('primary');
        return el('p', { class: 'inverse' }, open,
            el('span', { class: 'muted small' }, t('Fills in {request}.', { request: name })));
    }

    // Puts a result into another request's form, and goes there.
    use({ request: name, parameter: parameterName, along }, result) {
        handOver(this.request, this.state, result, findRequest(name), parameterName, along);
        this.go(`#/request/${name}`, parameterName);
        announce(t('{result} is now {parameter} of {request}.',
            { result: result.name, parameter: parameterName, request: name }));
    }
}
