// What goes from an answer into another request's form, and what an answer still answers.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { setCatalogue } from '../../devkit/console/catalogue.js';
import { givenOf, sameGiven } from '../../devkit/console/entries.js';
import { inverseOf } from '../../devkit/console/handover.js';
import { sampleRsa } from '../../devkit/console/samples.js';
import { field, fill, fillAll, openRequest, result, send } from './browser.mjs';
import { getJson } from './host.mjs';
import { KEY, heading, host, onPage, page, useHost } from './suite.mjs';

const GCM = { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' },
    straad: 'header' };
const CBC = { strCipherAlg: '2', strMode: '2', strCipherPadding: '1', strKey: { hex: KEY }, strIV: { hex: KEY } };

const text = (value) => ({ how: 'text', text: value, file: null });

test('A call is the same where its bytes are, in whatever form they were given', () => {
    const request = { parameters: [{ name: 'strMode', oneOf: ['1', '6'] }, { name: 'strdata', form: 'base64' },
        { name: 'straad', form: 'base64', requiredWhen: { parameter: 'strMode', is: '6' } }] };
    const given = (mode, data, aad = text('')) => givenOf(request, new Map([['strMode', text(mode)], ['strdata', data], ['straad', aad]]));
    const hex = (value) => ({ ...text(value), how: 'hex' });
    assert.deepEqual(given('6', text('')).map(({ parameter }) => parameter.name), ['strMode']);
    assert.ok(sameGiven(given('1', text('hi')), given('1', hex('6869'))));
    assert.ok(!sameGiven(given('1', text('hi')), given('1', hex('686a'))));
    assert.ok(!sameGiven(given('1', text('hi')), given('6', text('hi'))));
    assert.ok(!sameGiven(given('1', text('hi')), given('1', text(''))));
    // What is not used makes no other call.
    assert.ok(sameGiven(given('1', text('hi'), text('x')), given('1', text('hi'))));
    const [one, two] = [{ how: 'file', text: '', file: new Blob(['x']) }, { how: 'file', text: '', file: new Blob(['x']) }];
    assert.ok(sameGiven(given('1', one), given('1', { ...one })));
    assert.ok(!sameGiven(given('1', one), given('1', two)));
});

describe('Handing over', () => {
    useHost();

    const input = (parameter) => field(page, parameter).locator('.control > select, .control > textarea, .control > input');
    const value = (parameter) => input(parameter).inputValue();
    const focused = () => page.evaluate(() => document.activeElement.closest('[data-parameter]')?.dataset.parameter);
    const succeed = async (name, values) => {
        await openRequest(page, name);
        await fillAll(page, values);
        await send(page);
        assert.equal(await page.locator('.outcome-head .badge').textContent(), 'Success', name);
    };
    const press = async (text, name) => {
        await page.getByRole('button', { name: text, exact: true }).click();
        await heading(name);
    };
    const use = async (name, target) => {
        const where = page.locator(`[data-result="${name}"]`);
        await where.locator('.use summary').click();
        await where.locator('.use select').selectOption(target);
        await where.locator('.use-panel button').click();
        await heading(target.split(' ')[0]);
    };

    test('Each request knows what undoes it, and others know of nothing', async () => {
        const catalogue = await getJson(host, '/v1/catalogue');
        setCatalogue(catalogue);
        const pairs = catalogue.requests.map((request) => [request, inverseOf(request)]).filter(([, inverse]) => inverse !== null)
            .map(([request, inverse]) => `${request.name} ${inverse.text} ${inverse.request.name}`.replaceAll('QZaven_', ''));
        assert.deepEqual(pairs, [
            'crypto_base64_encode Decode this crypto_base64_Decode',
            'crypto_base64_Decode Encode this crypto_base64_encode',
            'crypto_public_encrypt Decrypt this crypto_private_decrypt',
            'crypto_private_decrypt Encrypt this crypto_public_encrypt',
            'crypto_encrypt Decrypt this crypto_decrypt',
            'crypto_decrypt Encrypt this crypto_encrypt',
            'crypto_envelope_encrypt Open this crypto_envelope_decrypt',
            'crypto_envelope_decrypt Encrypt this crypto_envelope_encrypt',
            'wbsm4_encrypt Decrypt this wbsm4_decrypt',
            'wbsm4_decrypt Encrypt this wbsm4_encrypt',
        ]);
    });

    test('One press opens the decryption with all that it needs', onPage(async () => {
        await succeed('QZaven_crypto_encrypt', { ...GCM, strdata: 'to and fro', strgcmTagLen: '12' });
        // What is typed since is not what was encrypted with.
        await fill(page, 'straad', 'another header');
        await press('Decrypt this', 'QZaven_crypto_decrypt');
        assert.deepEqual([await value('strCipherAlg'), await value('strMode'), await value('strKey'), await value('straad')],
            ['4', '6', KEY + KEY, 'header']);
        await send(page);
        assert.equal(await result(page, 'Data', 'text'), 'to and fro');

        // Back again the text goes, and the key, but not the initial value.
        await press('Encrypt this', 'QZaven_crypto_encrypt');
        assert.deepEqual([await value('strdata'), await value('strKey'), await value('strIV'), await focused()],
            ['to and fro', KEY + KEY, '', 'strIV']);

        // Nothing of the call before is left over.
        await succeed('QZaven_crypto_encrypt', { ...CBC, strdata: 'padded' });
        await press('Decrypt this', 'QZaven_crypto_decrypt');
        assert.deepEqual([await value('strMode'), await value('strCipherPadding'), await value('straad'), await value('strtag')], ['2', '1', '', '']);
        await send(page);
        assert.equal(await result(page, 'Data', 'text'), 'padded');
    }));

    test('Every inverse opens so, but for what only its owner has', onPage(async () => {
        const back = async (text, name, due, missing = {}) => {
            await press(text, name);
            if (Object.keys(missing).length > 0) assert.equal(await focused(), Object.keys(missing)[0]);
            await fillAll(page, missing);
            await send(page);
            assert.equal(await result(page, 'Data', 'text'), due, name);
        };
        await succeed('QZaven_crypto_base64_encode', { strIn: 'Brücke' });
        await back('Decode this', 'QZaven_crypto_base64_Decode', 'Brücke');
        await back('Encode this', 'QZaven_crypto_base64_encode', 'Brücke');
        await succeed('QZaven_wbsm4_encrypt', { strKey: { hex: KEY }, strIV: { hex: KEY }, strdata: 'boxed' });
        await back('Decrypt this', 'QZaven_wbsm4_decrypt', 'boxed');
        const strsk = { base64: sampleRsa.privateKey };
        await succeed('QZaven_crypto_public_encrypt', { strKeyPairType: '3', strpk: { base64: sampleRsa.certificate },
            strRsaPaddingE: '1', strdata: 'for the owner' });
        await back('Decrypt this', 'QZaven_crypto_private_decrypt', 'for the owner', { strsk });
        await succeed('QZaven_crypto_envelope_encrypt', { strdata: 'sealed', strpk: { base64: sampleRsa.certificate },
            strCipherAlg: '4', strMode: '2' });
        await back('Open this', 'QZaven_crypto_envelope_decrypt', 'sealed', { strKeyPairType: '3', strsk });
        // The owner's key stays where it was given.
        await succeed('QZaven_crypto_public_encrypt', { strdata: 'once more' });
        await back('Decrypt this', 'QZaven_crypto_private_decrypt', 'once more');
    }));

    test('What is taken along leaves what was put there, and a plaintext is no ciphertext', onPage(async () => {
        await succeed('QZaven_crypto_encrypt', { ...GCM, strdata: 'to and fro' });
        const sealed = await result(page, 'Data', 'base64');
        await use('Data', 'QZaven_crypto_decrypt strdata');
        await openRequest(page, 'QZaven_crypto_encrypt');
        await use('gcmOutTag', 'QZaven_crypto_decrypt strtag');
        assert.deepEqual([await value('strdata'), await value('straad'), await value('strKey')], [sealed, 'header', KEY + KEY]);
        await send(page);
        assert.equal(await result(page, 'Data', 'text'), 'to and fro');

        // A key that was put there stays, and what was typed over it is no longer one.
        await succeed('QZaven_crypto_gen_symmkey', { strCipherAlg: '4' });
        const key = await result(page, 'Data', 'base64');
        await use('Data', 'QZaven_crypto_encrypt strKey');
        await openRequest(page, 'QZaven_crypto_decrypt');
        await use('Data', 'QZaven_crypto_encrypt strIV');
        assert.equal(await value('strKey'), key);
        await fill(page, 'strKey', { hex: '00' });
        await openRequest(page, 'QZaven_crypto_decrypt');
        await use('Data', 'QZaven_crypto_encrypt strdata');
        assert.equal(await value('strKey'), KEY + KEY);
    }));

    test('An answer is the present one again where the form has the old values again', onPage(async () => {
        const former = page.locator('.answer.is-stale, .stale-note');
        await succeed('QZaven_crypto_base64_encode', { strIn: 'one' });
        await fill(page, 'strIn', 'two');
        assert.equal(await former.count(), 2);
        await fill(page, 'strIn', 'one');
        assert.equal(await former.count(), 0);
        // The same bytes in hex are the same values.
        await fill(page, 'strIn', { hex: '6f6e65' });
        assert.equal(await former.count(), 0);
        await fill(page, 'strIn', { hex: '6f6e66' });
        assert.equal(await former.count(), 2);
    }));

    test('Data that is no whole block is said to be before it is sent, where it must be', onPage(async () => {
        const problem = () => field(page, 'strdata').locator('.problem').textContent();
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '2', strdata: 'eleven here' });
        assert.equal(await problem(), 'Without padding it must be whole blocks of 16 bytes; here are 11.');
        await fill(page, 'strCipherPadding', '1');
        assert.equal(await problem(), '');
        await fillAll(page, { strCipherPadding: '0', strMode: '3' });
        assert.equal(await problem(), '');
        await fillAll(page, { strMode: '1', strdata: { hex: KEY } });
        assert.equal(await problem(), '');
        // Padded or not, a ciphertext has whole blocks.
        await openRequest(page, 'QZaven_crypto_decrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '2', strCipherPadding: '1', strdata: { hex: '00' } });
        assert.equal(await problem(), 'Must be whole blocks of 16 bytes; here are 1.');
    }));

    test('The length of a tag is asked for with GCM alone', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const length = field(page, 'strgcmTagLen');
        await fill(page, 'strMode', '6');
        await fill(page, 'strgcmTagLen', '12');
        assert.match(await page.locator('#host-line').textContent(), /strgcmTagLen=12/);
        await fill(page, 'strMode', '2');
        assert.equal(await length.locator('.control').isVisible(), false);
        assert.equal(await length.locator('.unused').textContent(), 'Used with GCM only.');
        assert.doesNotMatch(await page.locator('#host-line').textContent(), /strgcmTagLen/);
    }));
});
