// The list of what there is: the guided flows and the requests in their groups, which open and
// close, with a search. Arrow keys go through what can be seen of it.

import { findCode, groups, requests } from './catalogue.js';
import { el, icon, newId } from './dom.js';
import { flows } from './flows.js';
import { errorTexts } from './host_texts.js';
import { capitalised, inBoth, t } from './i18n.js';
import { fillForm } from './prefill.js';
import { found, searchTerms, spokenName } from './search.js';

// What most people come for stands first. Groups that are not here follow in the catalogue's order.
const ORDER = [
    'Symmetric cipher', 'MAC and key derivation', 'Public key', 'Envelope', 'White-box SM4', 'Base64',
    'Key-exchange session', 'Key-exchange channel', 'Engine',
];

const GUIDED = 'Guided';

const LINKS = 'li:not([hidden]) > a';

function orderedGroups() {
    const place = ([group]) => (ORDER.includes(group) ? ORDER.indexOf(group) : ORDER.length);
    return groups().sort((a, b) => place(a) - place(b));
}

// Names share their beginning, which helps nobody to find one.
function shortName(name) {
    return name.replace(/^QZa[vV]en_/, '');
}

// What a request does, in a few words: its summary up to the first pause.
export function requestTitle(request) {
    return capitalised(t(request.summary).split(/[;,.；，。]/)[0]);
}

function flowEntry(flow) {
    const { title, summary, intro } = flow;
    const options = flow.inputs.flatMap((input) => input.options ?? []);
    return {
        address: `#/flow/${flow.id}`,
        name: t(title),
        code: '',
        terms: searchTerms([], [title, summary, intro, ...options].flatMap(inBoth)),
    };
}

function requestEntry(request) {
    const choices = request.parameters.flatMap((parameter) => parameter.choices ?? []);
    const names = choices.flatMap(({ name = '', text = '', names: spellings = [] }) => [name, ...inBoth(text), ...spellings]);
    const spoken = request.parameters.flatMap(({ name }) => [name, spokenName(name)]);
    const { group, summary, keywords = '' } = request;
    return {
        address: `#/request/${request.name}`,
        name: requestTitle(request),
        code: shortName(request.name),
        terms: searchTerms([request.name, ...names, ...spoken], [summary, group, keywords].flatMap(inBoth)),
    };
}

// The error code that a search is for, with or without its sign; undefined if for none.
function searchedCode(query) {
    const [, digits] = query.trim().match(/^[-−–]?(\d+)$/) ?? [];
    return findCode(`-${digits}`) ?? findCode(digits);
}

// What a code means, and the way to the request that asks the engine for it, with its form filled in.
function drawCode(row) {
    const code = String(row.code);
    const { text, cause } = errorTexts({ source: 'engine', ...row, code });
    const asks = ({ meaning }) => /^error code\b/.test(meaning);
    const request = requests().find(({ parameters }) => parameters.some(asks));
    const words = [el('span', { class: 'nav-name' }, capitalised(text)), el('code', { class: 'nav-code' }, code)];
    if (request === undefined) return el('p', {}, words);
    const address = `#/request/${request.name}`;
    const link = el('a', { href: address, on: {
        click: () => {
            fillForm(request, { [request.parameters.find(asks).name]: code });
            // The view that is open anyway is drawn again.
            if (location.hash === address) window.dispatchEvent(new Event('hashchange'));
        },
    } }, words);
    return el('section', { 'aria-label': t('Code') },
        el('ul', {}, el('li', {}, link)), cause ? el('p', { class: 'muted small nav-cause' }, capitalised(cause)) : null);
}

// A group with a heading that opens and closes it. `isOpen` is remembered over drawings.
class Group {
    constructor(title, entries, isOpen) {
        this.isOpen = isOpen;
        this.held = false;       // the open view is in it: it stays open
        this.searching = false;  // what a search found is shown, open or not
        const id = newId('group');
        this.items = entries.map((entry) => ({
            ...entry,
            element: el('li', {}, el('a', { href: entry.address }, el('span', { class: 'nav-name' }, entry.name),
                entry.code && el('code', { class: 'nav-code' }, entry.code))),
        }));
        this.count = el('span', { class: 'nav-count', 'aria-hidden': 'true' });
        this.toggle = el('button', { type: 'button', 'aria-controls': id, on: {
            click: () => {
                if (this.held || this.searching) return;
                this.isOpen = !this.isOpen;
                this.refresh();
            },
        } }, icon('arrow'), title, this.count);
        this.list = el('ul', { id }, this.items.map((item) => item.element));
        this.element = el('section', { 'aria-label': title }, el('h2', {}, this.toggle), this.list);
        this.filter('');
    }

    filter(query) {
        this.searching = query.trim() !== '';
        for (const item of this.items) item.element.hidden = !found(item.terms, query);
        this.refresh();
    }

    // Marks the view that is open, whose group is open, too.
    mark(address) {
        this.held = this.items.some((item) => item.address === address);
        this.isOpen ||= this.held;
        this.refresh();
    }

    get left() {
        return this.items.filter((item) => !item.element.hidden).length;
    }

    refresh() {
        const shown = this.isOpen || this.searching;
        this.element.hidden = this.left === 0;
        this.list.hidden = !shown;
        this.toggle.setAttribute('aria-expanded', String(shown));
        this.toggle.setAttribute('aria-disabled', String(this.held || this.searching));
        this.count.textContent = shown ? '' : String(this.left);
    }
}

export class Navigation {
    constructor() {
        this.query = '';
        this.openGroups = new Set([GUIDED, ORDER[0]]);
    }

    // `onLeave` signs out; null if nobody is signed in.
    draw(onLeave) {
        this.remember();
        this.search = el('input', { type: 'search', id: 'search', placeholder: t('Search: aes, rsa, cms…'), value: this.query,
            autocomplete: 'off', autocapitalize: 'off', spellcheck: 'false', 'aria-label': t('Search requests'), 'aria-keyshortcuts': '/', on: {
                input: () => this.filter(),
                keydown: (event) => this.onKey(event),
            } });
        this.empty = el('div', { class: 'nav-empty', role: 'status' });
        this.groups = new Map([[GUIDED, flows.map(flowEntry)],
            ...orderedGroups().map(([group, requests]) => [group, requests.map(requestEntry)])]
            .map(([group, entries]) => [group, new Group(t(group), entries, this.openGroups.has(group))]));
        this.code = el('div', {});
        this.list = el('div', { class: 'nav-list', on: { keydown: (event) => this.onKey(event) } }, this.code,
            [...this.groups.values()].map((group) => group.element), this.empty);
        this.element = el('nav', { id: 'navigation', 'aria-label': t('Requests') },
            el('div', { class: 'nav-search' }, this.search), this.list,
            el('div', { class: 'nav-end' },
                el('a', { href: '#/history' }, t('History')),
                el('a', { href: '#/status' }, t('Status')),
                onLeave && el('button', { type: 'button', on: { click: onLeave } }, t('Sign out'))));
        this.filter();
        return this.element;
    }

    // Which groups are open, before they are drawn anew.
    remember() {
        for (const [name, group] of this.groups ?? [])
            if (group.isOpen) this.openGroups.add(name);
            else this.openGroups.delete(name);
    }

    filter() {
        this.query = this.search.value;
        const groups = [...this.groups.values()];
        for (const group of groups) group.filter(this.query);
        const code = searchedCode(this.query);
        this.code.replaceChildren(...(code ? [drawCode(code)] : []));
        const nothing = !code && groups.every((group) => group.left === 0);
        this.empty.replaceChildren(...(nothing ? this.drawEmpty() : []));
    }

    drawEmpty() {
        return [
            el('p', {}, t('Nothing found for “{words}”.', { words: this.query.trim() })),
            el('p', { class: 'muted' }, t('Try the name of an algorithm (sm4, rsa, sha-256), of a mode (gcm) or format (cms), or what you want to do (encrypt, derive).')),
            el('button', { type: 'button', class: 'button small', on: {
                click: () => {
                    this.search.value = '';
                    this.filter();
                    this.search.focus();
                },
            } }, t('Empty the search')),
        ];
    }

    onKey(event) {
        const links = [...this.list.querySelectorAll(LINKS)].filter((link) => link.checkVisibility());
        const at = links.indexOf(document.activeElement);
        const onToggle = document.activeElement.closest?.('.nav-list button');
        if (event.key === 'Enter' && at < 0 && !onToggle) links[0]?.click();
        else if (event.key === 'ArrowDown') links[Math.min(at + 1, links.length - 1)]?.focus();
        else if (event.key === 'ArrowUp' && at === 0) this.search.focus();
        else if (event.key === 'ArrowUp' && at > 0) links[at - 1].focus();
        else return;
        event.preventDefault();
    }

    // Marks the view that is open.
    mark(address) {
        for (const group of this.groups.values()) group.mark(address);
        for (const anchor of this.element.querySelectorAll('a'))
            if (anchor.getAttribute('href') === address) {
                anchor.setAttribute('aria-current', 'page');
                anchor.scrollIntoView({ block: 'nearest' });
            } else anchor.removeAttribute('aria-current');
    }
}
