// The OpenAPI document: whether it is one, and whether a client that knows nothing but the
// document completes every request.

import assert from 'node:assert/strict';
import { after, before, describe, test } from 'node:test';

import { Validator } from '@seriousme/openapi-schema-validator';
import { OpenAPIClientAxios } from 'openapi-client-axios';

import { sampleRsa, sampleSm2 } from '../../devkit/console/samples.js';
import { getJson, startHost } from './host.mjs';

const text = (value) => Buffer.from(value).toString('base64url').padEnd(Math.ceil(value.length / 3) * 4, '=');
const key = { hex: '000102030405060708090a0b0c0d0e0f' };
const iv = { hex: 'f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff' };

describe('OpenAPI', () => {
    let host = null;
    let client = null;
    let definition = null;
    const completed = new Set();

    // An operation by its ID; its results. It must succeed.
    async function send(operation, parameters = {}) {
        const { data } = await client[operation](null, parameters);
        assert.equal(data.error, null, `${operation}: ${JSON.stringify(data.error)}`);
        assert.deepEqual(data.warnings, [], operation);
        completed.add(operation);
        return data.results;
    }

    before(async () => {
        host = await startHost();
        definition = await (await fetch(`${host.origin}/openapi.json`)).json();
        client = await new OpenAPIClientAxios({
            definition,
            withServer: { url: host.origin },
            axiosConfigDefaults: { headers: { Authorization: `Bearer ${host.token}` } },
        }).init();
    });
    after(() => host.stop());

    test('the document is valid', async () => {
        const outcome = await new Validator().validate(structuredClone(definition));
        assert.deepEqual(outcome.errors ?? [], []);
        assert.equal(definition.openapi, '3.1.0');
        assert.equal(outcome.valid, true);
    });

    test('engine and Base64', async () => {
        assert.match((await send('QZaVen_GetVersion')).Data, /development engine/);
        assert.match((await send('QZaVen_strerror', { strErr: '-20001' })).Data, /missing/);
        const encoded = (await send('QZaven_crypto_base64_encode', { strIn: 'hello' })).Data;
        assert.equal(encoded, text('hello'));
        assert.equal((await send('QZaven_crypto_base64_Decode', { strIn: encoded })).Data, 'hello');
    });

    test('symmetric ciphers', async () => {
        const generated = (await send('QZaven_crypto_gen_symmkey', { strCipherAlg: 4 })).Data;
        const cipher = { strCipherAlg: 4, strMode: 6, strKey: generated, strIV: iv, straad: text('header') };
        const sealed = await send('QZaven_crypto_encrypt', { ...cipher, strdata: text('hello') });
        const opened = await send('QZaven_crypto_decrypt',
            { ...cipher, strtag: sealed.gcmOutTag, strdata: sealed.Data });
        assert.equal(opened.Data, text('hello'));
        const white = (await send('QZaven_wbsm4_encrypt', { strKey: key, strIV: iv, strdata: text('hello') })).Data;
        assert.equal((await send('QZaven_wbsm4_decrypt', { strKey: key, strIV: iv, strdata: white })).Data, text('hello'));
    });

    test('MAC and key derivation', async () => {
        const hmac = (await send('QZaven_crypto_hmac', { strHashAlg: '4', strKey: text('Jefe'),
            strdata: text('what do ya want for nothing?') })).Data;
        assert.equal(hmac, 'W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=');
        assert.equal((await send('QZaven_crypto_cmac', { strCipherAlg: 2, strKey: key, strdata: text('x') })).Data.length, 24);
        assert.equal((await send('QZaven_crypto_kdf', { HashType: 4, srcdata: 'secret', OutLen: 33 })).Data.length, 44);
    });

    test('public keys and envelopes', async () => {
        const pair = { strKeyPairType: 1 };
        const sealed = (await send('QZaven_crypto_public_encrypt',
            { ...pair, strpk: { base64: sampleSm2.publicKey }, strdata: text('hello') })).Data;
        assert.equal((await send('QZaven_crypto_private_decrypt',
            { ...pair, strsk: { base64: sampleSm2.privateKey }, strdata: sealed })).Data, text('hello'));
        const cipher = { strCipherAlg: 4, strMode: 2 };
        const envelope = (await send('QZaven_crypto_envelope_encrypt',
            { ...cipher, strdata: 'hello', strpk: { base64: sampleRsa.certificate } })).Data;
        assert.equal((await send('QZaven_crypto_envelope_decrypt',
            { ...cipher, strKeyPairType: 3, strEncdata: envelope, strsk: { base64: sampleRsa.privateKey } })).Data, 'hello');
    });

    test('a key exchange with the bundled peer', async () => {
        const { root } = await send('peer_root');
        const strKe = (await send('QZaven_ke_new')).Data;
        await send('QZaven_ke_set_public_key', { strKe, strSig_key: { base64: sampleSm2.privateKey } });
        await send('QZaven_ke_set_certificate', { strKe, strSig_cert: { base64: sampleSm2.certificate } });
        await send('QZaven_ke_set_root_certificate', { strKe, strCa_file: { base64: root } });
        const hello = (await send('QZaven_ke_client_hello', { strKe })).Data;
        const { exchange, root: same, ...server } = await send('peer_answer', { hello });
        assert.equal(same, root);
        const message = (await send('QZaven_ke_client_key_exchange', { strKe, ...server })).Data;
        await send('peer_finish', { exchange, message });

        const sealed = (await send('QZaven_ke_encrypt', { strKe, strdata: text('to the server') })).Data;
        assert.equal((await send('peer_decrypt', { exchange, data: sealed })).Data, text('to the server'));
        const back = (await send('peer_encrypt', { exchange, data: text('to the client') })).Data;
        assert.equal((await send('QZaven_ke_decrypt', { strKe, strcipher: back })).Data, text('to the client'));
        for (const mac of ['hmac', 'cmac'])
            assert.equal((await send(`QZaven_ke_${mac}`, { strKe, strdata: text('x') })).Data,
                (await send(`peer_${mac}`, { exchange, data: text('x') })).Data);
        await send('QZaven_ke_free', { strKe });
    });

    test('the operations of the service itself', async () => {
        const { answers } = (await client.batch(null,
            { requests: [{ name: 'QZaVen_GetVersion' }, { name: 'QZaven_ke_new', parameters: {} }] })).data;
        assert.deepEqual(answers.map((answer) => answer.error), [null, null]);
        assert.equal((await client.livez()).data.status, 'ok');
        assert.equal((await client.readyz()).data.status, 'ok');
        assert.equal((await client.status()).data.peer, true);
        assert.match((await client.metrics()).data, /^corvane_/m);
    });

    test('every request of the catalogue was completed', async () => {
        const { requests } = await getJson(host, '/v1/catalogue');
        assert.equal(requests.length, 27);
        assert.deepEqual(requests.map((request) => request.name).filter((name) => !completed.has(name)), []);
    });
});
