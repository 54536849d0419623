// The form of a request and its answer in a browser: lengths, names, former answers, JSON, shell
// lines, Chinese.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { describe, test } from 'node:test';

import { accessibilityFaults, field, fill, fillAll, openRequest, result, send } from './browser.mjs';
import { getJson, runLine } from './host.mjs';
import { GCM, KEY, changeAnswers, clipboard, code, freshPage, host, newFile, onPage, page, picture, submit, useHost,
    withPage } from './suite.mjs';

describe('Request', () => {
    useHost();

    // --- Lengths and names.

    test('The right length is said and offered, and follows cipher and mode', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const size = (parameter) => field(page, parameter).locator('.size').textContent();
        const problem = (parameter) => field(page, parameter).locator('.problem').textContent();
        const chips = (parameter) => field(page, parameter).locator('.chip').allTextContents();
        // Nothing is known yet.
        assert.deepEqual(await chips('strKey'), ['12', '16', '24', '32']);
        await fill(page, 'strCipherAlg', '4');
        assert.deepEqual([await size('strKey'), await chips('strKey')], ['32 bytes needed', ['Random: 32 bytes']]);
        await fill(page, 'strKey', { hex: KEY });
        assert.deepEqual([await size('strKey'), await problem('strKey')], ['16 bytes', '32 bytes needed, 16 given.']);
        await field(page, 'strKey').locator('.chip').click();
        assert.match(await field(page, 'strKey').locator('textarea').inputValue(), /^[0-9a-f]{64}$/);
        assert.equal(await problem('strKey'), '');
        assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Random: 32 bytes');

        await fill(page, 'strMode', '2');
        assert.deepEqual([await size('strIV'), await chips('strIV')], ['16 bytes needed', ['Random: 16 bytes']]);
        await fill(page, 'strMode', '6');
        assert.deepEqual([await size('strIV'), await chips('strIV')],
            ['1 to 128 bytes needed, usually 12', ['Random: 12 bytes']]);
        const { requests } = await getJson(host, '/v1/catalogue');
        const triple = requests.find(({ name }) => name === 'QZaven_crypto_encrypt').parameters[0].choices
            .find(({ text }) => text === '3DES').value;
        await fillAll(page, { strCipherAlg: triple, strMode: '2' });
        assert.equal(await problem('strKey'), '24 bytes needed, 32 given.');
        assert.deepEqual(await chips('strIV'), ['Random: 8 bytes']);
        await picture('lengths');
        // The host is asked all the same, if the person wants to.
        await fillAll(page, { strIV: { hex: '00' }, strdata: 'x' });
        await send(page);
        assert.equal(await code(), '-30040');
    }));

    test('Choices are read by their names', onPage(async () => {
        await openRequest(page, 'QZaven_crypto_encrypt');
        const options = (parameter) => field(page, parameter).locator('option').allTextContents();
        assert.ok((await options('strCipherAlg')).includes('AES-256 (4)'));
        assert.ok((await options('strMode')).includes('GCM (6)'));
        assert.equal((await options('strCipherPadding'))[0], 'Not given: none (0)');
        await fill(page, 'strMode', '1');
        assert.equal(await field(page, 'strIV').locator('.unused').textContent(), 'Not used with ECB.');
        assert.equal(await field(page, 'straad').locator('.unused').textContent(), 'Used with GCM only.');
    }));

    test('Without names of the catalogue the form works by numbers', async () => {
        await freshPage();
        await changeAnswers('/v1/catalogue', ({ requests }) => {
            for (const parameter of requests.flatMap(({ parameters }) => parameters)) {
                delete parameter.choices;
                delete parameter.length;
            }
        });
        await page.goto(host.url);
        await page.waitForSelector('.pill[data-state="ok"]');
        await openRequest(page, 'QZaven_crypto_encrypt');
        assert.deepEqual(await field(page, 'strKey').locator('.chip').allTextContents(), ['12', '16', '24', '32']);
        await fillAll(page, { ...GCM, straad: 'x', strdata: 'a text' });
        await send(page);
        assert.equal(await page.locator('.outcome .badge').textContent(), 'Success');
        await page.finish();
    });

    // --- Answers.

    for (const colorScheme of ['light', 'dark'])
        test(`An answer to former values is grey and can be read, ${colorScheme}`, withPage({ colorScheme }, async () => {
            await openRequest(page, 'QZaven_crypto_gen_symmkey');
            await fill(page, 'strCipherAlg', '4');
            await send(page);
            const look = () => page.locator('.value-text').evaluate((element) =>
                [getComputedStyle(element).color, getComputedStyle(element.closest('.answer')).backgroundColor]);
            const fresh = await look();
            await fill(page, 'strCipherAlg', '2');
            const former = await look();
            assert.ok(former.every((colour, i) => colour !== fresh[i]));
            assert.match(await page.locator('.answer').textContent(), /^The form has changed since/);
            assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), []);
            await picture(`${colorScheme}-former`);
            await send(page);
            assert.deepEqual(await look(), fresh);
            assert.equal(await page.locator('.answer .outcome').count(), 1);
            // A failure too.
            await page.route('**/v1/requests/*', (route) => route.abort());
            await submit();
            await page.waitForSelector('.answer .error-card');
            assert.equal(await page.locator('.answer [data-result]').count(), 0);
            await fill(page, 'strCipherAlg', '4');
            assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), []);
        }, [0]));

    test('The whole answer is there as JSON', onPage(async () => {
        const shown = async () => {
            await page.locator('.outcome-head').getByText('JSON').click();
            return page.locator('.json-text').textContent();
        };
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: KEY }, strdata: 'x' });
        const answered = page.waitForResponse('**/v1/requests/*');
        await send(page);
        const text = await shown();
        assert.deepEqual(JSON.parse(text), await (await answered).json());
        await picture('json');
        assert.deepEqual(await accessibilityFaults(page), []);
        await page.getByRole('button', { name: 'Copy the JSON' }).click();
        assert.equal(await clipboard(), text);
        const download = page.waitForEvent('download');
        await page.getByRole('button', { name: 'Download JSON' }).click();
        assert.deepEqual(JSON.parse(readFileSync(await (await download).path())), JSON.parse(text));
        await page.locator('.outcome-head').getByText('Values').click();
        assert.equal(await page.locator('[data-result="Data"]').count(), 1);
        // A refusal has one too.
        await fill(page, 'strHashAlg', '');
        await send(page);
        assert.equal(JSON.parse(await shown()).error.code, '-20001');
    }));

    test('A command that is selected by the mouse is the one that runs', withPage({ viewport: { width: 390, height: 844 } }, async () => {
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { hex: KEY }, strdata: `long ${'word '.repeat(900)}` });
        await send(page);
        const due = await result(page, 'Data', 'base64');
        for (const id of ['#curl-line', '#host-line']) {
            const selected = await page.locator(id).evaluate((element) => {
                getSelection().selectAllChildren(element);
                return getSelection().toString();
            });
            const style = await page.locator(id).evaluate((element) => getComputedStyle(element).whiteSpace);
            assert.equal(style, 'pre', 'lines do not break on the page where the shell has no break');
            const answer = JSON.parse(await runLine(selected, host));
            assert.equal((answer.results ?? answer).Data, due);
        }
        // Beside them stands what they need.
        assert.equal(await page.locator('#token-line').textContent(), 'export TOKEN=$(cat ~/.local/state/corvane-host/token)');
        assert.match(await page.locator('#curl-line').textContent(), /\$TOKEN/);
        // What no shell takes is no line.
        await fill(page, 'strdata', 'x'.repeat(130000));
        assert.deepEqual(await page.locator('.lines pre').evaluateAll((lines) => lines.map(({ id }) => id)), ['token-line']);
        assert.match(await page.locator('.lines').textContent(), /longer than a shell takes/);
    }));

    test('Chinese leaves no English behind', withPage({ locale: 'zh-CN' }, async () => {
        const english = async (what) => {
            const texts = await page.evaluate(() => {
                const own = 'code, pre, .mono, .code, .code + span, .file-name, noscript, nav, .top, .use';
                const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
                const found = [];
                while (walker.nextNode())
                    if (!walker.currentNode.parentElement.closest(own)) found.push(walker.currentNode.textContent);
                return found;
            });
            assert.deepEqual(texts.filter((text) => /[A-Za-z]{4}/.test(
                text.replace(/corvane-host( \w+)?|--[a-z-]+|Base64|Ctrl\+Enter|JSON|\.json|TOKEN|Camellia|ARIA|H?MAC|PKCS|cancelled|QZ\w+|[a-z]+_[a-z]+|curl|call|script/g, ''))), [], what);
        };
        await openRequest(page, 'QZaven_crypto_hmac');
        await fillAll(page, { strHashAlg: '4', strKey: { base64: 'A%' }, strdata: { file: newFile('13.bin', Buffer.alloc(13 << 20)) } });
        await submit();
        await page.locator('.attention button').click();
        await english('too large');
        await fill(page, 'strdata', 'x');
        await send(page);
        await page.locator('.outcome-head').getByText('JSON').click();
        await english('JSON');
        await picture('chinese-json');
        await openRequest(page, 'QZaven_crypto_encrypt');
        await fillAll(page, { ...GCM, strKey: { hex: KEY }, strIV: { hex: '00'.repeat(129) } });
        await english('lengths');
        await picture('chinese-lengths');
        let release = null;
        const held = new Promise((resolve) => { release = resolve; });
        await page.route('**/v1/requests/*', async (route) => {
            await held;
            await route.abort().catch(() => {});
        });
        await openRequest(page, 'QZaVen_GetVersion');
        await submit();
        await page.waitForSelector('.waiting');
        await english('waiting');
        await page.getByRole('button', { name: '取消' }).click();
        await page.waitForSelector('.answer .error-card');
        await english('cancelled');
        await picture('chinese-cancelled');
        release();
    }));
});
