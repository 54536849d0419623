// The guided flows in a browser: to their ends, to failures, with other names, while people type.

import assert from 'node:assert/strict';
import { writeFileSync } from 'node:fs';
import path from 'node:path';
import { describe, test } from 'node:test';

import { field, fill, openRequest, openView, runFlow, send, signedIn } from './browser.mjs';
import { startHost } from './host.mjs';
import { changeAnswers, code, freshPage, holdRequests, host, onPage, page, picture, submit, useHost, usePage } from './suite.mjs';

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

    const card = () => page.locator('.step[data-state="failed"] .error-card').textContent();

    for (const [flow, option, name] of [['gcm', 'SM4', 'SM4'], ['public-key', null, 'RSA'], ['envelope', null, 'AES-256']])
        test(`A host that knows no names says so: ${flow}`, async () => {
            await freshPage();
            await changeAnswers('/v1/catalogue', ({ requests }) => {
                for (const parameter of requests.flatMap(({ parameters }) => parameters)) delete parameter.choices;
            });
            await page.goto(host.url);
            await page.waitForSelector('.pill[data-state="ok"]');
            await openView(page, `#/flow/${flow}`);
            if (option !== null) await page.locator('main select').selectOption(option);
            assert.equal(await runFlow(page), 'Stopped at a step that failed.');
            assert.match(await card(), new RegExp(`engine has no known name for ${name}\\..*--names FILE`));
            await page.locator('#language').click();
            assert.match(await card(), new RegExp(`不知道 ${name} 在其引擎中的编号.*各引擎的编号不同`));
            await page.locator('#language').click();
            // By hand it goes on.
            const open = page.locator('.step[data-state="failed"]').getByRole('button', { name: 'Open in the form' });
            if (await open.count() > 0) {
                await open.click();
                await page.waitForSelector('.request-view');
                assert.equal(await page.locator('.outcome').count(), 0);
            }
            await page.finish();
        });

    test('With the names of a file the flows go to their ends', async () => {
        const names = path.join(host.folder, 'names.json');
        writeFileSync(names, JSON.stringify({
            strCipherAlg: { 'Aes 256': 4, sm4: 1 }, strMode: { gcm: 6, cbc: 2 }, strKeyPairType: { rsa: 3, sm2: 1 },
        }));
        const named = await startHost('--names', names);
        await usePage(signedIn(named));
        for (const flow of ['gcm', 'public-key', 'envelope']) {
            await openView(page, `#/flow/${flow}`);
            assert.equal(await runFlow(page), WELL, flow);
        }
        // A number that the file does not name can be chosen all the same.
        await openRequest(page, 'QZaven_crypto_gen_symmkey');
        const offered = field(page, 'strCipherAlg').locator('option');
        assert.deepEqual(await offered.allTextContents(), ['Choose…', 'Aes 256 (4)', 'sm4 (1)', '2', '3', '5', '6', '7']);
        await fill(page, 'strCipherAlg', '2');
        await send(page);
        assert.match(await page.locator('[data-result="Data"] .size').textContent(), /^16 bytes/);
        await page.finish();
        await named.stop();
    });

    test('What is typed during a run belongs to the next one', onPage(async () => {
        await openView(page, '#/flow/gcm');
        const sent = [];
        page.on('request', (asked) => { if (asked.url().includes('/v1/requests/')) sent.push(asked.url().replace(/.*_/, '')); });
        const text = page.locator('main textarea').first();
        const release = await holdRequests('**/v1/requests/*_encrypt');
        await submit();
        await page.waitForSelector('.step:nth-child(3)[data-state="running"]');
        await text.fill('typed meanwhile');
        release();
        await page.waitForSelector('.flow-verdict .badge');
        assert.equal(await page.locator('.flow-verdict').textContent(), WELL);
        const due = ['symmkey', 'encrypt', 'decrypt', 'decrypt'];
        assert.deepEqual(sent, due);
        assert.match(await page.locator('.step:last-child blockquote').textContent(), /^Meet me/);
        assert.equal(await runFlow(page), WELL);
        await page.waitForFunction(() => document.querySelector('.step:last-child blockquote')?.textContent === 'typed meanwhile');
        assert.deepEqual(sent, [...due, ...due]);
    }));

    test('What is chosen before a run goes into the form of its first step', onPage(async () => {
        await openView(page, '#/flow/gcm');
        await page.locator('main select').selectOption('SM4');
        await page.getByRole('button', { name: 'Open in the form' }).click();
        await page.waitForSelector('.request-view');
        assert.equal(await field(page, 'strCipherAlg').locator('select').inputValue(), '1');
    }));
});
