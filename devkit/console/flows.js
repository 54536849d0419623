// The guided flows: round trips through several requests, step by step, to a check that the text
// came back. A flow is data; flow_view.js runs and shows it.
//
// A step has a title and a text that says who does what, and one of
//   request   sends a request;                        send(s) gives its parameters
//   peer      asks the key exchange's other side;     send(s) gives its body
//   local     does something in the browser, and gives {name: value} to show
//   compare   two values [a, b] that must be the same bytes
// A flow's `sender` names who carries its requests out, unless it is the engine alone.
// `s` is the flow's state: the inputs, and what the steps' keep(results, s) put into it. A request
// with `refused` must be refused with the code of that name. Values are those of the API.

import { choice } from './catalogue.js';
import { sampleRsa, sampleSm2 } from './samples.js';
import { fromBase64, fromEscaped, randomBytes, toBase64, toHex, utf8 } from './values.js';

const message = { name: 'text', label: 'Text to protect', value: 'Meet me at the old bridge at six. 桥边见。' };

const bytesOf = (text) => ({ base64: toBase64(utf8(text)) });

function damaged(base64) {
    const bytes = fromBase64(base64);
    bytes[0] ^= 1;
    return { base64: toBase64(bytes) };
}

const ENCRYPT = 'QZaven_crypto_encrypt';

const gcm = {
    id: 'gcm',
    title: 'Encrypt and decrypt',
    summary: 'Make a key, encrypt a text with it, and get the text back. A forged message is refused.',
    intro: 'Symmetric encryption in GCM mode: one key for both sides, and a tag that shows every change.',
    inputs: [
        message,
        { name: 'aad', label: 'Header to authenticate, not to hide', value: 'letter 7' },
        { name: 'cipher', label: 'Cipher', options: ['AES-256', 'AES-128', 'SM4', 'ARIA-256', 'Camellia-256'] },
    ],
    common: (s) => ({
        strCipherAlg: choice(ENCRYPT, 'strCipherAlg', s.cipher),
        strMode: choice(ENCRYPT, 'strMode', 'GCM'),
        strKey: s.key,
        strIV: { hex: s.iv },
        straad: bytesOf(s.aad),
    }),
    steps: [
        {
            title: 'Make a key',
            text: 'The engine draws a random key of the right length for the cipher.',
            request: 'QZaven_crypto_gen_symmkey',
            send: (s) => ({ strCipherAlg: choice('QZaven_crypto_gen_symmkey', 'strCipherAlg', s.cipher) }),
            keep: (results, s) => { s.key = results.Data; },
        },
        {
            title: 'Draw an initial value',
            text: 'Twelve random bytes, made here in the browser. Never use one twice with the same key.',
            local: (s) => {
                s.iv = toHex(randomBytes(12));
                return { strIV: s.iv };
            },
        },
        {
            title: 'Encrypt',
            text: 'The engine gives the ciphertext, and a tag over ciphertext and header.',
            request: ENCRYPT,
            send: (s) => ({ ...gcm.common(s), strdata: bytesOf(s.text) }),
            keep: (results, s) => {
                s.sealed = results.Data;
                s.tag = results.gcmOutTag;
            },
        },
        {
            title: 'Decrypt',
            text: 'The engine needs the same key, initial value and header, and the tag.',
            request: 'QZaven_crypto_decrypt',
            send: (s) => ({ ...gcm.common(s), strdata: s.sealed, strtag: s.tag }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        {
            title: 'A forged message is refused',
            text: 'This page flips one bit of the ciphertext. The tag does not fit, so the engine gives no text.',
            request: 'QZaven_crypto_decrypt',
            send: (s) => ({ ...gcm.common(s), strdata: damaged(s.sealed), strtag: s.tag }),
            refused: 'AVEN_E_TAG_MISMATCH',
        },
        {
            title: 'The text came back',
            text: 'This page compares what was decrypted with what was typed.',
            compare: (s) => [utf8(s.text), fromBase64(s.opened)],
        },
    ],
};

const OWN_RSA = 'RSA, made now by the browser';
const SAMPLE_SM2 = 'SM2, a sample that everybody has';
const PUBLIC = 'QZaven_crypto_public_encrypt';

// A fresh pair for OAEP, exported as DER.
async function makeRsaPair() {
    const algorithm = { name: 'RSA-OAEP', modulusLength: 2048, publicExponent: Uint8Array.of(1, 0, 1), hash: 'SHA-256' };
    const pair = await crypto.subtle.generateKey(algorithm, true, ['encrypt', 'decrypt']);
    const der = async (format, key) => toBase64(new Uint8Array(await crypto.subtle.exportKey(format, key)));
    return { publicKey: await der('spki', pair.publicKey), privateKey: await der('pkcs8', pair.privateKey) };
}

const publicKey = {
    id: 'public-key',
    title: 'Public key',
    summary: 'Anyone may encrypt with the public key; the private key alone decrypts.',
    intro: 'For short texts, such as keys: with the RSA pair made here and OAEP, up to 190 bytes.',
    inputs: [message, { name: 'pair', label: 'Key pair', options: [OWN_RSA, SAMPLE_SM2] }],
    steps: [
        {
            title: 'Get a key pair',
            text: 'The public half may go to anyone; the private half stays with its owner. Here both are DER in Base64; PEM would do as well.',
            local: async (s) => {
                const pair = s.pair === OWN_RSA ? await makeRsaPair() : sampleSm2;
                Object.assign(s, { public: pair.publicKey, private: pair.privateKey });
                s.type = choice(PUBLIC, 'strKeyPairType', s.pair === OWN_RSA ? 'RSA' : 'SM2');
                return { strpk: s.public, strsk: s.private };
            },
        },
        {
            title: 'Encrypt with the public key',
            text: 'The engine adds random bytes: the same text gives another ciphertext each time.',
            request: PUBLIC,
            send: (s) => ({ strKeyPairType: s.type, strpk: { base64: s.public }, strdata: bytesOf(s.text) }),
            keep: (results, s) => { s.sealed = results.Data; },
        },
        {
            title: 'Decrypt with the private key',
            text: 'Only the private half can. If that is stored encrypted, its password is needed too.',
            request: 'QZaven_crypto_private_decrypt',
            send: (s) => ({ strKeyPairType: s.type, strsk: { base64: s.private }, strdata: s.sealed }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        {
            title: 'The text came back',
            text: 'This page compares what was decrypted with what was typed.',
            compare: (s) => [utf8(s.text), fromBase64(s.opened)],
        },
    ],
};

const RECIPIENTS = {
    'RSA sample, AES-256 in CBC': { keys: sampleRsa, type: 'RSA', cipher: 'AES-256', mode: 'CBC' },
    'RSA sample, AES-256 in GCM': { keys: sampleRsa, type: 'RSA', cipher: 'AES-256', mode: 'GCM' },
    'SM2 sample, SM4 in CBC': { keys: sampleSm2, type: 'SM2', cipher: 'SM4', mode: 'CBC' },
};
const SEAL = 'QZaven_crypto_envelope_encrypt';

const envelope = {
    id: 'envelope',
    title: 'Envelope',
    summary: 'Data of any length, sealed for the holder of a certificate.',
    intro: 'The engine encrypts the data with a fresh key, and that key for the recipient’s certificate.',
    inputs: [message, { name: 'recipient', label: 'Recipient', options: Object.keys(RECIPIENTS) }],
    common: (s) => ({
        strCipherAlg: choice(SEAL, 'strCipherAlg', RECIPIENTS[s.recipient].cipher),
        strMode: choice(SEAL, 'strMode', RECIPIENTS[s.recipient].mode),
    }),
    steps: [
        {
            title: 'Take the recipient’s certificate',
            text: 'A sample with its private key, for trying only: everybody has it, so it protects nothing.',
            local: (s) => {
                s.keys = RECIPIENTS[s.recipient].keys;
                return { strpk: s.keys.certificate, strsk: s.keys.privateKey };
            },
        },
        {
            title: 'Seal',
            text: 'The engine makes a key for this one envelope, encrypts the data with it, and the key for the certificate. The envelope is DER.',
            request: SEAL,
            send: (s) => ({ strdata: s.text, strpk: { base64: s.keys.certificate }, ...envelope.common(s) }),
            keep: (results, s) => { s.sealed = results.Data; },
        },
        {
            title: 'Open',
            text: 'The private key opens it. Cipher and mode must be named as they were. The data comes back percent-escaped twice.',
            request: 'QZaven_crypto_envelope_decrypt',
            send: (s) => ({
                strEncdata: s.sealed,
                strKeyPairType: choice('QZaven_crypto_envelope_decrypt', 'strKeyPairType', RECIPIENTS[s.recipient].type),
                strsk: { base64: s.keys.privateKey },
                ...envelope.common(s),
            }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        {
            title: 'The text came back',
            text: 'This page compares what was opened with what was typed.',
            compare: (s) => [utf8(s.text), fromEscaped(s.opened)],
        },
    ],
};

const keyExchange = {
    id: 'key-exchange',
    title: 'Key exchange',
    summary: 'Two sides agree on keys over an open line, then write to each other in secret.',
    intro: 'A session of the host is the client. The server is a program that comes with the host, the peer, with keys and certificates of its own. What one side computes, the other never sees; only what is shown as sent or received travels.',
    sender: 'the client: the host’s session',
    needsPeer: true,
    inputs: [message],
    steps: [
        {
            title: 'Open a session',
            text: 'The host makes room for one key exchange and gives a token that stands for it. It ends the session after some minutes without use.',
            request: 'QZaven_ke_new',
            send: () => ({}),
            keep: (results, s) => { s.session = results.Data; },
        },
        {
            title: 'Set the client’s keys',
            text: 'One private key for signing, one for decrypting. Here both are a sample that everybody has; the development engine checks them and has no further use for them.',
            request: 'QZaven_ke_set_public_key',
            send: (s) => ({
                strKe: s.session,
                strSig_key: { base64: sampleSm2.privateKey },
                strEnc_key: { base64: sampleSm2.privateKey },
            }),
        },
        {
            title: 'Set the client’s certificates',
            text: 'Each must belong to its key: the session compares them.',
            request: 'QZaven_ke_set_certificate',
            send: (s) => ({
                strKe: s.session,
                strSig_cert: { base64: sampleSm2.certificate },
                strEnc_cert: { base64: sampleSm2.certificate },
            }),
        },
        {
            title: 'Get the server’s root certificate',
            text: 'The peer made it when it started. In earnest it must reach you by a way that you trust already.',
            peer: 'root',
            send: () => ({}),
            keep: (results, s) => { s.root = results.root; },
        },
        {
            title: 'Trust the root',
            text: 'The session will believe a server whose certificates this root has signed. It is uploaded as a file, which the host deletes after the request.',
            request: 'QZaven_ke_set_root_certificate',
            send: (s) => ({ strKe: s.session, strCa_file: { base64: s.root } }),
        },
        {
            title: 'Say hello',
            text: 'The session draws 32 random bytes, so that no two exchanges are alike. They are not secret.',
            request: 'QZaven_ke_client_hello',
            send: (s) => ({ strKe: s.session }),
            keep: (results, s) => { s.hello = results.Data; },
        },
        {
            title: 'The server answers',
            text: 'The peer draws 32 random bytes too. It sends them with its two certificates, and signs both random values and the encryption certificate.',
            peer: 'answer',
            send: (s) => ({ hello: s.hello }),
            keep: (results, s) => { s.answer = results; },
        },
        {
            title: 'Check the answer, and send a secret',
            text: 'The session checks the certificates against the root, then the signature. Then it draws a secret, derives its keys from it and both random values, and encrypts it for the server’s encryption certificate.',
            request: 'QZaven_ke_client_key_exchange',
            send: (s) => ({
                strKe: s.session,
                strSrvr_rand: s.answer.strSrvr_rand,
                strSrvr_sig_cert: s.answer.strSrvr_sig_cert,
                strSrvr_enc_cert: s.answer.strSrvr_enc_cert,
                strSrvr_sign: s.answer.strSrvr_sign,
            }),
            keep: (results, s) => { s.message = results.Data; },
        },
        {
            title: 'The server takes the secret',
            text: 'The peer decrypts it with its private key and derives the same keys. The keys themselves have never travelled.',
            peer: 'finish',
            send: (s) => ({ exchange: s.answer.exchange, message: s.message }),
        },
        {
            title: 'Encrypt for the server',
            text: 'The session encrypts your text with the key for this direction.',
            request: 'QZaven_ke_encrypt',
            send: (s) => ({ strKe: s.session, strdata: bytesOf(s.text) }),
            keep: (results, s) => { s.sealed = results.Data; },
        },
        {
            title: 'The server decrypts',
            text: 'The peer has the same key and finds your text.',
            peer: 'decrypt',
            send: (s) => ({ exchange: s.answer.exchange, data: s.sealed }),
            keep: (results, s) => { s.atPeer = results.Data; },
        },
        {
            title: 'The server writes back',
            text: 'The peer encrypts the same text with the key for the other direction.',
            peer: 'encrypt',
            send: (s) => ({ exchange: s.answer.exchange, data: s.atPeer }),
            keep: (results, s) => { s.reply = results.Data; },
        },
        {
            title: 'Decrypt the reply',
            text: 'The session decrypts it with its own copy of that key.',
            request: 'QZaven_ke_decrypt',
            send: (s) => ({ strKe: s.session, strcipher: s.reply }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        ...['hmac', 'cmac'].flatMap((mac) => [
            {
                title: `${mac.toUpperCase()}, by the client`,
                text: 'The session computes a check value over the text, under a key that only the two sides have.',
                request: `QZaven_ke_${mac}`,
                send: (s) => ({ strKe: s.session, strdata: bytesOf(s.text) }),
                keep: (results, s) => { s[mac] = results.Data; },
            },
            {
                title: `${mac.toUpperCase()}, by the server`,
                text: 'The peer computes it over the same text with its own copy of the key.',
                peer: mac,
                send: (s) => ({ exchange: s.answer.exchange, data: toBase64(utf8(s.text)) }),
                keep: (results, s) => { s[`${mac}AtPeer`] = results.Data; },
            },
            {
                title: `${mac.toUpperCase()}: both sides agree`,
                text: 'This page compares the two check values.',
                compare: (s) => [fromBase64(s[mac]), fromBase64(s[`${mac}AtPeer`])],
            },
        ]),
        {
            title: 'End the session',
            text: 'The host wipes the session’s keys. From here on its token is refused.',
            request: 'QZaven_ke_free',
            send: (s) => ({ strKe: s.session }),
        },
        {
            title: 'The text came back',
            text: 'It went to the server and back again; this page compares it with what was typed.',
            compare: (s) => [utf8(s.text), fromBase64(s.opened)],
        },
    ],
};

export const flows = [gcm, publicKey, envelope, keyExchange];

export function findFlow(id) {
    return flows.find((flow) => flow.id === id);
}

const exchangeSteps = keyExchange.steps;

// Where a request stands in the order of a key exchange; those that have no place come last.
export function placeInExchange(requestName) {
    const at = exchangeSteps.findIndex((step) => step.request === requestName);
    return at < 0 ? exchangeSteps.length : at;
}

// What a key exchange does after a request: {before: the peer's steps in between, step: the next
// request's}; null after the last.
export function afterInExchange(requestName) {
    const rest = exchangeSteps.slice(placeInExchange(requestName) + 1);
    const at = rest.findIndex((step) => step.request);
    return at < 0 ? null : { before: rest.slice(0, at).filter((step) => step.peer), step: rest[at] };
}

export function stepOfExchange(requestName) {
    return exchangeSteps[placeInExchange(requestName)];
}

// The text that a key exchange by hand protects, until another is typed.
export const exchangeText = message.value;
