// The page without a sign-in: its language, and tokens that no host could take.

import assert from 'node:assert/strict';
import { after, before, describe, test } from 'node:test';

import { closeBrowser, newPage, openBrowser } from './browser.mjs';
import { startHost } from './host.mjs';

const READY = '.pill[data-state="ok"]';

describe('Before the sign-in', () => {
    let host = null;
    let page = null;

    before(async () => {
        host = await startHost();
        await openBrowser();
    });
    after(async () => {
        await closeBrowser();
        await host.stop();
    });

    const withPage = (work, expectedStatus) => async () => {
        page = await newPage(host, {}, expectedStatus);
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
});
