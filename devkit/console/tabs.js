// The tabs of one browser sign in and out together: one without a token asks for it, and those
// that are signed in answer. The browser carries that between pages of this very address (scheme,
// name and port) and of one profile, and keeps nothing of it.

import { setToken, token } from './token.js';
import { randomBytes, toHex } from './values.js';

// Others answer within a few milliseconds. Who takes longer, as a tab that has slept, is heard
// all the same, when the sign-in is shown already.
const PATIENCE = 250;  // milliseconds

const channel = new BroadcastChannel('corvane.sign-in');
const me = toHex(randomBytes(16));
let endWaiting = () => {};

// Resolves once another tab has given its token, or after a while without one.
export function askOtherTabs() {
    return new Promise((resolve) => {
        endWaiting = resolve;
        channel.postMessage({ ask: me });
        setTimeout(resolve, PATIENCE);
    });
}

// Tells the other tabs that the host took this one's token.
export function tellSignedIn() {
    if (token() !== '') channel.postMessage({ signedIn: token() });
}

export function tellSignedOut() {
    channel.postMessage({ signedOut: true });
}

// Calls back when another tab has given this one its token, or has signed out. A tab that has a
// token keeps its own until it is told to leave, and passes it on only once the host took it:
// isSignedIn().
export function watchOtherTabs({ isSignedIn, onSignedIn, onSignedOut }) {
    channel.addEventListener('message', ({ data }) => {
        const mine = token();
        const given = data.answer === me ? data.token : data.signedIn;
        if (data.ask && mine !== '' && isSignedIn()) channel.postMessage({ answer: data.ask, token: mine });
        if (given && mine === '') {
            setToken(given);
            endWaiting();
            onSignedIn();
        }
        if (data.signedOut && mine !== '') {
            setToken('');
            onSignedOut();
        }
    });
}
