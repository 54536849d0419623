// The views that are neither request nor flow: start page, status, history, sign-in.

import { setToken, token } from './api.js';
import { requests } from './catalogue.js';
import { el, icon } from './dom.js';
import { flows } from './flows.js';
import { currentLanguage, number, t } from './i18n.js';
import { clearHistory, history } from './memory.js';
import { duration, errorCard } from './result.js';
import { currentStatus } from './status.js';

function head(eyebrow, title, lead) {
    return el('header', { class: 'view-head' },
        eyebrow ? el('p', { class: 'eyebrow' }, eyebrow) : null,
        el('h1', { id: 'view-title', tabindex: -1 }, title),
        lead ? el('p', { class: 'lead' }, lead) : null);
}

export class StartView {
    get title() {
        return t('Start');
    }

    draw() {
        const { status } = currentStatus();
        const offered = flows.filter((flow) => !flow.needsPeer || !status || status.peer);
        return el('div', { class: 'start-view' },
            head('', t('What would you like to try?'),
                t('A guided flow goes a whole way in one step. The list holds all {count} requests, one form each.',
                    { count: requests().length })),
            el('ul', { class: 'tiles' }, offered.map((flow) =>
                el('li', {}, el('a', { class: 'tile', href: `#/flow/${flow.id}` },
                    el('strong', {}, t(flow.title)), el('span', {}, t(flow.summary)))))),
            el('p', { class: 'muted' }, t('Press “/” to search the requests.')));
    }
}

const STATES = { idle: 'idle', busy: 'busy', starting: 'starting', leaving: 'being replaced' };

// "1 h 2 min 3 s", of seconds.
function span(seconds) {
    const parts = [
        [Math.floor(seconds / 3600), '{count} h'],
        [Math.floor(seconds / 60) % 60, '{count} min'],
        [seconds % 60, '{count} s'],
    ];
    const first = parts.findIndex(([count]) => count > 0);
    return parts.slice(first < 0 ? 2 : first).map(([count, text]) => t(text, { count })).join(' ');
}

const LIMITS = {
    body_bytes: 'Bytes in one call',
    parameters: 'Parameters in one call',
    batch: 'Calls in one batch',
    sessions_per_worker: 'Key-exchange sessions for each worker',
    session_idle_seconds: 'Seconds until an unused session ends',
    request_seconds: 'Seconds until a request is given up',
};

export class StatusView {
    get title() {
        return t('Status');
    }

    draw() {
        this.body = el('div', {});
        this.refresh();
        return el('div', { class: 'status-view' },
            head('', t('Status'), t('Looked at every few seconds while this page is seen.')), this.body);
    }

    refresh() {
        const { status, reachable } = currentStatus();
        if (!reachable || status === null) {
            this.body.replaceChildren(el('p', { class: 'card' },
                reachable ? t('No status yet.') : t('The host does not answer. It is asked again every few seconds.')));
            return;
        }
        const facts = [
            [t('Host'), status.commit ? `${status.version} (${status.commit})` : status.version],
            ...(status.node ? [[t('Node'), status.node]] : []),
            [t('Engine'), status.engine],
            [t('Running for'), span(status.uptime_seconds)],
            [t('Key-exchange sessions'), number(status.sessions)],
            [t('Requests waiting'), number(status.queue)],
            [t('Bundled peer'), status.peer ? t('there') : t('not there')],
        ];
        const cells = (tag, texts) => texts.map((text) => el(tag, tag === 'th' ? { scope: 'col' } : {}, text));
        this.body.replaceChildren(
            el('dl', { class: 'card facts' }, facts.map(([term, text]) => [el('dt', {}, term), el('dd', {}, text)]).flat()),
            el('div', { class: 'card table-card', tabindex: 0, role: 'region', 'aria-label': t('Workers') }, el('table', {},
                el('caption', {}, t('Workers')),
                el('thead', {}, el('tr', {}, cells('th', [t('Worker'), t('State'), t('Requests'), t('Sessions'), t('Restarts')]))),
                el('tbody', {}, status.workers.map((worker) => el('tr', {}, cells('td', [
                    String(worker.slot), t(STATES[worker.state] ?? worker.state), number(worker.requests),
                    number(worker.sessions), number(worker.restarts)])))))),
            el('dl', { class: 'card facts' }, Object.entries(status.limits).map(([name, value]) =>
                [el('dt', {}, t(LIMITS[name] ?? name)), el('dd', {}, number(value))]).flat()));
    }
}

export class HistoryView {
    get title() {
        return t('History');
    }

    draw() {
        this.body = el('div', {});
        this.refresh();
        return el('div', { class: 'history-view' },
            head('', t('History'), t('What this page sent, without any values. It ends with the page.')), this.body);
    }

    refresh() {
        const calls = history();
        if (calls.length === 0) {
            this.body.replaceChildren(el('p', { class: 'card muted' }, t('Nothing sent yet.')));
            return;
        }
        const time = new Intl.DateTimeFormat(currentLanguage() === 'zh' ? 'zh-CN' : 'en-GB', { timeStyle: 'medium' });
        this.body.replaceChildren(
            el('div', { class: 'card table-card', tabindex: 0, role: 'region', 'aria-label': t('History') }, el('table', {},
                el('caption', { class: 'visually-hidden' }, t('History')),
                el('thead', {}, el('tr', {}, [t('Time'), t('Request'), t('Code'), t('Duration')].map((text) =>
                    el('th', { scope: 'col' }, text)))),
                el('tbody', {}, calls.map((call) => el('tr', {},
                    el('td', {}, time.format(call.time)),
                    el('td', {}, el('a', { href: `#/request/${call.name}` }, el('code', {}, call.name))),
                    el('td', {}, el('span', { class: call.ok ? 'badge ok' : 'badge bad' }, call.code)),
                    el('td', {}, duration(call.microseconds))))))),
            el('button', { type: 'button', class: 'button', on: {
                click: () => {
                    clearHistory();
                    this.refresh();
                },
            } }, t('Empty the history')));
    }
}

// `failure` is why the last attempt failed, or null. `onToken` goes on with a new token.
export class SignInView {
    constructor(failure, onToken) {
        this.failure = failure;
        this.onToken = onToken;
    }

    get title() {
        return t('Sign in');
    }

    draw() {
        // With a token at hand the host was at fault: asking again is all there is to do.
        const again = token() !== '';
        const input = el('input', { id: 'token', type: 'password', autocomplete: 'off', spellcheck: 'false', required: true });
        const form = el('form', { class: 'card sign-in', on: {
            submit: (event) => {
                event.preventDefault();
                if (!again) setToken(input.value.trim());
                this.onToken();
            },
        } },
        again ? null : [el('label', { for: 'token' }, t('Token of the host')), input,
            el('p', { class: 'muted' }, t('“corvane-host serve” names the file that holds it when it starts. An address with “#token=…” signs you in by itself.'))],
        el('div', { class: 'form-actions' },
            el('button', { type: 'submit', class: 'button primary' }, icon('arrow'), again ? t('Try again') : t('Sign in'))));
        return el('div', { class: 'sign-in-view' },
            head('', again ? t('No answer yet') : t('Sign in'), ''),
            this.failure ? el('div', { role: 'alert' }, errorCard(this.failure.error, 'h2')) : null, form);

    }
}
