// What is on its way to the host in a browser: sending, waiting, giving up, and how it may fail.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { errorKind } from '../../devkit/console/outcomes.js';
import { accessibilityFaults, field, fill, fillAll, openRequest, send } from './browser.mjs';
import { getJson } from './host.mjs';
import { GCM, KEY, host, kind, onPage, page, picture, submit, useHost, withPage } from './suite.mjs';

const SIZES = { desktop: { width: 1440, height: 900 }, laptop: { width: 1024, height: 768 },
    tablet: { width: 768, height: 1024 }, phone: { width: 390, height: 844 } };

describe('Waiting', () => {
    // The CMAC ends its worker, white-box SM4 hangs.
    useHost(['--request-seconds', '3'], 'aven_crypto_cmac:*=crash;aven_wbsm4_encrypt:*=hang');

    for (const [name, viewport] of Object.entries(SIZES))
        test(`Send stays in reach and covers no field: ${name}`, withPage({ viewport }, async () => {
            await openRequest(page, 'QZaven_crypto_encrypt');
            await fillAll(page, { ...GCM, straad: 'header', strdata: 'first line\n'.repeat(12) });
            const key = await field(page, 'strKey').locator('textarea').evaluate((area) =>
                [area.scrollHeight - area.clientHeight, area.scrollWidth - area.clientWidth]);
            assert.deepEqual(key.map((pixels) => pixels <= 0), [true, true], 'a key of 32 bytes is seen whole');
            for (const part of [0, 0.3, 0.6, 1]) {
                await page.evaluate((to) => window.scrollTo(0, to * document.body.scrollHeight), part);
                // On wide screens the form may have been scrolled away; on others it never leaves.
                const seen = await page.locator('.form-actions button[type="submit"]').evaluate((button) => {
                    const box = button.getBoundingClientRect();
                    const on = document.elementFromPoint(box.x + box.width / 2, box.y + box.height / 2);
                    return box.top >= 0 && box.bottom <= window.innerHeight && button.contains(on);
                });
                assert.ok(seen, `${name} ${part}`);
            }
            await page.evaluate(() => window.scrollTo(0, 0));
            await field(page, 'strCipherAlg').locator('select').focus();
            for (let i = 0; i < 45; ++i) {
                const covered = await page.evaluate(() => {
                    const at = document.activeElement;
                    const bar = document.querySelector('.form-actions');
                    if (!at.closest('.fields') || at.classList.contains('visually-hidden')) return '';
                    const box = at.getBoundingClientRect();
                    const { top } = bar.getBoundingClientRect();
                    return box.bottom > top + 1 ? `${at.id} ${box.bottom} ${top}` : '';
                });
                assert.equal(covered, '');
                await page.keyboard.press('Tab');
            }
            await send(page);
            await picture(`send-${name}`);
        }));

    test('Waiting shows, with its time, and can be given up', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await fill(page, 'strIn', 'one');
        await send(page);
        let release = null;
        let held = new Promise((resolve) => { release = resolve; });
        await page.route('**/v1/requests/*', async (route) => {
            await held;
            await route.continue().catch(() => {});  // it may be given up
        });
        const cancel = page.getByRole('button', { name: 'Cancel' });
        assert.equal(await cancel.isVisible(), false);
        await submit();
        await page.waitForSelector('.waiting');
        // The answer that is due takes the place of the one before.
        assert.equal(await page.locator('.answer .outcome').count(), 0);
        assert.match(await page.locator('.waiting').textContent(), /Waiting for the answer: \d+ s.*gives a request up after 3 seconds/);
        await page.waitForFunction(() => document.querySelector('.waiting-time').textContent === '1 s');
        assert.equal(await page.locator('.form-actions .primary').textContent(), 'Waiting… 1 s');
        assert.deepEqual(await accessibilityFaults(page), []);
        await picture('waiting');
        // It is still so after a look elsewhere.
        await openRequest(page, 'QZaVen_GetVersion');
        assert.equal(await page.locator('.waiting').count(), 0);
        assert.equal(await cancel.isVisible(), false);
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await page.waitForSelector('.waiting');
        await cancel.focus();
        await page.keyboard.press('Enter');
        await page.waitForSelector('.answer .error-card');
        assert.equal(await kind(), 'cancelled');
        const card = await page.locator('.answer .error-card').textContent();
        assert.match(card, /may have carried the request out all the same/);
        assert.match(card, /If it is sent again.*it may be sent again, to any worker or host/);
        assert.equal(await cancel.isVisible(), false);
        assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Send');
        await picture('cancelled');
        release();

        // The next call is one like any other, and what comes for it finds the view that is open.
        held = new Promise((resolve) => { release = resolve; });
        await submit();
        await page.waitForSelector('.waiting');
        await openRequest(page, 'QZaVen_GetVersion');
        await openRequest(page, 'QZaven_crypto_base64_encode');
        release();
        await page.waitForSelector('.answer [data-result="Data"]');
        assert.equal(await page.locator('.answer .error-card').count(), 0);
        assert.equal(await page.locator('.form-actions .primary').textContent(), 'Send');
    }));

    for (const colorScheme of ['light', 'dark'])
        test(`Each kind of failure looks and reads differently, ${colorScheme}`, withPage({ colorScheme }, async () => {
            const looks = [];
            const failure = async (due, name, values) => {
                await openRequest(page, name);
                await fillAll(page, values);
                await submit();
                if (await page.locator('.attention button').isVisible()) await page.locator('.attention button').click();
                await page.waitForSelector('.answer .error-card');
                await page.waitForFunction(() => !document.querySelector('[aria-busy]'));
                const card = page.locator('.answer .error-card');
                assert.equal(await kind(), due);
                assert.ok((await card.locator('dt').allTextContents()).includes('What to do'), due);
                assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), [], due);
                await picture(`${colorScheme}-failure-${due}`);
                looks.push(await card.evaluate((element) => {
                    const heading = element.querySelector('h3');
                    return {
                        text: heading.textContent,
                        badge: document.querySelector('.outcome-head .badge').textContent,
                        icon: heading.querySelector('path').getAttribute('d'),
                        colour: getComputedStyle(heading).color + getComputedStyle(element).borderLeftStyle,
                    };
                }));
                return card.textContent();
            };
            const key = { strKey: { hex: KEY }, strdata: 'x' };
            assert.match(await failure('crashed', 'QZaven_crypto_cmac', { strCipherAlg: '2', ...key }),
                /worker_failed.*If it is sent again/);
            assert.match(await failure('slow', 'QZaven_wbsm4_encrypt', { ...key, strIV: { hex: KEY } }),
                /worker_timeout.*--request-seconds.*If it is sent again/);
            const refused = await failure('refused', 'QZaven_crypto_hmac', key);
            assert.match(refused, /The plug-in refused it/);
            assert.doesNotMatch(refused, /If it is sent again/);
            assert.match(await failure('rejected', 'QZaven_ke_free', { strKe: 'ke_of_another_day' }), /session_gone/);
            await page.route('**/v1/requests/*', (route) => route.fulfill({ status: 503, json: { results: {}, warnings: [], error: {
                code: 'busy', source: 'host', text: 'the host is full', cause: 'too much at once', remedy: 'wait' } } }));
            assert.doesNotMatch(await failure('busy', 'QZaVen_GetVersion', {}), /If it is sent again/);
            await page.unroute('**/v1/requests/*');
            await page.route('**/v1/requests/*', (route) => route.abort());
            assert.match(await failure('silent', 'QZaven_crypto_base64_encode', { strIn: 'x' }), /unreachable.*If it is sent again/);
            for (const what of ['text', 'badge', 'icon', 'colour'])
                assert.equal(new Set(looks.map((look) => look[what])).size, looks.length, `${what}: ${looks.map((look) => look[what])}`);
        }, [502, 504, 410, 503, 0]));

    test('Each code of the host is of the kind that its status means', async () => {
        const { hostCodes } = await getJson(host, '/v1/catalogue');
        const byStatus = { 429: 'busy', 502: 'crashed', 503: 'busy', 504: 'slow' };
        for (const { code: name, status } of hostCodes)
            assert.equal(errorKind({ source: 'host', code: name }), byStatus[status] ?? 'rejected', name);
    });
});
