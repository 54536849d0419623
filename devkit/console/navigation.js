// The list of what there is: the guided flows and the requests in their groups, with a search.
// Arrow keys go through what the search left over.

import { groups } from './catalogue.js';
import { el } from './dom.js';
import { flows } from './flows.js';
import { t } from './i18n.js';

const LINKS = 'li:not([hidden]) > a';

function link(address, name, summary, search) {
    return el('li', { data: { search: search.toLowerCase() } },
        el('a', { href: address }, el('span', { class: 'nav-name' }, name),
            summary ? el('span', { class: 'nav-summary' }, summary) : null));
}

// Names share their beginning, which helps nobody to find one.
function shortName(name) {
    return name.replace(/^QZa[vV]en_/, '');
}

function section(title, links) {
    return el('section', { 'aria-label': title }, el('h2', {}, title), el('ul', {}, links));
}

export class Navigation {
    constructor() {
        this.query = '';
    }

    // `onLeave` signs out; null if nobody is signed in.
    draw(onLeave) {
        this.search = el('input', { type: 'search', id: 'search', placeholder: t('Search requests'), value: this.query,
            autocomplete: 'off', 'aria-label': t('Search requests'), 'aria-keyshortcuts': '/', on: {
                input: () => this.filter(),
                keydown: (event) => this.onKey(event),
            } });
        this.empty = el('p', { class: 'muted', hidden: true }, t('Nothing found.'));
        this.sections = [
            section(t('Guided'), flows.map((flow) =>
                link(`#/flow/${flow.id}`, t(flow.title), '', `${flow.title} ${t(flow.title)} ${t(flow.summary)}`))),
            ...groups().map(([group, requests]) => section(t(group), requests.map((request) =>
                link(`#/request/${request.name}`, shortName(request.name), t(request.summary),
                    `${request.name} ${request.summary} ${t(request.summary)} ${group} ${t(group)}`)))),
        ];
        this.list = el('div', { class: 'nav-list', on: { keydown: (event) => this.onKey(event) } },
            this.sections, this.empty);
        this.element = el('nav', { id: 'navigation', 'aria-label': t('Requests') },
            el('div', { class: 'nav-search' }, this.search), this.list,
            el('div', { class: 'nav-end' },
                el('a', { href: '#/history' }, t('History')),
                el('a', { href: '#/status' }, t('Status')),
                onLeave && el('button', { type: 'button', on: { click: onLeave } }, t('Sign out'))));
        this.filter();
        return this.element;
    }

    filter() {
        this.query = this.search.value;
        const words = this.query.toLowerCase().split(/\s+/).filter(Boolean);
        for (const part of this.sections) {
            for (const item of part.querySelectorAll('li'))
                item.hidden = !words.every((word) => item.dataset.search.includes(word));
            part.hidden = part.querySelector('li:not([hidden])') === null;
        }
        this.empty.hidden = this.sections.some((part) => !part.hidden);
    }

    onKey(event) {
        const links = [...this.list.querySelectorAll(LINKS)];
        const at = links.indexOf(document.activeElement);
        if (event.key === 'Enter' && at < 0) links[0]?.click();
        else if (event.key === 'ArrowDown') links[Math.min(at + 1, links.length - 1)]?.focus();
        else if (event.key === 'ArrowUp' && at === 0) this.search.focus();
        else if (event.key === 'ArrowUp' && at > 0) links[at - 1].focus();
        else return;
        event.preventDefault();
    }

    // Marks the view that is open.
    mark(address) {
        for (const anchor of this.element.querySelectorAll('a'))
            if (anchor.getAttribute('href') === address) {
                anchor.setAttribute('aria-current', 'page');
                anchor.scrollIntoView({ block: 'nearest' });
            } else anchor.removeAttribute('aria-current');
    }
}
