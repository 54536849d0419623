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

// A parameter's name as people say it: "strCipherPadding" is Cipher Padding, "straad" is aad.
export function spokenName(name) {
    return name.replace(/^str(?=.)/, '').replace(/([a-z0-9])([A-Z])/g, '$1 $2');
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

// Two names in one word: "hmacsha256".
function beginsJoined(terms, word) {
    return terms.some((term) => term.length > 2 && word.length > term.length + 1 && word.startsWith(term) &&
        begins(terms, word.slice(term.length)));
}

// Words that tell nothing of what is looked for.
const FILLERS = new Set(['a', 'an', 'and', 'as', 'by', 'do', 'for', 'from', 'how', 'i', 'in', 'into', 'is', 'my', 'of', 'on', 'or', 'the',
    'to', 'using', 'with']);

// Whether each word of a query that tells something begins a term, or the query as a whole does.
export function found(terms, query) {
    const has = (word) => word === '' || begins(terms, compact(word)) || beginsJoined(terms, compact(word));
    const hasParts = (word) => has(word) || word.split(SEPARATORS).every(has);
    const words = query.trim().split(/\s+/);
    const telling = words.filter((word) => !FILLERS.has(word.toLowerCase()));
    return has(query) || (telling.length > 0 ? telling : words).every(hasParts);
}
