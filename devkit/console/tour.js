// A run through a guided flow: all steps at once or one after the other, with what each sent and
// what came of it. It goes on while another view is open; flow_view.js shows it.

import { Failure, currentStay, sendToPeer } from './api.js';
import { findRequest } from './catalogue.js';
import { t } from './i18n.js';
import { exchange } from './request_view.js';
import { sameBytes } from './values.js';

// Long enough to see the steps go by, short enough not to wait for them.
const PAUSE = 60;  // milliseconds

// Not for those who want no motion.
const pause = () => matchMedia('(prefers-reduced-motion: reduce)').matches ||
    new Promise((resolve) => { setTimeout(resolve, PAUSE); });

async function askPeer(name, body, session) {
    try {
        const answer = await sendToPeer(name, body, session);
        return { ...answer, ok: answer.error === null };
    } catch (failure) {
        if (!(failure instanceof Failure) || failure.status === 401) throw failure;
        return { ok: false, results: {}, error: failure.error };
    }
}

// The values that a step sends on a state `s`; none where something lacks that they are made of.
export function valuesOf(step, s) {
    try {
        return step.send(s);
    } catch {
        return {};
    }
}

// Carries a step out on a flow's state `s`. Its record: {state: 'done' or 'failed', and as far as
// the step has them sent, outcome, made, compared: [a, b]}.
export async function runStep(step, s) {
    if (step.compare) {
        const [a, b] = step.compare(s);
        const same = a !== null && b !== null && sameBytes(a, b);
        return { state: same ? 'done' : 'failed', compared: [a, b] };
    }
    let sent;
    try {
        if (step.local) return { state: 'done', made: await step.local(s) };
        sent = step.send(s);
    } catch (failure) {
        if (!(failure instanceof Failure)) throw failure;
        return { state: 'failed', outcome: { ok: false, results: {}, error: failure.error } };
    }
    const outcome = step.request ? await exchange(findRequest(step.request), sent) : await askPeer(step.peer, sent, s.session);
    const well = step.refused ? !outcome.ok && outcome.error.name === step.refused : outcome.ok;
    if (outcome.ok && !step.refused) step.keep?.(outcome.results, s);
    return { state: well ? 'done' : 'failed', sent, outcome };
}

export class Tour {
    constructor(flow) {
        this.flow = flow;
        this.inputs = Object.fromEntries(flow.inputs.map((input) => [input.name, input.value ? t(input.value) : input.options[0]]));
        this.running = false;
        this.onChange = () => {};  // called with the number of a step, or with nothing: look at all
        this.restart();
    }

    restart() {
        this.at = 0;
        this.isChanged = false;
        this.s = { ...this.inputs };
        this.records = this.flow.steps.map(() => ({ state: 'waiting' }));
    }

    setInput(name, value) {
        this.inputs[name] = value;
        // What was typed since belongs to the next run; one that is going on goes to its end.
        this.isChanged = true;
    }

    // The step that is taken next.
    get next() {
        return this.isChanged ? 0 : this.at;
    }

    get failed() {
        return this.records.some((record) => record.state === 'failed');
    }

    get ended() {
        return this.records[this.records.length - 1].state === 'done';
    }

    // Whether the next step goes on from the last one.
    get underWay() {
        return this.next > 0 && !this.failed && !this.ended;
    }

    async step() {
        const { at } = this;
        this.records[at] = { state: 'running' };
        this.onChange(at);
        try {
            this.records[at] = await runStep(this.flow.steps[at], this.s);
        } catch (error) {
            this.restart();
            throw error;
        }
        this.at += 1;
        this.onChange(at);
    }

    // Takes up to so many steps, until one fails; from the beginning unless a run is under way.
    async run(count) {
        if (this.running) return;
        if (!this.underWay) this.restart();
        const stay = currentStay();
        this.running = true;
        this.onChange();
        try {
            for (let i = 0; i < count && !this.failed && !this.ended; ++i) {
                if (i > 0) await pause();
                stay.throwIfAborted();
                await this.step();
            }
        } finally {
            this.running = false;
            this.onChange();
        }
    }
}
