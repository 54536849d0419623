// The page without a sign-in: its language, and tokens that no host could take.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { field, fillAll, openRequest, signedIn } from './browser.mjs';
import { freshPage, host, page, useHost, usePage } from './suite.mjs';

const READY = '.pill[data-state="ok"]';

describe('Before the sign-in', () => {
    useHost();

    const withPage = (work, expectedStatus) => async () => {
        await freshPage({}, expectedStatus);
        await work();
        await page.finish();
    };
    const heading = () => page.locator('h1').textContent();

    test('The language changes the form, and what was typed stays', withPage(async () => {
        await page.goto(host.origin);
        await page.locator('#token').fill('typed so far');
        await page.locator('#language').click();
        assert.equal(await heading(), '登录');
        assert.equal(await page.locator('#token').inputValue(), 'typed so far');
        assert.equal(await page.evaluate(() => document.activeElement.id), 'language');
        await page.locator('#language').click();
        assert.equal(await heading(), 'Sign in');
        await page.locator('#token').fill(host.token);
        await page.keyboard.press('Enter');
        await page.waitForSelector(READY);
    }, [401]));

    test('The language changes what is said of a host that does not answer', withPage(async () => {
        await page.route('**/v1/catalogue', (route) => route.abort());
        await page.goto(host.url);
        await page.waitForSelector('.error-card');
        await page.locator('#language').click();
        assert.equal(await heading(), '尚无应答');
        assert.match(await page.locator('.error-card').textContent(), /没有主机应答/);
        await page.unroute('**/v1/catalogue');
        await page.getByRole('button', { name: '重试' }).click();
        await page.waitForSelector(READY);
    }, [0]));

    const REFUSED = /^The host does not take this token\..*Copy the whole line of the file/;
    const noTokens = [['a foreign character', 'tökén'], ['a quotation mark', '“0123456789abcdef0123456789abcdef”'],
        ['a word too many', 'cat 0123456789abcdef'], ['20,000 characters', 'a'.repeat(20000)]];

    for (const [what, text] of noTokens)
        test(`What has ${what} is no token, is not kept, and can be put right`, withPage(async () => {
            await page.goto(host.origin);
            await page.locator('#token').fill(text);
            await page.keyboard.press('Enter');
            await page.waitForSelector('.error-card');
            assert.match(await page.locator('.error-card').textContent(), REFUSED);
            assert.deepEqual(await page.evaluate(() => ({ ...sessionStorage })), {});
            await page.locator('#token').fill(host.token);
            await page.keyboard.press('Enter');
            await page.waitForSelector(READY);
        }, [401]));

    test('A link with what is no token does not lock the tab', withPage(async () => {
        await page.goto(`${host.origin}/#token=%E4%B8%AD`);
        await page.waitForSelector('.error-card');
        assert.match(await page.locator('.error-card').textContent(), REFUSED);
        await page.reload();
        await page.waitForSelector('#token');
    }, [401]));

    test('What lies in the storage and is no token goes', withPage(async () => {
        await page.goto(host.origin);
        await page.waitForSelector('#token');
        await page.evaluate(() => sessionStorage.setItem('corvane.token', 'tökén'));
        await page.reload();
        await page.waitForSelector('#token');
        assert.deepEqual(await page.evaluate(() => ({ ...sessionStorage })), {});
    }, [401]));

    test('Headers that are too large for the host are its word on the token', withPage(async () => {
        await page.route('**/v1/catalogue', (route) => route.fulfill({ status: 431,
            json: { error: { code: 'headers_too_large', source: 'host', text: 'the headers are larger', cause: '', remedy: '' } } }));
        await page.goto(host.url);
        await page.waitForSelector('.error-card');
        assert.match(await page.locator('.error-card').textContent(), REFUSED);
        assert.equal(await page.locator('#token').count(), 1);
        assert.deepEqual(await page.evaluate(() => ({ ...sessionStorage })), {});
    }, [431]));

    test('Where no host answers, another token can be given', withPage(async () => {
        await page.route('**/v1/catalogue', (route) => route.abort());
        await page.goto(host.url);
        await page.getByRole('button', { name: 'Use another token' }).click();
        await page.unroute('**/v1/catalogue');
        await page.locator('#token').fill(host.token);
        await page.keyboard.press('Enter');
        await page.waitForSelector(READY);
    }, [0]));

    test('A tab that another one signed out says so, and keeps choices but no secrets', async () => {
        await usePage(signedIn(host, {}, [401]));
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '6', strKey: { hex: '00'.repeat(32) }, strdata: 'a secret text' });
        const other = await page.context().newPage();
        await other.goto(host.origin);
        await other.waitForSelector(READY);
        await other.getByRole('button', { name: 'Sign out' }).click();
        await page.waitForSelector('#token');
        assert.match(await page.locator('[role="status"].card').textContent(), /^You signed out in another tab\./);
        assert.equal(await other.locator('[role="status"].card').count(), 0);
        assert.deepEqual(await page.evaluate(() => ({ ...sessionStorage })), {});
        // After the next sign-in.
        await page.locator('#token').fill(host.token);
        await page.keyboard.press('Enter');
        await page.waitForSelector(READY);
        assert.equal(await heading(), 'QZaven_crypto_encrypt');
        const given = await Promise.all(['strCipherAlg', 'strMode', 'strKey', 'strdata'].map((parameter) =>
            field(page, parameter).locator('.control > select, .control > textarea').inputValue()));
        assert.deepEqual(given, ['4', '6', '', '']);
        await page.finish();
    });
});
