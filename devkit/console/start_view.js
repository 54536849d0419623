// The first page: what this host is, where to begin, the first call from a shell, the documents.

import { findRequest } from './catalogue.js';
import { curlLine, tokenLine } from './command_lines.js';
import { el } from './dom.js';
import { flows } from './flows.js';
import { t } from './i18n.js';
import { DOCUMENTS, DOCUMENTS_FOLDER } from './labels.js';
import { engineFacts, head } from './pages.js';
import { drawLine } from './result.js';
import { currentStatus, readyWorkers } from './status.js';
import { token } from './token.js';

const FIRST_CALL = 'QZaVen_GetVersion';  // takes nothing, and every engine answers it

// In this order as far as the host offers them.
const STARTING_POINTS = ['gcm', 'public-key', 'key-exchange', 'envelope'];
const SHOWN_POINTS = 3;

function startingPoints() {
    const { status } = currentStatus();
    const offered = STARTING_POINTS.map((id) => flows.find((flow) => flow.id === id))
        .filter((flow) => !flow.needsPeer || !status || status.peer);
    return el('ul', { class: 'tiles' }, offered.slice(0, SHOWN_POINTS).map((flow) =>
        el('li', {}, el('a', { class: 'tile', href: `#/flow/${flow.id}` },
            el('strong', {}, t(flow.title)), el('span', {}, t(flow.summary)),
            el('span', { class: 'tile-end' }, t('{count} steps', { count: flow.steps.length }))))));
}

function firstCall() {
    if (findRequest(FIRST_CALL) === undefined) return null;
    const withToken = token() !== '';
    return el('section', { class: 'card', 'aria-labelledby': 'first-call' },
        el('h2', { id: 'first-call' }, t('The first call from a shell')),
        withToken ? el('p', {}, t('First let the shell know the host’s token. “corvane-host serve” names the token’s file when it starts; usually it is this one:')) : null,
        withToken ? drawLine('token-line', 'TOKEN', tokenLine()) : null,
        el('p', {}, t('Then ask for the version of the engine, which stands above, too:')),
        drawLine('first-line', 'curl', curlLine(location.origin, FIRST_CALL, [])),
        el('p', { class: 'muted' }, t('Beside each form stands its own call as such a line.')));
}

function documents() {
    return el('section', { class: 'card', 'aria-labelledby': 'documents' },
        el('h2', { id: 'documents' }, t('To read on')),
        el('dl', { class: 'documents' }, ...DOCUMENTS.map(([name, text]) =>
            [el('dt', {}, el('code', {}, name)), el('dd', {}, t(text))]).flat(),
        el('dt', {}, el('a', { href: '/openapi.json' }, el('code', {}, '/openapi.json'))),
        el('dd', {}, t('This interface for tools that make clients (OpenAPI 3.1)'))),
        el('p', { class: 'muted' }, t('The documents lie in the source tree; the package corvane-doc installs them here:'), ' ', el('code', {}, DOCUMENTS_FOLDER)));
}

export class StartView {
    get title() {
        return t('Start');
    }

    draw() {
        this.facts = el('dl', { class: 'card facts' });
        this.shown = '';
        this.refresh();
        return el('div', { class: 'start-view' },
            head('', t('Try what this host can do'),
                t('It carries out cryptographic requests for programs. Here you can send each of them by hand and see how a program would.')),
            this.facts,
            el('h2', {}, t('Three ways to begin')),
            startingPoints(),
            el('p', { class: 'muted keys-only' }, t('Or press “/” and type what you look for: aes, rsa, cms…')),
            firstCall(),
            documents());
    }

    // What is the same stays: the focus may be there.
    refresh() {
        const { status } = currentStatus();
        const workers = status ? t('{ready} of {all} ready', { ready: readyWorkers(), all: status.workers.length }) : t('Asking the host…');
        const shown = `${status?.engine} ${workers}`;
        if (this.shown === shown) return;
        this.shown = shown;
        this.facts.replaceChildren(...engineFacts(status),
            el('dt', {}, t('Workers')), el('dd', {}, el('a', { href: '#/status' }, workers)));
    }
}
