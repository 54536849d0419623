// Shows a guided flow and runs its steps one after the other. A step that fails ends the run with
// the card of its error.

import { Failure, sendToPeer } from './api.js';
import { findRequest } from './catalogue.js';
import { el, icon, newId } from './dom.js';
import { t } from './i18n.js';
import { exchange } from './request_view.js';
import { duration, errorCard } from './result.js';
import { currentStatus } from './status.js';
import { sameBytes, textOf } from './values.js';

// Long enough to see the steps go by, short enough not to wait for them.
const PAUSE = 60;  // milliseconds

const SHOWN_CHARACTERS = 600;

const pause = () => new Promise((resolve) => { setTimeout(resolve, PAUSE); });

// Inputs as they were left, for the time of the page.
const remembered = new Map();

function valueText(value) {
    if (typeof value !== 'object') return String(value);
    return value.text ?? value.hex ?? value.base64;
}

function valueRows(title, values) {
    const rows = Object.entries(values).map(([name, value]) => [name, valueText(value)]);
    if (rows.length === 0) return null;
    return el('div', { class: 'flow-values' }, title === '' ? null : el('h3', {}, title),
        el('dl', {}, rows.map(([name, text]) => [
            el('dt', {}, el('code', {}, name)),
            el('dd', {}, el('span', { class: 'mono' },
                text.length > SHOWN_CHARACTERS ? `${text.slice(0, SHOWN_CHARACTERS)}…` : text)),
        ]).flat()));
}

class Step {
    constructor(step, number) {
        this.step = step;
        this.marker = el('span', { class: 'marker', 'aria-hidden': 'true' }, String(number));
        this.state = el('span', { class: 'visually-hidden' });
        this.time = el('span', { class: 'muted' });
        this.outcome = el('div', {});
        const request = step.request &&
            el('a', { href: `#/request/${step.request}` }, el('code', {}, step.request));
        const peer = step.peer && el('span', { class: 'tag' }, t('the peer'), ' ', el('code', {}, step.peer));
        const local = step.local && el('span', { class: 'tag' }, t('in the browser'));
        this.number = number;
        this.element = el('li', { class: 'step' }, this.marker,
            el('div', { class: 'step-body' },
                el('h2', {}, t(step.title), this.state),
                el('p', {}, t(step.text)),
                el('p', { class: 'step-where' }, request || peer || local || null, this.time),
                this.outcome));
    }

    show(state, ...content) {
        const marks = { done: icon('check'), failed: icon('cross') };
        this.element.dataset.state = state;
        this.marker.replaceChildren(marks[state] ?? String(this.number));
        const texts = { done: t('done'), failed: t('failed'), running: t('running') };
        this.state.textContent = texts[state] ? ` (${texts[state]})` : '';
        this.outcome.replaceChildren(...content.filter(Boolean));
    }

    // What came back is what the next steps live on; what was sent is known from before.
    values(sent, received) {
        const { errorCode, ...results } = received;
        const rows = valueRows('', sent);
        return [
            valueRows(t('Came back'), results),
            rows && el('details', {}, el('summary', {}, t('What was sent')), rows),
        ];
    }

    // Whether the step went as it should.
    async run(s) {
        this.show('running');
        const { step } = this;
        if (step.compare) return this.compare(s);
        if (step.local) {
            const made = await step.local(s);
            this.show('done', valueRows(t('Made'), made));
            return true;
        }
        const sent = step.send(s);
        const outcome = step.request ? await exchange(findRequest(step.request), sent) : await this.ask(sent, s.session);
        // The peer's time is not the plug-in's, and is not measured.
        if (step.request) this.time.textContent = duration(outcome.microseconds);
        if (step.refused) return this.expectRefusal(sent, outcome);
        if (!outcome.ok) {
            this.show('failed', errorCard(outcome.error, 'h3'), ...this.values(sent, {}));
            return false;
        }
        step.keep?.(outcome.results, s);
        this.show('done', ...this.values(sent, outcome.results));
        return true;
    }

    async ask(sent, session) {
        try {
            const answer = await sendToPeer(this.step.peer, sent, session);
            return { ...answer, ok: answer.error === null };
        } catch (failure) {
            if (!(failure instanceof Failure) || failure.status === 401) throw failure;
            return { ok: false, results: {}, error: failure.error };
        }
    }

    expectRefusal(sent, outcome) {
        const right = !outcome.ok && outcome.error.name === this.step.refused;
        const card = outcome.error ? errorCard(outcome.error, 'h3') : el('p', {}, t('It was not refused.'));
        this.show(right ? 'done' : 'failed',
            right ? el('p', { class: 'expected' }, t('Refused, as it must be.')) : null, card,
            ...this.values(sent, {}));
        return right;
    }

    compare(s) {
        const [a, b] = this.step.compare(s);
        const same = a !== null && b !== null && sameBytes(a, b);
        const text = b && textOf(b);
        this.show(same ? 'done' : 'failed', el('p', { class: same ? 'verdict ok' : 'verdict bad' },
            same ? t('The same, byte for byte.') : t('They differ.')),
        same && text !== null ? el('blockquote', {}, text) : null);
        return same;
    }
}

export class FlowView {
    constructor(flow) {
        this.flow = flow;
        this.title = t(flow.title);
        this.running = false;
        if (!remembered.has(flow.id))
            remembered.set(flow.id, Object.fromEntries(flow.inputs.map((input) =>
                [input.name, input.value ?? input.options[0]])));
        this.inputs = remembered.get(flow.id);
    }

    drawInput(input) {
        const id = newId('input');
        const value = this.inputs[input.name];
        const on = { input: (event) => { this.inputs[input.name] = event.target.value; } };
        let control = el('textarea', { id, rows: 1, value, on });
        if (input.options) {
            control = el('select', { id, on },
                input.options.map((option) => el('option', { value: option }, t(option))));
            control.value = value;
        }
        return el('div', { class: input.options ? 'field' : 'field wide' },
            el('div', { class: 'field-head' }, el('label', { for: id }, t(input.label))), control);
    }

    drawSteps() {
        this.steps = this.flow.steps.map((step, i) => new Step(step, i + 1));
        this.list.replaceChildren(...this.steps.map((step) => step.element));
    }

    draw() {
        const { flow } = this;
        const head = el('header', { class: 'view-head' },
            el('p', { class: 'eyebrow' }, t('Guided')),
            el('h1', { id: 'view-title', tabindex: -1 }, t(flow.title)),
            el('p', { class: 'lead' }, t(flow.intro)));
        const { status } = currentStatus();
        if (flow.needsPeer && status && !status.peer)
            return el('div', { class: 'flow-view' }, head,
                el('p', { class: 'card' },
                    t('This host runs without the bundled peer, so there is no other side to talk to. Start it without “--no-peer”.')));

        this.list = el('ol', { class: 'steps' });
        this.verdict = el('div', { class: 'flow-verdict', role: 'status' });
        this.start = el('button', { type: 'submit', class: 'button primary' }, icon('send'), t('Run the steps'));
        const form = el('form', { class: 'card', on: {
            submit: (event) => {
                event.preventDefault();
                this.run();
            },
        } }, el('div', { class: 'fields' }, flow.inputs.map((input) => this.drawInput(input))),
        el('div', { class: 'form-actions' }, this.start, this.verdict));
        this.drawSteps();
        return el('div', { class: 'flow-view' }, head, form, this.list);
    }

    async run() {
        if (this.running) return;
        this.running = true;
        this.start.setAttribute('aria-busy', 'true');
        this.verdict.replaceChildren();
        this.drawSteps();
        const s = { ...this.inputs };
        let well = true;
        try {
            for (const step of this.steps) {
                well = await step.run(s);
                if (!well) break;
                await pause();
            }
            this.verdict.replaceChildren(well
                ? el('span', { class: 'badge ok' }, icon('check'), t('All steps went well. The text came back.'))
                : el('span', { class: 'badge bad' }, icon('cross'), t('Stopped at a step that failed.')));
        } finally {
            this.running = false;
            this.start.removeAttribute('aria-busy');
        }
    }
}
