// What the search takes for what: words as people say them, parameters, codes.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { accessibilityFaults, field, openRequest } from './browser.mjs';
import { getJson } from './host.mjs';
import { host, onPage, page, useHost, withPage } from './suite.mjs';

describe('Search', () => {
    useHost();

    const search = (words) => page.locator('#search').fill(words);
    const seen = () => page.locator('nav li a').evaluateAll((links) =>
        links.filter((link) => link.checkVisibility()).map((link) => link.getAttribute('href').replace(/#\/(request\/QZa[vV]en_)?/, '')));

    test('finds what words of every day say', onPage(async () => {
        const cases = [
            ['RSA decryption with OAEP', ['crypto_private_decrypt'], ['crypto_public_encrypt', 'crypto_hmac']],
            ['rsa decryption', ['crypto_private_decrypt'], ['crypto_hmac']],
            ['how to encrypt a file', ['crypto_encrypt'], ['crypto_hmac']],
            ['aad', ['crypto_encrypt', 'crypto_decrypt'], ['crypto_hmac']],
            ['iv', ['crypto_encrypt', 'wbsm4_decrypt'], ['crypto_hmac']],
            ['padding', ['crypto_encrypt', 'crypto_public_encrypt'], ['crypto_hmac', 'crypto_cmac']],
            ['hmacsha256', ['crypto_hmac'], ['crypto_cmac', 'crypto_kdf']],
            ['strdata', ['crypto_encrypt', 'crypto_hmac'], ['ke_new', 'crypto_kdf']],
            ['加密', ['crypto_encrypt', 'crypto_public_encrypt'], ['crypto_hmac']],
            ['the', [], ['crypto_hmac']],
        ];
        for (const [words, there, elsewhere] of cases) {
            await search(words);
            const found = await seen();
            assert.deepEqual(there.filter((name) => !found.includes(name)), [], `${words} finds ${found}`);
            assert.deepEqual(elsewhere.filter((name) => found.includes(name)), [], `${words} finds ${found}`);
        }
    }));

    test('takes a code to its meaning and to the request that explains it', onPage(async () => {
        const { codes } = await getJson(host, '/v1/catalogue');
        const { text } = codes.find(({ code }) => code === -30040);
        for (const written of ['-30040', '30040', ' −30040 ']) {
            await search(written);
            assert.deepEqual(await seen(), ['strerror'], written);
            assert.equal((await page.locator('.nav-list .nav-name').first().textContent()).toLowerCase(), text.toLowerCase());
        }
        assert.equal(await page.locator('.nav-empty').textContent(), '');
        assert.deepEqual(await accessibilityFaults(page), []);
        await page.locator('#search').press('Enter');
        await page.waitForFunction(() => document.querySelector('h1').textContent === 'QZaVen_strerror');
        const given = () => field(page, 'strErr').locator('textarea').inputValue();
        assert.equal(await given(), '-30040');
        // Also while it is open.
        await search('-20084');
        await page.locator('#search').press('Enter');
        await page.waitForFunction(() => document.querySelector('[data-parameter="strErr"] textarea').value === '-20084');
        await search('-99999');
        assert.match(await page.locator('.nav-empty').textContent(), /Nothing found/);
    }));

    test('says a code in Chinese', withPage({ locale: 'zh-CN' }, async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        await search('-30040');
        assert.match(await page.locator('.nav-list .nav-name').first().textContent(), /[一-鿿]/);
    }));
});
