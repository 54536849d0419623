// What a field takes, and in which form: pasted values, the forms that fields start with, values that
// have no use beside others.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { field, fill, fillAll, openRequest } from './browser.mjs';
import { onPage, page, useHost } from './suite.mjs';

const KEY = 'AAECAwQFBgcICQoLDA0ODw==';  // of 16 bytes

describe('Fields', () => {
    useHost();

    const paste = async (parameter, text) => {
        await page.evaluate((content) => navigator.clipboard.writeText(content), text);
        await field(page, parameter).locator('textarea').focus();
        await page.keyboard.press('Control+V');
    };
    const choose = (parameter, form) => field(page, parameter).locator('.segments').getByText(form, { exact: true }).click();
    const given = (parameter) => field(page, parameter).locator('textarea').inputValue();
    const form = (parameter) => field(page, parameter).locator('.segments input:checked').getAttribute('value');
    const problem = (parameter) => field(page, parameter).locator('.problem').textContent();

    test('A key in Base64 that is pasted as hex can be read as Base64', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        assert.equal(await form('strKey'), 'hex');
        await paste('strKey', KEY);
        assert.equal(await field(page, 'strKey').locator('.offer span').textContent(), 'This looks like Base64.');
        await field(page, 'strKey').getByRole('button', { name: 'Read it so' }).click();
        assert.deepEqual([await given('strKey'), await form('strKey'), await problem('strKey')], [KEY, 'base64', '']);
        assert.equal(await field(page, 'strKey').locator('.size').textContent(), '16 bytes');
        assert.equal(await field(page, 'strKey').locator('.offer').textContent(), '');
        assert.equal(await field(page, 'strKey').locator('textarea').evaluate((area) => area === document.activeElement), true);
    }));

    test('What stands for no bytes keeps its characters in another form', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        await fill(page, 'strKey', { hex: KEY });
        assert.match(await problem('strKey'), /not a hex digit/);
        await choose('strKey', 'Base64');
        assert.deepEqual([await given('strKey'), await problem('strKey')], [KEY, '']);
        // Bytes that are no text come back, too.
        await fill(page, 'strKey', { hex: 'ff00' });
        await choose('strKey', 'Text');
        assert.equal(await given('strKey'), '');
        await choose('strKey', 'Hex');
        assert.equal(await given('strKey'), 'ff00');
    }));

    test('Base64 that was pasted as text is not encoded once more', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        assert.equal(await form('strdata'), 'text');
        await paste('strdata', KEY);
        assert.equal(await field(page, 'strdata').locator('.offer span').textContent(), 'This looks like Base64.');
        await choose('strdata', 'Base64');
        assert.equal(await given('strdata'), KEY);
        // What was typed as text stays text.
        await fill(page, 'strdata', 'typed by hand, 16');
        await choose('strdata', 'Base64');
        assert.equal(await given('strdata'), Buffer.from('typed by hand, 16').toString('base64'));
    }));

    test('What other calls made starts as Base64', onPage(async () => {
        const made = [['crypto_decrypt', ['strdata', 'strtag']], ['crypto_private_decrypt', ['strdata']],
            ['crypto_envelope_decrypt', ['strEncdata']], ['wbsm4_decrypt', ['strdata']], ['ke_decrypt', ['strcipher']],
            ['ke_client_key_exchange', ['strSrvr_rand', 'strSrvr_sig_cert', 'strSrvr_enc_cert', 'strSrvr_sign']]];
        for (const [name, parameters] of made) {
            await openRequest(page, `QZaven_${name}`);
            for (const parameter of parameters) assert.equal(await form(parameter), 'base64', `${name} ${parameter}`);
        }
        await openRequest(page, 'QZaven_crypto_decrypt');
        assert.equal(await form('straad'), 'text');
        await openRequest(page, 'QZaven_crypto_encrypt');
        assert.deepEqual([await form('strdata'), await form('strKey')], ['text', 'hex']);
    }));

    test('A tag that is too long is seen before it is sent', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_decrypt');
        await fillAll(page, { strCipherAlg: '2', strMode: '6', strtag: { hex: '00'.repeat(24) } });
        assert.equal(await problem('strtag'), '4 to 16 bytes needed, usually 16, 24 given.');
        await fill(page, 'strtag', { hex: '00'.repeat(16) });
        assert.equal(await problem('strtag'), '');
    }));

    test('A padding has no use with modes that take any length', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const unused = () => field(page, 'strCipherPadding').locator('.unused').textContent();
        assert.equal(await unused(), '');
        await fillAll(page, { strCipherAlg: '2', strMode: '2', strCipherPadding: '1' });
        assert.equal(await unused(), '');
        assert.match(await page.locator('#host-line').textContent(), /strCipherPadding=1/);
        for (const [mode, text] of [['3', 'CFB'], ['4', 'OFB'], ['5', 'CTR'], ['6', 'GCM']]) {
            await fill(page, 'strMode', mode);
            assert.equal(await unused(), `Not used with ${text}.`);
            assert.equal(await field(page, 'strCipherPadding').locator('select').isVisible(), false);
        }
        assert.doesNotMatch(await page.locator('#host-line').textContent(), /strCipherPadding/);
        // The choice waits for a mode that heeds it.
        await fill(page, 'strMode', '1');
        assert.equal(await field(page, 'strCipherPadding').locator('select').inputValue(), '1');
    }));
});
