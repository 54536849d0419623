// The host's token, by which it knows who is signed in. It lives in the tab's sessionStorage
// alone: a reload keeps it, and it ends with the tab. tabs.js passes it to other tabs.

const STORED = 'corvane.token';

export function token() {
    return sessionStorage.getItem(STORED) ?? '';
}

export function setToken(value) {
    if (value === '') sessionStorage.removeItem(STORED);
    else sessionStorage.setItem(STORED, value);
}

// A damaged link has a damaged token, which the host refuses.
function decoded(text) {
    try {
        return decodeURIComponent(text);
    } catch {
        return text;
    }
}

// Whether a text can be a host's token at all. Browsers send no header with other characters, and
// say of it what they say of a host that is gone.
export function canBeToken(text) {
    return /^[A-Za-z0-9._~+/=-]{1,512}$/.test(text);
}

// The token in what a person typed or pasted: itself, the link from the terminal, or a header.
export function tokenIn(text) {
    const link = text.match(/#token=([^&\s]+)/);
    return link ? decoded(link[1]) : text.trim().replace(/^(Authorization:\s*)?Bearer\s+/i, '');
}

// Moves a token from the address (#token=...) into the storage, out of sight and history.
export function takeTokenFromAddress() {
    if (!/^#token=[^&]/.test(location.hash)) return false;
    setToken(tokenIn(location.hash));
    history.replaceState(null, '', location.pathname);
    return true;
}
