// The guided flows: round trips through several requests, step by step, to a check that the text
// came back. A flow is data; flow_view.js runs and shows it.
//
// A step has a title and a text that says what happens, and one of
//   request   sends a request;                        send(s) gives its parameters
//   peer      asks the key exchange's other side;     send(s) gives its body
//   local     does something in the browser, and gives {name: value} to show
//   compare   two values [a, b] that must be the same bytes
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
    summary: 'A key, a text, a ciphertext with its tag, and the text again. Takes a moment.',
    intro: 'Symmetric encryption in GCM: one key for both sides, and a tag that shows every change.',
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
            text: 'Gives the ciphertext and a tag over ciphertext and header.',
            request: ENCRYPT,
            send: (s) => ({ ...gcm.common(s), strdata: bytesOf(s.text) }),
            keep: (results, s) => {
                s.sealed = results.Data;
                s.tag = results.gcmOutTag;
            },
        },
        {
            title: 'Decrypt',
            text: 'With the same key, initial value, header and tag.',
            request: 'QZaven_crypto_decrypt',
            send: (s) => ({ ...gcm.common(s), strdata: s.sealed, strtag: s.tag }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        {
            title: 'A forged message is refused',
            text: 'One bit of the ciphertext is turned: the tag no longer fits, and no text comes out.',
            request: 'QZaven_crypto_decrypt',
            send: (s) => ({ ...gcm.common(s), strdata: damaged(s.sealed), strtag: s.tag }),
            refused: 'AVEN_E_TAG_MISMATCH',
        },
        {
            title: 'The text came back',
            text: 'What was decrypted is compared with what was typed.',
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
    intro: 'For short texts, such as keys: RSA with OAEP takes 190 bytes here.',
    inputs: [message, { name: 'pair', label: 'Key pair', options: [OWN_RSA, SAMPLE_SM2] }],
    steps: [
        {
            title: 'Get a key pair',
            text: 'Both halves travel as Base64 of DER; PEM would do as well.',
            local: async (s) => {
                const pair = s.pair === OWN_RSA ? await makeRsaPair() : sampleSm2;
                Object.assign(s, { public: pair.publicKey, private: pair.privateKey });
                s.type = choice(PUBLIC, 'strKeyPairType', s.pair === OWN_RSA ? 'RSA' : 'SM2');
                return { strpk: s.public, strsk: s.private };
            },
        },
        {
            title: 'Encrypt with the public key',
            text: 'The same text gives another ciphertext each time.',
            request: PUBLIC,
            send: (s) => ({ strKeyPairType: s.type, strpk: { base64: s.public }, strdata: bytesOf(s.text) }),
            keep: (results, s) => { s.sealed = results.Data; },
        },
        {
            title: 'Decrypt with the private key',
            text: 'An encrypted private key would need its password, too.',
            request: 'QZaven_crypto_private_decrypt',
            send: (s) => ({ strKeyPairType: s.type, strsk: { base64: s.private }, strdata: s.sealed }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        {
            title: 'The text came back',
            text: 'What was decrypted is compared with what was typed.',
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
            text: 'A sample with its private key, for trying: everybody has them, and they protect nothing.',
            local: (s) => {
                s.keys = RECIPIENTS[s.recipient].keys;
                return { strpk: s.keys.certificate, strsk: s.keys.privateKey };
            },
        },
        {
            title: 'Seal',
            text: 'This request takes the data as plain text and gives an envelope in DER.',
            request: SEAL,
            send: (s) => ({ strdata: s.text, strpk: { base64: s.keys.certificate }, ...envelope.common(s) }),
            keep: (results, s) => { s.sealed = results.Data; },
        },
        {
            title: 'Open',
            text: 'Cipher and mode must be those of the envelope. The data comes back percent-escaped twice.',
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
            text: 'What was opened is compared with what was typed.',
            compare: (s) => [utf8(s.text), fromEscaped(s.opened)],
        },
    ],
};

const keyExchange = {
    id: 'key-exchange',
    title: 'Key exchange',
    summary: 'Two sides agree on keys, then write to each other. The other side comes with the host.',
    intro: 'The host’s session is the client; a bundled peer plays the server, with certificates of its own.',
    needsPeer: true,
    inputs: [message],
    steps: [
        {
            title: 'Ask the peer for its root certificate',
            text: 'Outside of a trial it would reach you by another way.',
            peer: 'root',
            send: () => ({}),
            keep: (results, s) => { s.root = results.root; },
        },
        {
            title: 'Open a session',
            text: 'The host gives a token that stands for it, and ends it after some minutes without use.',
            request: 'QZaven_ke_new',
            send: () => ({}),
            keep: (results, s) => { s.session = results.Data; },
        },
        {
            title: 'Set the client’s keys',
            text: 'A sample. The development engine checks the keys and has no further use for them.',
            request: 'QZaven_ke_set_public_key',
            send: (s) => ({
                strKe: s.session,
                strSig_key: { base64: sampleSm2.privateKey },
                strEnc_key: { base64: sampleSm2.privateKey },
            }),
        },
        {
            title: 'Set the client’s certificates',
            text: 'They must belong to the keys.',
            request: 'QZaven_ke_set_certificate',
            send: (s) => ({
                strKe: s.session,
                strSig_cert: { base64: sampleSm2.certificate },
                strEnc_cert: { base64: sampleSm2.certificate },
            }),
        },
        {
            title: 'Trust the root',
            text: 'It is uploaded as a file and lies on the host for the time of the request.',
            request: 'QZaven_ke_set_root_certificate',
            send: (s) => ({ strKe: s.session, strCa_file: { base64: s.root } }),
        },
        {
            title: 'Say hello',
            text: 'Thirty-two random bytes of the client.',
            request: 'QZaven_ke_client_hello',
            send: (s) => ({ strKe: s.session }),
            keep: (results, s) => { s.hello = results.Data; },
        },
        {
            title: 'The peer answers',
            text: 'With random bytes of its own, two certificates, and a signature over all of it.',
            peer: 'answer',
            send: (s) => ({ hello: s.hello }),
            keep: (results, s) => { s.answer = results; },
        },
        {
            title: 'Check the answer, and send the secret',
            text: 'Certificates and signature are checked; then a fresh secret is encrypted for the peer.',
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
            title: 'The peer takes the secret',
            text: 'Now both sides have the same keys.',
            peer: 'finish',
            send: (s) => ({ exchange: s.answer.exchange, message: s.message }),
        },
        {
            title: 'Encrypt for the peer',
            text: 'With the session’s keys.',
            request: 'QZaven_ke_encrypt',
            send: (s) => ({ strKe: s.session, strdata: bytesOf(s.text) }),
            keep: (results, s) => { s.sealed = results.Data; },
        },
        {
            title: 'The peer decrypts',
            text: 'It finds the text.',
            peer: 'decrypt',
            send: (s) => ({ exchange: s.answer.exchange, data: s.sealed }),
            keep: (results, s) => { s.atPeer = results.Data; },
        },
        {
            title: 'The peer writes back',
            text: 'The same text, sealed in the other direction.',
            peer: 'encrypt',
            send: (s) => ({ exchange: s.answer.exchange, data: s.atPeer }),
            keep: (results, s) => { s.reply = results.Data; },
        },
        {
            title: 'Decrypt the reply',
            text: 'With the session’s keys for this direction.',
            request: 'QZaven_ke_decrypt',
            send: (s) => ({ strKe: s.session, strcipher: s.reply }),
            keep: (results, s) => { s.opened = results.Data; },
        },
        ...['hmac', 'cmac'].flatMap((mac) => [
            {
                title: `${mac.toUpperCase()}, by the session`,
                text: 'A check value over the text, under a key that both sides share.',
                request: `QZaven_ke_${mac}`,
                send: (s) => ({ strKe: s.session, strdata: bytesOf(s.text) }),
                keep: (results, s) => { s[mac] = results.Data; },
            },
            {
                title: `${mac.toUpperCase()}, by the peer`,
                text: 'It computes the same.',
                peer: mac,
                send: (s) => ({ exchange: s.answer.exchange, data: toBase64(utf8(s.text)) }),
                keep: (results, s) => { s[`${mac}AtPeer`] = results.Data; },
            },
            {
                title: `${mac.toUpperCase()}: both sides agree`,
                text: 'Both values are compared.',
                compare: (s) => [fromBase64(s[mac]), fromBase64(s[`${mac}AtPeer`])],
            },
        ]),
        {
            title: 'End the session',
            text: 'The host forgets its keys; the token is worth nothing from now on.',
            request: 'QZaven_ke_free',
            send: (s) => ({ strKe: s.session }),
        },
        {
            title: 'The text came back',
            text: 'It went to the peer and back again.',
            compare: (s) => [utf8(s.text), fromBase64(s.opened)],
        },
    ],
};

export const flows = [gcm, publicKey, envelope, keyExchange];

export function findFlow(id) {
    return flows.find((flow) => flow.id === id);
}
