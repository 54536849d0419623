// Where things stand on screens of other sizes: what must not be cut, covered or out of line.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { fillAll, openRequest, openView, send } from './browser.mjs';
import { page, useHost, withPage } from './suite.mjs';

const NARROW = { tablet: { width: 820, height: 1180 }, landscape: { width: 844, height: 390 }, phone: { width: 390, height: 844 } };

describe('Layout', () => {
    useHost();

    const box = (selector) => page.locator(selector).first().boundingBox();

    for (const [name, viewport] of Object.entries(NARROW)) {
        test(`The history is not cut: ${name}`, withPage({ viewport }, async () => {
            await openRequest(page, 'QZaven_crypto_envelope_encrypt');
            await send(page);
            await openView(page, '#/history');
            const hidden = await page.locator('.table-card').evaluate((card) => card.scrollWidth - card.clientWidth);
            assert.equal(hidden, 0);
            const [code, card] = [await box('.history-view .badge'), await box('.table-card')];
            assert.ok(code.x + code.width <= card.x + card.width);
        }));

        test(`The bar with Send is as wide as the form, and nothing shows through: ${name}`, withPage({ viewport }, async () => {
            await openRequest(page, 'QZaven_crypto_encrypt');
            const [bar, form] = [await box('.form-actions'), await box('.request-view form')];
            assert.ok(bar.x <= form.x, `${bar.x} ${form.x}`);
            assert.ok(bar.x + bar.width >= form.x + form.width);
            assert.equal(Math.round(bar.y + bar.height), viewport.height);
            const colour = await page.locator('.form-actions').evaluate((element) => getComputedStyle(element).backgroundColor);
            assert.match(colour, /^rgb\(/);
        }));
    }

    test('Long lines are cut between two lines, if at all', withPage({}, async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { strCipherAlg: '4', strMode: '6', strKey: { hex: '00'.repeat(32) }, strIV: { hex: '00'.repeat(12) },
            straad: 'a', strdata: 'x' });
        const curl = page.locator('#curl-line');
        assert.equal(await curl.evaluate((element) => element.scrollHeight - element.clientHeight), 0);
        // The rest of the last line that is seen, in pixels.
        await openRequest(page, 'QZaven_crypto_base64_encode');
        await fillAll(page, { strIn: 'x\n'.repeat(100) });
        await send(page);
        for (const selector of ['#host-line', '.value-text']) {
            const rest = await page.locator(selector).evaluate((element) => {
                const style = getComputedStyle(element);
                const height = element.getBoundingClientRect().height - parseFloat(style.paddingTop);
                return element.scrollHeight > element.clientHeight ? height % parseFloat(style.lineHeight) : 0;
            });
            assert.ok(rest < 0.5, `${selector} ${rest}`);
        }
    }));

    test('For fingers the text of a button stands level with its icon', withPage({ viewport: NARROW.phone, hasTouch: true, isMobile: true }, async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const off = await page.locator('.button:has(.icon), .segments label').evaluateAll((buttons) => buttons
            .filter((button) => button.checkVisibility() && button.textContent !== '')
            .map((button) => {
                const text = document.createRange();
                text.selectNodeContents(button.lastChild);
                const middle = ({ top, bottom }) => (top + bottom) / 2;
                const mark = button.querySelector('.icon') ?? button;
                return [button.textContent, middle(text.getBoundingClientRect()) - middle(mark.getBoundingClientRect())];
            }));
        assert.ok(off.length > 4);
        assert.deepEqual(off.filter(([, pixels]) => Math.abs(pixels) > 0.5), []);
    }));
});
