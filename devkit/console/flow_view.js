// Shows a guided flow: its inputs, its steps with what each sent and what came back, and how far
// the run through it is.

import { findRequest } from './catalogue.js';
import { el, icon, newId } from './dom.js';
import { adoptExchange } from './exchange_guide.js';
import { isPlaintext } from './handover.js';
import { t } from './i18n.js';
import { fillForm } from './prefill.js';
import { button, copyButton, duration, errorCard } from './result.js';
import { currentStatus } from './status.js';
import { Tour, valuesOf } from './tour.js';
import { fromBase64, fromEscaped, isPrintable, textOf } from './values.js';

const SHOWN_CHARACTERS = 600;

// Runs and inputs as they were left, for the time of the page.
const tours = new Map();

export function forgetTours() {
    tours.clear();
}

function valueText(value) {
    if (typeof value !== 'object') return String(value);
    return value.text ?? value.hex ?? value.base64;
}

// The text that stands in Base64 or twice escaped, or ''.
function readableText(text) {
    const bytes = fromBase64(text) ?? fromEscaped(text);
    const readable = bytes && textOf(bytes);
    return readable !== null && isPrintable(readable) ? readable : '';
}

function valueRow(name, text, readable) {
    return [
        el('dt', {}, el('code', {}, name)),
        el('dd', {},
            el('div', { class: 'flow-value' },
                el('span', { class: 'mono' }, text.length > SHOWN_CHARACTERS ? `${text.slice(0, SHOWN_CHARACTERS)}…` : text),
                readable === '' ? null : el('blockquote', {}, readable)),
            text === '' ? null : copyButton(() => text, t('Copy'), { 'aria-label': t('Copy {result}', { result: name }) })),
    ];
}

// `opened` names values that were decrypted: their texts are shown, too.
function valueRows(title, values, opened = []) {
    const rows = Object.entries(values).map(([name, value]) => [name, valueText(value)]);
    if (rows.length === 0) return null;
    return el('div', { class: 'flow-values' }, title === '' ? null : el('h3', {}, title),
        el('dl', {}, rows.map(([name, text]) =>
            valueRow(name, text, opened.includes(name) ? readableText(text) : '')).flat()));
}

// What came back is what the next steps live on; what was sent is known from before.
function exchanged(sent, received, opened) {
    const { errorCode, ...results } = received;
    const rows = valueRows('', sent);
    return [
        valueRows(t('Came back'), results, opened),
        rows && el('details', {}, el('summary', {}, t('What was sent')), rows),
    ];
}

function comparison({ state, compared }) {
    const same = state === 'done';
    const text = same ? textOf(compared[1]) : null;
    return [
        el('p', { class: same ? 'verdict ok' : 'verdict bad' },
            same ? t('The same, byte for byte.') : t('They differ.')),
        text !== null ? el('blockquote', {}, text) : null,
    ];
}

// What a step decrypts.
function openedBy({ request, peer }) {
    if (peer) return peer === 'decrypt' ? ['data', 'Data'] : [];
    return findRequest(request).results.filter(isPlaintext).map(({ name }) => name);
}

function called(step, { state, sent = {}, outcome }) {
    if (!step.refused)
        return outcome.ok ? exchanged(sent, outcome.results, openedBy(step)) : [errorCard(outcome.error, 'h3'), ...exchanged(sent, {})];
    return [
        state === 'done' ? el('p', { class: 'expected' }, t('Refused, as it must be.')) : null,
        outcome.error ? errorCard(outcome.error, 'h3') : el('p', {}, t('It was not refused.')),
        ...exchanged(sent, {}),
    ];
}

class StepView {
    constructor(view, step, number) {
        this.view = view;
        this.step = step;
        this.number = number;
        this.marker = el('span', { class: 'marker', 'aria-hidden': 'true' });
        this.state = el('span', { class: 'visually-hidden' });
        this.time = el('span', { class: 'muted' });
        this.outcome = el('div', {});
        this.actions = el('div', { class: 'step-actions' });
        this.element = el('li', { class: 'step' }, this.marker,
            el('div', { class: 'step-body' },
                el('h2', {}, t(step.title), this.state),
                el('p', {}, t(step.text)),
                el('p', { class: 'step-where' }, el('span', { class: 'tag' }, this.who()),
                    step.request && el('code', {}, step.request), this.time),
                this.outcome, this.actions));
    }

    // Who does the step's work.
    who() {
        if (this.step.peer) return t('the server: the peer');
        if (this.step.request) return t(this.view.flow.sender ?? 'the engine');
        return t('this page');
    }

    draw(record, isNext) {
        const marks = { done: icon('check'), failed: icon('cross') };
        const texts = { done: t('done'), failed: t('failed'), running: t('running') };
        const { state, outcome } = record;
        this.element.dataset.state = state;
        this.element.classList.toggle('is-next', isNext);
        this.marker.replaceChildren(marks[state] ?? String(this.number));
        this.state.textContent = texts[state] ? ` (${texts[state]})` : '';
        // The peer's time is not the plug-in's, and is not measured.
        this.time.textContent = this.step.request && outcome ? duration(outcome.microseconds) : '';
        let content = [];
        if (record.compared) content = comparison(record);
        else if (record.made) content = [valueRows(t('Made'), record.made)];
        else if (outcome) content = called(this.step, record);
        this.outcome.replaceChildren(...content.filter(Boolean));
        const offer = this.step.request && state !== 'running' && (outcome || isNext);
        this.actions.replaceChildren(...(offer ? [this.opener(record)] : []));
    }

    opener({ sent, outcome = null }) {
        const { step, view } = this;
        return button(t('Open in the form'), 'arrow', () => {
            const { flow, tour } = view;
            // Before a run its state does not have the inputs yet.
            if (sent === undefined) fillForm(findRequest(step.request), valuesOf(step, tour.next === 0 ? tour.inputs : tour.s));
            else fillForm(findRequest(step.request), sent, outcome);
            if (tour.s.session) adoptExchange(tour.s, outcome, flow.steps.filter((_, i) => tour.records[i].state === 'done'));
            view.go(`#/request/${step.request}`);
        }, { 'aria-label': t('Open in the form: {step}', { step: t(step.title) }) });
    }
}

export class FlowView {
    // `go` opens another view by its address.
    constructor(flow, go) {
        this.flow = flow;
        this.go = go;
        this.title = t(flow.title);
        if (!tours.has(flow.id)) tours.set(flow.id, new Tour(flow));
        this.tour = tours.get(flow.id);
    }

    get running() {
        return this.tour.running;
    }

    drawInput(input) {
        const id = newId('input');
        const value = this.tour.inputs[input.name];
        const on = { input: (event) => {
            this.tour.setInput(input.name, event.target.value);
            this.refresh();
        } };
        let control = el('textarea', { id, rows: 1, value, on });
        if (input.options) {
            control = el('select', { id, on },
                input.options.map((option) => el('option', { value: option }, t(option))));
            control.value = value;
        }
        return el('div', { class: input.options ? 'field' : 'field wide' },
            el('div', { class: 'field-head' }, el('label', { for: id }, t(input.label))), control);
    }

    draw() {
        const { flow, tour } = this;
        const head = el('header', { class: 'view-head' },
            el('p', { class: 'eyebrow' }, t('Guided')),
            el('h1', { id: 'view-title', tabindex: -1 }, t(flow.title)),
            el('p', { class: 'lead' }, t(flow.intro)));
        const { status } = currentStatus();
        if (flow.needsPeer && status && !status.peer)
            return el('div', { class: 'flow-view' }, head,
                el('p', { class: 'card' },
                    t('This host runs without the bundled peer, so there is no other side to talk to. Start it without “--no-peer”.')));

        this.verdict = el('div', { class: 'flow-verdict', role: 'status' });
        this.all = el('button', { type: 'submit', class: 'button primary' });
        this.one = el('button', { type: 'button', class: 'button', on: { click: () => this.run(1) } });
        const form = el('form', { class: 'card', on: {
            submit: (event) => {
                event.preventDefault();
                this.run(flow.steps.length);
            },
        } }, el('div', { class: 'fields' }, flow.inputs.map((input) => this.drawInput(input))),
        el('div', { class: 'form-actions' }, this.all, this.one, this.verdict));
        this.steps = flow.steps.map((step, i) => new StepView(this, step, i + 1));
        tour.onChange = (at) => this.refresh(at);
        this.refresh();
        return el('div', { class: 'flow-view' }, head, form,
            el('ol', { class: 'steps' }, this.steps.map((step) => step.element)));
    }

    refresh(at) {
        const { tour } = this;
        const next = tour.running || tour.failed || tour.ended ? -1 : tour.next;
        this.steps.forEach((step, i) => {
            if (at === undefined || i === at) step.draw(tour.records[i], i === next);
        });
        this.refreshHead();
    }

    refreshHead() {
        const { tour } = this;
        this.all.replaceChildren(icon('send'), tour.underWay ? t('Run the other steps') : t('Run all steps'));
        this.one.textContent = tour.underWay ? t('Run the next step') : t('Run one step');
        if (tour.running) this.all.setAttribute('aria-busy', 'true');
        else this.all.removeAttribute('aria-busy');
        const verdict = [];
        if (!tour.running && tour.ended)
            verdict.push(el('span', { class: 'badge ok' }, icon('check'), t('All steps went well. The text came back.')));
        if (!tour.running && tour.failed)
            verdict.push(el('span', { class: 'badge bad' }, icon('cross'), t('Stopped at a step that failed.')));
        if (this.verdict.textContent !== verdict.map((part) => part.textContent).join(''))
            this.verdict.replaceChildren(...verdict);
    }

    // The step that a single press took comes into sight.
    async run(count) {
        const { tour } = this;
        await tour.run(count);
        if (count === 1) this.steps[Math.max(tour.at - 1, 0)].element.scrollIntoView({ block: 'nearest' });
    }
}
