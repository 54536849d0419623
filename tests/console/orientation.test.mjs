// Finding one's way: the first page, the list with its groups and search, the guided flows step by
// step, a key exchange by hand; the page under fingers, in Chinese, and for everybody.

import assert from 'node:assert/strict';
import { existsSync } from 'node:fs';
import { describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { accessibilityFaults, field, fill, fillAll, openRequest, openView, result, runFlow, send } from './browser.mjs';
import { getJson, runLine } from './host.mjs';
import { changeAnswers, freshPage, heading, host, onPage, page, picture, useHost, withPage } from './suite.mjs';

const root = fileURLToPath(new URL('../../', import.meta.url));

const PHONE = { viewport: { width: 390, height: 844 }, hasTouch: true, isMobile: true };

describe('Orientation', () => {
    useHost();

    const search = (words) => page.locator('#search').fill(words);
    const seen = () => page.locator('nav li a').evaluateAll((links) =>
        links.filter((link) => link.checkVisibility()).map((link) => link.getAttribute('href').replace(/#\/(request\/QZaven_)?/, '')));
    const group = (name) => page.locator('nav section', { has: page.getByRole('button', { name, exact: false }) });
    const isOpen = async (name) => await group(name).getByRole('button').getAttribute('aria-expanded') === 'true';
    const openAll = async () => {
        const closed = page.locator('nav h2 button[aria-expanded="false"]');
        while (await closed.count() > 0) await closed.first().click();
    };
    const oneStep = async () => {
        await page.getByRole('button', { name: /^Run (one|the next) step$/ }).click();
        await page.waitForFunction(() => !document.querySelector('[aria-busy]'));
    };

    test('The first page says what the host is, and where to begin', onPage(async () => {
        const { engine } = await getJson(host, '/v1/status');
        assert.equal(await page.locator('.engine q').textContent(), engine);
        assert.equal(await page.locator('.engine .badge').textContent(), 'for development, not for production');
        assert.match(await page.locator('.facts').textContent(), /Workers2 of 2 ready/);
        assert.deepEqual(await page.locator('.tile').evaluateAll((tiles) => tiles.map((tile) => tile.getAttribute('href'))),
            ['#/flow/gcm', '#/flow/public-key', '#/flow/key-exchange']);

        const line = await page.locator('#first-line').textContent();
        assert.equal(JSON.parse(await runLine(line, host)).results.Data, engine);
        await page.getByRole('button', { name: 'Copy the curl line' }).click();
        assert.equal(await page.evaluate(() => navigator.clipboard.readText()), line);
        assert.equal(await page.locator('#first-line').evaluate((element) => getComputedStyle(element).whiteSpace), 'pre');

        const documents = (await page.locator('.documents dt').allTextContents()).filter((name) => name.startsWith('docs/'));
        assert.equal(documents[0], 'docs/tutorial.md');
        assert.ok(documents.length >= 4);
        for (const name of documents) assert.ok(existsSync(root + name), name);
        const link = page.locator('.documents a');
        assert.equal((await (await fetch(host.origin + await link.getAttribute('href'))).json()).openapi, '3.1.0');
    }));

    test('An engine of another maker is not said to be for development', async () => {
        await freshPage();
        await changeAnswers('/v1/status', (status) => { status.engine = 'Engine 7 of somebody'; });
        await page.goto(host.url);
        await page.waitForSelector('.engine q');
        assert.equal(await page.locator('.engine').textContent(), 'Engine 7 of somebody');
        await page.finish();
    });

    test('The list has ciphers before key exchanges, and every request once', onPage(async () => {
        const titles = await page.locator('nav h2 button').evaluateAll((buttons) => buttons.map((button) => button.childNodes[1].textContent));
        assert.deepEqual(titles.slice(0, 5), ['Guided', 'Symmetric cipher', 'MAC and key derivation', 'Public key', 'Envelope']);
        assert.ok(titles.indexOf('Envelope') < titles.indexOf('Key-exchange session'));
        const { requests } = await getJson(host, '/v1/catalogue');
        const listed = await page.locator('nav a[href^="#/request/"]').evaluateAll((links) => links.map((link) => link.getAttribute('href').slice(10)));
        assert.deepEqual(listed.sort(), requests.map(({ name }) => name).sort());
        assert.equal(await page.locator('nav a[href$="QZaven_crypto_envelope_decrypt"] .nav-name').textContent(), 'Opens an envelope');
    }));

    test('Groups open and close, are remembered, and that of the open view stays open', onPage(async () => {
        assert.deepEqual([await isOpen('Symmetric cipher'), await isOpen('Public key')], [true, false]);
        assert.ok(!(await seen()).includes('crypto_public_encrypt'));
        await group('Public key').getByRole('button').click();
        await group('Symmetric cipher').getByRole('button').click();
        assert.deepEqual([await isOpen('Symmetric cipher'), await isOpen('Public key')], [false, true]);
        // Also over a change of the language, which draws all anew.
        await page.locator('#language').click();
        await page.locator('#language').click();
        assert.deepEqual([await isOpen('Symmetric cipher'), await isOpen('Public key')], [false, true]);

        await openRequest(page, 'QZaven_crypto_cmac');
        assert.ok(await isOpen('MAC and key derivation'));
        await group('MAC and key derivation').getByRole('button').dispatchEvent('click');
        assert.ok(await isOpen('MAC and key derivation'));
        await openView(page, '#/status');
        await group('MAC and key derivation').getByRole('button').click();
        assert.ok(!await isOpen('MAC and key derivation'));
    }));

    // What each search must find, and what it must not.
    const SEARCHES = [
        ['aes', ['flow/gcm', 'crypto_encrypt', 'crypto_gen_symmkey', 'crypto_cmac', 'crypto_envelope_encrypt'], ['crypto_hmac', 'crypto_public_encrypt']],
        ['gcm', ['flow/gcm', 'crypto_encrypt', 'crypto_decrypt'], ['crypto_hmac', 'crypto_gen_symmkey']],
        ['rsa', ['flow/public-key', 'crypto_public_encrypt', 'crypto_private_decrypt'], ['crypto_encrypt', 'crypto_hmac', 'ke_new']],
        ['OAEP', ['crypto_public_encrypt', 'crypto_private_decrypt'], ['crypto_envelope_encrypt']],
        ['cms', ['crypto_envelope_encrypt', 'crypto_envelope_decrypt'], ['crypto_encrypt', 'crypto_cmac']],
        ['sm4', ['crypto_encrypt', 'wbsm4_encrypt', 'crypto_gen_symmkey'], ['crypto_hmac', 'crypto_public_encrypt']],
        ...['sha256', 'sha-256', 'SHA 256', 'sha_256'].map((words) => [words, ['crypto_hmac', 'crypto_kdf'], ['crypto_cmac', 'crypto_encrypt']]),
    ];
    const checkSearches = async () => {
        for (const [words, there, elsewhere] of SEARCHES) {
            await search(words);
            const found = await seen();
            assert.deepEqual(there.filter((name) => !found.includes(name)), [], `${words} finds ${found}`);
            assert.deepEqual(elsewhere.filter((name) => found.includes(name)), [], `${words} finds ${found}`);
        }
    };

    test('The search finds algorithms, modes and formats in every spelling', onPage(checkSearches));

    test('What finds nothing says so, and what to try', onPage(async () => {
        await search('md5');
        assert.deepEqual(await seen(), []);
        assert.match(await page.locator('.nav-empty').textContent(), /Nothing found for “md5”.*Try the name of an algorithm/);
        assert.deepEqual(await accessibilityFaults(page), []);
        await page.getByRole('button', { name: 'Empty the search' }).click();
        assert.ok((await seen()).includes('crypto_encrypt'));
        assert.equal(await page.evaluate(() => document.activeElement.id), 'search');
    }));

    test('The steps of a flow can be taken one by one, and go on after a look elsewhere', onPage(async () => {
        await openView(page, '#/flow/gcm');
        await oneStep();
        await oneStep();
        assert.equal(await page.locator('.step[data-state="done"]').count(), 2);
        await openView(page, '#/status');
        await openView(page, '#/flow/gcm');
        assert.equal(await page.locator('.step[data-state="done"]').count(), 2);
        await page.getByRole('button', { name: 'Run the other steps' }).click();
        await page.waitForSelector('.flow-verdict .badge.ok');
        assert.equal(await page.locator('.step[data-state="done"]').count(), 6);
        // Another text is another run.
        await page.locator('main textarea').first().fill('another');
        await oneStep();
        assert.equal(await page.locator('.step[data-state="done"]').count(), 1);
    }));

    test('Each value of the tour can be copied, and each step says who does it', onPage(async () => {
        await openView(page, '#/flow/key-exchange');
        await runFlow(page);
        for (const step of await page.locator('.step').all())
            assert.match(await step.locator('.step-where').textContent(), /^(the client: the host’s session|the server: the peer|this page)/);
        for (const summary of await page.locator('.step details summary').all()) await summary.click();
        const rows = page.locator('.flow-values dd');
        assert.ok(await rows.count() > 30);
        assert.equal(await rows.locator('button').count(), await rows.count());
        // Also what is shown in part.
        const long = rows.filter({ hasText: '…' }).first();
        const shown = (await long.locator('.mono').textContent()).replace('…', '');
        await long.locator('button').click();
        const copied = await page.evaluate(() => navigator.clipboard.readText());
        assert.ok(copied.startsWith(shown) && copied.length > shown.length);
    }));

    test('A step of the tour opens its filled form, and the exchange goes on by hand', onPage(async () => {
        await openView(page, '#/flow/key-exchange');
        for (let i = 0; i < 6; ++i) await oneStep();
        await page.getByRole('button', { name: 'Open in the form: Trust the root' }).click();
        await heading('QZaven_ke_set_root_certificate');
        const session = await field(page, 'strKe').locator('input').inputValue();
        assert.match(session, /^ke_/);
        assert.match(await field(page, 'strCa_file').textContent(), /strCa_file\.bin/);
        assert.equal(await page.locator('.outcome-head .badge').textContent(), 'Success');
        assert.equal(await page.locator('.answer.is-stale').count(), 0);

        await openView(page, '#/flow/key-exchange');
        await page.getByRole('button', { name: 'Open in the form: Say hello' }).click();
        await heading('QZaven_ke_client_hello');
        await page.locator('.next-step button').click();
        await heading('QZaven_ke_client_key_exchange');
        assert.equal(await field(page, 'strKe').locator('input').inputValue(), session);
        await send(page);
        assert.equal(await page.locator('.outcome-head .badge').textContent(), 'Success');
        await picture('by-hand', true);
    }));

    test('A step that is next opens its form before it is sent', onPage(async () => {
        await openView(page, '#/flow/gcm');
        await page.getByRole('button', { name: 'Open in the form: Make a key' }).click();
        await heading('QZaven_crypto_gen_symmkey');
        assert.notEqual(await field(page, 'strCipherAlg').locator('select').inputValue(), '');
        assert.equal(await page.locator('.outcome').count(), 0);
    }));

    test('A session by hand is led through the protocol, to its end', onPage(async () => {
        await openRequest(page, 'QZaven_ke_new');
        await send(page);
        // Also where a result is put into a form of one's choice.
        await page.locator('.use summary').click();
        const offered = await page.locator('.use select option').evaluateAll((options) => options.map((option) => option.value.split(' ')[0]));
        assert.equal(offered[0], 'QZaven_ke_set_public_key');
        assert.equal(offered.at(-1), 'QZaven_ke_free');
        assert.equal(await page.locator('.use select').inputValue(), 'QZaven_ke_set_public_key strKe');

        const way = ['QZaven_ke_set_public_key', 'QZaven_ke_set_certificate', 'QZaven_ke_set_root_certificate', 'QZaven_ke_client_hello',
            'QZaven_ke_client_key_exchange', 'QZaven_ke_encrypt', 'QZaven_ke_decrypt', 'QZaven_ke_hmac', 'QZaven_ke_cmac', 'QZaven_ke_free'];
        for (const name of way) {
            await page.locator('.next-step button').click();
            await heading(name);
            assert.equal(await page.locator('.outcome').count(), 0, name);
            await send(page);
            assert.equal(await page.locator('.outcome-head .badge').textContent(), 'Success', name);
            if (name === 'QZaven_ke_decrypt') assert.match(await result(page, 'Data', 'text'), /old bridge/);
        }
        assert.equal(await page.locator('.next-step').count(), 0);
        // Not below a refusal, and not for others.
        await send(page);
        assert.equal(await page.locator('.next-step').count(), 0);
        await openRequest(page, 'QZaVen_GetVersion');
        await send(page);
        assert.equal(await page.locator('.next-step').count(), 0);
    }, [410]));

    test('Without the peer the next form has the session alone', async () => {
        await freshPage();
        await changeAnswers('/v1/status', (status) => { status.peer = false; });
        await page.goto(host.url);
        await page.waitForSelector('.pill[data-state="ok"]');
        await openRequest(page, 'QZaven_ke_new');
        await send(page);
        const made = await page.locator('[data-result="Data"] .value-text').textContent();
        for (const name of ['QZaven_ke_set_public_key', 'QZaven_ke_set_certificate']) {
            await page.locator('.next-step button').click();
            await heading(name);
            await send(page);
        }
        assert.doesNotMatch(await page.locator('.next-step').textContent(), /the peer/);
        await page.locator('.next-step button').click();
        await heading('QZaven_ke_set_root_certificate');
        assert.equal(await field(page, 'strKe').locator('input').inputValue(), made);
        assert.doesNotMatch(await field(page, 'strCa_file').textContent(), /\.bin/);
        await page.finish();
    });

    // Links within a text are as high as its lines; all else must have room for a finger.
    const small = () => page.evaluate(() => {
        const controls = 'button, select, textarea, summary, .segments label, .tile, .top a, nav a, .facts a, .documents a, td a, .check, '
            + 'input:not([type="radio"], [type="checkbox"])';
        const shown = [...document.querySelectorAll(controls)].filter((element) => element.checkVisibility() && !element.closest('.skip'));
        const name = (element) => `${element.tagName} ${element.className} ${element.textContent.slice(0, 30)}`;
        return [
            ...shown.filter((element) => element.getBoundingClientRect().height < 44)
                .map((element) => `${element.getBoundingClientRect().height} px high: ${name(element)}`),
            ...shown.filter((element) => element.matches('input, select, textarea') && parseFloat(getComputedStyle(element).fontSize) < 16)
                .map((element) => `small letters: ${name(element)}`),
        ];
    });
    const keyHints = () => page.locator('main, nav').evaluateAll((parts) => parts.filter((part) => /Ctrl\+Enter|“\/”/.test(part.innerText)).length);

    test('Fingers find controls of 44 pixels and letters of 16, and no hints for keys', withPage(PHONE, async () => {
        const check = async (what) => {
            assert.deepEqual(await small(), [], what);
            assert.equal(await keyHints(), 0, what);
            assert.ok(await page.evaluate(() => document.documentElement.scrollWidth) <= 390, what);
            await picture(`phone-${what}`);  // whole pages are drawn as for a mouse
        };
        await check('start');
        await page.locator('.menu-button').click();
        await check('menu');
        await search('md5');
        await check('nothing-found');
        await search('');
        await page.locator('.menu-button').click();
        const { requests } = await getJson(host, '/v1/catalogue');
        for (const { name } of requests) {
            await openRequest(page, name);
            assert.deepEqual(await small(), [], name);
            assert.equal(await keyHints(), 0, name);
        }
        await openRequest(page, 'QZaven_crypto_gen_symmkey');
        await fill(page, 'strCipherAlg', '4');
        await send(page);
        await page.locator('.use summary').first().click();
        await check('answer');
        await openRequest(page, 'QZaven_ke_new');
        await send(page);
        await check('session');
        await openRequest(page, 'QZaven_crypto_kdf');
        await page.locator('.form-actions button[type="submit"]').click();
        await check('attention');
        await send(page);
        await check('error');
        await openView(page, '#/flow/gcm');
        await runFlow(page);
        for (const summary of await page.locator('.step details summary').all()) await summary.click();
        await check('flow');
        for (const view of ['history', 'status']) {
            await openView(page, `#/${view}`);
            await check(view);
        }
        await page.locator('.menu-button').click();
        await page.getByRole('button', { name: 'Sign out' }).click();
        await page.waitForSelector('#token');
        await check('sign-in');
    }));

    test('With keys and a mouse the hints are there', onPage(async () => {
        assert.equal(await keyHints(), 1);
        await openRequest(page, 'QZaven_crypto_hmac');
        assert.equal(await keyHints(), 1);
    }));

    test('Chinese: the same searches, and no English in what is new', withPage({ locale: 'zh-CN' }, async () => {
        // Names, and what stands as a quote.
        const english = () => page.evaluate(() => {
            const apart = 'code, pre, .mono, .brand, #language, [lang="en"], .line-head h3, .documents dt';
            const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
            const texts = [];
            while (walker.nextNode())
                if (!walker.currentNode.parentElement.closest(`${apart}, noscript`)) texts.push(walker.currentNode.textContent);
            for (const element of document.querySelectorAll('[aria-label], [placeholder], [title]'))
                for (const name of ['aria-label', 'placeholder', 'title'])
                    if (element.hasAttribute(name) && !element.closest('pre')) texts.push(element.getAttribute(name));
            const names = /QZa[vV]en_\w+|corvane-(host|doc)|serve|#token=|OpenAPI|TOKEN|curl|Data|ke_\w+|str\w+|Camellia|Base64|[A-Z]{3,}|\b[0-9a-f]{12}\b/g;
            return [...new Set(texts)].filter((text) => /[A-Za-z]{4}/.test(text.replace(names, '')));
        });
        const checks = async (what) => {
            assert.deepEqual(await english(), [], what);
            await picture(`chinese-${what}`, true);
        };
        await checks('start');
        assert.match(await page.title(), /[一-鿿]/);
        assert.equal(await page.locator('.engine q').getAttribute('lang'), 'en');
        await checkSearches();
        await search('加密');
        assert.ok((await seen()).includes('crypto_encrypt'));
        await search('nothing');
        assert.match(await page.locator('.nav-empty').textContent(), /没有找到“nothing”/);
        await search('');
        await openAll();
        await checks('groups');
        await openRequest(page, 'QZaven_ke_new');
        await send(page);
        assert.match(await page.locator('.next-step').textContent(), /密钥交换的下一步/);
        await openView(page, '#/flow/key-exchange');
        await page.getByRole('button', { name: '执行一步' }).click();
        await page.waitForSelector('.step[data-state="done"]');
        await checks('one-step');
        assert.equal(await page.locator('main textarea').inputValue(), '六点在老桥见。');
        await openView(page, '#/status');
        await checks('status');
        await page.getByRole('button', { name: '退出' }).click();
        await page.waitForSelector('#token');
        await checks('sign-in');
        await page.locator('#token').fill('falsch');
        await page.keyboard.press('Enter');
        await page.waitForSelector('.error-card');
        await checks('sign-in-refused');
    }, [401]));

    for (const colorScheme of ['light', 'dark'])
        test(`Nobody is shut out of any view, ${colorScheme}`, withPage({ ...PHONE, viewport: { width: 820, height: 1100 }, colorScheme }, async () => {
            const check = async (what) => {
                assert.deepEqual(await accessibilityFaults(page, colorScheme === 'dark'), [], what);
                await picture(`${colorScheme}-tablet-${what}`, true);
            };
            await openAll();
            await check('groups');
            await openRequest(page, 'QZaven_ke_new');
            await send(page);
            await page.locator('.use summary').click();
            await check('next');
            await openRequest(page, 'QZaven_ke_client_hello');
            await fill(page, 'strKe', 'ke_of_another_day');
            await send(page);
            await check('gone');
            await openView(page, '#/flow/public-key');
            await page.locator('main textarea').fill('x'.repeat(191));
            await runFlow(page);
            await check('flow-failed');
            await openView(page, '#/flow/key-exchange');
            await runFlow(page);
            await page.locator('.step details summary').nth(2).click();
            await check('flow-open');
            await page.setViewportSize({ width: 390, height: 844 });
            await openView(page, '#/');
            await page.locator('.menu-button').click();
            await check('menu');
            await page.getByRole('button', { name: 'Sign out' }).click();
            await page.locator('#token').fill('wrong');
            await page.keyboard.press('Enter');
            await page.waitForSelector('.error-card');
            await check('refused');
        }, [401, 410]));

    test('Nobody is shut out of the forms of any group', onPage(async () => {
        const { requests } = await getJson(host, '/v1/catalogue');
        const largest = new Map();
        for (const request of requests)
            if (request.parameters.length >= (largest.get(request.group)?.parameters.length ?? 0)) largest.set(request.group, request);
        assert.ok(largest.size > 5);
        for (const { name } of largest.values()) {
            await openRequest(page, name);
            assert.deepEqual(await accessibilityFaults(page), [], name);
        }
    }));
});
