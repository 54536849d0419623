// A key exchange that a person leads by hand: below each answer of a session stands what comes
// next in the order of the protocol, with its form filled in. What the other side does in between
// is done by the bundled peer on the way, as in the guided flow.

import { findRequest, handleOf } from './catalogue.js';
import { announce, el, icon } from './dom.js';
import { afterInExchange, exchangeText, stepOfExchange } from './flows.js';
import { t } from './i18n.js';
import { isStale } from './memory.js';
import { fillForm } from './prefill.js';
import { errorCard } from './result.js';
import { currentStatus } from './status.js';
import { runStep, valuesOf } from './tour.js';

// What is known of each session, by its token: the state of the guided flow.
const states = new Map();

export function forgetExchanges() {
    states.clear();
}

// Goes on by hand with a session of the guided flow: its state, the outcome of the step that is
// opened in its form, and the steps that are done.
export function adoptExchange(s, outcome, done) {
    states.set(s.session, Object.assign(s, { outcome, answered: new Set(done) }));
}

// The state of an answer's session, with what the answer tells. `answered` are the peer's steps
// that followed it already.
function noteAnswer(request, { entries, outcome }) {
    const handle = handleOf(request.parameters);
    const session = handle ? entries.get(handle.name).text : outcome.results.Data;
    if (!states.has(session)) states.set(session, { session, text: t(exchangeText) });
    const s = states.get(session);
    if (s.outcome !== outcome) Object.assign(s, { outcome, answered: new Set() });
    stepOfExchange(request.name).keep?.(outcome.results, s);
    return s;
}

// What stands below a successful answer: null if nothing follows. `state` is the form's, as
// memory.js has it; `go` opens a view by its address.
export function nextInExchange(request, state, go) {
    const next = state.outcome?.ok && !isStale(request, state) ? afterInExchange(request.name) : null;
    if (next === null) return null;
    const s = noteAnswer(request, state);
    const before = currentStatus().status?.peer ? next.before : [];
    const trouble = el('div', { role: 'alert' });
    const open = async () => {
        for (const step of before.filter((candidate) => !s.answered.has(candidate))) {
            const { state: went, outcome } = await runStep(step, s);
            if (went === 'failed') {
                trouble.replaceChildren(errorCard(outcome.error, 'h3'));
                return;
            }
            s.answered.add(step);
        }
        const request = findRequest(next.step.request);
        // What only an earlier step of another page could tell is left to the person.
        fillForm(request, { ...valuesOf(next.step, s), [handleOf(request.parameters).name]: s.session });
        go(`#/request/${next.step.request}`);
        announce(t('The form is filled in.'));
    };
    return el('section', { class: 'next-step', 'aria-label': t('Next in the key exchange') },
        el('h3', {}, t('Next in the key exchange')),
        ...before.map((step) => el('p', {}, el('span', { class: 'tag' }, t('the server: the peer')), ' ', t(step.title))),
        el('p', {}, el('span', { class: 'tag' }, t('the client: the host’s session')), ' ', t(next.step.title)),
        el('button', { type: 'button', class: 'button small primary', on: { click: open } },
            icon('arrow'), t('Open its form')),
        trouble);
}
