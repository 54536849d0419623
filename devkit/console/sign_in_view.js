// The sign-in: where the token is, and why the last attempt failed, in the user's words.

import { el, icon } from './dom.js';
import { t } from './i18n.js';
import { SERVICE_TOKEN_FILE, TOKEN_FILE } from './labels.js';
import { head } from './pages.js';
import { KIND_ICONS, errorKind } from './outcomes.js';
import { errorCard } from './result.js';
import { setToken, token, tokenIn } from './token.js';

// [what happened, what to do] for a person at the sign-in; null for what has no such words.
function reasonOf(failure, typed) {
    if (failure.status === 0)
        return [t('No host answers at {address}.', { address: location.origin }),
            t('Look into the terminal where “corvane-host serve” was started: it must still be running. Start it again if it has ended.')];
    if (failure.status !== 401 && failure.status !== 431) return null;
    return typed
        ? [t('The host does not take this token.'),
            t('Perhaps a part is missing, or it is the token of another host or an old one. Copy the whole line of the file, or open the link from the terminal.')]
        : [t('You were signed out: the host does not take this tab’s token any longer.'),
            t('Its token was replaced, or another host runs at this address now. Open the link from the terminal, or paste the new token.')];
}

function helpRow(term, ...text) {
    return [el('dt', {}, term), el('dd', {}, ...text)];
}

// `failure` is why the last attempt failed, or null; `typed`, whether its token was just given, here
// or by a link. `onToken` goes on with a new token, or the same again; `onOther` drops the one at hand. `elsewhere`: another tab signed out this one.
export class SignInView {
    constructor(failure, typed, onToken, onOther, elsewhere = false) {
        this.failure = failure;
        this.typed = typed;
        this.onToken = onToken;
        this.onOther = onOther;
        this.elsewhere = elsewhere;
        this.input = null;  // once it is drawn
    }

    get title() {
        return t('Sign in');
    }

    drawFailure() {
        if (this.elsewhere)
            return el('p', { class: 'card', role: 'status' }, t('You signed out in another tab. What was chosen in the forms of this one is kept; keys, data and passwords are not.'));
        if (!this.failure) return null;
        const { error } = this.failure;
        const reason = reasonOf(this.failure, this.typed);
        if (reason === null) return el('div', { role: 'alert' }, errorCard(error, 'h2'));
        const kind = errorKind(error);
        return el('div', { role: 'alert' }, el('section', { class: 'error-card', data: { code: error.code, kind } },
            el('h2', {}, icon(KIND_ICONS[kind]), reason[0]), el('p', {}, reason[1])));
    }

    draw() {
        // With a token at hand the host was at fault: it can be asked again.
        const again = token() !== '';
        // What was typed stays when the language changes.
        const input = el('input', { id: 'token', type: 'password', autocomplete: 'off', autocapitalize: 'off', spellcheck: 'false', required: true,
            value: this.input?.value ?? '' });
        this.input = input;
        const form = el('form', { class: 'card sign-in', on: {
            submit: (event) => {
                event.preventDefault();
                if (!again) setToken(tokenIn(input.value));
                this.onToken();
            },
        } },
        again ? null : [el('label', { for: 'token' }, t('Token of the host, or the link from the terminal')), input],
        el('div', { class: 'form-actions' },
            el('button', { type: 'submit', class: 'button primary' }, icon('arrow'), again ? t('Try again') : t('Sign in')),
            again ? el('button', { type: 'button', class: 'button', on: { click: this.onOther } }, t('Use another token')) : null));
        const help = again ? null : el('section', { class: 'sign-in-help', 'aria-labelledby': 'where' },
            el('h2', { id: 'where' }, t('Where to find it')),
            el('dl', {},
                ...helpRow(t('In the terminal'), t('“corvane-host serve” shows a link with “#token=” when it starts. Opened in this browser, it signs you in by itself.')),
                ...helpRow(t('In a file'), t('The same line names the file that holds the token. It is usually the first of these, and the second for the service of a package:'),
                    el('pre', { tabindex: 0, 'aria-label': t('In a file') }, `cat ${TOKEN_FILE}\nsudo cat ${SERVICE_TOKEN_FILE}`)),
                ...helpRow(t('In another tab'), t('Where this host’s console is signed in, its other tabs in this browser sign in by themselves.'))));
        return el('div', { class: 'sign-in-view' },
            head('', again ? t('No answer yet') : t('Sign in'), ''), this.drawFailure(), form, help);
    }
}
