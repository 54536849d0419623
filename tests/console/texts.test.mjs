// Every text of the console and of the host's catalogue has a Chinese one.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync, readdirSync } from 'node:fs';
import { after, before, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { flows } from '../../devkit/console/flows.js';
import { chinese } from '../../devkit/console/zh.js';
import { getJson, startHost } from './host.mjs';

const sources = fileURLToPath(new URL('../../devkit/console/', import.meta.url));

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
        const { requests, codes } = await getJson(host, '/v1/catalogue');
        assert.equal(requests.length, 27);
        assert.ok(codes.length > 60);
        const texts = requests.flatMap((request) => [
            request.group, request.summary,
            ...request.parameters.flatMap((parameter) => [
                parameter.meaning, parameter.need, ...(parameter.choices ?? []).map((choice) => choice.text)]),
            ...request.results.map((result) => result.meaning),
        ]);
        assert.deepEqual(missing([...texts, ...codes.flatMap((code) => [code.text, code.cause, code.remedy])]), []);
    });

    test('of the console lacks nothing', () => {
        const files = readdirSync(sources).filter((name) => name.endsWith('.js') && name !== 'zh.js');
        const texts = files.flatMap((name) => textsOf(readFileSync(sources + name, 'utf8')));
        assert.ok(texts.length > 100);
        assert.deepEqual(missing(texts), []);
    });

    test('of the guided flows lacks nothing', () => {
        const texts = flows.flatMap((flow) => [
            flow.title, flow.summary, flow.intro,
            ...flow.inputs.flatMap((input) => [input.label, ...(input.options ?? [])]),
            ...flow.steps.flatMap((step) => [step.title, step.text]),
        ]);
        assert.deepEqual(missing(texts), []);
    });

    test('of the host\'s own refusals lacks nothing', () => {
        const document = execFileSync('grep', ['-hoE', '\\{"[a-z_]+", +[0-9]{3}, .*\\},',
            fileURLToPath(new URL('../../devkit/service/requests/refusal.cpp', import.meta.url))]).toString();
        const texts = document.trim().split('\n').flatMap((row) =>
            JSON.parse(row.replace(/^\{/, '[').replace(/\},$/, ']')).slice(2));
        assert.ok(texts.length > 40);
        assert.deepEqual(missing(texts), []);
    });
});
