// The console: puts page, catalogue and host together. Views are chosen by the address behind "#":
// #/request/NAME, #/flow/ID, #/history, #/status, or nothing for the start page.

import { Failure, SignedOut, endStay, getCatalogue } from './api.js';
import { findRequest, setCatalogue } from './catalogue.js';
import { announce, el, icon } from './dom.js';
import { forgetExchanges } from './exchange_guide.js';
import { findFlow } from './flows.js';
import { FlowView, forgetTours } from './flow_view.js';
import { chooseLanguage, currentLanguage, setLanguage, t } from './i18n.js';
import { forgetEverything, forgetSecrets, keepForms, restoreForms } from './memory.js';
import { Navigation } from './navigation.js';
import { HistoryView, StatusView } from './pages.js';
import { RequestView } from './request_view.js';
import { SignInView } from './sign_in_view.js';
import { StartView } from './start_view.js';
import { currentStatus, readyWorkers, stopWatching, watchStatus } from './status.js';
import { askOtherTabs, tellSignedIn, tellSignedOut, watchOtherTabs } from './tabs.js';
import { canBeToken, setToken, takeTokenFromAddress, token } from './token.js';

const THEME = 'corvane.theme';
const THEMES = ['auto', 'light', 'dark'];

const page = document.getElementById('console');
const navigation = new Navigation();
let main = null;
let pill = null;
let view = null;
let signedIn = false;
let starting = false;

// --- Theme: the system's, unless another was chosen.

function theme() {
    const stored = localStorage.getItem(THEME);
    return THEMES.includes(stored) ? stored : 'auto';
}

function showTheme() {
    document.documentElement.dataset.theme = theme();
}

function nextTheme() {
    localStorage.setItem(THEME, THEMES[(THEMES.indexOf(theme()) + 1) % THEMES.length]);
    showTheme();
}

function themeText() {
    return { auto: t('Colours: follow the system'), light: t('Colours: light'), dark: t('Colours: dark') }[theme()];
}

// --- What stands at the head of every view.

function drawPill() {
    const { status, reachable } = currentStatus();
    const ready = readyWorkers();
    let state = 'waiting';
    let text = t('Asking the host…');
    if (!reachable) [state, text] = ['bad', t('Host does not answer')];
    else if (status && ready === 0) [state, text] = ['bad', t('No worker is ready')];
    else if (status) {
        state = ready === status.workers.length ? 'ok' : 'waiting';
        text = t('{ready} of {all} workers ready', { ready, all: status.workers.length });
    }
    pill.dataset.state = state;
    pill.setAttribute('aria-label', text);  // narrow screens show the dot alone
    pill.replaceChildren(el('span', { class: 'dot', 'aria-hidden': 'true' }), el('span', { class: 'pill-text' }, text));
    if (view instanceof StatusView || view instanceof StartView) view.refresh();
}

function header() {
    const menu = el('button', { type: 'button', class: 'button icon-button menu-button', 'aria-controls': 'navigation',
        'aria-expanded': 'false', 'aria-label': t('Requests'), on: { click: () => showMenu(!menuShown()) } }, icon('menu'));
    const themeButton = el('button', { type: 'button', class: 'button icon-button', 'aria-label': themeText(), title: themeText(), on: {
        click: () => {
            nextTheme();
            themeButton.setAttribute('aria-label', themeText());
            themeButton.title = themeText();
            announce(themeText());
        },
    } }, icon('theme'));
    const other = currentLanguage() === 'zh' ? ['en', 'English'] : ['zh', '中文'];
    const languageButton = el('button', { type: 'button', class: 'button', id: 'language', lang: other[0], on: {
        click: () => {
            setLanguage(other[0]);
            draw();
            document.getElementById('language').focus();
        },
    } }, other[1]);
    pill = el('a', { class: 'pill', href: '#/status' });
    return el('header', { class: 'top' },
        signedIn ? menu : null,
        el('a', { class: 'brand', href: '#/' }, el('span', { class: 'brand-mark', 'aria-hidden': 'true' }, 'C'), 'Corvane',
            el('span', { class: 'brand-more' }, t('console'))),
        el('div', { class: 'top-end' },
            signedIn ? pill : null,
            languageButton, themeButton));
}

// On narrow screens the list is behind a button.
function menuShown() {
    return page.classList.contains('menu-shown');
}

function showMenu(shown) {
    page.classList.toggle('menu-shown', shown);
    page.querySelector('.menu-button')?.setAttribute('aria-expanded', String(shown));
    if (shown) navigation.search.focus();
}

function draw() {
    showTheme();
    main = el('main', { id: 'main', tabindex: -1 });
    const skip = el('a', { class: 'skip', href: '#main', on: {
        click: (event) => {
            event.preventDefault();
            main.querySelector('h1').focus();
        },
    } }, t('Skip to the content'));
    page.classList.toggle('signed-in', signedIn);
    page.replaceChildren(skip, header(),
        ...(signedIn ? [el('div', { class: 'body' }, navigation.draw(token() === '' ? null : leave), main)] : [main]));
    if (signedIn) {
        // Also a link to the view that is open anyway.
        navigation.list.addEventListener('click', (event) => {
            if (event.target.closest('a')) showMenu(false);
        });
        drawPill();
        open();
    } else if (view !== null) show(view);
}

// --- Views.

function viewOf(address) {
    const [, kind, name] = address.match(/^#\/(\w+)\/?([\w-]*)$/) ?? [];
    if (kind === 'request' && findRequest(name)) return new RequestView(name, go);
    if (kind === 'flow' && findFlow(name)) return new FlowView(findFlow(name), go);
    if (kind === 'history') return new HistoryView();
    if (kind === 'status') return new StatusView();
    return new StartView();
}

function show(next) {
    view = next;
    main.replaceChildren(view.draw());
    document.title = `${view.title} – ${t('Corvane console')}`;
}

function open() {
    show(viewOf(location.hash));
    navigation.mark(location.hash);
}

// Opens a view by its address; with a parameter's name, its field has the focus then.
function go(address, field = '') {
    if (location.hash === address) open();
    else {
        history.pushState(null, '', address);
        open();
    }
    window.scrollTo(0, 0);
    if (field !== '') view.form.focus(field);
    else main.querySelector('h1').focus();
}

// --- Coming and leaving.

// `typed` tells whether the token that failed was just given, at the sign-in or by the address;
// `elsewhere`, whether another tab signed out this one.
function signIn(failure, typed = false, elsewhere = false) {
    signedIn = false;
    stopWatching();
    view = new SignInView(failure, typed, () => start(true), () => {
        setToken('');
        signIn(null);
    }, elsewhere);
    draw();
    main.querySelector('form').elements[0].focus();
}

// Everything that a person gave or got goes, in this tab.
function forget() {
    setToken('');
    endStay();
    forgetEverything();
    forgetTours();
    forgetExchanges();
    signIn(null);
}

// For a tab that another one signed out: what was chosen in its forms is there again after the next
// sign-in, secrets are not.
function forgetSecretsAlone() {
    forgetSecrets();
    forgetTours();
    forgetExchanges();
    signIn(null, false, true);
}

function leave() {
    tellSignedOut();
    forget();
}

const noToken = {
    code: 'no_token',
    source: 'page',
    text: 'This is no token.',
    cause: '',
    remedy: '',
};

// Whether the host, or this page before it, refused the token itself: 431 is for headers that are too large.
function isTokenRefused({ status }) {
    return status === 401 || status === 431;
}

// Asks the host with the token that there is; null if it answers, else the Failure.
async function load() {
    if (token() === '') await askOtherTabs();
    if (token() !== '' && !canBeToken(token())) return new Failure(401, noToken);
    try {
        setCatalogue(await getCatalogue());
        return null;
    } catch (failure) {
        if (!(failure instanceof Failure)) throw failure;
        // Another tab's token has come meanwhile.
        return failure.status === 401 && failure.token !== token() ? load() : failure;
    }
}

async function start(typed = false) {
    starting = true;
    const failure = await load().finally(() => { starting = false; });
    if (failure !== null) {
        // Without a token nothing was tried yet that could have failed.
        const unknown = failure.status === 401 && token() === '';
        if (isTokenRefused(failure)) setToken('');
        signIn(unknown ? null : failure, typed);
        return;
    }
    signedIn = true;
    tellSignedIn();
    draw();
    await watchStatus(drawPill);
    // The first status tells whether there is a peer.
    if (view instanceof StartView || (view instanceof FlowView && !view.running)) open();
}

// A token that the host no longer takes, wherever it shows. Of a former token it tells nothing,
// nor of calls that somebody signed out of.
window.addEventListener('unhandledrejection', (event) => {
    const { reason } = event;
    const isRefused = reason instanceof Failure && reason.status === 401;
    if (isRefused || reason instanceof SignedOut) event.preventDefault();
    if (!isRefused || !signedIn || reason.token !== token()) return;
    setToken('');
    signIn(reason);
});

watchOtherTabs({
    isSignedIn: () => signedIn,
    onSignedIn: () => { if (!starting) start(); },
    onSignedOut: forgetSecretsAlone,
});

// The page may go without a word when it is hidden, on phones above all.
for (const event of ['pagehide', 'visibilitychange'])
    window.addEventListener(event, () => { if (signedIn) keepForms(); });

window.addEventListener('hashchange', () => {
    if (takeTokenFromAddress()) {
        start(true);
        return;
    }
    if (!signedIn) return;
    showMenu(false);
    open();
    window.scrollTo(0, 0);
    main.querySelector('h1').focus();
});

document.addEventListener('keydown', (event) => {
    const typing = event.target.closest('input, textarea, select');
    if (event.key === '/' && !typing && signedIn) {
        event.preventDefault();
        showMenu(true);
        navigation.search.focus();
    }
    if (event.key === 'Escape' && menuShown()) {
        showMenu(false);
        page.querySelector('.menu-button').focus();
    }
});

chooseLanguage();
restoreForms();
start(takeTokenFromAddress());
