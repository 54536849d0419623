// Every text of the console and of the host has a Chinese one.

import assert from 'node:assert/strict';
import { readFileSync, readdirSync } from 'node:fs';
import { after, before, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { flows } from '../../devkit/console/flows.js';
import { errorTexts, warningText } from '../../devkit/console/host_texts.js';
import { setCatalogue } from '../../devkit/console/catalogue.js';
import { setLanguage } from '../../devkit/console/i18n.js';
import { DOCUMENTS, LIMITS, STATES } from '../../devkit/console/labels.js';
import { chinese } from '../../devkit/console/zh.js';
import { codes as codeTexts, peerTexts, reasons as reasonTexts, warnings as warningTexts } from '../../devkit/console/zh_host.js';
import { getJson, startHost } from './host.mjs';

const sources = fileURLToPath(new URL('../../devkit/console/', import.meta.url));
const devkitSource = (name) => readFileSync(fileURLToPath(new URL(`../../devkit/${name}`, import.meta.url)), 'utf8');

function missing(texts) {
    return [...new Set(texts)].filter((text) => text && !Object.hasOwn(chinese, text));
}

// The texts that a source passes to t() or lists for it.
function textsOf(source) {
    const literal = /'((?:[^'\\]|\\.)*)'/;
    const calls = source.matchAll(new RegExp(`\\b(?:t|sentence)\\(\\s*${literal.source}`, 'g'));
    return [...calls].map((match) => match[1].replace(/\\(.)/g, '$1'));
}

describe('Chinese', () => {
    let host = null;
    before(async () => { host = await startHost(); });
    after(() => host.stop());

    test('of the catalogue lacks nothing', async () => {
        const { requests } = await getJson(host, '/v1/catalogue');
        assert.equal(requests.length, 27);
        const texts = requests.flatMap((request) => [
            request.group, request.summary, request.retry.text,
            ...request.parameters.flatMap((parameter) => [
                parameter.meaning, parameter.need, ...(parameter.choices ?? []).map((choice) => choice.text)]),
            ...request.results.map((result) => result.meaning),
        ]);
        assert.deepEqual(missing(texts), []);
    });

    test('of the console lacks nothing', () => {
        const files = readdirSync(sources).filter((name) => name.endsWith('.js') && name !== 'zh.js');
        const texts = files.flatMap((name) => textsOf(readFileSync(sources + name, 'utf8')));
        assert.ok(texts.length > 100);
        assert.deepEqual(missing(texts), []);
    });

    test('of the guided flows lacks nothing', () => {
        const texts = flows.flatMap((flow) => [
            flow.title, flow.summary, flow.intro, flow.sender,
            ...flow.inputs.flatMap((input) => [input.label, input.value, ...(input.options ?? [])]),
            ...flow.steps.flatMap((step) => [step.title, step.text]),
        ]);
        assert.deepEqual(missing(texts), []);
    });

    test('of what the page calls things of the host lacks nothing, and each has a name', async () => {
        const { limits } = await getJson(host, '/v1/status');
        assert.deepEqual(Object.keys(LIMITS).sort(), Object.keys(limits).sort());
        const texts = [...Object.values(LIMITS).map(([text]) => text), ...Object.values(STATES), ...DOCUMENTS.map(([, text]) => text)];
        assert.deepEqual(missing(texts), []);
    });

    // A text that nobody uses any longer would hide that its like is missing.
    test('has no texts that are nowhere said', async () => {
        const files = readdirSync(sources).filter((name) => name.endsWith('.js') && !name.startsWith('zh'));
        const { requests } = await getJson(host, '/v1/catalogue');
        const said = files.map((name) => readFileSync(sources + name, 'utf8')).join('\n').replace(/\\'/g, '\'') + JSON.stringify(requests)
            + ['exchange.cpp'].map((name) => devkitSource(`host/${name}`)).join() + devkitSource('service/requests/service.cpp')
            + devkitSource('host/catalogue/complaints.cpp') + devkitSource('peer/ke_server.cpp');
        const unsaid = Object.keys(chinese).filter((text) => !said.includes(text) && !said.includes(JSON.stringify(text).slice(1, -1)));
        assert.deepEqual(unsaid.filter((text) => !/^[HC]MAC[,:]/.test(text)), []);
    });

    // The names in braces, in their order.
    const places = (text) => (text.match(/\{\w+\}/g) ?? []).sort();
    const assertSaid = (chineseText, english, what) => {
        assert.match(chineseText, /[一-鿿]/, what);
        assert.deepEqual(places(chineseText), places(english), what);
    };

    test('of the host\'s codes lacks nothing, and has nothing else', async () => {
        const { codes, hostCodes } = await getJson(host, '/v1/catalogue');
        assert.ok(codes.length > 60);
        assert.ok(hostCodes.length > 20);
        const rows = [...codes, ...hostCodes];
        assert.deepEqual(Object.keys(codeTexts).sort(), rows.map((row) => String(row.code)).sort());
        for (const row of rows) {
            for (const member of ['text', 'cause', 'remedy']) assert.ok(row[member], `${row.code} ${member}`);
            assert.equal(codeTexts[row.code].length, 3, row.code);
            for (const text of codeTexts[row.code]) assert.match(text, /[一-鿿]/, row.code);
        }
    });

    test('of the host\'s reasons lacks nothing, and has nothing else', async () => {
        const { hostCodes } = await getJson(host, '/v1/catalogue');
        for (const { code, reasons } of hostCodes) assert.ok(reasons.length > 0, code);
        const reasons = hostCodes.flatMap((row) => row.reasons);
        assert.deepEqual(Object.keys(reasonTexts).sort(), reasons.map(({ name }) => name).sort());
        for (const { name, text } of reasons) assertSaid(reasonTexts[name], text, name);
    });

    test('of the host\'s warnings lacks nothing, and has nothing else', async () => {
        const { warnings } = await getJson(host, '/v1/catalogue');
        assert.deepEqual(Object.keys(warningTexts).sort(), warnings.map(({ code }) => code).sort());
        for (const { code, text } of warnings) assertSaid(warningTexts[code], text, code);
    });

    // The peer's texts are in no catalogue: as in its sources, the parts between the values.
    test('of the peer\'s texts lacks nothing, and has nothing else', () => {
        const literal = /"((?:[^"\\]|\\.)*)"/g;
        const partsOf = (argument) => [...argument.replace(/"\s+"/g, '').matchAll(literal)]
            .map((match) => match[1].replace(/\\(.)/g, '$1')).join('{}');
        const said = ['worker.cpp', 'ke_server.cpp', 'peer_error.h'].flatMap((name) =>
            [...devkitSource(`peer/${name}`).matchAll(/(?:throw PeerError\(|reply\.text = (?="))([^;]*);/g)])
            .map(([, argument]) => partsOf(argument));
        assert.ok(said.length > 15);
        // A value at an end leaves no mark in the source.
        const translated = Object.keys(peerTexts).map((text) => text.replace(/\{\w+\}/g, '{}').replace(/^\{\}|\{\}$/g, ''));
        assert.deepEqual([...new Set(translated)].sort(), [...new Set(said)].sort());
        for (const [english, text] of Object.entries(peerTexts)) assertSaid(text, english, english);
        const whose = [...devkitSource('peer/ke_server.cpp').matchAll(/requireRandom\(\w+, "([^"]*)"\)/g)];
        assert.ok(whose.length > 2);
        assert.deepEqual(missing(whose.map(([, text]) => text)), []);
    });

    test('of what the host says without a code lacks nothing', () => {
        const without = devkitSource('host/exchange.cpp').match(/outcome\.text = (outcome\.results[^;]*);/)[1];
        const states = devkitSource('service/requests/service.cpp').match(/const char\* stateName[^]*?\n\}/)[0];
        const texts = [...(without + states).matchAll(/"([^"]*)"/g)].map(([, text]) => text);
        assert.equal(texts.length, 5);
        assert.deepEqual(missing(texts), []);
    });

    test('of what the host answers leaves no English behind', async () => {
        globalThis.localStorage = { getItem: () => 'zh', setItem: () => {} };
        globalThis.document = { documentElement: {} };
        setLanguage('zh');
        setCatalogue(await getJson(host, '/v1/catalogue'));
        const ask = async (name, parameters) => (await fetch(`${host.origin}/v1/requests/${name}`, { method: 'POST',
            headers: { Authorization: `Bearer ${host.token}`, 'Content-Type': 'application/json' },
            body: JSON.stringify(parameters) })).json();
        const spoken = (texts) => texts.map((text) => text.replace(
            /corvane-host \w+( [A-Z]+)?|\/v1\/\w+|\bstr\w+|srcdata|QZ\w+|OutLen|--[a-z-]+|Base64|Content-Type|UTF-8|JSON|URL|true|false|null|\{"\w+"\}/g, ''));
        const cases = [
            ['QZaven_crypto_kdf', { OutLen: 70000, strNothing: 'x', HashType: 4 }, 'missing out_of_range unknown'],
            ['QZaven_crypto_encrypt', { strMode: 6, strCipherPadding: 7, strdata: { raw: '%' } },
                'missing missing missing missing not_base64 not_one_of'],
            ['QZaven_wbsm4_encrypt', { strKey: { text: 'x' }, strIV: { text: 'x' }, strdata: { text: 'x' } }, 'wrong_size wrong_size'],
            ['QZaven_ke_free', { strKe: 'ke_of_another_day' }, ''],
            ['QZaven_ke_set_root_certificate', { strCa_file: 'root.crt' }, ''],
            ['QZaven_crypto_hmac', { strKey: '%' }, ''],
            ['QZaven_crypto_hmac', { strKey: 1.5 }, ''],
            ['QZaven_crypto_hmac', { strKey: { hex: '0' } }, ''],
            ['QZaven_crypto_hmacs', {}, ''],
            ['QZaven_crypto_hmac', Object.fromEntries([...Array(65).keys()].map((i) => [`p${i}`, ''])), ''],
            ['QZaVen_strerror', {}, 'missing'],
            ['QZaVen_strerror', { 'a b': 'x' }, 'missing odd_name'],
        ];
        for (const [name, parameters, expected] of cases) {
            const { error, warnings } = await ask(name, parameters);
            assert.equal(warnings.map(({ code }) => code).sort().join(' '), expected, name);
            const { text, cause, remedy } = errorTexts(error);
            for (const said of spoken([text, ...[cause, remedy].filter(Boolean), ...warnings.map(warningText)])) {
                assert.match(said, /[一-鿿]/);
                assert.doesNotMatch(said, /[A-Za-z]{4}/);
            }
        }
        const { error } = await (await fetch(`${host.origin}/v1/peer/answer`, { method: 'POST',
            headers: { Authorization: `Bearer ${host.token}`, 'Content-Type': 'application/json' },
            body: JSON.stringify({ hello: 'AAAA' }) })).json();
        assert.equal(errorTexts(error).text, '客户端问候有 3 字节，应为 32 字节');
        // What another engine says of its code stays, and a reason says more than its code.
        const foreign = { source: 'engine', code: '-30040', text: 'another text', cause: '', remedy: '' };
        assert.equal(errorTexts(foreign).text, 'another text');
        assert.equal(errorTexts(foreign).quoted, true);
        const { codes } = await getJson(host, '/v1/catalogue');
        const own = codes.find(({ code }) => code === -30040);
        assert.notEqual(errorTexts({ ...foreign, text: own.text }).quoted, true);
        assert.notEqual(errorTexts({ source: 'host', code: 'session_gone', reason: 'session_freed' }).text,
            errorTexts({ source: 'host', code: 'session_gone' }).text);
    });
});
