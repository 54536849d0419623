// The views of the host's status and of the history, and what views share.

import { el } from './dom.js';
import { byteCount, currentLanguage, number, t } from './i18n.js';
import { LIMITS, STATES } from './labels.js';
import { clearHistory, history } from './memory.js';
import { duration } from './result.js';
import { currentStatus, isForDevelopment } from './status.js';

export function head(eyebrow, title, lead) {
    return el('header', { class: 'view-head' },
        eyebrow ? el('p', { class: 'eyebrow' }, eyebrow) : null,
        el('h1', { id: 'view-title', tabindex: -1 }, title),
        lead ? el('p', { class: 'lead' }, lead) : null);
}

// What the engine says of itself, as a quote, and whether it is one to rely on.
export function engineFacts(status) {
    const text = status ? el('q', { class: 'quote', lang: 'en' }, status.engine) : t('Asking the host…');
    const mark = isForDevelopment(status)
        ? el('span', { class: 'badge warn' }, t('for development, not for production')) : null;
    return [el('dt', {}, t('Engine')), el('dd', { class: 'engine' }, text, mark)];
}

// "1 h 2 min 3 s" or "5 min", of seconds.
function span(seconds) {
    const parts = [
        [Math.floor(seconds / 3600), '{count} h'],
        [Math.floor(seconds / 60) % 60, '{count} min'],
        [seconds % 60, '{count} s'],
    ];
    const told = parts.filter(([count]) => count > 0);
    return (told.length > 0 ? told : parts.slice(-1)).map(([count, text]) => t(text, { count })).join(' ');
}

const MIB = 1 << 20;

function limitText(value, unit) {
    if (unit === 'seconds') return span(value);
    if (unit !== 'bytes') return number(value);
    return value % MIB === 0 ? `${number(value / MIB)} MiB` : byteCount(value);
}

// A limit that the page does not know keeps the host's name.
function limitRow([name, value]) {
    const [text, unit] = LIMITS[name] ?? [null, ''];
    return [el('dt', {}, text === null ? el('code', {}, name) : t(text)), el('dd', {}, limitText(value, unit))];
}

export class StatusView {
    get title() {
        return t('Status');
    }

    draw() {
        this.body = el('div', {});
        this.refresh();
        return el('div', { class: 'status-view' },
            head('', t('Status'), t('Refreshed every few seconds while this page is in view.')), this.body);
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
            [t('Running for'), span(status.uptime_seconds)],
            [t('Key-exchange sessions'), number(status.sessions)],
            [t('Requests waiting'), number(status.queue)],
            [t('Peer for key exchanges'), status.peer ? t('available') : t('not available')],
        ];
        const cells = (tag, texts) => texts.map((text) => el(tag, tag === 'th' ? { scope: 'col' } : {}, text));
        this.body.replaceChildren(
            el('dl', { class: 'card facts' }, engineFacts(status), facts.map(([term, text]) => [el('dt', {}, term), el('dd', {}, text)]).flat()),
            el('div', { class: 'card table-card', tabindex: 0, role: 'region', 'aria-label': t('Workers') }, el('table', {},
                el('caption', {}, t('Workers')),
                el('thead', {}, el('tr', {}, cells('th', [t('Worker'), t('State'), t('Requests'), t('Sessions'), t('Restarts')]))),
                el('tbody', {}, status.workers.map((worker) => el('tr', {}, cells('td', [
                    String(worker.slot), t(STATES[worker.state] ?? worker.state), number(worker.requests),
                    number(worker.sessions), number(worker.restarts)])))))),
            el('dl', { class: 'card facts' }, Object.entries(status.limits).map(limitRow).flat()));
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
            head('', t('History'), t('What this page has sent: names, times and codes, never values. It is gone once the page is closed or reloaded.')), this.body);
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
