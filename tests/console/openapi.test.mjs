// The OpenAPI document: whether it is one, and whether a client that knows nothing but the
// document completes every request.

import assert from 'node:assert/strict';
import { X509Certificate } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { after, before, describe, test } from 'node:test';

import { Validator } from '@seriousme/openapi-schema-validator';
import { OpenAPIClientAxios } from 'openapi-client-axios';

import { sampleRsa, sampleSm2 } from '../../devkit/console/samples.js';
import { getJson, startHost } from './host.mjs';

const text = (value) => Buffer.from(value).toString('base64url').padEnd(Math.ceil(value.length / 3) * 4, '=');
const bytes = (value) => Buffer.from(value, 'base64');  // in either alphabet

const steps = readFileSync(new URL('../../devkit/walk.jsonl', import.meta.url), 'utf8').trim().split('\n').map(JSON.parse);

// The files that the walk names.
const files = {
    file: 'hello',
    message: 'a message',
    nonce: '123456789012',
    iv: '6543210987654321',
    mackey: '1234567890123456',
    'rsa.der': bytes(sampleRsa.privateKey),
    'rsa.pub.der': new X509Certificate(bytes(sampleRsa.certificate)).publicKey.export({ type: 'spki', format: 'der' }),
    'rsa.crt.der': bytes(sampleRsa.certificate),
    'sm2.der': bytes(sampleSm2.privateKey),
    'sm2.pub.der': bytes(sampleSm2.publicKey),
    'sm2.crt.der': bytes(sampleSm2.certificate),
};

// A value of the walk, as a client of the service writes it. `results` are those of the steps.
function asSent(written, results) {
    if (written in files) return { base64: text(files[written]) };  // a path; the service has no such file
    if (written.startsWith('b64:@')) return { base64: text(files[written.slice(5)]) };
    if (written.startsWith('b64:')) return { text: written.slice(4) };
    if (written.startsWith('@')) return files[written.slice(1)];
    const reference = written.match(/^\$\{(\w+)\.(\w+)\}$/);
    return reference ? results[reference[1]][reference[2]] : written;
}

describe('OpenAPI', () => {
    let host = null;
    let client = null;
    let definition = null;

    // An operation by its ID; its results. It must succeed.
    async function send(operation, parameters = {}) {
        const { data } = await client[operation](null, parameters);
        assert.equal(data.error, null, `${operation}: ${JSON.stringify(data.error)}`);
        assert.deepEqual(data.warnings, [], operation);
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

    // The other side of the key exchange is the service's own.
    test('the walk through every request', async () => {
        let exchange = null;
        const gives = (expected) => ({ Data }) => assert.equal(Data, expected);
        const hasSize = (size) => ({ Data }) => assert.equal(bytes(Data).length, size);
        const seals = ({ Data }) => { files.sealed = bytes(Data); };  // for the next step
        const checks = {
            version: ({ Data }) => assert.match(Data, /development engine/),
            error_text: ({ Data }) => assert.match(Data, /missing/),
            b64: gives(text(files.file)),
            b64_back: gives(files.file),
            aes: hasSize(32),
            gcm_back: gives(text(files.file)),
            cbc_back: gives(text(files.file)),
            box_back: gives(text(files.file)),
            hmac: hasSize(32),
            cmac: hasSize(16),
            kdf: hasSize(48),
            oaep: seals,
            oaep_back: gives(text(files.message)),
            pkcs1: seals,
            pkcs1_back: gives(text(files.message)),
            sm2: seals,
            sm2_back: gives(text(files.message)),
            cms: seals,
            cms_back: gives(files.message.replaceAll(' ', '%2520')),
            sm2_envelope_back: gives(files.message.replaceAll(' ', '%2520')),
            async ke_hello({ Data }) {
                const { exchange: name, root, ...server } = await send('peer_answer', { hello: Data });
                exchange = name;
                assert.equal(text(files['server/root.crt']), root);
                for (const [parameter, value] of Object.entries(server))
                    files[parameter.replace('strSrvr_', '')] = value;
            },
            ke_exchange: ({ Data }) => send('peer_finish', { exchange, message: Data }),
            async ke_encrypt({ Data }) {
                gives(text(files.message))(await send('peer_decrypt', { exchange, data: Data }));
                files.from_server = (await send('peer_encrypt', { exchange, data: text(files.message) })).Data;
            },
            ke_decrypt: gives(text(files.message)),
            ke_hmac: async ({ Data }) => gives(Data)(await send('peer_hmac', { exchange, data: text(files.message) })),
            ke_cmac: async ({ Data }) => gives(Data)(await send('peer_cmac', { exchange, data: text(files.message) })),
        };
        files['server/root.crt'] = bytes((await send('peer_root')).root);

        const results = {};
        const completed = new Set();
        for (const { id, request, params = {} } of steps) {
            const sent = Object.entries(params).map(([name, value]) => [name, asSent(value, results)]);
            results[id] = await send(request, Object.fromEntries(sent));
            await checks[id]?.(results[id]);
            delete checks[id];
            completed.add(request);
        }
        assert.deepEqual(checks, {}, 'checks of steps that are not there');
        const { requests } = await getJson(host, '/v1/catalogue');
        assert.equal(requests.length, 27);
        assert.deepEqual(requests.map((request) => request.name).filter((name) => !completed.has(name)), []);
    });

    test('a known answer from values in every form', async () => {
        const forms = [
            { strKey: 'SmVmZQ==', strdata: text('what do ya want for nothing?') },
            { strKey: { text: 'Jefe' }, strdata: { hex: Buffer.from('what do ya want for nothing?').toString('hex') } },
            { strKey: { base64: 'SmVmZQ' }, strdata: { text: 'what do ya want for nothing?' } },
        ];
        for (const form of forms)
            for (const strHashAlg of ['4', 4])
                assert.equal((await send('QZaven_crypto_hmac', { strHashAlg, ...form })).Data,
                    'W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=');
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
});
