// The guided flows in a browser: to their ends, to failures, with other names, while people type.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { openView, runFlow } from './browser.mjs';
import { changeAnswers, code, freshPage, host, onPage, page, picture, useHost } from './suite.mjs';

const FLOWS = ['gcm', 'public-key', 'envelope', 'key-exchange'];
const WELL = 'All steps went well. The text came back.';

describe('Guided flows', () => {
    useHost();

    for (const flow of FLOWS)
        test(`The guided flow goes to its end, and the text comes back: ${flow}`, onPage(async () => {
            await openView(page, `#/flow/${flow}`);
            const choices = page.locator('main select');
            const options = await choices.count() > 0 ? await choices.locator('option').allTextContents() : [null];
            for (const option of options) {
                if (option !== null) await choices.selectOption(option);
                assert.equal(await runFlow(page), WELL, option);
                assert.equal(await page.locator('.step:last-child blockquote').textContent(),
                    await page.locator('main textarea').first().inputValue());
                assert.equal(await page.locator('.step:not([data-state="done"])').count(), 0);
                // What was decrypted on the way can be read, too.
                const opened = await page.locator('.flow-values blockquote').allTextContents();
                assert.deepEqual(opened, Array(flow === 'key-exchange' ? 2 : 1).fill(await page.locator('main textarea').first().inputValue()));
            }
            await picture(`flow-${flow}`, true);
        }));

    test('Without the peer its flow says so, and is not offered', async () => {
        await freshPage();
        await changeAnswers('/v1/status', (json) => { json.peer = false; });
        await page.goto(host.url);
        await page.waitForSelector('.pill[data-state="ok"]');
        assert.equal(await page.locator('.tile').count(), 3);
        await openView(page, '#/flow/key-exchange');
        assert.match(await page.locator('main').textContent(), /without the bundled peer/);
        await page.finish();
    });

    test('A step that fails ends its flow with the error', onPage(async () => {
        await openView(page, '#/flow/public-key');
        await page.locator('main textarea').fill('x'.repeat(191));
        assert.equal(await runFlow(page), 'Stopped at a step that failed.');
        assert.equal(await code(), '-30004');
        assert.equal(await page.locator('.step[data-state="failed"]').count(), 1);
        assert.equal(await page.locator('.step[data-state="done"]').count(), 1);
    }));
});
