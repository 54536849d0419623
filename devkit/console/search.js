// Finds entries of the list by words. Spelling does not count where people differ: case, and
// blanks and punctuation inside names, so that "sha256", "SHA-256" and "sha 256" are one.

const SEPARATORS = /[\s\-_./#:;,“”"'()（）。，；：、]+/;

// "PKCS#1 v1.5" is pkcs1v15.
function compact(text) {
    return text.toLowerCase().split(SEPARATORS).join('');
}

// The words of a text, each with all that follows it in its name: what a search may begin with.
function termsOf(name) {
    const parts = name.toLowerCase().split(SEPARATORS).filter(Boolean);
    return parts.map((_, i) => parts.slice(i).join(''));
}

// What an entry is found by. `names` are taken as wholes; `texts` are prose, word by word.
export function searchTerms(names, texts) {
    const words = texts.flatMap((text) => text.split(/\s+/));
    return [...new Set([...names, ...words].flatMap(termsOf))];
}

const ideograph = /\p{Script=Han}/u;

// Chinese has no blanks between its words.
function begins(terms, word) {
    return terms.some((term) => (ideograph.test(word) ? term.includes(word) : term.startsWith(word)));
}

// Whether each word of a query begins a term, or the query as a whole does.
export function found(terms, query) {
    const has = (word) => word === '' || begins(terms, compact(word));
    const hasParts = (word) => has(word) || word.split(SEPARATORS).every(has);
    return has(query) || query.split(/\s+/).every(hasParts);
}
