// The console for everybody: by the keyboard alone, in both colour schemes, on narrow screens, in
// Chinese.

import assert from 'node:assert/strict';
import crypto from 'node:crypto';
import { describe, test } from 'node:test';

import { accessibilityFaults, fill, fillAll, openRequest, openView, runFlow, send } from './browser.mjs';
import { getJson } from './host.mjs';
import { KEY, freshPage, heading, host, onPage, page, picture, submit, useHost, withPage } from './suite.mjs';

const FLOWS = ['gcm', 'public-key', 'envelope', 'key-exchange'];

// The texts on the page that hold an English word; names of parameters, names in code, what people
// typed, and proper names apart.
function englishTexts(names) {
    return page.evaluate((known) => {
        const own = 'code, pre, .mono, .brand, #language, [lang="en"], .line-head h3, .code, .code + span, .file-name, blockquote';
        const texts = [];
        const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
        while (walker.nextNode()) {
            const parent = walker.currentNode.parentElement;
            if (!parent.closest(own) && !parent.closest('noscript, .use select')) texts.push(walker.currentNode.textContent);
        }
        for (const element of document.querySelectorAll('[aria-label], [placeholder], [title], optgroup'))
            for (const name of ['aria-label', 'placeholder', 'title'])
                if (element.hasAttribute(name) && !element.closest('#language, .line pre')) texts.push(element.getAttribute(name));
        const names = new RegExp(`QZa[vV]en_\\w+|\\b(root|exchange|hello|message|data)$|corvane-(host|doc)( \\w+)?|OpenAPI|${known.join('|')}|Ctrl\\+Enter|errorCode|gcmOutTag|session_gone|Camellia|Base64|Data|ke_\\w+|curl|\\bcall\\b|[A-Z]{3,}`, 'g');
        return [...new Set(texts)].filter((text) => /[A-Za-z]{4}/.test(text.replace(names, '')));
    }, names);
}

describe('For everybody', () => {
    useHost();

    test('The keyboard alone makes the first encryption', async () => {
        await freshPage();
        await page.goto(host.url);
        await page.waitForSelector('.pill[data-state="ok"]');
        const keys = async (...names) => { for (const name of names) await page.keyboard.press(name); };
        const focused = () => page.evaluate(() => document.activeElement.closest('[data-parameter]')?.dataset.parameter ?? document.activeElement.textContent);
        const until = async (wanted) => {
            for (let i = 0; i < 60; ++i) {
                if (await focused() === wanted && await page.evaluate(() => document.activeElement.matches('select, textarea, .chip, button[type=submit]'))) return;
                await keys('Tab');
            }
            assert.fail(`the Tab key does not lead to ${wanted}`);
        };
        await keys('/');
        await page.keyboard.type('crypto_encrypt');
        await keys('ArrowDown', 'Enter');
        await page.waitForFunction(() => document.activeElement.textContent === 'QZaven_crypto_encrypt');
        await until('strCipherAlg');
        await page.keyboard.type('AES-256');
        await until('strMode');
        await page.keyboard.type('CBC');
        await until('strCipherPadding');
        await page.keyboard.type('PKCS');
        await until('strKey');
        await page.keyboard.type('00'.repeat(32));
        await until('strIV');
        await page.keyboard.type('00'.repeat(16));
        await until('strdata');
        await page.keyboard.type('first');
        await until('Send');
        assert.notEqual(await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle), 'none');
        await keys('Enter');
        await page.waitForSelector('.outcome .badge.ok');
        await page.waitForFunction(() => /^Success/.test(document.getElementById('announcements').textContent));
        const cipher = crypto.createCipheriv('aes-256-cbc', Buffer.alloc(32), Buffer.alloc(16));
        assert.equal(await page.locator('[data-result="Data"] .value-text').textContent(),
            Buffer.concat([cipher.update('first'), cipher.final()]).toString('base64')
                .replace(/\+/g, '-').replace(/\//g, '_'));
        // The ways of a field are one stop, and the arrow keys change them.
        await page.locator('[data-result="Data"] .segments input:checked').focus();
        await keys('ArrowLeft');
        assert.match(await page.locator('[data-result="Data"] .value-text').textContent(), /^[0-9a-f]{32}$/);
        await page.finish();
    });

    test('The skip link leads past the list', onPage(async () => {
        await openView(page, '#/status');
        await page.evaluate(() => document.activeElement.blur());
        await page.locator('.skip').focus();
        await page.keyboard.press('Enter');
        assert.equal(await page.evaluate(() => document.activeElement.tagName), 'H1');
    }));

    for (const colorScheme of ['light', 'dark'])
        test(`Nobody is shut out, ${colorScheme}`, withPage({ colorScheme }, async () => {
            const check = async (what) => {
                assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), [], what);
                await picture(`${colorScheme}-${what}`);
            };
            await check('start');
            await openRequest(page, 'QZaven_crypto_encrypt');
            await fillAll(page, { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' },
                straad: 'header', strdata: 'Meet me at the bridge' });
            await send(page);
            await page.locator('.use summary').first().click();
            await check('answer');
            await openRequest(page, 'QZaven_crypto_kdf');
            await fill(page, 'OutLen', '70000');
            await send(page);
            await submit();
            await check('error');
            await openRequest(page, 'QZaven_ke_set_root_certificate');
            await check('upload');
            await openView(page, '#/flow/gcm');
            await runFlow(page);
            await page.locator('.step details summary').first().click();
            await check('flow');
            await openView(page, '#/history');
            await check('history');
            await openView(page, '#/status');
            await check('status');
            await page.getByRole('button', { name: 'Sign out' }).click();
            await check('sign-in');
        }));

    test('360 pixels are wide enough', withPage({ viewport: { width: 360, height: 740 } }, async () => {
        const fits = async (what) => {
            assert.ok(await page.evaluate(() => document.documentElement.scrollWidth) <= 360, what);
            await picture(`narrow-${what}`, true);
        };
        await fits('start');
        await page.locator('.menu-button').click();
        assert.equal(await page.locator('.menu-button').getAttribute('aria-expanded'), 'true');
        await picture('narrow-menu');
        await page.locator('#search').fill('kdf');
        await page.keyboard.press('Enter');
        await heading('QZaven_crypto_kdf');
        assert.ok(!await page.locator('nav').isVisible());
        await fill(page, 'OutLen', '70000');
        await send(page);
        await fits('error');
        const { requests } = await getJson(host, '/v1/catalogue');
        for (const { name } of requests) {
            await openRequest(page, name);
            assert.ok(await page.evaluate(() => document.documentElement.scrollWidth) <= 360, name);
        }
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' },
            straad: 'header', strdata: 'Meet me at the bridge' });
        await send(page);
        await page.locator('.use summary').first().click();
        await fits('answer');
        await openView(page, '#/flow/gcm');
        await runFlow(page);
        for (const summary of await page.locator('.step details summary').all()) await summary.click();
        await fits('flow');
        for (const view of ['history', 'status']) {
            await openView(page, `#/${view}`);
            await fits(view);
        }
    }));

    test('Chinese leaves no English behind', withPage({ locale: 'zh-CN' }, async () => {
        const { requests } = await getJson(host, '/v1/catalogue');
        const parameters = requests.flatMap((request) => request.parameters.map(({ name }) => name))
            .sort((a, b) => b.length - a.length);  // the longest first: strKeyPairType, strKey
        const english = () => englishTexts(parameters);
        assert.equal(await page.evaluate(() => document.documentElement.lang), 'zh-CN');
        const checks = async (what) => assert.deepEqual(await english(), [], what);
        await checks('start');
        await picture('chinese-start');
        for (const { name } of requests) {
            await openRequest(page, name);
            await checks(name);
        }
        await openRequest(page, 'QZaven_crypto_kdf');
        await fill(page, 'OutLen', '70000');
        await send(page);
        await checks('error');
        assert.match(await page.locator('.error-card').textContent(), /缺少必需的参数/);
        await openRequest(page, 'QZaven_ke_client_hello');
        await fill(page, 'strKe', 'ke_of_another_day');
        await send(page);
        assert.match(await page.locator('.error-card').textContent(), /没有这个会话：此处不知道它/);
        await checks('refusal');
        await openRequest(page, 'QZaven_crypto_kdf');
        await picture('chinese-error');
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '6', strKey: { hex: KEY + KEY }, strIV: { hex: '000102030405060708090a0b' },
            straad: 'header', strdata: 'Meet me at the bridge' });
        await send(page);
        await page.locator('.use summary').first().click();
        await checks('answer');
        await picture('chinese-answer');
        for (const flow of FLOWS) {
            await openView(page, `#/flow/${flow}`);
            await runFlow(page);
            await checks(flow);
        }
        await picture('chinese-flow');
        await openView(page, '#/history');
        await checks('history');
        // Back to English, remembered over a new visit.
        await page.locator('#language').click();
        assert.equal(await page.locator('h1').textContent(), 'History');
        assert.equal(await page.evaluate(() => document.activeElement.id), 'language');
        await page.reload();
        await page.waitForFunction(() => document.querySelector('h1')?.textContent === 'History');
    }, [410]));

    test('Colours can be chosen, and are remembered', onPage(async () => {
        const ground = () => page.evaluate(() => getComputedStyle(document.body).backgroundColor);
        const light = await ground();
        const button = page.locator('.icon-button:not(.menu-button)');
        await button.click();
        assert.equal(await ground(), light);
        await button.click();
        assert.notEqual(await ground(), light);
        assert.equal(await button.getAttribute('aria-label'), 'Colours: dark');
        await page.reload();
        await page.waitForSelector('h1');
        assert.notEqual(await ground(), light);
    }));
});
