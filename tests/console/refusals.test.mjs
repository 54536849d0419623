// What a refusal says beside the form: commands to run, the field that is at fault, warnings.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';

import { field, fill, fillAll, openRequest, send } from './browser.mjs';
import { page, useHost, withPage } from './suite.mjs';

describe('Refusals', () => {
    useHost();

    const refuse = async () => {
        await openRequest(page, 'QZaven_crypto_kdf');
        await fillAll(page, { HashType: '4', srcdata: 'x', OutLen: '70000' });
        await send(page);
    };

    test('A command keeps its spelling, and names the request', withPage({}, async () => {
        await refuse();
        const remedy = await page.locator('.error-card dd').filter({ hasText: 'describe' }).textContent();
        assert.match(remedy, /^corvane-host describe QZaven_crypto_kdf /);
    }));

    test('A command names the request in Chinese, too', withPage({ locale: 'zh-CN' }, async () => {
        await refuse();
        assert.match(await page.locator('.error-card').textContent(), /corvane-host describe QZaven_crypto_kdf 列出/);
    }));

    test('The field that an answer names is marked until it changes', withPage({}, async () => {
        await openRequest(page, 'QZaven_ke_free');
        await fill(page, 'strKe', 'ke_of_another_day');
        await send(page);
        const input = field(page, 'strKe').locator('.control > input');
        const problem = field(page, 'strKe').locator('.problem');
        assert.equal(await input.getAttribute('aria-invalid'), 'true');
        assert.match(await problem.textContent(), /^[A-Z].*session/);
        assert.match(await input.getAttribute('aria-describedby'), /-problem/);
        // The host is asked again, without a question.
        await page.locator('.form-actions button[type="submit"]').click();
        assert.equal(await page.locator('.attention').textContent(), '');
        await fill(page, 'strKe', 'ke_of_today');
        assert.equal(await problem.textContent(), '');
        assert.equal(await input.getAttribute('aria-invalid'), 'false');
    }, [410]));

    test('The warnings of an answer stand below it', withPage({}, async () => {
        await refuse();
        const warnings = await page.locator('.answer > .warning').allTextContents();
        assert.equal(warnings.length, 1);
        assert.match(warnings[0], /^OutLen .*65535/);
        assert.deepEqual(await page.locator('.answer > .warning code').allTextContents(), ['OutLen']);
    }));
});
